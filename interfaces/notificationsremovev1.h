#ifndef ORVIX_NOTIFICATIONSREMOVEV1_H
#define ORVIX_NOTIFICATIONSREMOVEV1_H

#include "recordsupport.h"

#include <QDateTime>
#include <QMetaType>
#include <QString>

/** Withdraws one notification of a machine. */
struct NotificationsRemoveV1
{
    /** The notification to remove. */
    QString id;
    QDateTime timestamp;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("id", &NotificationsRemoveV1::id);
        visit("timestamp", &NotificationsRemoveV1::timestamp);
    }
};

inline bool operator==(const NotificationsRemoveV1 &a, const NotificationsRemoveV1 &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const NotificationsRemoveV1 &a, const NotificationsRemoveV1 &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const NotificationsRemoveV1 &record)
{
    return orvix::debugRecord(debug, record, "NotificationsRemoveV1");
}

Q_DECLARE_METATYPE(NotificationsRemoveV1)

#endif
