#include "jsonl.h"
#include "jsonllogging.h"

#include "datasetcodec.h"

#include <QDir>
#include <QFileInfo>
#include <QLoggingCategory>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString Group = QStringLiteral("jsonl");
const QString StandardOutput = QStringLiteral("standard output");
// Lines gathered beyond this are written at once, so that a turn of many datasets keeps little memory.
constexpr int MaxBatchBytes = 64 * 1024;
// The unit in which the kernel writes a file.
constexpr qint64 PageBytes = 4096;

} // namespace

const SettingsTable<Jsonl::Options> &Jsonl::settings()
{
    static const SettingsTable<Options> table {
        SettingKey::path("file", &Options::file, "",
            "File the datasets are appended to, one JSON line each; empty or - writes to standard output."),
    };
    return table;
}

Jsonl::Jsonl(QObject *parent)
    : QObject(parent)
{
}

bool Jsonl::init(const QVariantMap &config, QVariantMap &)
{
    Options options;
    settings().read(config.value(Group).toMap(), lcJsonl(), &options);
    const QString &path = options.file;
    if (path.isEmpty() || path == QLatin1String("-")) {
        m_target = StandardOutput;
        // The console log shares standard output; it writes whole lines too, so the two never mix within a line.
        if (!m_file.open(fileno(stdout), QIODevice::WriteOnly | QIODevice::Unbuffered, QFileDevice::DontCloseHandle)) {
            qCWarning(lcJsonl) << QStringLiteral("Can't open %1 for writing: %2").arg(m_target, m_file.errorString());
            return false;
        }
    } else {
        m_target = path;
        const QString folder = QFileInfo(path).absolutePath();
        if (!QDir().mkpath(folder)) {
            qCWarning(lcJsonl) << QStringLiteral("Can't open %1 for writing: %2")
                                      .arg(path, QStringLiteral("can't create the folder %1").arg(folder));
            return false;
        }
        m_file.setFileName(path);
        if (!m_file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered)) {
            qCWarning(lcJsonl) << QStringLiteral("Can't open %1 for writing: %2").arg(path, m_file.errorString());
            return false;
        }
    }
    m_batch.reserve(MaxBatchBytes + 4096);
    qCInfo(lcJsonl) << QStringLiteral("Writing datasets to %1").arg(m_target);
    return true;
}

QString Jsonl::name() const
{
    return QStringLiteral("jsonl");
}

Jsonl::~Jsonl()
{
    // A clean stop writes what this turn of the event loop has gathered.
    flush();
}

void Jsonl::processData(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    // A target disabled in the configuration gets no init but stays connected for data.
    if (!m_file.isOpen())
        return;
    QString problem;
    const QByteArray line = DatasetCodec::encodeLine(timestamp, machine, source, data, &problem);
    if (line.isEmpty()) {
        qCWarning(lcJsonl)
            << QStringLiteral("Skipping a %1 of %2: %3").arg(QLatin1String(data.typeName()), machine, problem);
        return;
    }
    m_batch.append(line);
    m_batch.append('\n');
    ++m_batchLines;
    if (m_batch.size() >= MaxBatchBytes) {
        flush();
    } else if (!m_flushQueued) {
        // The lines of one turn of the event loop go out together, before the loop waits for anything again.
        m_flushQueued = true;
        QMetaObject::invokeMethod(this, &Jsonl::flush, Qt::QueuedConnection);
    }
}

void Jsonl::flush()
{
    m_flushQueued = false;
    if (m_batchLines == 0)
        return;
    int error = 0;
    const int written = writeWholeLines(&error);
    const int lost = m_batchLines - written;
    // Keeps the reserved capacity: the next turn's lines need no allocation.
    m_batch.resize(0);
    m_batchLines = 0;
    if (written > 0 && m_failed > 0) {
        qCWarning(lcJsonl)
            << QStringLiteral("Writing to %1 again; %2 datasets could not be written").arg(m_target).arg(m_failed);
        m_failed = 0;
    }
    if (lost == 0)
        return;
    // Reported once per run of failures, not once per dataset; the count follows when writing works again.
    if (m_failed == 0)
        qCWarning(lcJsonl)
            << QStringLiteral("Can't write to %1: %2").arg(m_target, QString::fromLocal8Bit(std::strerror(error)));
    m_failed += lost;
}

int Jsonl::writeWholeLines(int *error)
{
    // The file is unbuffered. A killed process can have a write cut short only where the kernel goes from one page of
    // the file to the next, so each write stays within a page of the file, with as many whole lines as fit; a line
    // that crosses a page goes alone, as every line once did.
    const int fd = m_file.handle();
    struct stat info;
    const bool regular = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    const qint64 offset = regular ? qint64(info.st_size) : 0;
    const qint64 size = m_batch.size();
    const char *const batch = m_batch.constData();
    // The end of the line that starts at from, its line feed included; every line of the batch ends in one.
    const auto lineEnd = [batch, size](qint64 from) {
        return qint64(static_cast<const char *>(std::memchr(batch + from, '\n', size_t(size - from))) - batch) + 1;
    };
    qint64 written = 0;
    while (written < size) {
        // The first line always; more while they fit in the page of the file that it starts in.
        qint64 end = lineEnd(written);
        if (regular) {
            const qint64 room = PageBytes - (offset + written) % PageBytes;
            while (end < size) {
                const qint64 next = lineEnd(end);
                if (next - written > room)
                    break;
                end = next;
            }
        } else {
            end = size;
        }
        while (written < end) {
            const ssize_t count = ::write(fd, batch + written, size_t(end - written));
            if (count > 0) {
                written += count;
            } else if (count < 0 && errno == EINTR) {
                continue;
            } else {
                *error = count < 0 ? errno : EIO;
                break;
            }
        }
        if (written < end)
            break;
    }
    if (written == size)
        return m_batchLines;
    // A full disk can take part of the lines: cut the file back to the last whole line, so that the next line does
    // not start in the middle of one. A pipe or terminal cannot be cut; there the part stays.
    const qint64 whole = written > 0 ? m_batch.lastIndexOf('\n', int(written) - 1) + 1 : 0;
    if (written > whole && ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size >= written - whole)
        (void)!::ftruncate(fd, info.st_size - (written - whole));
    return int(std::count(m_batch.constBegin(), m_batch.constBegin() + whole, '\n'));
}
