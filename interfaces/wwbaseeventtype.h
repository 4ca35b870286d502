#ifndef ORVIX_WWBASEEVENTTYPE_H
#define ORVIX_WWBASEEVENTTYPE_H

#include "recordsupport.h"

#include <QHash>
#include <QMetaType>
#include <QString>
#include <QStringList>

/** A message event of a woodworking machine (alarm, warning or information). */
struct WwBaseEventType
{
    /** The message; a value beginning with "{OFF" withdraws it. */
    QString Message;
    /** The message's identifier. */
    QString Id;
    /** The event categories of the woodworking model (its WwEventCategoryEnumeration). */
    enum CategoryCode : qint32 {
        Other = 0, ///< no other category applies, or it is unknown
        Diagnostic = 1, ///< for debugging and diagnosis; clients may ignore it
        Information = 2, ///< normal operation goes on if it is ignored
        Warning = 3, ///< of moderate importance
        Alarm = 4, ///< calls for action before consequences occur
        Error = 5, ///< a problem that needs human interaction
    };

    /** The category code, one of CategoryCode, mapped to the notification severity. */
    qint32 Category = Other;
    /** The message text per language. */
    QHash<QString, QString> Texts;
    QString Text5;
    QString Text6;
    QString Text7;
    /** The position of the message's source in the machine. */
    QStringList Path;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("Message", &WwBaseEventType::Message);
        visit("Id", &WwBaseEventType::Id);
        visit("Category", &WwBaseEventType::Category);
        visit("Texts", &WwBaseEventType::Texts);
        visit("Text5", &WwBaseEventType::Text5);
        visit("Text6", &WwBaseEventType::Text6);
        visit("Text7", &WwBaseEventType::Text7);
        visit("Path", &WwBaseEventType::Path);
    }
};

inline bool operator==(const WwBaseEventType &a, const WwBaseEventType &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const WwBaseEventType &a, const WwBaseEventType &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const WwBaseEventType &record)
{
    return orvix::debugRecord(debug, record, "WwBaseEventType");
}

Q_DECLARE_METATYPE(WwBaseEventType)

#endif
