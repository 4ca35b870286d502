#ifndef ORVIX_SETTINGVALUE_H
#define ORVIX_SETTINGVALUE_H

#include <QLoggingCategory>
#include <QString>
#include <QVariant>

/**
 * One value of an INI file as QSettings hands it over, read the same way by every processor and plugin: the one place
 * that knows the words for true and false and the one warning for a value that does not fit.
 */
class SettingValue
{
public:
    /** The value as text; a list, which QSettings makes of an unquoted value with a comma, is joined again. */
    static QString text(const QVariant &value);

    /**
     * Reads true/false, yes/no, on/off or 1/0 in any case, surrounding spaces ignored, and a bool as it is.
     * Returns false, with *result untouched, for anything else.
     */
    static bool parseBool(const QVariant &value, bool *result);

    /**
     * The value of key as a boolean (see parseBool()); a missing (invalid) value gives defaultValue, and so does any
     * other text, after a warning in category, the caller's.
     */
    static bool toBool(const QVariant &value, const char *key, bool defaultValue, const QLoggingCategory &category);

    /** Warns in category, the caller's, that text is no value of key and that instead is used. */
    static void warnInvalid(
        const QLoggingCategory &category, const QString &text, const char *key, const QString &instead);
};

#endif
