#include "imetricsprovider.h"
#include "mosquittobroker.h"
#include "mqttin.h"
#include "mqttout.h"
#include "statev1.h"

#include <QTemporaryDir>
#include <QtTest>

namespace {

QVariantMap outConfig(quint16 port, const QString &spool)
{
    return QVariantMap { { "mqttOut",
        QVariantMap { { "host", "127.0.0.1" }, { "port", QString::number(port) }, { "spool", spool },
            { "clientId", "orvix-test-out" } } } };
}

double valueOf(const IMetricsProvider &provider, const QByteArray &name)
{
    for (const IMetricsProvider::Value &value : provider.metricsValues()) {
        if (value.name == name)
            return value.value;
    }
    return -1;
}

void send(MqttOut &out, int state)
{
    out.processData(QDateTime::currentDateTimeUtc(), QStringLiteral("m1"), QStringLiteral("src"),
        QVariant::fromValue(StateV1 { state }));
}

} // namespace

/** What the MQTT plugins report to /metrics and /health through IMetricsProvider. */
class tst_MqttMetrics : public QObject
{
    Q_OBJECT

private slots:
    void mqttOutReportsItsSpoolAndConnection();
    void aLostConnectionIsStartingForItsFirstBackOffOnly();
    void mqttOutCountsWhatItDrops();
    void mqttInReportsItsConnection();
    void uninitialisedPluginsReportNothing();

private:
    QTemporaryDir m_dir;
};

void tst_MqttMetrics::mqttOutReportsItsSpoolAndConnection()
{
    MosquittoBroker broker;
    MqttOut out;
    out.setReconnectDelays(200, 400);
    QVariantMap shared;
    QVERIFY(out.init(outConfig(broker.port(), m_dir.filePath(QStringLiteral("spool1"))), shared));
    const IMetricsProvider &provider = out;
    QCOMPARE(provider.metricsConnections().size(), 1);
    QCOMPARE(provider.metricsConnections().first().name, QStringLiteral("127.0.0.1:%1").arg(broker.port()));
    QVERIFY(!provider.metricsConnections().first().up);
    QVERIFY(provider.metricsConnections().first().starting);

    // With the broker away the datasets wait in the spool, and the oldest one ages.
    send(out, StateV1::Producing);
    QTest::qWait(1100);
    send(out, StateV1::Standby);
    QCOMPARE(valueOf(provider, "orvix_mqttout_spool_records"), 2.0);
    QVERIFY(valueOf(provider, "orvix_mqttout_spool_bytes") > 0);
    QVERIFY(valueOf(provider, "orvix_mqttout_spool_oldest_age_seconds") >= 1.0);
    QCOMPARE(valueOf(provider, "orvix_mqttout_dropped_total"), 0.0);
    // Several attempts failed: the connection is down, not starting.
    QTRY_VERIFY(!provider.metricsConnections().first().starting);

    QVERIFY2(broker.start(), broker.lastOutput().constData());
    QTRY_VERIFY_WITH_TIMEOUT(provider.metricsConnections().first().up, 10000);
    QTRY_COMPARE(valueOf(provider, "orvix_mqttout_spool_records"), 0.0);
    QCOMPARE(valueOf(provider, "orvix_mqttout_spool_oldest_age_seconds"), 0.0);
    QCOMPARE(provider.metricsConnections().first().reconnects, 0u);
    const QList<IMetricsProvider::Value> values = provider.metricsValues();
    for (const IMetricsProvider::Value &value : values) {
        QVERIFY(value.name.startsWith("orvix_mqttout_"));
        QCOMPARE(value.counter, value.name.endsWith("_total"));
    }
}

void tst_MqttMetrics::aLostConnectionIsStartingForItsFirstBackOffOnly()
{
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MqttOut out;
    out.setReconnectDelays(300, 300);
    QVariantMap shared;
    QVERIFY(out.init(outConfig(broker.port(), m_dir.filePath(QStringLiteral("spool2"))), shared));
    const IMetricsProvider &provider = out;
    QTRY_VERIFY_WITH_TIMEOUT(provider.metricsConnections().first().up, 10000);

    broker.stop();
    QTRY_VERIFY(!provider.metricsConnections().first().up);
    QVERIFY(provider.metricsConnections().first().starting);
    QTRY_VERIFY_WITH_TIMEOUT(!provider.metricsConnections().first().starting, 5000);

    QVERIFY2(broker.start(), broker.lastOutput().constData());
    QTRY_VERIFY_WITH_TIMEOUT(provider.metricsConnections().first().up, 10000);
    QCOMPARE(provider.metricsConnections().first().reconnects, 1u);
}

void tst_MqttMetrics::mqttOutCountsWhatItDrops()
{
    MosquittoBroker broker;
    MqttOut out;
    QVariantMap shared;
    QVERIFY(out.init(outConfig(broker.port(), m_dir.filePath(QStringLiteral("spool3"))), shared));
    // A time stamp the JSON form has no place for is skipped with a warning, and counted.
    out.processData(QDateTime(QDate(10000, 1, 1), QTime(0, 0), Qt::UTC), QStringLiteral("m1"), QStringLiteral("src"),
        QVariant::fromValue(StateV1 { StateV1::Producing }));
    QCOMPARE(valueOf(out, "orvix_mqttout_dropped_total"), 1.0);
    QCOMPARE(valueOf(out, "orvix_mqttout_spool_records"), 0.0);
}

void tst_MqttMetrics::mqttInReportsItsConnection()
{
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    MqttIn in;
    QVariantMap shared;
    QVERIFY(in.init(QVariantMap { { "mqttIn",
                        QVariantMap { { "host", "127.0.0.1" }, { "port", QString::number(broker.port()) },
                            { "topics", "plant/#" }, { "clientId", "orvix-test-in" } } } },
        shared));
    const IMetricsProvider &provider = in;
    QTRY_VERIFY_WITH_TIMEOUT(provider.metricsConnections().first().up, 10000);
    QCOMPARE(provider.metricsConnections().first().name, QStringLiteral("127.0.0.1:%1").arg(broker.port()));
    QVERIFY(provider.metricsValues().isEmpty());
}

void tst_MqttMetrics::uninitialisedPluginsReportNothing()
{
    // A plugin disabled in the configuration has no connection that could be down.
    MqttIn in;
    MqttOut out;
    QVERIFY(static_cast<IMetricsProvider &>(in).metricsConnections().isEmpty());
    QVERIFY(static_cast<IMetricsProvider &>(out).metricsConnections().isEmpty());
    QVERIFY(static_cast<IMetricsProvider &>(out).metricsValues().isEmpty());
}

QTEST_GUILESS_MAIN(tst_MqttMetrics)
#include "tst_mqttmetrics.moc"
