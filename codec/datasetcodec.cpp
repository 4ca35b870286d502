#include "datasetcodec.h"

#include "strictjson.h"
#include "typeregistry.h"

#include <QJsonDocument>
#include <QJsonParseError>
#include <QJsonValue>

using namespace CodecDetail;

namespace {

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
    QString problem;
    if (!StrictJson::check(line, &problem))
        return fail(error, problem);
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
