#ifndef ORVIX_SERVICESTART_H
#define ORVIX_SERVICESTART_H

#include <QString>

class Core;
class QCoreApplication;

/** What the entry point does between creating the application object and running its event loop. */
class ServiceStart
{
public:
    /**
     * Points TZ at zoneFile when TZ is unset and the file exists, before anything reads the time zone. With TZ unset
     * the C library looks at /etc/localtime again (a stat) at every conversion to or from local time; with TZ naming
     * the file it reads the zone once. A change of the system's time zone then takes effect at the next start.
     */
    static void pinTimeZone(const QString &zoneFile = QStringLiteral("/etc/localtime"));

    /** Names the application: organisation "Brennick", application "orvix", version "dev". */
    static void nameApplication();

    /**
     * Creates the service's Core as a child of app, ends the event loop when the Core finishes, and schedules its
     * run() for the first turn of the loop, followed by the readiness notice to systemd and its watchdog pings.
     * The paths default to the service's fixed ones.
     */
    static Core *createCore(QCoreApplication &app, const QString &configFile = QStringLiteral("/etc/orvix/orvix.ini"),
        const QString &logFileName = QStringLiteral("/var/log/orvix/orvix.log"),
        const QString &logOldCopy = QStringLiteral("/var/log/orvix/orvix.lastlog"));
};

#endif
