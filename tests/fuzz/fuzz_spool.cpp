// Any bytes as a spool segment left by an earlier run: the spool opens, hands out what is whole, and never crashes.
#include "mqttspool.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QTemporaryDir>

#include <cstddef>
#include <cstdint>

Q_LOGGING_CATEGORY(lcFuzzSpool, "spool", QtCriticalMsg)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    QTemporaryDir dir;
    QFile segment(dir.filePath(QStringLiteral("0000000000000000.seg")));
    if (!segment.open(QIODevice::WriteOnly))
        return 0;
    segment.write(reinterpret_cast<const char *>(data), qint64(size));
    segment.close();
    MqttSpool spool(dir.path(), 1 << 20, lcFuzzSpool());
    QString error;
    if (!spool.open(&error))
        return 0;
    MqttSpool::Record record;
    int handed = 0;
    while (spool.next(&record) && handed < 10000) {
        spool.acknowledge(record.sequence);
        ++handed;
    }
    return 0;
}
