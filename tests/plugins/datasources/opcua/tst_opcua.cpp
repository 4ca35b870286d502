#include "opcua.h"

#include "logcapture.h"
#include "nodescript.h"
#include "opcuaconnection.h"
#include "opcuaserver.h"
#include "pluginchecks.h"
#include "testsupport.h"
#include "wwtypes.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const QString ServerScript = QStringLiteral("tests/plugins/datasources/opcua/wwtestserver.js");

/** The datasets of one type that a spy caught, with their machine and time stamp. */
template <typename T> struct Caught
{
    QDateTime timestamp;
    QString machine;
    QString source;
    T record;
};

template <typename T> QList<Caught<T>> caught(const QSignalSpy &spy, const QString &machine = QString())
{
    QList<Caught<T>> result;
    for (const QList<QVariant> &arguments : spy) {
        const QVariant data = arguments.at(3);
        if (data.userType() != qMetaTypeId<T>())
            continue;
        if (!machine.isEmpty() && arguments.at(1).toString() != machine)
            continue;
        result.append(Caught<T> {
            arguments.at(0).toDateTime(), arguments.at(1).toString(), arguments.at(2).toString(), data.value<T>() });
    }
    return result;
}

QJsonObject set(const QString &machine, const QString &path, const QJsonValue &value)
{
    return QJsonObject { { QStringLiteral("set"),
        QJsonObject { { QStringLiteral("machine"), machine }, { QStringLiteral("path"), path },
            { QStringLiteral("value"), value } } } };
}

} // namespace

class tst_OpcUa : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void pluginLibrary();
    void sampleIniHoldsEveryKey();
    void readmeDocumentsEveryKey();
    void readmeQuotesSampleIni();

    void noConnectionFailsInit();
    void connectionWithoutUrlIsSkipped();
    void unusableSettingsSkipTheConnection_data();
    void unusableSettingsSkipTheConnection();
    void unreachableServerIsWarnedAboutOnce();

    void readsTheOpcUaServerTarget();
    void machinesAreFoundAndRead();
    void changesYieldOneCompleteState();
    void identificationAndProgramChanges();
    void eventsBecomeWwBaseEvents();
    void machinesAndRenames();
    void unknownMachineIsWarnedAbout();
    void machineWithoutFlagsAndValues();
    void serverWithoutWoodworking();
    void mistypedValueIsSkippedOnce();
    void restartedServerIsReadAgain();
    void untrustedServerThenTrusted();
    void unconfigurableClientKeepsTrying();
    void libraryLinesHaveACategoryOfTheirOwn();
    void operationLimitsAreHonoured();
    void refusedItemsAreRetriedThenGivenUp();
    void refusedClientCertificateIsNamedOnce();
    void timeDoesNotRunBackwardsAfterAReconnect();
    void backoffGrowsWhileSessionsDropAtOnce();
    void silentServerMeetsTheConnectDeadline();
    void machinesOutsideTheMachinesFolder_data();
    void machinesOutsideTheMachinesFolder();
    void serverWithoutMachinesIsWarnedAbout();
    void sameNameInOneConnectionIsNotMerged();
    void sameNameOnTwoServersIsNotMerged();
    void eventsFromEveryNotifierArriveOnce_data();
    void eventsFromEveryNotifierArriveOnce();
    void messageIdOfAnotherType();
    void hangingMachineIsRetriedAlone();
    void slowNamespaceReadIsATimeout();
    void longStringsAreCut();

private:
    bool startServer(const QStringList &arguments = QStringList());
    std::unique_ptr<OpcUaDatasource> open(QVariantMap connection, int firstBackoff = 100, int longestBackoff = 400);
    int channels();

    LogCapture m_log { QStringLiteral("opcua") };
    NodeScript m_server;
    quint16 m_port = 0;
    QTemporaryDir m_pki;
};

void tst_OpcUa::init()
{
    m_log.start();
}

void tst_OpcUa::cleanup()
{
    m_server.stop();
    m_log.stop();
}

bool tst_OpcUa::startServer(const QStringList &arguments)
{
    if (!NodeScript::available())
        return false;
    m_port = TestSupport::freePort();
    m_server.start(ServerScript, QStringList { QStringLiteral("--port"), QString::number(m_port) } + arguments);
    return !m_server.next(QStringLiteral("ready"), 60000).isEmpty();
}

int tst_OpcUa::channels()
{
    m_server.send(QJsonObject { { QStringLiteral("channels"), true } });
    return m_server.next(QStringLiteral("ok")).value(QStringLiteral("count")).toInt(-1);
}

std::unique_ptr<OpcUaDatasource> tst_OpcUa::open(QVariantMap connection, int firstBackoff, int longestBackoff)
{
    if (!connection.contains(QStringLiteral("url")))
        connection.insert(QStringLiteral("url"), QStringLiteral("opc.tcp://127.0.0.1:%1").arg(m_port));
    if (!connection.contains(QStringLiteral("publishingInterval")))
        connection.insert(QStringLiteral("publishingInterval"), QStringLiteral("50"));
    if (!connection.contains(QStringLiteral("pki")))
        connection.insert(QStringLiteral("pki"), m_pki.path());
    auto source = std::make_unique<OpcUaDatasource>();
    source->setBackoff(firstBackoff, longestBackoff);
    QVariantMap shared;
    const QVariantMap config { { QStringLiteral("opcua"), QVariantMap { { QStringLiteral("line1"), connection } } } };
    if (!source->init(config, shared))
        return nullptr;
    return source;
}

void tst_OpcUa::pluginLibrary()
{
    PluginChecks::checkDatasourceLibrary("opcua", "opcua");
}

void tst_OpcUa::sampleIniHoldsEveryKey()
{
    PluginChecks::checkSampleIni(
        QStringLiteral("datasources/opcua"), QStringLiteral("opcua/line1"), OpcUaDatasource::settings().keys());
}

void tst_OpcUa::readmeDocumentsEveryKey()
{
    PluginChecks::checkReadmeKeyTable(QStringLiteral("datasources/opcua"), OpcUaDatasource::settings().keys());
}

