// The opcuaServer target serving 1,000 machines, each sending one StateV1 a second, to an open62541 client on the
// loopback interface that has subscribed to every machine's CurrentState: the CPU the target's thread uses, the
// resident memory, and the time from processData to the client's data change notification.

#include "mmdatasets.h"
#include "opcuaserver.h"
#include "processmemory.h"
#include "testsupport.h"
#include "wwaddressspace.h"
#include "wwtypes.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QLoggingCategory>
#include <QTemporaryDir>
#include <QTimer>

#include <benchmark/benchmark.h>
#include <open62541/client_config_default.h>
#include <open62541/client_highlevel.h>
#include <open62541/client_subscriptions.h>

#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

constexpr int Machines = 1000;
const QDateTime When = QDateTime::fromMSecsSinceEpoch(1700000000250, Qt::UTC);

using Clock = std::chrono::steady_clock;

qint64 nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

qint64 cpuNs(clockid_t clock)
{
    timespec time {};
    clock_gettime(clock, &time);
    return qint64(time.tv_sec) * 1000000000 + time.tv_nsec;
}

QString machineName(int index)
{
    return QStringLiteral("edgebander-%1").arg(index, 5, 10, QLatin1Char('0'));
}

QVariant stateV1(qint32 code)
{
    StateV1 record;
    record.state = code;
    return QVariant::fromValue(record);
}

/** What the client thread shares with the benchmark: when each machine was last fed, and the latencies seen. */
struct Probe
{
    std::atomic<qint64> fedAt[Machines];
    std::mutex mutex;
    std::vector<qint64> latencies;
    std::atomic<bool> ready { false };
    std::atomic<bool> stop { false };
    std::atomic<int> failed { 0 };
};

/** The client: connects, subscribes to every machine's CurrentState and records each notification's delay. */
void runClient(Probe *probe, const std::string &url, UA_UInt16 ns)
{
    UA_Client *client = UA_Client_new();
    UA_ClientConfig_setDefault(UA_Client_getConfig(client));
    UA_Client_getConfig(client)->logging->log = nullptr;
    if (UA_Client_connect(client, url.c_str()) != UA_STATUSCODE_GOOD) {
        probe->failed = 1;
        UA_Client_delete(client);
        return;
    }
    UA_CreateSubscriptionRequest request = UA_CreateSubscriptionRequest_default();
    request.requestedPublishingInterval = 20;
    request.requestedMaxKeepAliveCount = 100;
    request.requestedLifetimeCount = 1000;
    const UA_CreateSubscriptionResponse subscription
        = UA_Client_Subscriptions_create(client, request, nullptr, nullptr, nullptr);

    struct Context
    {
        Probe *probe;
        int machine;
    };
    std::vector<Context> contexts(Machines);
    std::vector<std::string> ids(Machines);
    std::vector<UA_MonitoredItemCreateRequest> items(Machines);
    std::vector<void *> itemContexts(Machines);
    std::vector<UA_Client_DataChangeNotificationCallback> callbacks(Machines);
    std::vector<UA_Client_DeleteMonitoredItemCallback> deletes(Machines, nullptr);
    const auto notified = [](UA_Client *, UA_UInt32, void *, UA_UInt32, void *context, UA_DataValue *) {
        const auto *at = static_cast<Context *>(context);
        const qint64 fed = at->probe->fedAt[at->machine].load();
        if (fed == 0)
            return;
        const qint64 delay = nowNs() - fed;
        std::lock_guard<std::mutex> lock(at->probe->mutex);
        at->probe->latencies.push_back(delay);
    };
    for (int i = 0; i < Machines; ++i) {
        contexts[size_t(i)] = Context { probe, i };
        ids[size_t(i)] = machineName(i).toStdString() + "/State/Machine/Overview/CurrentState";
        items[size_t(i)]
            = UA_MonitoredItemCreateRequest_default(UA_NODEID_STRING(ns, const_cast<char *>(ids[size_t(i)].c_str())));
        items[size_t(i)].requestedParameters.samplingInterval = 0;
        itemContexts[size_t(i)] = &contexts[size_t(i)];
        callbacks[size_t(i)] = notified;
    }
    UA_CreateMonitoredItemsRequest create;
    UA_CreateMonitoredItemsRequest_init(&create);
    create.subscriptionId = subscription.subscriptionId;
    create.timestampsToReturn = UA_TIMESTAMPSTORETURN_NEITHER;
    create.itemsToCreate = items.data();
    create.itemsToCreateSize = items.size();
    UA_CreateMonitoredItemsResponse response = UA_Client_MonitoredItems_createDataChanges(
        client, create, itemContexts.data(), callbacks.data(), deletes.data());
    UA_CreateMonitoredItemsResponse_clear(&response);
    probe->ready = true;
    while (!probe->stop)
        UA_Client_run_iterate(client, 10);
    UA_Client_disconnect(client);
    UA_Client_delete(client);
}

