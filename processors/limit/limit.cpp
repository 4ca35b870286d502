#include "limit.h"

#include "limitlogging.h"
#include "limitschedule.h"
#include "listhandover.h"
#include "wwtypes.h"

#include <QTimer>

#include <algorithm>
#include <limits>
#include <utility>

namespace {

template <typename Record> bool recordEquals(const QVariant &a, const QVariant &b)
{
    // The handler table is keyed by the exact type id, so both variants hold a Record.
    return *static_cast<const Record *>(a.constData()) == *static_cast<const Record *>(b.constData());
}

/** A setting as unsigned 32-bit milliseconds; 0 and ok false when it is missing, not a number or out of range. */
quint32 milliseconds(const QVariant &value, bool *ok)
{
    // QVariant::toUInt would cut 4294967296 down to 0 and call that a success.
    const qulonglong number = value.toULongLong(ok);
    if (!*ok || number > std::numeric_limits<quint32>::max()) {
        *ok = false;
        return 0;
    }
    return quint32(number);
}

} // namespace

Limit::Limit(QObject *parent)
    : QObject(parent)
    , m_clock(&QDateTime::currentMSecsSinceEpoch)
    , m_timer(new QTimer(this))
    , m_stateType(qMetaTypeId<StateV1>())
    , m_operatingDataType(qMetaTypeId<GeneralV1>())
    , m_kinds(new ListKind[KindCount])
{
    connect(m_timer, &QTimer::timeout, this, &Limit::doOperatingData);

    m_kinds[ConditionDefinitionsKind].dropMessage = QStringLiteral(
        "Dropping Condition Definitions since last send was at %1, our current time is %2 and we should wait %3ms.");
    // Unlike the other three, this message has no comma after %1: log readers match the text as it stands.
    m_kinds[ConditionValuesKind].dropMessage = QStringLiteral(
        "Dropping Condition Values since last send was at %1 our current time is %2 and we should wait %3ms.");
    m_kinds[MaintenanceDefinitionsKind].dropMessage = QStringLiteral(
        "Dropping Maintenace Definitions since last send was at %1, our current time is %2 and we should wait %3ms.");
    m_kinds[MaintenanceValuesKind].dropMessage = QStringLiteral(
        "Dropping Maintenace Values since last send was at %1, our current time is %2 and we should wait %3ms.");

    m_handlers.insert(qMetaTypeId<StateV1>(), { &recordEquals<StateV1>, nullptr });
    m_handlers.insert(qMetaTypeId<GeneralV1>(), { &recordEquals<GeneralV1>, &Limit::takeOperatingData });
    m_handlers.insert(qMetaTypeId<NotificationsAddV1>(), { &recordEquals<NotificationsAddV1>, nullptr });
    m_handlers.insert(qMetaTypeId<NotificationsRemoveV1>(), { &recordEquals<NotificationsRemoveV1>, nullptr });
    m_handlers.insert(qMetaTypeId<NotificationsRemoveAllV1>(), { &recordEquals<NotificationsRemoveAllV1>, nullptr });
    m_handlers.insert(qMetaTypeId<SwVerV1>(), { &recordEquals<SwVerV1>, nullptr });
    m_handlers.insert(qMetaTypeId<OrderV1>(), { &recordEquals<OrderV1>, nullptr });
    // The woodworking-model records pass the mapper unchanged; their repeats are dropped like any other.
    m_handlers.insert(qMetaTypeId<WwState>(), { &recordEquals<WwState>, nullptr });
    m_handlers.insert(qMetaTypeId<WwIdentification>(), { &recordEquals<WwIdentification>, nullptr });
    m_handlers.insert(qMetaTypeId<WwBaseEventType>(), { &recordEquals<WwBaseEventType>, nullptr });
    m_handlers.insert(qMetaTypeId<WwCapabilities>(), { &recordEquals<WwCapabilities>, nullptr });
    m_handlers.insert(qMetaTypeId<WwManufacturerSpecific>(), { &recordEquals<WwManufacturerSpecific>, nullptr });

    m_handlers.insert(qMetaTypeId<ConditionDefinitionsV2>(),
        { &recordEquals<ConditionDefinitionsV2>,
            &Limit::takeList<ConditionDefinitionsV2, ConditionDefinitionV2, &Machine::conditionDefinitions,
                ConditionDefinitionsKind> });
    m_handlers.insert(qMetaTypeId<ConditionDefinitionV2>(),
        { &recordEquals<ConditionDefinitionV2>,
            &Limit::takeItem<ConditionDefinitionsV2, ConditionDefinitionV2, &Machine::conditionDefinitions,
                ConditionDefinitionsKind> });
    m_handlers.insert(qMetaTypeId<ConditionDatasV2>(),
        { &recordEquals<ConditionDatasV2>,
            &Limit::takeList<ConditionDatasV2, ConditionDataV2, &Machine::conditionValues, ConditionValuesKind> });
    m_handlers.insert(qMetaTypeId<ConditionDataV2>(),
        { &recordEquals<ConditionDataV2>,
            &Limit::takeItem<ConditionDatasV2, ConditionDataV2, &Machine::conditionValues, ConditionValuesKind> });
    m_handlers.insert(qMetaTypeId<MaintenanceDefinitionsV1>(),
        { &recordEquals<MaintenanceDefinitionsV1>,
            &Limit::takeList<MaintenanceDefinitionsV1, MaintenanceDefinitionV1, &Machine::maintenanceDefinitions,
                MaintenanceDefinitionsKind> });
    m_handlers.insert(qMetaTypeId<MaintenanceDefinitionV1>(),
        { &recordEquals<MaintenanceDefinitionV1>,
            &Limit::takeItem<MaintenanceDefinitionsV1, MaintenanceDefinitionV1, &Machine::maintenanceDefinitions,
                MaintenanceDefinitionsKind> });
    m_handlers.insert(qMetaTypeId<MaintenanceDatasV1>(),
        { &recordEquals<MaintenanceDatasV1>,
            &Limit::takeList<MaintenanceDatasV1, MaintenanceDataV1, &Machine::maintenanceValues,
                MaintenanceValuesKind> });
    m_handlers.insert(qMetaTypeId<MaintenanceDataV1>(),
        { &recordEquals<MaintenanceDataV1>,
            &Limit::takeItem<MaintenanceDatasV1, MaintenanceDataV1, &Machine::maintenanceValues,
                MaintenanceValuesKind> });
}

