#include "limitschedule.h"

#include "limitlogging.h"

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

// The four list kinds are the only ones taken; their flushes are made here, with the schedule they follow.
template void Limit::flush<ConditionDefinitionsV2, ConditionDefinitionV2>(
    Table<ConditionDefinitionV2> Machine::*, ListKind &, Machine *);
template void Limit::flush<ConditionDatasV2, ConditionDataV2>(Table<ConditionDataV2> Machine::*, ListKind &, Machine *);
template void Limit::flush<MaintenanceDefinitionsV1, MaintenanceDefinitionV1>(
    Table<MaintenanceDefinitionV1> Machine::*, ListKind &, Machine *);
template void Limit::flush<MaintenanceDatasV1, MaintenanceDataV1>(
    Table<MaintenanceDataV1> Machine::*, ListKind &, Machine *);
template void Limit::catchUp<ConditionDefinitionV2>(Table<ConditionDefinitionV2> Machine::*, ListKind &);
template void Limit::catchUp<ConditionDataV2>(Table<ConditionDataV2> Machine::*, ListKind &);
template void Limit::catchUp<MaintenanceDefinitionV1>(Table<MaintenanceDefinitionV1> Machine::*, ListKind &);
template void Limit::catchUp<MaintenanceDataV1>(Table<MaintenanceDataV1> Machine::*, ListKind &);
template void Limit::requeue<ConditionDefinitionV2>(Table<ConditionDefinitionV2> Machine::*, ListKind &);
template void Limit::requeue<ConditionDataV2>(Table<ConditionDataV2> Machine::*, ListKind &);
template void Limit::requeue<MaintenanceDefinitionV1>(Table<MaintenanceDefinitionV1> Machine::*, ListKind &);
template void Limit::requeue<MaintenanceDataV1>(Table<MaintenanceDataV1> Machine::*, ListKind &);
