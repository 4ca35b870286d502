#ifndef ORVIX_CONDITIONDATAV2_H
#define ORVIX_CONDITIONDATAV2_H

#include "recordsupport.h"

#include <QMetaType>
#include <QString>
#include <QVariant>

/** One value of a condition of a machine. */
struct ConditionDataV2
{
    /** The id of the ConditionDefinitionV2 that describes it. */
    QString id;
    /** The value: bool, int, uint, qulonglong, double or QString. */
    QVariant value;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("id", &ConditionDataV2::id);
        visit("value", &ConditionDataV2::value);
    }
};

inline bool operator==(const ConditionDataV2 &a, const ConditionDataV2 &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const ConditionDataV2 &a, const ConditionDataV2 &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const ConditionDataV2 &record)
{
    return orvix::debugRecord(debug, record, "ConditionDataV2");
}

Q_DECLARE_METATYPE(ConditionDataV2)

#endif
