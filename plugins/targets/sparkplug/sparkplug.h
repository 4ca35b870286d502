#ifndef ORVIX_SPARKPLUG_H
#define ORVIX_SPARKPLUG_H

#include "imetricsprovider.h"
#include "itarget.h"
#include "mqttconnection.h"
#include "mqttsettings.h"
#include "sparkplugdevice.h"
#include "sparkplugpayload.h"
#include "spoolage.h"

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QString>
#include <QVariant>
#include <QVector>

#include <memory>

class MqttSpool;
class SparkplugStore;

/**
 * A target that makes orvix a Sparkplug B edge node and each machine one of its devices: births and deaths, typed
 * metrics in protobuf payloads, seq and bdSeq as Sparkplug hosts expect them. Device messages go through an on-disk
 * spool first, so what the broker could not take is sent after the reconnect, flagged historical, behind the new
 * births.
 */
class Sparkplug : public QObject, public ITarget, public IMetricsProvider
{
    Q_OBJECT
    Q_INTERFACES(ITarget IMetricsProvider)
public:
    /** What the group sparkplug says: the broker connection, the node's ids and its folders. */
    struct Options : MqttConnection::Options
    {
        QString groupId;
        QString edgeNodeId;
        QString primaryHostId;
        QString state;
        QString spool;
        qint64 spoolMaxBytes = 0;
    };

    /** Every key of the group sparkplug, in the order its sample.ini documents them. */
    static const SettingsTable<Options> &settings();

    explicit Sparkplug(QObject *parent = nullptr);
    /** Publishes NDEATH and disconnects. */
    ~Sparkplug() override;

    /** Checks the settings, opens the state folder and the spool and starts connecting; false if they can't work. */
    bool init(const QVariantMap &config, QVariantMap &shared) override;
    /** "sparkplug". */
    QString name() const override;

    /** The reconnect back-off, 1000 ms to 60000 ms unless set before init; tests restart brokers quickly with it. */
    void setReconnectDelays(int initialMs, int maximumMs);
    /** Device messages in the spool that have not reached the broker yet. */
    qint64 spooled() const;
    /** Whether the node has sent its births in the current connection and publishes live. */
    bool isBorn() const { return m_born; }

    /** The broker connection, for /metrics and /health. */
    QList<Connection> metricsConnections() const override;
    /** The spool's messages, bytes and oldest message's age, the messages sent and dropped, the node's births. */
    QList<Value> metricsValues() const override;

public slots:
    /** Updates the machine's device and queues its DBIRTH, DDATA or DDEATH as the dataset requires. */
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data);

private:
    SparkplugDevice *deviceFor(const QString &machine);
    void queue(const QByteArray &topic, const QByteArray &payload, const QString &machine);
    void connecting();
    void connected();
    void disconnected();
    void messageReceived(const QByteArray &topic, const QByteArray &payload);
    void hostState(const QByteArray &payload);
    void birth();
    void endSession();
    void publishDeath();
    bool publishNow(const QByteArray &topic, const QByteArray &payload);
    quint32 nextSeq();
    void pump();
    void confirm(int mid, int reasonCode);
    void reportSpoolRoom();

    MqttConnection m_connection;
    std::unique_ptr<SparkplugStore> m_store;
    std::unique_ptr<MqttSpool> m_spool;
    SparkplugPayload m_payload;
    SparkplugDevice::Change m_change;
    QByteArray m_buffer;
    // A machine left out (its device id taken by another) maps to nullptr.
    QHash<QString, SparkplugDevice *> m_devices;
    QHash<QByteArray, QString> m_deviceIds;
    QVector<SparkplugDevice *> m_deviceOrder;

    QByteArray m_groupPrefix;
    QByteArray m_edgeNodeId;
    QByteArray m_nodeBirthTopic;
    QByteArray m_nodeDeathTopic;
    QByteArray m_commandTopic;
    QByteArray m_hostTopic;
    QString m_hostId;
    int m_initialDelay = 1000;
    int m_maximumDelay = 60000;

    quint32 m_bdSeq = 0;
    quint32 m_seq = 0;
    bool m_born = false;
    bool m_hostOnline = false;
    qint64 m_hostTimestamp = -1;
    // Records below it were queued before the births of this session: sent as history, births and deaths skipped.
    quint64 m_historyEnd = 0;
    bool m_deathsPending = false;
    QHash<int, quint64> m_inFlight;
    bool m_pumping = false;
    QString m_spoolError;
    qint64 m_spoolMaxBytes = 0;
    qint64 m_droppedWhileFull = 0;
    // Messages that will never reach the broker: unwritable, pushed out of a full spool or refused by the library.
    quint64 m_dropped = 0;
    // Messages handed to the broker: births, data and deaths, live and historical.
    quint64 m_sent = 0;
    mutable SpoolAge m_spoolAge;
};

#endif
