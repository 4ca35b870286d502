#ifndef ORVIX_CONDITIONDATASV2_H
#define ORVIX_CONDITIONDATASV2_H

#include "conditiondatav2.h"
#include "recordsupport.h"

#include <QDateTime>
#include <QList>
#include <QMetaType>

/** A list of condition values of one machine. */
struct ConditionDatasV2
{
    QDateTime timestamp;
    QList<ConditionDataV2> items;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("timestamp", &ConditionDatasV2::timestamp);
        visit("items", &ConditionDatasV2::items);
    }
};

inline bool operator==(const ConditionDatasV2 &a, const ConditionDatasV2 &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const ConditionDatasV2 &a, const ConditionDatasV2 &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const ConditionDatasV2 &record)
{
    return orvix::debugRecord(debug, record, "ConditionDatasV2");
}

Q_DECLARE_METATYPE(ConditionDatasV2)

#endif
