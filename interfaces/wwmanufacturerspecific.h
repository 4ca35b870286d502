#ifndef ORVIX_WWMANUFACTURERSPECIFIC_H
#define ORVIX_WWMANUFACTURERSPECIFIC_H

#include "recordsupport.h"

#include <QMetaType>
#include <QString>

/** Manufacturer-specific data of a woodworking machine. */
struct WwManufacturerSpecific
{
    /** The name of the program the machine ran last. */
    QString LastProgramName;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("LastProgramName", &WwManufacturerSpecific::LastProgramName);
    }
};

inline bool operator==(const WwManufacturerSpecific &a, const WwManufacturerSpecific &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const WwManufacturerSpecific &a, const WwManufacturerSpecific &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const WwManufacturerSpecific &record)
{
    return orvix::debugRecord(debug, record, "WwManufacturerSpecific");
}

Q_DECLARE_METATYPE(WwManufacturerSpecific)

#endif
