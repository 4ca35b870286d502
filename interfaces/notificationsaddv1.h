#ifndef ORVIX_NOTIFICATIONSADDV1_H
#define ORVIX_NOTIFICATIONSADDV1_H

#include "recordsupport.h"

#include <QDateTime>
#include <QMetaType>
#include <QString>

/** One notification of a machine to be raised. */
struct NotificationsAddV1
{
    /** Identifies the notification; a later NotificationsRemoveV1 names it again. */
    QString id;
    /** When the notification arose. */
    QDateTime timestamp;
    bool flag = false;
    /** The severity levels of a notification. */
    enum Level : qint32 {
        Other = 0, ///< no severity of its own
        Information = 1, ///< for information
        Warning = 2, ///< a warning; raises the machine's Warning flag
        Alarm = 3, ///< an alarm; raises the machine's Alarm flag
    };

    /** Severity, one of Level. */
    qint32 level;
    /** The notification text. */
    QString message;
    /** The machine's own message id. */
    QString messageCode;
    QString text7;
    QString text8;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("id", &NotificationsAddV1::id);
        visit("timestamp", &NotificationsAddV1::timestamp);
        visit("flag", &NotificationsAddV1::flag);
        visit("level", &NotificationsAddV1::level);
        visit("message", &NotificationsAddV1::message);
        visit("messageCode", &NotificationsAddV1::messageCode);
        visit("text7", &NotificationsAddV1::text7);
        visit("text8", &NotificationsAddV1::text8);
    }
};

inline bool operator==(const NotificationsAddV1 &a, const NotificationsAddV1 &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const NotificationsAddV1 &a, const NotificationsAddV1 &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const NotificationsAddV1 &record)
{
    return orvix::debugRecord(debug, record, "NotificationsAddV1");
}

Q_DECLARE_METATYPE(NotificationsAddV1)

#endif
