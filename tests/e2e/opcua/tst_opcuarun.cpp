#include "datasetcodec.h"
#include "isolatedservice.h"
#include "mmdatasets.h"
#include "nodescript.h"
#include "testsupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

namespace {

const QString ServerScript = QStringLiteral("tests/plugins/datasources/opcua/wwtestserver.js");

QList<DatasetCodec::Dataset> readDatasets(const QString &file)
{
    QList<DatasetCodec::Dataset> datasets;
    for (const QByteArray &line : TestSupport::readFile(file).split('\n')) {
        DatasetCodec::Dataset dataset;
        if (!line.isEmpty() && DatasetCodec::decodeLine(line, &dataset))
            datasets.append(dataset);
    }
    return datasets;
}

template <typename T> QList<T> ofType(const QList<DatasetCodec::Dataset> &datasets, const QString &machine)
{
    QList<T> result;
    for (const DatasetCodec::Dataset &dataset : datasets) {
        if (dataset.machine == machine && dataset.data.userType() == qMetaTypeId<T>())
            result.append(dataset.data.value<T>());
    }
    return result;
}

/** The machine and type of each dataset, and the number of items of lists, for a failure's message. */
QString summary(const QList<DatasetCodec::Dataset> &datasets)
{
    QStringList parts;
    for (const DatasetCodec::Dataset &dataset : datasets) {
        QString part = dataset.machine + QLatin1Char(' ') + QString::fromLatin1(dataset.data.typeName());
        if (dataset.data.userType() == qMetaTypeId<ConditionDefinitionsV2>())
            part += QStringLiteral("(%1)").arg(dataset.data.value<ConditionDefinitionsV2>().items.size());
        parts << part;
    }
    return parts.join(QStringLiteral(", "));
}

bool defines(const QList<DatasetCodec::Dataset> &datasets, const QString &machine, const QString &id)
{
    for (const ConditionDefinitionsV2 &list : ofType<ConditionDefinitionsV2>(datasets, machine)) {
        for (const ConditionDefinitionV2 &definition : list.items) {
            if (definition.id == id)
                return true;
        }
    }
    return false;
}

/** The first condition value, in the file's order, whose definition is not before it; empty when there is none. */
QString undefinedValue(const QList<DatasetCodec::Dataset> &datasets)
{
    QSet<QString> defined;
    for (const DatasetCodec::Dataset &dataset : datasets) {
        if (dataset.data.userType() == qMetaTypeId<ConditionDefinitionsV2>()) {
            for (const ConditionDefinitionV2 &definition : dataset.data.value<ConditionDefinitionsV2>().items)
                defined.insert(definition.id);
        } else if (dataset.data.userType() == qMetaTypeId<ConditionDatasV2>()) {
            for (const ConditionDataV2 &data : dataset.data.value<ConditionDatasV2>().items) {
                if (!defined.contains(data.id))
                    return data.id;
            }
        }
    }
    return QString();
}

QVariant lastValue(const QList<DatasetCodec::Dataset> &datasets, const QString &machine, const QString &id)
{
    QVariant value;
    for (const ConditionDatasV2 &list : ofType<ConditionDatasV2>(datasets, machine)) {
        for (const ConditionDataV2 &data : list.items) {
            if (data.id == id)
                value = data.value;
        }
    }
    return value;
}

const QByteArray Chain = "[core]\n"
                         "log=\"*.debug=false\"\n"
                         "[limit]\n"
                         "waitTime=200\n"
                         "keepAliveTime=1000\n"
                         "[opcua]\n"
                         "line1\\url=opc.tcp://127.0.0.1:%1\n"
                         "line1\\publishingInterval=50\n";

} // namespace

/**
 * The opcua datasource in the real service, reading a node-opcua server of woodworking machines: through the whole
 * chain into the jsonl target, and through the chain into the opcuaServer target, where a node-opcua client reads
 * the machines back.
 */
class tst_OpcUaRun : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void machinesThroughTheChain();
    void gatewayLoop();
    void smallLimitsThroughTheChain();
    void refusedCertificateIsLogged();
    void hangingMachineDoesNotHoldTheOthers();
    void everyConditionValueIsDefinedFirst_data();
    void everyConditionValueIsDefinedFirst();

private:
    bool startServer(const QStringList &arguments = QStringList());
    bool startWithJsonl(IsolatedService *service, const QByteArray &config);

    NodeScript m_server;
    quint16 m_port = 0;
};

void tst_OpcUaRun::initTestCase()
{
    if (!IsolatedService::available())
        QSKIP("needs root and unshare for a private mount namespace");
    if (!NodeScript::available())
        QSKIP("needs node-opcua (tools/install-deps.sh installs it into tests/nodeopcua)");
}

