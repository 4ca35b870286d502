// The processor chain as a whole: the floor of six processors that only re-emit, the service's own chain fed with
// the WwState updates of 1, 100 and 10000 machines, and the memory each machine costs the chain.

#include "benchlogging.h"
#include "chainrig.h"
#include "constrefrelay.h"
#include "core.h"
#include "datasettape.h"
#include "machinefleet.h"
#include "processmemory.h"
#include "relayprocessor.h"
#include "threadcputimer.h"

#include <QCoreApplication>

#include <benchmark/benchmark.h>

#include <memory>

namespace {

const QString SourceName = QStringLiteral("opcua-client");
constexpr int FloorRounds = 3;
constexpr int FloorDatasetsPerRound = 30000;

template <typename Relay> QList<IProcessor *> relays()
{
    QList<IProcessor *> chain;
    for (unsigned int order = 1; order <= 6; ++order)
        chain.append(new Relay(order));
    return chain;
}

/** The floor rig, fed with what the mapper makes of one machine's update: StateV1, GeneralV1, ConditionDatasV2. */
template <typename Relay> struct Floor
{
    ChainRig rig { relays<Relay>() };
    DatasetTape tape { 1, 1, SourceName };
    int next = 0;

    void sendOne()
    {
        const DatasetTape::Datasets &datasets = tape.update(0, 0);
        const DatasetTape::Dataset &dataset = datasets.at(next);
        emit rig.source().dataReceived(dataset.timestamp, dataset.machine, dataset.source, dataset.data);
        if (++next == datasets.size())
            next = 0;
    }
};

// The floor's time per dataset as BM_Floor measured it last; until it has run, measured here on first use.
double s_floorNanoseconds = 0;

double floorNanosecondsPerDataset()
{
    if (s_floorNanoseconds > 0)
        return s_floorNanoseconds;
    Floor<RelayProcessor> floor;
    double best = 0;
    for (int round = 0; round < FloorRounds; ++round) {
        const ThreadCpuTimer timer;
        for (int i = 0; i < FloorDatasetsPerRound; ++i)
            floor.sendOne();
        const double nanoseconds = double(timer.elapsedNanoseconds()) / FloorDatasetsPerRound;
        if (round == 0 || nanoseconds < best)
            best = nanoseconds;
    }
    s_floorNanoseconds = best;
    return best;
}

/** The service's chain with its fleet, kept between the runs Google Benchmark makes of one benchmark. */
struct ChainRun
{
    int machines = 0;
    bool steady = false;
    bool rescaled = false;
    std::unique_ptr<ChainRig> rig;
    std::unique_ptr<MachineFleet> fleet;
    double datasetsPerUpdate = 0;
    int next = 0;
};

std::unique_ptr<ChainRun> s_chainRun;

/** A unit override of every condition of every machine, factor 1: the values leave UnitOverwrite as text. */
QVariantMap rescaleSettings(int machines)
{
    QVariantMap settings;
    for (int i = 0; i < machines; ++i) {
        const QString group
            = QStringLiteral("unitOverwrite/edgebander-%1/condition/*/").arg(i, 5, 10, QLatin1Char('0'));
        settings.insert(group + QStringLiteral("unitText"), QStringLiteral("m"));
        settings.insert(group + QStringLiteral("factor"), 1.0);
    }
    return settings;
}

ChainRun &chainRun(int machines, bool steady, bool rescaled)
{
    if (s_chainRun && s_chainRun->machines == machines && s_chainRun->steady == steady
        && s_chainRun->rescaled == rescaled)
        return *s_chainRun;
    s_chainRun.reset();
    auto run = std::make_unique<ChainRun>();
    run->machines = machines;
    run->steady = steady;
    run->rescaled = rescaled;
    run->rig = std::make_unique<ChainRig>(QList<IProcessor *>(), rescaled ? rescaleSettings(machines) : QVariantMap());
    run->fleet = std::make_unique<MachineFleet>(machines, SourceName);
    BenchSource &source = run->rig->source();

    // Every machine has been seen, and has changed once, before anything is measured: the definitions have gone
    // out and every per-machine table holds its entries.
    for (int machine = 0; machine < machines; ++machine)
        run->fleet->send(source, machine, false);
    for (int machine = 0; machine < machines; ++machine)
        run->fleet->send(source, machine, true);

    // One more round with a counter on the mapper's output tells how many datasets an update becomes.
    {
        BenchSink mapperOutput;
        mapperOutput.connectFrom(run->rig->processorObject(0));
        for (int machine = 0; machine < machines; ++machine)
            run->fleet->send(source, machine, !steady);
        run->datasetsPerUpdate = double(mapperOutput.count()) / machines;
    }
    s_chainRun = std::move(run);
    return *s_chainRun;
}

template <typename Relay> void runFloor(benchmark::State &state, Floor<Relay> &floor)
{
    const int warningsBefore = BenchLogging::warnings();
    const quint64 sinkBefore = floor.rig.sink().count();
    const ThreadCpuTimer timer;
    for (auto _ : state)
        floor.sendOne();
    const double nanoseconds = double(timer.elapsedNanoseconds()) / double(state.iterations());
    state.counters["ns_per_dataset"] = nanoseconds;
    state.counters["datasets_per_s"] = 1e9 / nanoseconds;
    state.counters["out_per_dataset"] = double(floor.rig.sink().count() - sinkBefore) / double(state.iterations());
    state.counters["warnings"] = BenchLogging::warnings() - warningsBefore;
}

void BM_Floor(benchmark::State &state)
{
    Floor<RelayProcessor> floor;
    runFloor(state, floor);
    s_floorNanoseconds = state.counters["ns_per_dataset"];
}

void BM_FloorConstRef(benchmark::State &state)
{
    // Not the service's floor: what it would be if processors took their arguments as const references.
    Floor<ConstRefRelay> floor;
    runFloor(state, floor);
}

void runChain(benchmark::State &state, bool steady, bool rescaled)
{
    const int machines = int(state.range(0));
    const double floorNanoseconds = floorNanosecondsPerDataset();
    ChainRun &run = chainRun(machines, steady, rescaled);
    BenchSource &source = run.rig->source();
    const int warningsBefore = BenchLogging::warnings();
    const quint64 sinkBefore = run.rig->sink().count();

    const ThreadCpuTimer timer;
    for (auto _ : state) {
        run.fleet->send(source, run.next, !steady);
        if (++run.next == machines)
            run.next = 0;
    }
    const double perUpdate = double(timer.elapsedNanoseconds()) / double(state.iterations());

    state.counters["updates_per_s"] = 1e9 / perUpdate;
    state.counters["ns_per_update"] = perUpdate;
    state.counters["datasets_per_update"] = run.datasetsPerUpdate;
    state.counters["ns_per_dataset"] = perUpdate / run.datasetsPerUpdate;
    state.counters["floor_ns_per_dataset"] = floorNanoseconds;
    state.counters["overhead_ratio"] = perUpdate / (run.datasetsPerUpdate * floorNanoseconds);
    state.counters["out_per_update"] = double(run.rig->sink().count() - sinkBefore) / double(state.iterations());
    state.counters["warnings"] = BenchLogging::warnings() - warningsBefore;
}

void BM_Chain(benchmark::State &state, bool steady)
{
    runChain(state, steady, false);
}

void BM_ChainRescaled(benchmark::State &state, bool steady)
{
    // Not the typical configuration: every machine with a unit override of all its conditions.
    runChain(state, steady, true);
}

void BM_Feed(benchmark::State &state)
{
    // What the stand-in datasource itself costs per update (the WwState copied into a new variant, its time stamp),
    // with nothing connected: it is part of every chain figure.
    MachineFleet fleet(int(state.range(0)), SourceName);
    BenchSource source;
    int next = 0;
    for (auto _ : state) {
        fleet.send(source, next, true);
        if (++next == fleet.size())
            next = 0;
    }
    state.counters["changed_items_per_update"] = fleet.changedItemsPerUpdate();
}

void BM_MemoryPerMachine(benchmark::State &state)
{
    const int machines = int(state.range(0));
    for (auto _ : state) {
        ChainRig rig;
        // One machine more than counted: the first one brings in what the chain allocates once, not per machine.
        MachineFleet fleet(machines + 1, SourceName);
        fleet.send(rig.source(), machines, false);
        fleet.send(rig.source(), machines, true);

        const qint64 residentBefore = ProcessMemory::residentBytes();
        const qint64 heapBefore = ProcessMemory::heapBytes();
        for (int machine = 0; machine < machines; ++machine)
            fleet.send(rig.source(), machine, false);
        for (int machine = 0; machine < machines; ++machine)
            fleet.send(rig.source(), machine, true);
        const qint64 residentAfter = ProcessMemory::residentBytes();
        const qint64 heapAfter = ProcessMemory::heapBytes();

        state.counters["bytes_per_machine"] = double(residentAfter - residentBefore) / machines;
        state.counters["heap_bytes_per_machine"] = double(heapAfter - heapBefore) / machines;
        state.counters["resident_MiB"] = double(residentAfter) / (1024.0 * 1024.0);
    }
}

/** A memory figure is taken once: a repetition would find the memory of the one before free and grow less. */
void onceForTenThousandMachines(benchmark::internal::Benchmark *benchmark)
{
    benchmark->ArgName("machines")->Arg(10000)->Iterations(1)->Repetitions(1)->Unit(benchmark::kMillisecond);
}

} // namespace

// First, while the process has freed nothing yet that the machines could reuse.
BENCHMARK(BM_MemoryPerMachine)->Apply(onceForTenThousandMachines);
BENCHMARK(BM_Floor);
BENCHMARK(BM_FloorConstRef);
BENCHMARK(BM_Feed)->Arg(100)->ArgName("machines");
BENCHMARK_CAPTURE(BM_Chain, changing, false)->ArgName("machines")->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK_CAPTURE(BM_Chain, steady, true)->ArgName("machines")->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK_CAPTURE(BM_ChainRescaled, changing, false)->ArgName("machines")->Arg(100);
BENCHMARK_CAPTURE(BM_ChainRescaled, steady, true)->ArgName("machines")->Arg(100);

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    QCoreApplication app(argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    s_chainRun.reset();
    return 0;
}
