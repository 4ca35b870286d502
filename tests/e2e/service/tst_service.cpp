#include "isolatedservice.h"
#include "testsupport.h"

#include <QtTest>

using namespace TestSupport;

class tst_Service : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void datasetFlowsAndLogRotates();
    void keepsRunningWithoutPlugins();
};

void tst_Service::init()
{
    if (!IsolatedService::available())
        QSKIP("needs root and unshare for a private mount namespace");
}

void tst_Service::datasetFlowsAndLogRotates()
{
    IsolatedService service;
    QVERIFY(copyTestPlugin("testsource", service.pluginDir() + "/libtestsource.so"));
    QVERIFY(copyTestPlugin("testtarget", service.pluginDir() + "/targets/libtesttarget.so"));
    service.writeConfig("[core]\nlog=\"*.debug=false;dataset.debug=true\"\n"
                        "[testsource]\nsendOnInit=hello\n"
                        "[testtarget]\nlogReceived=true\n");
    writeFile(service.logDir() + "/orvix.log", "the previous run\n");

    QVERIFY(service.start());
    QTRY_VERIFY_WITH_TIMEOUT(service.logLines().contains("INFO testtarget: \"received m1 src hello\""), 20000);
    QVERIFY(service.process().state() == QProcess::Running);
    const QByteArray output = service.stop();

    QCOMPARE(readFile(service.logDir() + "/orvix.lastlog"), QByteArray("the previous run\n"));
    const QStringList lines = service.logLines();
    QCOMPARE(lines.first(), QStringLiteral("INFO core: \"starting orvix dev as normal process\""));
    QVERIFY(lines.contains("DEBUG dataset: \"Source: src Maschine: m1 Dataset: QString\""));
    QVERIFY(!lines.join('\n').contains("WARNING core"));
    QVERIFY(output.contains("     INFO                core \"Using configfile: /etc/orvix/orvix.ini\"\n"));
    QVERIFY(output.contains("     INFO          testtarget \"received m1 src hello\"\n"));
}

void tst_Service::keepsRunningWithoutPlugins()
{
    IsolatedService service;
    QVERIFY(service.start({ "-x", "--l", "-la", "-L" }));
    QTRY_VERIFY_WITH_TIMEOUT(
        service.logLines().contains("WARNING core: \"At least one target plugin has to be used.\""), 20000);
    QVERIFY(!service.process().waitForFinished(300));
    QVERIFY(service.logLines().contains("WARNING core: \"At least one datasource plugin has to be used.\""));
}

QTEST_GUILESS_MAIN(tst_Service)
#include "tst_service.moc"
