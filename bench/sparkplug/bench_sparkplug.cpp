// The sparkplug target beside mqttOut on the same input. What the service's processor chain makes of 1,000
// machines that update once a second is recorded once; each target then takes it, one second of the shop floor per
// iteration, and publishes it to a mosquitto of its own until its spool is empty again. The counters give the CPU
// time of the event-loop thread per dataset and per message published (for sparkplug: per DBIRTH, DDATA or DDEATH),
// the share of one core that 1,000 machines at 1 Hz take, the heap the target holds per machine and the resident set.

#include "chainrig.h"
#include "core.h"
#include "machinefleet.h"
#include "mmdatasets.h"
#include "mosquittobroker.h"
#include "mqttout.h"
#include "processmemory.h"
#include "sparkplug.h"
#include "threadcputimer.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QTemporaryDir>
#include <QThread>

#include <benchmark/benchmark.h>

#include <memory>

namespace {

constexpr int Machines = 1000;
// Seconds of the floor on the tape: the first with every machine's definitions, then changing updates.
constexpr int Seconds = 6;

struct Dataset
{
    QDateTime timestamp;
    QString machine;
    QString source;
    QVariant data;
};

/** Records what leaves the chain, one second of the floor at a time. */
class Recorder : public QObject
{
    Q_OBJECT
public:
    QVector<QVector<Dataset>> seconds;

public slots:
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data)
    {
        seconds.last().append(Dataset { timestamp, machine, source, data });
    }
};

const QVector<QVector<Dataset>> &tape()
{
    static const QVector<QVector<Dataset>> recorded = [] {
        // Operating data is held by Limit for its wait time: a short one lets each second's go out with it.
        ChainRig rig({}, { { QStringLiteral("limit/waitTime"), 1 } });
        MachineFleet fleet(Machines, QStringLiteral("bench"));
        Recorder recorder;
        QObject *last = rig.processorObject(rig.core().processors().size() - 1);
        QObject::connect(last, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)), &recorder,
            SLOT(processData(QDateTime, QString, QString, QVariant)));
        for (int second = 0; second < Seconds; ++second) {
            recorder.seconds.append(QVector<Dataset>());
            for (int machine = 0; machine < Machines; ++machine)
                fleet.send(rig.source(), machine, second > 0);
            QThread::msleep(5);
            QCoreApplication::processEvents();
        }
        return recorder.seconds;
    }();
    return recorded;
}

QVariantMap config(const char *group, quint16 port, const QString &folder)
{
    return QVariantMap { { QString::fromLatin1(group),
        QVariantMap { { "host", "127.0.0.1" }, { "port", QString::number(port) }, { "qos", "0" },
            { "spool", QString(folder + QStringLiteral("/spool")) },
            { "state", QString(folder + QStringLiteral("/state")) }, { "edgeNodeId", "bench" } } } };
}

template <typename Target> bool drain(const Target &target, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (target.spooled() > 0) {
        if (clock.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

template <typename Target> void replay(Target &target, const QVector<Dataset> &second)
{
    for (const Dataset &dataset : second)
        target.processData(dataset.timestamp, dataset.machine, dataset.source, dataset.data);
}

/** Messages the broker passes on per second of the floor, from the third second on, counted by a client of its own. */
template <typename Target> double messagesPerSecond(Target &target, quint16 port)
{
    // What the setup published is still on its way through the broker for a moment.
    QThread::msleep(500);
    MosquittoBroker::Client client;
    if (!client.connectTo(port, "#"))
        return 0;
    QElapsedTimer wait;
    wait.start();
    while (client.subscriptions() == 0 && wait.elapsed() < 5000)
        QThread::msleep(1);
    for (int second = 2; second < Seconds; ++second)
        replay(target, tape().at(second));
    drain(target, 60000);
    // Retained messages of earlier seconds come with the subscription; only the new ones count.
    const auto fresh = [&client] {
        int count = 0;
        for (const MosquittoBroker::Message &message : client.messages())
            count += message.retain ? 0 : 1;
        return count;
    };
    int count = -1;
    while (count != fresh()) {
        count = fresh();
        QThread::msleep(100);
    }
    return double(count) / (Seconds - 2);
}

template <typename Target> void runTarget(benchmark::State &state, const char *group)
{
    const QVector<QVector<Dataset>> &seconds = tape();
    MosquittoBroker broker;
    if (!broker.start()) {
        state.SkipWithError("can't start mosquitto");
        return;
    }
    QTemporaryDir folder;
    const qint64 heapBefore = ProcessMemory::heapBytes();
    Target target;
    QVariantMap shared;
    if (!target.init(config(group, broker.port(), folder.path()), shared)) {
        state.SkipWithError("init failed");
        return;
    }
    // Every machine seen, with its definitions, and one changing second, before anything is measured.
    replay(target, seconds.at(0));
    replay(target, seconds.at(1));
    if (!drain(target, 60000)) {
        state.SkipWithError("no connection to the broker");
        return;
    }
    const double heap = double(ProcessMemory::heapBytes() - heapBefore);
    const double messages = messagesPerSecond(target, broker.port());
    int datasets = 0;
    int next = 2;
    const ThreadCpuTimer timer;
    for (auto _ : state) {
        const QVector<Dataset> &second = seconds.at(next);
        replay(target, second);
        datasets += second.size();
        if (!drain(target, 60000)) {
            state.SkipWithError("the broker stopped taking messages");
            return;
        }
        next = next + 1 < seconds.size() ? next + 1 : 2;
    }
    const double nanoseconds = double(timer.elapsedNanoseconds());
    const double perSecond = nanoseconds / double(state.iterations());
    state.counters["datasets_per_s"] = double(datasets) / double(state.iterations());
    state.counters["messages_per_s"] = messages;
    state.counters["ns_per_dataset"] = nanoseconds / datasets;
    state.counters["ns_per_message"] = messages > 0 ? perSecond / messages : 0;
    state.counters["cpu_percent_1Hz"] = perSecond / 1e7;
    state.counters["heap_KiB_per_machine"] = heap / 1024.0 / Machines;
    state.counters["rss_MiB"] = double(ProcessMemory::residentBytes()) / (1024.0 * 1024.0);
}

void BM_Sparkplug(benchmark::State &state)
{
    runTarget<Sparkplug>(state, "sparkplug");
}
BENCHMARK(BM_Sparkplug)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_MqttOut(benchmark::State &state)
{
    runTarget<MqttOut>(state, "mqttOut");
}
BENCHMARK(BM_MqttOut)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false\n*.info=false"));
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

#include "bench_sparkplug.moc"
