#ifndef ORVIX_JSONDOM_H
#define ORVIX_JSONDOM_H

// The strict reader's parsed line, seen through the same calls as Qt's QJsonValue and QJsonObject, so that one set of
// record readers serves both. A number is what Qt's reader makes of it: a whole number that fits 64 bits signed is an
// integer, any other a double. Private to the codec.

#include <QJsonValue>
#include <QLatin1String>
#include <QString>
#include <QVarLengthArray>
#include <QVariant>

#include <simdjson.h>

#include <cstdint>
#include <cstring>
#include <string_view>

namespace CodecDetail {

class DomArray;
class DomObject;

/** One value of a parsed line, or undefined (a key that is not there). */
class DomValue
{
public:
    DomValue() = default;
    explicit DomValue(simdjson::dom::element element)
        : m_element(element)
        , m_defined(true)
    {
    }

    bool isUndefined() const { return !m_defined; }
    bool isNull() const { return is(simdjson::dom::element_type::NULL_VALUE); }
    bool isBool() const { return is(simdjson::dom::element_type::BOOL); }
    bool isString() const { return is(simdjson::dom::element_type::STRING); }
    bool isArray() const { return is(simdjson::dom::element_type::ARRAY); }
    bool isObject() const { return is(simdjson::dom::element_type::OBJECT); }
    /** Any number, as Qt calls every JSON number a double. */
    bool isDouble() const
    {
        return m_defined && (m_element.is_int64() || m_element.is_uint64() || m_element.is_double());
    }

    bool toBool() const { return isBool() && m_element.get_bool().value_unsafe(); }
    double toDouble() const;
    QString toString() const;
    /** A string's UTF-8 bytes, as the line has them once unescaped; empty for anything else. */
    std::string_view utf8() const;
    DomArray toArray() const;
    DomObject toObject() const;
    /** As QJsonValue::toVariant(): an integer as qlonglong, any other number as double. */
    QVariant toVariant() const;
    /** The same value as Qt's reader gives it. */
    QJsonValue toJsonValue() const;

private:
    bool is(simdjson::dom::element_type type) const { return m_defined && m_element.type() == type; }
    /** Whether Qt's reader holds this number as an integer, and which. */
    bool integer(qint64 *value) const;

    simdjson::dom::element m_element;
    bool m_defined = false;
};

/** The elements of an array, in their order. */
class DomArray
{
public:
    DomArray() = default;
    explicit DomArray(simdjson::dom::array array)
        : m_array(array)
        , m_valid(true)
    {
    }

    class const_iterator
    {
    public:
        explicit const_iterator(simdjson::dom::array::iterator it)
            : m_it(it)
        {
        }
        DomValue operator*() const { return DomValue(*m_it); }
        const_iterator &operator++()
        {
            ++m_it;
            return *this;
        }
        bool operator!=(const const_iterator &other) const { return m_it != other.m_it; }

    private:
        simdjson::dom::array::iterator m_it;
    };

    int size() const;
    const_iterator begin() const { return const_iterator(m_valid ? m_array.begin() : Iterator()); }
    const_iterator end() const { return const_iterator(m_valid ? m_array.end() : Iterator()); }

private:
    using Iterator = simdjson::dom::array::iterator;

    simdjson::dom::array m_array;
    // A value that is not an array reads as an empty one, as in Qt.
    bool m_valid = false;
};

/**
 * The keys of an object, gathered once into a flat table. Looking a key up starts after the last one found, because
 * the records' readers ask for their fields in the order the writer put them; a key that is not there is mostly known
 * to be missing from a summary of the keys' lengths and last characters, without comparing it with each.
 */
class DomObject
{
    struct Field
    {
        const char *key;
        quint32 size;
        simdjson::dom::element value;
    };

public:
    DomObject() = default;
    explicit DomObject(simdjson::dom::object object);

    class const_iterator
    {
    public:
        explicit const_iterator(const Field *field)
            : m_field(field)
        {
        }
        QString key() const { return QString::fromUtf8(m_field->key, int(m_field->size)); }
        DomValue value() const { return DomValue(m_field->value); }
        const_iterator &operator++()
        {
            ++m_field;
            return *this;
        }
        bool operator==(const const_iterator &other) const { return m_field == other.m_field; }
        bool operator!=(const const_iterator &other) const { return m_field != other.m_field; }

    private:
        const Field *m_field;
    };

    const_iterator constBegin() const { return const_iterator(m_fields.constData()); }
    const_iterator constEnd() const { return const_iterator(m_fields.constData() + m_fields.size()); }
    const_iterator constFind(QLatin1String key) const
    {
        if (!(m_keyMarks & keyMark(key.data(), size_t(key.size()))))
            return constEnd();
        // Mostly the key after the last one found.
        if (m_next < m_fields.size()) {
            const Field &field = m_fields[m_next];
            if (field.size == quint32(key.size()) && std::memcmp(field.key, key.data(), field.size) == 0) {
                m_next = m_next + 1 == m_fields.size() ? 0 : m_next + 1;
                return const_iterator(&field);
            }
        }
        return search(key);
    }
    DomValue value(QLatin1String key) const
    {
        const const_iterator it = constFind(key);
        return it == constEnd() ? DomValue() : it.value();
    }

private:
    const_iterator search(QLatin1String key) const;
    static quint64 keyMark(const char *key, size_t size)
    {
        return size == 0 ? 1 : quint64(1) << ((size * 7 + uchar(key[size - 1])) & 63);
    }

    // A value that is not an object reads as an empty one, as in Qt.
    QVarLengthArray<Field, 40> m_fields;
    // One bit per key, from keyMark(): a key whose bit is clear is not in the object.
    quint64 m_keyMarks = 0;
    mutable int m_next = 0;
};

/** How a strictly checked line is to be read. */
enum class StrictLine {
    /** Refused, with the reason. */
    Refused,
    /** Through the parsed line: Qt's reader would read the same values. */
    Parsed,
    /**
     * Through Qt's reader: the line holds a number whose reading by Qt the parsed line cannot tell (a zero, which Qt
     * refuses when it is an underflow, or a whole number of 2^62 or more written as a floating-point number).
     */
    QtOnly,
};

/**
 * Checks text as StrictJson::check does and keeps the parsed line in root, valid until the next call on the same
 * thread.
 */
StrictLine parseStrictLine(const QByteArray &text, simdjson::dom::element *root, QString *error);

} // namespace CodecDetail

#endif