void tst_OpcUa::readmeQuotesSampleIni()
{
    PluginChecks::checkReadmeQuotesSampleIni(QStringLiteral("datasources/opcua"));
}

void tst_OpcUa::noConnectionFailsInit()
{
    OpcUaDatasource source;
    QVariantMap shared;
    QVERIFY(!source.init(QVariantMap(), shared));
    QCOMPARE(m_log.warnings(),
        QStringList { m_log.warning(
            QStringLiteral("No usable connection in the group opcua: write at least opcua/<connection>/url")) });
}

void tst_OpcUa::connectionWithoutUrlIsSkipped()
{
    OpcUaDatasource source;
    source.setBackoff(100, 400);
    QVariantMap shared;
    const QVariantMap group { { QStringLiteral("empty"), QVariantMap { { QStringLiteral("securityMode"), "None" } } },
        { QStringLiteral("good"), QVariantMap { { QStringLiteral("url"), QStringLiteral("opc.tcp://127.0.0.1:9") } } },
        { QStringLiteral("stray"), QStringLiteral("x") } };
    QVERIFY(source.init(QVariantMap { { QStringLiteral("opcua"), group } }, shared));
    QCOMPARE(source.connections().size(), 1);
    QVERIFY(m_log.lines().contains(m_log.warning(QStringLiteral("Skipped the connection empty: it has no url"))));
    QVERIFY(m_log.lines().contains(
        m_log.warning(QStringLiteral("Ignored the key stray of the group opcua: a connection's keys are written as "
                                     "opcua/<connection>/url and so on"))));
}

void tst_OpcUa::unusableSettingsSkipTheConnection_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("reason");
    QTest::newRow("url") << "url"
                         << "http://10.0.0.5"
                         << "url must begin with opc.tcp://, not \"http://10.0.0.5\"";
    QTest::newRow("mode") << "securityMode"
                          << "Encrypt"
                          << "securityMode must be one of None, Sign, SignAndEncrypt, not \"Encrypt\"";
    QTest::newRow("policy") << "securityPolicy"
                            << "Basic128"
                            << "securityPolicy must be one of None, Basic256Sha256, Aes128_Sha256_RsaOaep, "
                               "Aes256_Sha256_RsaPss, not \"Basic128\"";
    QTest::newRow("pairing") << "securityMode"
                             << "Sign"
                             << "securityMode Sign does not go with securityPolicy None";
    QTest::newRow("rename") << "rename"
                            << "Saw1"
                            << "rename must be browseName=name pairs, not \"Saw1\"";
}

void tst_OpcUa::unusableSettingsSkipTheConnection()
{
    QFETCH(QString, key);
    QFETCH(QString, value);
    QFETCH(QString, reason);
    QVariantMap connection { { QStringLiteral("url"), QStringLiteral("opc.tcp://127.0.0.1:9") } };
    connection.insert(key, value);
    OpcUaDatasource source;
    QVariantMap shared;
    QVERIFY(!source.init(QVariantMap { { QStringLiteral("opcua"), QVariantMap { { "line1", connection } } } }, shared));
    QCOMPARE(m_log.warnings().value(0), m_log.warning(QStringLiteral("Skipped the connection line1: ") + reason));
}

void tst_OpcUa::unreachableServerIsWarnedAboutOnce()
{
    m_port = TestSupport::freePort();
    auto source = open(QVariantMap());
    QVERIFY(source);
    QTRY_VERIFY_WITH_TIMEOUT(!m_log.warnings().isEmpty(), 5000);
    QTest::qWait(1000);
    // Several attempts, one warning: the same failure again is only a debug line.
    QCOMPARE(m_log.warnings().size(), 1);
    QVERIFY2(
        m_log.warnings().first().startsWith(
            m_log.warning(QStringLiteral("Can't connect to line1 at opc.tcp://127.0.0.1:%1 (").arg(m_port)).chopped(1)),
        qPrintable(m_log.warnings().first()));
}

void tst_OpcUa::readsTheOpcUaServerTarget()
{
    // An open62541 server, orvix's own OPC UA server target: fast, and no node.js needed.
    QTemporaryDir serverPki;
    m_port = TestSupport::freePort();
    OpcUaServer target;
    QVariantMap shared;
    const QVariantMap nameplate { { "ProductInstanceUri", "urn:example:m1" }, { "Manufacturer", "Acme" },
        { "Model", "EB 200" }, { "DeviceClass", "EdgeBander" }, { "SerialNumber", "4711" },
        { "YearOfConstruction", "2019" }, { "MonthOfConstruction", "7" },
        { "InitialOperationDate", "2021-03-04 05:06:07" }, { "locale", "de" } };
    QVERIFY(target.init(QVariantMap { { "opcuaServerTarget",
                                          QVariantMap { { "port", QString::number(m_port) },
                                              { "securityPolicies", "None" }, { "pki", serverPki.path() } } },
                            { "opcuawwcsidentification", QVariantMap { { "m1", nameplate } } } },
        shared));
    WwState own;
    own.MachineState = WwState::Ready;
    own.OperationMode = WwState::Setup;
    own.Flags.emplace();
    own.Flags->MachineOn = true;
    own.Flags->Remote = true;
    own.Values.emplace();
    own.Values->FeedSpeed = 12.5;
    own.Values->AbsoluteRunsGood = 42;
    target.processData(QDateTime::currentDateTimeUtc(), "m3", "src", QVariant::fromValue(own));

    auto source = open(QVariantMap());
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    QTRY_VERIFY_WITH_TIMEOUT(
        !caught<WwState>(spy, "m3").isEmpty() && !caught<WwIdentification>(spy, "m1").isEmpty(), 10000);
    // Optional flags and values that the server reads as BadNoData stay absent.
    QCOMPARE(caught<WwState>(spy, "m3").first().record, own);
    const WwIdentification identification = caught<WwIdentification>(spy, "m1").first().record;
    QCOMPARE(identification.Manufacturer, QStringLiteral("Acme"));
    QCOMPARE(identification.Model, QStringLiteral("EB 200"));
    QCOMPARE(identification.SerialNumber, QStringLiteral("4711"));
    QCOMPARE(identification.YearOfConstruction, quint16(2019));
    QCOMPARE(identification.MonthOfConstruction, std::optional<quint8>(7));

    own.Flags->Remote.reset();
    own.Values->FeedSpeed = 13.0;
    target.processData(QDateTime::currentDateTimeUtc(), "m3", "src", QVariant::fromValue(own));
    QTRY_COMPARE_WITH_TIMEOUT(caught<WwState>(spy, "m3").last().record, own, 5000);
    QCOMPARE(m_log.warnings(), QStringList());
}

