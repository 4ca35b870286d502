#ifndef ORVIX_NOTIFICATIONSREMOVEALLV1_H
#define ORVIX_NOTIFICATIONSREMOVEALLV1_H

#include "recordsupport.h"

#include <QDateTime>
#include <QMetaType>

/** Withdraws all notifications of a machine. */
struct NotificationsRemoveAllV1
{
    QDateTime timestamp;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("timestamp", &NotificationsRemoveAllV1::timestamp);
    }
};

inline bool operator==(const NotificationsRemoveAllV1 &a, const NotificationsRemoveAllV1 &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const NotificationsRemoveAllV1 &a, const NotificationsRemoveAllV1 &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const NotificationsRemoveAllV1 &record)
{
    return orvix::debugRecord(debug, record, "NotificationsRemoveAllV1");
}

Q_DECLARE_METATYPE(NotificationsRemoveAllV1)

#endif
