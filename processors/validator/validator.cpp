#include "validator.h"

#include "listhandover.h"
#include "mmdatasets.h"
#include "validatorlogging.h"

namespace {

const QString TimestampInvalid = QStringLiteral("The timestamp is invalid. A valid timestamp is mandatory.");

/** The bool words, upper case, and the value each stands for. */
const QHash<QString, bool> &boolWords()
{
    static const QHash<QString, bool> words {
        { QStringLiteral("TRUE"), true },
        { QStringLiteral("YES"), true },
        { QStringLiteral("WAHR"), true },
        { QStringLiteral("JA"), true },
        { QStringLiteral("1"), true },
        { QStringLiteral("FALSE"), false },
        { QStringLiteral("NO"), false },
        { QStringLiteral("FALSCH"), false },
        { QStringLiteral("NEIN"), false },
        { QStringLiteral("0"), false },
    };
    return words;
}

} // namespace

Validator::Validator(QObject *parent)
    : QObject(parent)
{
    m_checks.insert(qMetaTypeId<StateV1>(), &Validator::checkState);
    m_checks.insert(qMetaTypeId<NotificationsAddV1>(), &Validator::checkNotificationAdd);
    m_checks.insert(qMetaTypeId<NotificationsRemoveV1>(), &Validator::checkNotificationRemove);
    m_checks.insert(qMetaTypeId<NotificationsRemoveAllV1>(), &Validator::checkNotificationRemoveAll);
    m_checks.insert(qMetaTypeId<ConditionDefinitionV2>(), &Validator::learnConditionDefinition);
    m_checks.insert(qMetaTypeId<ConditionDefinitionsV2>(), &Validator::learnConditionDefinitions);
    m_repairs.insert(qMetaTypeId<MaintenanceDefinitionsV1>(), &Validator::repairMaintenanceDefinitions);
    m_repairs.insert(qMetaTypeId<MaintenanceDefinitionV1>(), &Validator::repairMaintenanceDefinition);
    m_repairs.insert(qMetaTypeId<ConditionDataV2>(), &Validator::repairConditionData);
    m_repairs.insert(qMetaTypeId<ConditionDatasV2>(), &Validator::repairConditionDatas);
}

bool Validator::init(const QVariantMap &, QVariantMap &)
{
    return true;
}

QString Validator::name() const
{
    return QStringLiteral("Validator");
}

unsigned int Validator::orderNumber() const
{
    return 900;
}

void Validator::processData(
    const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    const int type = data.userType();

    const auto check = m_checks.constFind(type);
    if (check != m_checks.constEnd()) {
        QString reason;
        if (!(this->*check.value())(machine, reason, data)) {
            qCWarning(lcValidator) << QStringLiteral("Dataset %1 from %2(%3) is invalid: %4. Dropping it.")
                                          .arg(QString::fromLatin1(data.typeName()), machine, source, reason);
            return;
        }
    }

    const auto repair = m_repairs.constFind(type);
    if (repair != m_repairs.constEnd()) {
        QString reason;
        bool modified = false;
        const QVariant repaired = (this->*repair.value())(machine, reason, modified, data);
        if (modified) {
            qCDebug(lcValidator) << QStringLiteral("Dataset %1 from %2(%3) was modified: %4.")
                                        .arg(QString::fromLatin1(data.typeName()), machine, source, reason);
            emit dataProcessed(timestamp, machine, source, repaired);
            return;
        }
    }

    emit dataProcessed(timestamp, machine, source, data);
}

bool Validator::checkState(const QString &, QString &reason, const QVariant &data)
{
    const StateV1 state = qvariant_cast<StateV1>(data);
    if (state.state >= StateV1::Offline && state.state <= StateV1::Error)
        return true;
    reason = QStringLiteral("received State %1. Only states between including 1 and 7 are valid!").arg(state.state);
    return false;
}

bool Validator::checkNotificationAdd(const QString &, QString &reason, const QVariant &data)
{
    const NotificationsAddV1 notification = qvariant_cast<NotificationsAddV1>(data);
    if (!notification.timestamp.isValid()) {
        reason = TimestampInvalid;
        return false;
    }
    if (notification.message.isEmpty()) {
        reason = QStringLiteral("The message is missing or empty. A valid message is mandatory.");
        return false;
    }
    if (notification.messageCode.isEmpty() || notification.messageCode == QLatin1String("0")) {
        reason = QStringLiteral("The message code is empty or \"0\". A valid message code is mandatory.");
        return false;
    }
    return true;
}

bool Validator::checkNotificationRemove(const QString &, QString &reason, const QVariant &data)
{
    // Unlike a new notification, an acknowledgement tests its id before its timestamp.
    const NotificationsRemoveV1 acknowledgement = qvariant_cast<NotificationsRemoveV1>(data);
    if (acknowledgement.id.isEmpty()) {
        reason = QStringLiteral("ID is missing or empty. To acknowledge a specific notification. The ID is mandatory.");
        return false;
    }
    if (!acknowledgement.timestamp.isValid()) {
        reason = TimestampInvalid;
        return false;
    }
    return true;
}

bool Validator::checkNotificationRemoveAll(const QString &, QString &reason, const QVariant &data)
{
    if (!qvariant_cast<NotificationsRemoveAllV1>(data).timestamp.isValid()) {
        reason = TimestampInvalid;
        return false;
    }
    return true;
}

bool Validator::learnConditionDefinition(const QString &machine, QString &, const QVariant &data)
{
    const ConditionDefinitionV2 definition = qvariant_cast<ConditionDefinitionV2>(data);
    m_machines[machine].types.insert(definition.id, definition.dataType);
    return true;
}

