#ifndef ORVIX_RECORDREADERS_H
#define ORVIX_RECORDREADERS_H

// The codec's record readers: each record type read from a JSON object by its field list, a field at a time, with a
// sentence naming the first problem. Each reads Qt's JSON values and the strict reader's parsed line alike (Json is
// QJsonValue or DomValue, Object QJsonObject or DomObject), so that both give the same records and the same
// sentences. Private to the codec.

#include "jsondom.h"
#include "recordtraits.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QVariant>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace CodecDetail {

QString fieldProblem(const char *field, const char *record, const QString &problem);

QString nestedProblem(const char *field, const char *record, const QString &inner);

/** A date-time as ISO 8601 with milliseconds reads it (Qt::ISODateWithMs); invalid when it is none. */
QDateTime dateTimeFromText(const QString &text);

/**
 * The date-time of text in the one form the writer gives a date-time in UTC (24 characters, milliseconds and Z), as
 * dateTimeFromText() reads it; invalid for any other text.
 */
QDateTime writerUtcDateTime(const char *text, int size);

/** The date-time of a JSON string, as dateTimeFromText() reads its text; invalid for anything else. */
QDateTime dateTimeOf(const QJsonValue &json);
QDateTime dateTimeOf(const DomValue &json);

template <typename Json>
bool readDouble(const Json &json, double *out, const char *field, const char *record, QString *error);

template <typename Json>
bool readString(const Json &json, QString *out, const char *field, const char *record, QString *error);

template <typename Json>
bool readDateTime(const Json &json, QDateTime *out, const char *field, const char *record, QString *error);

/** Reads a condition value: its JSON value and, under the field name followed by "Type", its exact type. */
template <typename Object>
bool readVariant(const Object &object, const char *field, const char *record, QVariant *out, QString *error);

/** The same from the two values, each undefined when its key is not there. */
template <typename Json>
bool readVariantOf(
    const Json &json, const Json &type, const char *field, const char *record, QVariant *out, QString *error);

/** Whether Qt's reader holds the number as an integer, and which. */
inline bool wholeNumber(const QJsonValue &json, qint64 *value)
{
    const QVariant exact = json.toVariant();
    if (exact.userType() != QMetaType::LongLong)
        return false;
    *value = exact.toLongLong();
    return true;
}
inline bool wholeNumber(const DomValue &json, qint64 *value)
{
    return json.integer(value);
}

template <typename Record, typename Object> bool readRecord(const Object &object, Record *out, QString *error);
template <typename Record> bool readRecord(const DomObject &object, Record *out, QString *error);

template <typename T, typename Json>
bool readInteger(const Json &json, T *out, const char *field, const char *record, QString *error)
{
    using Wide = std::conditional_t<std::is_signed_v<T>, qint64, quint64>;
    Wide wide = 0;
    bool ok = false;
    if (json.isString()) {
        const QString text = json.toString();
        if constexpr (std::is_signed_v<T>)
            wide = text.toLongLong(&ok, 10);
        else if (!text.startsWith(QLatin1Char('-')))
            wide = text.toULongLong(&ok, 10);
    } else if (json.isDouble()) {
        qint64 value = 0;
        if (wholeNumber(json, &value)) {
            ok = std::is_signed_v<T> || value >= 0;
            wide = Wide(value);
        } else {
            // Only whole numbers beyond the 64-bit signed range arrive here as floating point.
            const double value = json.toDouble();
            ok = !std::is_signed_v<T> && value >= 0 && value < 18446744073709551616.0 && std::floor(value) == value;
            if (ok)
                wide = Wide(value);
        }
    } else {
        *error = fieldProblem(field, record, QStringLiteral("must be a number"));
        return false;
    }
    if constexpr (sizeof(T) < sizeof(Wide))
        ok = ok && wide >= Wide(std::numeric_limits<T>::min()) && wide <= Wide(std::numeric_limits<T>::max());
    if (!ok) {
        *error = fieldProblem(field, record,
            QStringLiteral("must be a whole number from %1 to %2")
                .arg(Wide(std::numeric_limits<T>::min()))
                .arg(Wide(std::numeric_limits<T>::max())));
        return false;
    }
    *out = T(wide);
    return true;
}