void tst_OpcUa::machinesAreFoundAndRead()
{
    if (!startServer())
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwState>(spy, "Saw1").size() >= 1 && caught<WwState>(spy, "Edge2").size() >= 1
            && caught<WwIdentification>(spy, "Saw1").size() >= 1 && caught<WwIdentification>(spy, "Edge2").size() >= 1,
        20000);
    QVERIFY(
        m_log.lines().contains(m_log.info(QStringLiteral("Connected to line1 at opc.tcp://127.0.0.1:%1").arg(m_port))));
    QCOMPARE(m_log.warnings(), QStringList());

    // The first state of a machine is complete: sent once, after every initial value arrived.
    QCOMPARE(caught<WwState>(spy, "Saw1").size(), 1);
    const auto saw = caught<WwState>(spy, "Saw1").first();
    QCOMPARE(saw.source, QStringLiteral("opcua/line1"));
    QCOMPARE(saw.record.MachineState, quint32(WwState::Working));
    QCOMPARE(saw.record.OperationMode, quint32(WwState::Automatic));
    QVERIFY(saw.record.Flags && saw.record.Values);
    QVERIFY(saw.record.Flags->MachineOn);
    bool everyOptionalThere = true;
    WwStateFlags::visitFields([&](const char *, auto member) {
        if constexpr (std::is_same_v<std::decay_t<decltype(WwStateFlags().*member)>, std::optional<bool>>)
            everyOptionalThere = everyOptionalThere && ((*saw.record.Flags).*member).has_value();
    });
    QVERIFY(everyOptionalThere);
    WwStateValues::visitFields(
        [&](const char *name, auto member) { QVERIFY2(((*saw.record.Values).*member).has_value(), name); });
    QVERIFY(saw.timestamp.isValid());

    const auto edge = caught<WwState>(spy, "Edge2").first().record;
    QCOMPARE(edge.MachineState, quint32(WwState::Ready));
    QCOMPARE(edge.OperationMode, quint32(WwState::Manual));
    QVERIFY(edge.Flags && edge.Values);
    QVERIFY(!edge.Flags->AirPresent && !edge.Flags->Hold);
    QVERIFY(edge.Values->AbsoluteWorkingTime && !edge.Values->AxisOverride);

    const WwIdentification identification = caught<WwIdentification>(spy, "Saw1").first().record;
    QCOMPARE(identification.Name, QStringLiteral("Saw1"));
    QCOMPARE(identification.Manufacturer, QStringLiteral("Brennick Maschinenbau"));
    QCOMPARE(identification.Model, QStringLiteral("SawLine 3000"));
    QCOMPARE(identification.SerialNumber, QStringLiteral("SL-0001"));
    QCOMPARE(identification.YearOfConstruction, quint16(2021));
    QCOMPARE(identification.MonthOfConstruction, std::optional<quint8>(3));
}

void tst_OpcUa::changesYieldOneCompleteState()
{
    if (!startServer())
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwState>(spy, "Saw1").size() == 1, 20000);
    QTest::qWait(300);
    QCOMPARE(caught<WwState>(spy, "Saw1").size(), 1);

    QVERIFY(m_server.command(set("Saw1", "State/Machine/Flags/Alarm", true)));
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwState>(spy, "Saw1").size() == 2, 5000);
    WwState expected = caught<WwState>(spy, "Saw1").first().record;
    expected.Flags->Alarm = true;
    QCOMPARE(caught<WwState>(spy, "Saw1").last().record, expected);

    QVERIFY(m_server.command(set("Saw1", "State/Machine/Overview/CurrentState", 4)));
    QVERIFY(m_server.command(set("Saw1", "State/Machine/Values/AbsoluteRunsGood", 4711)));
    QVERIFY(m_server.command(set("Saw1", "State/Machine/Values/FeedSpeed", 12.5)));
    expected.MachineState = WwState::Error;
    expected.Values->AbsoluteRunsGood = 4711;
    expected.Values->FeedSpeed = 12.5;
    QTRY_COMPARE_WITH_TIMEOUT(caught<WwState>(spy, "Saw1").last().record, expected, 5000);
    // Each dataset holds the whole record and only changes make one.
    const auto states = caught<WwState>(spy, "Saw1");
    for (int i = 1; i < states.size(); ++i)
        QVERIFY(states.at(i).record != states.at(i - 1).record);
    QVERIFY(states.size() <= 5);
}

void tst_OpcUa::identificationAndProgramChanges()
{
    if (!startServer())
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwIdentification>(spy, "Saw1").size() == 1, 20000);
    QVERIFY(m_server.command(set("Saw1", "Identification/SerialNumber", "SL-0002")));
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwIdentification>(spy, "Saw1").size() == 2, 5000);
    QCOMPARE(caught<WwIdentification>(spy, "Saw1").last().record.SerialNumber, QStringLiteral("SL-0002"));

    QVERIFY(m_server.command(set("Saw1", "ManufacturerSpecific/LastProgramName", "Door 4711")));
    QTRY_VERIFY_WITH_TIMEOUT(!caught<WwManufacturerSpecific>(spy, "Saw1").isEmpty()
            && caught<WwManufacturerSpecific>(spy, "Saw1").last().record.LastProgramName == QLatin1String("Door 4711"),
        5000);
}

