#include "imetricsprovider.h"
#include "mosquittobroker.h"
#include "sparkplug.h"
#include "statev1.h"

#include <QTemporaryDir>
#include <QtTest>

namespace {

QVariantMap config(quint16 port, const QString &folder, const QString &spoolMaxBytes = QStringLiteral("67108864"))
{
    return QVariantMap { { "sparkplug",
        QVariantMap { { "host", "127.0.0.1" }, { "port", QString::number(port) }, { "groupId", "plant" },
            { "edgeNodeId", "orvix1" }, { "spool", QString(folder + "/spool") },
            { "state", QString(folder + "/state") }, { "spoolMaxBytes", spoolMaxBytes } } } };
}

double valueOf(const IMetricsProvider &provider, const QByteArray &name)
{
    for (const IMetricsProvider::Value &value : provider.metricsValues()) {
        if (value.name == name)
            return value.value;
    }
    return -1;
}

void send(Sparkplug &node, const QString &machine, int state)
{
    node.processData(
        QDateTime::currentDateTimeUtc(), machine, QStringLiteral("src"), QVariant::fromValue(StateV1 { state }));
}

} // namespace

/** What the sparkplug target reports to /metrics and /health through IMetricsProvider. */
class tst_SparkplugMetrics : public QObject
{
    Q_OBJECT

private slots:
    void reportsItsSpoolConnectionAndBirths();
    void aLostConnectionCountsAsReconnect();
    void countsWhatAFullSpoolDrops();
    void uninitialisedTargetReportsNothing();

private:
    QTemporaryDir m_dir;
};

void tst_SparkplugMetrics::reportsItsSpoolConnectionAndBirths()
{
    MosquittoBroker broker;
    Sparkplug node;
    node.setReconnectDelays(200, 400);
    QVariantMap shared;
    QVERIFY(node.init(config(broker.port(), m_dir.filePath(QStringLiteral("node1"))), shared));
    const IMetricsProvider &provider = node;
    QCOMPARE(provider.metricsConnections().size(), 1);
    QCOMPARE(provider.metricsConnections().first().name, QStringLiteral("127.0.0.1:%1").arg(broker.port()));
    QVERIFY(!provider.metricsConnections().first().up);
    QVERIFY(provider.metricsConnections().first().starting);

    // With the broker away the device's birth and data wait in the spool, and the oldest message ages.
    send(node, QStringLiteral("m1"), StateV1::Producing);
    QTest::qWait(1100);
    send(node, QStringLiteral("m1"), StateV1::Standby);
    QCOMPARE(valueOf(provider, "orvix_sparkplug_spool_records"), 2.0);
    QVERIFY(valueOf(provider, "orvix_sparkplug_spool_bytes") > 0);
    QVERIFY(valueOf(provider, "orvix_sparkplug_spool_oldest_age_seconds") >= 1.0);
    QCOMPARE(valueOf(provider, "orvix_sparkplug_dropped_total"), 0.0);
    QCOMPARE(valueOf(provider, "orvix_sparkplug_messages_sent_total"), 0.0);
    QCOMPARE(valueOf(provider, "orvix_sparkplug_born"), 0.0);
    QCOMPARE(valueOf(provider, "orvix_sparkplug_devices"), 1.0);
    QTRY_VERIFY(!provider.metricsConnections().first().starting);

    // Born: NBIRTH and the device's DBIRTH, then the waiting DDATA as history; the old DBIRTH is replaced, not sent.
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    QTRY_VERIFY_WITH_TIMEOUT(provider.metricsConnections().first().up, 10000);
    QTRY_COMPARE(valueOf(provider, "orvix_sparkplug_born"), 1.0);
    QTRY_COMPARE(valueOf(provider, "orvix_sparkplug_spool_records"), 0.0);
    QCOMPARE(valueOf(provider, "orvix_sparkplug_spool_oldest_age_seconds"), 0.0);
    QCOMPARE(valueOf(provider, "orvix_sparkplug_messages_sent_total"), 3.0);

    send(node, QStringLiteral("m1"), StateV1::Producing);
    QTRY_COMPARE(valueOf(provider, "orvix_sparkplug_messages_sent_total"), 4.0);
    QCOMPARE(provider.metricsConnections().first().reconnects, 0u);
    const QList<IMetricsProvider::Value> values = provider.metricsValues();
    for (const IMetricsProvider::Value &value : values) {
        QVERIFY(value.name.startsWith("orvix_sparkplug_"));
        QCOMPARE(value.counter, value.name.endsWith("_total"));
    }
}

void tst_SparkplugMetrics::aLostConnectionCountsAsReconnect()
{
    MosquittoBroker broker;
    QVERIFY2(broker.start(), broker.lastOutput().constData());
    Sparkplug node;
    node.setReconnectDelays(300, 300);
    QVariantMap shared;
    QVERIFY(node.init(config(broker.port(), m_dir.filePath(QStringLiteral("node2"))), shared));
    const IMetricsProvider &provider = node;
    QTRY_VERIFY_WITH_TIMEOUT(provider.metricsConnections().first().up, 10000);
    QTRY_COMPARE(valueOf(provider, "orvix_sparkplug_born"), 1.0);

    broker.stop();
    QTRY_VERIFY(!provider.metricsConnections().first().up);
    QCOMPARE(valueOf(provider, "orvix_sparkplug_born"), 0.0);
    QVERIFY(provider.metricsConnections().first().starting);
    QTRY_VERIFY_WITH_TIMEOUT(!provider.metricsConnections().first().starting, 5000);

    QVERIFY2(broker.start(), broker.lastOutput().constData());
    QTRY_VERIFY_WITH_TIMEOUT(provider.metricsConnections().first().up, 10000);
    QCOMPARE(provider.metricsConnections().first().reconnects, 1u);
}

void tst_SparkplugMetrics::countsWhatAFullSpoolDrops()
{
    MosquittoBroker broker;
    Sparkplug node;
    QVariantMap shared;
    QVERIFY(node.init(config(broker.port(), m_dir.filePath(QStringLiteral("node3")), QStringLiteral("65536")), shared));
    // With the broker away, a machine changing its state fills the smallest spool and pushes the oldest out.
    for (int i = 0; i < 4000; ++i)
        send(node, QStringLiteral("m1"), i % 2 ? StateV1::Producing : StateV1::Standby);
    QVERIFY(valueOf(node, "orvix_sparkplug_dropped_total") > 0);
    QCOMPARE(valueOf(node, "orvix_sparkplug_dropped_total") + valueOf(node, "orvix_sparkplug_spool_records"), 4000.0);
    QVERIFY(valueOf(node, "orvix_sparkplug_spool_bytes") <= 65536);
}

void tst_SparkplugMetrics::uninitialisedTargetReportsNothing()
{
    // A target disabled in the configuration has no connection that could be down.
    Sparkplug node;
    QVERIFY(static_cast<IMetricsProvider &>(node).metricsConnections().isEmpty());
    QVERIFY(static_cast<IMetricsProvider &>(node).metricsValues().isEmpty());
}

QTEST_GUILESS_MAIN(tst_SparkplugMetrics)
#include "tst_sparkplugmetrics.moc"
