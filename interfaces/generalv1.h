#ifndef ORVIX_GENERALV1_H
#define ORVIX_GENERALV1_H

#include "recordsupport.h"

#include <QMetaType>

/** A machine's operating data: its counters of hours, pieces and length. */
struct GeneralV1
{
    /** Hours with power present. */
    double powerOnHours = 0;
    /** Hours with feed on. */
    double feedOnHours = 0;
    /** Pieces out (produced). */
    quint64 pieces = 0;
    /** Total length produced, in metres. */
    double length = 0;
    qint64 counter5 = 0;
    qint64 counter6 = 0;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("powerOnHours", &GeneralV1::powerOnHours);
        visit("feedOnHours", &GeneralV1::feedOnHours);
        visit("pieces", &GeneralV1::pieces);
        visit("length", &GeneralV1::length);
        visit("counter5", &GeneralV1::counter5);
        visit("counter6", &GeneralV1::counter6);
    }
};

Q_DECLARE_TYPEINFO(GeneralV1, Q_MOVABLE_TYPE);

inline bool operator==(const GeneralV1 &a, const GeneralV1 &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const GeneralV1 &a, const GeneralV1 &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const GeneralV1 &record)
{
    return orvix::debugRecord(debug, record, "GeneralV1");
}

Q_DECLARE_METATYPE(GeneralV1)

#endif