void tst_OpcUaRun::cleanup()
{
    m_server.stop();
}

bool tst_OpcUaRun::startServer(const QStringList &arguments)
{
    m_port = TestSupport::freePort();
    m_server.start(ServerScript, QStringList { QStringLiteral("--port"), QString::number(m_port) } + arguments);
    return !m_server.next(QStringLiteral("ready"), 60000).isEmpty();
}

bool tst_OpcUaRun::startWithJsonl(IsolatedService *service, const QByteArray &config)
{
    for (const char *plugin : { "libopcua.so", "libjsonl.so" }) {
        if (!QFile::copy(QStringLiteral(ORVIX_PLUGIN_BUILD_DIR "/") + plugin, service->pluginDir() + "/" + plugin))
            return false;
    }
    service->writeConfig(
        QString::fromUtf8(Chain + config + "[jsonl]\nfile=/var/log/orvix/output.jsonl\n").arg(m_port).toUtf8());
    return service->start();
}

void tst_OpcUaRun::machinesThroughTheChain()
{
    QVERIFY(startServer());
    IsolatedService service;
    for (const char *plugin : { "libopcua.so", "libjsonl.so" })
        QVERIFY(QFile::copy(QStringLiteral(ORVIX_PLUGIN_BUILD_DIR "/") + plugin, service.pluginDir() + "/" + plugin));
    service.writeConfig(QString::fromUtf8(Chain + "[jsonl]\nfile=/var/log/orvix/output.jsonl\n").arg(m_port).toUtf8());
    QVERIFY(service.start());
    const QString output = service.logDir() + QStringLiteral("/output.jsonl");

    // Saw1 works with a workpiece present (state 2); Edge2 is ready, and without the optional flags its state is 4.
    QTRY_VERIFY2_WITH_TIMEOUT(!ofType<StateV1>(readDatasets(output), "Saw1").isEmpty()
            && !ofType<StateV1>(readDatasets(output), "Edge2").isEmpty()
            && !ofType<GeneralV1>(readDatasets(output), "Saw1").isEmpty()
            && defines(readDatasets(output), "Saw1", "Saw1/State/Machine/Flags/MachineOn")
            && defines(readDatasets(output), "Edge2", "Edge2/State/Machine/Flags/MachineOn"),
        qPrintable(summary(readDatasets(output))), 30000);
    QList<DatasetCodec::Dataset> datasets = readDatasets(output);
    QCOMPARE(ofType<StateV1>(datasets, "Saw1").first().state, qint32(StateV1::Producing));
    QCOMPARE(ofType<StateV1>(datasets, "Edge2").first().state, qint32(StateV1::Standby));
    // What Limit holds for its timer leaves with its own source.
    for (const DatasetCodec::Dataset &dataset : datasets)
        QVERIFY2(dataset.source == QLatin1String("opcua/line1") || dataset.source == QLatin1String("Limiter"),
            qPrintable(dataset.source));
    QVERIFY(defines(datasets, "Saw1", "Saw1/State/Machine/Values/AbsoluteRunsGood"));
    QCOMPARE(lastValue(datasets, "Saw1", "Saw1/State/Machine/Flags/MachineOn").toBool(), true);

    const QJsonObject event { { "machine", "Saw1" }, { "messageId", "4711" }, { "message", "Spindle hot" },
        { "category", 3 }, { "pathParts", QJsonArray { "Unit1", "Spindle" } },
        { "texts", QJsonObject { { "en", "Spindle hot" } } } };
    QVERIFY(m_server.command(QJsonObject { { "event", event } }));
    QTRY_VERIFY_WITH_TIMEOUT(!ofType<NotificationsAddV1>(readDatasets(output), "Saw1").isEmpty(), 10000);
    const NotificationsAddV1 added = ofType<NotificationsAddV1>(readDatasets(output), "Saw1").first();
    QCOMPARE(added.id, QStringLiteral("Unit1/Spindle/4711"));
    QCOMPARE(added.level, qint32(NotificationsAddV1::Warning));
    QCOMPARE(added.message, QStringLiteral("Spindle hot"));
    QCOMPARE(added.messageCode, QStringLiteral("4711"));
    QJsonObject withdrawal = event;
    withdrawal.insert("message", "{OFF}");
    QVERIFY(m_server.command(QJsonObject { { "event", withdrawal } }));
    QTRY_VERIFY_WITH_TIMEOUT(!ofType<NotificationsRemoveV1>(readDatasets(output), "Saw1").isEmpty(), 10000);
    QCOMPARE(ofType<NotificationsRemoveV1>(readDatasets(output), "Saw1").first().id, QStringLiteral("4711"));

    // A flag that changes on the machine reaches the file as its condition's new value.
    QVERIFY(m_server.command(QJsonObject { { "set",
        QJsonObject { { "machine", "Saw1" }, { "path", "State/Machine/Flags/Alarm" }, { "value", true } } } }));
    QTRY_VERIFY_WITH_TIMEOUT(lastValue(readDatasets(output), "Saw1", "Saw1/State/Machine/Flags/Alarm").toBool(), 10000);
    service.stop();
    QVERIFY(service.logLines().contains(
        QStringLiteral("INFO opcua: \"Connected to line1 at opc.tcp://127.0.0.1:%1\"").arg(m_port)));
}

