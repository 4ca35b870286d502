#ifndef ORVIX_SETTINGSGROUP_H
#define ORVIX_SETTINGSGROUP_H

#include "settingkey.h"

#include <QLoggingCategory>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>
#include <QVector>

/**
 * The INI group of a component read through the component's settings table: a missing key takes the table's default,
 * a value that does not fit its key's type or bounds is either warned about in the component's category and replaced
 * by the default, or, where a component can't work without it, reported as a sentence by the strict readers.
 */
class SettingsGroup
{
public:
    /** Reads group, the component's map of its INI group, through table; warnings go to category. */
    SettingsGroup(const QVariantMap &group, const QVector<SettingKey> &table, const QLoggingCategory &category);

    /** The row of the table called name; a key the table lacks is a programming error. */
    const SettingKey &key(const char *name) const;

    /** The value as written (a list that QSettings split at commas joined again), or the table's default. */
    QString rawText(const char *key) const;

    /** The value of a String or Path key; a Path without its surrounding spaces. */
    QString text(const char *key) const;
    /** The value of a List key. */
    QStringList list(const char *key) const;
    /** The value of a Bool key, or after a warning the default. */
    bool flag(const char *key) const;
    /** The value of an Unsigned or Duration key, or after a warning the default. */
    quint64 number(const char *key) const;
    /** The value of a Double key, or after a warning the default. */
    double real(const char *key) const;

    /**
     * The value of an Unsigned key whose default is empty, for "none": false when the value is empty too, and false
     * after a warning that instead is used when it does not fit.
     */
    bool optionalNumber(const char *key, const QString &instead, quint64 *value) const;

    /** The value of a Bool key; false with the sentence "<key> must be true or false, not "<value>"" otherwise. */
    bool flag(const char *key, bool *value, QString *error) const;
    /** The value of an Unsigned or Duration key; false with a sentence naming key, bounds and value otherwise. */
    bool number(const char *key, quint64 *value, QString *error) const;

private:
    QVariant value(const char *key) const;
    bool strictValue(const char *key, QVariant *value, QString *error) const;

    QVariantMap m_group;
    QVector<SettingKey> m_table;
    const QLoggingCategory &m_category;
};

#endif
