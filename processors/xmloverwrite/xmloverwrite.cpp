#include "xmloverwrite.h"

#include "maintenancedefinitionsv1.h"
#include "xmloverwritelogging.h"

#include <QFile>
#include <QXmlStreamReader>

XmlOverwrite::XmlOverwrite(QObject *parent)
    : QObject(parent)
    , m_maintenanceDefinitionsType(qMetaTypeId<MaintenanceDefinitionsV1>())
{
}

bool XmlOverwrite::init(const QVariantMap &config, QVariantMap &)
{
    m_comments.clear();
    const QVariantMap group = config.value(QStringLiteral("xmlOverwrite")).toMap();
    for (auto machine = group.cbegin(); machine != group.cend(); ++machine) {
        const QString path = machine.value().toMap().value(QStringLiteral("xml")).toString();
        if (path.isEmpty()) {
            qCWarning(lcXmlOverwrite) << QStringLiteral("xml parameter is missing for machine %1").arg(machine.key());
            continue;
        }
        readFile(machine.key(), path);
    }
    return true;
}

QString XmlOverwrite::name() const
{
    return QStringLiteral("Xml Overwrite");
}

unsigned int XmlOverwrite::orderNumber() const
{
    return 600;
}

void XmlOverwrite::processData(
    const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    if (data.userType() != m_maintenanceDefinitionsType) {
        emit dataProcessed(timestamp, machine, source, data);
        return;
    }
    const auto comments = m_comments.constFind(machine);
    if (comments == m_comments.cend()) {
        emit dataProcessed(timestamp, machine, source, data);
        return;
    }

    MaintenanceDefinitionsV1 definitions = qvariant_cast<MaintenanceDefinitionsV1>(data);
    bool changed = false;
    for (int i = 0; i < definitions.items.size(); ++i) {
        const auto comment = comments->constFind(definitions.items.at(i).id);
        if (comment == comments->cend())
            continue;
        definitions.items[i].comment = comment.value();
        changed = true;
    }
    emit dataProcessed(timestamp, machine, source, changed ? QVariant::fromValue(definitions) : data);
}

void XmlOverwrite::readFile(const QString &machine, const QString &path)
{
    qCDebug(lcXmlOverwrite) << QStringLiteral("Parsing xmloverwrite %1 for machine %2").arg(path, machine);

    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        qCWarning(lcXmlOverwrite) << QStringLiteral("Couldn't open file %1").arg(path);
        return;
    }

    QXmlStreamReader reader(&file);
    if (!reader.readNextStartElement() || reader.name() != QLatin1String("MaintenanceComponents"))
        return;

    Comments comments;
    // Every start element of the document in turn; an XML error makes the reader end, keeping what was stored.
    while (!reader.atEnd() && !reader.hasError()) {
        if (!reader.readNextStartElement() || reader.name() != QLatin1String("MaintenanceComponent"))
            continue;
        const QXmlStreamAttributes attributes = reader.attributes();
        if (!attributes.hasAttribute(QLatin1String("ID"))) {
            qCWarning(lcXmlOverwrite) << QStringLiteral("ID missing at Line %1.").arg(reader.lineNumber());
            continue;
        }
        readComponent(reader, attributes.value(QLatin1String("ID")).toString(), comments);
    }

    // Machines without comments stay out of the table, so their datasets pass without being unpacked.
    if (!comments.isEmpty())
        m_comments.insert(machine, comments);
}

void XmlOverwrite::readComponent(QXmlStreamReader &reader, const QString &id, Comments &comments)
{
    // Reads up to the component's own end element, so that a comment inside another element of it counts as well.
    int depth = 1;
    while (depth > 0 && !reader.atEnd() && !reader.hasError()) {
        reader.readNext();
        if (reader.isEndElement()) {
            --depth;
        } else if (reader.isStartElement()) {
            if (reader.name() != QLatin1String("Comment")) {
                ++depth;
                continue;
            }
            qCDebug(lcXmlOverwrite) << QStringLiteral("Overwrite comment for Maintenance %1").arg(id);
            const QString text = reader.readElementText();
            // A comment cut short by an XML error is not the operator's text; it is not stored.
            if (reader.hasError())
                return;
            // The records keep an empty comment as an empty, not a null, text.
            comments.insert(id, text.isNull() ? QLatin1String("") : text);
        }
    }
}
