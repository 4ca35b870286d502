#include "mqttconnection.h"

#include "logcapture.h"
#include "mosquittobroker.h"
#include "testsupport.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <thread>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace TestSupport;

Q_LOGGING_CATEGORY(lcConnectionTest, "conntest")

namespace {

MqttConnection::Options local(quint16 port)
{
    MqttConnection::Options options;
    options.host = QStringLiteral("127.0.0.1");
    options.port = port;
    options.clientId = QStringLiteral("orvix-conntest");
    return options;
}

} // namespace

class tst_MqttConnection : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void checkRefuses_data();
    void checkRefuses();
    void checkTopic_data();
    void checkTopic();

    void connectsPublishesAndSaysOnlineThenOffline();
    void qosZeroIsConfirmedWhileWriting();
    void unreachableBrokerIsWarnedOnceThenRetriedWithBackOff();
    void lossIsWarnedWithTheReasonAndReconnects();
    void brokersReasonForDisconnecting();
    void subscribesAgainAfterEveryConnect();
    void refusedPasswordIsWarnedWithTheBrokersReason();
    void tlsFailureNamesTheCertificateProblem();
    void publishWithoutConnectionSaysSo();

private:
    QTemporaryDir m_dir;
    MosquittoBroker::Certificates m_certificates;
    LogCapture m_log { QStringLiteral("conntest") };
};

void tst_MqttConnection::initTestCase()
{
    m_certificates = MosquittoBroker::makeCertificates(m_dir.path());
    QVERIFY2(m_certificates.error.isEmpty(), qPrintable(m_certificates.error));
}

void tst_MqttConnection::init()
{
    m_log.start(QStringLiteral("*.debug=false\nconntest.debug=true"));
}

void tst_MqttConnection::cleanup()
{
    m_log.stop();
}

void tst_MqttConnection::checkRefuses_data()
{
    QTest::addColumn<QString>("field");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("error");
    QTest::newRow("empty host") << "host"
                                << ""
                                << "host is empty";
    QTest::newRow("port 0") << "port"
                            << "0"
                            << "port must be from 1 to 65535, not 0";
    QTest::newRow("keepAlive 4") << "keepAlive"
                                 << "4"
                                 << "keepAlive must be 0 or from 5 to 65535 seconds, not 4";
    QTest::newRow("password alone") << "password"
                                    << "secret"
                                    << "password is set but username is empty";
    QTest::newRow("certificate without key")
        << "certFile" << m_certificates.clientCert << "certFile and keyFile must be set together";
    QTest::newRow("missing CA file") << "caFile" << m_dir.filePath("nothing.crt")
                                     << QStringLiteral("can't read %1").arg(m_dir.filePath("nothing.crt"));
}

void tst_MqttConnection::checkRefuses()
{
    QFETCH(QString, field);
    QFETCH(QString, value);
    QFETCH(QString, error);
    MqttConnection::Options options = local(1883);
    options.tls = true;
    if (field == "host")
        options.host = value;
    else if (field == "port")
        options.port = value.toInt();
    else if (field == "keepAlive")
        options.keepAlive = value.toInt();
    else if (field == "password")
        options.password = value;
    else if (field == "certFile")
        options.certFile = value;
    else if (field == "caFile")
        options.caFile = value;
    QString message;
    QVERIFY(!MqttConnection::check(options, &message));
    QCOMPARE(message, error);

    MqttConnection::Options good = local(1883);
    good.tls = true;
    good.caFile = m_certificates.caFile;
    good.certFile = m_certificates.clientCert;
    good.keyFile = m_certificates.clientKey;
    good.keepAlive = 0;
    QVERIFY2(MqttConnection::check(good, &message), qPrintable(message));
}

