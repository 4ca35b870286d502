#include "jsonl.h"

#include "datasetcodec.h"

#include <QDir>
#include <QFileInfo>
#include <QLoggingCategory>

#include <cstdio>

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
    QByteArray line = DatasetCodec::encodeLine(timestamp, machine, source, data);
    line.append('\n');
    // Unbuffered: the line reaches the file in this one write, so a killed process leaves only whole lines.
    if (m_file.write(line) == line.size()) {
        m_failing = false;
        return;
    }
    // Reported once per run of failures, not once per dataset.
    if (!m_failing)
        qCWarning(lcJsonl) << QStringLiteral("Can't write to %1: %2").arg(m_target, m_file.errorString());
    m_failing = true;
}
