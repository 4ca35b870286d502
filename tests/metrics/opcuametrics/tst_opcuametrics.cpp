#include "imetricsprovider.h"
#include "opcua.h"
#include "opcuaserver.h"
#include "testsupport.h"

#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace {

QVariantMap connectionTo(quint16 port)
{
    return QVariantMap { { "url", QStringLiteral("opc.tcp://127.0.0.1:%1").arg(port) }, { "timeout", "500" } };
}

} // namespace

/** What the opcua datasource reports to /metrics and /health through IMetricsProvider, per configured connection. */
class tst_OpcUaMetrics : public QObject
{
    Q_OBJECT

private slots:
    void aServerThatIsAwayIsDownAfterItsFirstBackOff();
    void aReachableServerIsUpAndCountsItsReconnects();
};

void tst_OpcUaMetrics::aServerThatIsAwayIsDownAfterItsFirstBackOff()
{
    OpcUaDatasource source;
    source.setBackoff(200, 400);
    QVariantMap shared;
    QVERIFY(source.init(
        QVariantMap { { "opcua", QVariantMap { { "line1", connectionTo(TestSupport::freePort()) } } } }, shared));
    const IMetricsProvider &provider = source;
    QCOMPARE(provider.metricsConnections().size(), 1);
    QCOMPARE(provider.metricsConnections().first().name, QStringLiteral("line1"));
    QVERIFY(!provider.metricsConnections().first().up);
    QVERIFY(provider.metricsConnections().first().starting);
    // The first attempt (500 ms at most) and the first pause (200 ms) are over: the connection is down.
    QTRY_VERIFY_WITH_TIMEOUT(!provider.metricsConnections().first().starting, 3000);
    QVERIFY(!provider.metricsConnections().first().up);
}

void tst_OpcUaMetrics::aReachableServerIsUpAndCountsItsReconnects()
{
    QTemporaryDir pki;
    const quint16 port = TestSupport::freePort();
    const QVariantMap serverConfig { { "opcuaServerTarget",
        QVariantMap { { "port", QString::number(port) }, { "securityPolicies", "None" }, { "pki", pki.path() } } } };
    auto server = std::make_unique<OpcUaServer>();
    QVariantMap shared;
    QVERIFY(server->init(serverConfig, shared));

    OpcUaDatasource source;
    source.setBackoff(200, 400);
    QVERIFY(source.init(QVariantMap { { "opcua", QVariantMap { { "line1", connectionTo(port) } } } }, shared));
    const IMetricsProvider &provider = source;
    QTRY_VERIFY_WITH_TIMEOUT(provider.metricsConnections().first().up, 10000);
    QCOMPARE(provider.metricsConnections().first().reconnects, 0u);

    // The server goes and comes back: down, starting for the first back-off, then up again with one reconnect.
    server.reset();
    QTRY_VERIFY_WITH_TIMEOUT(!provider.metricsConnections().first().up, 10000);
    server = std::make_unique<OpcUaServer>();
    QVERIFY(server->init(serverConfig, shared));
    QTRY_VERIFY_WITH_TIMEOUT(provider.metricsConnections().first().up, 10000);
    QCOMPARE(provider.metricsConnections().first().reconnects, 1u);
}

QTEST_GUILESS_MAIN(tst_OpcUaMetrics)
#include "tst_opcuametrics.moc"
