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

void setUpdateCounters(benchmark::State &state, qint64 nanoseconds, double datasetsPerUpdate, quint64 out,
    int warningsBefore)
{
    const double perUpdate = double(nanoseconds) / double(state.iterations());
    state.counters["updates_per_s"] = 1e9 / perUpdate;
    state.counters["ns_per_update"] = perUpdate;
    state.counters["ns_per_dataset"] = perUpdate / datasetsPerUpdate;
    state.counters["out_per_update"] = double(out) / double(state.iterations());
    state.counters["warnings"] = BenchLogging::warnings() - warningsBefore;
}

/** A processor behind the mapper, fed the tape's updates of the given number of machines. */
template <typename Processor>
void runOnTape(benchmark::State &state, Alone<Processor> &alone, int machines, bool steady)
{
    TapeReplay replay(tape(), machines, steady);
    replay.warmUp(alone.source);
    const int warningsBefore = BenchLogging::warnings();
    const quint64 sinkBefore = alone.sink.count();
    const ThreadCpuTimer timer;
    for (auto _ : state)
        replay.sendNext(alone.source);
    setUpdateCounters(state, timer.elapsedNanoseconds(), tape().datasetsPerUpdate(), alone.sink.count() - sinkBefore,
        warningsBefore);
}

void BM_OpcUaToMMMapper(benchmark::State &state, bool steady)
{
    const int machines = int(state.range(0));
    Alone<OpcUaToMMMapper> alone;
    MachineFleet fleet(machines, SourceName);
    for (int machine = 0; machine < machines; ++machine)
        fleet.send(alone.source, machine, false);
    for (int machine = 0; machine < machines; ++machine)
        fleet.send(alone.source, machine, true);
    const int warningsBefore = BenchLogging::warnings();
    const quint64 sinkBefore = alone.sink.count();
    int next = 0;
    const ThreadCpuTimer timer;
    for (auto _ : state) {
        fleet.send(alone.source, next, !steady);
        if (++next == machines)
            next = 0;
    }
    // The mapper's output is counted per update here; its input is one dataset per update.
    setUpdateCounters(state, timer.elapsedNanoseconds(), 1.0, alone.sink.count() - sinkBefore, warningsBefore);
}

void BM_UnitOverwrite(benchmark::State &state, bool steady)
{
    Alone<UnitOverwrite> alone;
    runOnTape(state, alone, int(state.range(0)), steady);
}

void BM_UnitOverwriteRescale(benchmark::State &state, bool steady)
{
    const int machines = int(state.range(0));
    Alone<UnitOverwrite> alone(rescaleConfig(machines));
    runOnTape(state, alone, machines, steady);
}

void BM_XmlOverwrite(benchmark::State &state, bool steady)
{
    Alone<XmlOverwrite> alone;
    runOnTape(state, alone, int(state.range(0)), steady);
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
        xml += "  <MaintenanceComponent ID=\"" + QByteArray::number(i) + "\"><Comment>Check belt " +
            QByteArray::number(i) + " for wear</Comment></MaintenanceComponent>\n";
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
    Alone<Validator> alone;
    runOnTape(state, alone, int(state.range(0)), steady);
}

void BM_Limit(benchmark::State &state, bool steady)
{
    Alone<Limit> alone(limitConfig());
    runOnTape(state, alone, int(state.range(0)), steady);
}

void BM_DatasetLog(benchmark::State &state, bool steady)
{
    Alone<DatasetLog> alone;
    runOnTape(state, alone, int(state.range(0)), steady);
}

} // namespace

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
    s_tape.reset();
    return 0;
}
