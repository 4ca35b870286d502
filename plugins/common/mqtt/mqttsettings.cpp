#include "mqttsettings.h"

QVector<PluginSettings::Key> MqttSettings::connectionKeys(const char *clientIdMeaning)
{
    return {
        { "host", "localhost", "Host name or address of the broker." },
        { "port", "1883", "TCP port of the broker; brokers with TLS usually listen on 8883." },
        { "clientId", "", clientIdMeaning },
        { "username", "", "User name at the broker; empty connects without one." },
        { "password", "", "Password of username." },
        { "tls", "false", "true connects with TLS." },
        { "caFile", "", "CA certificates the broker's certificate must chain to; empty uses the system's CAs." },
        { "certFile", "", "Client certificate for brokers that require one; needs keyFile." },
        { "keyFile", "", "Private key of certFile, without a passphrase." },
        { "keepAlive", "30", "Seconds between keep-alive pings; 0 for none, otherwise 5 or more." },
    };
}

QStringList MqttSettings::list(const char *key) const
{
    QStringList entries;
    const QStringList parts = text(key).split(QLatin1Char(','));
    for (const QString &part : parts) {
        const QString entry = part.trimmed();
        if (!entry.isEmpty())
            entries.append(entry);
    }
    return entries;
}

bool MqttSettings::integer(const char *key, qint64 minimum, qint64 maximum, qint64 *value, QString *error) const
{
    if (PluginSettings::integer(key, minimum, maximum, value))
        return true;
    *error = QStringLiteral("%1 must be a whole number from %2 to %3, not \"%4\"")
                 .arg(QString::fromLatin1(key))
                 .arg(minimum)
                 .arg(maximum)
                 .arg(text(key).trimmed());
    return false;
}

bool MqttSettings::flag(const char *key, bool *value, QString *error) const
{
    const QString raw = text(key).trimmed().toLower();
    if (raw == QLatin1String("true") || raw == QLatin1String("yes") || raw == QLatin1String("on")
        || raw == QLatin1String("1")) {
        *value = true;
        return true;
    }
    if (raw == QLatin1String("false") || raw == QLatin1String("no") || raw == QLatin1String("off")
        || raw == QLatin1String("0") || raw.isEmpty()) {
        *value = false;
        return true;
    }
    *error = QStringLiteral("%1 must be true or false, not \"%2\"").arg(QString::fromLatin1(key), text(key));
    return false;
}

bool MqttSettings::connectionOptions(
    const QString &defaultClientId, MqttConnection::Options *options, QString *error) const
{
    qint64 port = 0;
    qint64 keepAlive = 0;
    if (!integer("port", 1, 65535, &port, error) || !integer("keepAlive", 0, 65535, &keepAlive, error)
        || !flag("tls", &options->tls, error))
        return false;
    options->host = text("host").trimmed();
    options->port = int(port);
    options->keepAlive = int(keepAlive);
    options->clientId = text("clientId").trimmed();
    if (options->clientId.isEmpty())
        options->clientId = defaultClientId;
    options->username = text("username");
    options->password = text("password");
    options->caFile = text("caFile").trimmed();
    options->certFile = text("certFile").trimmed();
    options->keyFile = text("keyFile").trimmed();
    return MqttConnection::check(*options, error);
}
