#include "recordreaders.h"

#include <QVarLengthArray>

namespace CodecDetail {

QString fieldProblem(const char *field, const char *record, const QString &problem)
{
    return QStringLiteral("field \"%1\" of %2 %3").arg(QLatin1String(field), QLatin1String(record), problem);
}

QString nestedProblem(const char *field, const char *record, const QString &inner)
{
    return QStringLiteral("in field \"%1\" of %2: %3").arg(QLatin1String(field), QLatin1String(record), inner);
}

namespace {

ushort unit(QChar c)
{
    return c.unicode();
}

ushort unit(char c)
{
    return uchar(c);
}

/** The number of count decimal digits at text[from], or -1. */
template <typename Char> int digits(const Char *text, int from, int count)
{
    int value = 0;
    for (int i = from; i < from + count; ++i) {
        const ushort c = unit(text[i]);
        if (c < '0' || c > '9')
            return -1;
        value = value * 10 + (c - '0');
    }
    return value;
}

/**
 * The date-time of the form the writer gives every date-time in UTC, read straight from its digits: Qt's general
 * reader costs more than the rest of a small dataset. It gives what Qt::ISODateWithMs gives; any other form, an
 * invalid date-time.
 */
template <typename Char> QDateTime utcDateTime(const Char *c, int size)
{
    const auto is = [c](int index, char expected) { return unit(c[index]) == ushort(expected); };
    if (size != 24 || !is(4, '-') || !is(7, '-') || !is(10, 'T') || !is(13, ':') || !is(16, ':') || !is(19, '.')
        || !is(23, 'Z'))
        return QDateTime();
    const int year = digits(c, 0, 4);
    const QDate date(year, digits(c, 5, 2), digits(c, 8, 2));
    const QTime time(digits(c, 11, 2), digits(c, 14, 2), digits(c, 17, 2), digits(c, 20, 3));
    if (year < 1 || !date.isValid() || !time.isValid())
        return QDateTime();
    return QDateTime(date, time, Qt::UTC);
}

} // namespace

QDateTime dateTimeFromText(const QString &text)
{
    const QDateTime utc = utcDateTime(text.constData(), text.size());
    return utc.isValid() ? utc : QDateTime::fromString(text, Qt::ISODateWithMs);
}

QDateTime dateTimeOf(const QJsonValue &json)
{
    return dateTimeFromText(json.toString());
}

QDateTime writerUtcDateTime(const char *text, int size)
{
    return utcDateTime(text, size);
}

QDateTime dateTimeOf(const DomValue &json)
{
    // Straight from the line's bytes, without a text made first.
    const std::string_view utf8 = json.utf8();
    const QDateTime utc = utcDateTime(utf8.data(), int(utf8.size()));
    return utc.isValid() ? utc : dateTimeFromText(json.toString());
}

template <typename Json>
bool readDouble(const Json &json, double *out, const char *field, const char *record, QString *error)
{
    if (json.isDouble()) {
        *out = json.toDouble();
        return true;
    }
    if (json.isString()) {
        const QString text = json.toString();
        if (text == QLatin1String("NaN")) {
            *out = std::numeric_limits<double>::quiet_NaN();
            return true;
        }
        if (text == QLatin1String("Infinity") || text == QLatin1String("-Infinity")) {
            *out = text.startsWith(QLatin1Char('-')) ? -std::numeric_limits<double>::infinity()
                                                     : std::numeric_limits<double>::infinity();
            return true;
        }
    }
    *error = fieldProblem(field, record, QStringLiteral("must be a number"));
    return false;
}

template <typename Json>
bool readString(const Json &json, QString *out, const char *field, const char *record, QString *error)
{
    if (json.isNull()) {
        *out = QString();
        return true;
    }
    if (!json.isString()) {
        *error = fieldProblem(field, record, QStringLiteral("must be a string or null"));
        return false;
    }
    *out = json.toString();
    // Qt hands out an empty JSON string as a null QString; the difference is part of the record.
    if (out->isNull())
        *out = QLatin1String("");
    return true;
}

template <typename Json>
bool readDateTime(const Json &json, QDateTime *out, const char *field, const char *record, QString *error)
{
    if (json.isNull()) {
        *out = QDateTime();
        return true;
    }
    const QDateTime value = json.isString() ? dateTimeOf(json) : QDateTime();
    if (!value.isValid()) {
        *error = fieldProblem(field, record, QStringLiteral("must be an ISO 8601 date-time or null"));
        return false;
    }
    *out = value;
    return true;
}

template <typename Json>
using TypedRead = bool (*)(const Json &json, QVariant *out, const char *field, const char *record, QString *error);

/** Reads the JSON value as Wire, as a record's field of that type is read, and keeps it in the variant as Stored. */
template <typename Wire, typename Stored, typename Json>
bool readTyped(const Json &json, QVariant *out, const char *field, const char *record, QString *error)
{
    Wire value {};
    if (!readValue(json, &value, field, record, error))
        return false;
    *out = QVariant::fromValue(Stored(value));
    return true;
}

template <typename Json>
bool readBase64(const Json &json, QVariant *out, const char *field, const char *record, QString *error)
{
    QString text;
    if (!readString(json, &text, field, record, error))
        return false;
    const auto decoded = QByteArray::fromBase64Encoding(text.toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || !text.isSimpleText()) {
        *error = fieldProblem(field, record, QStringLiteral("must be base64 text"));
        return false;
    }
    *out = *decoded;
    return true;
}

/** How a value of a type the writer names is read; null for the types that QVariant converts to. */
template <typename Json> TypedRead<Json> typedReader(int type)
{
    struct Entry
    {
        int type;
        TypedRead<Json> read;
    };
    static const Entry table[] = {
        { QMetaType::Bool, &readTyped<bool, bool, Json> },
        { QMetaType::Int, &readTyped<qint32, int, Json> },
        { QMetaType::UInt, &readTyped<quint32, uint, Json> },
        { QMetaType::LongLong, &readTyped<qint64, qlonglong, Json> },
        { QMetaType::ULongLong, &readTyped<quint64, qulonglong, Json> },
        { QMetaType::Double, &readTyped<double, double, Json> },
        { QMetaType::QString, &readTyped<QString, QString, Json> },
        { QMetaType::Char, &readTyped<qint8, char, Json> },
        { QMetaType::SChar, &readTyped<qint8, signed char, Json> },
        { QMetaType::UChar, &readTyped<quint8, uchar, Json> },
        { QMetaType::QChar, &readTyped<quint16, QChar, Json> },
        { QMetaType::Float, &readTyped<double, float, Json> },
        { QMetaType::QByteArray, &readBase64<Json> },
    };
    for (const Entry &entry : table) {
        if (entry.type == type)
            return entry.read;
    }
    return nullptr;
}

template <typename Object>
bool readVariant(const Object &object, const char *field, const char *record, QVariant *out, QString *error)
{
    const auto valueIt = object.constFind(QLatin1String(field));
    if (valueIt == object.constEnd())
        return true;
    QVarLengthArray<char, 64> typeKey;
    typeKey.append(field, int(qstrlen(field)));
    typeKey.append("Type", 4);
    // Undefined when the object has no such key.
    const auto type = object.value(QLatin1String(typeKey.constData(), typeKey.size()));
    return readVariantOf(valueIt.value(), type, field, record, out, error);
}

template <typename Json>
bool readVariantOf(
    const Json &json, const Json &type, const char *field, const char *record, QVariant *out, QString *error)
{
    if (json.isUndefined())
        return true;
    if (type.isUndefined()) {
        if (json.isBool()) {
            *out = json.toBool();
        } else if (json.isDouble()) {
            qint64 whole = 0;
            *out = wholeNumber(json, &whole) ? QVariant(qlonglong(whole)) : QVariant(json.toDouble());
        } else if (json.isString()) {
            *out = json.toString();
        } else if (json.isNull()) {
            *out = QVariant();
        } else {
            *error = fieldProblem(field, record, QStringLiteral("must be true, false, a number, a string or null"));
            return false;
        }
        return true;
    }

    const QString typeField = QLatin1String(field) + QLatin1String("Type");
    if (!type.isString()) {
        *error = QStringLiteral("field \"%1\" of %2 must be a string").arg(typeField, QLatin1String(record));
        return false;
    }
    const QString typeName = type.toString();
    const int typeId = QMetaType::type(typeName.toLatin1().constData());
    if (typeId == QMetaType::UnknownType) {
        *error = QStringLiteral("field \"%1\" of %2 names the unknown type \"%3\"")
                     .arg(typeField, QLatin1String(record), typeName);
        return false;
    }
    if (const auto read = typedReader<Json>(typeId))
        return read(json, out, field, record, error);
    QVariant value = json.toVariant();
    if (!value.convert(typeId)) {
        *error = fieldProblem(field, record, QStringLiteral("cannot be read as %1").arg(typeName));
        return false;
    }
    *out = value;
    return true;
}

template bool readDouble(const QJsonValue &, double *, const char *, const char *, QString *);
template bool readDouble(const DomValue &, double *, const char *, const char *, QString *);
template bool readString(const QJsonValue &, QString *, const char *, const char *, QString *);
template bool readString(const DomValue &, QString *, const char *, const char *, QString *);
template bool readDateTime(const QJsonValue &, QDateTime *, const char *, const char *, QString *);
template bool readDateTime(const DomValue &, QDateTime *, const char *, const char *, QString *);
template bool readVariant(const QJsonObject &, const char *, const char *, QVariant *, QString *);
template bool readVariant(const DomObject &, const char *, const char *, QVariant *, QString *);
template bool readVariantOf(const QJsonValue &, const QJsonValue &, const char *, const char *, QVariant *, QString *);
template bool readVariantOf(const DomValue &, const DomValue &, const char *, const char *, QVariant *, QString *);

} // namespace CodecDetail
