#include "mqttin.h"

#include "datasetcodec.h"
#include "idatasource.h"
#include "mmdatasets.h"
#include "mosquittobroker.h"
#include "testsupport.h"

#include <QPluginLoader>
#include <QSignalSpy>
#include <QtTest>

using namespace TestSupport;

namespace {

QStringList s_log;

void capture(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    static const QHash<QtMsgType, QString> levels { { QtDebugMsg, "DEBUG" }, { QtInfoMsg, "INFO" },
        { QtWarningMsg, "WARNING" }, { QtCriticalMsg, "CRITICAL" }, { QtFatalMsg, "FATAL" } };
    s_log.append(QStringLiteral("%1 %2: %3").arg(levels.value(type), QString::fromUtf8(context.category), message));
}

QString warning(const QString &message)
{
    QString escaped = message;
    escaped.replace(QLatin1Char('"'), QLatin1String("\\\""));
    return QStringLiteral("WARNING mqttIn: \"%1\"").arg(escaped);
}

QStringList warnings()
{
    QStringList found;
    for (const QString &entry : qAsConst(s_log)) {
        if (entry.startsWith(QLatin1String("WARNING")))
            found.append(entry);
    }
    return found;
}

QVariantMap inConfig(quint16 port, const QVariantMap &extra = QVariantMap())
{
    QVariantMap group { { "host", "127.0.0.1" }, { "port", QString::number(port) }, { "clientId", "orvix-test-in" } };
    for (auto it = extra.begin(); it != extra.end(); ++it)
        group.insert(it.key(), it.value());
    return QVariantMap { { "mqttIn", group } };
}

const QByteArray StateLine
    = R"({"timestamp":"2021-03-01T08:00:00.250Z","machine":"m1","source":"opcua","type":"StateV1","data":{"state":3}})";
const QByteArray GeneralLine
    = R"({"timestamp":"2021-03-01T08:00:01.250Z","machine":"m1","source":"opcua","type":"GeneralV1","data":{"pieces":12}})";

QString decoderError(const QByteArray &line)
{
    DatasetCodec::Dataset dataset;
    QString error;
    DatasetCodec::decodeLine(line, &dataset, &error);
    return error;
}

} // namespace

class tst_MqttIn : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void pluginMetadata();
    void sampleIniMatchesTheKeyTable();
    void initRefuses_data();
    void initRefuses();

    void emitsTheDatasetsOfAMessage();
    void machineFromTheTopicWhenThePayloadHasNone();
    void badPayloads_data();
    void badPayloads();
    void emptyMessageIsIgnored();
    void subscribesAgainAfterEveryReconnect();
    void requestsGoToTheMachinesTopic();
    void requestWithoutConnectionIsWarned();
    void usernameAndPassword();

private:
    bool waitForSubscription(const QString &filter);
    bool start(MqttIn &in, const MosquittoBroker &broker, const QVariantMap &extra = QVariantMap());

    QtMessageHandler m_previous = nullptr;
};

void tst_MqttIn::init()
{
    s_log.clear();
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false\nmqttIn.debug=true"));
    m_previous = qInstallMessageHandler(capture);
}

void tst_MqttIn::cleanup()
{
    qInstallMessageHandler(m_previous);
    QLoggingCategory::setFilterRules(QString());
}

bool tst_MqttIn::waitForSubscription(const QString &filter)
{
    const QString subscribed = QStringLiteral("DEBUG mqttIn: \"Subscribed to %1 at QoS 1\"").arg(filter);
    QElapsedTimer clock;
    clock.start();
    while (!s_log.contains(subscribed) && clock.elapsed() < 20000)
        QTest::qWait(10);
    return s_log.contains(subscribed);
}

bool tst_MqttIn::start(MqttIn &in, const MosquittoBroker &broker, const QVariantMap &extra)
{
    QVariantMap shared;
    QVariantMap settings { { "topics", "plant/#" } };
    for (auto it = extra.begin(); it != extra.end(); ++it)
        settings.insert(it.key(), it.value());
    return in.init(inConfig(broker.port(), settings), shared)
        && waitForSubscription(settings.value("topics").toStringList().value(0));
}

