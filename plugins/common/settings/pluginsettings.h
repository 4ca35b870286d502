#ifndef ORVIX_PLUGINSETTINGS_H
#define ORVIX_PLUGINSETTINGS_H

#include <QByteArray>
#include <QLoggingCategory>
#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>
#include <QVector>

/**
 * The INI group of a plugin read through the plugin's own table of keys: a key that is missing takes the table's
 * default, so adding a key is one line and the plugin's sample.ini can be checked against the table.
 */
class PluginSettings
{
public:
    /** One key of the group: its name, its default as written in the INI file, and what it means. */
    struct Key
    {
        const char *key;
        const char *defaultValue;
        const char *meaning;
    };

    /** Reads group, the plugin's map of its INI group, through keys, the plugin's table. */
    PluginSettings(const QVariantMap &group, const QVector<Key> &keys)
        : m_group(group)
        , m_keys(keys)
    {
    }

    /** The value as text (a list that QSettings split at commas joined again), or the default. */
    QString text(const char *key) const
    {
        const QString name = QString::fromLatin1(key);
        if (!m_group.contains(name))
            return defaultText(key);
        const QVariant value = m_group.value(name);
        // QSettings reads an unquoted value with a comma as a list.
        if (value.userType() == QMetaType::QStringList)
            return value.toStringList().join(QLatin1Char(','));
        return value.toString();
    }

    /** The default of the key as the table has it; empty for a key the table does not know. */
    QString defaultText(const char *key) const
    {
        for (const Key &entry : m_keys) {
            if (qstrcmp(entry.key, key) == 0)
                return QString::fromUtf8(entry.defaultValue);
        }
        return QString();
    }

    /** The trimmed value as a whole number from minimum to maximum; false, with value untouched, otherwise. */
    bool integer(const char *key, qint64 minimum, qint64 maximum, qint64 *value) const
    {
        bool ok = false;
        const qint64 number = text(key).trimmed().toLongLong(&ok);
        if (!ok || number < minimum || number > maximum)
            return false;
        *value = number;
        return true;
    }

    /** The whole number from minimum to maximum; any other value is warned about in category and gives the default. */
    int number(const char *key, int minimum, int maximum, const QLoggingCategory &category) const
    {
        qint64 value = 0;
        if (integer(key, minimum, maximum, &value))
            return int(value);
        warnInvalid(category, text(key).trimmed(), key, defaultText(key));
        return defaultText(key).toInt();
    }

    /** Warns in category, the plugin's, that text is no value of key and that instead is used. */
    static void warnInvalid(
        const QLoggingCategory &category, const QString &text, const char *key, const QString &instead)
    {
        qCWarning(category)
            << QStringLiteral("Value %1 of %2 is not valid, using %3").arg(text, QString::fromLatin1(key), instead);
    }

private:
    QVariantMap m_group;
    QVector<Key> m_keys;
};

#endif
