#ifndef ORVIX_RECORDSUPPORT_H
#define ORVIX_RECORDSUPPORT_H

#include <QDateTime>
#include <QDebug>
#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <optional>
#include <type_traits>

/*
 * Every dataset record lists its fields once, in its static visitFields(visit) function, which calls
 * visit(name, &Record::field) for each field in declaration order. Equality, debug output and the JSON codec are
 * built on that one list, so a field added to a record is compared, printed and encoded without further changes.
 */
namespace orvix {

/**
 * Field equality: exact for variants (same type and same value), the type's own operator== otherwise; so, as with
 * QString, a null and an empty text compare equal.
 */
template <typename T> inline bool fieldEquals(const T &a, const T &b)
{
    return a == b;
}

inline bool fieldEquals(const QVariant &a, const QVariant &b)
{
    // QVariant's own == converts between types, so 12 and "12" would compare equal; a changed type is a change.
    return a.userType() == b.userType() && a == b;
}

/** Compares two records of the same type field by field. */
template <typename Record> inline bool recordsEqual(const Record &a, const Record &b)
{
    bool equal = true;
    Record::visitFields([&](const char *, auto member) { equal = equal && fieldEquals(a.*member, b.*member); });
    return equal;
}

template <typename T> inline void debugField(QDebug &debug, const T &value)
{
    // quint8 would otherwise be printed as a character.
    if constexpr (std::is_same_v<T, quint8>)
        debug << uint(value);
    else
        debug << value;
}

template <typename T> inline void debugField(QDebug &debug, const std::optional<T> &value)
{
    if (value.has_value())
        debugField(debug, *value);
    else
        debug << "absent";
}

/** Writes a record as Name(field: value, ...), absent optional fields as "absent". */
template <typename Record> inline QDebug debugRecord(QDebug debug, const Record &record, const char *typeName)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << typeName << '(';
    bool first = true;
    Record::visitFields([&](const char *name, auto member) {
        if (!first)
            debug << ", ";
        first = false;
        debug << name << ": ";
        debugField(debug, record.*member);
    });
    debug << ')';
    return debug;
}

} // namespace orvix

#endif
