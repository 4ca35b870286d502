// Each processor of the chain alone, between a stand-in datasource and target connected as Core connects them, on
// its typical input: the mapper on WwState updates, every other processor on what the mapper makes of them.

#include "benchlogging.h"
#include "benchsink.h"
#include "benchsource.h"
#include "datasetlog.h"
#include "datasettape.h"
#include "limit.h"
#include "machinefleet.h"
#include "maintenancedefinitionsv1.h"
#include "opcuatommmapper.h"
#include "processmemory.h"
#include "tapereplay.h"
#include "threadcputimer.h"
#include "unitoverwrite.h"
#include "validator.h"
#include "xmloverwrite.h"

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <memory>
#include <string>

namespace {

const QString SourceName = QStringLiteral("opcua-client");
constexpr int TapeMachines = 100;
constexpr int TapeUpdates = 8;
constexpr int MaintenanceItems = 20;

std::unique_ptr<DatasetTape> s_tape;

const DatasetTape &tape()
{
    if (!s_tape)
        s_tape = std::make_unique<DatasetTape>(TapeMachines, TapeUpdates, SourceName);
    return *s_tape;
}

/** One processor between the stand-in source and sink; init gets the given configuration. */
template <typename Processor> struct Alone
{
    Processor processor;
    BenchSource source;
    BenchSink sink;

    explicit Alone(const QVariantMap &config = {})
    {
        QVariantMap shared;
        processor.init(config, shared);
        source.connectTo(&processor);
        sink.connectFrom(&processor);
    }
};

QVariantMap limitConfig()
{
    // As the shipped configuration sets it.
    QVariantMap limit;
    limit.insert(QStringLiteral("waitTime"), 10000);
    limit.insert(QStringLiteral("keepAliveTime"), 60000);
    return { { QStringLiteral("limit"), limit } };
}

QVariantMap rescaleConfig(int machines)
{
    // Every condition of every machine rescaled: the one condition override an INI file can name, since the
    // condition ids hold slashes.
    QVariantMap everyCondition;
    everyCondition.insert(QStringLiteral("unitText"), QStringLiteral("m"));
    everyCondition.insert(QStringLiteral("factor"), 1.0);
    const QVariantMap condition { { QStringLiteral("*"), everyCondition } };
    const QVariantMap categories { { QStringLiteral("condition"), condition } };
    QVariantMap group;
    for (int i = 0; i < machines; ++i)
        group.insert(QStringLiteral("edgebander-%1").arg(i, 5, 10, QLatin1Char('0')), categories);
    return { { QStringLiteral("unitOverwrite"), group } };
}

void setUpdateCounters(
    benchmark::State &state, qint64 nanoseconds, double datasetsPerUpdate, quint64 out, int warningsBefore)
{
    const double perUpdate = double(nanoseconds) / double(state.iterations());
    state.counters["updates_per_s"] = 1e9 / perUpdate;
    state.counters["ns_per_update"] = perUpdate;
    state.counters["ns_per_dataset"] = perUpdate / datasetsPerUpdate;
    state.counters["out_per_update"] = double(out) / double(state.iterations());
    state.counters["warnings"] = BenchLogging::warnings() - warningsBefore;
}

// The rig of the benchmark that runs now, kept between the runs Google Benchmark makes of it, so that the setup of
// 10000 machines is paid once per benchmark and not once per run.
std::shared_ptr<void> s_kept;
std::string s_keptKey;

template <typename Rig, typename Make> Rig &keep(const std::string &key, Make make)
{
    if (!s_kept || s_keptKey != key) {
        s_kept.reset();
        s_kept = std::shared_ptr<Rig>(make());
        s_keptKey = key;
    }
    return *static_cast<Rig *>(s_kept.get());
}

/** A processor behind the mapper with the tape's updates of its machines; every machine seen and changed once. */
template <typename Processor> struct TapeRig
{
    Alone<Processor> alone;
    TapeReplay replay;

    TapeRig(const QVariantMap &config, int machines, bool steady)
        : alone(config)
        , replay(tape(), machines, steady)
    {
        replay.warmUp(alone.source);
    }
};

template <typename Processor>
void runOnTape(benchmark::State &state, const char *name, bool steady, const QVariantMap &config = {})
{
    const int machines = int(state.range(0));
    const std::string key = std::string(name) + (steady ? "/steady/" : "/changing/") + std::to_string(machines);
    TapeRig<Processor> &rig
        = keep<TapeRig<Processor>>(key, [&] { return std::make_unique<TapeRig<Processor>>(config, machines, steady); });
    const int warningsBefore = BenchLogging::warnings();
    const quint64 sinkBefore = rig.alone.sink.count();
    const ThreadCpuTimer timer;
    for (auto _ : state)
        rig.replay.sendNext(rig.alone.source);
    setUpdateCounters(state, timer.elapsedNanoseconds(), tape().datasetsPerUpdate(),
        rig.alone.sink.count() - sinkBefore, warningsBefore);
}

/** The heap a processor keeps per machine once every machine has been seen and has changed once. */
template <typename Processor> void measureTapeMemory(benchmark::State &state, Alone<Processor> &alone)
{
    const int machines = int(state.range(0));
    TapeReplay replay(tape(), machines, false);
    for (auto _ : state) {
        const qint64 before = ProcessMemory::heapBytes();
        replay.warmUp(alone.source);
        state.counters["heap_bytes_per_machine"] = double(ProcessMemory::heapBytes() - before) / machines;
    }
}

/** The mapper with its machines, every machine seen and changed once. */
struct MapperRig
{
    Alone<OpcUaToMMMapper> alone;
    MachineFleet fleet;
    int next = 0;

