#include "isolatedservice.h"
#include "testsupport.h"

#include <QtTest>

using namespace TestSupport;

/** The configuration that ships with orvix, with every shipped plugin installed: what a newcomer's first run does. */
class tst_ExampleConfig : public QObject
{
    Q_OBJECT

private slots:
    void firstRunShowsSimulatedMachinesWithoutWarnings();
};

void tst_ExampleConfig::firstRunShowsSimulatedMachinesWithoutWarnings()
{
    if (!IsolatedService::available())
        QSKIP("needs root and unshare for a private mount namespace");
    IsolatedService service;
    service.writeConfig(readFile(QStringLiteral(ORVIX_EXAMPLE_CONFIG)));
    QVERIFY(service.start(QStringList(), QStringLiteral(ORVIX_PLUGIN_BUILD_DIR)));

    const auto stateOf = [&service](const char *machine) {
        return service.output().contains(QByteArray("\"machine\":\"") + machine
            + "\",\"source\":\"simulator\","
              "\"type\":\"StateV1\"");
    };
    QTRY_VERIFY_WITH_TIMEOUT(stateOf("sim1") && stateOf("sim2"), 30000);
    service.stop();

    const QStringList lines = service.logLines();
    QVERIFY(lines.contains("INFO core: \"Ignoring datasource replay, because it's disabled in the config.\""));
    QStringList problems;
    for (const QString &line : lines) {
        if (!line.startsWith(QLatin1String("INFO")) && !line.startsWith(QLatin1String("DEBUG")))
            problems.append(line);
    }
    QCOMPARE(problems, QStringList());
}

QTEST_GUILESS_MAIN(tst_ExampleConfig)
#include "tst_exampleconfig.moc"
