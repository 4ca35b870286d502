// The opcua datasource reading woodworking machines from an OPC UA server on the loopback interface, every one of
// their 26 flags and 35 values changing HZ times a second. Two servers, each a process of its own whose CPU does not
// count: BM_OpcUaDatasource reads 100 machines from node-opcua (tests/plugins/datasources/opcua/wwtestserver.js),
// BM_OpcUaFleet 1,000 machines from orvix's own opcuaServer target fed by a fleet (fleetserver.h), at 1 Hz and, with
// HZ 0, as fast as that server takes the updates. Measured: the CPU of one core that orvix's process uses, its resident
// memory, the WwState datasets and the monitored-item notifications per second, and the notifications per CPU-second
// of the process. At 1 Hz with the default publishing interval of 1 s that is about 100 datasets and 6,100
// notifications a second; at 5 Hz and 10 Hz, with a publishing interval of 200 ms and 100 ms, up to 30,500 and
// 61,000 notifications a second. The server's own CPU share is reported beside, to tell which side was the limit.
// At 0 Hz nothing changes: what the connection costs when idle (the library's iteration every 10 ms, keep-alives).
//
// The window begins after every machine has sent its first state and a second of settling, and lasts 20 s, or
// ORVIX_OPCUA_SECONDS. With --benchmark_min_time below 1 (as tools/bench-smoke.sh runs it) only the 1 Hz cases run,
// with a window of 2 s. Without node or node-opcua (tests/nodeopcua, or NODE_PATH) the program says so and measures
// only the fleet.

#include "fleetserver.h"
#include "opcua.h"
#include "testsupport.h"
#include "wwmodel.h"
#include "wwtypes.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QProcess>
#include <QSet>
#include <QTemporaryDir>
#include <QTimer>

#include <benchmark/benchmark.h>
#include <open62541/client_subscriptions.h>

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <type_traits>
#include <vector>

// The datasource's call that creates monitored items of data changes reaches the library through __wrap_ below
// (the linker's --wrap, see CMakeLists.txt), which counts each notification before the datasource's own callback.
extern "C" {
UA_StatusCode __real_UA_Client_MonitoredItems_createDataChanges_async(UA_Client *client,
    const UA_CreateMonitoredItemsRequest request, void **contexts, UA_Client_DataChangeNotificationCallback *callbacks,
    UA_Client_DeleteMonitoredItemCallback *deleteCallbacks, UA_ClientAsyncServiceCallback createCallback,
    void *userdata, UA_UInt32 *requestId);
UA_StatusCode __wrap_UA_Client_MonitoredItems_createDataChanges_async(UA_Client *client,
    const UA_CreateMonitoredItemsRequest request, void **contexts, UA_Client_DataChangeNotificationCallback *callbacks,
    UA_Client_DeleteMonitoredItemCallback *deleteCallbacks, UA_ClientAsyncServiceCallback createCallback,
    void *userdata, UA_UInt32 *requestId);
}

namespace {

constexpr int NodeMachines = 100;
/** The fleet's machines; set by main from ORVIX_OPCUA_MACHINES. */
int s_fleetMachines = 1000;
/** The flags and values of each machine that change: every one the Woodworking state has. */
constexpr int ChangingItems = WwModel::FlagCount + WwModel::ValueCount;
const QString ServerScript = QStringLiteral(ORVIX_SOURCE_DIR "/tests/plugins/datasources/opcua/wwtestserver.js");

/** The window in seconds; set by main from ORVIX_OPCUA_SECONDS or a short --benchmark_min_time. */
int s_seconds = 20;
/** Milliseconds between the last machine's first state and the window. */
int s_settle = 1000;
/** The most delays kept of a window. */
constexpr size_t MaxDelays = 200000;

// What the counting step in front of the datasource's callbacks has seen; the client runs in the main thread only.
UA_Client_DataChangeNotificationCallback s_delivered = nullptr;
quint64 s_notifications = 0;
quint64 s_monitoredItems = 0;

void countedDataChange(UA_Client *client, UA_UInt32 subscriptionId, void *subscriptionContext,
    UA_UInt32 monitoredItemId, void *monitoredItemContext, UA_DataValue *value)
{
    ++s_notifications;
    s_delivered(client, subscriptionId, subscriptionContext, monitoredItemId, monitoredItemContext, value);
}

qint64 cpuNs(clockid_t clock)
{
    timespec time {};
    clock_gettime(clock, &time);
    return qint64(time.tv_sec) * 1000000000 + time.tv_nsec;
}

/** A line "Key:   1234 kB" of /proc/self/status in bytes; 0 when it cannot be read. */
qint64 statusBytes(const char *key)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray prefix = QByteArray(key) + ':';
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(prefix))
            return line.mid(prefix.size()).trimmed().split(' ').value(0).toLongLong() * 1024;
    }
    return 0;
}

