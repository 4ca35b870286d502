#ifndef ORVIX_WWCAPABILITIES_H
#define ORVIX_WWCAPABILITIES_H

#include "recordsupport.h"

#include <QMetaType>

/** What a woodworking machine supplies by itself, as a mask of capability bits. */
struct WwCapabilities
{
    /** The capability bits. */
    quint32 Mask = 0;

    /** The machine supplies its own WwIdentification. */
    static constexpr quint32 OwnIdentification = 1;
    /** The machine supplies its own WwState. */
    static constexpr quint32 OwnState = 2;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit) { visit("Mask", &WwCapabilities::Mask); }
};

inline bool operator==(const WwCapabilities &a, const WwCapabilities &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const WwCapabilities &a, const WwCapabilities &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const WwCapabilities &record)
{
    return orvix::debugRecord(debug, record, "WwCapabilities");
}

Q_DECLARE_METATYPE(WwCapabilities)

#endif