void tst_MqttIn::pluginMetadata()
{
    QPluginLoader loader(QStringLiteral(ORVIX_PLUGIN_BUILD_DIR "/libmqttin.so"));
    QCOMPARE(loader.metaData().value("MetaData").toObject().value("TYPE").toString(), QStringLiteral("DATASOURCE"));
    IDatasource *source = qobject_cast<IDatasource *>(loader.instance());
    QVERIFY2(source, qPrintable(loader.errorString()));
    QCOMPARE(source->name(), QStringLiteral("mqttIn"));
    QVERIFY(loader.instance()->metaObject()->indexOfSlot("machineRequest(QString,QVariant)") >= 0);
    QVERIFY(loader.instance()->metaObject()->indexOfSignal("dataReceived(QDateTime,QString,QString,QVariant)") >= 0);
}

void tst_MqttIn::sampleIniMatchesTheKeyTable()
{
    const QByteArray sample = readFile(QStringLiteral(ORVIX_SOURCE_DIR "/plugins/mqttin/sample.ini"));
    const QList<QByteArray> lines = sample.split('\n');
    QCOMPARE(lines.first(), QByteArray("[mqttIn]"));
    int key = 0;
    for (int i = 1; i < lines.size(); ++i) {
        if (lines.at(i).isEmpty() || lines.at(i).startsWith(';'))
            continue;
        QVERIFY(key < MqttIn::settings().size());
        const MqttSettings::Key &entry = MqttIn::settings().at(key++);
        QCOMPARE(lines.at(i), QByteArray(entry.key) + '=' + entry.defaultValue);
        QCOMPARE(lines.at(i - 1), QByteArray("; ") + entry.meaning);
    }
    QCOMPARE(key, MqttIn::settings().size());
    QVERIFY(readFile(QStringLiteral(ORVIX_SOURCE_DIR "/plugins/mqttin/README.md")).contains(sample));
    // The default filter as QSettings reads it from the sample.
    QSettings settings(QStringLiteral(ORVIX_SOURCE_DIR "/plugins/mqttin/sample.ini"), QSettings::IniFormat);
    QCOMPARE(settings.value("mqttIn/topics").toString(), QStringLiteral("orvix/in/#"));
}

void tst_MqttIn::initRefuses_data()
{
    QTest::addColumn<QVariantMap>("settings");
    QTest::addColumn<QString>("message");
    QTest::newRow("hash not last") << QVariantMap { { "topics", QStringList { "a/#", "b/#/c" } } }
                                   << "Can't use the settings: topics: \"b/#/c\" is not a valid topic filter";
    QTest::newRow("no topics") << QVariantMap { { "topics", " , " } } << "Can't use the settings: topics is empty";
    QTest::newRow("qos 2") << QVariantMap { { "qos", "2" } }
                           << "Can't use the settings: qos must be a whole number from 0 to 1, not \"2\"";
    QTest::newRow("maxPayload 0") << QVariantMap { { "maxPayload", "0" } }
                                  << "Can't use the settings: maxPayload must be a whole number from 1 to 268435455, "
                                     "not \"0\"";
    QTest::newRow("port 70000") << QVariantMap { { "port", "70000" } }
                                << "Can't use the settings: port must be a whole number from 1 to 65535, not \"70000\"";
}

void tst_MqttIn::initRefuses()
{
    QFETCH(QVariantMap, settings);
    QFETCH(QString, message);
    MqttIn in;
    QVariantMap shared;
    QVERIFY(!in.init(inConfig(1883, settings), shared));
    QCOMPARE(s_log, QStringList { warning(message) });
}

