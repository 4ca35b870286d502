#include "core.h"
#include "servicestart.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <ctime>

class tst_ServiceStart : public QObject
{
    Q_OBJECT

private slots:
    void namesTheApplication();
    void finishedCoreEndsTheEventLoop();
    void timeZonePinnedToTheZoneFile();
    void timeZoneOfTheEnvironmentKept();
    void timeZoneLeftUnsetWithoutZoneFile();
    void cleanup();
};

namespace {

// A zone that is never UTC, whatever zone the machine running the tests has: one hour ahead in January.
const char BerlinZone[] = "/usr/share/zoneinfo/Europe/Berlin";

int januaryOffset()
{
    return QDateTime(QDate(2024, 1, 15), QTime(12, 0), Qt::LocalTime).offsetFromUtc();
}

} // namespace

void tst_ServiceStart::cleanup()
{
    qunsetenv("TZ");
    tzset();
}

void tst_ServiceStart::namesTheApplication()
{
    ServiceStart::nameApplication();
    QCOMPARE(QCoreApplication::organizationName(), QStringLiteral("Brennick"));
    QCOMPARE(QCoreApplication::applicationName(), QStringLiteral("orvix"));
    QCOMPARE(QCoreApplication::applicationVersion(), QStringLiteral("dev"));
}

void tst_ServiceStart::finishedCoreEndsTheEventLoop()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    qputenv("ORVIX_PLUGINPATH", dir.filePath(QStringLiteral("plugins")).toUtf8());
    Core *core = ServiceStart::createCore(*qApp, dir.filePath(QStringLiteral("orvix.ini")),
        dir.filePath(QStringLiteral("orvix.log")), dir.filePath(QStringLiteral("orvix.lastlog")));
    QCOMPARE(core->parent(), qApp);

    bool ran = false;
    const QString logFile = dir.filePath(QStringLiteral("orvix.log"));
    QTimer::singleShot(0, qApp, [&ran, core, logFile] {
        // run() was scheduled for the loop's first turn, before this: it has warned that no plugin was found.
        QFile log(logFile);
        ran = log.open(QIODevice::ReadOnly) && log.readAll().contains("At least one datasource plugin has to be used.");
        QMetaObject::invokeMethod(core, "finished");
    });
    // Should finished() not end the loop, this ends it with another code.
    QTimer::singleShot(5000, qApp, [] { QCoreApplication::exit(7); });
    QCOMPARE(QCoreApplication::exec(), 0);
    QVERIFY(ran);
    delete core;
    qunsetenv("ORVIX_PLUGINPATH");
}

void tst_ServiceStart::timeZonePinnedToTheZoneFile()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString zoneFile = dir.filePath(QStringLiteral("localtime"));
    QVERIFY(QFile::copy(QString::fromLatin1(BerlinZone), zoneFile));
    qunsetenv("TZ");
    ServiceStart::pinTimeZone(zoneFile);
    QCOMPARE(qgetenv("TZ"), ":" + QFile::encodeName(zoneFile));
    // Local time follows the file the variable names, so the service keeps the zone the machine is set to.
    QCOMPARE(januaryOffset(), 3600);
}

void tst_ServiceStart::timeZoneOfTheEnvironmentKept()
{
    qputenv("TZ", "UTC0");
    ServiceStart::pinTimeZone(QString::fromLatin1(BerlinZone));
    QCOMPARE(qgetenv("TZ"), QByteArray("UTC0"));
    QCOMPARE(januaryOffset(), 0);
}

void tst_ServiceStart::timeZoneLeftUnsetWithoutZoneFile()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    qunsetenv("TZ");
    ServiceStart::pinTimeZone(dir.filePath(QStringLiteral("missing")));
    QVERIFY(!qEnvironmentVariableIsSet("TZ"));
}

QTEST_GUILESS_MAIN(tst_ServiceStart)
#include "tst_servicestart.moc"
