#ifndef ORVIX_MAINTENANCEDEFINITIONSV1_H
#define ORVIX_MAINTENANCEDEFINITIONSV1_H

#include "maintenancedefinitionv1.h"
#include "recordsupport.h"

#include <QDateTime>
#include <QList>
#include <QMetaType>

/** A list of maintenance definitions of one machine. */
struct MaintenanceDefinitionsV1
{
    QDateTime timestamp;
    QList<MaintenanceDefinitionV1> items;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("timestamp", &MaintenanceDefinitionsV1::timestamp);
        visit("items", &MaintenanceDefinitionsV1::items);
    }
};

inline bool operator==(const MaintenanceDefinitionsV1 &a, const MaintenanceDefinitionsV1 &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const MaintenanceDefinitionsV1 &a, const MaintenanceDefinitionsV1 &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const MaintenanceDefinitionsV1 &record)
{
    return orvix::debugRecord(debug, record, "MaintenanceDefinitionsV1");
}

Q_DECLARE_METATYPE(MaintenanceDefinitionsV1)

#endif
