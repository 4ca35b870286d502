#include "sparkplugpayload.h"

#include "sparkplugdevice.h"

#include <cstring>

const char SparkplugPayload::BdSeqName[] = "bdSeq";
const char SparkplugPayload::RebirthName[] = "Node Control/Rebirth";

namespace {

using Payload = Org__Eclipse__Tahu__Protobuf__Payload;

// The columns of the active notifications; the numbers are Sparkplug data types (Int64 4, String 12). Time and level
// are Int64 because that is the whole type every host's data set decoder knows.
const char *const NotificationColumns[] = { "Id", "Time", "Level", "Code", "Message" };
uint32_t NotificationTypes[] = { 12, 4, 4, 12, 12 };
constexpr size_t NotificationColumnCount = 5;

constexpr quint8 SeqTag = (3 << 3) | 0; // field 3, varint

// A metric with the defaults of the schema. protoc-c's initialiser macro for it leaves a member of its value union to
// the compiler, which Debian 13's warns about; the generated C function sets the same defaults.
Org__Eclipse__Tahu__Protobuf__Payload__Metric blankMetric()
{
    Org__Eclipse__Tahu__Protobuf__Payload__Metric metric;
    org__eclipse__tahu__protobuf__payload__metric__init(&metric);
    return metric;
}

char *text(const QByteArray &bytes)
{
    // protobuf-c takes strings as char * but only reads them while packing.
    return const_cast<char *>(bytes.constData());
}

} // namespace

void SparkplugPayload::nodeBirth(quint64 now, quint32 bdSeq, QByteArray *out)
{
    m_metrics.assign(2, blankMetric());
    Metric &sequence = m_metrics[0];
    sequence.name = const_cast<char *>(BdSeqName);
    sequence.has_datatype = true;
    sequence.datatype = quint32(SparkplugType::UInt64);
    sequence.has_timestamp = true;
    sequence.timestamp = now;
    sequence.value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_LONG_VALUE;
    sequence.long_value = bdSeq;
    Metric &rebirth = m_metrics[1];
    rebirth.name = const_cast<char *>(RebirthName);
    rebirth.has_datatype = true;
    rebirth.datatype = quint32(SparkplugType::Boolean);
    rebirth.has_timestamp = true;
    rebirth.timestamp = now;
    rebirth.value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_BOOLEAN_VALUE;
    rebirth.boolean_value = false;
    pack(now, 2, true, out);
}

void SparkplugPayload::nodeDeath(quint64 now, quint32 bdSeq, QByteArray *out)
{
    m_metrics.assign(1, blankMetric());
    Metric &sequence = m_metrics[0];
    sequence.name = const_cast<char *>(BdSeqName);
    sequence.has_datatype = true;
    sequence.datatype = quint32(SparkplugType::UInt64);
    sequence.has_timestamp = true;
    sequence.timestamp = now;
    sequence.value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_LONG_VALUE;
    sequence.long_value = bdSeq;
    pack(now, 1, false, out);
}

void SparkplugPayload::deviceBirth(quint64 now, const SparkplugDevice &device, QByteArray *out)
{
    const int count = device.metrics().size();
    m_metrics.resize(size_t(count));
    for (int i = 0; i < count; ++i)
        fill(&m_metrics[size_t(i)], device, i, true, now);
    pack(now, size_t(count), false, out);
}

void SparkplugPayload::deviceData(
    quint64 now, const SparkplugDevice &device, const QVector<int> &metrics, QByteArray *out)
{
    m_metrics.resize(size_t(metrics.size()));
    for (int i = 0; i < metrics.size(); ++i)
        fill(&m_metrics[size_t(i)], device, metrics.at(i), false, now);
    pack(now, size_t(metrics.size()), false, out);
}

void SparkplugPayload::deviceDeath(quint64 now, QByteArray *out)
{
    pack(now, 0, false, out);
}

void SparkplugPayload::appendSeq(QByteArray *payload, quint32 seq)
{
    payload->append(char(SeqTag));
    // seq is below 256: one or two bytes of varint.
    if (seq < 0x80) {
        payload->append(char(seq));
    } else {
        payload->append(char(0x80 | (seq & 0x7f)));
        payload->append(char(seq >> 7));
    }
}

bool SparkplugPayload::historical(const QByteArray &payload, quint32 seq, QByteArray *out)
{
    Payload *message = org__eclipse__tahu__protobuf__payload__unpack(
        nullptr, size_t(payload.size()), reinterpret_cast<const uint8_t *>(payload.constData()));
    if (!message)
        return false;
    for (size_t i = 0; i < message->n_metrics; ++i) {
        message->metrics[i]->has_is_historical = true;
        message->metrics[i]->is_historical = true;
    }
    message->has_seq = true;
    message->seq = seq;
    out->resize(int(org__eclipse__tahu__protobuf__payload__get_packed_size(message)));
    org__eclipse__tahu__protobuf__payload__pack(message, reinterpret_cast<uint8_t *>(out->data()));
    org__eclipse__tahu__protobuf__payload__free_unpacked(message, nullptr);
    return true;
}