Limit::~Limit()
{
    qDeleteAll(m_machines);
}

bool Limit::init(const QVariantMap &config, QVariantMap &)
{
    const QVariantMap group = config.value(QStringLiteral("limit")).toMap();
    bool ok = false;
    const quint32 waitTime = milliseconds(group.value(QStringLiteral("waitTime")), &ok);
    if (!ok)
        qCWarning(lcLimit) << QStringLiteral("Couldn't parse waitTime");
    m_keepAliveTime = milliseconds(group.value(QStringLiteral("keepAliveTime")), &ok);
    if (!ok)
        qCWarning(lcLimit) << QStringLiteral("Couldn't parse keepAliveTime");

    // The flushes remembered so far were made under the old wait time, and the queues are in order of its end.
    catchUp(&Machine::conditionDefinitions, m_kinds[ConditionDefinitionsKind]);
    catchUp(&Machine::conditionValues, m_kinds[ConditionValuesKind]);
    catchUp(&Machine::maintenanceDefinitions, m_kinds[MaintenanceDefinitionsKind]);
    catchUp(&Machine::maintenanceValues, m_kinds[MaintenanceValuesKind]);
    m_waitTime = waitTime;
    requeue(&Machine::conditionDefinitions, m_kinds[ConditionDefinitionsKind]);
    requeue(&Machine::conditionValues, m_kinds[ConditionValuesKind]);
    requeue(&Machine::maintenanceDefinitions, m_kinds[MaintenanceDefinitionsKind]);
    requeue(&Machine::maintenanceValues, m_kinds[MaintenanceValuesKind]);

    // QTimer takes a signed interval; longer wait times than it holds cannot be meant.
    m_timer->setInterval(int(std::min<quint32>(m_waitTime, std::numeric_limits<int>::max())));
    if (m_waitTime != 0)
        m_timer->start();
    else
        m_timer->stop();
    return true;
}

QString Limit::name() const
{
    return QStringLiteral("Limit");
}

unsigned int Limit::orderNumber() const
{
    return 1000;
}

void Limit::processData(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    Machine &tables = machineFor(machine);
    const int type = data.userType();
    const auto handlerEntry = m_handlers.constFind(type);
    const Handler *handler = handlerEntry == m_handlers.constEnd() ? nullptr : &handlerEntry.value();

    QVariant *last = tables.lastValue(type);
    if (last && equal(handler, *last, data)) {
        if (type != m_stateType)
            return;
        // A repeated state passes once every keep-alive time, so that the targets see the machine is still there.
        if (tables.lastStateTime != NoTime && m_clock() - tables.lastStateTime < qint64(m_keepAliveTime))
            return;
    }
    if (last)
        *last = data;
    else
        tables.lastValues.emplace_back(type, data);
    if (type == m_stateType)
        tables.lastStateTime = m_clock();

    if (handler && handler->take) {
        (this->*handler->take)(tables, data);
        return;
    }
    emit dataProcessed(timestamp, machine, source, data);
}

void Limit::doOperatingData()
{
    FlushTime time(m_clock());
    // By index: a receiver may bring in a new machine while this runs.
    for (int i = 0; i < m_sortedMachines.size(); ++i) {
        Machine *machine = m_sortedMachines.at(i);
        if (!machine->operatingDataPending)
            continue;
        machine->operatingDataPending = false;
        // A copy: a receiver that sends the machine a dataset of a new type grows the vector the value lives in.
        const QVariant data = *machine->lastValue(m_operatingDataType);
        emit dataProcessed(time.dateTime(), machine->name, LimiterSource, data);
    }
}

