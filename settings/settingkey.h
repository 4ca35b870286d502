#ifndef ORVIX_SETTINGKEY_H
#define ORVIX_SETTINGKEY_H

#include <QString>
#include <QVariant>
#include <QtGlobal>

#include <limits>

/**
 * One row of a component's settings table: a key of its INI group, declared once with its type, its default as
 * written in the INI file, its bounds and what it means. Reading, the warning for a value that does not fit, the
 * sample.ini and the README's key table all come from these rows.
 */
struct SettingKey
{
    /** What a value may be; the bounds apply to Unsigned, Double and Duration. */
    enum class Type {
        String, ///< any text, as written
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
    /** As written in the INI file; empty for a number stands for "none" (see SettingsGroup::optionalNumber()). */
    const char *defaultValue;
    const char *meaning;
    quint64 minimum = 0;
    quint64 maximum = Unbounded;

    static SettingKey string(const char *name, const char *defaultValue, const char *meaning);
    static SettingKey path(const char *name, const char *defaultValue, const char *meaning);
    static SettingKey list(const char *name, const char *defaultValue, const char *meaning);
    static SettingKey boolean(const char *name, const char *defaultValue, const char *meaning);
    static SettingKey whole(
        const char *name, const char *defaultValue, quint64 minimum, quint64 maximum, const char *meaning);
    static SettingKey real(
        const char *name, const char *defaultValue, quint64 minimum, quint64 maximum, const char *meaning);
    static SettingKey duration(
        const char *name, const char *defaultValue, quint64 minimum, quint64 maximum, const char *meaning);

    /**
     * Reads text as a value of this key into *value: a QString, a bool, a quint64 or a double by type, a QStringList
     * for List. Returns false, with *value untouched, for text that does not fit the type or the bounds.
     */
    bool parse(const QString &text, QVariant *value) const;

    /** What a value must be, to finish the sentence "<key> must be ...": "a whole number from 1 to 65535". */
    QString requirement() const;

    /** The type as the README's key table names it: "unsigned, 1 to 65535", "bool", "duration (ms), 0 to 10". */
    QString typeText() const;
};

#endif