QProcessEnvironment nodeEnvironment()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (environment.value(QStringLiteral("NODE_PATH")).isEmpty())
        environment.insert(
            QStringLiteral("NODE_PATH"), QStringLiteral(ORVIX_SOURCE_DIR "/tests/nodeopcua/node_modules"));
    return environment;
}

/** Whether node finds node-opcua (without loading it, which takes a second). */
bool nodeOpcUaAvailable()
{
    QProcess probe;
    probe.setProcessEnvironment(nodeEnvironment());
    probe.start(QStringLiteral("node"), { QStringLiteral("-e"), QStringLiteral("require.resolve('node-opcua')") });
    return probe.waitForFinished(60000) && probe.exitStatus() == QProcess::NormalExit && probe.exitCode() == 0;
}

/** Runs the event loop for msecs. */
void turn(int msecs)
{
    QEventLoop loop;
    QTimer::singleShot(msecs, Qt::PreciseTimer, &loop, &QEventLoop::quit);
    loop.exec();
}

/** wwtestserver.js with machines that change at a rate, its log in a file of its own. */
class TestServer
{
public:
    ~TestServer() { stop(); }

    /** Starts the server and waits until it listens; false with the reason in error() when it does not. */
    bool start(int machines, int rate)
    {
        m_port = TestSupport::freePort();
        m_process.setProcessEnvironment(nodeEnvironment());
        m_process.setStandardErrorFile(m_folder.filePath(QStringLiteral("server.log")));
        m_process.start(QStringLiteral("node"),
            { ServerScript, QStringLiteral("--port"), QString::number(m_port), QStringLiteral("--machines"),
                QString::number(machines), QStringLiteral("--rate"), QString::number(rate) });
        QElapsedTimer clock;
        clock.start();
        while (clock.elapsed() < 60000 && m_process.state() != QProcess::NotRunning) {
            while (m_process.canReadLine()) {
                const QJsonObject report = QJsonDocument::fromJson(m_process.readLine()).object();
                if (report.contains(QStringLiteral("ready")))
                    return true;
                if (report.contains(QStringLiteral("error"))) {
                    m_error = report.value(QStringLiteral("error")).toString();
                    return false;
                }
            }
            m_process.waitForReadyRead(100);
        }
        m_error = QStringLiteral("the server did not start; its log: ") + m_folder.filePath("server.log");
        m_folder.setAutoRemove(false);
        return false;
    }

    /** Ends the server by closing its standard input. */
    void stop()
    {
        if (m_process.state() == QProcess::NotRunning)
            return;
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished(10000))
            m_process.kill();
        m_process.waitForFinished(1000);
    }

    QString url() const { return QStringLiteral("opc.tcp://127.0.0.1:%1").arg(m_port); }
    qint64 cpuNs() const { return processCpuNs(m_process.processId()); }
    QString error() const { return m_error; }

private:
    QTemporaryDir m_folder;
    QProcess m_process;
    quint16 m_port = 0;
    QString m_error;
};

qint64 percentile(std::vector<qint64> values, double share)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, size_t(share * double(values.size())))];
}

/** What the datasource sent, counted in the slot connected to dataReceived. */
struct Received
{
    quint64 states = 0;
    QSet<QString> machines;
    /** Machines whose first state held both the flags and the values block. */
    int complete = 0;
    bool measuring = false;
    /** Milliseconds from a state's source time stamp (its newest change on the server) to its arrival. */
    std::vector<qint64> delays;
};

