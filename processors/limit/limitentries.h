#ifndef ORVIX_LIMITENTRIES_H
#define ORVIX_LIMITENTRIES_H

// Limit's entry index: what it keeps per machine, and per list kind of a machine the entries found by id. Only the
// limiter's own sources include this.

#include "limit.h"
#include "mmdatasets.h"

#include <QDateTime>

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

namespace LimitDetail {

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

/** Whether two variants of one type certainly compare equal, by their bits; false leaves it to QVariant. */
inline bool sameBits(const QVariant &a, const QVariant &b)
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
        return s.isSharedWith(t);
    }
    default:
        return false;
    }
}

/** Whether a list entry counts as changed against the stored one of the same id. */
template <typename Item> inline bool entryChanged(const Item &stored, const Item &item)
{
    return stored != item;
}

// The entry was found by its id, so only the value can differ; most values come unchanged, mostly with the same bits.
template <> inline bool entryChanged(const ConditionDataV2 &stored, const ConditionDataV2 &item)
{
    if (stored.value.userType() != item.value.userType())
        return true;
    return !sameBits(stored.value, item.value) && !(stored.value == item.value);
}

// Maintenance values count as changed only through their two values.
template <> inline bool entryChanged(const MaintenanceDataV1 &stored, const MaintenanceDataV1 &item)
{
    return stored.value2 != item.value2 || stored.value3 != item.value3;
}

} // namespace LimitDetail

// Limit's own nested records and sources use these names as their own.
using namespace LimitDetail;

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
            // Ids come from their sender's kept strings: one shared text is the same id without a look at either.
            const QString &known = items[size_t(hint)]->id;
            if (known.isSharedWith(id) || known == id)
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
    // The items of the last list taken; never changed here, so that pointers into it stay valid. Taking the next one
    // lets go of it, which is what its sender counts on (listhandover.h).
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

#endif