void tst_MqttConnection::checkTopic_data()
{
    QTest::addColumn<QByteArray>("topic");
    QTest::addColumn<bool>("filter");
    QTest::addColumn<bool>("valid");
    QTest::newRow("plain") << QByteArray("orvix/m1/StateV1") << false << true;
    QTest::newRow("wildcard in a topic") << QByteArray("orvix/+/StateV1") << false << false;
    QTest::newRow("wildcards in a filter") << QByteArray("orvix/+/#") << true << true;
    QTest::newRow("hash not last") << QByteArray("orvix/#/x") << true << false;
    QTest::newRow("empty") << QByteArray() << false << false;
    QTest::newRow("not UTF-8") << QByteArray("orvix/\xff") << false << false;
}

void tst_MqttConnection::checkTopic()
{
    QFETCH(QByteArray, topic);
    QFETCH(bool, filter);
    QFETCH(bool, valid);
    QString error;
    QCOMPARE(MqttConnection::checkTopic(topic, filter, &error), valid);
    QCOMPARE(error.isEmpty(), valid);
}

void tst_MqttConnection::connectsPublishesAndSaysOnlineThenOffline()
{
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MosquittoBroker::Client watcher;
    QVERIFY(watcher.connectTo(broker.port(), "orvix/#"));

    auto connection = std::make_unique<MqttConnection>(lcConnectionTest());
    QSignalSpy connected(connection.get(), &MqttConnection::connected);
    QSignalSpy published(connection.get(), &MqttConnection::published);
    connection->setOptions(local(broker.port()));
    connection->setStatusTopic("orvix/status/orvix-conntest");
    connection->open();
    QTRY_COMPARE_WITH_TIMEOUT(connected.size(), 1, 20000);
    QVERIFY(connection->isConnected());
    QTRY_COMPARE_WITH_TIMEOUT(watcher.payloads("orvix/status/"), QList<QByteArray> { "online" }, 20000);

    int mid = 0;
    bool confirmed = true;
    QString error;
    QCOMPARE(connection->publish("orvix/m1/StateV1", "{}", 1, false, &mid, &confirmed, &error),
        MqttConnection::Publish::Sent);
    QVERIFY(!confirmed);
    QTRY_COMPARE_WITH_TIMEOUT(published.size(), 1, 20000);
    QCOMPARE(published.first(), QVariantList({ mid, 0 }));
    QTRY_COMPARE_WITH_TIMEOUT(watcher.payloads("orvix/m1/"), QList<QByteArray> { "{}" }, 20000);

    QSignalSpy disconnected(connection.get(), &MqttConnection::disconnected);
    connection->close();
    QTRY_COMPARE_WITH_TIMEOUT(watcher.payloads("orvix/status/"), (QList<QByteArray> { "online", "offline" }), 20000);
    QCOMPARE(disconnected.size(), 0);
    QCOMPARE(
        m_log.lines().first(), m_log.debug(QStringLiteral("Connecting to 127.0.0.1:%1, attempt 1").arg(broker.port())));
    QVERIFY(m_log.lines().contains(
        m_log.info(QStringLiteral("Connected to 127.0.0.1:%1 as orvix-conntest").arg(broker.port()))));
    QCOMPARE(m_log.startingWith("WARNING").size(), 0);
}

void tst_MqttConnection::qosZeroIsConfirmedWhileWriting()
{
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MqttConnection connection(lcConnectionTest());
    QSignalSpy connected(&connection, &MqttConnection::connected);
    QSignalSpy published(&connection, &MqttConnection::published);
    connection.setOptions(local(broker.port()));
    connection.open();
    QTRY_COMPARE_WITH_TIMEOUT(connected.size(), 1, 20000);
    int mid = 0;
    bool confirmed = false;
    QString error;
    QCOMPARE(connection.publish("orvix/m1/x", "{}", 0, false, &mid, &confirmed, &error), MqttConnection::Publish::Sent);
    QVERIFY(confirmed);
    QTest::qWait(50);
    QCOMPARE(published.size(), 0);
    QCOMPARE(
        connection.publish("orvix/+/x", "{}", 0, false, &mid, &confirmed, &error), MqttConnection::Publish::Unusable);
    // libmosquitto's own text: its wording changed between releases (2.0.11 and 2.0.21 differ).
    QCOMPARE(error, QString::fromUtf8(mosquitto_strerror(MOSQ_ERR_INVAL)));
}