/** The datasource reading the machines of a server that has started, with the counters of the window. */
template <typename Server>
void readMachines(benchmark::State &state, Server &server, int machines, int rate, int publishingInterval)
{
    const qint64 rssBefore = statusBytes("VmRSS");
    const quint64 itemsBefore = s_monitoredItems;
    QTemporaryDir pki;
    Received received;
    // Bounded, so that the figures of memory are the datasource's and not the delays'.
    received.delays.reserve(std::min<size_t>(
        MaxDelays, size_t(s_seconds) * size_t(machines) * size_t(std::max(1, 1000 / publishingInterval)) * 2));
    QElapsedTimer startup;
    startup.start();
    {
        OpcUaDatasource source;
        source.setBackoff(100, 1000);
        QObject::connect(&source, &OpcUaDatasource::dataReceived,
            [&received, machines](
                const QDateTime &timestamp, const QString &machine, const QString &, const QVariant &data) {
                if (data.userType() != qMetaTypeId<WwState>())
                    return;
                ++received.states;
                if (received.measuring) {
                    if (received.delays.size() < received.delays.capacity())
                        received.delays.push_back(QDateTime::currentMSecsSinceEpoch() - timestamp.toMSecsSinceEpoch());
                } else if (received.machines.size() < machines && !received.machines.contains(machine)) {
                    received.machines.insert(machine);
                    const WwState *record = static_cast<const WwState *>(data.constData());
                    if (record->Flags && record->Values)
                        ++received.complete;
                }
            });
        QVariantMap shared;
        const QVariantMap connection { { "url", server.url() },
            { "publishingInterval", QString::number(publishingInterval) }, { "pki", pki.path() },
            { "timeout", "300000" } };
        if (!source.init(QVariantMap { { "opcua", QVariantMap { { "bench", connection } } } }, shared)) {
            state.SkipWithError("init failed");
            return;
        }
        // Two minutes, and more for a large fleet on a busy machine: its server samples every item of every machine.
        const qint64 deadline = 120000 + qint64(machines) * 180;
        while (received.machines.size() < machines && startup.elapsed() < deadline)
            turn(20);
        if (received.machines.size() < machines) {
            state.SkipWithError(qPrintable(QStringLiteral("only %1 of %2 machines sent a state within %3 s")
                                               .arg(received.machines.size())
                                               .arg(machines)
                                               .arg(deadline / 1000)));
            return;
        }
        const double startupSeconds = double(startup.elapsed()) / 1000.0;
        if constexpr (std::is_same_v<Server, FleetServer>)
            server.unleash();
        // The first states of all machines come in a burst; the window begins when the machines run evenly.
        turn(s_settle);

        quint64 states = 0;
        quint64 notifications = 0;
        qint64 wallNs = 0;
        qint64 processNs = 0;
        qint64 serverNs = 0;
        qint64 serverUpdates = 0;
        for (auto _ : state) {
            qint64 updatesStart = 0;
            if constexpr (std::is_same_v<Server, FleetServer>)
                updatesStart = server.updates();
            const quint64 statesStart = received.states;
            const quint64 notificationsStart = s_notifications;
            const qint64 serverStart = server.cpuNs();
            QElapsedTimer clock;
            clock.start();
            const qint64 processStart = cpuNs(CLOCK_PROCESS_CPUTIME_ID);
            received.measuring = true;
            turn(s_seconds * 1000);
            received.measuring = false;
            processNs += cpuNs(CLOCK_PROCESS_CPUTIME_ID) - processStart;
            wallNs += clock.nsecsElapsed();
            serverNs += server.cpuNs() - serverStart;
            states += received.states - statesStart;
            notifications += s_notifications - notificationsStart;
            if constexpr (std::is_same_v<Server, FleetServer>)
                serverUpdates += server.updates() - updatesStart;
        }
        const double wall = double(wallNs) / 1e9;
        const double cpu = double(processNs) / 1e9;
        state.counters["items_per_machine"] = double(s_monitoredItems - itemsBefore) / machines;
        state.counters["complete_first_states"] = received.complete;
        state.counters["startup_s"] = startupSeconds;
        state.counters["cpu_percent"] = 100.0 * cpu / wall;
        state.counters["server_cpu_percent"] = 100.0 * double(serverNs) / 1e9 / wall;
        state.counters["states_per_s"] = double(states) / wall;
        state.counters["notifications_per_s"] = double(notifications) / wall;
        if (rate > 0)
            state.counters["expected_per_s"]
                = double(machines) * ChangingItems * std::min(rate, 1000 / publishingInterval);
        if constexpr (std::is_same_v<Server, FleetServer>)
            state.counters["server_updates_per_s"] = double(serverUpdates) / wall;
        state.counters["notifications_per_cpu_s"] = cpu > 0 ? double(notifications) / cpu : 0.0;
        state.counters["delay_p50_ms"] = double(percentile(received.delays, 0.50));
        state.counters["delay_p99_ms"] = double(percentile(received.delays, 0.99));
        state.counters["rss_mib"] = double(statusBytes("VmRSS")) / 1048576.0;
        state.counters["rss_growth_mib"] = double(statusBytes("VmRSS") - rssBefore) / 1048576.0;
        state.counters["hwm_mib"] = double(statusBytes("VmHWM")) / 1048576.0;
    }
    server.stop();
}

