#ifndef ORVIX_JSONWRITER_H
#define ORVIX_JSONWRITER_H

// The codec's JSON writer: compact JSON text appended to a byte array, and the writing of every record type by its
// field list. Private to the codec.

#include "recordtraits.h"

#include <QByteArray>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QVarLengthArray>
#include <QVariant>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace CodecDetail {

/** A date-time as the codec writes it: ISO 8601 with milliseconds, with its offset (Z for UTC). */
QString dateTimeText(const QDateTime &dateTime);

/**
 * Appends dateTime to out as ISO 8601 with milliseconds, built straight from the numbers: with its offset, or in UTC
 * (Z) when it is UTC or its offset has seconds. False, with nothing appended, for a year outside 1 to 9999, which no
 * reader of the line could take.
 */
bool appendDateTimeText(QByteArray &out, const QDateTime &dateTime);

/** Appends JSON text to a byte array; the caller places the commas. */
class JsonWriter
{
public:
    explicit JsonWriter(QByteArray &out)
        : m_out(out)
    {
    }

    void null() { m_out += "null"; }

    void boolean(bool value) { m_out += value ? "true" : "false"; }

    void integer(qint64 value)
    {
        const bool exact = value >= -qint64(exactIntegerLimit) && value <= qint64(exactIntegerLimit);
        if (!exact)
            m_out += '"';
        m_out += QByteArray::number(value);
        if (!exact)
            m_out += '"';
    }

    void unsignedInteger(quint64 value)
    {
        const bool exact = value <= exactIntegerLimit;
        if (!exact)
            m_out += '"';
        m_out += QByteArray::number(value);
        if (!exact)
            m_out += '"';
    }

    void number(double value)
    {
        // JSON has no form for these; they travel as the words that JavaScript prints for them.
        if (std::isnan(value))
            m_out += "\"NaN\"";
        else if (std::isinf(value))
            m_out += value > 0 ? "\"Infinity\"" : "\"-Infinity\"";
        else
            m_out += QByteArray::number(value, 'g', QLocale::FloatingPointShortest);
    }

    void string(const QString &value)
    {
        if (value.isNull()) {
            null();
            return;
        }
        // Nearly every text is ASCII that needs no escape: written straight from its characters, without a UTF-8
        // copy made first.
        const QChar *text = value.constData();
        const int size = value.size();
        for (int i = 0; i < size; ++i) {
            const ushort c = text[i].unicode();
            if (c < 0x20 || c >= 0x80 || c == '"' || c == '\\') {
                rawString(value.toUtf8());
                return;
            }
        }
        const int at = m_out.size();
        m_out.resize(at + size + 2);
        char *out = m_out.data() + at;
        *out++ = '"';
        for (int i = 0; i < size; ++i)
            *out++ = char(text[i].unicode());
        *out = '"';
    }

    /** Writes a Latin-1 text such as a type name; it needs no conversion. */
    void latin1String(const char *value) { rawString(QByteArray::fromRawData(value, int(qstrlen(value)))); }

    void dateTime(const QDateTime &value)
    {
        if (!value.isValid()) {
            null();
            return;
        }
        m_out += '"';
        if (!appendDateTimeText(m_out, value) && m_problem.isEmpty())
            m_problem = QStringLiteral("holds a date-time outside the years 1 to 9999");
        m_out += '"';
    }

    /** What could not be written in a form that reads back, empty if everything could. */
    const QString &problem() const { return m_problem; }
    /** Names the field in which the problem arose, the innermost first. */
    void nameProblemField(const char *field)
    {
        if (m_problem.isEmpty() || m_problemNamed)
            return;
        m_problem = QStringLiteral("field \"%1\" %2").arg(QLatin1String(field), m_problem);
        m_problemNamed = true;
    }

    /** Writes bytes known to be ASCII, such as base64, as a string. */
    void latin1Bytes(const QByteArray &value) { rawString(value); }

    void key(const char *name, bool *first, const char *suffix = "")
    {
        // The keys are the field names: put together on the stack and appended at once.
        const size_t nameSize = std::strlen(name);
        const size_t suffixSize = std::strlen(suffix);
        QVarLengthArray<char, 96> text;
        if (!*first)
            text.append(',');
        *first = false;
        text.append('"');
        text.append(name, int(nameSize));
        text.append(suffix, int(suffixSize));
        text.append("\":", 2);
        m_out.append(text.constData(), text.size());
    }