void tst_MqttConnection::unreachableBrokerIsWarnedOnceThenRetriedWithBackOff()
{
    MosquittoBroker broker;
    MqttConnection connection(lcConnectionTest());
    QSignalSpy connected(&connection, &MqttConnection::connected);
    connection.setOptions(local(broker.port()));
    connection.setReconnectDelays(100, 400);
    connection.open();
    const QString address = QStringLiteral("127.0.0.1:%1").arg(broker.port());
    QTRY_VERIFY_WITH_TIMEOUT(m_log.startingWith("DEBUG conntest: \"Connecting to").size() >= 5, 20000);
    QCOMPARE(m_log.lines().at(0), m_log.debug(QStringLiteral("Connecting to %1, attempt 1").arg(address)));
    QCOMPARE(
        m_log.lines().at(1), m_log.warning(QStringLiteral("Can't reach broker %1: Connection refused").arg(address)));
    QVERIFY(m_log.lines().at(2).startsWith(
        m_log.debug(QStringLiteral("Next attempt to reach %1 in ").arg(address)).chopped(1)));
    QCOMPARE(m_log.lines().at(3), m_log.debug(QStringLiteral("Connecting to %1, attempt 2").arg(address)));
    QCOMPARE(
        m_log.lines().at(4), m_log.debug(QStringLiteral("Can't reach broker %1: Connection refused").arg(address)));
    QCOMPARE(m_log.startingWith("WARNING").size(), 1);
    // The delays double up to the maximum, each up to a quarter shorter than its base.
    QList<int> delays;
    static const QRegularExpression delay(QStringLiteral("Next attempt to reach .* in (\\d+) ms"));
    for (const QString &entry : m_log.lines()) {
        const QRegularExpressionMatch match = delay.match(entry);
        if (match.hasMatch())
            delays.append(match.captured(1).toInt());
    }
    QVERIFY(delays.size() >= 4);
    QVERIFY(delays.at(0) >= 75 && delays.at(0) <= 100);
    QVERIFY(delays.at(1) >= 150 && delays.at(1) <= 200);
    QVERIFY(delays.at(2) >= 300 && delays.at(2) <= 400);
    QVERIFY(delays.at(3) >= 300 && delays.at(3) <= 400);

    QVERIFY2(broker.start(), broker.lastOutput().constData());
    QTRY_COMPARE_WITH_TIMEOUT(connected.size(), 1, 20000);
    QVERIFY(m_log.lines().contains(m_log.info(QStringLiteral("Connected to %1 as orvix-conntest").arg(address))));
}

void tst_MqttConnection::lossIsWarnedWithTheReasonAndReconnects()
{
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MqttConnection connection(lcConnectionTest());
    QSignalSpy connected(&connection, &MqttConnection::connected);
    QSignalSpy disconnected(&connection, &MqttConnection::disconnected);
    connection.setOptions(local(broker.port()));
    connection.setReconnectDelays(100, 400);
    connection.open();
    QTRY_COMPARE_WITH_TIMEOUT(connected.size(), 1, 20000);

    // A second client with the same id takes the session over; mosquitto just closes the first one's socket.
    MqttConnection intruder(lcConnectionTest());
    intruder.setOptions(local(broker.port()));
    intruder.open();
    QTRY_COMPARE_WITH_TIMEOUT(disconnected.size(), 1, 20000);
    const QString address = QStringLiteral("127.0.0.1:%1").arg(broker.port());
    // Older brokers just close the first client's socket; newer ones first tell it why. Either way the warning
    // carries libmosquitto's text for what happened.
    const QString lost = m_log.warning(QStringLiteral("Connection to %1 lost: %2")
                                           .arg(address, QString::fromUtf8(mosquitto_strerror(MOSQ_ERR_CONN_LOST))));
    const QString takenOver
        = m_log.warning(QStringLiteral("Connection to %1 lost: %2")
                            .arg(address, QString::fromUtf8(mosquitto_reason_string(MQTT_RC_SESSION_TAKEN_OVER))));
    QVERIFY2(m_log.lines().contains(lost) || m_log.lines().contains(takenOver), qPrintable(m_log.lines().join('\n')));
    intruder.close();
    QTRY_COMPARE_WITH_TIMEOUT(connected.size(), 2, 20000);

    m_log.clear();
    broker.stop();
    QTRY_COMPARE_WITH_TIMEOUT(disconnected.size(), 2, 20000);
    QVERIFY2(m_log.lines().contains(lost), qPrintable(m_log.lines().join('\n')));
    QVERIFY(!connection.isConnected());
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    QTRY_COMPARE_WITH_TIMEOUT(connected.size(), 3, 20000);
    // Lost while connected: the failed attempts before the broker came back are not warned again.
    QCOMPARE(m_log.startingWith("WARNING").size(), 1);
}

