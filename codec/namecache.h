#ifndef ORVIX_NAMECACHE_H
#define ORVIX_NAMECACHE_H

#include <QHash>
#include <QString>
#include <QVector>

/**
 * The names that repeat in decoded datasets (machines, sources) as one shared text each: equal names then share
 * their characters, and a comparison of two of them ends at the pointers. Bounded: a fixed number of slots, and a
 * name replaces the one in its slot.
 */
class NameCache
{
public:
    NameCache()
        : m_slots(Slots)
    {
    }

    /** name, or an equal text handed out before, which shares its characters with earlier datasets. */
    QString intern(const QString &name)
    {
        QString &slot = m_slots[int(qHash(name) & (Slots - 1))];
        if (slot != name || slot.isNull() != name.isNull())
            slot = name;
        return slot;
    }

private:
    static constexpr uint Slots = 4096;
    QVector<QString> m_slots;
};

#endif
