#include "licencenotices.h"
#include "servicestart.h"

#include <QCoreApplication>

int main(int argc, char *argv[])
{
    // Checked before anything is constructed, so the notices print even without configuration or log folder.
    if (LicenceNotices::requested(argc, argv)) {
        LicenceNotices::print();
        return 0;
    }

    ServiceStart::pinTimeZone();
    QCoreApplication app(argc, argv);
    ServiceStart::nameApplication();
    ServiceStart::createCore(app);
    return app.exec();
}