    explicit MapperRig(int machines)
        : fleet(machines, SourceName)
    {
        for (int machine = 0; machine < machines; ++machine)
            fleet.send(alone.source, machine, false);
        for (int machine = 0; machine < machines; ++machine)
            fleet.send(alone.source, machine, true);
    }
};

void BM_OpcUaToMMMapper(benchmark::State &state, bool steady)
{
    const int machines = int(state.range(0));
    MapperRig &rig
        = keep<MapperRig>(std::string("mapper") + (steady ? "/steady/" : "/changing/") + std::to_string(machines),
            [&] { return std::make_unique<MapperRig>(machines); });
    const int warningsBefore = BenchLogging::warnings();
    const quint64 sinkBefore = rig.alone.sink.count();
    const ThreadCpuTimer timer;
    for (auto _ : state) {
        rig.fleet.send(rig.alone.source, rig.next, !steady);
        if (++rig.next == machines)
            rig.next = 0;
    }
    // The mapper's input is one dataset per update.
    setUpdateCounters(state, timer.elapsedNanoseconds(), 1.0, rig.alone.sink.count() - sinkBefore, warningsBefore);
}

void BM_UnitOverwrite(benchmark::State &state, bool steady)
{
    runOnTape<UnitOverwrite>(state, "unitoverwrite", steady);
}

void BM_UnitOverwriteRescale(benchmark::State &state, bool steady)
{
    runOnTape<UnitOverwrite>(state, "unitoverwrite-rescale", steady, rescaleConfig(int(state.range(0))));
}

void BM_XmlOverwrite(benchmark::State &state, bool steady)
{
    runOnTape<XmlOverwrite>(state, "xmloverwrite", steady);
}

void BM_XmlOverwriteComments(benchmark::State &state)
{
    // A machine's maintenance definitions, every one of them with a comment in the machine's XML file.
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("edgebander-00000.xml"));
    QByteArray xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<MaintenanceComponents>\n";
    MaintenanceDefinitionsV1 definitions;
    definitions.timestamp = QDateTime::fromMSecsSinceEpoch(Q_INT64_C(1709532000000), Qt::UTC);
    for (int i = 0; i < MaintenanceItems; ++i) {
        xml += "  <MaintenanceComponent ID=\"" + QByteArray::number(i) + "\"><Comment>Check belt "
            + QByteArray::number(i) + " for wear</Comment></MaintenanceComponent>\n";
        MaintenanceDefinitionV1 item;
        item.id = QString::number(i);
        item.timestamp = definitions.timestamp;
        item.unitText = QStringLiteral("h");
        item.value7 = 500;
        item.value8 = 480;
        definitions.items.append(item);
    }
    xml += "</MaintenanceComponents>\n";
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(xml) != xml.size()) {
        state.SkipWithError("cannot write the XML file");
        return;
    }
    file.close();

    const QVariantMap machine { { QStringLiteral("xml"), path } };
    const QVariantMap group { { QStringLiteral("edgebander-00000"), machine } };
    Alone<XmlOverwrite> alone({ { QStringLiteral("xmlOverwrite"), group } });
    const QString machineName = QStringLiteral("edgebander-00000");
    const QVariant data = QVariant::fromValue(definitions);
    const int warningsBefore = BenchLogging::warnings();
    const quint64 sinkBefore = alone.sink.count();
    const ThreadCpuTimer timer;
    for (auto _ : state)
        emit alone.source.dataReceived(definitions.timestamp, machineName, SourceName, data);
    setUpdateCounters(state, timer.elapsedNanoseconds(), 1.0, alone.sink.count() - sinkBefore, warningsBefore);
}

