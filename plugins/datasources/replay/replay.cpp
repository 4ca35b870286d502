#include "replay.h"

#include <QJsonValue>
#include <QLoggingCategory>

#include <limits>

Q_LOGGING_CATEGORY(lcReplay, "replay")

namespace {

const QString Group = QStringLiteral("replay");
const QLatin1String DelayKey("delayMs");
constexpr int MaxPause = std::numeric_limits<int>::max();

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

const QVector<SettingKey> &Replay::settings()
{
    // Milliseconds up to the longest pause a timer takes.
    static const QVector<SettingKey> table {
        SettingKey::path("file", "", "JSON-lines file to replay, one dataset per line in the form of codec/README.md."),
        SettingKey::duration("interval", "0", 0, MaxPause,
            "Milliseconds between two datasets; 0 sends one per turn of the event loop. A line's delayMs overrides "
            "it."),
        SettingKey::boolean("loop", "false", "true starts again at the first line after the last."),
        SettingKey::whole("maxLineBytes", "1048576", 1024, 268435456,
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
    const SettingsGroup settings(config.value(Group).toMap(), Replay::settings(), lcReplay());
    const QString path = settings.text("file");
    m_interval = int(settings.number("interval"));
    m_loop = settings.flag("loop");
    m_maxLineBytes = qint64(settings.number("maxLineBytes"));
    if (path.isEmpty()) {
        qCWarning(lcReplay) << QStringLiteral("No file to replay: set file in the group replay");
        return false;
    }
    m_file.setFileName(path);
    if (!m_file.open(QIODevice::ReadOnly)) {
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
    emit dataReceived(m_pending.timestamp.isValid() ? m_pending.timestamp : QDateTime::currentDateTimeUtc(),
        m_pending.machine, m_pending.source, m_pending.data);
    ++m_sent;
    scheduleNext();
}

void Replay::scheduleNext()
{
    qint64 pause = 0;
    if (readDataset(&pause))
        m_timer.start(int(pause));
}

bool Replay::readDataset(qint64 *pause)
{
    for (;;) {
        if (m_file.atEnd()) {
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
            m_file.seek(0);
            m_lineNumber = 0;
            m_datasetsThisPass = 0;
        }
        // readLine(n) gives at most n - 1 bytes: one more than the limit tells a line that is too long. The line goes
        // into a buffer kept for every line, which is only as resident as the longest line read has made it.
        m_buffer.resize(int(m_maxLineBytes + 2));
        const qint64 length = m_file.readLine(m_buffer.data(), m_maxLineBytes + 2);
        const QByteArray raw = QByteArray::fromRawData(m_buffer.constData(), int(qMax<qint64>(length, 0)));
        if (raw.isEmpty()) {
            qCWarning(lcReplay) << QStringLiteral("Can't read %1: %2").arg(m_file.fileName(), m_file.errorString());
            m_file.close();
            return false;
        }
        ++m_lineNumber;
        if (raw.size() > m_maxLineBytes && !raw.endsWith('\n')) {
            // The rest of the line is read past in pieces, so that one huge line never sits in memory whole.
            QByteArray rest = raw;
            while (!rest.endsWith('\n') && !m_file.atEnd())
                rest = m_file.readLine(64 * 1024);
            qCWarning(lcReplay) << QStringLiteral("Skipping line %1 of %2: the line is longer than %3 bytes")
                                       .arg(m_lineNumber)
                                       .arg(m_file.fileName())
                                       .arg(m_maxLineBytes);
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
        m_pending = dataset;
        // The first dataset goes out at once; the interval is the pause between two.
        *pause = !delay.isUndefined() ? qint64(delay.toDouble()) : m_sent == 0 ? 0 : m_interval;
        return true;
    }
}
