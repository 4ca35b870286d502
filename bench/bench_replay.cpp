// The JSON path end to end: a recording of WwState lines read and decoded as the replay datasource does, through
// the service's whole chain, into the jsonl target writing a file. 1,000 machines with every flag and seven values;
// nine of ten lines repeat their machine's previous record. Reports lines per CPU-second and the peak resident set.
#include "chainrig.h"
#include "core.h"
#include "datasetcodec.h"
#include "jsonl.h"
#include "replayrecording.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonValue>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <ctime>

#include <sys/resource.h>

namespace {

double processCpuSeconds()
{
    timespec now {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

void BM_ReplayToJsonl(benchmark::State &state)
{
    const int lines = int(state.range(0));
    QTemporaryDir folder;
    const QString recordingPath = folder.filePath(QStringLiteral("recording.jsonl"));
    if (!ReplayRecording::write(recordingPath, lines)) {
        state.SkipWithError("can't write the recording");
        return;
    }
    for (auto _ : state) {
        ChainRig rig;
        Jsonl jsonl;
        QVariantMap shared;
        const QVariantMap config { { "jsonl",
            QVariantMap { { "file", folder.filePath(QStringLiteral("out.jsonl")) } } } };
        QFile recording(recordingPath);
        if (!jsonl.init(config, shared) || !recording.open(QIODevice::ReadOnly)) {
            state.SkipWithError("no recording or no jsonl");
            return;
        }
        QObject::connect(rig.processorObject(int(rig.core().processors().size()) - 1),
            SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)), &jsonl,
            SLOT(processData(QDateTime, QString, QString, QVariant)));

        const double cpuBefore = processCpuSeconds();
        qint64 decoded = 0;
        // As replay reads a line: into a buffer kept for every line, of replay's default longest line.
        constexpr qint64 maxLineBytes = 1048576;
        QByteArray buffer(int(maxLineBytes + 2), Qt::Uninitialized);
        while (!recording.atEnd()) {
            qint64 length = qMax<qint64>(recording.readLine(buffer.data(), maxLineBytes + 2), 0);
            // The recording's lines have no white space around them but their line feed.
            if (length > 0 && buffer.at(int(length - 1)) == '\n')
                --length;
            const QByteArray line = QByteArray::fromRawData(buffer.constData(), int(length));
            // As replay reads a line: one strict parse for the dataset and the line's pause.
            QString error;
            QJsonValue delay(QJsonValue::Undefined);
            DatasetCodec::Dataset dataset;
            if (!DatasetCodec::decodeLine(line, &dataset, &error, QLatin1String("delayMs"), &delay))
                continue;
            ++decoded;
            emit rig.source().dataReceived(dataset.timestamp, dataset.machine, dataset.source, dataset.data);
        }
        const double cpu = processCpuSeconds() - cpuBefore;
        state.counters["lines_per_cpu_s"] = double(decoded) / cpu;
        rusage usage {};
        getrusage(RUSAGE_SELF, &usage);
        state.counters["peak_rss_mib"] = double(usage.ru_maxrss) / 1024.0;
    }
}

} // namespace

int main(int argc, char **argv)
{
    // 20,000 lines by default, for quick runs; ORVIX_REPLAY_LINES=1000000 for the full recording.
    const int lines
        = qEnvironmentVariableIsSet("ORVIX_REPLAY_LINES") ? qEnvironmentVariableIntValue("ORVIX_REPLAY_LINES") : 20000;
    benchmark::RegisterBenchmark("BM_ReplayToJsonl", &BM_ReplayToJsonl)
        ->Arg(lines)
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    QCoreApplication app(argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