template <typename T, typename Json>
bool readValue(const Json &json, T *out, const char *field, const char *record, QString *error)
{
    if constexpr (std::is_same_v<T, QString>) {
        return readString(json, out, field, record, error);
    } else if constexpr (std::is_same_v<T, bool>) {
        if (!json.isBool()) {
            *error = fieldProblem(field, record, QStringLiteral("must be true or false"));
            return false;
        }
        *out = json.toBool();
        return true;
    } else if constexpr (std::is_integral_v<T>) {
        return readInteger(json, out, field, record, error);
    } else if constexpr (std::is_same_v<T, double>) {
        return readDouble(json, out, field, record, error);
    } else if constexpr (std::is_same_v<T, QDateTime>) {
        return readDateTime(json, out, field, record, error);
    } else if constexpr (std::is_same_v<T, QStringList>) {
        if (!json.isArray()) {
            *error = fieldProblem(field, record, QStringLiteral("must be an array of strings"));
            return false;
        }
        QStringList list;
        const auto array = json.toArray();
        for (const Json element : array) {
            QString text;
            if (!readString(element, &text, field, record, error)) {
                *error = fieldProblem(field, record, QStringLiteral("must be an array of strings"));
                return false;
            }
            list.append(text);
        }
        *out = list;
        return true;
    } else if constexpr (std::is_same_v<T, TextHash>) {
        const auto object = json.toObject();
        TextHash hash;
        bool ok = json.isObject();
        for (auto it = object.constBegin(); ok && it != object.constEnd(); ++it) {
            QString text;
            ok = readString(it.value(), &text, field, record, error);
            hash.insert(it.key(), text);
        }
        if (!ok) {
            *error = fieldProblem(field, record, QStringLiteral("must be an object of strings"));
            return false;
        }
        *out = hash;
        return true;
    } else if constexpr (IsList<T>::value) {
        using Element = typename T::value_type;
        if (!json.isArray()) {
            *error = fieldProblem(field, record,
                QStringLiteral("must be an array of %1 objects").arg(QLatin1String(recordName<Element>)));
            return false;
        }
        const auto array = json.toArray();
        T list;
        list.reserve(array.size());
        int index = 0;
        for (const Json item : array) {
            Element element {};
            QString inner;
            if (!item.isObject()) {
                inner = QStringLiteral("%1 must be an object").arg(QLatin1String(recordName<Element>));
            } else if (readRecord(item.toObject(), &element, &inner)) {
                list.append(element);
                ++index;
                continue;
            }
            *error = QStringLiteral("in item %1 of field \"%2\" of %3: %4")
                         .arg(QString::number(index), QLatin1String(field), QLatin1String(record), inner);
            return false;
        }
        *out = list;
        return true;
    } else {
        if (!json.isObject()) {
            *error = fieldProblem(field, record, QStringLiteral("must be an object"));
            return false;
        }
        QString inner;
        if (!readRecord(json.toObject(), out, &inner)) {
            *error = nestedProblem(field, record, inner);
            return false;
        }
        return true;
    }
}

/** The names of a record's fields in the order of visitFields, measured once rather than for every record read. */
template <typename Record> const std::vector<QLatin1String> &fieldKeys()
{
    static const std::vector<QLatin1String> keys = [] {
        std::vector<QLatin1String> list;
        Record::visitFields([&](const char *name, auto) { list.emplace_back(name); });
        return list;
    }();
    return keys;
}

/** Reads one field of a record that is not a condition value from its JSON value, which is there. */
template <typename Record, typename Field, typename Json>
bool readField(const Json &json, Field *out, const char *name, QString *error)
{
    if constexpr (IsOptional<Field>::value) {
        using Value = typename Field::value_type;
        // Numbers and flags have no null form, so for them null reads as absent.
        constexpr bool hasNullForm = std::is_same_v<Value, QString> || std::is_same_v<Value, QDateTime>;
        if (!hasNullForm && json.isNull())
            return true;
        Value value {};
        if (!readValue(json, &value, name, recordName<Record>, error))
            return false;
        *out = std::move(value);
        return true;
    } else {
        return readValue(json, out, name, recordName<Record>, error);
    }
}

template <typename Record, typename Object> bool readRecord(const Object &object, Record *out, QString *error)
{
    // Filled into a copy, so that a failure leaves nothing half done; missing keys keep the defaults.
    Record record {};
    bool ok = true;
    const std::vector<QLatin1String> &keys = fieldKeys<Record>();
    size_t index = 0;
    Record::visitFields([&](const char *name, auto member) {
        const QLatin1String key = keys[index++];
        if (!ok)
            return;
        using Field = std::decay_t<decltype(record.*member)>;
        if constexpr (std::is_same_v<Field, QVariant>) {
            ok = readVariant(object, name, recordName<Record>, &(record.*member), error);
        } else {
            const auto it = object.constFind(key);
            if (it != object.constEnd())
                ok = readField<Record>(it.value(), &(record.*member), name, error);
        }
    });
    if (ok)
        *out = std::move(record);
    return ok;
}

/**
 * A record's keys for the parsed line: each field's key in the order of visitFields, a condition value's followed by
 * its type key. Built once per record type.
 */
template <typename Record> const FieldKeys &parsedKeys()
{
    static const FieldKeys keys = [] {
        FieldKeys table;
        Record::visitFields([&](const char *name, auto member) {
            table.add(name, std::strlen(name));
            using Field = std::decay_t<decltype(std::declval<Record>().*member)>;
            if constexpr (std::is_same_v<Field, QVariant>)
                table.add((std::string(name) + "Type").data(), std::strlen(name) + 4);
        });
        return table;
    }();
    return keys;
}

/**
 * Reads a record from the parsed line as the general reader does, with the same result and the same first problem:
 * the object's fields are walked once and each key found by its hash, instead of each field's key looked for.
 */
template <typename Record> bool readRecord(const DomObject &object, Record *out, QString *error)
{
    const FieldKeys &keys = parsedKeys<Record>();
    QVarLengthArray<DomValue, 64> values(keys.count());
    // The writer puts the keys in the order of the fields: mostly the next key is the one after the last found.
    int next = 0;
    object.forEachField([&](const char *key, size_t size, const DomValue &value) {
        const int index = keys.is(next, key, size) ? next : keys.find(key, size);
        if (index >= 0) {
            values[index] = value;
            next = index + 1;
        }
    });
    Record record {};
    bool ok = true;
    int index = 0;
    Record::visitFields([&](const char *name, auto member) {
        using Field = std::decay_t<decltype(record.*member)>;
        const int at = index;
        index += std::is_same_v<Field, QVariant> ? 2 : 1;
        if (!ok)
            return;
        if constexpr (std::is_same_v<Field, QVariant>)
            ok = readVariantOf(values[at], values[at + 1], name, recordName<Record>, &(record.*member), error);
        else if (!values[at].isUndefined())
            ok = readField<Record>(values[at], &(record.*member), name, error);
    });
    if (ok)
        *out = std::move(record);
    return ok;
}

} // namespace CodecDetail

#endif
