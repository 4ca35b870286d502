#include "servicestart.h"

#include "core.h"

#include <QCoreApplication>
#include <QTimer>

void ServiceStart::nameApplication()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Brennick"));
    QCoreApplication::setApplicationName(QStringLiteral("orvix"));
    QCoreApplication::setApplicationVersion(QStringLiteral("dev"));
}

Core *ServiceStart::createCore(
    QCoreApplication &app, const QString &configFile, const QString &logFileName, const QString &logOldCopy)
{
    auto *core = new Core(false, &app, configFile, logFileName, logOldCopy);
    QObject::connect(core, SIGNAL(finished()), &app, SLOT(quit()));
    QTimer::singleShot(0, core, SLOT(run()));
    return core;
}