qint64 percentile(std::vector<qint64> values, double share)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, size_t(share * double(values.size())))];
}

/** Runs the event loop for msecs. */
void turn(int msecs)
{
    QEventLoop loop;
    QTimer::singleShot(msecs, &loop, &QEventLoop::quit);
    loop.exec();
}

void BM_ServeMachines(benchmark::State &state)
{
    const int seconds = int(state.range(0));
    QTemporaryDir pki;
    const quint16 port = TestSupport::freePort();
    OpcUaServer target;
    QVariantMap shared;
    const QVariantMap config { { "opcuaServerTarget",
        QVariantMap { { "port", QString::number(port) }, { "securityPolicies", "None" }, { "pki", pki.path() } } } };
    if (!target.init(config, shared)) {
        state.SkipWithError("init failed");
        return;
    }
    const qint64 rssBefore = ProcessMemory::residentBytes();
    for (int i = 0; i < Machines; ++i) {
        target.processData(When, machineName(i), QStringLiteral("bench"), QVariant::fromValue(WwCapabilities {}));
        target.processData(When, machineName(i), QStringLiteral("bench"), stateV1(2));
    }
    const qint64 rssMachines = ProcessMemory::residentBytes();

    auto probe = std::make_unique<Probe>();
    for (auto &slot : probe->fedAt)
        slot = 0;
    // The machines namespace comes after the server's own and the three of the companion specifications.
    std::thread client(
        runClient, probe.get(), QStringLiteral("opc.tcp://127.0.0.1:%1").arg(port).toStdString(), UA_UInt16(5));
    QElapsedTimer wait;
    wait.start();
    while (!probe->ready && !probe->failed && wait.elapsed() < 30000)
        turn(10);
    if (!probe->ready) {
        probe->stop = true;
        client.join();
        state.SkipWithError("the client could not subscribe");
        return;
    }
    turn(200);

    qint64 updates = 0;
    qint64 wallNs = 0;
    qint64 threadNs = 0;
    qint64 processNs = 0;
    for (auto _ : state) {
        {
            std::lock_guard<std::mutex> lock(probe->mutex);
            probe->latencies.clear();
        }
        // One StateV1 per machine per second, spread evenly: machine i at i ms of each second, alternating between
        // working (code 2) and ready (code 5), so that every update changes CurrentState.
        int next = 0;
        QElapsedTimer clock;
        QTimer feeder;
        feeder.setTimerType(Qt::PreciseTimer);
        feeder.setInterval(1);
        QEventLoop loop;
        const qint64 threadStart = cpuNs(CLOCK_THREAD_CPUTIME_ID);
        const qint64 processStart = cpuNs(CLOCK_PROCESS_CPUTIME_ID);
        QObject::connect(&feeder, &QTimer::timeout, &loop, [&] {
            const qint64 due = clock.elapsed() * Machines / 1000;
            while (next < due && next < seconds * Machines) {
                const int machine = next % Machines;
                probe->fedAt[machine] = nowNs();
                target.processData(
                    When, machineName(machine), QStringLiteral("bench"), stateV1((next / Machines) % 2 == 0 ? 5 : 2));
                ++next;
                ++updates;
            }
            if (clock.elapsed() >= seconds * 1000 + 200)
                loop.quit();
        });
        clock.start();
        feeder.start();
        loop.exec();
        wallNs += clock.nsecsElapsed();
        threadNs += cpuNs(CLOCK_THREAD_CPUTIME_ID) - threadStart;
        processNs += cpuNs(CLOCK_PROCESS_CPUTIME_ID) - processStart;
    }
    probe->stop = true;
    client.join();

    std::vector<qint64> latencies;
    {
        std::lock_guard<std::mutex> lock(probe->mutex);
        latencies = probe->latencies;
    }
    state.counters["machines"] = Machines;
    state.counters["updates"] = double(updates);
    state.counters["notifications"] = double(latencies.size());
    state.counters["target_cpu_percent"] = 100.0 * double(threadNs) / double(wallNs);
    state.counters["process_cpu_percent"] = 100.0 * double(processNs) / double(wallNs);
    state.counters["rss_mib"] = double(ProcessMemory::residentBytes()) / 1048576.0;
    state.counters["rss_kib_per_machine"] = double(rssMachines - rssBefore) / 1024.0 / Machines;
    state.counters["latency_p50_ms"] = double(percentile(latencies, 0.50)) / 1e6;
    state.counters["latency_p99_ms"] = double(percentile(latencies, 0.99)) / 1e6;
}

} // namespace

BENCHMARK(BM_ServeMachines)->ArgName("seconds")->Arg(3)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false\n*.info=false"));
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
