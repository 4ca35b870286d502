#include "limit.h"

#include "limitlogging.h"
#include "mmdatasets.h"
#include "wwtypes.h"

#include <QTimer>

#include <algorithm>
#include <limits>
#include <utility>

namespace {

const QString LimiterSource = QStringLiteral("Limiter");

// Marks a time that has not been set yet.
constexpr qint64 NoTime = std::numeric_limits<qint64>::min();

// The list kinds, each with a table per machine and a flush of its own.
enum KindIndex { ConditionDefinitionsKind, ConditionValuesKind, MaintenanceDefinitionsKind, MaintenanceValuesKind };
constexpr int KindCount = 4;

// Flushes remembered at least, whatever the number of machines, before they are applied to every machine.
constexpr size_t MinHistory = 1024;

// The state of a list entry: where its item is kept (in a copy of its own, or in the last list taken, told apart by
// the list's mark), and whether it is pending.
enum EntryState : quint8 { OwnCopy = 0, ListMarkA = 1, ListMarkB = 2, HomeMask = 3, Pending = 4 };

template <typename Record> bool recordEquals(const QVariant &a, const QVariant &b)
{
    // The handler table is keyed by the exact type id, so both variants hold a Record.
    return *static_cast<const Record *>(a.constData()) == *static_cast<const Record *>(b.constData());
}

/** Whether two variants of one type certainly compare equal, by their bits; false leaves it to QVariant. */
bool sameBits(const QVariant &a, const QVariant &b)
{
    const void *x = a.constData();
    const void *y = b.constData();
    switch (a.userType()) {
    case QMetaType::Bool:
        return *static_cast<const bool *>(x) == *static_cast<const bool *>(y);
    case QMetaType::Int:
    case QMetaType::UInt:
        return *static_cast<const quint32 *>(x) == *static_cast<const quint32 *>(y);
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return *static_cast<const quint64 *>(x) == *static_cast<const quint64 *>(y);
    case QMetaType::Double:
        // Equal doubles are equal variants; a NaN is left to QVariant.
        return *static_cast<const double *>(x) == *static_cast<const double *>(y);
    case QMetaType::QString: {
        const QString &s = *static_cast<const QString *>(x);
        const QString &t = *static_cast<const QString *>(y);
        return s.constData() == t.constData() && s.size() == t.size();
    }
    default:
        return false;
    }
}

/** Whether a list entry counts as changed against the stored one of the same id. */
template <typename Item> bool entryChanged(const Item &stored, const Item &item)
{
    return stored != item;
}

// The entry was found by its id, so only the value can differ; most values come unchanged, mostly with the same bits.
template <> bool entryChanged(const ConditionDataV2 &stored, const ConditionDataV2 &item)
{
    if (stored.value.userType() != item.value.userType())
        return true;
    return !sameBits(stored.value, item.value) && !(stored.value == item.value);
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

/**
 * When one list kind of one machine was last sent and whether it waits to send. The last sending is known as of the
 * flush numbered asOf; the flushes after it are applied only when the machine is next looked at.
 */
struct Limit::Schedule
{
    qint64 lastSend = NoTime;
    qint64 asOf = 0;
    int pendingCount = 0;
    // In its kind's queue of machines whose pending entries wait for the end of their wait time.
    bool queued = false;
};

/**
 * One list kind of one machine: its entries in order of arrival, found by id through an open-addressing index.
 * An entry's item is, as long as it can be, the item in the last list taken, which the duplicate filter keeps
 * anyway, so that each item is held once. The items and the states are apart, so that going through the entries of
 * a list touches few cache lines.
 */
template <typename Item> struct Limit::Table : Schedule
{
    Table() = default;
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;
    ~Table()
    {
        for (size_t index = 0; index < items.size(); ++index) {
            if (home(index) == OwnCopy)
                delete items[index];
        }
    }

    /**
     * The index of the entry of an id, -1 if there is none. The entry at hint is tried first: lists come with their
     * ids in the same order each time.
     */
    int find(const QString &id, int hint) const
    {
        if (hint < int(items.size())) {
            const QString &known = items[size_t(hint)]->id;
            if ((known.constData() == id.constData() && known.size() == id.size()) || known == id)
                return hint;
        }
        if (buckets.empty())
            return -1;
        const size_t mask = buckets.size() - 1;
        for (size_t bucket = qHash(id) & mask;; bucket = (bucket + 1) & mask) {
            const qint32 index = buckets[bucket];
            if (index < 0)
                return -1;
            if (items[size_t(index)]->id == id)
                return index;
        }
    }

    /** Appends a new entry, pending. */
    void add(const Item *item, quint8 where)
    {
        if ((items.size() + 1) * 4 > buckets.size() * 3) {
            buckets.assign(std::max<size_t>(8, buckets.size() * 2), -1);
            for (size_t index = 0; index < items.size(); ++index)
                place(index);
        }
        items.push_back(item);
        states.push_back(where | Pending);
        ++pendingCount;
        place(items.size() - 1);
    }

    void place(size_t index)
    {
        const size_t mask = buckets.size() - 1;
        size_t bucket = qHash(items[index]->id) & mask;
        while (buckets[bucket] >= 0)
            bucket = (bucket + 1) & mask;
        buckets[bucket] = qint32(index);
    }

    quint8 home(size_t index) const { return states[index] & HomeMask; }

    void setHome(size_t index, quint8 where) { states[index] = quint8((states[index] & ~HomeMask) | where); }

    bool pending(size_t index) const { return states[index] & Pending; }

    void markPending(size_t index)
    {
        if (!pending(index)) {
            states[index] |= Pending;
            ++pendingCount;
        }
    }

    std::vector<const Item *> items;
    // Per entry its home and the Pending bit.
    std::vector<quint8> states;
    // Entry indices by hash of the id, -1 for a free bucket; a power of two long, at most three quarters used.
    std::vector<qint32> buckets;
    // The items of the last list taken; never changed here, so that pointers into it stay valid.
    QList<Item> list;
    // The entries whose item is in list, and the mark they carry.
    int listed = 0;
    quint8 listMark = ListMarkA;
    // Every item of list is its id's entry: no id twice in it, no single entry taken since.
    bool listIntact = false;
    // Whether every item of list equals itself (a NaN does not); -1 until needed.
    qint8 listSelfEqual = -1;
};

/** Everything the limiter keeps for one machine. */
struct Limit::Machine
{
    QVariant *lastValue(int type)
    {
        for (auto &last : lastValues) {
            if (last.first == type)
                return &last.second;
        }
        return nullptr;
    }

    QString name;
    // The last value of each type; a machine sees few types, so a short vector beats a hash.
    std::vector<std::pair<int, QVariant>> lastValues;
    qint64 lastStateTime = NoTime;
    // The operating data to send is the last GeneralV1 value: one that equals it is a repeat and never taken.
    bool operatingDataPending = false;
    Table<ConditionDefinitionV2> conditionDefinitions;
    Table<ConditionDataV2> conditionValues;
    Table<MaintenanceDefinitionV1> maintenanceDefinitions;
    Table<MaintenanceDataV1> maintenanceValues;
};

/**
 * One list kind across the machines. A flush gives each machine with entries of the kind a new last sending when
 * its wait time is over; visiting every machine for that would cost each change the number of machines. So the
 * machines with pending entries wait in a queue by the end of their wait time, and the others learn of the flushes
 * when next looked at, from the history of the flush times: a machine's last sending moves to the first flush at
 * least a wait time after it, and from there on the same way. Each remembered flush knows the next one it moves a
 * machine to, and following those links shortens them, so a long idle time costs little.
 */
struct Limit::ListKind
{
    struct Flush
    {
        qint64 time;
        // Index of a later flush that a machine sent at this one moves on to (the first at least a wait time later,
        // or one further along that chain); -1 while there is none.
        qint32 next;
    };

    /** The quick flush running, for a flush that a receiver of its lists starts before it is done. */
    struct Progress
    {
        qint64 time;
        qint64 number;
        const Machine *current;
        int index;
        bool handedOver;
    };

    QString dropMessage;
    // The quick flushes since the history was last applied to every machine, numbered from first on.
    std::vector<Flush> history;
    qint64 first = 1;
    // The number of the latest flush.
    qint64 last = 0;
    // history[open..] have no next yet; their times are in ascending order, so the others are before them.
    size_t open = 0;
    // Heap of the machines with pending entries by the end of their wait time, earliest first.
    std::vector<std::pair<qint64, Machine *>> queue;
    // The machines with entries of this kind.
    std::vector<Machine *> members;
    // The machines a quick flush sends to.
    std::vector<Machine *> due;
    int depth = 0;
    Progress *progress = nullptr;

    /** The order of the queue's heap. */
    static bool earlierDue(const std::pair<qint64, Machine *> &a, const std::pair<qint64, Machine *> &b)
    {
        return a.first > b.first;
    }
};

/** The time of one flush, as the clock gave it and, made when first needed, as a local date-time. */
struct Limit::FlushTime
{
    explicit FlushTime(qint64 msecs)
        : msecs(msecs)
    {
    }

    const QDateTime &dateTime()
    {
        if (!made) {
            value = QDateTime::fromMSecsSinceEpoch(msecs);
            made = true;
        }
        return value;
    }

    const qint64 msecs;
    QDateTime value;
    bool made = false;
};

namespace {

/** Counts the flushes of a kind running, also across the return from a nested one. */
class FlushDepth
{
public:
    explicit FlushDepth(int &depth)
        : m_depth(depth)
    {
        ++m_depth;
    }
    ~FlushDepth() { --m_depth; }
    FlushDepth(const FlushDepth &) = delete;
    FlushDepth &operator=(const FlushDepth &) = delete;

private:
    int &m_depth;
};

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

void Limit::processData(QDateTime timestamp, QString machine, QString source, QVariant data)
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

void Limit::doConditionDefinitions()
{
    flush<ConditionDefinitionsV2>(&Machine::conditionDefinitions, m_kinds[ConditionDefinitionsKind], nullptr);
}

void Limit::doConditionValues()
{
    flush<ConditionDatasV2>(&Machine::conditionValues, m_kinds[ConditionValuesKind], nullptr);
}

void Limit::doMaintenanceDefinitions()
{
    flush<MaintenanceDefinitionsV1>(&Machine::maintenanceDefinitions, m_kinds[MaintenanceDefinitionsKind], nullptr);
}

void Limit::doMaintenanceValues()
{
    flush<MaintenanceDatasV1>(&Machine::maintenanceValues, m_kinds[MaintenanceValuesKind], nullptr);
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
        emit dataProcessed(time.dateTime(), machine->name, LimiterSource, *machine->lastValue(m_operatingDataType));
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
    const bool sameItems
        = !items.isEmpty() && !entries.list.isEmpty() && &items.constFirst() == &entries.list.constFirst();
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

template <typename List, typename Item> void Limit::flush(Table<Item> Machine::*table, ListKind &kind, Machine *changed)
{
    FlushTime time(m_clock());
    const qint64 now = time.msecs;

    // Every machine is visited when the drop messages are logged, and in a flush that a receiver starts while one
    // is running, as the outer one has visited only some of the machines.
    if (kind.depth > 0 || lcLimit().isDebugEnabled()) {
        const FlushDepth depth(kind.depth);
        ++kind.last;
        catchUp(table, kind);
        visitAll<List>(table, kind, time, 0);
        requeue(table, kind);
        return;
    }

    const FlushDepth depth(kind.depth);
    // The history is kept in ascending order of time and no longer than twice the number of machines.
    if (!kind.history.empty()
        && (now < kind.history.back().time || kind.history.size() >= std::max(MinHistory, 2 * kind.members.size())))
        catchUp(table, kind);
    if (changed) {
        Table<Item> &entries = changed->*table;
        if (entries.pendingCount > 0 && !entries.queued) {
            resolve(entries, kind);
            enqueue(kind, changed, entries);
        }
    }

    const qint64 number = ++kind.last;
    while (!kind.queue.empty() && kind.queue.front().first <= now) {
        std::pop_heap(kind.queue.begin(), kind.queue.end(), ListKind::earlierDue);
        Machine *machine = kind.queue.back().second;
        kind.queue.pop_back();
        (machine->*table).queued = false;
        kind.due.push_back(machine);
    }
    if (kind.due.size() > 1) {
        std::sort(
            kind.due.begin(), kind.due.end(), [](const Machine *a, const Machine *b) { return a->name < b->name; });
    }

    ListKind::Progress progress { now, number, nullptr, 0, false };
    kind.progress = &progress;
    for (size_t i = 0; i < kind.due.size(); ++i) {
        Machine *machine = kind.due[i];
        Table<Item> &entries = machine->*table;
        entries.lastSend = now;
        entries.asOf = number;
        if (entries.pendingCount == 0)
            continue;
        progress.current = machine;
        progress.index = int(std::lower_bound(m_sortedMachines.cbegin(), m_sortedMachines.cend(), machine->name,
                                 [](const Machine *a, const QString &b) { return a->name < b; })
            - m_sortedMachines.cbegin());
        send<List>(*machine, entries, time);
        if (progress.handedOver) {
            // A receiver has run a flush of this kind: from here on every machine is visited.
            kind.progress = nullptr;
            kind.due.clear();
            visitAll<List>(table, kind, time, progress.index + 1);
            requeue(table, kind);
            return;
        }
    }
    kind.progress = nullptr;
    kind.due.clear();

    const qint32 index = qint32(kind.history.size());
    kind.history.push_back({ now, -1 });
    while (kind.open < kind.history.size() - 1 && now - kind.history[kind.open].time >= qint64(m_waitTime)) {
        kind.history[kind.open].next = index;
        ++kind.open;
    }
}

template <typename List, typename Item>
void Limit::visitAll(Table<Item> Machine::*table, ListKind &kind, FlushTime &time, int from)
{
    // By index: a receiver may bring in a new machine while this runs.
    for (int i = from; i < m_sortedMachines.size(); ++i) {
        Machine *machine = m_sortedMachines.at(i);
        Table<Item> &entries = machine->*table;
        if (entries.items.empty())
            continue;
        if (entries.lastSend != NoTime && time.msecs - entries.lastSend < qint64(m_waitTime)) {
            qCDebug(lcLimit) << kind.dropMessage.arg(QDateTime::fromMSecsSinceEpoch(entries.lastSend).toString(),
                time.dateTime().toString(), QString::number(m_waitTime));
            continue;
        }
        entries.lastSend = time.msecs;
        if (entries.pendingCount == 0)
            continue;
        send<List>(*machine, entries, time);
    }
}

template <typename List, typename Item> void Limit::send(Machine &machine, Table<Item> &entries, FlushTime &time)
{
    m_sendOrder.clear();
    for (size_t index = 0; index < entries.items.size(); ++index) {
        if (entries.pending(index))
            m_sendOrder.push_back(int(index));
    }
    std::sort(m_sendOrder.begin(), m_sendOrder.end(),
        [&entries](int a, int b) { return entries.items[size_t(a)]->id < entries.items[size_t(b)]->id; });

    List list;
    list.timestamp = time.dateTime();
    list.items.reserve(int(m_sendOrder.size()));
    for (const int index : m_sendOrder) {
        entries.states[size_t(index)] &= ~Pending;
        list.items.append(*entries.items[size_t(index)]);
    }
    entries.pendingCount = 0;
    emit dataProcessed(time.dateTime(), machine.name, LimiterSource, QVariant::fromValue(list));
}

template <typename Item> void Limit::catchUp(Table<Item> Machine::*table, ListKind &kind)
{
    for (Machine *machine : kind.members)
        resolve(machine->*table, kind);
    if (kind.progress && !kind.progress->handedOver) {
        // A quick flush runs, and a receiver of it has started this one: the quick one has visited the machines up
        // to the one it sends to, in name order, and none after it.
        ListKind::Progress &progress = *kind.progress;
        progress.handedOver = true;
        for (Machine *machine : kind.members) {
            Schedule &schedule = machine->*table;
            if (schedule.asOf >= progress.number || progress.current->name < machine->name)
                continue;
            if (schedule.lastSend == NoTime || progress.time - schedule.lastSend >= qint64(m_waitTime))
                schedule.lastSend = progress.time;
        }
    }
    kind.history.clear();
    kind.open = 0;
    kind.first = kind.last + 1;
}

template <typename Item> void Limit::requeue(Table<Item> Machine::*table, ListKind &kind)
{
    kind.queue.clear();
    for (Machine *machine : kind.members) {
        Schedule &schedule = machine->*table;
        schedule.queued = schedule.pendingCount > 0;
        if (schedule.queued)
            kind.queue.emplace_back(dueTime(schedule), machine);
    }
    std::make_heap(kind.queue.begin(), kind.queue.end(), ListKind::earlierDue);
}

void Limit::resolve(Schedule &schedule, ListKind &kind)
{
    if (kind.history.empty())
        return;
    const qint64 newest = kind.first + qint64(kind.history.size()) - 1;
    if (schedule.asOf >= newest)
        return;
    auto hop = kind.history.begin() + std::max<qint64>(schedule.asOf + 1 - kind.first, 0);
    if (schedule.lastSend != NoTime) {
        hop = std::lower_bound(hop, kind.history.end(), dueTime(schedule),
            [](const ListKind::Flush &flush, qint64 time) { return flush.time < time; });
    }
    if (hop != kind.history.end()) {
        qint32 at = qint32(hop - kind.history.begin());
        qint32 end = at;
        while (kind.history[size_t(end)].next >= 0)
            end = kind.history[size_t(end)].next;
        while (at != end) {
            const qint32 next = kind.history[size_t(at)].next;
            kind.history[size_t(at)].next = end;
            at = next;
        }
        schedule.lastSend = kind.history[size_t(end)].time;
    }
    schedule.asOf = newest;
}

void Limit::enqueue(ListKind &kind, Machine *machine, Schedule &schedule)
{
    schedule.queued = true;
    kind.queue.emplace_back(dueTime(schedule), machine);
    std::push_heap(kind.queue.begin(), kind.queue.end(), ListKind::earlierDue);
}

qint64 Limit::dueTime(const Schedule &schedule) const
{
    if (schedule.lastSend == NoTime)
        return NoTime;
    // A wait time beyond the end of the clock's range never ends.
    if (schedule.lastSend > std::numeric_limits<qint64>::max() - qint64(m_waitTime))
        return std::numeric_limits<qint64>::max();
    return schedule.lastSend + qint64(m_waitTime);
}
