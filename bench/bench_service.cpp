// The whole service: the orvix binary as it ships, in a mount namespace of its own, on the WwState lines of a
// recording: replayed from a file into the jsonl target, and received from a mosquitto broker by mqttIn and published
// back to it by mqttOut. Reports the datasets per CPU-second of the orvix process (user and system time from its start
// to the last dataset handled) and its resident set. Needs root, as the service's own tests of the binary.
#include "isolatedservice.h"
#include "mosquittobroker.h"
#include "replayrecording.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace {

const QByteArray Config = R"([core]
log="*.debug=false"
[limit]
waitTime=300000
keepAliveTime=300000
[replay]
file=/etc/orvix/recording.jsonl
interval=0
[jsonl]
file=/var/log/orvix/out.jsonl
)";

/** What the kernel counts for a process: CPU seconds and resident set. */
struct ProcessFigures
{
    double userSeconds = 0;
    double systemSeconds = 0;
    double rssMib = 0;
    double hwmMib = 0;
};

ProcessFigures readFigures(qint64 pid)
{
    ProcessFigures figures;
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (stat.open(QIODevice::ReadOnly)) {
        // The fields after the command name, which is in parentheses and may hold spaces: utime and stime are the
        // 12th and 13th of them.
        const QByteArray text = stat.readAll();
        const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
        const double ticks = double(sysconf(_SC_CLK_TCK));
        if (fields.size() > 12) {
            figures.userSeconds = fields.at(11).toDouble() / ticks;
            figures.systemSeconds = fields.at(12).toDouble() / ticks;
        }
    }
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (status.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : status.readAll().split('\n')) {
            const QList<QByteArray> parts = line.simplified().split(' ');
            if (parts.size() >= 2 && parts.at(0) == "VmRSS:")
                figures.rssMib = parts.at(1).toDouble() / 1024.0;
            else if (parts.size() >= 2 && parts.at(0) == "VmHWM:")
                figures.hwmMib = parts.at(1).toDouble() / 1024.0;
        }
    }
    return figures;
}

int s_lines = ReplayRecording::Machines * 202;
int s_messages = ReplayRecording::Machines * 20;

void setCounters(benchmark::State &state, const ProcessFigures &figures, int datasets, const char *rateName)
{
    const double cpu = figures.userSeconds + figures.systemSeconds;
    state.counters["cpu_s"] = cpu;
    state.counters["user_s"] = figures.userSeconds;
    state.counters["system_s"] = figures.systemSeconds;
    state.counters[rateName] = cpu > 0 ? datasets / cpu : 0;
    state.counters["rss_mib"] = figures.rssMib;
    state.counters["hwm_mib"] = figures.hwmMib;
}

bool copyPlugins(IsolatedService &service, std::initializer_list<const char *> plugins)
{
    for (const char *plugin : plugins) {
        if (!QFile::copy(
                QStringLiteral(ORVIX_PLUGIN_BUILD_DIR "/") + plugin, service.pluginDir() + QLatin1Char('/') + plugin))
            return false;
    }
    return true;
}

void BM_ServiceReplayToJsonl(benchmark::State &state)
{
    for (auto _ : state) {
        IsolatedService service;
        if (!ReplayRecording::write(service.etcDir() + QStringLiteral("/recording.jsonl"), s_lines)) {
            state.SkipWithError("can't write the recording");
            return;
        }
        if (!copyPlugins(service, { "libreplay.so", "libjsonl.so" })) {
            state.SkipWithError("the replay and jsonl plugins are not built");
            return;
        }
        service.writeConfig(Config);
        const QString output = service.logDir() + QStringLiteral("/out.jsonl");
        if (!service.start()) {
            state.SkipWithError("the service did not start");
            return;
        }
        const qint64 pid = service.process().processId();

        // The replay logs when it has sent its last line; the last lines written follow within a turn of the event
        // loop, so the output is taken as complete once its size stays the same for 50 ms.
        QElapsedTimer clock;
        clock.start();
        bool finished = false;
        while (!finished && clock.elapsed() < 600000) {
            QThread::msleep(10);
            finished = !service.logLines().filter(QStringLiteral("Finished replaying")).isEmpty();
            if (service.process().state() == QProcess::NotRunning)
                break;
        }
        qint64 size = -1;
        while (finished && QFileInfo(output).size() != size) {
            size = QFileInfo(output).size();
            QThread::msleep(50);
        }
        const ProcessFigures figures = readFigures(pid);
        const QByteArray printed = service.stop();
        if (!finished) {
            state.SkipWithError("the replay did not finish");
            std::fprintf(stderr, "%s\n", printed.constData());
            return;
        }
        state.counters["lines"] = s_lines;
        state.counters["lines_out"] = double(TestSupport::readFile(output).count('\n'));
        setCounters(state, figures, s_lines, "lines_per_cpu_s");
    }
}

