#ifndef ORVIX_MQTTIN_H
#define ORVIX_MQTTIN_H

#include "datasetcodec.h"
#include "idatasource.h"
#include "imetricsprovider.h"
#include "mqttconnection.h"
#include "mqttsettings.h"
#include "namecache.h"

#include <QByteArray>
#include <QDateTime>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

/**
 * A datasource that subscribes to topics at an MQTT broker and emits the datasets that arrive there in their JSON
 * form, one per message or several as JSON lines. Requests from the targets go back to the broker, one topic per
 * machine.
 */
class MqttIn : public QObject, public IDatasource, public IMetricsProvider
{
    Q_OBJECT
    Q_INTERFACES(IDatasource IMetricsProvider)
public:
    /** What the group mqttIn says: the broker connection and the subscriptions. */
    struct Options : MqttConnection::Options
    {
        QStringList topics;
        int qos = 1;
        qint64 maxPayload = 0;
    };

    /** Every key of the group mqttIn, in the order its sample.ini documents them. */
    static const SettingsTable<Options> &settings();

    explicit MqttIn(QObject *parent = nullptr);
    ~MqttIn() override;

    /** Checks the settings and starts connecting; false only when the settings can't work. */
    bool init(const QVariantMap &config, QVariantMap &shared) override;
    /** "mqttIn". */
    QString name() const override;

    /** The reconnect back-off, 1000 ms to 60000 ms unless set before init; tests restart brokers quickly with it. */
    void setReconnectDelays(int initialMs, int maximumMs);

    /** The broker connection, for /metrics and /health. */
    QList<Connection> metricsConnections() const override;

signals:
    /** One dataset of a message, in the order of the message's lines. */
    // By const reference, with the same normalised signature: emitting copies none of the four.
    void dataReceived(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

public slots:
    /** Publishes the request as JSON to "orvix/request/" and the machine. */
    void machineRequest(QString machine, QVariant request);

private:
    void receive(const QByteArray &topic, const QByteArray &payload);
    /** Emits a dataset of the message on topic; a machine or source it does not name is taken from the topic. */
    void send(const QByteArray &topic, const DatasetCodec::Dataset &dataset);

    MqttConnection m_connection;
    bool m_initialised = false;
    int m_qos = 1;
    qint64 m_maxPayload = 0;
    // The machine and source names repeat from message to message: the datasets share their texts, which the
    // processors then compare without looking at their characters.
    NameCache m_names;
};

#endif
