#ifndef ORVIX_MQTTOUT_H
#define ORVIX_MQTTOUT_H

#include "imetricsprovider.h"
#include "itarget.h"
#include "mqttconnection.h"
#include "mqttsettings.h"
#include "spoolage.h"

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <memory>

class MqttSpool;

/**
 * A target that publishes every dataset in its JSON form to an MQTT broker. Each dataset goes to an on-disk spool
 * first and leaves it when the broker has it (at QoS 1: when the broker acknowledged it), so datasets wait out a
 * broker that is away, and a restarted orvix sends what the last run could not.
 */
class MqttOut : public QObject, public ITarget, public IMetricsProvider
{
    Q_OBJECT
    Q_INTERFACES(ITarget IMetricsProvider)
public:
    /** What the group mqttOut says: the broker connection, the topics and the spool. */
    struct Options : MqttConnection::Options
    {
        int qos = 1;
        QString topic;
        QStringList retainTypes;
        QString spool;
        qint64 spoolMaxBytes = 0;
    };

    /** Every key of the group mqttOut, in the order its sample.ini documents them. */
    static const SettingsTable<Options> &settings();

    explicit MqttOut(QObject *parent = nullptr);
    ~MqttOut() override;

    /** Checks the settings, opens the spool and starts connecting; false only when the settings can't work. */
    bool init(const QVariantMap &config, QVariantMap &shared) override;
    /** "mqttOut". */
    QString name() const override;

    /** The reconnect back-off, 1000 ms to 60000 ms unless set before init; tests restart brokers quickly with it. */
    void setReconnectDelays(int initialMs, int maximumMs);
    /** Datasets in the spool that have not reached the broker yet. */
    qint64 spooled() const;

    /** The broker connection, for /metrics and /health. */
    QList<Connection> metricsConnections() const override;
    /** The spool's records, bytes and oldest record's age, and the datasets dropped on the way to the broker. */
    QList<Value> metricsValues() const override;

public slots:
    /** Appends the dataset to the spool and publishes it as soon as the connection allows. */
    void processData(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

private:
    /** A message handed to the library, waiting for its confirmation. */
    struct InFlight
    {
        quint64 sequence = 0;
        QByteArray topic;
    };

    QByteArray topicFor(const QString &machine, const QString &source, const QString &type) const;
    void pump();
    void reportSpoolRoom();
    void confirm(int mid, int reasonCode);
    void connectionLost();

    MqttConnection m_connection;
    std::unique_ptr<MqttSpool> m_spool;
    QString m_topic;
    QSet<QString> m_retainTypes;
    int m_qos = 1;
    int m_initialDelay = 1000;
    int m_maximumDelay = 60000;

    QHash<int, InFlight> m_inFlight;
    QSet<QByteArray> m_refusedTopics;
    bool m_pumping = false;
    QString m_spoolError;
    qint64 m_spoolMaxBytes = 0;
    // Datasets dropped since the spool became full; 0 while it has room.
    qint64 m_droppedWhileFull = 0;
    // Datasets that will never reach the broker: unusable, unwritable or pushed out of a full spool.
    quint64 m_dropped = 0;
    mutable SpoolAge m_spoolAge;
};

#endif
