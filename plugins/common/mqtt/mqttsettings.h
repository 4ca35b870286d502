#ifndef ORVIX_MQTTSETTINGS_H
#define ORVIX_MQTTSETTINGS_H

#include "mqttconnection.h"
#include "settingstable.h"

#include <QString>

/**
 * The keys of the broker connection that every MQTT plugin shares: the first rows of each plugin's settings table,
 * filling the MqttConnection::Options that the plugin's options derive from.
 */
namespace MqttSettings {

/** The keys from host to keepAlive; clientIdMeaning tells what an empty client id stands for. */
SettingsTable<MqttConnection::Options> connectionKeys(const char *clientIdMeaning);

/** Completes options read through connectionKeys(): an empty client id becomes defaultClientId; then checks them. */
bool complete(const QString &defaultClientId, MqttConnection::Options *options, QString *error);

} // namespace MqttSettings

#endif