void tst_OpcUa::eventsBecomeWwBaseEvents()
{
    if (!startServer())
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    QTRY_VERIFY_WITH_TIMEOUT(
        caught<WwState>(spy, "Saw1").size() == 1 && caught<WwState>(spy, "Edge2").size() == 1, 20000);
    QTest::qWait(200);
    const QJsonObject raise { { QStringLiteral("event"),
        QJsonObject { { "machine", "Saw1" }, { "messageId", "4711" }, { "message", "Spindle hot" }, { "category", 3 },
            { "pathParts", QJsonArray { "Unit1", "Spindle" } },
            { "texts", QJsonObject { { "en", "Spindle hot" }, { "de", "Spindel heiss" } } }, { "group", "G1" },
            { "messageName", "SpindleHot" }, { "severity", 500 } } } };
    QVERIFY(m_server.command(raise));
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwBaseEventType>(spy, "Saw1").size() == 1, 5000);
    const WwBaseEventType event = caught<WwBaseEventType>(spy, "Saw1").first().record;
    QCOMPARE(event.Id, QStringLiteral("4711"));
    QCOMPARE(event.Message, QStringLiteral("Spindle hot"));
    QCOMPARE(event.Category, qint32(WwBaseEventType::Warning));
    QCOMPARE(event.Path, (QStringList { "Unit1", "Spindle" }));
    QCOMPARE(event.Texts.value("en"), QStringLiteral("Spindle hot"));
    QCOMPARE(event.Texts.value("de"), QStringLiteral("Spindel heiss"));
    QCOMPARE(event.Text5, QStringLiteral("G1"));
    QCOMPARE(event.Text6, QStringLiteral("SpindleHot"));

    QJsonObject withdraw = raise.value("event").toObject();
    withdraw.insert("message", "{OFF}");
    QVERIFY(m_server.command(QJsonObject { { "event", withdraw } }));
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwBaseEventType>(spy, "Saw1").size() == 2, 5000);
    QCOMPARE(caught<WwBaseEventType>(spy, "Saw1").last().record.Message, QStringLiteral("{OFF}"));
    QVERIFY(caught<WwBaseEventType>(spy, "Edge2").isEmpty());
}

void tst_OpcUa::machinesAndRenames()
{
    if (!startServer())
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap { { "machines", QStringList { "Saw1" } }, { "rename", "Saw1=Hall1" } });
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwState>(spy, "Hall1").size() == 1, 20000);
    QTest::qWait(300);
    for (const QList<QVariant> &arguments : spy)
        QCOMPARE(arguments.at(1).toString(), QStringLiteral("Hall1"));
    QCOMPARE(caught<WwIdentification>(spy, "Hall1").value(0).record.Name, QStringLiteral("Hall1"));
}

void tst_OpcUa::unknownMachineIsWarnedAbout()
{
    if (!startServer())
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap { { "machines", QStringList { "Saw1", "Nope" } } });
    QVERIFY(source);
    QVERIFY(m_log.waitFor(m_log.warning(QStringLiteral("Machine Nope is not among the machines of line1")), 20000));
}

void tst_OpcUa::machineWithoutFlagsAndValues()
{
    if (!startServer({ QStringLiteral("--bare") }))
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwState>(spy, "Saw1").size() == 1, 20000);
    const WwState state = caught<WwState>(spy, "Saw1").first().record;
    QCOMPARE(state.MachineState, quint32(WwState::Working));
    QVERIFY(!state.Flags && !state.Values);
    QVERIFY(m_log.lines().contains(m_log.info(QStringLiteral("Machine Saw1 of line1 has no Flags"))));
    QVERIFY(m_log.lines().contains(m_log.info(QStringLiteral("Machine Saw1 of line1 has no Values"))));
}

void tst_OpcUa::serverWithoutWoodworking()
{
    if (!startServer({ QStringLiteral("--no-woodworking") }))
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QVERIFY(m_log.waitFor(m_log.warning(QStringLiteral("line1 lacks the namespace "
                                                       "http://opcfoundation.org/UA/Woodworking/: it serves no "
                                                       "woodworking machines")),
        20000));
}

void tst_OpcUa::mistypedValueIsSkippedOnce()
{
    if (!startServer())
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwState>(spy, "Saw1").size() == 1, 20000);
    const WwState before = caught<WwState>(spy, "Saw1").last().record;
    QVERIFY(m_server.command(QJsonObject { { "setVariant",
        QJsonObject { { "machine", "Saw1" }, { "path", "State/Machine/Values/FeedSpeed" }, { "dataType", "String" },
            { "value", "fast" } } } }));
    const QString warning = m_log.warning(
        QStringLiteral("Skipped State/Machine/Values/FeedSpeed of machine Saw1: a value of type String does not fit"));
    QVERIFY(m_log.waitFor(warning, 5000));
    QVERIFY(m_server.command(QJsonObject { { "setVariant",
        QJsonObject { { "machine", "Saw1" }, { "path", "State/Machine/Values/FeedSpeed" }, { "dataType", "String" },
            { "value", "faster" } } } }));
    QVERIFY(m_server.command(set("Saw1", "State/Machine/Flags/Alarm", true)));
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwState>(spy, "Saw1").last().record.Flags->Alarm, 5000);
    QCOMPARE(m_log.lines().count(warning), 1);
    // The value keeps what it had.
    QCOMPARE(caught<WwState>(spy, "Saw1").last().record.Values->FeedSpeed, before.Values->FeedSpeed);
}

