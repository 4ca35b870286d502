#ifndef ORVIX_NAMECACHE_H
#define ORVIX_NAMECACHE_H

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
        QString &slot = m_slots[int(hash(name.utf16(), name.size()) & (Slots - 1))];
        if (slot != name || slot.isNull() != name.isNull())
            slot = name;
        return slot;
    }

    /**
     * The text of the UTF-8 bytes as intern() gives it, made only when it is not there already: the bytes of an ASCII
     * name are compared with the slot's text as they stand. An empty name is an empty text, not a null one.
     */
    QString intern(const char *utf8, int size)
    {
        if (size == 0)
            return QLatin1String("");
        QString &slot = m_slots[int(hash(reinterpret_cast<const uchar *>(utf8), size) & (Slots - 1))];
        bool ascii = true;
        for (int i = 0; i < size && ascii; ++i)
            ascii = uchar(utf8[i]) < 0x80;
        if (ascii) {
            if (slot.size() != size || slot != QLatin1String(utf8, size))
                slot = QString::fromLatin1(utf8, size);
        } else {
            const QString text = QString::fromUtf8(utf8, size);
            if (slot != text)
                slot = text;
        }
        return slot;
    }

private:
    // Over the units of the text, so that an ASCII name falls into the same slot as its bytes and as its text.
    template <typename Unit> static uint hash(const Unit *units, int size)
    {
        uint h = uint(size);
        for (int i = 0; i < size; ++i)
            h = h * 31 + uint(units[i]);
        return h ^ (h >> 15);
    }

    static constexpr uint Slots = 4096;
    QVector<QString> m_slots;
};

#endif
