#include "jsondom.h"

#include <QJsonArray>
#include <QJsonObject>

#include <cmath>
#include <cstring>

namespace CodecDetail {

namespace {

// Qt's reader keeps a floating-point number that is whole as an integer when it fits 64 bits signed; below this
// bound that is certain for every double.
constexpr double ExactWholeLimit = 4611686018427387904.0; // 2^62

} // namespace

bool DomValue::integer(qint64 *value) const
{
    if (!m_defined)
        return false;
    int64_t whole = 0;
    if (m_element.get_int64().get(whole) == simdjson::SUCCESS) {
        *value = whole;
        return true;
    }
    double number = 0;
    if (m_element.get_double().get(number) != simdjson::SUCCESS || m_element.is_uint64())
        return false;
    if (std::trunc(number) != number || std::fabs(number) >= ExactWholeLimit)
        return false;
    *value = qint64(number);
    return true;
}

double DomValue::toDouble() const
{
    if (!m_defined)
        return 0;
    int64_t whole = 0;
    if (m_element.get_int64().get(whole) == simdjson::SUCCESS)
        return double(whole);
    uint64_t large = 0;
    if (m_element.get_uint64().get(large) == simdjson::SUCCESS)
        return double(large);
    double number = 0;
    return m_element.get_double().get(number) == simdjson::SUCCESS ? number : 0;
}

QString DomValue::toString() const
{
    std::string_view text;
    if (!m_defined || m_element.get_string().get(text) != simdjson::SUCCESS)
        return QString();
    return QString::fromUtf8(text.data(), int(text.size()));
}

std::string_view DomValue::utf8() const
{
    std::string_view text;
    if (!m_defined || m_element.get_string().get(text) != simdjson::SUCCESS)
        return std::string_view();
    return text;
}

DomArray DomValue::toArray() const
{
    simdjson::dom::array array;
    if (m_defined && m_element.get_array().get(array) == simdjson::SUCCESS)
        return DomArray(array);
    return DomArray();
}

DomObject DomValue::toObject() const
{
    simdjson::dom::object object;
    if (m_defined && m_element.get_object().get(object) == simdjson::SUCCESS)
        return DomObject(object);
    return DomObject();
}

QVariant DomValue::toVariant() const
{
    qint64 whole = 0;
    if (integer(&whole))
        return QVariant(qlonglong(whole));
    if (isDouble())
        return QVariant(toDouble());
    return toJsonValue().toVariant();
}

QJsonValue DomValue::toJsonValue() const
{
    if (!m_defined)
        return QJsonValue(QJsonValue::Undefined);
    switch (m_element.type()) {
    case simdjson::dom::element_type::NULL_VALUE:
        return QJsonValue(QJsonValue::Null);
    case simdjson::dom::element_type::BOOL:
        return QJsonValue(toBool());
    case simdjson::dom::element_type::STRING:
        return QJsonValue(toString());
    case simdjson::dom::element_type::ARRAY: {
        QJsonArray array;
        for (const DomValue element : toArray())
            array.append(element.toJsonValue());
        return array;
    }
    case simdjson::dom::element_type::OBJECT: {
        QJsonObject object;
        const DomObject fields = toObject();
        for (auto it = fields.constBegin(); it != fields.constEnd(); ++it)
            object.insert(it.key(), it.value().toJsonValue());
        return object;
    }
    default: {
        qint64 whole = 0;
        return integer(&whole) ? QJsonValue(whole) : QJsonValue(toDouble());
    }
    }
}

int DomArray::size() const
{
    // simdjson counts up to 0xFFFFFF elements at once; a larger array is counted one by one.
    if (!m_valid)
        return 0;
    const size_t counted = m_array.size();
    if (counted < 0xFFFFFF)
        return int(counted);
    int size = 0;
    for (auto it = m_array.begin(), end = m_array.end(); it != end; ++it)
        ++size;
    return size;
}

const QVarLengthArray<DomObject::Field, 40> &DomObject::fields() const
{
    if (m_gathered || !m_valid)
        return m_fields;
    m_gathered = true;
    for (auto it = m_object.begin(), end = m_object.end(); it != end; ++it) {
        m_fields.append({ it.key_c_str(), it.key_length(), it.value() });
        m_keyMarks |= keyMark(it.key_c_str(), it.key_length());
    }
    return m_fields;
}

DomObject::const_iterator DomObject::search(QLatin1String key) const
{
    const quint32 size = quint32(key.size());
    // From the key after the last one found round to it.
    const int count = m_fields.size();
    for (int step = 0, at = m_next; step < count; ++step, at = at + 1 == count ? 0 : at + 1) {
        const Field &field = m_fields.at(at);
        if (field.size == size && (size == 0 || std::memcmp(field.key, key.data(), size) == 0)) {
            m_next = at + 1 == count ? 0 : at + 1;
            return const_iterator(&field);
        }
    }
    return constEnd();
}

void FieldKeys::add(const char *key, size_t size)
{
    m_keys.emplace_back(key, size);
    rebuild();
}

void FieldKeys::rebuild()
{
    size_t size = 2;
    while (size < 2 * m_keys.size())
        size *= 2;
    m_slots.assign(size, -1);
    const size_t mask = size - 1;
    for (size_t index = 0; index < m_keys.size(); ++index) {
        size_t slot = hash(m_keys[index].data(), m_keys[index].size()) & mask;
        while (m_slots[slot] >= 0)
            slot = (slot + 1) & mask;
        m_slots[slot] = int(index);
    }
}

} // namespace CodecDetail
