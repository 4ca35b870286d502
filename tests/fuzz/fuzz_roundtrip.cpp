// A line that decodes must write a line that decodes again to the same line: every line orvix writes reads back as
// the same dataset.
#include "datasetcodec.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray line = QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size));
    DatasetCodec::Dataset first;
    if (!DatasetCodec::decodeLine(line, &first))
        return 0;
    QString error;
    const QByteArray written
        = DatasetCodec::encodeLine(first.timestamp, first.machine, first.source, first.data, &error);
    if (written.isEmpty())
        return 0;
    DatasetCodec::Dataset second;
    if (!DatasetCodec::decodeLine(written, &second, &error)) {
        std::fprintf(stderr, "written line does not read back: %s\n%s\n", qPrintable(error), written.constData());
        std::abort();
    }
    const QByteArray again = DatasetCodec::encodeLine(second.timestamp, second.machine, second.source, second.data);
    if (again != written) {
        std::fprintf(stderr, "round trip differs:\n%s\n%s\n", written.constData(), again.constData());
        std::abort();
    }
    return 0;
}
