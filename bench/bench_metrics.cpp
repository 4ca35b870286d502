// What monitoring costs the service with 1,000 machines: the chain's counting per machine update, against the same
// chain without it, and one scrape of /metrics over HTTP. With one update per machine and second and a scrape every
// 15 s, the two together are the share of a core that serving metrics adds.

#include "benchlogging.h"
#include "benchsink.h"
#include "benchsource.h"
#include "chainmetrics.h"
#include "chainrig.h"
#include "core.h"
#include "iprocessor.h"
#include "machinefleet.h"
#include "metricsserver.h"
#include "testsupport.h"
#include "threadcputimer.h"

#include <QCoreApplication>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>
#include <civetweb.h>

#include <sys/resource.h>

#include <chrono>
#include <future>
#include <memory>

namespace {

constexpr int Machines = 1000;
constexpr double ScrapeSeconds = 15;
constexpr double UpdatesPerMachineAndSecond = 1;

/** The service's chain and its metrics server as ServiceStart makes them, fed by a stand-in datasource. */
struct Service
{
    QTemporaryDir folder;
    std::unique_ptr<Core> core;
    MetricsServer *server = nullptr;
    BenchSource source;
    BenchSink sink;
    MachineFleet fleet { Machines, QStringLiteral("opcua-client") };
    int next = 0;

    explicit Service(bool counted)
    {
        BenchLogging::filterDebugAndInfo();
        const QString configFile = folder.filePath(QStringLiteral("orvix.ini"));
        const QString listen
            = counted ? QStringLiteral("127.0.0.1:%1").arg(TestSupport::freePort()) : QString(QLatin1String(""));
        ChainRig::writeConfiguration(configFile, { { QStringLiteral("metrics/listen"), listen } });
        core = std::make_unique<Core>(false, nullptr, configFile, folder.filePath(QStringLiteral("orvix.log")),
            folder.filePath(QStringLiteral("orvix.lastlog")));
        BenchLogging::silence();
        server = new MetricsServer(core.get(), core.get());
        const QString plugins = folder.filePath(QStringLiteral("plugins"));
        QDir().mkpath(plugins);
        qputenv("ORVIX_PLUGINPATH", QFile::encodeName(plugins));
        core->run();
        server->start();
        // Where run() would connect a datasource plugin, and where the server would count it.
        source.connectTo(dynamic_cast<QObject *>(core->processors().first()));
        sink.connectFrom(dynamic_cast<QObject *>(core->processors().last()));
        if (server->chain())
            QObject::connect(&source, SIGNAL(dataReceived(QDateTime, QString, QString, QVariant)), server->chain(),
                SLOT(received(QDateTime, QString, QString, QVariant)));
        for (int i = 0; i < Machines; ++i)
            sendOne();
    }

    void sendOne()
    {
        fleet.send(source, next, true);
        if (++next == Machines)
            next = 0;
    }
};

double s_plainNanoseconds = 0;

double processCpuNanoseconds()
{
    rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e9
        + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e3;
}

void BM_Update(benchmark::State &state)
{
    const bool counted = state.range(0) != 0;
    Service service(counted);
    const ThreadCpuTimer timer;
    for (auto _ : state)
        service.sendOne();
    const double perUpdate = double(timer.elapsedNanoseconds()) / double(state.iterations());
    state.counters["ns_per_update"] = perUpdate;
    if (!counted) {
        s_plainNanoseconds = perUpdate;
        return;
    }
    if (s_plainNanoseconds > 0) {
        const double added = perUpdate - s_plainNanoseconds;
        state.counters["added_ns_per_update"] = added;
        state.counters["core_percent"] = added * Machines * UpdatesPerMachineAndSecond / 1e9 * 100;
    }
}

void BM_Scrape(benchmark::State &state)
{
    Service service(true);
    const int port = service.server->port();
    if (port == 0) {
        state.SkipWithError("the metrics server could not listen");
        return;
    }
    std::size_t bytes = 0;
    const double before = processCpuNanoseconds();
    for (auto _ : state) {
        // Over HTTP as Prometheus scrapes it; the event loop turns meanwhile, the answer is made there.
        auto scrape = std::async(std::launch::async, [port] {
            char error[256] = {};
            mg_connection *connection = mg_download("127.0.0.1", port, 0, error, sizeof(error), "%s",
                "GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
            std::size_t size = 0;
            if (!connection)
                return size;
            char buffer[16384];
            int read = 0;
            while ((read = mg_read(connection, buffer, sizeof(buffer))) > 0)
                size += std::size_t(read);
            mg_close_connection(connection);
            return size;
        });
        while (scrape.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        bytes = scrape.get();
    }
    // The whole process: the event loop's part, civetweb's threads and the client's reading.
    const double perScrape = (processCpuNanoseconds() - before) / double(state.iterations());
    state.counters["cpu_ms_per_scrape"] = perScrape / 1e6;
    state.counters["bytes"] = double(bytes);
    state.counters["core_percent"] = perScrape / (ScrapeSeconds * 1e9) * 100;
}

} // namespace

BENCHMARK(BM_Update)->ArgName("counted")->Arg(0)->Arg(1);
BENCHMARK(BM_Scrape)->Unit(benchmark::kMillisecond);

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    mg_init_library(0);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