bool SparkplugPayload::rebirthRequested(const QByteArray &payload, bool *requested)
{
    *requested = false;
    Payload *message = org__eclipse__tahu__protobuf__payload__unpack(
        nullptr, size_t(payload.size()), reinterpret_cast<const uint8_t *>(payload.constData()));
    if (!message)
        return false;
    for (size_t i = 0; i < message->n_metrics; ++i) {
        const Metric *metric = message->metrics[i];
        if (metric->name && std::strcmp(metric->name, RebirthName) == 0
            && metric->value_case == ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_BOOLEAN_VALUE
            && metric->boolean_value)
            *requested = true;
    }
    org__eclipse__tahu__protobuf__payload__free_unpacked(message, nullptr);
    return true;
}

void SparkplugPayload::fill(Metric *metric, const SparkplugDevice &device, int index, bool birth, quint64 now)
{
    org__eclipse__tahu__protobuf__payload__metric__init(metric);
    const SparkplugMetric &source = device.metrics().at(index);
    if (birth) {
        metric->name = text(source.name);
        metric->has_datatype = true;
        metric->datatype = quint32(source.type);
    }
    metric->has_alias = true;
    metric->alias = source.alias;
    metric->has_timestamp = true;
    metric->timestamp = source.timestamp ? source.timestamp : now;
    if (source.null) {
        metric->has_is_null = true;
        metric->is_null = true;
        return;
    }
    switch (source.type) {
    case SparkplugType::Int32:
        metric->value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_INT_VALUE;
        metric->int_value = quint32(source.whole);
        break;
    case SparkplugType::Int64:
    case SparkplugType::UInt64:
        metric->value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_LONG_VALUE;
        metric->long_value = source.whole;
        break;
    case SparkplugType::Double:
        metric->value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_DOUBLE_VALUE;
        metric->double_value = source.real;
        break;
    case SparkplugType::Boolean:
        metric->value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_BOOLEAN_VALUE;
        metric->boolean_value = source.whole != 0;
        break;
    case SparkplugType::String:
        metric->value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_STRING_VALUE;
        metric->string_value = text(source.text);
        break;
    case SparkplugType::DataSet:
        metric->value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__METRIC__VALUE_DATASET_VALUE;
        metric->dataset_value = notifications(device);
        break;
    }
}

SparkplugPayload::DataSet *SparkplugPayload::notifications(const SparkplugDevice &device)
{
    const QVector<NotificationsAddV1> &active = device.notifications();
    const size_t rows = size_t(active.size());
    m_rows.assign(rows, ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__DATA_SET__ROW__INIT);
    m_rowPointers.resize(rows);
    m_values.assign(
        rows * NotificationColumnCount, ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__DATA_SET__DATA_SET_VALUE__INIT);
    m_valuePointers.resize(m_values.size());
    m_texts.resize(rows * 3);
    for (size_t row = 0; row < rows; ++row) {
        const NotificationsAddV1 &notification = active.at(int(row));
        m_texts[row * 3] = notification.id.toUtf8();
        m_texts[row * 3 + 1] = notification.messageCode.toUtf8();
        m_texts[row * 3 + 2] = notification.message.toUtf8();
        Value *values = &m_values[row * NotificationColumnCount];
        values[0].value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__DATA_SET__DATA_SET_VALUE__VALUE_STRING_VALUE;
        values[0].string_value = text(m_texts[row * 3]);
        values[1].value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__DATA_SET__DATA_SET_VALUE__VALUE_LONG_VALUE;
        values[1].long_value = quint64(notification.timestamp.toMSecsSinceEpoch());
        values[2].value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__DATA_SET__DATA_SET_VALUE__VALUE_LONG_VALUE;
        values[2].long_value = quint64(qint64(notification.level));
        values[3].value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__DATA_SET__DATA_SET_VALUE__VALUE_STRING_VALUE;
        values[3].string_value = text(m_texts[row * 3 + 1]);
        values[4].value_case = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__DATA_SET__DATA_SET_VALUE__VALUE_STRING_VALUE;
        values[4].string_value = text(m_texts[row * 3 + 2]);
        for (size_t column = 0; column < NotificationColumnCount; ++column)
            m_valuePointers[row * NotificationColumnCount + column] = &values[column];
        m_rows[row].n_elements = NotificationColumnCount;
        m_rows[row].elements = &m_valuePointers[row * NotificationColumnCount];
        m_rowPointers[row] = &m_rows[row];
    }
    m_dataSet = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__DATA_SET__INIT;
    m_dataSet.has_num_of_columns = true;
    m_dataSet.num_of_columns = NotificationColumnCount;
    m_dataSet.n_columns = NotificationColumnCount;
    m_dataSet.columns = const_cast<char **>(NotificationColumns);
    m_dataSet.n_types = NotificationColumnCount;
    m_dataSet.types = NotificationTypes;
    m_dataSet.n_rows = rows;
    m_dataSet.rows = m_rowPointers.data();
    return &m_dataSet;
}

void SparkplugPayload::pack(quint64 now, size_t count, bool withSeq, QByteArray *out)
{
    m_pointers.resize(count);
    for (size_t i = 0; i < count; ++i)
        m_pointers[i] = &m_metrics[i];
    Payload payload = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__INIT;
    payload.has_timestamp = true;
    payload.timestamp = now;
    payload.n_metrics = count;
    payload.metrics = m_pointers.data();
    // Only the NBIRTH carries its seq from the start: 0.
    payload.has_seq = withSeq;
    payload.seq = 0;
    out->resize(int(org__eclipse__tahu__protobuf__payload__get_packed_size(&payload)));
    org__eclipse__tahu__protobuf__payload__pack(&payload, reinterpret_cast<uint8_t *>(out->data()));
}
