#include "unitoverwrite.h"

#include "conditiondatasv2.h"
#include "conditiondatav2.h"
#include "conditiondefinitionsv2.h"
#include "conditiondefinitionv2.h"
#include "maintenancedatasv1.h"
#include "maintenancedatav1.h"
#include "maintenancedefinitionsv1.h"
#include "maintenancedefinitionv1.h"

namespace {

QString scaledText(double value, double factor)
{
    return QString::number(value * factor, 'g', 6);
}

} // namespace

UnitOverwrite::UnitOverwrite(QObject *parent)
    : QObject(parent)
    , m_maintenanceDefinitionsType(qMetaTypeId<MaintenanceDefinitionsV1>())
    , m_maintenanceDefinitionType(qMetaTypeId<MaintenanceDefinitionV1>())
    , m_maintenanceDatasType(qMetaTypeId<MaintenanceDatasV1>())
    , m_maintenanceDataType(qMetaTypeId<MaintenanceDataV1>())
    , m_conditionDefinitionsType(qMetaTypeId<ConditionDefinitionsV2>())
    , m_conditionDefinitionType(qMetaTypeId<ConditionDefinitionV2>())
    , m_conditionDatasType(qMetaTypeId<ConditionDatasV2>())
    , m_conditionDataType(qMetaTypeId<ConditionDataV2>())
{
}

bool UnitOverwrite::init(const QVariantMap &config, QVariantMap &)
{
    m_overrides.clear();
    const QVariantMap group = config.value(QStringLiteral("unitOverwrite")).toMap();
    for (auto machine = group.cbegin(); machine != group.cend(); ++machine) {
        MachineOverrides &overrides = m_overrides[machine.key()];
        const QVariantMap categories = machine.value().toMap();
        for (auto category = categories.cbegin(); category != categories.cend(); ++category) {
            const QString categoryName = category.key().toUpper();
            CategoryOverrides *table = nullptr;
            if (categoryName == QLatin1String("MAINTENANCE"))
                table = &overrides.maintenance;
            else if (categoryName == QLatin1String("CONDITION"))
                table = &overrides.condition;
            else
                continue;

            const QVariantMap items = category.value().toMap();
            for (auto item = items.cbegin(); item != items.cend(); ++item) {
                const QVariantMap settings = item.value().toMap();
                Override entry;
                entry.unitText = settings.value(QStringLiteral("unitText")).toString();
                // A missing factor reads as 0 and zeroes the item's values; an override has to give its factor.
                entry.factor = settings.value(QStringLiteral("factor")).toDouble();
                if (item.key() == QLatin1String("*")) {
                    table->wildcard = entry;
                    table->hasWildcard = true;
                } else {
                    table->byId.insert(item.key(), entry);
                }
            }
        }
    }
    return true;
}

QString UnitOverwrite::name() const
{
    return QStringLiteral("Unit Overwrite");
}

unsigned int UnitOverwrite::orderNumber() const
{
    return 500;
}

void UnitOverwrite::processData(
    const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    const auto overrides = m_overrides.constFind(machine);
    if (overrides == m_overrides.cend()) {
        emit dataProcessed(timestamp, machine, source, data);
        return;
    }
    emit dataProcessed(timestamp, machine, source, rewrite(data, overrides.value()));
}

const UnitOverwrite::Override *UnitOverwrite::CategoryOverrides::find(const QString &id) const
{
    const auto entry = byId.constFind(id);
    if (entry != byId.cend())
        return &entry.value();
    return hasWildcard ? &wildcard : nullptr;
}

bool UnitOverwrite::CategoryOverrides::isEmpty() const
{
    return byId.isEmpty() && !hasWildcard;
}

namespace {

void apply(MaintenanceDefinitionV1 &item, const QString &unitText, double factor)
{
    item.unitCode = QLatin1String("");
    item.unitKey = QLatin1String("");
    item.unitText = unitText;
    item.value7 *= factor;
    item.value8 *= factor;
}

void apply(MaintenanceDataV1 &item, const QString &, double factor)
{
    item.value2 *= factor;
    item.value3 *= factor;
}

void apply(ConditionDefinitionV2 &item, const QString &unitText, double factor)
{
    item.unitCode = QLatin1String("");
    item.unitKey = QLatin1String("");
    item.unitText = unitText;
    item.lowerValue = scaledText(item.lowerValue.toDouble(), factor);
    item.upperValue = scaledText(item.upperValue.toDouble(), factor);
}

void apply(ConditionDataV2 &item, const QString &, double factor)
{
    // The value leaves as text whatever its type was; the Validator converts it back to the condition's type.
    item.value = QVariant(scaledText(item.value.toDouble(), factor));
}

template <typename Item, typename Table> QVariant rewriteItem(const QVariant &data, const Table &table)
{
    Item item = qvariant_cast<Item>(data);
    const auto *entry = table.find(item.id);
    if (!entry)
        return data;
    apply(item, entry->unitText, entry->factor);
    return QVariant::fromValue(item);
}

template <typename List, typename Table> QVariant rewriteList(const QVariant &data, const Table &table)
{
    List list = qvariant_cast<List>(data);
    bool changed = false;
    for (int i = 0; i < list.items.size(); ++i) {
        const auto *entry = table.find(list.items.at(i).id);
        if (!entry)
            continue;
        apply(list.items[i], entry->unitText, entry->factor);
        changed = true;
    }
    return changed ? QVariant::fromValue(list) : data;
}

} // namespace

QVariant UnitOverwrite::rewrite(const QVariant &data, const MachineOverrides &overrides) const
{
    const int type = data.userType();
    if (!overrides.maintenance.isEmpty()) {
        if (type == m_maintenanceDefinitionsType)
            return rewriteList<MaintenanceDefinitionsV1>(data, overrides.maintenance);
        if (type == m_maintenanceDatasType)
            return rewriteList<MaintenanceDatasV1>(data, overrides.maintenance);
        if (type == m_maintenanceDefinitionType)
            return rewriteItem<MaintenanceDefinitionV1>(data, overrides.maintenance);
        if (type == m_maintenanceDataType)
            return rewriteItem<MaintenanceDataV1>(data, overrides.maintenance);
    }
    if (!overrides.condition.isEmpty()) {
        if (type == m_conditionDefinitionsType)
            return rewriteList<ConditionDefinitionsV2>(data, overrides.condition);
        if (type == m_conditionDatasType)
            return rewriteList<ConditionDatasV2>(data, overrides.condition);
        if (type == m_conditionDefinitionType)
            return rewriteItem<ConditionDefinitionV2>(data, overrides.condition);
        if (type == m_conditionDataType)
            return rewriteItem<ConditionDataV2>(data, overrides.condition);
    }
    return data;
}
