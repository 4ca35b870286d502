#ifndef ORVIX_SETTINGKEY_H
#define ORVIX_SETTINGKEY_H

#include <QLoggingCategory>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>
#include <QtGlobal>

#include <functional>
#include <limits>
#include <optional>
#include <type_traits>
#include <utility>

template <typename Options> struct Setting;

/** How a value read for a key is stored in its field, by the field's type. */
namespace SettingFields {

inline void assign(QString *field, const QVariant &value)
{
    *field = value.toString();
}

inline void assign(QStringList *field, const QVariant &value)
{
    *field = value.toStringList();
}

inline void assign(bool *field, const QVariant &value)
{
    *field = value.toBool();
}

inline void assign(double *field, const QVariant &value)
{
    *field = value.toDouble();
}

template <typename Number>
std::enable_if_t<std::is_integral<Number>::value> assign(Number *field, const QVariant &value)
{
    *field = Number(value.toULongLong());
}

template <typename Field> void assign(std::optional<Field> *field, const QVariant &value)
{
    if (!value.isValid()) {
        field->reset();
        return;
    }
    Field read {};
    assign(&read, value);
    *field = read;
}

/** Whether a field is a std::optional, and the type of its value. */
template <typename Field> struct Optional : std::false_type
{
    using Value = Field;
};

template <typename Field> struct Optional<std::optional<Field>> : std::true_type
{
    using Value = Field;
};

} // namespace SettingFields

/**
 * One key of a component's INI group, declared once with its type, its default as written in the INI file, its bounds
 * and what it means. Reading, the warning for a value that does not fit, the sample.ini and the README's key table
 * all come from these keys. The factories below also name the field of the component's options that the key fills.
 */
struct SettingKey
{
    /** What a value may be; the bounds apply to Unsigned, Double and Duration. */
    enum class Type {
        String, ///< any text, as written
        Trimmed, ///< text, surrounding spaces dropped
        Bool, ///< true/false, yes/no, on/off or 1/0, in any case
        Unsigned, ///< a whole number from minimum to maximum
        Double, ///< a number from minimum to maximum
        Duration, ///< a whole number of milliseconds from minimum to maximum
        Path, ///< a file or folder, surrounding spaces dropped
        List, ///< entries separated by commas, each trimmed, empty ones left out
    };

    static constexpr quint64 Unbounded = std::numeric_limits<quint64>::max();

    const char *name;
    Type type;
    /** As written in the INI file; empty for a key whose field is optional stands for "none". */
    const char *defaultValue;
    const char *meaning;
    quint64 minimum = 0;
    quint64 maximum = Unbounded;
    /** The component can't work with a value that does not fit: reading fails with a sentence, not a warning. */
    bool strict = false;
    /** The group must write the key, and not empty; the default is only what sample.ini suggests. */
    bool required = false;
    /** The field is optional: an empty value leaves it without one. */
    bool optional = false;
    /** For an optional key: what an empty value stands for, as the warning about a value that does not fit says. */
    const char *emptyMeans = nullptr;

    template <typename Options>
    static Setting<Options> string(
        const char *name, QString Options::*field, const char *defaultValue, const char *meaning)
    {
        return make(name, Type::String, field, defaultValue, meaning);
    }

    template <typename Options>
    static Setting<Options> trimmed(
        const char *name, QString Options::*field, const char *defaultValue, const char *meaning)
    {
        return make(name, Type::Trimmed, field, defaultValue, meaning);
    }

    template <typename Options>
    static Setting<Options> path(
        const char *name, QString Options::*field, const char *defaultValue, const char *meaning)
    {
        return make(name, Type::Path, field, defaultValue, meaning);
    }

    template <typename Options>
    static Setting<Options> list(
        const char *name, QStringList Options::*field, const char *defaultValue, const char *meaning)
    {
        return make(name, Type::List, field, defaultValue, meaning);
    }

    /** field is a bool, or a std::optional<bool> where an empty value means neither. */
    template <typename Options, typename Field>
    static Setting<Options> boolean(
        const char *name, Field Options::*field, const char *defaultValue, const char *meaning)
    {
        static_assert(std::is_same<typename SettingFields::Optional<Field>::Value, bool>::value,
            "a boolean key fills a bool or a std::optional<bool>");
        return make(name, Type::Bool, field, defaultValue, meaning);
    }

