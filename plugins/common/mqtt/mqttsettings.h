#ifndef ORVIX_MQTTSETTINGS_H
#define ORVIX_MQTTSETTINGS_H

#include "mqttconnection.h"
#include "pluginsettings.h"

#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <QVector>

/**
 * The INI group of an MQTT plugin read through the plugin's table of keys: a missing key takes the table's default,
 * and each reader names the key and the value it could not use.
 */
class MqttSettings : public PluginSettings
{
public:
    using PluginSettings::integer;
    using PluginSettings::PluginSettings;

    /**
     * The keys that every MQTT plugin shares, from host to keepAlive, the first rows of each plugin's table;
     * clientIdMeaning tells what an empty client id stands for.
     */
    static QVector<Key> connectionKeys(const char *clientIdMeaning);

    /** The value split at commas, each entry trimmed, empty ones left out. */
    QStringList list(const char *key) const;
    /** A whole number from minimum to maximum; false with a sentence in error otherwise. */
    bool integer(const char *key, qint64 minimum, qint64 maximum, qint64 *value, QString *error) const;
    /** true/false, yes/no, on/off or 1/0; false with a sentence in error otherwise. */
    bool flag(const char *key, bool *value, QString *error) const;

    /** The keys of connectionKeys() read into options; the client id falls back to defaultClientId. */
    bool connectionOptions(const QString &defaultClientId, MqttConnection::Options *options, QString *error) const;
};

#endif
