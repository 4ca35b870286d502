#include "settingvalue.h"

#include <QStringList>

QString SettingValue::text(const QVariant &value)
{
    if (value.userType() == QMetaType::QStringList)
        return value.toStringList().join(QLatin1Char(','));
    return value.toString();
}

bool SettingValue::parseBool(const QVariant &value, bool *result)
{
    if (value.userType() == QMetaType::Bool) {
        *result = value.toBool();
        return true;
    }
    const QString word = text(value).trimmed();
    for (const char *yes : { "true", "yes", "on", "1" }) {
        if (word.compare(QLatin1String(yes), Qt::CaseInsensitive) == 0) {
            *result = true;
            return true;
        }
    }
    for (const char *no : { "false", "no", "off", "0" }) {
        if (word.compare(QLatin1String(no), Qt::CaseInsensitive) == 0) {
            *result = false;
            return true;
        }
    }
    return false;
}

bool SettingValue::toBool(const QVariant &value, const char *key, bool defaultValue, const QLoggingCategory &category)
{
    if (!value.isValid())
        return defaultValue;
    bool result = defaultValue;
    if (!parseBool(value, &result))
        warnInvalid(category, text(value).trimmed(), key, QLatin1String(defaultValue ? "true" : "false"));
    return result;
}

void SettingValue::warnInvalid(
    const QLoggingCategory &category, const QString &text, const char *key, const QString &instead)
{
    qCWarning(category)
        << QStringLiteral("Value %1 of %2 is not valid, using %3").arg(text, QString::fromLatin1(key), instead);
}
