#include "processmemory.h"

#include <QFile>
#include <QList>

#include <malloc.h>
#include <unistd.h>

namespace ProcessMemory {

qint64 residentBytes()
{
    // statm: total program size, then resident pages, then more that is not needed here.
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> fields = statm.readAll().split(' ');
    if (fields.size() < 2)
        return 0;
    return fields.at(1).toLongLong() * qint64(sysconf(_SC_PAGESIZE));
}

qint64 heapBytes()
{
    const struct mallinfo2 info = mallinfo2();
    return qint64(info.uordblks) + qint64(info.hblkhd);
}

} // namespace ProcessMemory