void tst_OpcUa::restartedServerIsReadAgain()
{
    if (!startServer())
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    QTRY_VERIFY_WITH_TIMEOUT(
        caught<WwState>(spy, "Saw1").size() == 1 && caught<WwState>(spy, "Edge2").size() == 1, 20000);
    m_server.kill();
    // Each machine is reported offline once.
    QTRY_VERIFY_WITH_TIMEOUT(
        caught<WwState>(spy, "Saw1").size() == 2 && caught<WwState>(spy, "Edge2").size() == 2, 10000);
    QCOMPARE(caught<WwState>(spy, "Saw1").last().record, WwState());
    QCOMPARE(caught<WwState>(spy, "Edge2").last().record, WwState());
    QVERIFY(m_log.warnings().value(0).startsWith(
        m_log.warning(QStringLiteral("Lost the connection to line1 (")).chopped(1)));

    m_server.start(ServerScript, { QStringLiteral("--port"), QString::number(m_port) });
    QVERIFY(!m_server.next(QStringLiteral("ready"), 60000).isEmpty());
    QTRY_VERIFY_WITH_TIMEOUT(
        caught<WwState>(spy, "Saw1").size() == 3 && caught<WwState>(spy, "Edge2").size() == 3, 20000);
    QCOMPARE(caught<WwState>(spy, "Saw1").last().record, caught<WwState>(spy, "Saw1").first().record);
    QCOMPARE(
        m_log.lines().count(m_log.info(QStringLiteral("Connected to line1 at opc.tcp://127.0.0.1:%1").arg(m_port))), 2);
}

void tst_OpcUa::untrustedServerThenTrusted()
{
    QTemporaryDir serverPki;
    if (!startServer({ QStringLiteral("--secure"), QStringLiteral("--pki"), serverPki.path() }))
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap { { "securityMode", "SignAndEncrypt" }, { "securityPolicy", "Basic256Sha256" },
        { "username", "operator" }, { "password", "secret" } });
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    const QString rejected = m_pki.path() + QStringLiteral("/rejected");
    QTRY_VERIFY2_WITH_TIMEOUT(
        QDir(rejected).entryList(QDir::Files).size() == 1, qPrintable(m_log.lines().join(QLatin1Char('\n'))), 20000);
    const QString file = QDir(rejected).entryList(QDir::Files).first();
    QVERIFY(m_log.lines().contains(m_log.warning(
        QStringLiteral("Refused the certificate of line1, not trusted; saved as %1, move it to %2 to trust it")
            .arg(rejected + QLatin1Char('/') + file, m_pki.path() + QStringLiteral("/trusted/")))));
    QCOMPARE(m_log.lines().count(m_log.lines().filter(QStringLiteral("Refused the certificate")).value(0)), 1);
    QVERIFY(QFile::exists(m_pki.path() + QStringLiteral("/own/certs/cert.der")));

    // The administrator trusts the server here, and the server's administrator trusts orvix there.
    QVERIFY(QFile::rename(rejected + QLatin1Char('/') + file, m_pki.path() + QStringLiteral("/trusted/") + file));
    QTRY_VERIFY_WITH_TIMEOUT(
        m_server.command(QJsonObject { { "trustRejected", true } }) && !caught<WwState>(spy, "Saw1").isEmpty(), 30000);
}

void tst_OpcUa::unconfigurableClientKeepsTrying()
{
    // The own certificate can't be read (here: a folder where the file belongs); once that is mended the connection
    // goes on trying without a restart.
    m_port = TestSupport::freePort();
    QTemporaryDir pki;
    const QString certificate = pki.path() + QStringLiteral("/own/certs/cert.der");
    QVERIFY(QDir().mkpath(certificate));
    auto source = open(QVariantMap {
        { "securityMode", "SignAndEncrypt" }, { "securityPolicy", "Basic256Sha256" }, { "pki", pki.path() } });
    QVERIFY(source);
    QTRY_VERIFY_WITH_TIMEOUT(
        !m_log.startingWith(m_log.warning(QStringLiteral("Can't connect to line1: can't read ")).chopped(1)).isEmpty(),
        5000);
    QVERIFY(QDir(certificate).removeRecursively());
    const QString unreachable
        = m_log.warning(QStringLiteral("Can't connect to line1 at opc.tcp://127.0.0.1:%1 (").arg(m_port)).chopped(1);
    QTRY_VERIFY_WITH_TIMEOUT(!m_log.startingWith(unreachable).isEmpty(), 5000);
    QVERIFY(QFile::exists(certificate));
}

void tst_OpcUa::libraryLinesHaveACategoryOfTheirOwn()
{
    m_log.stop();
    m_log.start(QStringLiteral("*.debug=false\nopcua.debug=true"));
    m_port = TestSupport::freePort();
    auto source = open(QVariantMap());
    QVERIFY(source);
    QTest::qWait(500);
    QVERIFY(!m_log.ofComponent("DEBUG").isEmpty());
    QCOMPARE(m_log.lines().filter(QStringLiteral("Iterate the EventLoop")), QStringList());
    QCOMPARE(m_log.lines().filter(QStringLiteral("Process delayed callbacks")), QStringList());

    m_log.stop();
    m_log.start(QStringLiteral("*.debug=false\nopcua.library.debug=true"));
    QTRY_VERIFY_WITH_TIMEOUT(!m_log.startingWith(QStringLiteral("DEBUG opcua.library: ")).isEmpty(), 5000);
}

void tst_OpcUa::operationLimitsAreHonoured()
{
    // An embedded PLC server: 5 nodes a browse, 10 a read, 20 monitored items a call, one subscription a session.
    if (!startServer({ QStringLiteral("--limits") }))
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwState>(spy, "Saw1").size() == 1 && caught<WwState>(spy, "Edge2").size() == 1
            && caught<WwIdentification>(spy, "Saw1").size() == 1 && caught<WwIdentification>(spy, "Edge2").size() == 1,
        20000);
    QCOMPARE(source->connections().first()->client().limits().maxMonitoredItemsPerCall, quint32(20));
    QCOMPARE(source->connections().first()->client().limits().maxNodesPerBrowse, quint32(5));
    QCOMPARE(source->connections().first()->client().limits().maxNodesPerRead, quint32(10));
    QCOMPARE(source->connections().first()->client().limits().maxSubscriptionsPerSession, quint32(1));
    // Every item fits: the first state is complete.
    const WwState saw = caught<WwState>(spy, "Saw1").first().record;
    QCOMPARE(saw.MachineState, quint32(WwState::Working));
    QVERIFY(saw.Flags && saw.Values);
    WwStateValues::visitFields(
        [&](const char *name, auto member) { QVERIFY2((*saw.Values.*member).has_value(), name); });
    QVERIFY(caught<WwIdentification>(spy, "Saw1").first().record.CustomerCompanyName.has_value());
    QCOMPARE(m_log.warnings(), QStringList());

    QVERIFY(m_server.command(set("Saw1", "State/Machine/Flags/Alarm", true)));
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwState>(spy, "Saw1").last().record.Flags->Alarm, 5000);
}