Limit::Machine &Limit::machineFor(const QString &name)
{
    // The datasets a machine's update becomes come one after the other.
    if (m_recent && m_recent->name == name)
        return *m_recent;
    const auto found = m_machines.constFind(name);
    if (found != m_machines.constEnd()) {
        m_recent = found.value();
        return *m_recent;
    }

    auto *machine = new Machine;
    machine->name = name;
    m_machines.insert(name, machine);
    const auto place = std::lower_bound(m_sortedMachines.begin(), m_sortedMachines.end(), name,
        [](const Machine *a, const QString &b) { return a->name < b; });
    m_sortedMachines.insert(place, machine);
    m_recent = machine;
    return *machine;
}

bool Limit::equal(const Handler *handler, const QVariant &a, const QVariant &b) const
{
    if (handler)
        return handler->equals(a, b);
    // QVariant can only compare Qt's own types and types with a registered comparator; any other value counts as new.
    const int type = a.userType();
    if (type >= QMetaType::User && !QMetaType::hasRegisteredComparators(type))
        return false;
    return a == b;
}

template <typename List, typename Item, Limit::Table<Item> Limit::Machine::*table, int kind>
void Limit::takeList(Machine &machine, const QVariant &data)
{
    const List list = qvariant_cast<List>(data);
    const QList<Item> &items = list.items;
    Table<Item> &entries = machine.*table;

    // The same items as last time, each still its id's entry: unchanged, unless an item does not equal itself.
    const bool sameItems = ListHandover::sameList(items, entries.list);
    if (sameItems && entries.listIntact) {
        if (entries.listSelfEqual < 0) {
            entries.listSelfEqual
                = std::all_of(items.cbegin(), items.cend(), [](const Item &item) { return !entryChanged(item, item); });
        }
        if (entries.listSelfEqual)
            return;
    }

    const quint8 oldMark = entries.listMark;
    const quint8 newMark = oldMark == ListMarkA ? ListMarkB : ListMarkA;
    const bool joins = entries.items.empty();
    if (joins) {
        entries.items.reserve(size_t(items.size()));
        entries.states.reserve(size_t(items.size()));
    }
    int moved = 0;
    int listed = 0;
    bool intact = true;
    bool changed = false;
    int hint = 0;
    for (const Item &item : items) {
        const int found = entries.find(item.id, hint);
        if (found < 0) {
            entries.add(&item, newMark);
            ++listed;
            changed = true;
            hint = int(entries.items.size());
            continue;
        }
        const size_t index = size_t(found);
        if (entryChanged(*entries.items[index], item)) {
            changed = true;
            entries.markPending(index);
        }
        const quint8 home = entries.home(index);
        if (home == OwnCopy) {
            delete entries.items[index];
            ++listed;
        } else if (home == oldMark) {
            ++moved;
            ++listed;
        } else {
            // The list holds this id twice; the later item is the entry's.
            intact = false;
        }
        entries.items[index] = &item;
        entries.setHome(index, newMark);
        hint = found + 1;
    }
    // The entries the new list leaves out keep their items in copies of their own before the old list goes.
    if (moved < entries.listed) {
        for (size_t index = 0; index < entries.items.size(); ++index) {
            if (entries.home(index) == oldMark) {
                entries.items[index] = new Item(*entries.items[index]);
                entries.setHome(index, OwnCopy);
            }
        }
    }
    entries.list = items;
    entries.listMark = newMark;
    entries.listed = listed;
    entries.listIntact = intact;
    if (!sameItems)
        entries.listSelfEqual = -1;

    ListKind &listKind = m_kinds[kind];
    if (joins && !entries.items.empty()) {
        listKind.members.push_back(&machine);
        entries.asOf = listKind.last;
    }
    if (changed)
        flush<List>(table, listKind, &machine);
}

template <typename List, typename Item, Limit::Table<Item> Limit::Machine::*table, int kind>
void Limit::takeItem(Machine &machine, const QVariant &data)
{
    const Item item = qvariant_cast<Item>(data);
    Table<Item> &entries = machine.*table;
    ListKind &listKind = m_kinds[kind];
    const int found = entries.find(item.id, int(entries.items.size()));
    bool changed = true;
    if (found < 0) {
        if (entries.items.empty()) {
            listKind.members.push_back(&machine);
            entries.asOf = listKind.last;
        }
        entries.add(new Item(item), OwnCopy);
    } else {
        const size_t index = size_t(found);
        changed = entryChanged(*entries.items[index], item);
        if (changed)
            entries.markPending(index);
        if (entries.home(index) == OwnCopy) {
            delete entries.items[index];
        } else {
            --entries.listed;
            entries.listIntact = false;
        }
        entries.items[index] = new Item(item);
        entries.setHome(index, OwnCopy);
    }
    if (changed)
        flush<List>(table, listKind, &machine);
}

void Limit::takeOperatingData(Machine &machine, const QVariant &)
{
    // The duplicate filter has let it through, so it differs from the last one: that is the pending one now.
    machine.operatingDataPending = true;
}
