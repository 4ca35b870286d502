#ifndef ORVIX_LIMITSCHEDULE_H
#define ORVIX_LIMITSCHEDULE_H

// Limit's flush schedule: per list kind, when the machines' lists may leave next. Only the limiter's own sources
// include this.

#include "limitentries.h"

namespace LimitDetail {

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

} // namespace LimitDetail

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

#endif
