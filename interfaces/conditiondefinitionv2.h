#ifndef ORVIX_CONDITIONDEFINITIONV2_H
#define ORVIX_CONDITIONDEFINITIONV2_H

#include "recordsupport.h"

#include <QMetaType>
#include <QString>

#include <optional>
#include <type_traits>

/** Describes one condition value of a machine; its values come as ConditionDataV2 with the same id. */
struct ConditionDefinitionV2
{
    /** Key of the condition within its machine. */
    QString id;
    /** The bare flag, value or field name. */
    QString name = QLatin1String("");
    QString text3;
    QString text4;
    /** The types of condition values. */
    enum DataType : qint32 {
        Text = 0, ///< a text
        Integer = 1, ///< a whole number
        FloatingPoint = 2, ///< a double
        Boolean = 3, ///< true or false
    };

    /** Type of the values, one of DataType. */
    qint32 dataType;
    /** Machine-readable unit code. */
    QString unitCode = QLatin1String("");
    /** Second unit identifier. */
    QString unitKey = QLatin1String("");
    /** Human-readable unit text. */
    QString unitText = QLatin1String("");
    double number9 = 0;
    /** A decimal number held as text. */
    QString lowerValue = QLatin1String("");
    /** A decimal number held as text. */
    QString upperValue = QLatin1String("");
    QString text12 = QLatin1String("");
    QString text13 = QLatin1String("");
    bool flag14 = false;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("id", &ConditionDefinitionV2::id);
        visit("name", &ConditionDefinitionV2::name);
        visit("text3", &ConditionDefinitionV2::text3);
        visit("text4", &ConditionDefinitionV2::text4);
        visit("dataType", &ConditionDefinitionV2::dataType);
        visit("unitCode", &ConditionDefinitionV2::unitCode);
        visit("unitKey", &ConditionDefinitionV2::unitKey);
        visit("unitText", &ConditionDefinitionV2::unitText);
        visit("number9", &ConditionDefinitionV2::number9);
        visit("lowerValue", &ConditionDefinitionV2::lowerValue);
        visit("upperValue", &ConditionDefinitionV2::upperValue);
        visit("text12", &ConditionDefinitionV2::text12);
        visit("text13", &ConditionDefinitionV2::text13);
        visit("flag14", &ConditionDefinitionV2::flag14);
    }
};

inline bool operator==(const ConditionDefinitionV2 &a, const ConditionDefinitionV2 &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const ConditionDefinitionV2 &a, const ConditionDefinitionV2 &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const ConditionDefinitionV2 &record)
{
    return orvix::debugRecord(debug, record, "ConditionDefinitionV2");
}

namespace orvix {
template <typename T> struct PlainField
{
    using type = T;
};
template <typename T> struct PlainField<std::optional<T>>
{
    using type = T;
};

/**
 * The condition type of a record field, derived from the type of its value. The mapper and the datasources that
 * announce their definitions in advance must agree on it, so it is stated once, here.
 */
template <typename Field> constexpr qint32 conditionTypeOf()
{
    using T = typename PlainField<Field>::type;
    if constexpr (std::is_same_v<T, bool>)
        return ConditionDefinitionV2::Boolean;
    else if constexpr (std::is_floating_point_v<T>)
        return ConditionDefinitionV2::FloatingPoint;
    else if constexpr (std::is_integral_v<T>)
        return ConditionDefinitionV2::Integer;
    else
        return ConditionDefinitionV2::Text;
}

/**
 * The definition the mapping makes of a record field: the id is the machine's name, the field's path and its name;
 * the name is the field's own; the type is that of its value; the rest keeps its default.
 */
template <typename Field>
ConditionDefinitionV2 fieldDefinition(const QString &machine, const char *path, const char *name)
{
    ConditionDefinitionV2 definition;
    definition.id = machine + QLatin1String(path) + QLatin1String(name);
    definition.name = QString::fromLatin1(name);
    definition.dataType = conditionTypeOf<Field>();
    return definition;
}
} // namespace orvix

Q_DECLARE_METATYPE(ConditionDefinitionV2)

#endif