void tst_OpcUaRun::gatewayLoop()
{
    QVERIFY(startServer());
    IsolatedService service;
    for (const char *plugin : { "libopcua.so", "libopcuaserver.so" })
        QVERIFY(QFile::copy(QStringLiteral(ORVIX_PLUGIN_BUILD_DIR "/") + plugin, service.pluginDir() + "/" + plugin));
    const quint16 served = TestSupport::freePort();
    service.writeConfig(QString::fromUtf8(Chain
        + "[opcuaServerTarget]\n"
          "port=%2\n"
          "securityPolicies=None\n"
          "pki=/var/log/orvix/pki\n")
                            .arg(m_port)
                            .arg(served)
                            .toUtf8());
    QVERIFY(service.start());

    // Through both mapping tables: Saw1's state code 2 is served as WORKING in AUTOMATIC, Edge2's code 4 as WORKING
    // in SLEEP. A machine that is not configured is mapped once the mapper stops waiting for its capabilities, 30 s
    // after its first dataset; the datasource sends a state when it changes, so a counter moves on each round.
    const QJsonObject expected { { "Saw1", QJsonObject { { "CurrentState", 3 }, { "CurrentMode", 1 } } },
        { "Edge2", QJsonObject { { "CurrentState", 3 }, { "CurrentMode", 5 } } } };
    QJsonObject states;
    QElapsedTimer clock;
    clock.start();
    for (int round = 1; states != expected && clock.elapsed() < 90000; ++round) {
        QJsonArray counters;
        for (const char *machine : { "Saw1", "Edge2" })
            counters.append(QJsonObject { { "machine", machine }, { "path", "State/Machine/Values/AbsoluteRunsGood" },
                { "value", 100000 + round } });
        QVERIFY(m_server.command(QJsonObject { { "setMany", counters } }));
        NodeScript client;
        client.start(QStringLiteral("tests/nodeopcua/machinestates.js"),
            { QStringLiteral("opc.tcp://127.0.0.1:%1").arg(served) });
        states = client.next(QStringLiteral("states"), 20000).value(QStringLiteral("states")).toObject();
        if (states != expected)
            QTest::qWait(2000);
    }
    QCOMPARE(
        QJsonDocument(states).toJson(QJsonDocument::Compact), QJsonDocument(expected).toJson(QJsonDocument::Compact));
    service.stop();
}

void tst_OpcUaRun::smallLimitsThroughTheChain()
{
    // An embedded PLC server's limits: every machine's state still arrives, without a warning.
    QVERIFY(startServer({ QStringLiteral("--limits") }));
    IsolatedService service;
    QVERIFY(startWithJsonl(&service, QByteArray()));
    const QString output = service.logDir() + QStringLiteral("/output.jsonl");
    QTRY_VERIFY2_WITH_TIMEOUT(!ofType<StateV1>(readDatasets(output), "Saw1").isEmpty()
            && !ofType<StateV1>(readDatasets(output), "Edge2").isEmpty()
            && defines(readDatasets(output), "Saw1", "Saw1/State/Machine/Values/AbsoluteRunsGood"),
        qPrintable(summary(readDatasets(output))), 30000);
    service.stop();
    QCOMPARE(service.logLines().filter(QStringLiteral("WARNING opcua:")), QStringList());
}

