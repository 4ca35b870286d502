#ifndef ORVIX_MAINTENANCEDEFINITIONV1_H
#define ORVIX_MAINTENANCEDEFINITIONV1_H

#include "recordsupport.h"

#include <QDateTime>
#include <QMetaType>
#include <QString>

/** Describes one maintenance item of a machine. */
struct MaintenanceDefinitionV1
{
    /** Key of the maintenance item within its machine. */
    QString id;
    QDateTime timestamp;
    QString text3;
    /** Human-readable unit of the interval values ("HOURS", "#" ...). */
    QString unitText;
    /** UN/ECE common code of the unit ("HUR", "SEC", "NPT"). */
    QString unitCode = QLatin1String("");
    /** Second unit identifier. */
    QString unitKey = QLatin1String("");
    double value7;
    double value8;
    QString text9 = QLatin1String("");
    bool flag10 = false;
    bool flag11 = false;
    bool flag12 = false;
    bool flag13 = false;
    QString text14 = QLatin1String("");
    QString text15 = QLatin1String("");
    QString text16 = QLatin1String("");
    /** Free comment text. */
    QString comment = QLatin1String("");
    bool flag18 = false;
    QString text19 = QLatin1String("");
    QString text20 = QLatin1String("");

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("id", &MaintenanceDefinitionV1::id);
        visit("timestamp", &MaintenanceDefinitionV1::timestamp);
        visit("text3", &MaintenanceDefinitionV1::text3);
        visit("unitText", &MaintenanceDefinitionV1::unitText);
        visit("unitCode", &MaintenanceDefinitionV1::unitCode);
        visit("unitKey", &MaintenanceDefinitionV1::unitKey);
        visit("value7", &MaintenanceDefinitionV1::value7);
        visit("value8", &MaintenanceDefinitionV1::value8);
        visit("text9", &MaintenanceDefinitionV1::text9);
        visit("flag10", &MaintenanceDefinitionV1::flag10);
        visit("flag11", &MaintenanceDefinitionV1::flag11);
        visit("flag12", &MaintenanceDefinitionV1::flag12);
        visit("flag13", &MaintenanceDefinitionV1::flag13);
        visit("text14", &MaintenanceDefinitionV1::text14);
        visit("text15", &MaintenanceDefinitionV1::text15);
        visit("text16", &MaintenanceDefinitionV1::text16);
        visit("comment", &MaintenanceDefinitionV1::comment);
        visit("flag18", &MaintenanceDefinitionV1::flag18);
        visit("text19", &MaintenanceDefinitionV1::text19);
        visit("text20", &MaintenanceDefinitionV1::text20);
    }
};

inline bool operator==(const MaintenanceDefinitionV1 &a, const MaintenanceDefinitionV1 &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const MaintenanceDefinitionV1 &a, const MaintenanceDefinitionV1 &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const MaintenanceDefinitionV1 &record)
{
    return orvix::debugRecord(debug, record, "MaintenanceDefinitionV1");
}

Q_DECLARE_METATYPE(MaintenanceDefinitionV1)

#endif
