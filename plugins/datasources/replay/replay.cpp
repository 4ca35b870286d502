#include "replay.h"
#include "replaylogging.h"

#include <QJsonValue>
#include <QLoggingCategory>

#include <cstring>
#include <limits>
#include <utility>

namespace {

const QString Group = QStringLiteral("replay");
const QLatin1String DelayKey("delayMs");
constexpr int MaxPause = std::numeric_limits<int>::max();
// Datasets sent in one turn of the event loop at most, when no pause lies between them.
constexpr int MaxDatasetsPerTurn = 256;
// Bytes read from the file at once; the lines are taken from them without being copied.
constexpr int ChunkBytes = 256 * 1024;

/** The white space that QByteArray::trimmed() takes away. */
bool isSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/** What QByteArray::trimmed() gives, sharing text's bytes: a line is read without being copied. */
QByteArray trimmedView(const QByteArray &text)
{
    const char *begin = text.constData();
    const char *end = begin + text.size();
    while (begin < end && isSpace(*begin))
        ++begin;
    while (end > begin && isSpace(end[-1]))
        --end;
    return QByteArray::fromRawData(begin, int(end - begin));
}

} // namespace

const SettingsTable<Replay::Options> &Replay::settings()
{
    // Milliseconds up to the longest pause a timer takes.
    static const SettingsTable<Options> table {
        SettingKey::path("file", &Options::file, "",
            "JSON-lines file to replay, one dataset per line in the form of codec/README.md."),
        SettingKey::duration("interval", &Options::interval, "0", 0, MaxPause,
            "Milliseconds between two datasets; 0 sends them as fast as the chain takes them, up to 256 per turn "
            "of the event loop. A line's delayMs overrides it."),
        SettingKey::boolean("loop", &Options::loop, "false", "true starts again at the first line after the last."),
        SettingKey::whole("maxLineBytes", &Options::maxLineBytes, "1048576", 1024, 268435456,
            "Longest line read, in bytes; a longer one is skipped with a warning, without being held in memory."),
    };
    return table;
}

Replay::Replay(QObject *parent)
    : QObject(parent)
{
    m_timer.setSingleShot(true);
    // The pauses of a recording are replayed as they were, not within a coarse timer's five percent.
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &Replay::sendPending);
}

bool Replay::init(const QVariantMap &config, QVariantMap &)
{
    Options options;
    settings().read(config.value(Group).toMap(), lcReplay(), &options);
    const QString &path = options.file;
    m_interval = options.interval;
    m_loop = options.loop;
    m_maxLineBytes = options.maxLineBytes;
    if (path.isEmpty()) {
        qCWarning(lcReplay) << QStringLiteral("No file to replay: set file in the group replay");
        return false;
    }
    m_file.setFileName(path);
    // Unbuffered: the file is read in large pieces of its own, which QFile's buffer would only copy again.
    if (!m_file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        qCWarning(lcReplay) << QStringLiteral("Can't open %1: %2").arg(path, m_file.errorString());
        return false;
    }
    qCInfo(lcReplay) << QStringLiteral("Replaying %1").arg(path);
    scheduleNext();
    return true;
}

QString Replay::name() const
{
    return QStringLiteral("replay");
}

void Replay::sendPending()
{
    // Datasets without a pause between them go several per turn of the event loop, a bounded number, so that timers
    // and other plugins still get their turns.
    for (int sent = 0;; ++sent) {
        emit dataReceived(m_pending.timestamp.isValid() ? m_pending.timestamp : QDateTime::currentDateTimeUtc(),
            m_pending.machine, m_pending.source, m_pending.data);
        ++m_sent;
        qint64 pause = 0;
        if (!readDataset(&pause))
            return;
        if (pause > 0 || sent + 1 >= MaxDatasetsPerTurn) {
            m_timer.start(int(pause));
            return;
        }
    }
}

void Replay::scheduleNext()
{
    qint64 pause = 0;
    if (readDataset(&pause))
        m_timer.start(int(pause));
}