void tst_MqttConnection::brokersReasonForDisconnecting()
{
    // A broker that accepts, then sends DISCONNECT with "server shutting down" (0x8B), as MQTT 5 brokers do.
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    QCOMPARE(::bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    QCOMPARE(::listen(listener, 1), 0);
    QCOMPARE(::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length), 0);
    std::thread broker([listener] {
        const int client = ::accept(listener, nullptr, nullptr);
        ::close(listener);
        char buffer[256];
        if (::read(client, buffer, sizeof(buffer)) > 0) {
            const char connack[] = { 0x20, 0x03, 0x00, 0x00, 0x00 };
            ::write(client, connack, sizeof(connack));
            ::usleep(100000);
            const char disconnect[] = { char(0xE0), 0x02, char(0x8B), 0x00 };
            ::write(client, disconnect, sizeof(disconnect));
            ::usleep(100000);
        }
        ::close(client);
    });
    MqttConnection connection(lcConnectionTest());
    QSignalSpy disconnected(&connection, &MqttConnection::disconnected);
    connection.setOptions(local(ntohs(address.sin_port)));
    connection.open();
    QTRY_COMPARE_WITH_TIMEOUT(disconnected.size(), 1, 20000);
    broker.join();
    QVERIFY2(m_log.lines().contains(m_log.warning(
                 QStringLiteral("Connection to 127.0.0.1:%1 lost: Server shutting down").arg(ntohs(address.sin_port)))),
        qPrintable(m_log.lines().join('\n')));
}

void tst_MqttConnection::subscribesAgainAfterEveryConnect()
{
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MqttConnection connection(lcConnectionTest());
    QSignalSpy connected(&connection, &MqttConnection::connected);
    QSignalSpy received(&connection, &MqttConnection::messageReceived);
    connection.setOptions(local(broker.port()));
    connection.setReconnectDelays(100, 400);
    connection.setSubscriptions({ QStringLiteral("a/#"), QStringLiteral("b/+") }, 1);
    connection.open();
    QTRY_COMPARE_WITH_TIMEOUT(connected.size(), 1, 20000);
    const QString subscribedA = m_log.debug(QStringLiteral("Subscribed to a/# at QoS 1"));
    QTRY_VERIFY_WITH_TIMEOUT(m_log.lines().contains(subscribedA), 20000);
    QVERIFY(m_log.lines().contains(m_log.debug(QStringLiteral("Subscribed to b/+ at QoS 1"))));

    MosquittoBroker::Client publisher;
    QVERIFY(publisher.connectTo(broker.port(), "nothing"));
    QVERIFY(publisher.publish("a/x/y", "first"));
    QVERIFY(publisher.publish("c/x", "elsewhere"));
    QVERIFY(publisher.publish("b/z", "second"));
    QTRY_COMPARE_WITH_TIMEOUT(received.size(), 2, 20000);
    QCOMPARE(received.at(0), QVariantList({ QByteArray("a/x/y"), QByteArray("first") }));
    QCOMPARE(received.at(1), QVariantList({ QByteArray("b/z"), QByteArray("second") }));

    m_log.clear();
    broker.stop();
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    QTRY_COMPARE_WITH_TIMEOUT(connected.size(), 2, 20000);
    QTRY_VERIFY_WITH_TIMEOUT(m_log.lines().contains(subscribedA), 20000);
    MosquittoBroker::Client again;
    QVERIFY(again.connectTo(broker.port(), "nothing"));
    QVERIFY(again.publish("a/after", "third"));
    QTRY_COMPARE_WITH_TIMEOUT(received.size(), 3, 20000);
    QCOMPARE(received.at(2), QVariantList({ QByteArray("a/after"), QByteArray("third") }));
}

