#include "mqttsettings.h"

SettingsTable<MqttConnection::Options> MqttSettings::connectionKeys(const char *clientIdMeaning)
{
    using Options = MqttConnection::Options;
    return {
        SettingKey::trimmed("host", &Options::host, "localhost", "Host name or address of the broker."),
        SettingKey::whole("port", &Options::port, "1883", 1, 65535,
            "TCP port of the broker; brokers with TLS usually listen on 8883.")
            .strict(),
        SettingKey::trimmed("clientId", &Options::clientId, "", clientIdMeaning),
        SettingKey::string("username", &Options::username, "", "User name at the broker; empty connects without one."),
        SettingKey::string("password", &Options::password, "", "Password of username."),
        SettingKey::boolean("tls", &Options::tls, "false", "true connects with TLS.").strict(),
        SettingKey::path("caFile", &Options::caFile, "",
            "CA certificates the broker's certificate must chain to; empty uses the system's CAs."),
        SettingKey::path(
            "certFile", &Options::certFile, "", "Client certificate for brokers that require one; needs keyFile."),
        SettingKey::path("keyFile", &Options::keyFile, "", "Private key of certFile, without a passphrase."),
        // 0 or 5 and more: the connection checks the gap below 5.
        SettingKey::whole("keepAlive", &Options::keepAlive, "30", 0, 65535,
            "Seconds between keep-alive pings; 0 for none, otherwise 5 or more.")
            .strict(),
    };
}

bool MqttSettings::complete(const QString &defaultClientId, MqttConnection::Options *options, QString *error)
{
    if (options->clientId.isEmpty())
        options->clientId = defaultClientId;
    return MqttConnection::check(*options, error);
}