bool Replay::readLine(QByteArray *line)
{
    for (;;) {
        const char *begin = m_chunk.constData() + m_chunkStart;
        const char *newline = static_cast<const char *>(std::memchr(begin, '\n', size_t(m_chunkEnd - m_chunkStart)));
        if (newline && !m_skipping) {
            *line = QByteArray::fromRawData(begin, int(newline - begin));
            m_chunkStart = int(newline - m_chunk.constData()) + 1;
            ++m_lineNumber;
            if (line->size() <= m_maxLineBytes)
                return true;
            warnLongLine();
            continue;
        }
        if (newline) {
            // The end of a line that was too long: the next line starts after it.
            m_skipping = false;
            m_chunkStart = int(newline - m_chunk.constData()) + 1;
            continue;
        }
        if (m_skipping || m_chunkEnd - m_chunkStart > m_maxLineBytes) {
            // The rest of a line that is too long is read past in pieces, so that it never sits in memory whole.
            if (!m_skipping) {
                ++m_lineNumber;
                warnLongLine();
                m_skipping = true;
            }
            m_chunkStart = m_chunkEnd = 0;
        }
        // Keeps the start of the line and reads the next piece of the file behind it.
        const int kept = m_chunkEnd - m_chunkStart;
        if (kept > 0 && m_chunkStart > 0)
            std::memmove(m_chunk.data(), m_chunk.constData() + m_chunkStart, size_t(kept));
        m_chunkStart = 0;
        m_chunkEnd = kept;
        if (m_chunk.size() < kept + ChunkBytes)
            m_chunk.resize(kept + ChunkBytes);
        const qint64 count = m_file.read(m_chunk.data() + kept, ChunkBytes);
        if (count < 0) {
            qCWarning(lcReplay) << QStringLiteral("Can't read %1: %2").arg(m_file.fileName(), m_file.errorString());
            return false;
        }
        if (count > 0) {
            m_chunkEnd += int(count);
            continue;
        }
        // The end of the file: what is left is its last line, which has no line feed.
        if (kept == 0 || m_skipping) {
            m_skipping = false;
            m_chunkEnd = 0;
            *line = QByteArray();
            m_atEnd = true;
            return true;
        }
        *line = QByteArray::fromRawData(m_chunk.constData(), kept);
        m_chunkStart = m_chunkEnd = kept;
        ++m_lineNumber;
        return true;
    }
}

void Replay::warnLongLine()
{
    qCWarning(lcReplay) << QStringLiteral("Skipping line %1 of %2: the line is longer than %3 bytes")
                               .arg(m_lineNumber)
                               .arg(m_file.fileName())
                               .arg(m_maxLineBytes);
}

void Replay::rewind()
{
    m_file.seek(0);
    m_chunkStart = m_chunkEnd = 0;
    m_skipping = false;
    m_atEnd = false;
    m_lineNumber = 0;
    m_datasetsThisPass = 0;
}

bool Replay::readDataset(qint64 *pause)
{
    for (;;) {
        QByteArray raw;
        if (!readLine(&raw)) {
            m_file.close();
            return false;
        }
        if (m_atEnd) {
            if (!m_loop) {
                qCInfo(lcReplay)
                    << QStringLiteral("Finished replaying %1, datasets sent: %2").arg(m_file.fileName()).arg(m_sent);
                m_file.close();
                return false;
            }
            // Without this a file of bad lines would be warned about over and over, as fast as the loop turns.
            if (m_datasetsThisPass == 0) {
                qCWarning(lcReplay)
                    << QStringLiteral("No dataset in %1, not replaying it again").arg(m_file.fileName());
                m_file.close();
                return false;
            }
            rewind();
            continue;
        }
        const QByteArray line = trimmedView(raw);
        if (line.isEmpty())
            continue;

        // One strict parse serves both the dataset and the line's own pause.
        DatasetCodec::Dataset dataset;
        QString error;
        QJsonValue delay(QJsonValue::Undefined);
        bool ok = DatasetCodec::decodeLine(line, &dataset, &error, DelayKey, &delay);
        if (ok && !delay.isUndefined()
            && !(delay.isDouble() && delay.toDouble() >= 0 && delay.toDouble() <= MaxPause)) {
            ok = false;
            error = QStringLiteral("field \"delayMs\" must be a number of milliseconds from 0 to %1").arg(MaxPause);
        }
        if (!ok) {
            qCWarning(lcReplay)
                << QStringLiteral("Skipping line %1 of %2: %3").arg(m_lineNumber).arg(m_file.fileName(), error);
            continue;
        }
        ++m_datasetsThisPass;
        // The codec hands out one shared text per machine and source name.
        m_pending = std::move(dataset);
        // The first dataset goes out at once; the interval is the pause between two.
        *pause = !delay.isUndefined() ? qint64(delay.toDouble()) : m_sent == 0 ? 0 : m_interval;
        return true;
    }
}