void tst_MqttIn::emitsTheDatasetsOfAMessage()
{
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MqttIn in;
    QSignalSpy received(&in, &MqttIn::dataReceived);
    QVERIFY(start(in, broker));
    QCOMPARE(s_log.first(),
        QStringLiteral("INFO mqttIn: \"Subscribing to plant/# at 127.0.0.1:%1 as orvix-test-in\"").arg(broker.port()));
    MosquittoBroker::Client publisher;
    QVERIFY(publisher.connectTo(broker.port(), "nothing"));
    QVERIFY(publisher.publish("plant/x/StateV1", StateLine));
    // Several datasets as JSON lines, with a blank line and a carriage return on the way.
    QVERIFY(publisher.publish("plant/x/batch", StateLine + "\r\n\n" + GeneralLine + "\n"));
    QTRY_COMPARE_WITH_TIMEOUT(received.size(), 3, 20000);
    const QDateTime first = QDateTime::fromString("2021-03-01T08:00:00.250Z", Qt::ISODateWithMs);
    QCOMPARE(received.at(0).at(0).toDateTime(), first);
    QCOMPARE(received.at(0).at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(received.at(0).at(2).toString(), QStringLiteral("opcua"));
    QCOMPARE(received.at(0).at(3).value<StateV1>().state, 3);
    QCOMPARE(received.at(1).at(3).value<StateV1>().state, 3);
    QCOMPARE(received.at(2).at(3).value<GeneralV1>().pieces, quint64(12));
    QCOMPARE(warnings(), QStringList());
}

void tst_MqttIn::machineFromTheTopicWhenThePayloadHasNone()
{
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MqttIn in;
    QSignalSpy received(&in, &MqttIn::dataReceived);
    QVERIFY(start(in, broker));
    MosquittoBroker::Client publisher;
    QVERIFY(publisher.connectTo(broker.port(), "nothing"));
    QVERIFY(publisher.publish("plant/m9/StateV1", R"({"type":"StateV1","data":{"state":2}})"));
    QVERIFY(publisher.publish("plant/m9/StateV1", R"({"machine":"","type":"StateV1","data":{"state":4}})"));
    QVERIFY(publisher.publish("plant/m9/StateV1", R"({"machine":"m1","type":"StateV1","data":{"state":5}})"));
    QTRY_COMPARE_WITH_TIMEOUT(received.size(), 3, 20000);
    QCOMPARE(received.at(0).at(1).toString(), QStringLiteral("m9"));
    QCOMPARE(received.at(1).at(1).toString(), QStringLiteral("m9"));
    QCOMPARE(received.at(2).at(1).toString(), QStringLiteral("m1"));
    // Without a source the topic names where it came from; without a time stamp it is the time of arrival.
    QCOMPARE(received.at(0).at(2).toString(), QStringLiteral("plant/m9/StateV1"));
    QVERIFY(qAbs(received.at(0).at(0).toDateTime().msecsTo(QDateTime::currentDateTime())) < 60000);
}

void tst_MqttIn::badPayloads_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QString>("reason");
    QTest::newRow("not JSON") << QByteArray("state=3") << decoderError("state=3");
    const QByteArray unknown = R"({"machine":"m1","type":"StateV9","data":{"state":3}})";
    QTest::newRow("unknown type") << unknown << decoderError(unknown);
    const QByteArray wrongKind = R"({"machine":"m1","type":"StateV1","data":{"state":"three"}})";
    QTest::newRow("wrong field kind") << wrongKind << decoderError(wrongKind);
    const QByteArray wrongItem
        = R"({"machine":"m1","type":"ConditionDatasV2","data":{"items":[{"id":7,"value":1,"valueType":"int"}]}})";
    QTest::newRow("wrong kind in a list") << wrongItem << decoderError(wrongItem);
    QTest::newRow("second line bad") << StateLine + "\n{\"type\":\"StateV1\"}"
                                     << QStringLiteral("line 2: %1").arg(decoderError("{\"type\":\"StateV1\"}"));
    QByteArray huge = R"({"machine":"m1","type":"QString","data":")";
    huge += QByteArray(1024 * 1024 - huge.size() - 2, 'x') + "\"}";
    QTest::newRow("1 MiB") << huge << QStringLiteral("1048576 bytes, more than maxPayload 262144");
    QTest::newRow("not UTF-8") << QByteArray("{\"machine\":\"m\xff\",\"type\":\"StateV1\",\"data\":{}}")
                               << decoderError("{\"machine\":\"m\xff\",\"type\":\"StateV1\",\"data\":{}}");
}

void tst_MqttIn::badPayloads()
{
    QFETCH(QByteArray, payload);
    QFETCH(QString, reason);
    QVERIFY(!reason.isEmpty());
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MqttIn in;
    QSignalSpy received(&in, &MqttIn::dataReceived);
    QVERIFY(start(in, broker));
    MosquittoBroker::Client publisher;
    QVERIFY(publisher.connectTo(broker.port(), "nothing"));
    QVERIFY(publisher.publish("plant/m1/bad", payload));
    QVERIFY(publisher.publish("plant/m1/good", GeneralLine));
    QTRY_COMPARE_WITH_TIMEOUT(received.size(), 1, 20000);
    QCOMPARE(received.first().at(3).value<GeneralV1>().pieces, quint64(12));
    QCOMPARE(
        warnings(), QStringList { warning(QStringLiteral("Dropped the message on plant/m1/bad: %1").arg(reason)) });
}