    void key(const QString &name, bool *first)
    {
        if (!*first)
            m_out += ',';
        *first = false;
        string(name);
        m_out += ':';
    }

    void json(const QJsonValue &value)
    {
        // Qt writes only documents, so the value is wrapped in an array and unwrapped again.
        const QByteArray array = QJsonDocument(QJsonArray { value }).toJson(QJsonDocument::Compact);
        m_out += array.mid(1, array.size() - 2);
    }

    void append(char c) { m_out += c; }

private:
    QString m_problem;
    bool m_problemNamed = false;

    void rawString(const QByteArray &utf8)
    {
        m_out += '"';
        int clean = 0;
        for (int i = 0; i < utf8.size(); ++i) {
            const uchar c = uchar(utf8.at(i));
            if (c >= 0x20 && c != '"' && c != '\\')
                continue;
            m_out.append(utf8.constData() + clean, i - clean);
            clean = i + 1;
            switch (c) {
            case '"':
                m_out += "\\\"";
                break;
            case '\\':
                m_out += "\\\\";
                break;
            case '\n':
                m_out += "\\n";
                break;
            case '\r':
                m_out += "\\r";
                break;
            case '\t':
                m_out += "\\t";
                break;
            default: {
                static const char hex[] = "0123456789abcdef";
                const char escape[] = { '\\', 'u', '0', '0', hex[c >> 4], hex[c & 0xf] };
                m_out.append(escape, sizeof escape);
            }
            }
        }
        m_out.append(utf8.constData() + clean, utf8.size() - clean);
        m_out += '"';
    }

    QByteArray &m_out;
};

template <typename Record> void writeRecord(JsonWriter &writer, const Record &record);

/** Writes a condition value as its JSON value. */
void writeVariant(JsonWriter &writer, const QVariant &value);

template <typename T> void writeValue(JsonWriter &writer, const T &value)
{
    if constexpr (std::is_same_v<T, QString>) {
        writer.string(value);
    } else if constexpr (std::is_same_v<T, bool>) {
        writer.boolean(value);
    } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
        writer.integer(value);
    } else if constexpr (std::is_integral_v<T>) {
        writer.unsignedInteger(value);
    } else if constexpr (std::is_floating_point_v<T>) {
        writer.number(value);
    } else if constexpr (std::is_same_v<T, QDateTime>) {
        writer.dateTime(value);
    } else if constexpr (std::is_same_v<T, QStringList>) {
        writer.append('[');
        for (int i = 0; i < value.size(); ++i) {
            if (i > 0)
                writer.append(',');
            writer.string(value.at(i));
        }
        writer.append(']');
    } else if constexpr (std::is_same_v<T, TextHash>) {
        // Sorted, so that equal hashes give equal lines.
        QStringList keys = value.keys();
        std::sort(keys.begin(), keys.end());
        bool first = true;
        writer.append('{');
        for (const QString &key : qAsConst(keys)) {
            writer.key(key, &first);
            writer.string(value.value(key));
        }
        writer.append('}');
    } else if constexpr (IsList<T>::value) {
        writer.append('[');
        for (int i = 0; i < value.size(); ++i) {
            if (i > 0)
                writer.append(',');
            writeRecord(writer, value.at(i));
        }
        writer.append(']');
    } else {
        writeRecord(writer, value);
    }
}

template <typename Record> void writeRecord(JsonWriter &writer, const Record &record)
{
    bool first = true;
    writer.append('{');
    Record::visitFields([&](const char *name, auto member) {
        const auto &field = record.*member;
        using Field = std::decay_t<decltype(field)>;
        if constexpr (IsOptional<Field>::value) {
            if (field.has_value()) {
                writer.key(name, &first);
                writeValue(writer, *field);
            }
        } else if constexpr (std::is_same_v<Field, QVariant>) {
            writer.key(name, &first);
            writeVariant(writer, field);
            if (field.isValid()) {
                writer.key(name, &first, "Type");
                writer.latin1String(field.typeName());
            }
        } else {
            writer.key(name, &first);
            writeValue(writer, field);
        }
        writer.nameProblemField(name);
    });
    writer.append('}');
}

} // namespace CodecDetail

#endif
