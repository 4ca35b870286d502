#include "datasetcodec.h"

#include "jsondom.h"
#include "namecache.h"
#include "recordreaders.h"
#include "typeregistry.h"

#include <QJsonDocument>
#include <QJsonParseError>
#include <QJsonValue>
#include <QVector>

#include <cstring>
#include <utility>

using namespace CodecDetail;

namespace {

bool fail(QString *error, const QString &problem)
{
    if (error)
        *error = problem;
    return false;
}

template <typename Object> bool readEnvelopeString(const Object &object, const char *key, QString *out, QString *error)
{
    const auto value = object.value(QLatin1String(key));
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

/**
 * The same from the parsed line, the text shared with the earlier datasets of this thread that named the same machine
 * or source: a name is made once, not once per dataset, and the processors' look-ups by name compare pointers.
 */
bool readEnvelopeString(const DomObject &object, const char *key, QString *out, QString *error)
{
    const DomValue value = object.value(QLatin1String(key));
    if (value.isUndefined() || value.isNull()) {
        *out = QString();
        return true;
    }
    if (!value.isString())
        return fail(error, QStringLiteral("\"%1\" must be a string or null").arg(QLatin1String(key)));
    thread_local NameCache names;
    const std::string_view utf8 = value.utf8();
    *out = names.intern(utf8.data(), int(utf8.size()));
    return true;
}

/** Reads a dataset from Qt's JSON object or from the strict reader's parsed line, with the same result. */
template <typename Object> bool decodeObject(const Object &object, DatasetCodec::Dataset *out, QString *error)
{
    const auto typeIt = object.constFind(QLatin1String("type"));
    if (typeIt == object.constEnd())
        return fail(error, QStringLiteral("the dataset has no \"type\""));
    const auto dataIt = object.constFind(QLatin1String("data"));
    if (dataIt == object.constEnd())
        return fail(error, QStringLiteral("the dataset has no \"data\""));

    DatasetCodec::Dataset dataset;
    const auto timestamp = object.value(QLatin1String("timestamp"));
    if (!timestamp.isUndefined() && !timestamp.isNull()) {
        dataset.timestamp = dateTimeOf(timestamp);
        if (!timestamp.isString() || !dataset.timestamp.isValid())
            return fail(error, QStringLiteral("\"timestamp\" must be an ISO 8601 date-time or null"));
    }
    QString problem;
    if (!readEnvelopeString(object, "machine", &dataset.machine, &problem)
        || !readEnvelopeString(object, "source", &dataset.source, &problem))
        return fail(error, problem);

    const auto data = dataIt.value();
    if (typeIt.value().isNull()) {
        // The form written for an empty value.
        if (!data.isNull())
            return fail(error, QStringLiteral("\"data\" must be null when \"type\" is null"));
    } else if (!typeIt.value().isString()) {
        return fail(error, QStringLiteral("\"type\" must be a string"));
    } else if (const TypeEntry *entry = registry().find(typeIt.value())) {
        if (!data.isObject())
            return fail(error, QStringLiteral("\"data\" of %1 must be an object").arg(QLatin1String(entry->name)));
        if (!entry->readFrom(data.toObject(), &dataset.data, &problem))
            return fail(error, problem);
    } else {
        const QString typeName = typeIt.value().toString();
        // Qt's own value types are read with Qt's conversion from JSON; other types cannot be rebuilt.
        const int type = QMetaType::type(typeName.toLatin1().constData());
        if (type == QMetaType::UnknownType || type >= QMetaType::User)
            return fail(error, QStringLiteral("unknown dataset type \"%1\"").arg(typeName));
        dataset.data = data.toVariant();
        if (!dataset.data.convert(type))
            return fail(error, QStringLiteral("\"data\" cannot be read as %1").arg(typeName));
    }
    *out = std::move(dataset);
    return true;
}

/** Reads a line that the strict check let through with Qt's reader, the way every line was read before. */
bool decodeWithQt(
    const QByteArray &line, DatasetCodec::Dataset *out, QString *error, QLatin1String extraKey, QJsonValue *extra)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(line, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        return fail(error,
            QStringLiteral("the line is not valid JSON: %1 at offset %2")
                .arg(parseError.errorString())
                .arg(parseError.offset));
    if (!document.isObject())
        return fail(error, QStringLiteral("the line is not a JSON object"));
    const QJsonObject object = document.object();
    if (!decodeObject(object, out, error))
        return false;
    if (extra)
        *extra = object.value(extraKey);
    return true;
}

/**
 * The last line decoded of each machine: machines send the same record again and again, and a line that equals an
 * earlier one but for its time stamp is the same dataset with another time stamp, read without parsing it again.
 * Only lines in the writer's own form, which starts with the time stamp in UTC with milliseconds, are kept, each
 * under the bytes that follow the time stamp (the machine's name among them), in a fixed number of slots and up to
 * a fixed number of bytes in all; any other line is decoded as always.
 */
class RepeatedLines
{
public:
    /**
     * Where the bytes after the time stamp's text start in a line of the writer's form, with the time stamp, or -1.
     * The time stamp's characters are digits and separators only, so the quote after them ends it in every such line.
     */
    static int restOf(const QByteArray &line, QDateTime *timestamp)
    {
        static const char Prefix[] = "{\"timestamp\":\"";
        constexpr int PrefixSize = sizeof Prefix - 1;
        constexpr int Rest = PrefixSize + TimestampSize;
        if (line.size() <= Rest || line.size() > MaxLineBytes || line.at(Rest) != '"'
            || std::memcmp(line.constData(), Prefix, PrefixSize) != 0)
            return -1;
        *timestamp = writerUtcDateTime(line.constData() + PrefixSize, TimestampSize);
        return timestamp->isValid() ? Rest : -1;
    }

    /** The dataset of an earlier line equal to this one after rest, with this line's time stamp; false if none. */
    bool find(const QByteArray &line, int rest, const QDateTime &timestamp, QLatin1String extraKey,
        DatasetCodec::Dataset *out, QJsonValue *extra) const
    {
        if (m_slots.isEmpty())
            return false;
        const Slot &slot = m_slots.at(slotOf(line, rest));
        const int size = line.size() - rest;
        // QLatin1String's comparison, since memcmp may not be handed the null pointer of an empty key.
        if (slot.rest.size() != size || QLatin1String(slot.extraKey) != extraKey
            || std::memcmp(slot.rest.constData(), line.constData() + rest, size_t(size)) != 0)
            return false;
        *out = slot.dataset;
        out->timestamp = timestamp;
        if (extra)
            *extra = slot.extra;
        return true;
    }

    /** Keeps the dataset that the line decoded to, in place of the one of the same slot. */
    void keep(const QByteArray &line, int rest, QLatin1String extraKey, const DatasetCodec::Dataset &dataset,
        const QJsonValue &extra)
    {
        if (m_slots.isEmpty())
            m_slots.resize(Slots);
        Slot &slot = m_slots[slotOf(line, rest)];
        const int size = line.size() - rest;
        if (m_bytes - slot.rest.capacity() + size > MaxBytes)
            return;
        m_bytes -= slot.rest.capacity();
        // The slot's bytes are reused: a machine's changed record allocates nothing once its slot is big enough.
        slot.rest.resize(size);
        std::memcpy(slot.rest.data(), line.constData() + rest, size_t(size));
        m_bytes += slot.rest.capacity();
        slot.extraKey = QByteArray(extraKey.data(), extraKey.size());
        slot.dataset = dataset;
        slot.extra = extra;
    }

private:
    struct Slot
    {
        QByteArray rest;
        QByteArray extraKey;
        DatasetCodec::Dataset dataset;
        QJsonValue extra;
    };

    static constexpr int TimestampSize = 24;
    static constexpr int MaxLineBytes = 4096;
    static constexpr qint64 MaxBytes = 8 * 1024 * 1024;
    static constexpr int Slots = 8192;
    // The bytes after the time stamp that choose the slot: the machine's name is among them.
    static constexpr int SlotKeyBytes = 64;

    static int slotOf(const QByteArray &line, int rest)
    {
        const int size = qMin(SlotKeyBytes, line.size() - rest);
        uint hash = uint(size);
        for (int i = 0; i < size; ++i)
            hash = hash * 31 + uchar(line.at(rest + i));
        return int((hash ^ (hash >> 13)) & (Slots - 1));
    }

    QVector<Slot> m_slots;
    qint64 m_bytes = 0;
};

} // namespace

QJsonObject DatasetCodec::encode(
    const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    return QJsonDocument::fromJson(encodeLine(timestamp, machine, source, data)).object();
}

QByteArray DatasetCodec::encodeLine(
    const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data, QString *error)
{
    QByteArray line;
    line.reserve(256);
    JsonWriter writer(line);
    writer.append('{');
    bool first = true;
    writer.key("timestamp", &first);
    writer.dateTime(timestamp);
    writer.nameProblemField("timestamp");
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
    // A line that would not read back as the same dataset is not written at all.
    if (!writer.problem().isEmpty()) {
        if (error)
            *error = writer.problem();
        return QByteArray();
    }
    return line;
}

bool DatasetCodec::decode(const QJsonObject &object, Dataset *out, QString *error)
{
    return decodeObject(object, out, error);
}

bool DatasetCodec::decodeLine(const QByteArray &line, Dataset *out, QString *error)
{
    return decodeLine(line, out, error, QLatin1String(), nullptr);
}

bool DatasetCodec::decodeLine(
    const QByteArray &line, Dataset *out, QString *error, QLatin1String extraKey, QJsonValue *extra)
{
    thread_local RepeatedLines repeated;
    QDateTime timestamp;
    const int rest = RepeatedLines::restOf(line, &timestamp);
    if (rest >= 0 && repeated.find(line, rest, timestamp, extraKey, out, extra))
        return true;
    if (line.trimmed().isEmpty())
        return fail(error, QStringLiteral("the line is empty"));
    QString problem;
    simdjson::dom::element root;
    const StrictLine strict = parseStrictLine(line, &root, &problem);
    if (strict == StrictLine::Refused)
        return fail(error, problem);
    Dataset dataset;
    QJsonValue extraValue(QJsonValue::Undefined);
    // The strict check has parsed the line already; read from that, unless Qt's reader could see it otherwise.
    if (strict == StrictLine::Parsed && root.is_object()) {
        const DomObject object = DomValue(root).toObject();
        if (!decodeObject(object, &dataset, error))
            return false;
        extraValue = object.value(extraKey).toJsonValue();
    } else if (!decodeWithQt(line, &dataset, error, extraKey, &extraValue)) {
        return false;
    }
    if (rest >= 0)
        repeated.keep(line, rest, extraKey, dataset, extraValue);
    *out = std::move(dataset);
    if (extra)
        *extra = extraValue;
    return true;
}

QStringList DatasetCodec::typeNames()
{
    QStringList names = registry().byName.keys();
    names.sort();
    return names;
}