void tst_MqttIn::emptyMessageIsIgnored()
{
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MqttIn in;
    QSignalSpy received(&in, &MqttIn::dataReceived);
    QVERIFY(start(in, broker));
    MosquittoBroker::Client publisher;
    QVERIFY(publisher.connectTo(broker.port(), "nothing"));
    QVERIFY(publisher.publish("plant/m1/StateV1", QByteArray()));
    QVERIFY(publisher.publish("plant/m1/StateV1", StateLine));
    QTRY_COMPARE_WITH_TIMEOUT(received.size(), 1, 20000);
    QVERIFY(s_log.contains("DEBUG mqttIn: \"Ignored the empty message on plant/m1/StateV1\""));
    QCOMPARE(warnings(), QStringList());
}

void tst_MqttIn::subscribesAgainAfterEveryReconnect()
{
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MqttIn in;
    in.setReconnectDelays(100, 500);
    QSignalSpy received(&in, &MqttIn::dataReceived);
    QVERIFY(start(in, broker, { { "topics", QStringList { "plant/#", "other/+" } } }));
    broker.stop();
    QTRY_VERIFY_WITH_TIMEOUT(!warnings().isEmpty(), 20000);
    QCOMPARE(warnings(),
        QStringList {
            warning(QStringLiteral("Connection to 127.0.0.1:%1 lost: The connection was lost.").arg(broker.port())) });
    s_log.clear();
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    QVERIFY(waitForSubscription("plant/#"));
    QVERIFY(s_log.contains("DEBUG mqttIn: \"Subscribed to other/+ at QoS 1\""));
    MosquittoBroker::Client publisher;
    QVERIFY(publisher.connectTo(broker.port(), "nothing"));
    QVERIFY(publisher.publish("other/x", StateLine));
    QTRY_COMPARE_WITH_TIMEOUT(received.size(), 1, 20000);
}

void tst_MqttIn::requestsGoToTheMachinesTopic()
{
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MosquittoBroker::Client watcher;
    QVERIFY(watcher.connectTo(broker.port(), "orvix/request/#"));
    MqttIn in;
    QVERIFY(start(in, broker));
    StateV1 state;
    state.state = 1;
    in.machineRequest(QStringLiteral("hall/m+1"), QVariant::fromValue(state));
    in.machineRequest(QStringLiteral("m2"), QStringLiteral("reset counters"));
    QTRY_COMPARE_WITH_TIMEOUT(watcher.count(), 2, 20000);
    const QVector<MosquittoBroker::Message> messages = watcher.messages();
    QCOMPARE(messages.at(0).topic, QByteArray("orvix/request/hall_m_1"));
    QCOMPARE(messages.at(1).topic, QByteArray("orvix/request/m2"));
    DatasetCodec::Dataset request;
    QVERIFY(DatasetCodec::decodeLine(messages.at(0).payload, &request));
    QCOMPARE(request.machine, QStringLiteral("hall/m+1"));
    QCOMPARE(request.data.value<StateV1>().state, 1);
    QVERIFY(qAbs(request.timestamp.msecsTo(QDateTime::currentDateTimeUtc())) < 60000);
    QVERIFY(DatasetCodec::decodeLine(messages.at(1).payload, &request));
    QCOMPARE(request.data.toString(), QStringLiteral("reset counters"));
    QCOMPARE(warnings(), QStringList());
}

void tst_MqttIn::requestWithoutConnectionIsWarned()
{
    MosquittoBroker broker;
    MqttIn in;
    QVariantMap shared;
    QVERIFY(in.init(inConfig(broker.port()), shared));
    s_log.clear();
    in.machineRequest(QStringLiteral("m1"), QStringLiteral("reset"));
    QCOMPARE(warnings(),
        QStringList {
            warning(QStringLiteral("Request for m1 not sent: not connected to 127.0.0.1:%1").arg(broker.port())) });
    MqttIn notInitialised;
    notInitialised.machineRequest(QStringLiteral("m1"), QStringLiteral("reset"));
    QCOMPARE(warnings().size(), 1);
}

void tst_MqttIn::usernameAndPassword()
{
    MosquittoBroker broker;
    QVERIFY(broker.requirePassword("reader", "pa55"));
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MqttIn in;
    QSignalSpy received(&in, &MqttIn::dataReceived);
    QVERIFY(start(in, broker, { { "username", "reader" }, { "password", "pa55" } }));
    MosquittoBroker::Client publisher;
    publisher.setCredentials("reader", "pa55");
    QVERIFY(publisher.connectTo(broker.port(), "nothing"));
    QVERIFY(publisher.publish("plant/m1/StateV1", StateLine));
    QTRY_COMPARE_WITH_TIMEOUT(received.size(), 1, 20000);
}

QTEST_GUILESS_MAIN(tst_MqttIn)
#include "tst_mqttin.moc"
