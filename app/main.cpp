#include "core.h"
#include "licencenotices.h"

#include <QCoreApplication>
#include <QTimer>

int main(int argc, char *argv[])
{
    // Checked before anything is constructed, so the notices print even without configuration or log folder.
    if (LicenceNotices::requested(argc, argv)) {
        LicenceNotices::print();
        return 0;
    }

    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Brennick"));
    QCoreApplication::setApplicationName(QStringLiteral("orvix"));
    QCoreApplication::setApplicationVersion(QStringLiteral("dev"));

    auto *core = new Core(false, &app);
    QObject::connect(core, SIGNAL(finished()), &app, SLOT(quit()));
    QTimer::singleShot(0, core, SLOT(run()));
    return app.exec();
}