void tst_OpcUaRun::refusedCertificateIsLogged()
{
    QTemporaryDir serverPki;
    QVERIFY(startServer({ QStringLiteral("--secure"), QStringLiteral("--pki"), serverPki.path() }));
    IsolatedService service;
    QVERIFY(startWithJsonl(&service,
        "line1\\securityMode=SignAndEncrypt\nline1\\securityPolicy=Basic256Sha256\nline1\\username=operator\n"
        "line1\\password=secret\nline1\\pki=/var/log/orvix/pki\n"));
    // orvix trusts the server once it has saved its certificate; the server does not trust orvix.
    const QString rejected = service.logDir() + QStringLiteral("/pki/rejected");
    QTRY_VERIFY_WITH_TIMEOUT(QDir(rejected).entryList(QDir::Files).size() == 1, 30000);
    const QString file = QDir(rejected).entryList(QDir::Files).first();
    QVERIFY(
        QFile::rename(rejected + QLatin1Char('/') + file, service.logDir() + QStringLiteral("/pki/trusted/") + file));
    const QString refused
        = QStringLiteral("WARNING opcua: \"The server of line1 at opc.tcp://127.0.0.1:%1 refused orvix's "
                         "certificate (BadSecurityChecksFailed): trust "
                         "/var/log/orvix/pki/own/certs/cert.der on the server\"")
              .arg(m_port);
    QTRY_VERIFY_WITH_TIMEOUT(service.logLines().contains(refused), 30000);
    service.stop();
}

void tst_OpcUaRun::hangingMachineDoesNotHoldTheOthers()
{
    // The server never answers a browse of Saw1: Edge2 arrives, Saw1 is named in the log with the time-out.
    QVERIFY(startServer({ QStringLiteral("--hang-browse"), QStringLiteral("Saw1") }));
    IsolatedService service;
    QVERIFY(startWithJsonl(&service, "line1\\timeout=500\n"));
    const QString output = service.logDir() + QStringLiteral("/output.jsonl");
    QTRY_VERIFY2_WITH_TIMEOUT(
        !ofType<StateV1>(readDatasets(output), "Edge2").isEmpty(), qPrintable(summary(readDatasets(output))), 30000);
    const QString warning
        = QStringLiteral("WARNING opcua: \"Browsing Saw1 of line1 failed (BadTimeout, time-out 500 ms): "
                         "machine Saw1 is tried again in ");
    QTRY_VERIFY_WITH_TIMEOUT(!service.logLines().filter(warning).isEmpty(), 10000);
    service.stop();
    QVERIFY(ofType<StateV1>(readDatasets(output), "Saw1").isEmpty());
    QCOMPARE(service.logLines().filter(QStringLiteral("Lost the connection")), QStringList());
}

void tst_OpcUaRun::everyConditionValueIsDefinedFirst_data()
{
    QTest::addColumn<int>("waitTime");
    QTest::newRow("300 ms") << 300;
    QTest::newRow("10 s, as shipped") << 10000;
}

void tst_OpcUaRun::everyConditionValueIsDefinedFirst()
{
    // Limit passes one list of definitions per machine and wait time: the nameplate's must not be held back.
    QFETCH(int, waitTime);
    QVERIFY(startServer());
    IsolatedService service;
    for (const char *plugin : { "libopcua.so", "libjsonl.so" })
        QVERIFY(QFile::copy(QStringLiteral(ORVIX_PLUGIN_BUILD_DIR "/") + plugin, service.pluginDir() + "/" + plugin));
    service.writeConfig(QStringLiteral("[core]\nlog=\"*.debug=false\"\n[limit]\nwaitTime=%1\nkeepAliveTime=1000\n"
                                       "[opcua]\nline1\\url=opc.tcp://127.0.0.1:%2\nline1\\publishingInterval=50\n"
                                       "[jsonl]\nfile=/var/log/orvix/output.jsonl\n")
                            .arg(waitTime)
                            .arg(m_port)
                            .toUtf8());
    QVERIFY(service.start());
    const QString output = service.logDir() + QStringLiteral("/output.jsonl");
    QTRY_VERIFY2_WITH_TIMEOUT(!lastValue(readDatasets(output), "Saw1", "Saw1/State/Machine/Flags/MachineOn").isNull()
            && !lastValue(readDatasets(output), "Edge2", "Edge2/State/Machine/Flags/MachineOn").isNull(),
        qPrintable(summary(readDatasets(output))), 30000);
    // Whatever Limit still holds for its wait time, what it lets through has its definitions before it.
    QTest::qWait(waitTime + 500);
    service.stop();
    const QList<DatasetCodec::Dataset> datasets = readDatasets(output);
    QVERIFY2(undefinedValue(datasets).isEmpty(), qPrintable(undefinedValue(datasets) + ": " + summary(datasets)));
    QVERIFY(defines(datasets, "Saw1", "Saw1/Identification/SerialNumber"));
    QVERIFY(defines(datasets, "Edge2", "Edge2/Identification/SerialNumber"));
}

QTEST_GUILESS_MAIN(tst_OpcUaRun)
#include "tst_opcuarun.moc"
