#include "identificationconfig.h"

#include "mmtoopcuamapperlogging.h"
#include "wwmodel.h"

#include <iterator>
#include <limits>

namespace {

const char *const FallbackLocale = "en";

struct TextField
{
    const char *key;
    QString WwIdentification::*member;
};

struct OptionalTextField
{
    const char *key;
    std::optional<QString> WwIdentification::*member;
};

// The order in which missing mandatory fields are reported.
const TextField MandatoryTextFields[] = {
    { "ProductInstanceUri", &WwIdentification::ProductInstanceUri },
    { "Manufacturer", &WwIdentification::Manufacturer },
    { "Model", &WwIdentification::Model },
    { "SerialNumber", &WwIdentification::SerialNumber },
    { "DeviceClass", &WwIdentification::DeviceClass },
};

const OptionalTextField OptionalTextFields[] = {
    { "ManufacturerUri", &WwIdentification::ManufacturerUri },
    { "ProductCode", &WwIdentification::ProductCode },
    { "HardwareRevision", &WwIdentification::HardwareRevision },
    { "SoftwareRevision", &WwIdentification::SoftwareRevision },
    { "AssetId", &WwIdentification::AssetId },
    { "ComponentName", &WwIdentification::ComponentName },
    { "Location", &WwIdentification::Location },
    { "LocationPlant", &WwIdentification::LocationPlant },
    { "LocationGPS", &WwIdentification::LocationGPS },
    { "CustomerCompanyName", &WwIdentification::CustomerCompanyName },
};

// Every nameplate field is configured: the text fields above, and the year, month and date read on their own.
static_assert(std::size(MandatoryTextFields) + std::size(OptionalTextFields) + 3 == WwModel::IdentificationFieldCount,
    "each nameplate field has its key");

void warnMissing(const char *key)
{
    qCWarning(lcMmToOpcUaMapper)
        << QStringLiteral("Config is missing value for mandatory node '%1'").arg(QLatin1String(key));
}

void warnTooLarge(const char *key, uint value, uint maximum, const QString &instead)
{
    qCWarning(lcMmToOpcUaMapper) << QStringLiteral(
        "Config value %1 for node '%2' does not fit its field (0 to %3), using %4")
                                        .arg(QString::number(value), QLatin1String(key), QString::number(maximum),
                                            instead);
}

// INI values arrive as text, or as a list when they hold an unquoted comma; typed maps hand in other variants.
QString textOf(const QVariant &value)
{
    if (value.userType() == QMetaType::QStringList)
        return value.toStringList().join(QStringLiteral(", "));
    return value.toString();
}

std::optional<QDateTime> dateTimeOf(const QVariant &value)
{
    if (value.userType() == QMetaType::QDateTime) {
        const QDateTime typed = value.toDateTime();
        if (typed.isValid())
            return typed;
    }
    const QString text = textOf(value);
    QDateTime parsed = QDateTime::fromString(text, Qt::ISODateWithMs);
    if (!parsed.isValid())
        parsed = QDateTime::fromString(text, Qt::ISODate);
    if (!parsed.isValid())
        parsed = QDateTime::fromString(text, QStringLiteral("yyyy-MM-dd HH:mm:ss:zzz"));
    if (!parsed.isValid())
        parsed = QDateTime::fromString(text, QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz"));
    if (!parsed.isValid())
        parsed = QDateTime::fromString(text, QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    if (!parsed.isValid())
        return std::nullopt;
    return parsed;
}

} // namespace

IdentificationConfig IdentificationConfig::read(const QVariantMap &keys)
{
    IdentificationConfig result;
    QString locale = textOf(keys.value(QStringLiteral("locale")));
    if (locale.isEmpty()) {
        qCWarning(lcMmToOpcUaMapper) << QStringLiteral("No 'locale' set; defaulting to 'en'");
        locale = QLatin1String(FallbackLocale);
    }

    WwIdentification &identification = result.identification;
    for (const TextField &field : MandatoryTextFields) {
        QString text = textOf(keys.value(QLatin1String(field.key)));
        if (text.isEmpty()) {
            warnMissing(field.key);
            // A mandatory field is always there, if only as an empty text.
            text = QLatin1String("");
        }
        identification.*field.member = text;
    }
    for (const OptionalTextField &field : OptionalTextFields) {
        const auto value = keys.constFind(QLatin1String(field.key));
        if (value != keys.cend())
            identification.*field.member = textOf(*value);
    }

    // A number too large for its field would be stored cut to its low bits, a different year or month that nobody
    // wrote; such a value is warned about and treated like one that is no number.
    bool ok = false;
    const uint year = keys.value(QStringLiteral("YearOfConstruction")).toUInt(&ok);
    if (ok && year <= std::numeric_limits<quint16>::max()) {
        identification.YearOfConstruction = quint16(year);
    } else {
        identification.YearOfConstruction = 0;
        if (ok)
            warnTooLarge("YearOfConstruction", year, std::numeric_limits<quint16>::max(), QStringLiteral("0"));
        else
            warnMissing("YearOfConstruction");
    }

    const uint month = keys.value(QStringLiteral("MonthOfConstruction")).toUInt(&ok);
    if (ok && month <= std::numeric_limits<quint8>::max())
        identification.MonthOfConstruction = quint8(month);
    else if (ok)
        warnTooLarge("MonthOfConstruction", month, std::numeric_limits<quint8>::max(), QStringLiteral("no value"));
    else
        warnMissing("MonthOfConstruction");

    identification.InitialOperationDate = dateTimeOf(keys.value(QStringLiteral("InitialOperationDate")));
    if (!identification.InitialOperationDate)
        warnMissing("InitialOperationDate");

    result.locale = locale;
    return result;
}
