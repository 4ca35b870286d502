#include "servicestart.h"

#include "core.h"
#include "metricsserver.h"
#include "watchdog.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QTimer>

#include <ctime>

void ServiceStart::pinTimeZone(const QString &zoneFile)
{
    if (qEnvironmentVariableIsSet("TZ") || !QFileInfo(zoneFile).isFile())
        return;
    // The leading colon names a file; Qt reads ":/etc/localtime" as the system's zone, as it does an unset TZ.
    qputenv("TZ", ":" + QFile::encodeName(zoneFile));
    tzset();
}

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
    // Made before run(), so that it counts each processor's output ahead of the next one.
    auto *metrics = new MetricsServer(core, core);
    QTimer::singleShot(0, core, SLOT(run()));
    QTimer::singleShot(0, metrics, SLOT(start()));
    // Zero-delay timers fire in the order they were made: systemd hears READY=1 once run() has wired the chain.
    auto *watchdog = new Watchdog(core);
    QTimer::singleShot(0, watchdog, SLOT(ready()));
    return core;
}
