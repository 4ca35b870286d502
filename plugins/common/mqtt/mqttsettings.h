#ifndef ORVIX_MQTTSETTINGS_H
#define ORVIX_MQTTSETTINGS_H

#include "mqttconnection.h"
#include "settingsgroup.h"

#include <QString>
#include <QVector>

/**
 * The INI group of an MQTT plugin read through the plugin's settings table, whose first rows are the keys of the
 * connection that every MQTT plugin shares.
 */
class MqttSettings : public SettingsGroup
{
public:
    using SettingsGroup::SettingsGroup;

    /**
     * The keys that every MQTT plugin shares, from host to keepAlive, the first rows of each plugin's table;
     * clientIdMeaning tells what an empty client id stands for.
     */
    static QVector<SettingKey> connectionKeys(const char *clientIdMeaning);

    /** The keys of connectionKeys() read into options; the client id falls back to defaultClientId. */
    bool connectionOptions(const QString &defaultClientId, MqttConnection::Options *options, QString *error) const;
};

#endif
