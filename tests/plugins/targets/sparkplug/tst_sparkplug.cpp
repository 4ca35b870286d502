#include "sparkplug.h"
#include "sparkplugdevice.h"

#include "isolatedservice.h"
#include "logcapture.h"
#include "mmdatasets.h"
#include "mosquittobroker.h"
#include "nodescript.h"
#include "pluginchecks.h"
#include "testsupport.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace TestSupport;

namespace {

const QDateTime When = QDateTime::fromMSecsSinceEpoch(1700000000250, Qt::UTC);
const QString HostScript = QStringLiteral("tests/sparkplug/host.js");

bool nodeAvailable()
{
    QProcess probe;
    probe.start(QStringLiteral("node"),
        { QStringLiteral("-e"),
            QStringLiteral("require('" ORVIX_SOURCE_DIR "/tests/sparkplug/node_modules/mqtt');"
                           "require('" ORVIX_SOURCE_DIR "/tests/sparkplug/node_modules/sparkplug-payload')") });
    return probe.waitForFinished(60000) && probe.exitStatus() == QProcess::NormalExit && probe.exitCode() == 0;
}

QVariantMap nodeConfig(quint16 port, const QString &folder, const QVariantMap &extra = QVariantMap())
{
    QVariantMap group { { "host", "127.0.0.1" }, { "port", QString::number(port) }, { "groupId", "plant" },
        { "edgeNodeId", "orvix1" }, { "spool", QString(folder + "/spool") }, { "state", QString(folder + "/state") } };
    for (auto it = extra.begin(); it != extra.end(); ++it)
        group.insert(it.key(), it.value());
    return QVariantMap { { "sparkplug", group } };
}

QVariant state(int code)
{
    StateV1 record;
    record.state = code;
    return QVariant::fromValue(record);
}

QVariant general(quint64 pieces, double powerOnHours = 1.5)
{
    GeneralV1 record;
    record.pieces = pieces;
    record.powerOnHours = powerOnHours;
    return QVariant::fromValue(record);
}

QVariant definitions(const QString &id, qint32 dataType)
{
    ConditionDefinitionV2 definition;
    definition.id = id;
    definition.dataType = dataType;
    ConditionDefinitionsV2 list;
    list.timestamp = When;
    list.items.append(definition);
    return QVariant::fromValue(list);
}

QVariant values(const QString &id, const QVariant &value)
{
    ConditionDataV2 data;
    data.id = id;
    data.value = value;
    ConditionDatasV2 list;
    list.timestamp = When;
    list.items.append(data);
    return QVariant::fromValue(list);
}

QVariant notification(const QString &id, int level, const QString &message)
{
    NotificationsAddV1 record;
    record.id = id;
    record.timestamp = When;
    record.level = level;
    record.message = message;
    record.messageCode = QStringLiteral("E42");
    return QVariant::fromValue(record);
}

/** A message as the host decoded it. */
struct Message
{
    QJsonObject object;

    QString type() const { return object.value("type").toString(); }
    QString device() const { return object.value("device").toString(); }
    int seq() const { return object.value("seq").isNull() ? -1 : object.value("seq").toInt(); }
    QJsonArray metrics() const { return object.value("metrics").toArray(); }
    /** The metric named name (births) or with the alias (data); empty if none. */
    QJsonObject metric(const QString &name) const
    {
        for (const QJsonValue &value : metrics()) {
            if (value.toObject().value("name").toString() == name)
                return value.toObject();
        }
        return QJsonObject();
    }
    QJsonObject metricByAlias(qint64 alias) const
    {
        for (const QJsonValue &value : metrics()) {
            if (value.toObject().value("alias").toDouble() == double(alias))
                return value.toObject();
        }
        return QJsonObject();
    }
};

/** The Sparkplug host application of the tests: node with the mqtt client and Tahu's codec. */
class Host
{
public:
    bool start(quint16 port)
    {
        m_script.start(HostScript, { QString::number(port) });
        return !m_script.next(QStringLiteral("ready")).isEmpty();
    }
    /** Waits until the host is subscribed again after the broker came back. */
    bool ready(int timeoutMs = 20000) { return !m_script.next(QStringLiteral("ready"), timeoutMs).isEmpty(); }
    /** The next message orvix sent; an empty one after timeoutMs. */
    Message next(int timeoutMs = 20000)
    {
        return Message { m_script.next(QStringLiteral("message"), timeoutMs).value("message").toObject() };
    }
    /** The next message of type, skipping others; an empty one after timeoutMs. */
    Message nextOf(const QString &type, int timeoutMs = 20000)
    {
        QElapsedTimer clock;
        clock.start();
        while (clock.elapsed() < timeoutMs) {
            const Message message = next(int(timeoutMs - clock.elapsed()));
            if (message.object.isEmpty() || message.type() == type)
                return message;
        }
        return Message();
    }
    bool rebirth() { return m_script.command({ { "rebirth", "plant/orvix1" } }); }
    bool command(const QString &topic, const QString &raw)
    {
        return m_script.command({ { "command", topic }, { "raw", raw } });
    }
    bool hostState(const QString &hostId, bool online, qint64 timestamp)
    {
        return m_script.command({ { "state", hostId }, { "online", online }, { "timestamp", double(timestamp) } });
    }

private:
    NodeScript m_script;
};

qint64 aliasOf(const Message &birth, const QString &name)
{
    return qint64(birth.metric(name).value("alias").toDouble(-1));
}

} // namespace

