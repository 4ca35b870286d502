#include "settingsgroup.h"

#include "settingvalue.h"

SettingsGroup::SettingsGroup(
    const QVariantMap &group, const QVector<SettingKey> &table, const QLoggingCategory &category)
    : m_group(group)
    , m_table(table)
    , m_category(category)
{
}

const SettingKey &SettingsGroup::key(const char *name) const
{
    for (const SettingKey &row : m_table) {
        if (qstrcmp(row.name, name) == 0)
            return row;
    }
    qFatal("The settings table has no key %s", name);
}

QString SettingsGroup::rawText(const char *key) const
{
    const auto found = m_group.constFind(QString::fromLatin1(key));
    if (found == m_group.constEnd())
        return QString::fromUtf8(this->key(key).defaultValue);
    return SettingValue::text(*found);
}

QString SettingsGroup::text(const char *key) const
{
    return value(key).toString();
}

QStringList SettingsGroup::list(const char *key) const
{
    return value(key).toStringList();
}

bool SettingsGroup::flag(const char *key) const
{
    return value(key).toBool();
}

quint64 SettingsGroup::number(const char *key) const
{
    return value(key).toULongLong();
}

double SettingsGroup::real(const char *key) const
{
    return value(key).toDouble();
}

bool SettingsGroup::optionalNumber(const char *key, const QString &instead, quint64 *value) const
{
    const QString written = rawText(key).trimmed();
    if (written.isEmpty())
        return false;
    QVariant parsed;
    if (!this->key(key).parse(written, &parsed)) {
        SettingValue::warnInvalid(m_category, written, key, instead);
        return false;
    }
    *value = parsed.toULongLong();
    return true;
}

bool SettingsGroup::flag(const char *key, bool *value, QString *error) const
{
    QVariant parsed;
    if (!strictValue(key, &parsed, error))
        return false;
    *value = parsed.toBool();
    return true;
}

bool SettingsGroup::number(const char *key, quint64 *value, QString *error) const
{
    QVariant parsed;
    if (!strictValue(key, &parsed, error))
        return false;
    *value = parsed.toULongLong();
    return true;
}

QVariant SettingsGroup::value(const char *key) const
{
    const SettingKey &row = this->key(key);
    const QString written = rawText(key);
    QVariant parsed;
    if (row.parse(written, &parsed))
        return parsed;
    const QString fallback = QString::fromUtf8(row.defaultValue);
    SettingValue::warnInvalid(m_category, written.trimmed(), key, fallback);
    row.parse(fallback, &parsed);
    return parsed;
}

bool SettingsGroup::strictValue(const char *key, QVariant *value, QString *error) const
{
    const SettingKey &row = this->key(key);
    const QString written = rawText(key);
    if (row.parse(written, value))
        return true;
    // "tls=" in a file means "not set" to whoever wrote it; refusing to start over it would punish a harmless line.
    if (row.type == SettingKey::Type::Bool && written.trimmed().isEmpty())
        return row.parse(QString::fromUtf8(row.defaultValue), value);
    *error = QStringLiteral("%1 must be %2, not \"%3\"")
                 .arg(QString::fromLatin1(key), row.requirement(), written.trimmed());
    return false;
}
