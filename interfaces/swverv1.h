#ifndef ORVIX_SWVERV1_H
#define ORVIX_SWVERV1_H

#include "recordsupport.h"

#include <QMetaType>
#include <QString>

/** A machine's software version. */
struct SwVerV1
{
    QString version;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit) { visit("version", &SwVerV1::version); }
};

inline bool operator==(const SwVerV1 &a, const SwVerV1 &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const SwVerV1 &a, const SwVerV1 &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const SwVerV1 &record)
{
    return orvix::debugRecord(debug, record, "SwVerV1");
}

Q_DECLARE_METATYPE(SwVerV1)

#endif