void tst_OpcUa::refusedItemsAreRetriedThenGivenUp()
{
    // Room for 60 items: the three event items (the Server object, the machine, its Events object), the 16 items
    // every machine has, then 41 of the 66 optional ones.
    if (!startServer(
            { QStringLiteral("--machines"), QStringLiteral("1"), QStringLiteral("--max-items"), QStringLiteral("60") }))
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    const QString gaveUp = m_log.warning(QStringLiteral("Machine M001 of line1 goes on without ")).chopped(1);
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwState>(spy, "M001").size() == 1, 20000);
    // The state does not wait for the items the server refused.
    QCOMPARE(m_log.startingWith(gaveUp), QStringList());
    const WwState state = caught<WwState>(spy, "M001").first().record;
    QCOMPARE(state.MachineState, quint32(WwState::Working));
    QVERIFY(state.Flags && state.Flags->FeedRuns.has_value());
    QVERIFY(state.Values && state.Values->RelativeProductionWaitWorkpieceTime.has_value()
        && !state.Values->AbsoluteRunsGood.has_value());

    QTRY_COMPARE_WITH_TIMEOUT(m_log.startingWith(gaveUp).size(), 1, 10000);
    const QString warning = m_log.startingWith(gaveUp).first();
    QVERIFY2(warning.endsWith(QStringLiteral(": the server refused to monitor them (BadTooManyMonitoredItems)\"")),
        qPrintable(warning));
    QVERIFY2(warning.contains(QStringLiteral("State/Machine/Values/AbsoluteRunsGood, ")), qPrintable(warning));
    QVERIFY2(warning.contains(QStringLiteral(", ManufacturerSpecific/LastProgramName:")), qPrintable(warning));
    QCOMPARE(warning.count(QStringLiteral(", ")), 24);
    QCOMPARE(m_log.warnings(), QStringList { warning });
    QTest::qWait(1000);
    QCOMPARE(m_log.warnings(), QStringList { warning });
}

void tst_OpcUa::refusedClientCertificateIsNamedOnce()
{
    QTemporaryDir serverPki;
    if (!startServer({ QStringLiteral("--secure"), QStringLiteral("--pki"), serverPki.path() }))
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap { { "securityMode", "SignAndEncrypt" }, { "securityPolicy", "Basic256Sha256" },
                           { "username", "operator" }, { "password", "secret" } },
        1000, 1000);
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    // orvix trusts the server; the server does not trust orvix yet.
    const QString rejected = m_pki.path() + QStringLiteral("/rejected");
    QTRY_VERIFY_WITH_TIMEOUT(QDir(rejected).entryList(QDir::Files).size() == 1, 20000);
    const QString file = QDir(rejected).entryList(QDir::Files).first();
    QVERIFY(QFile::rename(rejected + QLatin1Char('/') + file, m_pki.path() + QStringLiteral("/trusted/") + file));
    const QString refused = m_log.warning(QStringLiteral(
        "The server of line1 at opc.tcp://127.0.0.1:%1 refused orvix's certificate (BadSecurityChecksFailed): "
        "trust %2/own/certs/cert.der on the server")
                                              .arg(m_port)
                                              .arg(m_pki.path()));
    QVERIFY2(m_log.waitFor(refused, 10000), qPrintable(m_log.lines().join(QLatin1Char('\n'))));
    // One attempt a second (two channels each: endpoints, then the secured one), not several a second.
    const int before = channels();
    QTest::qWait(3000);
    const int after = channels();
    QVERIFY2(after - before <= 10, qPrintable(QStringLiteral("%1 channels in 3 s").arg(after - before)));
    QCOMPARE(m_log.lines().count(refused), 1);

    QVERIFY(m_server.command(QJsonObject { { "trustRejected", true } }));
    QTRY_VERIFY_WITH_TIMEOUT(!caught<WwState>(spy, "Saw1").isEmpty(), 20000);
}

void tst_OpcUa::timeDoesNotRunBackwardsAfterAReconnect()
{
    if (!startServer())
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwState>(spy, "Saw1").size() == 1, 20000);
    // The values keep their source time stamps of the server's start; the network, not the server, went.
    QTest::qWait(200);
    source->connections().first()->client().restart(UA_STATUSCODE_BADCONNECTIONCLOSED);
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwState>(spy, "Saw1").size() == 3, 10000);
    const auto states = caught<WwState>(spy, "Saw1");
    QCOMPARE(states.at(1).record, WwState());
    QVERIFY(states.at(0).timestamp < states.at(1).timestamp);
    QVERIFY2(states.at(2).timestamp >= states.at(1).timestamp,
        qPrintable(states.at(2).timestamp.toString(Qt::ISODateWithMs) + " < "
            + states.at(1).timestamp.toString(Qt::ISODateWithMs)));
    QCOMPARE(states.at(2).record, states.at(0).record);
}

