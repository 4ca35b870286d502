#include "datasetcodec.h"

#include "jsondom.h"
#include "namecache.h"
#include "recordreaders.h"
#include "typeregistry.h"

#include <QJsonDocument>
#include <QJsonParseError>
#include <QJsonValue>

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
    if (line.trimmed().isEmpty())
        return fail(error, QStringLiteral("the line is empty"));
    QString problem;
    simdjson::dom::element root;
    const StrictLine strict = parseStrictLine(line, &root, &problem);
    if (strict == StrictLine::Refused)
        return fail(error, problem);
    // The strict check has parsed the line already; read from that, unless Qt's reader could see it otherwise.
    if (strict == StrictLine::Parsed && root.is_object()) {
        const DomObject object = DomValue(root).toObject();
        if (!decodeObject(object, out, error))
            return false;
        if (extra)
            *extra = object.value(extraKey).toJsonValue();
        return true;
    }
    return decodeWithQt(line, out, error, extraKey, extra);
}

QStringList DatasetCodec::typeNames()
{
    QStringList names = registry().byName.keys();
    names.sort();
    return names;
}
