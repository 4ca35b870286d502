// The MQTT target's throughput against mosquitto brokers of its own on the loopback interface: datasets through
// processData until the spool is empty again, at QoS 0 and QoS 1, against a broker as installed and one that sends
// small packets at once (set_tcp_nodelay), and the spool alone while the broker is away.

#include "mmdatasets.h"
#include "mosquittobroker.h"
#include "mqttout.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <memory>

namespace {

constexpr int Batch = 1000;
const QDateTime When = QDateTime::fromMSecsSinceEpoch(1700000000250, Qt::UTC);

// The broker as installed, and one with set_tcp_nodelay: its acknowledgements are not held back by Nagle's algorithm.
MosquittoBroker *s_brokers[2] = { nullptr, nullptr };

QVariantMap config(quint16 port, const QString &spool, int qos)
{
    return QVariantMap { { "mqttOut",
        QVariantMap { { "host", "127.0.0.1" }, { "port", QString::number(port) }, { "spool", spool },
            { "qos", QString::number(qos) }, { "clientId", QStringLiteral("orvix-bench-%1").arg(qos) } } } };
}

/** Operating data of one machine: what a shop floor sends most, about 200 bytes as JSON. */
QVariant operatingData(int pieces)
{
    GeneralV1 general;
    general.pieces = quint64(pieces);
    general.powerOnHours = 1234.5;
    general.feedOnHours = 812.25;
    general.length = 48211;
    return QVariant::fromValue(general);
}

/** Runs the event loop until the target's spool is empty; false when that takes longer than timeoutMs. */
bool drain(const MqttOut &out, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (out.spooled() > 0) {
        if (clock.elapsed() > timeoutMs)
            return false;
        // Sleeps until the socket or a timer has something; the spool's sync timer wakes it at least every second.
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

void BM_MqttOut(benchmark::State &state)
{
    const int qos = int(state.range(0));
    const MosquittoBroker *broker = s_brokers[state.range(1)];
    QTemporaryDir spool;
    MqttOut out;
    QVariantMap shared;
    if (!out.init(config(broker->port(), spool.path(), qos), shared)) {
        state.SkipWithError("init failed");
        return;
    }
    // The first dataset waits for the connection; the measurement starts with one.
    out.processData(When, QStringLiteral("m1"), QStringLiteral("bench"), operatingData(0));
    if (!drain(out, 20000)) {
        state.SkipWithError("no connection to the broker");
        return;
    }
    int pieces = 0;
    for (auto _ : state) {
        for (int i = 0; i < Batch; ++i)
            out.processData(When, QStringLiteral("m1"), QStringLiteral("bench"), operatingData(++pieces));
        if (!drain(out, 60000)) {
            state.SkipWithError("the broker stopped taking datasets");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * Batch);
}
BENCHMARK(BM_MqttOut)
    ->ArgNames({ "qos", "nodelay" })
    ->ArgsProduct({ { 0, 1 }, { 0, 1 } })
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// While the broker is away every dataset only goes to the spool: what the target costs the event loop then.
void BM_MqttOutSpoolOnly(benchmark::State &state)
{
    QTemporaryDir spool;
    MosquittoBroker absent;
    MqttOut out;
    QVariantMap shared;
    if (!out.init(config(absent.port(), spool.path(), 1), shared)) {
        state.SkipWithError("init failed");
        return;
    }
    int pieces = 0;
    for (auto _ : state) {
        for (int i = 0; i < Batch; ++i)
            out.processData(When, QStringLiteral("m1"), QStringLiteral("bench"), operatingData(++pieces));
    }
    state.SetItemsProcessed(state.iterations() * Batch);
}
BENCHMARK(BM_MqttOutSpoolOnly)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    // The target's own messages (a broker that is away on purpose) would only disturb the table.
    QLoggingCategory::setFilterRules(QStringLiteral("mqttOut.debug=false\nmqttOut.info=false\nmqttOut.warning=false"));
    MosquittoBroker installed;
    MosquittoBroker noDelay;
    noDelay.setTcpNoDelay(true);
    for (MosquittoBroker *broker : { &installed, &noDelay }) {
        if (!broker->start()) {
            fprintf(stderr, "can't start mosquitto: %s\n", broker->lastOutput().constData());
            return 1;
        }
    }
    s_brokers[0] = &installed;
    s_brokers[1] = &noDelay;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