class tst_Sparkplug : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void metadata();
    void sampleIniDocumentsEverySetting();
    void readmeQuotesSampleIni();
    void readmeListsEveryKey();
    void initRefuses_data();
    void initRefuses();
    void notInitialisedIgnoresData();
    void machinesOnOneDeviceId();

    void nodeBirthThenDeviceBirthThenData();
    void seqWrapsAt255();
    void bdSeqCountsUpAndPersists();
    void bdSeqWrapsAt255();
    void gracefulStopPublishesNodeDeath();
    void rebirthOnCommand();
    void newConditionBirthsTheDeviceAgain();
    void offlineMachineDiesAndIsBornAgain();
    void notificationsAsADataSet();
    void historyAfterABrokerOutage();
    void primaryHostState();
    void aliasesSurviveARestart();
    void historyOfAnEarlierRun();
    void realServiceBirthsMachinesAndLeavesItsWill();

private:
    bool skipWithoutNode();

    QTemporaryDir m_dir;
    bool m_node = false;
    LogCapture m_log { QStringLiteral("sparkplug") };
};

void tst_Sparkplug::initTestCase()
{
    m_node = nodeAvailable();
}

void tst_Sparkplug::init()
{
    m_log.start(QStringLiteral("*.debug=false"));
}

void tst_Sparkplug::cleanup()
{
    m_log.stop();
}

bool tst_Sparkplug::skipWithoutNode()
{
    return !m_node;
}

void tst_Sparkplug::metadata()
{
    PluginChecks::checkTargetLibrary("sparkplug", "sparkplug");
}

void tst_Sparkplug::sampleIniDocumentsEverySetting()
{
    PluginChecks::checkSampleIni("targets/sparkplug", "sparkplug", Sparkplug::settings().keys());
}

void tst_Sparkplug::readmeQuotesSampleIni()
{
    PluginChecks::checkReadmeQuotesSampleIni("targets/sparkplug");
}

void tst_Sparkplug::readmeListsEveryKey()
{
    PluginChecks::checkReadmeKeyTable("targets/sparkplug", Sparkplug::settings().keys());
}

void tst_Sparkplug::initRefuses_data()
{
    QTest::addColumn<QVariantMap>("settings");
    QTest::addColumn<QString>("message");
    const QString problem = QStringLiteral("Can't use the settings: %1");
    QTest::newRow("port 0") << QVariantMap { { "port", "0" } }
                            << problem.arg("port must be a whole number from 1 to 65535, not \"0\"");
    QTest::newRow("slash in groupId") << QVariantMap { { "groupId", "a/b" } }
                                      << problem.arg("groupId must be one topic level without /, + or #, not \"a/b\"");
    QTest::newRow("empty groupId") << QVariantMap { { "groupId", " " } }
                                   << problem.arg("groupId must be one topic level without /, + or #, not \"\"");
    QTest::newRow("wildcard in edgeNodeId")
        << QVariantMap { { "edgeNodeId", "e+1" } }
        << problem.arg("edgeNodeId must be one topic level without /, + or #, not \"e+1\"");
    QTest::newRow("hash in primaryHostId")
        << QVariantMap { { "primaryHostId", "scada#" } }
        << problem.arg("primaryHostId must be one topic level without /, + or #, not \"scada#\"");
    QTest::newRow("no spool") << QVariantMap { { "spool", "" } } << problem.arg("spool is empty");
    QTest::newRow("no state") << QVariantMap { { "state", "" } } << problem.arg("state is empty");
    QVERIFY(writeFile(m_dir.filePath("file"), "not a folder"));
    QTest::newRow("state under a file") << QVariantMap {
        { "state", m_dir.filePath("file/state") }
    } << QStringLiteral("Can't use the state folder %1: can't make the folder").arg(m_dir.filePath("file/state"));
}

void tst_Sparkplug::initRefuses()
{
    QFETCH(QVariantMap, settings);
    QFETCH(QString, message);
    Sparkplug node;
    QVariantMap shared;
    QVERIFY(!node.init(nodeConfig(1883, m_dir.filePath("refused"), settings), shared));
    QCOMPARE(m_log.lines(), QStringList { m_log.warning(message) });
    node.processData(When, "m1", "s", state(2));
    QCOMPARE(node.spooled(), 0);
}

