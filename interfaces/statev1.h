#ifndef ORVIX_STATEV1_H
#define ORVIX_STATEV1_H

#include "recordsupport.h"

#include <QMetaType>

/** A machine's state code as one dataset. */
struct StateV1
{
    /** The machine state codes; only these are valid. */
    enum Code : qint32 {
        Offline = 1, ///< switched off, unreachable or silent for too long
        Producing = 2, ///< working on a workpiece
        Setup = 3, ///< being set up (operation mode SETUP)
        Standby = 4, ///< switched on and ready or in standby, but not working
        WorkingWithoutWorkpiece = 5, ///< moving or feeding with no workpiece present
        Waiting = 6, ///< waiting to be loaded or unloaded
        Error = 7, ///< in error
    };

    /** The machine state code, one of Code; only 1 to 7 are valid. */
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
