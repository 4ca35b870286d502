#include "settingkey.h"

#include "settingvalue.h"

#include <QStringList>

#include <cmath>

bool SettingKey::parse(const QString &text, QVariant *value) const
{
    switch (type) {
    case Type::String:
        *value = text;
        return true;
    case Type::Trimmed:
    case Type::Path:
        *value = text.trimmed();
        return true;
    case Type::List: {
        QStringList entries;
        const QStringList parts = text.split(QLatin1Char(','));
        for (const QString &part : parts) {
            const QString entry = part.trimmed();
            if (!entry.isEmpty())
                entries.append(entry);
        }
        *value = entries;
        return true;
    }
    case Type::Bool: {
        bool flag = false;
        if (!SettingValue::parseBool(text, &flag))
            return false;
        *value = flag;
        return true;
    }
    case Type::Unsigned:
    case Type::Duration: {
        bool ok = false;
        const quint64 number = text.trimmed().toULongLong(&ok);
        if (!ok || number < minimum || number > maximum)
            return false;
        *value = number;
        return true;
    }
    case Type::Double: {
        bool ok = false;
        const double number = text.trimmed().toDouble(&ok);
        if (!ok || !std::isfinite(number) || number < double(minimum) || number > double(maximum))
            return false;
        *value = number;
        return true;
    }
    }
    return false;
}

bool SettingKey::read(const QVariantMap &group, const QLoggingCategory &category, QVariant *value, QString *error) const
{
    Q_ASSERT_X(error || !(strict || required), name, "a strict or required key needs a place for its sentence");
    const auto found = group.constFind(QLatin1String(name));
    const QString written = found == group.constEnd() ? QString::fromUtf8(defaultValue) : SettingValue::text(*found);
    if (optional && written.trimmed().isEmpty()) {
        *value = QVariant();
        return true;
    }
    if (parse(written, value)) {
        if (!required || (found != group.constEnd() && !SettingValue::text(*value).isEmpty()))
            return true;
        *error = QStringLiteral("it has no %1").arg(QLatin1String(name));
        return false;
    }
    // "tls=" in a file means "not set" to whoever wrote it; refusing to start over it would punish a harmless line.
    if (strict && type == Type::Bool && written.trimmed().isEmpty())
        return parse(QString::fromUtf8(defaultValue), value);
    if (strict) {
        *error = QStringLiteral("%1 must be %2, not \"%3\"").arg(QLatin1String(name), requirement(), written.trimmed());
        return false;
    }
    if (optional) {
        Q_ASSERT_X(emptyMeans, name, "an optional key that is not strict says what its empty value means");
        SettingValue::warnInvalid(category, written.trimmed(), name, QString::fromUtf8(emptyMeans));
        *value = QVariant();
        return true;
    }
    SettingValue::warnInvalid(category, written.trimmed(), name, QString::fromUtf8(defaultValue));
    return parse(QString::fromUtf8(defaultValue), value);
}

QString SettingKey::requirement() const
{
    switch (type) {
    case Type::Bool:
        return QStringLiteral("true or false");
    case Type::Unsigned:
        return QStringLiteral("a whole number from %1 to %2").arg(minimum).arg(maximum);
    case Type::Duration:
        return QStringLiteral("a whole number of milliseconds from %1 to %2").arg(minimum).arg(maximum);
    case Type::Double:
        return QStringLiteral("a number from %1 to %2").arg(minimum).arg(maximum);
    case Type::String:
    case Type::Trimmed:
    case Type::Path:
    case Type::List:
        break;
    }
    return QStringLiteral("text");
}

QString SettingKey::typeText() const
{
    switch (type) {
    case Type::String:
    case Type::Trimmed:
        return QStringLiteral("string");
    case Type::Bool:
        return QStringLiteral("bool");
    case Type::Unsigned:
        return QStringLiteral("unsigned, %1 to %2").arg(minimum).arg(maximum);
    case Type::Double:
        return QStringLiteral("double, %1 to %2").arg(minimum).arg(maximum);
    case Type::Duration:
        return QStringLiteral("duration (ms), %1 to %2").arg(minimum).arg(maximum);
    case Type::Path:
        return QStringLiteral("path");
    case Type::List:
        return QStringLiteral("list");
    }
    return QString();
}
