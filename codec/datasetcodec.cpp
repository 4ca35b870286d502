#include "datasetcodec.h"

#include "mmdatasets.h"
#include "wwtypes.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QJsonValue>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <optional>
#include <type_traits>

namespace {

// Integers beyond ±2^53 are not exact as JSON numbers in most readers, so they are written as decimal strings.
constexpr quint64 exactIntegerLimit = quint64(1) << 53;

template <typename T> struct IsOptional : std::false_type
{
};
template <typename T> struct IsOptional<std::optional<T>> : std::true_type
{
};

template <typename T> struct IsList : std::false_type
{
};
template <typename T> struct IsList<QList<T>> : std::true_type
{
};

using TextHash = QHash<QString, QString>;

// The name of each record type in error messages; the nested blocks of WwState are not registered meta-types.
template <typename T> constexpr const char *recordName = nullptr;
#define ORVIX_RECORD_NAME(T) template <> constexpr const char *recordName<T> = #T;
ORVIX_RECORD_NAME(StateV1)
ORVIX_RECORD_NAME(GeneralV1)
ORVIX_RECORD_NAME(NotificationsAddV1)
ORVIX_RECORD_NAME(NotificationsRemoveV1)
ORVIX_RECORD_NAME(NotificationsRemoveAllV1)
ORVIX_RECORD_NAME(ConditionDefinitionsV2)
ORVIX_RECORD_NAME(ConditionDefinitionV2)
ORVIX_RECORD_NAME(ConditionDatasV2)
ORVIX_RECORD_NAME(ConditionDataV2)
ORVIX_RECORD_NAME(MaintenanceDefinitionsV1)
ORVIX_RECORD_NAME(MaintenanceDefinitionV1)
ORVIX_RECORD_NAME(MaintenanceDatasV1)
ORVIX_RECORD_NAME(MaintenanceDataV1)
ORVIX_RECORD_NAME(SwVerV1)
ORVIX_RECORD_NAME(OrderV1)
ORVIX_RECORD_NAME(WwState)
ORVIX_RECORD_NAME(WwStateFlags)
ORVIX_RECORD_NAME(WwStateValues)
ORVIX_RECORD_NAME(WwIdentification)
ORVIX_RECORD_NAME(WwBaseEventType)
ORVIX_RECORD_NAME(WwCapabilities)
ORVIX_RECORD_NAME(WwManufacturerSpecific)
#undef ORVIX_RECORD_NAME

QString dateTimeText(const QDateTime &dateTime)
{
    // A local time would be written without its offset; the offset form names the same instant unambiguously.
    if (dateTime.timeSpec() == Qt::LocalTime)
        return dateTime.toOffsetFromUtc(dateTime.offsetFromUtc()).toString(Qt::ISODateWithMs);
    return dateTime.toString(Qt::ISODateWithMs);
}

/**
 * Appends the text of dateTimeText(), built directly from the numbers: writers stamp every dataset, and Qt's
 * general formatter costs more than the rest of a small dataset. Years outside 0 to 9999 take Qt's way.
 */
void appendDateTimeText(QByteArray &out, const QDateTime &dateTime)
{
    const int offset = dateTime.offsetFromUtc();
    const QDateTime shown = dateTime.timeSpec() == Qt::UTC ? dateTime : dateTime.toOffsetFromUtc(offset);
    const QDate date = shown.date();
    const QTime time = shown.time();
    if (date.year() < 0 || date.year() > 9999) {
        out += dateTimeText(dateTime).toLatin1();
        return;
    }
    char text[32];
    int length = std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03d", date.year(), date.month(),
        date.day(), time.hour(), time.minute(), time.second(), time.msec());
    if (shown.timeSpec() == Qt::UTC) {
        text[length++] = 'Z';
    } else {
        const int minutes = qAbs(offset) / 60;
        length += std::snprintf(
            text + length, sizeof text - length, "%c%02d:%02d", offset < 0 ? '-' : '+', minutes / 60, minutes % 60);
    }
    out.append(text, length);
}

// ---- Writing ----

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
        rawString(value.toUtf8());
    }

    /** Writes a Latin-1 text such as a type name; it needs no conversion. */
    void latin1String(const char *value) { rawString(QByteArray::fromRawData(value, int(qstrlen(value)))); }

    void dateTime(const QDateTime &value)
    {
        if (!value.isValid())
            null();
        else {
            m_out += '"';
            appendDateTimeText(m_out, value);
            m_out += '"';
        }
    }

    void key(const char *name, bool *first, const char *suffix = "")
    {
        if (!*first)
            m_out += ',';
        *first = false;
        m_out += '"';
        m_out += name;
        m_out += suffix;
        m_out += "\":";
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

void writeVariant(JsonWriter &writer, const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::Bool:
        writer.boolean(value.toBool());
        break;
    case QMetaType::Int:
    case QMetaType::LongLong:
        writer.integer(value.toLongLong());
        break;
    case QMetaType::UInt:
    case QMetaType::ULongLong:
        writer.unsignedInteger(value.toULongLong());
        break;
    case QMetaType::Double:
        writer.number(value.toDouble());
        break;
    case QMetaType::QString:
        writer.string(value.toString());
        break;
    default:
        writer.json(QJsonValue::fromVariant(value));
    }
}

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
    });
    writer.append('}');
}

