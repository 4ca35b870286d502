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
#include <string>
#include <string_view>
#include <vector>

namespace CodecDetail {

class DomArray;
class DomObject;

/**
 * Whether two byte ranges of size bytes are equal, compared in words where they are short, as the keys of datasets
 * are: a call of memcmp per key costs more than the comparison.
 */
inline bool sameBytes(const char *a, const char *b, size_t size)
{
    const auto word = [](const char *at) {
        quint64 value;
        std::memcpy(&value, at, sizeof value);
        return value;
    };
    if (size >= 8 && size <= 16)
        return word(a) == word(b) && word(a + size - 8) == word(b + size - 8);
    if (size > 16 && size <= 32)
        return word(a) == word(b) && word(a + 8) == word(b + 8) && word(a + size - 16) == word(b + size - 16)
            && word(a + size - 8) == word(b + size - 8);
    return std::memcmp(a, b, size) == 0;
}

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

    /** Whether Qt's reader holds this number as an integer, and which: toVariant() gives a qlonglong then. */
    bool integer(qint64 *value) const;

private:
    bool is(simdjson::dom::element_type type) const { return m_defined && m_element.type() == type; }

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
 * The keys of an object, gathered into a flat table when first asked for. Looking a key up starts after the last one
 * found, because the records' readers ask for their fields in the order the writer put them; a key that is not there
 * is mostly known to be missing from a summary of the keys' lengths and last characters, without comparing it with
 * each. The record readers walk the object itself instead (forEachField), once, without the table.
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
    explicit DomObject(simdjson::dom::object object)
        : m_object(object)
        , m_valid(true)
    {
    }

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

    const_iterator constBegin() const { return const_iterator(fields().constData()); }
    const_iterator constEnd() const
    {
        const QVarLengthArray<Field, 40> &all = fields();
        return const_iterator(all.constData() + all.size());
    }
    const_iterator constFind(QLatin1String key) const
    {
        const QVarLengthArray<Field, 40> &all = fields();
        if (!(m_keyMarks & keyMark(key.data(), size_t(key.size()))))
            return constEnd();
        // Mostly the key after the last one found.
        if (m_next < all.size()) {
            const Field &field = all[m_next];
            // An empty key may come without characters, a null pointer that memcmp must not see.
            if (field.size == quint32(key.size())
                && (field.size == 0 || std::memcmp(field.key, key.data(), field.size) == 0)) {
                m_next = m_next + 1 == all.size() ? 0 : m_next + 1;
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

    /** Calls visit(key, size, value) for every field of the object, in its order. */
    template <typename Visitor> void forEachField(Visitor &&visit) const
    {
        if (!m_valid)
            return;
        for (auto it = m_object.begin(), end = m_object.end(); it != end; ++it)
            visit(it.key_c_str(), size_t(it.key_length()), DomValue(it.value()));
    }

private:
    const QVarLengthArray<Field, 40> &fields() const;
    const_iterator search(QLatin1String key) const;
    static quint64 keyMark(const char *key, size_t size)
    {
        return size == 0 ? 1 : quint64(1) << ((size * 7 + uchar(key[size - 1])) & 63);
    }

    simdjson::dom::object m_object;
    // A value that is not an object reads as an empty one, as in Qt.
    bool m_valid = false;
    mutable bool m_gathered = false;
    mutable QVarLengthArray<Field, 40> m_fields;
    // One bit per key, from keyMark(): a key whose bit is clear is not in the object.
    mutable quint64 m_keyMarks = 0;
    mutable int m_next = 0;
};

/**
 * The keys of a record type's fields, each with its index, found from a key's bytes with one hash: a condition value's
 * field has two keys, its own and the one of its type (the field name followed by "Type"). Built once per type.
 */
class FieldKeys
{
public:
    /** Adds a key; its index is the number of keys added before it. */
    void add(const char *key, size_t size);
    /** The index of the key, or -1. */
    int find(const char *key, size_t size) const
    {
        const size_t mask = m_slots.size() - 1;
        for (size_t slot = hash(key, size) & mask;; slot = (slot + 1) & mask) {
            const int index = m_slots[slot];
            if (index < 0)
                return -1;
            const std::string &known = m_keys[size_t(index)];
            if (known.size() == size && sameBytes(known.data(), key, size))
                return index;
        }
    }
    /** Whether the key is the one of index, as the next key of a record mostly is: checked before the hash. */
    bool is(int index, const char *key, size_t size) const
    {
        if (index >= int(m_keys.size()))
            return false;
        const std::string &known = m_keys[size_t(index)];
        return known.size() == size && sameBytes(known.data(), key, size);
    }
    int count() const { return int(m_keys.size()); }

private:
    /** From the length and three characters: the field names of one record mostly differ there. */
    static size_t hash(const char *key, size_t size)
    {
        if (size == 0)
            return 0;
        const size_t h = ((size * 131 + uchar(key[0])) * 131 + uchar(key[size - 1])) * 131 + uchar(key[size / 2]);
        return h ^ (h >> 7);
    }
    void rebuild();

    std::vector<std::string> m_keys;
    // Open addressing over at least twice as many slots as keys: -1 free, otherwise a key's index.
    std::vector<int> m_slots { -1, -1 };
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
