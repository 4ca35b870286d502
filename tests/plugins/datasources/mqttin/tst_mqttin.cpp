#include "mqttin.h"

#include "datasetcodec.h"
#include "logcapture.h"
#include "mmdatasets.h"
#include "mosquittobroker.h"
#include "pluginchecks.h"
#include "testsupport.h"

#include <QSignalSpy>
#include <QtTest>

namespace {

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

    void metadata();
    void sampleIniDocumentsEverySetting();
    void readmeQuotesSampleIni();
    void readmeListsEveryKey();
    void initRefuses_data();
    void initRefuses();

    void emitsTheDatasetsOfAMessage();
    void machineFromTheTopicWhenThePayloadHasNone();
    void badPayloads_data();
    void badPayloads();
    void hostileMessagesKeepMemoryBounded();
    void emptyMessageIsIgnored();
    void subscribesAgainAfterEveryReconnect();
    void requestsGoToTheMachinesTopic();
    void requestWithoutConnectionIsWarned();
    void usernameAndPassword();

private:
    bool waitForSubscription(const QString &filter);
    bool start(MqttIn &in, const MosquittoBroker &broker, const QVariantMap &extra = QVariantMap());

    LogCapture m_log { QStringLiteral("mqttIn") };
};

void tst_MqttIn::init()
{
    m_log.start(QStringLiteral("*.debug=false\nmqttIn.debug=true"));
}

void tst_MqttIn::cleanup()
{
    m_log.stop();
}

bool tst_MqttIn::waitForSubscription(const QString &filter)
{
    return m_log.waitFor(m_log.debug(QStringLiteral("Subscribed to %1 at QoS 1").arg(filter)), 20000);
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

void tst_MqttIn::metadata()
{
    PluginChecks::checkDatasourceLibrary("mqttin", "mqttIn", { "machineRequest(QString,QVariant)" });
}

void tst_MqttIn::sampleIniDocumentsEverySetting()
{
    // QSettings reads each default as written, the filter orvix/in/# too.
    PluginChecks::checkSampleIni("datasources/mqttin", "mqttIn", MqttIn::settings().keys());
}

void tst_MqttIn::readmeQuotesSampleIni()
{
    PluginChecks::checkReadmeQuotesSampleIni("datasources/mqttin");
}

void tst_MqttIn::readmeListsEveryKey()
{
    PluginChecks::checkReadmeKeyTable("datasources/mqttin", MqttIn::settings().keys());
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
    QCOMPARE(m_log.lines(), QStringList { m_log.warning(message) });
}

void tst_MqttIn::emitsTheDatasetsOfAMessage()
{
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MqttIn in;
    QSignalSpy received(&in, &MqttIn::dataReceived);
    QVERIFY(start(in, broker));
    QCOMPARE(m_log.lines().first(),
        m_log.info(QStringLiteral("Subscribing to plant/# at 127.0.0.1:%1 as orvix-test-in").arg(broker.port())));
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
    QCOMPARE(m_log.warnings(), QStringList());
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
    const QByteArray repeated = R"({"machine":"m1","type":"StateV1","machine":"m2","data":{"state":3}})";
    QTest::newRow("repeated key") << repeated << decoderError(repeated);
    const QByteArray escape = R"({"machine":"m\q1","type":"StateV1","data":{"state":3}})";
    QTest::newRow("invalid escape") << escape << decoderError(escape);
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
    QCOMPARE(m_log.warnings(),
        QStringList { m_log.warning(QStringLiteral("Dropped the message on plant/m1/bad: %1").arg(reason)) });
}

void tst_MqttIn::hostileMessagesKeepMemoryBounded()
{
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MqttIn in;
    QSignalSpy received(&in, &MqttIn::dataReceived);
    QVERIFY(start(in, broker));
    // The refusals are not formatted at all, so that only what mqttIn itself keeps can grow.
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false\nmqttIn.warning=false"));
    MosquittoBroker::Client publisher;
    QVERIFY(publisher.connectTo(broker.port(), "nothing"));
    // A repeated key holding an object, which Qt's own parser keeps when it replaces it: a kilobyte a message.
    const QByteArray text(1024, 'x');
    const QByteArray hostile = R"({"a":{"b":")" + text + R"("},"a":{"b":"x"}})";
    // At QoS 0, which needs no acknowledgement each, in rounds of 500 closed by a good line at QoS 1, so that no
    // round overtakes the datasource.
    const auto send = [&](int count) {
        for (int i = 0; i < count; i += 500) {
            for (int j = 0; j < 500; ++j) {
                if (!publisher.publish("plant/m1/x", hostile, false, 0))
                    return false;
            }
            // A running event loop, not QTest's waiting, which sleeps between its turns.
            const int before = received.size();
            QEventLoop loop;
            connect(&in, &MqttIn::dataReceived, &loop, &QEventLoop::quit);
            QTimer::singleShot(20000, &loop, &QEventLoop::quit);
            if (!publisher.publish("plant/m1/x", GeneralLine))
                return false;
            loop.exec();
            if (received.size() == before)
                return false;
        }
        return true;
    };
    QVERIFY(send(2000));
    const qint64 before = TestSupport::residentBytes();
    QVERIFY(send(20000));
    const qint64 growth = TestSupport::residentBytes() - before;
#ifdef __SANITIZE_ADDRESS__
    // AddressSanitizer keeps freed memory in quarantine, so only a plain build shows what the datasource holds.
    Q_UNUSED(growth)
#else
    QVERIFY2(growth < 5 * 1024 * 1024, qPrintable(QString::number(growth)));
#endif
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
    QVERIFY(m_log.lines().contains(m_log.debug("Ignored the empty message on plant/m1/StateV1")));
    QCOMPARE(m_log.warnings(), QStringList());
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
    QTRY_VERIFY_WITH_TIMEOUT(!m_log.warnings().isEmpty(), 20000);
    QCOMPARE(m_log.warnings(),
        QStringList { m_log.warning(
            QStringLiteral("Connection to 127.0.0.1:%1 lost: The connection was lost.").arg(broker.port())) });
    m_log.clear();
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    QVERIFY(waitForSubscription("plant/#"));
    QVERIFY(m_log.lines().contains(m_log.debug("Subscribed to other/+ at QoS 1")));
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
    QCOMPARE(m_log.warnings(), QStringList());
}

void tst_MqttIn::requestWithoutConnectionIsWarned()
{
    MosquittoBroker broker;
    MqttIn in;
    QVariantMap shared;
    QVERIFY(in.init(inConfig(broker.port()), shared));
    m_log.clear();
    in.machineRequest(QStringLiteral("m1"), QStringLiteral("reset"));
    QCOMPARE(m_log.warnings(),
        QStringList { m_log.warning(
            QStringLiteral("Request for m1 not sent: not connected to 127.0.0.1:%1").arg(broker.port())) });
    MqttIn notInitialised;
    notInitialised.machineRequest(QStringLiteral("m1"), QStringLiteral("reset"));
    QCOMPARE(m_log.warnings().size(), 1);
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
