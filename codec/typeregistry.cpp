#include "typeregistry.h"

#include "recordreaders.h"

namespace CodecDetail {

namespace {

template <typename Record, typename Object> bool readInto(const Object &object, QVariant *data, QString *error)
{
    Record record {};
    if (!readRecord(object, &record, error))
        return false;
    *data = QVariant::fromValue(record);
    return true;
}

template <typename Record> TypeEntry entryFor()
{
    TypeEntry entry;
    entry.name = recordName<Record>;
    entry.write = [](JsonWriter &writer, const QVariant &data) {
        writeRecord(writer, *static_cast<const Record *>(data.constData()));
    };
    entry.read = [](const QJsonObject &object, QVariant *data, QString *error) {
        return readInto<Record>(object, data, error);
    };
    entry.readParsed
        = [](const DomObject &object, QVariant *data, QString *error) { return readInto<Record>(object, data, error); };
    return entry;
}

} // namespace

template <typename Record> void Registry::add()
{
    const TypeEntry entry = entryFor<Record>();
    byId.insert(qMetaTypeId<Record>(), entry);
    byName.insert(QLatin1String(entry.name), entry);
    byNameBytes.emplace(std::string_view(entry.name), entry);
}

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

} // namespace CodecDetail
