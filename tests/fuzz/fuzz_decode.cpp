// Any bytes as one JSON line: the decoder refuses or accepts, and never crashes, leaks or reads out of bounds.
#include "datasetcodec.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray line = QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size));
    DatasetCodec::Dataset dataset;
    QString error;
    DatasetCodec::decodeLine(line, &dataset, &error);
    return 0;
}
