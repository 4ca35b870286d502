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

/** Writes content to path, making its folder first; whether all of it was written. */
bool writeFile(const QString &path, const QByteArray &content);

/** The bytes of the file at path; empty when it can't be read. */
QByteArray readFile(const QString &path);

/** The bytes of the files in a folder, its subfolders left out. */
qint64 folderBytes(const QString &folder);

/** The lines of a log file without their leading "yyyy-MM-dd HH:mm:ss " time. */
QStringList logLines(const QString &path);

/** The process's resident set in bytes, from /proc/self/statm. */
qint64 residentBytes();

/** A free port on the loopback interface, for a server that binds it a moment later with SO_REUSEADDR. */
quint16 freePort();

/** Copies a test plugin from the build tree's test plugin folder to the given path. */
bool copyTestPlugin(const QString &name, const QString &destination);

} // namespace TestSupport

#endif
