#ifndef ORVIX_MAINTENANCEDATASV1_H
#define ORVIX_MAINTENANCEDATASV1_H

#include "maintenancedatav1.h"
#include "recordsupport.h"

#include <QDateTime>
#include <QList>
#include <QMetaType>

/** A list of maintenance states of one machine. */
struct MaintenanceDatasV1
{
    QDateTime timestamp;
    QList<MaintenanceDataV1> items;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("timestamp", &MaintenanceDatasV1::timestamp);
        visit("items", &MaintenanceDatasV1::items);
    }
};

inline bool operator==(const MaintenanceDatasV1 &a, const MaintenanceDatasV1 &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const MaintenanceDatasV1 &a, const MaintenanceDatasV1 &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const MaintenanceDatasV1 &record)
{
    return orvix::debugRecord(debug, record, "MaintenanceDatasV1");
}

Q_DECLARE_METATYPE(MaintenanceDatasV1)

#endif