void BM_ServiceMqttInToMqttOut(benchmark::State &state)
{
    for (auto _ : state) {
        MosquittoBroker broker;
        if (!broker.start()) {
            state.SkipWithError("mosquitto did not start");
            return;
        }
        IsolatedService service;
        const QString recording = service.path(QStringLiteral("recording.jsonl"));
        if (!ReplayRecording::write(recording, s_messages)) {
            state.SkipWithError("can't write the recording");
            return;
        }
        if (!copyPlugins(service, { "libmqttin.so", "libmqttout.so" })) {
            state.SkipWithError("the mqttIn and mqttOut plugins are not built");
            return;
        }
        const QByteArray port = QByteArray::number(broker.port());
        service.writeConfig("[core]\nlog=\"*.debug=false\"\n[limit]\nwaitTime=300000\nkeepAliveTime=300000\n"
                            "[mqttIn]\nhost=127.0.0.1\nport="
            + port + "\nclientId=bench-in\ntopics=orvix/in/#\nqos=1\n[mqttOut]\nhost=127.0.0.1\nport=" + port
            + "\nclientId=bench-out\ntopic=orvix/out/{machine}/{type}\nspool=/var/log/orvix/spool\n");
        MosquittoBroker::Client output;
        MosquittoBroker::Client input;
        if (!output.connectTo(broker.port(), "orvix/out/#") || !input.connectTo(broker.port(), "bench/none")
            || !service.start()) {
            state.SkipWithError("the clients or the service did not start");
            return;
        }
        const qint64 pid = service.process().processId();
        QElapsedTimer clock;
        clock.start();
        while (service.logLines().filter(QStringLiteral("Connected to")).size() < 2 && clock.elapsed() < 20000)
            QThread::msleep(10);
        // The subscription follows the connection at once.
        QThread::msleep(200);

        // Every message one line of the recording, at QoS 1. After every 500 a state of a machine of its own marks the
        // end of the round: when it comes out, the round has passed the chain, and the broker never holds more of
        // them for orvix than it queues for one client.
        QFile file(recording);
        if (!file.open(QIODevice::ReadOnly)) {
            state.SkipWithError("can't read the recording");
            return;
        }
        int sent = 0;
        int marks = 0;
        bool finished = true;
        while (finished && !file.atEnd()) {
            const QByteArray line = file.readLine().trimmed();
            const int machineStart = line.indexOf("\"machine\":\"") + 11;
            const QByteArray machine = line.mid(machineStart, line.indexOf('"', machineStart) - machineStart);
            input.publish("orvix/in/" + machine, line);
            ++sent;
            if (sent % 500 != 0 && !file.atEnd())
                continue;
            ++marks;
            input.publish("orvix/in/bench-mark",
                R"({"timestamp":null,"machine":"bench-mark","source":"bench","type":"StateV1","data":{"state":)"
                    + QByteArray::number(2 + marks % 2) + "}}");
            while (output.payloads("orvix/out/bench-mark/").size() < marks && clock.elapsed() < 600000)
                QThread::msleep(1);
            finished = output.payloads("orvix/out/bench-mark/").size() == marks;
        }
        const ProcessFigures figures = readFigures(pid);
        const QByteArray printed = service.stop();
        if (!finished) {
            state.SkipWithError("a mark did not come out");
            std::fprintf(stderr, "%s\n", printed.constData());
            return;
        }
        state.counters["messages"] = sent;
        state.counters["messages_out"] = output.count() - marks;
        setCounters(state, figures, sent, "messages_per_cpu_s");
    }
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    // A brief run, as CI makes one, only checks that everything still works: 5,000 lines, 2,000 messages.
    bool brief = false;
    for (int i = 1; i < argc; ++i) {
        static const char MinTime[] = "--benchmark_min_time=";
        if (std::strncmp(argv[i], MinTime, sizeof MinTime - 1) == 0 && std::atof(argv[i] + sizeof MinTime - 1) < 1.0)
            brief = true;
    }
    if (brief) {
        s_lines = 5000;
        s_messages = 2000;
    }
    if (qEnvironmentVariableIsSet("ORVIX_SERVICE_LINES"))
        s_lines = qEnvironmentVariableIntValue("ORVIX_SERVICE_LINES");
    if (qEnvironmentVariableIsSet("ORVIX_SERVICE_MESSAGES"))
        s_messages = qEnvironmentVariableIntValue("ORVIX_SERVICE_MESSAGES");
    if (!IsolatedService::available()) {
        std::printf("bench_service needs root and unshare for a private mount namespace; not run\n");
        return 0;
    }
    benchmark::RegisterBenchmark("BM_ServiceReplayToJsonl", &BM_ServiceReplayToJsonl)
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("BM_ServiceMqttInToMqttOut", &BM_ServiceMqttInToMqttOut)
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
