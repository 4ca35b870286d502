#ifndef ORVIX_STATEV1_H
#define ORVIX_STATEV1_H

#include "recordsupport.h"

#include <QMetaType>

/** A machine's state code as one dataset. */
struct StateV1
{
    /** The machine state code; only 1 to 7 are valid, 1 is an offline machine. */
    qint32 state;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit) { visit("state", &StateV1::state); }
};

Q_DECLARE_TYPEINFO(StateV1, Q_MOVABLE_TYPE);

inline bool operator==(const StateV1 &a, const StateV1 &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const StateV1 &a, const StateV1 &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const StateV1 &record)
{
    return orvix::debugRecord(debug, record, "StateV1");
}

Q_DECLARE_METATYPE(StateV1)

#endif
