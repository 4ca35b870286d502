#ifndef ORVIX_MAINTENANCEDATAV1_H
#define ORVIX_MAINTENANCEDATAV1_H

#include "recordsupport.h"

#include <QMetaType>
#include <QString>

/** The current state of one maintenance item of a machine. */
struct MaintenanceDataV1
{
    /** The id of the MaintenanceDefinitionV1 that it belongs to. */
    QString id;
    double value2;
    double value3;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("id", &MaintenanceDataV1::id);
        visit("value2", &MaintenanceDataV1::value2);
        visit("value3", &MaintenanceDataV1::value3);
    }
};

inline bool operator==(const MaintenanceDataV1 &a, const MaintenanceDataV1 &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const MaintenanceDataV1 &a, const MaintenanceDataV1 &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const MaintenanceDataV1 &record)
{
    return orvix::debugRecord(debug, record, "MaintenanceDataV1");
}

Q_DECLARE_METATYPE(MaintenanceDataV1)

#endif