bool Validator::learnConditionDefinitions(const QString &machine, QString &, const QVariant &data)
{
    const ConditionDefinitionsV2 definitions = qvariant_cast<ConditionDefinitionsV2>(data);
    ConditionTypes &types = m_machines[machine].types;
    for (const ConditionDefinitionV2 &definition : definitions.items)
        types.insert(definition.id, definition.dataType);
    return true;
}

QVariant Validator::repairMaintenanceDefinitions(const QString &, QString &reason, bool &modified, const QVariant &data)
{
    MaintenanceDefinitionsV1 definitions = qvariant_cast<MaintenanceDefinitionsV1>(data);
    // One reason for the whole list: an item without a code that finds none sets it back to the single item's text.
    for (int i = 0; i < definitions.items.size(); ++i) {
        if (!definitions.items.at(i).unitCode.isEmpty())
            continue;
        MaintenanceDefinitionV1 definition = definitions.items.at(i);
        if (addUnitCode(definition, reason)) {
            definitions.items[i] = definition;
            modified = true;
            reason = QStringLiteral("Added UnitCode");
        }
    }
    return modified ? QVariant::fromValue(definitions) : data;
}

QVariant Validator::repairMaintenanceDefinition(const QString &, QString &reason, bool &modified, const QVariant &data)
{
    MaintenanceDefinitionV1 definition = qvariant_cast<MaintenanceDefinitionV1>(data);
    if (!addUnitCode(definition, reason))
        return data;
    modified = true;
    return QVariant::fromValue(definition);
}

QVariant Validator::repairConditionData(const QString &machine, QString &reason, bool &modified, const QVariant &data)
{
    const auto known = m_machines.constFind(machine);
    if (known == m_machines.constEnd())
        return data;
    ConditionDataV2 item = qvariant_cast<ConditionDataV2>(data);
    QVariant converted;
    if (!convertConditionValue(known->types, machine, item, converted, reason))
        return data;
    item.value = converted;
    modified = true;
    return QVariant::fromValue(item);
}

QVariant Validator::repairConditionDatas(const QString &machine, QString &reason, bool &modified, const QVariant &data)
{
    const auto known = m_machines.find(machine);
    if (known == m_machines.end())
        return data;
    // The repair table is keyed by the exact type id, so the variant holds a ConditionDatasV2.
    const QList<ConditionDataV2> &items = static_cast<const ConditionDatasV2 *>(data.constData())->items;
    // Only text is converted: a list known to hold none needs no look at its items, which a machine's steady updates
    // send again and again.
    const QList<ConditionDataV2> &textFree = known->textFree;
    if (ListHandover::sameList(items, textFree))
        return data;
    ConditionDatasV2 datas;
    bool text = false;
    for (int i = 0; i < items.size(); ++i) {
        if (items.at(i).value.userType() != QMetaType::QString)
            continue;
        text = true;
        QVariant converted;
        QString itemReason;
        if (convertConditionValue(known->types, machine, items.at(i), converted, itemReason)) {
            if (!modified)
                datas = qvariant_cast<ConditionDatasV2>(data);
            datas.items[i].value = converted;
            modified = true;
            reason = itemReason;
        }
    }
    if (!text)
        known->textFree = items;
    return modified ? QVariant::fromValue(datas) : data;
}

bool Validator::addUnitCode(MaintenanceDefinitionV1 &definition, QString &reason)
{
    if (!definition.unitCode.isEmpty())
        return false;
    // Set even when no code is found; it is only reported together with a change.
    reason = QStringLiteral("Added unitcode to maintenance");

    const QString unit = definition.unitText.toUpper();
    if (unit == QLatin1String("STUNDEN") || unit == QLatin1String("HOURS") || unit == QLatin1String("H"))
        definition.unitCode = QStringLiteral("HUR");
    else if (unit == QLatin1String("SEKUNDEN") || unit == QLatin1String("SECONDS") || unit == QLatin1String("S"))
        definition.unitCode = QStringLiteral("SEC");
    else if (definition.unitText == QLatin1String("#"))
        definition.unitCode = QStringLiteral("NPT");
    else
        return false;
    return true;
}

bool Validator::convertConditionValue(const ConditionTypes &types, const QString &machine, const ConditionDataV2 &item,
    QVariant &converted, QString &reason)
{
    // Only text is converted; the type test comes first because it is cheaper than the lookup.
    if (item.value.userType() != QMetaType::QString)
        return false;
    const auto type = types.constFind(item.id);
    if (type == types.constEnd())
        return false;

    const QString text = item.value.toString();
    bool ok = false;
    switch (type.value()) {
    case ConditionDefinitionV2::Integer: {
        const int value = text.toInt(&ok, 10);
        if (!ok) {
            qCWarning(lcValidator) << QStringLiteral("Couldn't interpret %1 from %2 as Integer").arg(text, machine);
            return false;
        }
        converted = QVariant(value);
        reason = QStringLiteral("Changed Variant Datatype from String to Int");
        return true;
    }
    case ConditionDefinitionV2::FloatingPoint: {
        const double value = text.toDouble(&ok);
        if (!ok) {
            qCWarning(lcValidator) << QStringLiteral("Couldn't interpret %1 from %2 as Double").arg(text, machine);
            return false;
        }
        converted = QVariant(value);
        reason = QStringLiteral("Changed Variant Datatype from String to Double");
        return true;
    }
    case ConditionDefinitionV2::Boolean: {
        const auto word = boolWords().constFind(text.toUpper());
        if (word == boolWords().constEnd()) {
            qCWarning(lcValidator) << QStringLiteral("Couldn't interpret %1 from %2 as Bool").arg(text, machine);
            return false;
        }
        converted = QVariant(word.value());
        reason = QStringLiteral("Changed Variant Datatype from String to Bool");
        return true;
    }
    default:
        return false;
    }
}