void BM_OpcUaDatasource(benchmark::State &state)
{
    const int rate = int(state.range(0));
    TestServer server;
    if (!server.start(NodeMachines, rate)) {
        state.SkipWithError(qPrintable(server.error()));
        return;
    }
    readMachines(state, server, NodeMachines, rate, int(state.range(1)));
}

void BM_OpcUaFleet(benchmark::State &state)
{
    const int rate = int(state.range(0));
    FleetServer server;
    if (!server.start(s_fleetMachines, rate)) {
        state.SkipWithError(qPrintable(server.error()));
        return;
    }
    readMachines(state, server, s_fleetMachines, rate, int(state.range(1)));
}

} // namespace

UA_StatusCode __wrap_UA_Client_MonitoredItems_createDataChanges_async(UA_Client *client,
    const UA_CreateMonitoredItemsRequest request, void **contexts, UA_Client_DataChangeNotificationCallback *callbacks,
    UA_Client_DeleteMonitoredItemCallback *deleteCallbacks, UA_ClientAsyncServiceCallback createCallback,
    void *userdata, UA_UInt32 *requestId)
{
    // The library keeps its own copy of the callbacks, as it must of the datasource's.
    std::vector<UA_Client_DataChangeNotificationCallback> counted;
    if (callbacks) {
        counted.assign(callbacks, callbacks + request.itemsToCreateSize);
        for (auto &callback : counted) {
            if (!s_delivered)
                s_delivered = callback;
            if (callback == s_delivered)
                callback = countedDataChange;
        }
    }
    s_monitoredItems += request.itemsToCreateSize;
    return __real_UA_Client_MonitoredItems_createDataChanges_async(client, request, contexts,
        callbacks ? counted.data() : nullptr, deleteCallbacks, createCallback, userdata, requestId);
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc > 1 && std::strcmp(argv[1], FleetServer::ServeArgument) == 0) {
        QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false\n*.info=false"));
        return FleetServer::serve(argc, argv);
    }
    QLoggingCategory::setFilterRules(QStringLiteral("opcua.debug=false\nopcua.info=false"));
    bool brief = false;
    for (int i = 1; i < argc; ++i) {
        static const char MinTime[] = "--benchmark_min_time=";
        if (std::strncmp(argv[i], MinTime, sizeof MinTime - 1) == 0 && std::atof(argv[i] + sizeof MinTime - 1) < 1.0)
            brief = true;
    }
    const int seconds = qEnvironmentVariableIntValue("ORVIX_OPCUA_SECONDS");
    s_seconds = seconds > 0 ? seconds : brief ? 2 : 20;
    // A brief run, as CI makes one, only checks that everything still works: each server at 1 Hz, a short settling.
    if (brief) {
        s_settle = 300;
        s_fleetMachines = 100;
    }
    const int fleetMachines = qEnvironmentVariableIntValue("ORVIX_OPCUA_MACHINES");
    if (fleetMachines > 0)
        s_fleetMachines = fleetMachines;
    // Arguments: the server's rate of change in Hz (0: as fast as it can) and the datasource's publishing interval.
    auto *fleet = benchmark::RegisterBenchmark("BM_OpcUaFleet", BM_OpcUaFleet)
                      ->ArgNames({ "hz", "publishing_ms" })
                      ->Args({ 1, 1000 });
    if (!brief)
        fleet->Args({ 0, 1000 });
    fleet->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
    if (nodeOpcUaAvailable()) {
        auto *node = benchmark::RegisterBenchmark("BM_OpcUaDatasource", BM_OpcUaDatasource)
                         ->ArgNames({ "hz", "publishing_ms" })
                         ->Args({ 1, 1000 });
        if (!brief)
            node->Args({ 0, 1000 })->Args({ 5, 200 })->Args({ 10, 100 });
        node->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
    } else {
        std::printf("bench_opcua: BM_OpcUaDatasource skipped, it needs node and node-opcua (tools/install-deps.sh "
                    "installs them)\n");
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
