#ifndef ORVIX_CONDITIONDEFINITIONSV2_H
#define ORVIX_CONDITIONDEFINITIONSV2_H

#include "conditiondefinitionv2.h"
#include "recordsupport.h"

#include <QDateTime>
#include <QList>
#include <QMetaType>

/** A list of condition definitions of one machine. */
struct ConditionDefinitionsV2
{
    QDateTime timestamp;
    QList<ConditionDefinitionV2> items;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("timestamp", &ConditionDefinitionsV2::timestamp);
        visit("items", &ConditionDefinitionsV2::items);
    }
};

inline bool operator==(const ConditionDefinitionsV2 &a, const ConditionDefinitionsV2 &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const ConditionDefinitionsV2 &a, const ConditionDefinitionsV2 &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const ConditionDefinitionsV2 &record)
{
    return orvix::debugRecord(debug, record, "ConditionDefinitionsV2");
}

Q_DECLARE_METATYPE(ConditionDefinitionsV2)

#endif
