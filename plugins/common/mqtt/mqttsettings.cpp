#include "mqttsettings.h"

QVector<SettingKey> MqttSettings::connectionKeys(const char *clientIdMeaning)
{
    return {
        SettingKey::string("host", "localhost", "Host name or address of the broker."),
        SettingKey::whole("port", "1883", 1, 65535, "TCP port of the broker; brokers with TLS usually listen on 8883."),
        SettingKey::string("clientId", "", clientIdMeaning),
        SettingKey::string("username", "", "User name at the broker; empty connects without one."),
        SettingKey::string("password", "", "Password of username."),
        SettingKey::boolean("tls", "false", "true connects with TLS."),
        SettingKey::path(
            "caFile", "", "CA certificates the broker's certificate must chain to; empty uses the system's CAs."),
        SettingKey::path("certFile", "", "Client certificate for brokers that require one; needs keyFile."),
        SettingKey::path("keyFile", "", "Private key of certFile, without a passphrase."),
        // 0 or 5 and more: the connection checks the gap below 5.
        SettingKey::whole(
            "keepAlive", "30", 0, 65535, "Seconds between keep-alive pings; 0 for none, otherwise 5 or more."),
    };
}

bool MqttSettings::connectionOptions(
    const QString &defaultClientId, MqttConnection::Options *options, QString *error) const
{
    quint64 port = 0;
    quint64 keepAlive = 0;
    if (!number("port", &port, error) || !number("keepAlive", &keepAlive, error) || !flag("tls", &options->tls, error))
        return false;
    options->host = text("host").trimmed();
    options->port = int(port);
    options->keepAlive = int(keepAlive);
    options->clientId = text("clientId").trimmed();
    if (options->clientId.isEmpty())
        options->clientId = defaultClientId;
    options->username = text("username");
    options->password = text("password");
    options->caFile = text("caFile");
    options->certFile = text("certFile");
    options->keyFile = text("keyFile");
    return MqttConnection::check(*options, error);
}
