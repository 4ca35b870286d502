#include "processstats.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QList>

#include <sys/resource.h>
#include <unistd.h>

namespace {

QByteArray readProc(const char *path)
{
    QFile file(QString::fromLatin1(path));
    // Files in /proc report a size of 0: read until the end.
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

double bootTime()
{
    const QList<QByteArray> lines = readProc("/proc/stat").split('\n');
    for (const QByteArray &line : lines) {
        if (line.startsWith("btime "))
            return line.mid(6).trimmed().toDouble();
    }
    return 0;
}

} // namespace

ProcessStats ProcessStats::read()
{
    ProcessStats stats;
    const long pageSize = sysconf(_SC_PAGESIZE);
    const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));

    const QList<QByteArray> statm = readProc("/proc/self/statm").split(' ');
    if (statm.size() > 1)
        stats.residentBytes = statm.at(1).toLongLong() * pageSize;

    // The command name in parentheses may hold blanks: the fields are counted from the closing parenthesis.
    const QByteArray stat = readProc("/proc/self/stat");
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    // After the name: state is field 3, utime 14, stime 15, starttime 22 (counted from 1 with pid and name).
    if (fields.size() > 19) {
        stats.cpuSeconds = (fields.at(11).toDouble() + fields.at(12).toDouble()) / ticks;
        stats.startTime = bootTime() + fields.at(19).toDouble() / ticks;
    }

    stats.openFiles = QDir(QStringLiteral("/proc/self/fd"))
                          .entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot)
                          .size();
    rlimit limit {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0)
        stats.maxFiles = static_cast<qint64>(limit.rlim_cur);
    return stats;
}