// ---- Reading ----

QString fieldProblem(const char *field, const char *record, const QString &problem)
{
    return QStringLiteral("field \"%1\" of %2 %3").arg(QLatin1String(field), QLatin1String(record), problem);
}

QString nestedProblem(const char *field, const char *record, const QString &inner)
{
    return QStringLiteral("in field \"%1\" of %2: %3").arg(QLatin1String(field), QLatin1String(record), inner);
}

template <typename Record> bool readRecord(const QJsonObject &object, Record *out, QString *error);

template <typename T>
bool readInteger(const QJsonValue &json, T *out, const char *field, const char *record, QString *error)
{
    using Wide = std::conditional_t<std::is_signed_v<T>, qint64, quint64>;
    const QString range = QStringLiteral("must be a whole number from %1 to %2")
                              .arg(Wide(std::numeric_limits<T>::min()))
                              .arg(Wide(std::numeric_limits<T>::max()));
    Wide wide = 0;
    bool ok = false;
    if (json.isString()) {
        const QString text = json.toString();
        if constexpr (std::is_signed_v<T>)
            wide = text.toLongLong(&ok, 10);
        else if (!text.startsWith(QLatin1Char('-')))
            wide = text.toULongLong(&ok, 10);
    } else if (json.isDouble()) {
        const QVariant exact = json.toVariant();
        if (exact.userType() == QMetaType::LongLong) {
            const qint64 value = exact.toLongLong();
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
        *error = fieldProblem(field, record, range);
        return false;
    }
    *out = T(wide);
    return true;
}

bool readDouble(const QJsonValue &json, double *out, const char *field, const char *record, QString *error)
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

bool readString(const QJsonValue &json, QString *out, const char *field, const char *record, QString *error)
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

bool readDateTime(const QJsonValue &json, QDateTime *out, const char *field, const char *record, QString *error)
{
    if (json.isNull()) {
        *out = QDateTime();
        return true;
    }
    const QDateTime value = json.isString() ? QDateTime::fromString(json.toString(), Qt::ISODateWithMs) : QDateTime();
    if (!value.isValid()) {
        *error = fieldProblem(field, record, QStringLiteral("must be an ISO 8601 date-time or null"));
        return false;
    }
    *out = value;
    return true;
}

template <typename T>
bool readValue(const QJsonValue &json, T *out, const char *field, const char *record, QString *error)
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
        for (const QJsonValue element : json.toArray()) {
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
        const QJsonObject object = json.toObject();
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
        const QJsonArray array = json.toArray();
        T list;
        list.reserve(array.size());
        for (int i = 0; i < array.size(); ++i) {
            Element element {};
            QString inner;
            if (!array.at(i).isObject()) {
                inner = QStringLiteral("%1 must be an object").arg(QLatin1String(recordName<Element>));
            } else if (readRecord(array.at(i).toObject(), &element, &inner)) {
                list.append(element);
                continue;
            }
            *error = QStringLiteral("in item %1 of field \"%2\" of %3: %4")
                         .arg(QString::number(i), QLatin1String(field), QLatin1String(record), inner);
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

/** Reads a condition value: its JSON value and, under the field name followed by "Type", its exact type. */
bool readVariant(const QJsonObject &object, const char *field, const char *record, QVariant *out, QString *error)
{
    const auto valueIt = object.constFind(QLatin1String(field));
    if (valueIt == object.constEnd())
        return true;
    const QJsonValue json = valueIt.value();
    const QString typeField = QLatin1String(field) + QLatin1String("Type");
    const auto typeIt = object.constFind(typeField);

    if (typeIt == object.constEnd()) {
        if (json.isBool()) {
            *out = json.toBool();
        } else if (json.isDouble()) {
            const QVariant exact = json.toVariant();
            *out = exact.userType() == QMetaType::LongLong ? exact : QVariant(json.toDouble());
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

    if (!typeIt.value().isString()) {
        *error = QStringLiteral("field \"%1\" of %2 must be a string").arg(typeField, QLatin1String(record));
        return false;
    }
    const QString typeName = typeIt.value().toString();
    const int type = QMetaType::type(typeName.toLatin1().constData());
    switch (type) {
    case QMetaType::Bool: {
        bool value = false;
        if (!readValue(json, &value, field, record, error))
            return false;
        *out = value;
        return true;
    }
    case QMetaType::Int: {
        qint32 value = 0;
        if (!readInteger(json, &value, field, record, error))
            return false;
        *out = int(value);
        return true;
    }
    case QMetaType::UInt: {
        quint32 value = 0;
        if (!readInteger(json, &value, field, record, error))
            return false;
        *out = uint(value);
        return true;
    }
    case QMetaType::LongLong: {
        qint64 value = 0;
        if (!readInteger(json, &value, field, record, error))
            return false;
        *out = qlonglong(value);
        return true;
    }
    case QMetaType::ULongLong: {
        quint64 value = 0;
        if (!readInteger(json, &value, field, record, error))
            return false;
        *out = qulonglong(value);
        return true;
    }
    case QMetaType::Double: {
        double value = 0;
        if (!readDouble(json, &value, field, record, error))
            return false;
        *out = value;
        return true;
    }
    case QMetaType::QString: {
        QString value;
        if (!readString(json, &value, field, record, error))
            return false;
        *out = value;
        return true;
    }
    case QMetaType::UnknownType:
        *error = QStringLiteral("field \"%1\" of %2 names the unknown type \"%3\"")
                     .arg(typeField, QLatin1String(record), typeName);
        return false;
    default: {
        QVariant value = json.toVariant();
        if (!value.convert(type)) {
            *error = fieldProblem(field, record, QStringLiteral("cannot be read as %1").arg(typeName));
            return false;
        }
        *out = value;
        return true;
    }
    }
}

template <typename Record> bool readRecord(const QJsonObject &object, Record *out, QString *error)
{
    // Filled into a copy, so that a failure leaves nothing half done; missing keys keep the defaults.
    Record record {};
    bool ok = true;
    Record::visitFields([&](const char *name, auto member) {
        if (!ok)
            return;
        using Field = std::decay_t<decltype(record.*member)>;
        if constexpr (std::is_same_v<Field, QVariant>) {
            ok = readVariant(object, name, recordName<Record>, &(record.*member), error);
        } else {
            const auto it = object.constFind(QLatin1String(name));
            if (it == object.constEnd())
                return;
            if constexpr (IsOptional<Field>::value) {
                using Value = typename Field::value_type;
                // Numbers and flags have no null form, so for them null reads as absent.
                constexpr bool hasNullForm = std::is_same_v<Value, QString> || std::is_same_v<Value, QDateTime>;
                if (!hasNullForm && it.value().isNull())
                    return;
                Value value {};
                ok = readValue(it.value(), &value, name, recordName<Record>, error);
                if (ok)
                    record.*member = value;
            } else {
                ok = readValue(it.value(), &(record.*member), name, recordName<Record>, error);
            }
        }
    });
    if (ok)
        *out = record;
    return ok;
}

// ---- The table of known types ----

struct TypeEntry
{
    const char *name = nullptr;
    void (*write)(JsonWriter &, const QVariant &) = nullptr;
    bool (*read)(const QJsonObject &, QVariant *, QString *) = nullptr;
};

template <typename Record> TypeEntry entryFor()
{
    TypeEntry entry;
    entry.name = recordName<Record>;
    entry.write = [](JsonWriter &writer, const QVariant &data) {
        writeRecord(writer, *static_cast<const Record *>(data.constData()));
    };
    entry.read = [](const QJsonObject &object, QVariant *data, QString *error) {
        Record record {};
        if (!readRecord(object, &record, error))
            return false;
        *data = QVariant::fromValue(record);
        return true;
    };
    return entry;
}

struct Registry
{
    QHash<int, TypeEntry> byId;
    QHash<QString, TypeEntry> byName;

    template <typename Record> void add()
    {
        const TypeEntry entry = entryFor<Record>();
        byId.insert(qMetaTypeId<Record>(), entry);
        byName.insert(QLatin1String(entry.name), entry);
    }
};

const Registry &registry()
{
    // Built once, on first use, from whichever thread comes first.
    static const Registry table = [] {
        Registry r;
        r.add<StateV1>();
        r.add<GeneralV1>();
        r.add<NotificationsAddV1>();
        r.add<NotificationsRemoveV1>();
        r.add<NotificationsRemoveAllV1>();
        r.add<ConditionDefinitionsV2>();
        r.add<ConditionDefinitionV2>();
        r.add<ConditionDatasV2>();
        r.add<ConditionDataV2>();
        r.add<MaintenanceDefinitionsV1>();
        r.add<MaintenanceDefinitionV1>();
        r.add<MaintenanceDatasV1>();
        r.add<MaintenanceDataV1>();
        r.add<SwVerV1>();
        r.add<OrderV1>();
        r.add<WwState>();
        r.add<WwIdentification>();
        r.add<WwBaseEventType>();
        r.add<WwCapabilities>();
        r.add<WwManufacturerSpecific>();
        return r;
    }();
    return table;
}

bool fail(QString *error, const QString &problem)
{
    if (error)
        *error = problem;
    return false;
}

bool readEnvelopeString(const QJsonObject &object, const char *key, QString *out, QString *error)
{
    const QJsonValue value = object.value(QLatin1String(key));
    if (value.isUndefined() || value.isNull()) {
        *out = QString();
        return true;
    }
    if (!value.isString())
        return fail(error, QStringLiteral("\"%1\" must be a string or null").arg(QLatin1String(key)));
    *out = value.toString();
    if (out->isNull())
        *out = QLatin1String("");
    return true;
}

} // namespace

QJsonObject DatasetCodec::encode(
    const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    return QJsonDocument::fromJson(encodeLine(timestamp, machine, source, data)).object();
}

QByteArray DatasetCodec::encodeLine(
    const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    QByteArray line;
    line.reserve(256);
    JsonWriter writer(line);
    writer.append('{');
    bool first = true;
    writer.key("timestamp", &first);
    writer.dateTime(timestamp);
    writer.key("machine", &first);
    writer.string(machine);
    writer.key("source", &first);
    writer.string(source);
    writer.key("type", &first);
    const auto it = registry().byId.constFind(data.userType());
    if (it != registry().byId.constEnd()) {
        writer.string(QLatin1String(it->name));
        writer.key("data", &first);
        it->write(writer, data);
    } else {
        const char *typeName = data.typeName();
        writer.string(typeName ? QString::fromLatin1(typeName) : QString());
        writer.key("data", &first);
        writer.json(QJsonValue::fromVariant(data));
    }
    writer.append('}');
    return line;
}

bool DatasetCodec::decode(const QJsonObject &object, Dataset *out, QString *error)
{
    const auto typeIt = object.constFind(QLatin1String("type"));
    if (typeIt == object.constEnd())
        return fail(error, QStringLiteral("the dataset has no \"type\""));
    const auto dataIt = object.constFind(QLatin1String("data"));
    if (dataIt == object.constEnd())
        return fail(error, QStringLiteral("the dataset has no \"data\""));

    Dataset dataset;
    const QJsonValue timestamp = object.value(QLatin1String("timestamp"));
    if (!timestamp.isUndefined() && !timestamp.isNull()) {
        dataset.timestamp = QDateTime::fromString(timestamp.toString(), Qt::ISODateWithMs);
        if (!timestamp.isString() || !dataset.timestamp.isValid())
            return fail(error, QStringLiteral("\"timestamp\" must be an ISO 8601 date-time or null"));
    }
    QString problem;
    if (!readEnvelopeString(object, "machine", &dataset.machine, &problem)
        || !readEnvelopeString(object, "source", &dataset.source, &problem))
        return fail(error, problem);

    const QJsonValue data = dataIt.value();
    if (typeIt.value().isNull()) {
        // The form written for an empty value.
        if (!data.isNull())
            return fail(error, QStringLiteral("\"data\" must be null when \"type\" is null"));
    } else if (!typeIt.value().isString()) {
        return fail(error, QStringLiteral("\"type\" must be a string"));
    } else {
        const QString typeName = typeIt.value().toString();
        const auto entryIt = registry().byName.constFind(typeName);
        if (entryIt != registry().byName.constEnd()) {
            if (!data.isObject())
                return fail(error, QStringLiteral("\"data\" of %1 must be an object").arg(typeName));
            if (!entryIt->read(data.toObject(), &dataset.data, &problem))
                return fail(error, problem);
        } else {
            // Qt's own value types are read with Qt's conversion from JSON; other types cannot be rebuilt.
            const int type = QMetaType::type(typeName.toLatin1().constData());
            if (type == QMetaType::UnknownType || type >= QMetaType::User)
                return fail(error, QStringLiteral("unknown dataset type \"%1\"").arg(typeName));
            dataset.data = data.toVariant();
            if (!dataset.data.convert(type))
                return fail(error, QStringLiteral("\"data\" cannot be read as %1").arg(typeName));
        }
    }
    *out = dataset;
    return true;
}

bool DatasetCodec::decodeLine(const QByteArray &line, Dataset *out, QString *error)
{
    if (line.trimmed().isEmpty())
        return fail(error, QStringLiteral("the line is empty"));
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(line, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        return fail(error,
            QStringLiteral("the line is not valid JSON: %1 at offset %2")
                .arg(parseError.errorString())
                .arg(parseError.offset));
    if (!document.isObject())
        return fail(error, QStringLiteral("the line is not a JSON object"));
    return decode(document.object(), out, error);
}

QStringList DatasetCodec::typeNames()
{
    QStringList names = registry().byName.keys();
    names.sort();
    return names;
}