void tst_MqttConnection::refusedPasswordIsWarnedWithTheBrokersReason()
{
    MosquittoBroker broker;
    QVERIFY(broker.requirePassword("orvix", "right"));
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MqttConnection connection(lcConnectionTest());
    QSignalSpy connected(&connection, &MqttConnection::connected);
    MqttConnection::Options options = local(broker.port());
    options.username = QStringLiteral("orvix");
    options.password = QStringLiteral("wrong");
    connection.setOptions(options);
    connection.setReconnectDelays(100, 200);
    connection.open();
    // Mosquitto answers a wrong password to an MQTT 5 client with "not authorized".
    const QString refused = m_log.warning(
        QStringLiteral("Broker 127.0.0.1:%1 refused the connection: Not authorized").arg(broker.port()));
    // Every refusal is warned: it needs someone to fix the configuration.
    QTRY_VERIFY2_WITH_TIMEOUT(m_log.startingWith(refused).size() >= 2, qPrintable(m_log.lines().join('\n')), 20000);
    QCOMPARE(connected.size(), 0);

    options.password = QStringLiteral("right");
    MqttConnection right(lcConnectionTest());
    QSignalSpy rightConnected(&right, &MqttConnection::connected);
    options.clientId = QStringLiteral("orvix-right");
    right.setOptions(options);
    right.open();
    QTRY_COMPARE_WITH_TIMEOUT(rightConnected.size(), 1, 20000);
}

void tst_MqttConnection::tlsFailureNamesTheCertificateProblem()
{
    MosquittoBroker broker;
    broker.requireTls(m_certificates);
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MqttConnection connection(lcConnectionTest());
    QSignalSpy connected(&connection, &MqttConnection::connected);
    MqttConnection::Options options = local(broker.port());
    options.tls = true;
    options.caFile = m_certificates.otherCaFile;
    options.certFile = m_certificates.clientCert;
    options.keyFile = m_certificates.clientKey;
    connection.setOptions(options);
    connection.setReconnectDelays(100, 200);
    connection.open();
    const QString unverified = m_log.warning(
        QStringLiteral("Can't reach broker 127.0.0.1:%1: OpenSSL Error[0]: error:0A000086:SSL routines::certificate "
                       "verify failed")
            .arg(broker.port()));
    QTRY_VERIFY2_WITH_TIMEOUT(m_log.lines().contains(unverified), qPrintable(m_log.lines().join('\n')), 20000);

    options.caFile = m_certificates.caFile;
    MqttConnection trusted(lcConnectionTest());
    QSignalSpy trustedConnected(&trusted, &MqttConnection::connected);
    options.clientId = QStringLiteral("orvix-trusted");
    trusted.setOptions(options);
    trusted.open();
    QTRY_COMPARE_WITH_TIMEOUT(trustedConnected.size(), 1, 20000);
    QCOMPARE(connected.size(), 0);
}

void tst_MqttConnection::publishWithoutConnectionSaysSo()
{
    MqttConnection connection(lcConnectionTest());
    int mid = 0;
    bool confirmed = false;
    QString error;
    QCOMPARE(connection.publish("a", "b", 1, false, &mid, &confirmed, &error), MqttConnection::Publish::NotConnected);
}

QTEST_GUILESS_MAIN(tst_MqttConnection)
#include "tst_mqttconnection.moc"
