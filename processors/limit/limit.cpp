#include "limit.h"

#include "limitlogging.h"
#include "mmdatasets.h"

#include <QTimer>

#include <algorithm>
#include <limits>

namespace {

const QString LimiterSource = QStringLiteral("Limiter");

// Marks a time that has not been set yet.
constexpr qint64 NoTime = std::numeric_limits<qint64>::min();

template <typename Item> struct Entry
{
    Item item;
    bool pending = false;
};

template <typename Record> bool recordEquals(const QVariant &a, const QVariant &b)
{
    // The handler table is keyed by the exact type id, so both variants hold a Record.
    return *static_cast<const Record *>(a.constData()) == *static_cast<const Record *>(b.constData());
}

/** Whether a list entry counts as changed against the stored one. */
template <typename Item> bool entryChanged(const Item &stored, const Item &item)
{
    return stored != item;
}

// Maintenance values count as changed only through their two values.
template <> bool entryChanged(const MaintenanceDataV1 &stored, const MaintenanceDataV1 &item)
{
    return stored.value2 != item.value2 || stored.value3 != item.value3;
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

/** One list kind of one machine: its entries by id, the ids of the pending ones and the time of the last sending. */
template <typename Item> struct Limit::Table
{
    QHash<QString, Entry<Item>> entries;
    // The ids whose entry is pending, unsorted; sorted when they leave.
    QStringList pending;
    qint64 lastSend = NoTime;

    /** Stores the item and marks it pending when it is new or changed; returns whether it was. */
    bool take(const Item &item)
    {
        const auto stored = entries.find(item.id);
        if (stored == entries.end()) {
            entries.insert(item.id, Entry<Item> { item, true });
            pending.append(item.id);
            return true;
        }
        const bool changed = entryChanged(stored->item, item);
        if (changed && !stored->pending) {
            stored->pending = true;
            pending.append(item.id);
        }
        stored->item = item;
        return changed;
    }
};

/** Everything the limiter keeps for one machine. */
struct Limit::Machine
{
    QString name;
    QHash<int, QVariant> lastValues;
    qint64 lastStateTime = NoTime;
    bool hasOperatingData = false;
    bool operatingDataPending = false;
    GeneralV1 operatingData;
    Table<ConditionDefinitionV2> conditionDefinitions;
    Table<ConditionDataV2> conditionValues;
    Table<MaintenanceDefinitionV1> maintenanceDefinitions;
    Table<MaintenanceDataV1> maintenanceValues;
};

Limit::Limit(QObject *parent)
    : QObject(parent)
    , m_timer(new QTimer(this))
    , m_stateType(qMetaTypeId<StateV1>())
{
    connect(m_timer, &QTimer::timeout, this, &Limit::doOperatingData);

    m_handlers.insert(qMetaTypeId<StateV1>(), { &recordEquals<StateV1>, nullptr });
    m_handlers.insert(qMetaTypeId<GeneralV1>(), { &recordEquals<GeneralV1>, &Limit::takeOperatingData });
    m_handlers.insert(qMetaTypeId<NotificationsAddV1>(), { &recordEquals<NotificationsAddV1>, nullptr });
    m_handlers.insert(qMetaTypeId<NotificationsRemoveV1>(), { &recordEquals<NotificationsRemoveV1>, nullptr });
    m_handlers.insert(qMetaTypeId<NotificationsRemoveAllV1>(), { &recordEquals<NotificationsRemoveAllV1>, nullptr });
    m_handlers.insert(qMetaTypeId<SwVerV1>(), { &recordEquals<SwVerV1>, nullptr });
    m_handlers.insert(qMetaTypeId<OrderV1>(), { &recordEquals<OrderV1>, nullptr });

    m_handlers.insert(qMetaTypeId<ConditionDefinitionsV2>(),
        { &recordEquals<ConditionDefinitionsV2>,
            &Limit::takeList<ConditionDefinitionsV2, ConditionDefinitionV2, &Machine::conditionDefinitions,
                &Limit::doConditionDefinitions> });
    m_handlers.insert(qMetaTypeId<ConditionDefinitionV2>(),
        { &recordEquals<ConditionDefinitionV2>,
            &Limit::takeItem<ConditionDefinitionV2, &Machine::conditionDefinitions, &Limit::doConditionDefinitions> });
    m_handlers.insert(qMetaTypeId<ConditionDatasV2>(),
        { &recordEquals<ConditionDatasV2>,
            &Limit::takeList<ConditionDatasV2, ConditionDataV2, &Machine::conditionValues,
                &Limit::doConditionValues> });
    m_handlers.insert(qMetaTypeId<ConditionDataV2>(),
        { &recordEquals<ConditionDataV2>,
            &Limit::takeItem<ConditionDataV2, &Machine::conditionValues, &Limit::doConditionValues> });
    m_handlers.insert(qMetaTypeId<MaintenanceDefinitionsV1>(),
        { &recordEquals<MaintenanceDefinitionsV1>,
            &Limit::takeList<MaintenanceDefinitionsV1, MaintenanceDefinitionV1, &Machine::maintenanceDefinitions,
                &Limit::doMaintenanceDefinitions> });
    m_handlers.insert(qMetaTypeId<MaintenanceDefinitionV1>(),
        { &recordEquals<MaintenanceDefinitionV1>,
            &Limit::takeItem<MaintenanceDefinitionV1, &Machine::maintenanceDefinitions,
                &Limit::doMaintenanceDefinitions> });
    m_handlers.insert(qMetaTypeId<MaintenanceDatasV1>(),
        { &recordEquals<MaintenanceDatasV1>,
            &Limit::takeList<MaintenanceDatasV1, MaintenanceDataV1, &Machine::maintenanceValues,
                &Limit::doMaintenanceValues> });
    m_handlers.insert(qMetaTypeId<MaintenanceDataV1>(),
        { &recordEquals<MaintenanceDataV1>,
            &Limit::takeItem<MaintenanceDataV1, &Machine::maintenanceValues, &Limit::doMaintenanceValues> });
}

Limit::~Limit()
{
    qDeleteAll(m_machines);
}

bool Limit::init(const QVariantMap &config, QVariantMap &)
{
    const QVariantMap group = config.value(QStringLiteral("limit")).toMap();
    bool ok = false;
    m_waitTime = milliseconds(group.value(QStringLiteral("waitTime")), &ok);
    if (!ok)
        qCWarning(lcLimit) << QStringLiteral("Couldn't parse waitTime");
    m_keepAliveTime = milliseconds(group.value(QStringLiteral("keepAliveTime")), &ok);
    if (!ok)
        qCWarning(lcLimit) << QStringLiteral("Couldn't parse keepAliveTime");

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

void Limit::processData(QDateTime timestamp, QString machine, QString source, QVariant data)
{
    Machine &tables = machineFor(machine);
    const int type = data.userType();
    const auto handlerEntry = m_handlers.constFind(type);
    const Handler *handler = handlerEntry == m_handlers.constEnd() ? nullptr : &handlerEntry.value();

    const auto last = tables.lastValues.find(type);
    if (last != tables.lastValues.end() && equal(handler, last.value(), data)) {
        if (type != m_stateType)
            return;
        // A repeated state passes once every keep-alive time, so that the targets see the machine is still there.
        if (tables.lastStateTime != NoTime
            && QDateTime::currentMSecsSinceEpoch() - tables.lastStateTime < qint64(m_keepAliveTime))
            return;
    }
    if (last != tables.lastValues.end())
        last.value() = data;
    else
        tables.lastValues.insert(type, data);
    if (type == m_stateType)
        tables.lastStateTime = QDateTime::currentMSecsSinceEpoch();

    if (handler && handler->take) {
        (this->*handler->take)(tables, data);
        return;
    }
    emit dataProcessed(timestamp, machine, source, data);
}

void Limit::doConditionDefinitions()
{
    flush<ConditionDefinitionsV2>(&Machine::conditionDefinitions,
        QStringLiteral("Dropping Condition Definitions since last send was at %1, our current time is %2 and we should "
                       "wait %3ms."));
}

void Limit::doConditionValues()
{
    // Unlike the other three, this message has no comma after %1: log readers match the text as it stands.
    flush<ConditionDatasV2>(&Machine::conditionValues,
        QStringLiteral(
            "Dropping Condition Values since last send was at %1 our current time is %2 and we should wait %3ms."));
}

void Limit::doMaintenanceDefinitions()
{
    flush<MaintenanceDefinitionsV1>(&Machine::maintenanceDefinitions,
        QStringLiteral("Dropping Maintenace Definitions since last send was at %1, our current time is %2 and we "
                       "should wait %3ms."));
}

void Limit::doMaintenanceValues()
{
    flush<MaintenanceDatasV1>(&Machine::maintenanceValues,
        QStringLiteral(
            "Dropping Maintenace Values since last send was at %1, our current time is %2 and we should wait %3ms."));
}

void Limit::doOperatingData()
{
    const QDateTime now = QDateTime::currentDateTime();
    // By index: a receiver may bring in a new machine while this runs.
    for (int i = 0; i < m_sortedMachines.size(); ++i) {
        Machine *machine = m_sortedMachines.at(i);
        if (!machine->operatingDataPending)
            continue;
        machine->operatingDataPending = false;
        emit dataProcessed(now, machine->name, LimiterSource, QVariant::fromValue(machine->operatingData));
    }
}

Limit::Machine &Limit::machineFor(const QString &name)
{
    const auto found = m_machines.constFind(name);
    if (found != m_machines.constEnd())
        return *found.value();

    auto *machine = new Machine;
    machine->name = name;
    m_machines.insert(name, machine);
    const auto place = std::lower_bound(m_sortedMachines.begin(), m_sortedMachines.end(), name,
        [](const Machine *a, const QString &b) { return a->name < b; });
    m_sortedMachines.insert(place, machine);
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

template <typename List, typename Item, Limit::Table<Item> Limit::Machine::*table, void (Limit::*send)()>
void Limit::takeList(Machine &machine, const QVariant &data)
{
    const List list = qvariant_cast<List>(data);
    Table<Item> &entries = machine.*table;
    bool changed = false;
    for (const Item &item : list.items)
        changed = entries.take(item) || changed;
    if (changed)
        (this->*send)();
}

template <typename Item, Limit::Table<Item> Limit::Machine::*table, void (Limit::*send)()>
void Limit::takeItem(Machine &machine, const QVariant &data)
{
    if ((machine.*table).take(qvariant_cast<Item>(data)))
        (this->*send)();
}

void Limit::takeOperatingData(Machine &machine, const QVariant &data)
{
    const GeneralV1 general = qvariant_cast<GeneralV1>(data);
    if (machine.hasOperatingData && machine.operatingData == general)
        return;
    machine.operatingData = general;
    machine.hasOperatingData = true;
    machine.operatingDataPending = true;
}

template <typename List, typename Item> void Limit::flush(Table<Item> Machine::*table, const QString &dropMessage)
{
    const qint64 nowMsecs = QDateTime::currentMSecsSinceEpoch();
    const QDateTime now = QDateTime::fromMSecsSinceEpoch(nowMsecs);
    // By index: a receiver may bring in a new machine while this runs.
    for (int i = 0; i < m_sortedMachines.size(); ++i) {
        Machine *machine = m_sortedMachines.at(i);
        Table<Item> &entries = machine->*table;
        if (entries.entries.isEmpty())
            continue;
        if (entries.lastSend != NoTime && nowMsecs - entries.lastSend < qint64(m_waitTime)) {
            qCDebug(lcLimit) << dropMessage.arg(QDateTime::fromMSecsSinceEpoch(entries.lastSend).toString(),
                now.toString(), QString::number(m_waitTime));
            continue;
        }
        entries.lastSend = nowMsecs;
        if (entries.pending.isEmpty())
            continue;

        std::sort(entries.pending.begin(), entries.pending.end());
        List list;
        list.timestamp = now;
        list.items.reserve(entries.pending.size());
        for (const QString &id : qAsConst(entries.pending)) {
            Entry<Item> &entry = entries.entries[id];
            entry.pending = false;
            list.items.append(entry.item);
        }
        entries.pending.clear();
        emit dataProcessed(now, machine->name, LimiterSource, QVariant::fromValue(list));
    }
}
