#ifndef ORVIX_RECORDTESTHELPERS_H
#define ORVIX_RECORDTESTHELPERS_H

#include "recordsupport.h"

#include <QDateTime>
#include <QHash>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <optional>
#include <type_traits>

// Generic helpers for the record tests: they walk a record's fields through its visitFields list, so that every
// field of every type is checked without writing a line per field.
namespace recordtest {

template <typename T> struct IsOptional : std::false_type
{
};
template <typename T> struct IsOptional<std::optional<T>> : std::true_type
{
};

template <typename T> struct IsList : std::false_type
{
};
template <typename T> struct IsList<QList<T>> : std::true_type
{
};

template <typename Record> Record filledRecord();

/** A value of the field's type that differs from every default. */
template <typename T> T filledValue(const char *name)
{
    if constexpr (IsOptional<T>::value) {
        return T(filledValue<typename T::value_type>(name));
    } else if constexpr (IsList<T>::value) {
        return T { filledRecord<typename T::value_type>() };
    } else if constexpr (std::is_same_v<T, QString>) {
        return QLatin1String("value of ") + QLatin1String(name);
    } else if constexpr (std::is_same_v<T, QStringList>) {
        return QStringList { QStringLiteral("a"), QLatin1String(name) };
    } else if constexpr (std::is_same_v<T, QHash<QString, QString>>) {
        return QHash<QString, QString> { { QStringLiteral("en"), QLatin1String(name) } };
    } else if constexpr (std::is_same_v<T, QDateTime>) {
        return QDateTime(QDate(2021, 3, 4), QTime(5, 6, 7, 890), Qt::UTC);
    } else if constexpr (std::is_same_v<T, QVariant>) {
        return QVariant(12u);
    } else if constexpr (std::is_same_v<T, bool>) {
        return true;
    } else if constexpr (std::is_arithmetic_v<T>) {
        return T(7);
    } else {
        return filledRecord<T>();
    }
}

/** A record with every field set, optional blocks present and filled as well. */
template <typename Record> Record filledRecord()
{
    Record record {};
    Record::visitFields([&](const char *name, auto member) {
        using Field = std::decay_t<decltype(record.*member)>;
        record.*member = filledValue<Field>(name);
    });
    return record;
}

/** Changes a field to a different value of its type. */
template <typename T> void perturb(T &value)
{
    if constexpr (IsOptional<T>::value) {
        if (value.has_value())
            value.reset();
        else
            value = filledValue<typename T::value_type>("perturbed");
    } else if constexpr (IsList<T>::value) {
        value.append(typename T::value_type {});
    } else if constexpr (std::is_same_v<T, QString>) {
        value.append(QLatin1Char('x'));
    } else if constexpr (std::is_same_v<T, QStringList>) {
        value.append(QStringLiteral("x"));
    } else if constexpr (std::is_same_v<T, QHash<QString, QString>>) {
        value.insert(QStringLiteral("xx"), QStringLiteral("x"));
    } else if constexpr (std::is_same_v<T, QDateTime>) {
        value = value.addMSecs(1);
    } else if constexpr (std::is_same_v<T, QVariant>) {
        value = QVariant(value.toUInt() + 1);
    } else if constexpr (std::is_same_v<T, bool>) {
        value = !value;
    } else if constexpr (std::is_arithmetic_v<T>) {
        value = T(value + 1);
    } else {
        // A nested record: change its first field.
        bool done = false;
        T::visitFields([&](const char *, auto member) {
            if (!done)
                perturb(value.*member);
            done = true;
        });
    }
}

/** The field names of a record, in declaration order. */
template <typename Record> QStringList fieldNames()
{
    QStringList names;
    Record::visitFields([&](const char *name, auto) { names.append(QLatin1String(name)); });
    return names;
}

/** The names of the record's QString fields that are null, respectively empty but not null, after default construction.
 */
template <typename Record> void stringDefaults(QStringList *nullFields, QStringList *emptyFields)
{
    Record record; // default-initialised on purpose: value-initialisation would hide the defaults
    Record::visitFields([&](const char *name, auto member) {
        using Field = std::decay_t<decltype(record.*member)>;
        if constexpr (std::is_same_v<Field, QString>) {
            if ((record.*member).isNull())
                nullFields->append(QLatin1String(name));
            else if ((record.*member).isEmpty())
                emptyFields->append(QLatin1String(name));
        }
    });
}

/**
 * Checks operator== and operator!= field by field: a filled record equals its copy, and changing any single field
 * makes it differ. Returns the names of fields whose change went unnoticed.
 */
template <typename Record> QStringList fieldsIgnoredByEquality()
{
    QStringList ignored;
    const Record base = filledRecord<Record>();
    const Record copy = base;
    if (!(copy == base) || copy != base)
        ignored.append(QStringLiteral("<copy differs>"));
    Record::visitFields([&](const char *name, auto member) {
        Record changed = base;
        perturb(changed.*member);
        if (changed == base || !(changed != base) || base == changed)
            ignored.append(QLatin1String(name));
    });
    return ignored;
}

/** The registered name, id and movability of a record type as the meta-type system reports them. */
struct Registration
{
    QString variantTypeName;
    int id = 0;
    int idByName = 0;
    bool movable = false;
};

template <typename Record> Registration registration()
{
    Registration r;
    r.variantTypeName = QString::fromLatin1(QVariant::fromValue(Record {}).typeName());
    r.id = qMetaTypeId<Record>();
    r.idByName = QMetaType::type(r.variantTypeName.toLatin1().constData());
    r.movable = QMetaType::typeFlags(r.id).testFlag(QMetaType::MovableType);
    return r;
}

} // namespace recordtest

#endif
