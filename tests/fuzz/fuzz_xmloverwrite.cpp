// Any bytes as a machine's maintenance comment file: XmlOverwrite reads what it can and never crashes.
#include "xmloverwrite.h"

#include <QFile>
#include <QLoggingCategory>
#include <QTemporaryDir>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool quiet = [] {
        QLoggingCategory::setFilterRules(QStringLiteral("*=false"));
        return true;
    }();
    Q_UNUSED(quiet)
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("m1.xml"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return 0;
    file.write(reinterpret_cast<const char *>(data), qint64(size));
    file.close();
    XmlOverwrite overwrite;
    QVariantMap shared;
    overwrite.init(
        QVariantMap { { "xmlOverwrite", QVariantMap { { "m1", QVariantMap { { "xml", path } } } } } }, shared);
    return 0;
}