void tst_OpcUa::backoffGrowsWhileSessionsDropAtOnce()
{
    // A server whose sessions end right after they open: the pauses keep growing, a session resets them only after
    // it has stayed up.
    QTemporaryDir serverPki;
    m_port = TestSupport::freePort();
    OpcUaServer target;
    QVariantMap shared;
    QVERIFY(target.init(QVariantMap { { "opcuaServerTarget",
                            QVariantMap { { "port", QString::number(m_port) }, { "securityPolicies", "None" },
                                { "pki", serverPki.path() } } } },
        shared));
    auto source = open(QVariantMap());
    QVERIFY(source);
    OpcUaClient &client = source->connections().first()->client();
    client.setStableAfter(300);
    QList<qint64> connects;
    bool dropping = true;
    QElapsedTimer clock;
    clock.start();
    connect(&client, &OpcUaClient::connected, this, [&] {
        connects << clock.elapsed();
        if (dropping)
            client.restart(UA_STATUSCODE_BADSESSIONCLOSED);
    });
    QTRY_VERIFY_WITH_TIMEOUT(connects.size() >= 5, 15000);
    // 100, 200, 400, 400 ms less up to a quarter, plus connecting: the last pauses are the longest.
    const qint64 last = connects.at(4) - connects.at(3);
    QVERIFY2(last >= 300, qPrintable(QString::number(last)));

    // A session that stays up longer than setStableAfter: the next pause is the first one again, from the loss to the
    // next attempt.
    dropping = false;
    QTRY_COMPARE_WITH_TIMEOUT(connects.size(), 6, 5000);
    QTest::qWait(500);
    const QString lostLine = m_log.warning(QStringLiteral("Lost the connection to line1 (BadSessionClosed)"));
    const QString attempt = m_log.debug(QStringLiteral("Connecting to line1 at opc.tcp://127.0.0.1:%1").arg(m_port));
    const int losses = m_log.lines().count(lostLine);
    const int attempts = m_log.lines().count(attempt);
    client.restart(UA_STATUSCODE_BADSESSIONCLOSED);
    QTRY_COMPARE_WITH_TIMEOUT(m_log.lines().count(lostLine), losses + 1, 10000);
    QElapsedTimer pause;
    pause.start();
    QTRY_COMPARE_WITH_TIMEOUT(m_log.lines().count(attempt), attempts + 1, 5000);
    QVERIFY2(pause.elapsed() < 250, qPrintable(QString::number(pause.elapsed())));
}

void tst_OpcUa::silentServerMeetsTheConnectDeadline()
{
    // A socket that listens and never answers: the kernel completes the connection, nobody speaks.
    const int silent = ::socket(AF_INET, SOCK_STREAM, 0);
    QVERIFY(silent >= 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    QVERIFY(::bind(silent, reinterpret_cast<sockaddr *>(&address), length) == 0 && ::listen(silent, 8) == 0
        && ::getsockname(silent, reinterpret_cast<sockaddr *>(&address), &length) == 0);
    m_port = ntohs(address.sin_port);
    auto source = open(QVariantMap { { "timeout", "200" } });
    QVERIFY(source);
    QVERIFY(m_log.waitFor(
        m_log.warning(QStringLiteral("Can't connect to line1 at opc.tcp://127.0.0.1:%1 (BadTimeout)").arg(m_port)),
        5000));
    ::close(silent);
}

void tst_OpcUa::machinesOutsideTheMachinesFolder_data()
{
    QTest::addColumn<QString>("placement");
    QTest::newRow("Objects/Plant/Hall2/Machines") << "plant";
    QTest::newRow("directly below Objects") << "objects";
}

void tst_OpcUa::machinesOutsideTheMachinesFolder()
{
    QFETCH(QString, placement);
    if (!startServer({ QStringLiteral("--placement"), placement }))
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    QTRY_VERIFY_WITH_TIMEOUT(
        caught<WwState>(spy, "Saw1").size() == 1 && caught<WwState>(spy, "Edge2").size() == 1, 20000);
    QCOMPARE(caught<WwState>(spy, "Saw1").first().record.MachineState, quint32(WwState::Working));
    QCOMPARE(m_log.warnings(), QStringList());
}

void tst_OpcUa::serverWithoutMachinesIsWarnedAbout()
{
    if (!startServer({ QStringLiteral("--placement"), QStringLiteral("none") }))
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QVERIFY(m_log.waitFor(m_log.warning(QStringLiteral("line1 has no machine of WwMachineType, neither in a Machines "
                                                       "folder nor down to 5 levels below Objects: it serves no "
                                                       "woodworking machines")),
        20000));
    QTest::qWait(300);
    QCOMPARE(m_log.warnings().size(), 1);
}

void tst_OpcUa::sameNameInOneConnectionIsNotMerged()
{
    // Two machines called Saw1 below Objects: one reaches the chain, the other is left out with a warning.
    if (!startServer({ QStringLiteral("--placement"), QStringLiteral("objects"), QStringLiteral("--clash") }))
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    QTRY_VERIFY_WITH_TIMEOUT(
        caught<WwState>(spy, "Saw1").size() == 1 && caught<WwState>(spy, "Edge2").size() == 1, 20000);
    const QString leftOut = m_log.warning(QStringLiteral("Left out machine Saw1 (")).chopped(1);
    QTRY_COMPARE_WITH_TIMEOUT(m_log.startingWith(leftOut).size(), 1, 5000);
    QVERIFY2(m_log.startingWith(leftOut).first().endsWith(
                 QStringLiteral(" of line1: the name Saw1 is already that of machine Saw1 of line1; give it another "
                                "with rename=Saw1=<name> in opcua/line1\"")),
        qPrintable(m_log.startingWith(leftOut).first()));
    QTest::qWait(500);
    QCOMPARE(caught<WwState>(spy, "Saw1").size(), 1);
    QCOMPARE(caught<WwIdentification>(spy, "Saw1").size(), 1);
    QCOMPARE(m_log.warnings().size(), 1);
}

void tst_OpcUa::sameNameOnTwoServersIsNotMerged()
{
    if (!startServer())
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    const QString url = QStringLiteral("opc.tcp://127.0.0.1:%1").arg(m_port);
    const QVariantMap line { { "url", url }, { "publishingInterval", "50" }, { "pki", m_pki.path() } };
    QVariantMap renamed = line;
    renamed.insert("rename", "Saw1=Saw1-hall2");
    OpcUaDatasource source;
    source.setBackoff(100, 400);
    QVariantMap shared;
    QSignalSpy spy(&source, &OpcUaDatasource::dataReceived);
    QVERIFY(source.init(
        QVariantMap { { "opcua", QVariantMap { { "line1", line }, { "line2", line }, { "line3", renamed } } } },
        shared));
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwState>(spy, "Saw1").size() == 1 && caught<WwState>(spy, "Edge2").size() == 1
            && caught<WwState>(spy, "Saw1-hall2").size() == 1,
        20000);
    QTest::qWait(500);
    // Each name comes from one connection only; the renamed machine is a machine of its own.
    QCOMPARE(caught<WwState>(spy, "Saw1").size(), 1);
    QCOMPARE(caught<WwState>(spy, "Edge2").size(), 1);
    const QStringList leftOut = m_log.startingWith(m_log.warning(QStringLiteral("Left out machine ")).chopped(1));
    QCOMPARE(leftOut.size(), 3);
    QCOMPARE(leftOut.filter(QStringLiteral("rename=Edge2=<name>")).size(), 2);
    QCOMPARE(m_log.warnings().size(), 3);
}

