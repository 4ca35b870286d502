#include "replay.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QLoggingCategory>

#include <limits>

Q_LOGGING_CATEGORY(lcReplay, "replay")

namespace {

const QString Group = QStringLiteral("replay");
const QString DelayKey = QStringLiteral("delayMs");
constexpr int MaxPause = std::numeric_limits<int>::max();

// The text of a key, or its default from the table. QSettings reads an unquoted value with a comma as a list.
QString settingText(const QVariantMap &group, const char *key)
{
    const QString name = QString::fromLatin1(key);
    if (!group.contains(name)) {
        for (const Replay::Setting &setting : Replay::settings()) {
            if (qstrcmp(setting.key, key) == 0)
                return QString::fromUtf8(setting.defaultValue);
        }
        return QString();
    }
    const QVariant value = group.value(name);
    if (value.userType() == QMetaType::QStringList)
        return value.toStringList().join(QLatin1Char(','));
    return value.toString();
}

QString settingDefault(const char *key)
{
    return settingText(QVariantMap(), key);
}

void warnInvalid(const QString &text, const char *key)
{
    qCWarning(lcReplay) << QStringLiteral("Value %1 of %2 is not valid, using %3")
                               .arg(text, QString::fromLatin1(key), settingDefault(key));
}

// Milliseconds from 0 to the longest pause a timer takes.
int settingMilliseconds(const QVariantMap &group, const char *key)
{
    const QString text = settingText(group, key).trimmed();
    bool ok = false;
    const int value = text.toInt(&ok);
    if (ok && value >= 0)
        return value;
    warnInvalid(text, key);
    return settingDefault(key).toInt();
}

bool settingBool(const QVariantMap &group, const char *key)
{
    const QString text = settingText(group, key).trimmed().toLower();
    if (text == QLatin1String("true") || text == QLatin1String("yes") || text == QLatin1String("1"))
        return true;
    if (text == QLatin1String("false") || text == QLatin1String("no") || text == QLatin1String("0"))
        return false;
    warnInvalid(text, key);
    return settingDefault(key) == QLatin1String("true");
}

} // namespace

const QVector<Replay::Setting> &Replay::settings()
{
    static const QVector<Setting> table {
        { "file", "", "JSON-lines file to replay, one dataset per line in the form of codec/README.md." },
        { "interval", "0",
            "Milliseconds between two datasets; 0 sends one per turn of the event loop. A line's delayMs overrides "
            "it." },
        { "loop", "false", "true starts again at the first line after the last." },
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
    const QVariantMap group = config.value(Group).toMap();
    const QString path = settingText(group, "file");
    m_interval = settingMilliseconds(group, "interval");
    m_loop = settingBool(group, "loop");
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
        const QByteArray raw = m_file.readLine();
        if (raw.isEmpty()) {
            qCWarning(lcReplay) << QStringLiteral("Can't read %1: %2").arg(m_file.fileName(), m_file.errorString());
            m_file.close();
            return false;
        }
        ++m_lineNumber;
        const QByteArray line = raw.trimmed();
        if (line.isEmpty())
            continue;

        // One parse serves both the dataset and the line's own pause.
        const QJsonDocument document = QJsonDocument::fromJson(line);
        DatasetCodec::Dataset dataset;
        QString error;
        bool ok = document.isObject() ? DatasetCodec::decode(document.object(), &dataset, &error)
                                      : DatasetCodec::decodeLine(line, &dataset, &error);
        const QJsonValue delay = document.object().value(DelayKey);
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