void BM_Validator(benchmark::State &state, bool steady)
{
    runOnTape<Validator>(state, "validator", steady);
}

void BM_Limit(benchmark::State &state, bool steady)
{
    runOnTape<Limit>(state, "limit", steady, limitConfig());
}

void BM_DatasetLog(benchmark::State &state, bool steady)
{
    runOnTape<DatasetLog>(state, "datasetlog", steady);
}

void BM_MemoryOpcUaToMMMapper(benchmark::State &state)
{
    const int machines = int(state.range(0));
    Alone<OpcUaToMMMapper> alone;
    MachineFleet fleet(machines, SourceName);
    for (auto _ : state) {
        const qint64 before = ProcessMemory::heapBytes();
        for (int machine = 0; machine < machines; ++machine)
            fleet.send(alone.source, machine, false);
        for (int machine = 0; machine < machines; ++machine)
            fleet.send(alone.source, machine, true);
        state.counters["heap_bytes_per_machine"] = double(ProcessMemory::heapBytes() - before) / machines;
    }
}

void BM_MemoryUnitOverwrite(benchmark::State &state)
{
    Alone<UnitOverwrite> alone;
    measureTapeMemory(state, alone);
}

void BM_MemoryXmlOverwrite(benchmark::State &state)
{
    Alone<XmlOverwrite> alone;
    measureTapeMemory(state, alone);
}

void BM_MemoryValidator(benchmark::State &state)
{
    Alone<Validator> alone;
    measureTapeMemory(state, alone);
}

void BM_MemoryLimit(benchmark::State &state)
{
    Alone<Limit> alone(limitConfig());
    measureTapeMemory(state, alone);
}

void BM_MemoryDatasetLog(benchmark::State &state)
{
    Alone<DatasetLog> alone;
    measureTapeMemory(state, alone);
}

/** A memory figure is taken once: a repetition would find the memory of the one before free and grow less. */
void onceForTenThousandMachines(benchmark::internal::Benchmark *benchmark)
{
    benchmark->ArgName("machines")->Arg(10000)->Iterations(1)->Repetitions(1)->Unit(benchmark::kMillisecond);
}

} // namespace

BENCHMARK(BM_MemoryOpcUaToMMMapper)->Apply(onceForTenThousandMachines);
BENCHMARK(BM_MemoryUnitOverwrite)->Apply(onceForTenThousandMachines);
BENCHMARK(BM_MemoryXmlOverwrite)->Apply(onceForTenThousandMachines);
BENCHMARK(BM_MemoryValidator)->Apply(onceForTenThousandMachines);
BENCHMARK(BM_MemoryLimit)->Apply(onceForTenThousandMachines);
BENCHMARK(BM_MemoryDatasetLog)->Apply(onceForTenThousandMachines);
BENCHMARK_CAPTURE(BM_OpcUaToMMMapper, changing, false)->ArgName("machines")->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK_CAPTURE(BM_OpcUaToMMMapper, steady, true)->ArgName("machines")->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK_CAPTURE(BM_UnitOverwrite, changing, false)->ArgName("machines")->Arg(100);
BENCHMARK_CAPTURE(BM_UnitOverwrite, steady, true)->ArgName("machines")->Arg(100);
BENCHMARK_CAPTURE(BM_UnitOverwriteRescale, changing, false)->ArgName("machines")->Arg(100);
BENCHMARK_CAPTURE(BM_XmlOverwrite, changing, false)->ArgName("machines")->Arg(100);
BENCHMARK_CAPTURE(BM_XmlOverwrite, steady, true)->ArgName("machines")->Arg(100);
BENCHMARK(BM_XmlOverwriteComments);
BENCHMARK_CAPTURE(BM_Validator, changing, false)->ArgName("machines")->Arg(100);
BENCHMARK_CAPTURE(BM_Validator, steady, true)->ArgName("machines")->Arg(100);
BENCHMARK_CAPTURE(BM_Limit, changing, false)->ArgName("machines")->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK_CAPTURE(BM_Limit, steady, true)->ArgName("machines")->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK_CAPTURE(BM_DatasetLog, changing, false)->ArgName("machines")->Arg(100);
BENCHMARK_CAPTURE(BM_DatasetLog, steady, true)->ArgName("machines")->Arg(100);

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    QCoreApplication app(argc, argv);
    BenchLogging::filterDebugAndInfo();
    BenchLogging::silence();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    s_kept.reset();
    s_tape.reset();
    return 0;
}
