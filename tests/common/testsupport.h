#ifndef ORVIX_TESTSUPPORT_H
#define ORVIX_TESTSUPPORT_H

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

/** Small helpers shared by the autotests: files, log lines and plugin folders. */
namespace TestSupport {

inline bool writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(content) == content.size();
}

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

/** The bytes of the files in a folder, its subfolders left out. */
inline qint64 folderBytes(const QString &folder)
{
    qint64 total = 0;
    QDirIterator it(folder, QDir::Files);
    while (it.hasNext()) {
        it.next();
        total += it.fileInfo().size();
    }
    return total;
}

/** The lines of a log file without their leading "yyyy-MM-dd HH:mm:ss " time. */
inline QStringList logLines(const QString &path)
{
    static const QRegularExpression time(QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d "));
    QStringList lines;
    const QStringList raw = QString::fromUtf8(readFile(path)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (QString line : raw) {
        const QRegularExpressionMatch match = time.match(line);
        lines.append(match.hasMatch() ? line.mid(match.capturedLength()) : QStringLiteral("<no time> ") + line);
    }
    return lines;
}

/** Copies a test plugin from the build tree's test plugin folder to the given path. */
inline bool copyTestPlugin(const QString &name, const QString &destination)
{
    QDir().mkpath(QFileInfo(destination).absolutePath());
    return QFile::copy(QStringLiteral(ORVIX_TEST_PLUGIN_DIR "/lib%1.so").arg(name), destination);
}

} // namespace TestSupport

#endif
