#include "core.h"
#include "servicestart.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

class tst_ServiceStart : public QObject
{
    Q_OBJECT

private slots:
    void namesTheApplication();
    void finishedCoreEndsTheEventLoop();
};

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

QTEST_GUILESS_MAIN(tst_ServiceStart)
#include "tst_servicestart.moc"
