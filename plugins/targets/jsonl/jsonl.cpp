#include "jsonl.h"

#include "datasetcodec.h"

#include <QDir>
#include <QFileInfo>
#include <QLoggingCategory>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

Q_LOGGING_CATEGORY(lcJsonl, "jsonl")

namespace {

const QString Group = QStringLiteral("jsonl");
const QString StandardOutput = QStringLiteral("standard output");

} // namespace

const QVector<SettingKey> &Jsonl::settings()
{
    static const QVector<SettingKey> table {
        SettingKey::path(
            "file", "", "File the datasets are appended to, one JSON line each; empty or - writes to standard output."),
    };
    return table;
}

Jsonl::Jsonl(QObject *parent)
    : QObject(parent)
{
}

bool Jsonl::init(const QVariantMap &config, QVariantMap &)
{
    const SettingsGroup settings(config.value(Group).toMap(), Jsonl::settings(), lcJsonl());
    const QString path = settings.text("file");
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
    qCInfo(lcJsonl) << QStringLiteral("Writing datasets to %1").arg(m_target);
    return true;
}

QString Jsonl::name() const
{
    return QStringLiteral("jsonl");
}

void Jsonl::processData(QDateTime timestamp, QString machine, QString source, QVariant data)
{
    // A target disabled in the configuration gets no init but stays connected for data.
    if (!m_file.isOpen())
        return;
    QString problem;
    QByteArray line = DatasetCodec::encodeLine(timestamp, machine, source, data, &problem);
    if (line.isEmpty()) {
        qCWarning(lcJsonl)
            << QStringLiteral("Skipping a %1 of %2: %3").arg(QLatin1String(data.typeName()), machine, problem);
        return;
    }
    line.append('\n');
    int error = 0;
    if (writeWholeLine(line, &error)) {
        if (m_failed > 0) {
            qCWarning(lcJsonl)
                << QStringLiteral("Writing to %1 again; %2 datasets could not be written").arg(m_target).arg(m_failed);
            m_failed = 0;
        }
        return;
    }
    // Reported once per run of failures, not once per dataset; the count follows when writing works again.
    if (m_failed == 0)
        qCWarning(lcJsonl)
            << QStringLiteral("Can't write to %1: %2").arg(m_target, QString::fromLocal8Bit(std::strerror(error)));
    ++m_failed;
}

bool Jsonl::writeWholeLine(const QByteArray &line, int *error)
{
    // The file is unbuffered: the line goes to it in one write, so a killed process leaves only whole lines.
    const int fd = m_file.handle();
    qint64 written = 0;
    while (written < line.size()) {
        const ssize_t count = ::write(fd, line.constData() + written, size_t(line.size() - written));
        if (count > 0) {
            written += count;
        } else if (count < 0 && errno == EINTR) {
            continue;
        } else {
            *error = count < 0 ? errno : EIO;
            break;
        }
    }
    if (written == line.size())
        return true;
    // A full disk can take part of a line: cut the file back to its last whole line, so that the next line does not
    // start in the middle of this one. A pipe or terminal cannot be cut; there the part stays.
    struct stat info;
    if (written > 0 && ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size >= written)
        (void)!::ftruncate(fd, info.st_size - written);
    return false;
}