void tst_OpcUa::eventsFromEveryNotifierArriveOnce_data()
{
    QTest::addColumn<QString>("notifier");
    QTest::newRow("Events object") << "events";
    QTest::newRow("machine object") << "machine";
    QTest::newRow("Server object, the machine as SourceNode") << "server";
}

void tst_OpcUa::eventsFromEveryNotifierArriveOnce()
{
    QFETCH(QString, notifier);
    if (!startServer())
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    QTRY_VERIFY_WITH_TIMEOUT(
        caught<WwState>(spy, "Saw1").size() == 1 && caught<WwState>(spy, "Edge2").size() == 1, 20000);
    QTest::qWait(300);
    QVERIFY(m_server.command(QJsonObject { { "event",
        QJsonObject { { "machine", "Saw1" }, { "messageId", "4711" }, { "message", "Spindle hot" }, { "category", 3 },
            { "notifier", notifier } } } }));
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwBaseEventType>(spy, "Saw1").size() == 1, 5000);
    QTest::qWait(500);
    QCOMPARE(caught<WwBaseEventType>(spy, "Saw1").size(), 1);
    QCOMPARE(caught<WwBaseEventType>(spy, "Saw1").first().record.Id, QStringLiteral("4711"));
    QVERIFY(caught<WwBaseEventType>(spy, "Edge2").isEmpty());
}

void tst_OpcUa::messageIdOfAnotherType()
{
    if (!startServer())
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwState>(spy, "Saw1").size() == 1, 20000);
    QTest::qWait(300);
    const auto raise = [&](const QString &type, const QString &id) {
        return m_server.command(QJsonObject { { "event",
            QJsonObject { { "machine", "Saw1" }, { "messageId", id }, { "message", "Door open" },
                { "messageIdType", type } } } });
    };
    QVERIFY(raise("LocalizedText", "A17"));
    QVERIFY(raise("Int32", "4711"));
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwBaseEventType>(spy, "Saw1").size() == 2, 5000);
    QCOMPARE(caught<WwBaseEventType>(spy, "Saw1").at(0).record.Id, QStringLiteral("A17"));
    QCOMPARE(caught<WwBaseEventType>(spy, "Saw1").at(1).record.Id, QStringLiteral("4711"));
    QVERIFY(raise("ByteString", "B1"));
    QVERIFY(raise("ByteString", "B2"));
    const QString warning
        = m_log.warning(QStringLiteral("Left out the events of line1 whose MessageId is a ByteString, "
                                       "which has no text form (first seen at machine Saw1)"));
    QVERIFY(m_log.waitFor(warning, 5000));
    QTest::qWait(300);
    QCOMPARE(m_log.warnings(), QStringList { warning });
    QCOMPARE(caught<WwBaseEventType>(spy, "Saw1").size(), 2);
}

void tst_OpcUa::hangingMachineIsRetriedAlone()
{
    if (!startServer({ QStringLiteral("--hang-browse"), QStringLiteral("Saw1") }))
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap { { "timeout", "500" } });
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    const QString warning = m_log
                                .warning(QStringLiteral("Browsing Saw1 of line1 failed (BadTimeout, time-out 500 ms): "
                                                        "machine Saw1 is tried again in "))
                                .chopped(1);
    QTRY_VERIFY_WITH_TIMEOUT(!m_log.startingWith(warning).isEmpty(), 20000);
    QVERIFY2(m_log.startingWith(warning).first().endsWith(QStringLiteral(" ms, the others go on\"")),
        qPrintable(m_log.startingWith(warning).first()));
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwState>(spy, "Edge2").size() == 1, 10000);
    // The connection stays: the machine is tried on its own, and its further failures are debug lines.
    QTest::qWait(1500);
    QCOMPARE(m_log.startingWith(warning).size(), 1);
    QCOMPARE(m_log.lines().filter(QStringLiteral("Lost the connection")), QStringList());
    QCOMPARE(caught<WwState>(spy, "Edge2").size(), 1);
}

void tst_OpcUa::slowNamespaceReadIsATimeout()
{
    if (!startServer({ QStringLiteral("--slow-namespaces"), QStringLiteral("3000") }))
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap { { "timeout", "500" } });
    QVERIFY(source);
    QVERIFY(m_log.waitFor(m_log.warning(QStringLiteral("Reading the namespace array (i=2255) of line1 failed "
                                                       "(BadTimeout, time-out 500 ms)")),
        20000));
    QCOMPARE(m_log.lines().filter(QStringLiteral("lacks the namespace")), QStringList());
}

void tst_OpcUa::longStringsAreCut()
{
    if (!startServer())
        QSKIP("needs node-opcua (tools/install-deps.sh installs it)");
    auto source = open(QVariantMap());
    QVERIFY(source);
    QSignalSpy spy(source.get(), &OpcUaDatasource::dataReceived);
    QTRY_VERIFY_WITH_TIMEOUT(!caught<WwManufacturerSpecific>(spy, "Saw1").isEmpty(), 20000);
    QVERIFY(m_server.command(set("Saw1", "ManufacturerSpecific/LastProgramName", QString(200000, QLatin1Char('x')))));
    QTRY_VERIFY_WITH_TIMEOUT(caught<WwManufacturerSpecific>(spy, "Saw1").size() == 2, 5000);
    QCOMPARE(caught<WwManufacturerSpecific>(spy, "Saw1").last().record.LastProgramName.size(), 65536);
}

QTEST_GUILESS_MAIN(tst_OpcUa)
#include "tst_opcua.moc"
