#include "jsondom.h"

#include <QJsonArray>
#include <QJsonObject>

#include <cmath>

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
    for (auto it = m_array.begin(); it != m_array.end(); ++it)
        ++size;
    return size;
}

DomObject::DomObject(simdjson::dom::object object)
    : m_object(object)
    , m_valid(true)
    , m_next(object.begin())
{
    for (auto it = m_object.begin(); it != m_object.end(); ++it)
        m_keyMarks |= keyMark(it.key_c_str(), it.key_length());
}

QString DomObject::const_iterator::key() const
{
    return QString::fromUtf8(m_it.key_c_str(), int(m_it.key_length()));
}

DomObject::const_iterator DomObject::constFind(QLatin1String key) const
{
    const size_t size = size_t(key.size());
    if (!m_valid || !(m_keyMarks & keyMark(key.data(), size)))
        return constEnd();
    const auto end = m_object.end();
    const std::string_view wanted(key.data(), size);
    // From the key after the last one found to the end, then from the start to it.
    for (int pass = 0; pass < 2; ++pass) {
        const auto from = pass == 0 ? m_next : m_object.begin();
        const auto to = pass == 0 ? end : m_next;
        for (auto it = from; it != to; ++it) {
            if (it.key_length() == size && it.key_equals(wanted)) {
                auto next = it;
                m_next = ++next;
                return const_iterator(it);
            }
        }
    }
    return const_iterator(end);
}

} // namespace CodecDetail
