#ifndef ORVIX_WWIDENTIFICATION_H
#define ORVIX_WWIDENTIFICATION_H

#include "recordsupport.h"

#include <QDateTime>
#include <QMetaType>
#include <QString>

#include <optional>

/** A woodworking machine's nameplate: manufacturer, model, serial number, place of installation and the like. */
struct WwIdentification
{
    /** The name under which the datasource knows the machine; not mapped to conditions. */
    QString Name;
    QString ProductInstanceUri;
    QString Manufacturer;
    std::optional<QString> ManufacturerUri;
    QString Model;
    std::optional<QString> ProductCode;
    std::optional<QString> HardwareRevision;
    std::optional<QString> SoftwareRevision;
    QString DeviceClass;
    QString SerialNumber;
    quint16 YearOfConstruction = 0;
    std::optional<quint8> MonthOfConstruction;
    std::optional<QDateTime> InitialOperationDate;
    std::optional<QString> AssetId;
    std::optional<QString> ComponentName;
    std::optional<QString> Location;
    std::optional<QString> LocationPlant;
    std::optional<QString> LocationGPS;
    std::optional<QString> CustomerCompanyName;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("Name", &WwIdentification::Name);
        visit("ProductInstanceUri", &WwIdentification::ProductInstanceUri);
        visit("Manufacturer", &WwIdentification::Manufacturer);
        visit("ManufacturerUri", &WwIdentification::ManufacturerUri);
        visit("Model", &WwIdentification::Model);
        visit("ProductCode", &WwIdentification::ProductCode);
        visit("HardwareRevision", &WwIdentification::HardwareRevision);
        visit("SoftwareRevision", &WwIdentification::SoftwareRevision);
        visit("DeviceClass", &WwIdentification::DeviceClass);
        visit("SerialNumber", &WwIdentification::SerialNumber);
        visit("YearOfConstruction", &WwIdentification::YearOfConstruction);
        visit("MonthOfConstruction", &WwIdentification::MonthOfConstruction);
        visit("InitialOperationDate", &WwIdentification::InitialOperationDate);
        visit("AssetId", &WwIdentification::AssetId);
        visit("ComponentName", &WwIdentification::ComponentName);
        visit("Location", &WwIdentification::Location);
        visit("LocationPlant", &WwIdentification::LocationPlant);
        visit("LocationGPS", &WwIdentification::LocationGPS);
        visit("CustomerCompanyName", &WwIdentification::CustomerCompanyName);
    }
};

inline bool operator==(const WwIdentification &a, const WwIdentification &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const WwIdentification &a, const WwIdentification &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const WwIdentification &record)
{
    return orvix::debugRecord(debug, record, "WwIdentification");
}

Q_DECLARE_METATYPE(WwIdentification)

#endif