void tst_Sparkplug::notInitialisedIgnoresData()
{
    Sparkplug node;
    QCOMPARE(node.name(), QStringLiteral("sparkplug"));
    node.processData(When, "m1", "s", state(2));
    QCOMPARE(node.spooled(), 0);
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Sparkplug::machinesOnOneDeviceId()
{
    MosquittoBroker absent;
    Sparkplug node;
    QVariantMap shared;
    QVERIFY(node.init(nodeConfig(absent.port(), m_dir.filePath("collision")), shared));
    node.processData(When, "m/1", "s", state(2));
    QCOMPARE(node.spooled(), 1);
    node.processData(When, "m_1", "s", state(2));
    node.processData(When, "m_1", "s", state(3));
    node.processData(When, "m/1", "s", state(3));
    QCOMPARE(node.spooled(), 2);
    const QString warning = m_log.warning("Machines m/1 and m_1 would both be device m_1: leaving m_1 out");
    QCOMPARE(m_log.lines().count(warning), 1);
}

void tst_Sparkplug::nodeBirthThenDeviceBirthThenData()
{
    if (skipWithoutNode())
        QSKIP("needs node");
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    Host host;
    QVERIFY(host.start(broker.port()));
    const QString folder = m_dir.filePath("births");
    Sparkplug node;
    QVariantMap shared;
    QVERIFY(node.init(nodeConfig(broker.port(), folder), shared));
    QCOMPARE(m_log.lines().value(0),
        m_log.info(QStringLiteral("Edge node plant/orvix1 publishing to 127.0.0.1:%1 as orvix-orvix1 through the spool "
                                  "%2/spool, 0 messages waiting")
                       .arg(broker.port())
                       .arg(folder)));

    const Message nbirth = host.next();
    QCOMPARE(nbirth.object.value("topic").toString(), QStringLiteral("spBv1.0/plant/NBIRTH/orvix1"));
    QCOMPARE(nbirth.seq(), 0);
    QCOMPARE(nbirth.object.value("qos").toInt(), 0);
    QVERIFY(nbirth.object.value("timestamp").toDouble() > 0);
    QCOMPARE(nbirth.metric("bdSeq").value("type").toString(), QStringLiteral("UInt64"));
    QCOMPARE(nbirth.metric("bdSeq").value("value").toInt(-1), 0);
    QCOMPARE(nbirth.metric("Node Control/Rebirth").value("type").toString(), QStringLiteral("Boolean"));
    QCOMPARE(nbirth.metric("Node Control/Rebirth").value("value").toBool(true), false);
    QTRY_VERIFY(node.isBorn());
    QVERIFY(m_log.lines().contains(m_log.info("Born with bdSeq 0 and 0 devices, 0 messages to send as history")));

    node.processData(When, "m1", "opcua", state(3));
    const Message dbirth = host.next();
    QCOMPARE(dbirth.object.value("topic").toString(), QStringLiteral("spBv1.0/plant/DBIRTH/orvix1/m1"));
    QCOMPARE(dbirth.seq(), 1);
    QCOMPARE(dbirth.metric("State").value("type").toString(), QStringLiteral("Int32"));
    QCOMPARE(dbirth.metric("State").value("value").toInt(), 3);
    QCOMPARE(dbirth.metric("State").value("timestamp").toDouble(), double(When.toMSecsSinceEpoch()));
    QCOMPARE(dbirth.metric("General/pieces").value("type").toString(), QStringLiteral("UInt64"));
    QVERIFY(dbirth.metric("General/pieces").value("isNull").toBool());
    QCOMPARE(dbirth.metric("General/powerOnHours").value("type").toString(), QStringLiteral("Double"));
    QCOMPARE(dbirth.metric("General/counter5").value("type").toString(), QStringLiteral("Int64"));
    QCOMPARE(dbirth.metric("Notifications/Active").value("type").toString(), QStringLiteral("DataSet"));
    QCOMPARE(dbirth.metric("Software/Version").value("type").toString(), QStringLiteral("String"));
    QCOMPARE(dbirth.metric("Order/ProgramName").value("type").toString(), QStringLiteral("String"));
    QSet<qint64> aliases;
    for (const QJsonValue &metric : dbirth.metrics()) {
        QVERIFY(metric.toObject().value("hasDatatype").toBool());
        aliases.insert(qint64(metric.toObject().value("alias").toDouble()));
    }
    QCOMPARE(aliases.size(), dbirth.metrics().size());

    // Only what changed, by alias, each metric with its time stamp.
    const QDateTime later = When.addSecs(1);
    node.processData(later, "m1", "opcua", general(7));
    const Message ddata = host.next();
    QCOMPARE(ddata.object.value("topic").toString(), QStringLiteral("spBv1.0/plant/DDATA/orvix1/m1"));
    QCOMPARE(ddata.seq(), 2);
    // Every operating-data value was null before.
    QCOMPARE(ddata.metrics().size(), 6);
    const QJsonObject pieces = ddata.metricByAlias(aliasOf(dbirth, "General/pieces"));
    QCOMPARE(pieces.value("value").toInt(), 7);
    QCOMPARE(pieces.value("timestamp").toDouble(), double(later.toMSecsSinceEpoch()));
    QCOMPARE(pieces.value("hasName").toBool(true), false);
    QCOMPARE(pieces.value("hasDatatype").toBool(true), false);
    QCOMPARE(ddata.metricByAlias(aliasOf(dbirth, "General/powerOnHours")).value("value").toDouble(), 1.5);
    QCOMPARE(ddata.metricByAlias(aliasOf(dbirth, "General/length")).value("value").toDouble(-1), 0.0);

    node.processData(later, "m1", "opcua", general(8));
    const Message next = host.next();
    QCOMPARE(next.seq(), 3);
    QCOMPARE(next.metrics().size(), 1);

    // A second machine is a second device; aliases are unique across the node.
    node.processData(When, "m2", "opcua", state(2));
    const Message second = host.next();
    QCOMPARE(second.device(), QStringLiteral("m2"));
    QCOMPARE(second.type(), QStringLiteral("DBIRTH"));
    QCOMPARE(second.seq(), 4);
    for (const QJsonValue &metric : second.metrics())
        QVERIFY(!aliases.contains(qint64(metric.toObject().value("alias").toDouble())));
    // A dataset that changes nothing sends nothing.
    node.processData(later, "m1", "opcua", general(8));
    node.processData(later, "m1", "opcua", state(3));
    node.processData(later, "m1", "opcua", general(9));
    QCOMPARE(host.next().seq(), 5);
    QCOMPARE(node.spooled(), 0);
}

void tst_Sparkplug::seqWrapsAt255()
{
    if (skipWithoutNode())
        QSKIP("needs node");
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    Host host;
    QVERIFY(host.start(broker.port()));
    Sparkplug node;
    QVariantMap shared;
    QVERIFY(node.init(nodeConfig(broker.port(), m_dir.filePath("wrap")), shared));
    QCOMPARE(host.next().seq(), 0);
    QTRY_VERIFY(node.isBorn());
    for (int i = 0; i < 300; ++i)
        node.processData(When.addSecs(i), "m1", "opcua", general(quint64(i)));
    for (int i = 1; i <= 300; ++i) {
        const Message message = host.next();
        QCOMPARE(message.type(), QString(i == 1 ? "DBIRTH" : "DDATA"));
        QCOMPARE(message.seq(), i % 256);
    }
}

void tst_Sparkplug::bdSeqCountsUpAndPersists()
{
    if (skipWithoutNode())
        QSKIP("needs node");
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    Host host;
    QVERIFY(host.start(broker.port()));
    const QString folder = m_dir.filePath("bdseq");
    {
        Sparkplug node;
        node.setReconnectDelays(1000, 1500);
        QVariantMap shared;
        QVERIFY(node.init(nodeConfig(broker.port(), folder), shared));
        QCOMPARE(host.nextOf("NBIRTH").metric("bdSeq").value("value").toInt(), 0);
        broker.stop();
        QVERIFY2(broker.start(), broker.lastOutput().constData());
        QVERIFY(host.ready());
        const Message again = host.nextOf("NBIRTH");
        QVERIFY(again.metric("bdSeq").value("value").toInt() >= 1);
        QTRY_VERIFY(node.isBorn());
    }
    // The graceful stop's NDEATH names the bdSeq of the connection it ends.
    const Message death = host.nextOf("NDEATH");
    const int last = death.metric("bdSeq").value("value").toInt();
    QVERIFY(last >= 1);
    QCOMPARE(death.seq(), -1);
    Sparkplug restarted;
    QVariantMap shared;
    QVERIFY(restarted.init(nodeConfig(broker.port(), folder), shared));
    QCOMPARE(host.nextOf("NBIRTH").metric("bdSeq").value("value").toInt(), last + 1);
}

void tst_Sparkplug::bdSeqWrapsAt255()
{
    if (skipWithoutNode())
        QSKIP("needs node");
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    Host host;
    QVERIFY(host.start(broker.port()));
    const QString folder = m_dir.filePath("bdseqwrap");
    QVERIFY(writeFile(folder + "/state/bdSeq", "255\n"));
    for (const int expected : { 255, 0 }) {
        Sparkplug node;
        QVariantMap shared;
        QVERIFY(node.init(nodeConfig(broker.port(), folder), shared));
        QCOMPARE(host.nextOf("NBIRTH").metric("bdSeq").value("value").toInt(), expected);
        QTRY_VERIFY(node.isBorn());
    }
    QCOMPARE(readFile(folder + "/state/bdSeq"), QByteArray("1\n"));
}

void tst_Sparkplug::gracefulStopPublishesNodeDeath()
{
    if (skipWithoutNode())
        QSKIP("needs node");
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    Host host;
    QVERIFY(host.start(broker.port()));
    auto node = std::make_unique<Sparkplug>();
    QVariantMap shared;
    QVERIFY(node->init(nodeConfig(broker.port(), m_dir.filePath("graceful")), shared));
    const int bdSeq = host.nextOf("NBIRTH").metric("bdSeq").value("value").toInt();
    QTRY_VERIFY(node->isBorn());
    node.reset();
    const Message death = host.next();
    QCOMPARE(death.object.value("topic").toString(), QStringLiteral("spBv1.0/plant/NDEATH/orvix1"));
    QCOMPARE(death.metric("bdSeq").value("value").toInt(-1), bdSeq);
    QCOMPARE(death.metric("bdSeq").value("type").toString(), QStringLiteral("UInt64"));
}

void tst_Sparkplug::rebirthOnCommand()
{
    if (skipWithoutNode())
        QSKIP("needs node");
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    Host host;
    QVERIFY(host.start(broker.port()));
    Sparkplug node;
    QVariantMap shared;
    QVERIFY(node.init(nodeConfig(broker.port(), m_dir.filePath("rebirth")), shared));
    const int bdSeq = host.nextOf("NBIRTH").metric("bdSeq").value("value").toInt();
    QTRY_VERIFY(node.isBorn());
    node.processData(When, "m1", "opcua", state(3));
    node.processData(When, "m2", "opcua", state(2));
    node.processData(When, "m2", "opcua", general(5));
    QCOMPARE(host.next().seq(), 1);
    QCOMPARE(host.next().seq(), 2);
    QCOMPARE(host.next().seq(), 3);

    QVERIFY(host.command("spBv1.0/plant/NCMD/orvix1", "not protobuf"));
    QVERIFY(m_log.waitFor(
        m_log.warning("Ignoring a command on spBv1.0/plant/NCMD/orvix1: not a Sparkplug B payload"), 20000));
    QVERIFY(host.rebirth());
    const Message nbirth = host.next();
    QCOMPARE(nbirth.type(), QStringLiteral("NBIRTH"));
    QCOMPARE(nbirth.seq(), 0);
    QCOMPARE(nbirth.metric("bdSeq").value("value").toInt(), bdSeq);
    const Message first = host.next();
    const Message second = host.next();
    QCOMPARE(first.type(), QStringLiteral("DBIRTH"));
    QCOMPARE(first.device(), QStringLiteral("m1"));
    QCOMPARE(first.seq(), 1);
    QCOMPARE(second.type(), QStringLiteral("DBIRTH"));
    QCOMPARE(second.device(), QStringLiteral("m2"));
    QCOMPARE(second.seq(), 2);
    QCOMPARE(second.metric("General/pieces").value("value").toInt(), 5);
    QVERIFY(m_log.lines().contains(m_log.info("Rebirth requested")));
    node.processData(When, "m2", "opcua", general(6));
    QCOMPARE(host.next().seq(), 3);
}

void tst_Sparkplug::newConditionBirthsTheDeviceAgain()
{
    if (skipWithoutNode())
        QSKIP("needs node");
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    Host host;
    QVERIFY(host.start(broker.port()));
    Sparkplug node;
    QVariantMap shared;
    QVERIFY(node.init(nodeConfig(broker.port(), m_dir.filePath("condition")), shared));
    QCOMPARE(host.next().type(), QStringLiteral("NBIRTH"));
    QTRY_VERIFY(node.isBorn());
    node.processData(When, "m1", "opcua", state(3));
    QCOMPARE(host.next().type(), QStringLiteral("DBIRTH"));

    const QString flag = QStringLiteral("m1/State/Machine/Flags/Alarm");
    const QString value = QStringLiteral("m1/State/Machine/Values/Speed");
    const QString count = QStringLiteral("m1/State/Machine/Values/Count");
    const QString text = QStringLiteral("m1/Identification/Model");
    node.processData(When, "m1", "opcua", definitions(flag, 3));
    const Message birth = host.next();
    QCOMPARE(birth.type(), QStringLiteral("DBIRTH"));
    QCOMPARE(birth.metric("Conditions/" + flag).value("type").toString(), QStringLiteral("Boolean"));
    QVERIFY(birth.metric("Conditions/" + flag).value("isNull").toBool());
    QCOMPARE(birth.metric("State").value("value").toInt(), 3);
    for (const auto &[id, dataType, type] : { std::make_tuple(value, 2, "Double"), std::make_tuple(count, 1, "Int64"),
             std::make_tuple(text, 0, "String") }) {
        node.processData(When, "m1", "opcua", definitions(id, dataType));
        QCOMPARE(host.next().metric("Conditions/" + id).value("type").toString(), QString(type));
    }
    // A definition that adds nothing births nothing; values go out as data.
    node.processData(When, "m1", "opcua", definitions(flag, 3));
    node.processData(When, "m1", "opcua", values(flag, true));
    node.processData(When, "m1", "opcua", values(value, 12.5));
    node.processData(When, "m1", "opcua", values(count, 42));
    node.processData(When, "m1", "opcua", values(text, "Maxi"));
    const Message last = host.nextOf("DBIRTH", 1000);
    QVERIFY(last.object.isEmpty());
    node.processData(When, "m1", "opcua", values(count, 43));
    // A value of a condition never defined defines it with its own type.
    node.processData(When, "m1", "opcua", values(QStringLiteral("m1/State/Machine/Flags/New"), false));
    const Message surprise = host.nextOf("DBIRTH");
    QCOMPARE(
        surprise.metric("Conditions/m1/State/Machine/Flags/New").value("type").toString(), QStringLiteral("Boolean"));
    QCOMPARE(surprise.metric("Conditions/" + flag).value("value").toBool(), true);
    QCOMPARE(surprise.metric("Conditions/" + value).value("value").toDouble(), 12.5);
    QCOMPARE(surprise.metric("Conditions/" + count).value("value").toInt(), 43);
    QCOMPARE(surprise.metric("Conditions/" + text).value("value").toString(), QStringLiteral("Maxi"));
}

void tst_Sparkplug::offlineMachineDiesAndIsBornAgain()
{
    if (skipWithoutNode())
        QSKIP("needs node");
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    Host host;
    QVERIFY(host.start(broker.port()));
    Sparkplug node;
    QVariantMap shared;
    QVERIFY(node.init(nodeConfig(broker.port(), m_dir.filePath("offline")), shared));
    QCOMPARE(host.next().type(), QStringLiteral("NBIRTH"));
    QTRY_VERIFY(node.isBorn());
    node.processData(When, "m1", "opcua", state(3));
    const Message birth = host.next();
    node.processData(When, "m1", "opcua", state(SparkplugDevice::Offline));
    const Message last = host.next();
    QCOMPARE(last.type(), QStringLiteral("DDATA"));
    QCOMPARE(last.metricByAlias(aliasOf(birth, "State")).value("value").toInt(), 1);
    const Message death = host.next();
    QCOMPARE(death.type(), QStringLiteral("DDEATH"));
    QCOMPARE(death.device(), QStringLiteral("m1"));
    QCOMPARE(death.seq(), 3);
    // Nothing of a dead device goes out until it is back.
    node.processData(When, "m1", "opcua", general(3));
    node.processData(When, "m1", "opcua", state(2));
    const Message again = host.next();
    QCOMPARE(again.type(), QStringLiteral("DBIRTH"));
    QCOMPARE(again.seq(), 4);
    QCOMPARE(again.metric("General/pieces").value("value").toInt(), 3);
    // A machine first seen offline is not born.
    node.processData(When, "m2", "opcua", state(SparkplugDevice::Offline));
    node.processData(When, "m1", "opcua", general(4));
    QCOMPARE(host.next().device(), QStringLiteral("m1"));
}

void tst_Sparkplug::notificationsAsADataSet()
{
    if (skipWithoutNode())
        QSKIP("needs node");
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    Host host;
    QVERIFY(host.start(broker.port()));
    Sparkplug node;
    QVariantMap shared;
    QVERIFY(node.init(nodeConfig(broker.port(), m_dir.filePath("notifications")), shared));
    QCOMPARE(host.next().type(), QStringLiteral("NBIRTH"));
    QTRY_VERIFY(node.isBorn());
    node.processData(When, "m1", "opcua", state(3));
    const Message birth = host.next();
    const QJsonObject empty = birth.metric("Notifications/Active").value("value").toObject();
    QCOMPARE(empty.value("columns").toArray(), QJsonArray({ "Id", "Time", "Level", "Code", "Message" }));
    QCOMPARE(empty.value("rows").toArray().size(), 0);
    const qint64 alias = aliasOf(birth, "Notifications/Active");

    node.processData(When, "m1", "opcua", notification("path/1", 2, "Door open"));
    node.processData(When, "m1", "opcua", notification("path/2", 3, "Saw blocked"));
    host.next();
    const QJsonObject two = host.next().metricByAlias(alias).value("value").toObject();
    QCOMPARE(two.value("rows").toArray(),
        QJsonArray({ QJsonArray({ "path/1", double(When.toMSecsSinceEpoch()), 2, "E42", "Door open" }),
            QJsonArray({ "path/2", double(When.toMSecsSinceEpoch()), 3, "E42", "Saw blocked" }) }));
    NotificationsRemoveV1 remove;
    remove.id = QStringLiteral("path/1");
    remove.timestamp = When;
    node.processData(When, "m1", "opcua", QVariant::fromValue(remove));
    QCOMPARE(host.next().metricByAlias(alias).value("value").toObject().value("rows").toArray().size(), 1);
    NotificationsRemoveAllV1 all;
    all.timestamp = When;
    node.processData(When, "m1", "opcua", QVariant::fromValue(all));
    QCOMPARE(host.next().metricByAlias(alias).value("value").toObject().value("rows").toArray().size(), 0);
}

void tst_Sparkplug::historyAfterABrokerOutage()
{
    if (skipWithoutNode())
        QSKIP("needs node");
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    Host host;
    QVERIFY(host.start(broker.port()));
    Sparkplug node;
    // The host is back on the broker long before the node.
    node.setReconnectDelays(2000, 2500);
    QVariantMap shared;
    QVERIFY(node.init(nodeConfig(broker.port(), m_dir.filePath("outage")), shared));
    const int bdSeq = host.nextOf("NBIRTH").metric("bdSeq").value("value").toInt();
    QTRY_VERIFY(node.isBorn());
    node.processData(When, "m1", "opcua", state(3));
    node.processData(When, "m2", "opcua", state(3));
    const Message birth = host.next();
    host.next();

    broker.stop();
    QTRY_VERIFY(!node.isBorn());
    for (int i = 1; i <= 3; ++i)
        node.processData(When.addSecs(i), "m1", "opcua", general(quint64(i)));
    node.processData(When.addSecs(4), "m2", "opcua", state(SparkplugDevice::Offline));
    node.processData(When.addSecs(5), "m1", "opcua", definitions(QStringLiteral("m1/State/Machine/Flags/Alarm"), 3));
    QCOMPARE(node.spooled(), 6);
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    QVERIFY(host.ready());

    // The broker may send the will of the lost connection when it stops: an NDEATH of the last bdSeq.
    Message nbirth = host.next(30000);
    if (nbirth.type() == QStringLiteral("NDEATH")) {
        QCOMPARE(nbirth.metric("bdSeq").value("value").toInt(), bdSeq);
        nbirth = host.next();
    }
    QCOMPARE(nbirth.type(), QStringLiteral("NBIRTH"));
    QCOMPARE(nbirth.seq(), 0);
    QVERIFY(nbirth.metric("bdSeq").value("value").toInt() > bdSeq);
    // Every device is born with its current values, the dead one too, so that its history has a home.
    const Message first = host.next();
    QCOMPARE(first.type(), QStringLiteral("DBIRTH"));
    QCOMPARE(first.device(), QStringLiteral("m1"));
    QCOMPARE(first.metric("General/pieces").value("value").toInt(), 3);
    QVERIFY(!first.metric("Conditions/m1/State/Machine/Flags/Alarm").isEmpty());
    const Message second = host.next();
    QCOMPARE(second.device(), QStringLiteral("m2"));
    QCOMPARE(second.metric("State").value("value").toInt(), 1);
    // Then the history, in order and flagged historical; births and deaths of the lost session are left out.
    for (int i = 1; i <= 3; ++i) {
        const Message history = host.next();
        QCOMPARE(history.type(), QStringLiteral("DDATA"));
        QCOMPARE(history.seq(), 2 + i);
        const QJsonObject pieces = history.metricByAlias(aliasOf(birth, "General/pieces"));
        QCOMPARE(pieces.value("value").toInt(), i);
        QCOMPARE(pieces.value("timestamp").toDouble(), double(When.addSecs(i).toMSecsSinceEpoch()));
        QVERIFY(pieces.value("isHistorical").toBool());
    }
    const Message stateOfM2 = host.next();
    QCOMPARE(stateOfM2.device(), QStringLiteral("m2"));
    QCOMPARE(stateOfM2.type(), QStringLiteral("DDATA"));
    QVERIFY(stateOfM2.metrics().at(0).toObject().value("isHistorical").toBool());
    // Then the devices that are offline now die.
    const Message death = host.next();
    QCOMPARE(death.type(), QStringLiteral("DDEATH"));
    QCOMPARE(death.device(), QStringLiteral("m2"));
    QCOMPARE(death.seq(), 7);
    node.processData(When.addSecs(9), "m1", "opcua", general(9));
    const Message live = host.next();
    QCOMPARE(live.seq(), 8);
    QVERIFY(!live.metrics().at(0).toObject().value("isHistorical").toBool());
    QTRY_COMPARE(node.spooled(), 0);
}

void tst_Sparkplug::primaryHostState()
{
    if (skipWithoutNode())
        QSKIP("needs node");
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    Host host;
    QVERIFY(host.start(broker.port()));
    QVERIFY(host.hostState("scada", false, 1000));
    QCOMPARE(host.next().type(), QStringLiteral("STATE"));
    Sparkplug node;
    node.setReconnectDelays(100, 200);
    QVariantMap shared;
    QVERIFY(node.init(nodeConfig(broker.port(), m_dir.filePath("primary"), { { "primaryHostId", "scada" } }), shared));
    QVERIFY(m_log.waitFor(m_log.info("Waiting for the primary host scada to be online"), 20000));
    node.processData(When, "m1", "opcua", state(3));
    QVERIFY(host.nextOf("NBIRTH", 1000).object.isEmpty());
    QVERIFY(!node.isBorn());

    QVERIFY(host.hostState("scada", true, 2000));
    QCOMPARE(host.nextOf("NBIRTH").seq(), 0);
    QCOMPARE(host.next().type(), QStringLiteral("DBIRTH"));
    QVERIFY(m_log.lines().contains(m_log.info("Primary host scada is online")));
    QTRY_VERIFY(node.isBorn());
    // A STATE older than the last one is ignored.
    QVERIFY(host.hostState("scada", false, 1500));
    QVERIFY(host.nextOf("NDEATH", 1000).object.isEmpty());
    QVERIFY(node.isBorn());
    // The primary host going offline ends the session: NDEATH, and the births wait for it again.
    QVERIFY(host.hostState("scada", false, 3000));
    QCOMPARE(host.nextOf("NDEATH").type(), QStringLiteral("NDEATH"));
    QVERIFY(m_log.waitFor(m_log.warning("Primary host scada is offline: ending the session"), 20000));
    QVERIFY(m_log.waitFor(m_log.info("Waiting for the primary host scada to be online"), 20000));
    QVERIFY(!node.isBorn());
    QVERIFY(host.hostState("scada", true, 4000));
    QCOMPARE(host.nextOf("NBIRTH").seq(), 0);
    QTRY_VERIFY(node.isBorn());
    QVERIFY(host.command("spBv1.0/STATE/scada", "{\"online\": \"yes\"}"));
    QVERIFY(m_log.waitFor(m_log.warning("Ignoring the STATE of scada: {\"online\": \"yes\"}"), 20000));
    QVERIFY(node.isBorn());
}

void tst_Sparkplug::aliasesSurviveARestart()
{
    if (skipWithoutNode())
        QSKIP("needs node");
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    const QString folder = m_dir.filePath("restart");
    qint64 alias = -1;
    {
        Host host;
        QVERIFY(host.start(broker.port()));
        Sparkplug node;
        QVariantMap shared;
        QVERIFY(node.init(nodeConfig(broker.port(), folder), shared));
        QTRY_VERIFY(node.isBorn());
        node.processData(When, "m1", "opcua", state(3));
        node.processData(When, "m2", "opcua", definitions(QStringLiteral("m2/Identification/Model"), 0));
        host.nextOf("DBIRTH");
        alias = aliasOf(host.nextOf("DBIRTH"), "Conditions/m2/Identification/Model");
        QVERIFY(alias > 0);
    }
    // A record torn by a crash at the end of the catalog is cut off; the whole ones before it count.
    {
        QFile catalog(folder + "/state/catalog");
        QVERIFY(catalog.open(QIODevice::Append));
        const qint64 whole = catalog.size();
        QVERIFY(catalog.write(QByteArray("\0\0\0\x10m3", 6)) == 6);
        catalog.close();
        Sparkplug reader;
        QVariantMap shared;
        QVERIFY(reader.init(nodeConfig(1, folder), shared));
        QVERIFY(m_log.lines().contains(
            m_log.warning(QStringLiteral("Cutting a torn record off the catalog %1/state/catalog at byte %2")
                              .arg(folder)
                              .arg(whole))));
    }
    // The restarted node knows both devices before any data and births them with the same aliases, values unknown.
    Host host;
    QVERIFY(host.start(broker.port()));
    Sparkplug node;
    QVariantMap shared;
    QVERIFY(node.init(nodeConfig(broker.port(), folder), shared));
    host.nextOf("NBIRTH");
    QCOMPARE(host.next().device(), QStringLiteral("m1"));
    const Message second = host.next();
    QCOMPARE(second.device(), QStringLiteral("m2"));
    QCOMPARE(aliasOf(second, "Conditions/m2/Identification/Model"), alias);
    QVERIFY(second.metric("State").value("isNull").toBool());
}

void tst_Sparkplug::historyOfAnEarlierRun()
{
    if (skipWithoutNode())
        QSKIP("needs node");
    MosquittoBroker broker;
    const QString folder = m_dir.filePath("earlier");
    {
        // The broker is away for the whole first run.
        Sparkplug node;
        QVariantMap shared;
        QVERIFY(node.init(nodeConfig(broker.port(), folder), shared));
        node.processData(When, "m1", "opcua", state(3));
        node.processData(When.addSecs(1), "m1", "opcua", general(1));
        node.processData(When.addSecs(2), "m1", "opcua", general(2));
        QCOMPARE(node.spooled(), 3);
    }
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    Host host;
    QVERIFY(host.start(broker.port()));
    Sparkplug node;
    QVariantMap shared;
    QVERIFY(node.init(nodeConfig(broker.port(), folder), shared));
    QVERIFY(m_log.lines().contains(m_log.info(QStringLiteral("Edge node plant/orvix1 publishing to 127.0.0.1:%1 as "
                                                             "orvix-orvix1 through the spool %2/spool, 3 messages "
                                                             "waiting")
                                                  .arg(broker.port())
                                                  .arg(folder))));
    const Message nbirth = host.next();
    QCOMPARE(nbirth.type(), QStringLiteral("NBIRTH"));
    const int birthBdSeq = nbirth.metric("bdSeq").value("value").toInt();
    // The device is known from the catalog, its values not yet: the history of the last run follows its birth.
    const Message birth = host.next();
    QCOMPARE(birth.type(), QStringLiteral("DBIRTH"));
    QVERIFY(birth.metric("State").value("isNull").toBool());
    for (int i = 1; i <= 2; ++i) {
        const Message history = host.next();
        QCOMPARE(history.type(), QStringLiteral("DDATA"));
        QCOMPARE(history.seq(), 1 + i);
        const QJsonObject pieces = history.metricByAlias(aliasOf(birth, "General/pieces"));
        QCOMPARE(pieces.value("value").toInt(), i);
        QVERIFY(pieces.value("isHistorical").toBool());
    }
    QTRY_COMPARE(node.spooled(), 0);
    const QString born
        = m_log.info(QStringLiteral("Born with bdSeq %1 and 1 devices, 3 messages to send as history").arg(birthBdSeq));
    QVERIFY(m_log.lines().contains(born));
}

void tst_Sparkplug::realServiceBirthsMachinesAndLeavesItsWill()
{
    if (skipWithoutNode())
        QSKIP("needs node");
    if (!IsolatedService::available())
        QSKIP("needs root and unshare for a private mount namespace");
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    Host host;
    QVERIFY(host.start(broker.port()));
    // The service with simulated machines: their datasets come through the whole chain.
    IsolatedService service;
    for (const char *plugin : { "libsparkplug.so", "libsimulator.so" })
        QVERIFY(QFile::copy(QStringLiteral(ORVIX_PLUGIN_BUILD_DIR "/") + plugin, service.pluginDir() + '/' + plugin));
    const QString folder = service.path("sparkplug");
    QVERIFY(writeFile(folder + "/state/bdSeq", "41\n"));
    service.writeConfig(QStringLiteral("[simulator]\nmachines=1\nprefix=sim\ninterval=200\nseed=7\n"
                                       "[limit]\nwaitTime=200\n"
                                       "[sparkplug]\nhost=127.0.0.1\nport=%1\ngroupId=plant\nedgeNodeId=orvix1\n"
                                       "spool=%2/spool\nstate=%2/state\n")
                            .arg(broker.port())
                            .arg(folder)
                            .toUtf8());
    QVERIFY(service.start());
    const Message birth = host.nextOf("NBIRTH", 30000);
    QCOMPARE(birth.metric("bdSeq").value("value").toInt(), 41);
    // The simulated machine is born with its state and its conditions, typed as their definitions say.
    Message device;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 30000) {
        device = host.nextOf("DBIRTH");
        bool conditions = false;
        for (const QJsonValue &metric : device.metrics())
            conditions = conditions || metric.toObject().value("name").toString().startsWith("Conditions/");
        if (conditions)
            break;
    }
    QVERIFY(device.device().startsWith("sim"));
    QCOMPARE(device.metric("State").value("type").toString(), QStringLiteral("Int32"));
    QCOMPARE(device.metric("General/pieces").value("type").toString(), QStringLiteral("UInt64"));
    const Message data = host.nextOf("DDATA");
    QCOMPARE(data.device(), device.device());
    QVERIFY(!data.metrics().isEmpty());
    QVERIFY(data.metrics().at(0).toObject().value("timestamp").toDouble() > 0);
    service.process().kill();
    QVERIFY(service.process().waitForFinished(10000));
    const Message death = host.nextOf("NDEATH");
    QCOMPARE(death.object.value("topic").toString(), QStringLiteral("spBv1.0/plant/NDEATH/orvix1"));
    QCOMPARE(death.metric("bdSeq").value("value").toInt(), 41);
    QCOMPARE(death.object.value("qos").toInt(), 1);
}

QTEST_GUILESS_MAIN(tst_Sparkplug)
#include "tst_sparkplug.moc"