    /** field is of an unsigned or signed whole type that holds maximum, or a std::optional of one. */
    template <typename Options, typename Field>
    static Setting<Options> whole(const char *name, Field Options::*field, const char *defaultValue, quint64 minimum,
        quint64 maximum, const char *meaning)
    {
        using Number = typename SettingFields::Optional<Field>::Value;
        static_assert(std::is_integral<Number>::value && !std::is_same<Number, bool>::value,
            "a whole key fills a whole number or a std::optional of one");
        Q_ASSERT_X(maximum <= quint64(std::numeric_limits<Number>::max()), name, "the field can't hold the maximum");
        return make(name, Type::Unsigned, field, defaultValue, meaning, minimum, maximum);
    }

    template <typename Options>
    static Setting<Options> real(const char *name, double Options::*field, const char *defaultValue, quint64 minimum,
        quint64 maximum, const char *meaning)
    {
        return make(name, Type::Double, field, defaultValue, meaning, minimum, maximum);
    }

    /** Milliseconds, into a whole field as for whole(). */
    template <typename Options, typename Field>
    static Setting<Options> duration(const char *name, Field Options::*field, const char *defaultValue, quint64 minimum,
        quint64 maximum, const char *meaning)
    {
        Setting<Options> row = whole(name, field, defaultValue, minimum, maximum, meaning);
        row.key.type = Type::Duration;
        return row;
    }

    /**
     * Reads text as a value of this key into *value: a QString, a bool, a quint64 or a double by type, a QStringList
     * for List. Returns false, with *value untouched, for text that does not fit the type or the bounds.
     */
    bool parse(const QString &text, QVariant *value) const;

    /**
     * Reads this key from group, the component's INI group as QSettings hands it over, into *value: the value
     * written, or the default for a missing key, an invalid QVariant for an optional key left empty. A value that does
     * not fit is warned about in category and replaced by the default; for a strict or required key reading fails
     * instead, with the sentence for the component's refusal in *error.
     */
    bool read(const QVariantMap &group, const QLoggingCategory &category, QVariant *value, QString *error) const;

    /** What a value must be, to finish the sentence "<key> must be ...": "a whole number from 1 to 65535". */
    QString requirement() const;

    /** The type as the README's key table names it: "unsigned, 1 to 65535", "bool", "duration (ms), 0 to 10". */
    QString typeText() const;

private:
    template <typename Options, typename Field>
    static Setting<Options> make(const char *name, Type type, Field Options::*field, const char *defaultValue,
        const char *meaning, quint64 minimum = 0, quint64 maximum = Unbounded);
};

/**
 * A row of a component's settings table: its key, and how a value read for it is stored in the component's options.
 * Made by SettingKey's factories from a pointer to the field, so that a key fills exactly the field it names.
 */
template <typename Options> struct Setting
{
    SettingKey key;
    std::function<void(Options &, const QVariant &)> store;

    Setting(const SettingKey &key, std::function<void(Options &, const QVariant &)> store)
        : key(key)
        , store(std::move(store))
    {
    }

    /** A row of a base of Options, whose fields Options inherits, as a row of Options. */
    template <typename Base,
        typename = std::enable_if_t<std::is_base_of<Base, Options>::value && !std::is_same<Base, Options>::value>>
    Setting(const Setting<Base> &row)
        : key(row.key)
        , store([store = row.store](Options &options, const QVariant &value) { store(options, value); })
    {
    }

    /** The same row, strict: a value that does not fit fails the reading with the sentence of SettingKey::read(). */
    Setting strict() const
    {
        Setting row = *this;
        row.key.strict = true;
        return row;
    }

    /** The same row, required: a group that lacks the key, or leaves it empty, fails the reading. */
    Setting required() const
    {
        Setting row = *this;
        row.key.required = true;
        return row;
    }

    /** The same row of an optional field, with what an empty value stands for, for the warning. */
    Setting emptyMeans(const char *text) const
    {
        Setting row = *this;
        row.key.emptyMeans = text;
        return row;
    }
};

template <typename Options, typename Field>
Setting<Options> SettingKey::make(const char *name, Type type, Field Options::*field, const char *defaultValue,
    const char *meaning, quint64 minimum, quint64 maximum)
{
    SettingKey key { name, type, defaultValue, meaning, minimum, maximum };
    key.optional = SettingFields::Optional<Field>::value;
    return Setting<Options> { key,
        [field](Options &options, const QVariant &value) { SettingFields::assign(&(options.*field), value); } };
}

#endif
