#ifndef ORVIX_MQTTCONNECTION_H
#define ORVIX_MQTTCONNECTION_H

#include <QByteArray>
#include <QHash>
#include <QLoggingCategory>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVector>

#include "backoff.h"
#include "imetricsprovider.h"

class QSocketNotifier;
struct mosquitto;
struct mosquitto_message;
struct mqtt5__property;

/**
 * One MQTT 5 connection to a broker through libmosquitto, driven by the Qt event loop: socket notifiers for its
 * reads and writes, a timer for its keep-alive. It reconnects on its own with the shared Backoff rule and logs
 * into the category of the plugin that owns it. Every connection starts a clean session; what must survive a lost
 * connection is the owner's business.
 */
class MqttConnection : public QObject
{
    Q_OBJECT
public:
    /** What a connection needs to know about the broker. */
    struct Options
    {
        QString host = QStringLiteral("localhost");
        int port = 1883;
        QString clientId;
        QString username;
        QString password;
        bool tls = false;
        QString caFile;
        QString certFile;
        QString keyFile;
        int keepAlive = 30;
    };

    /** What became of a publish call. */
    enum class Publish {
        Sent, ///< handed to the library; published() follows
        NotConnected, ///< no connection to the broker at the moment
        Unusable ///< the broker will never take this message (topic or size); error says why
    };

    /** Messages at QoS 1 that may wait for their acknowledgement at the same time; owners keep their window below. */
    static constexpr int MaxInFlight = 100;

    /** A connection that is not open yet; its log lines go to category, the owning plugin's. */
    explicit MqttConnection(const QLoggingCategory &category, QObject *parent = nullptr);
    ~MqttConnection() override;

    /** Checks the options against the library without connecting; false with a sentence in error if they can't work. */
    static bool check(const Options &options, QString *error);

    /** Whether topic can be published to, or as a filter subscribed to; false with the library's reason in error. */
    static bool checkTopic(const QByteArray &topic, bool filter, QString *error);

    /** A name as one level of a topic: its slashes and wildcard characters made underscores. */
    static QString topicLevel(const QString &name);

    /** The text of an MQTT 5 reason code, as the broker's reason for a refusal. */
    static QString reasonString(int reasonCode);

    /** The broker and how to log in; used from the next attempt on. */
    void setOptions(const Options &options);
    /** Sets the reconnect back-off (1000 ms to 60000 ms unless set); takes effect at the next failure. */
    void setReconnectDelays(int initialMs, int maximumMs);
    /** A topic that holds "online" (retained) while connected: the last will says "offline", and so does close(). */
    void setStatusTopic(const QByteArray &topic);
    /**
     * The last will of the attempts from the next one on, in place of the status topic's: payload on topic at qos.
     * Owners whose will changes with each connection set it from connecting().
     */
    void setWill(const QByteArray &topic, const QByteArray &payload, int qos, bool retain);
    /** Topic filters subscribed at qos after every connect. */
    void setSubscriptions(const QStringList &filters, int qos);

    /** Starts the first attempt; from then on the connection keeps itself up until close() or destruction. */
    void open();
    /** Says "offline" on the status topic, disconnects cleanly and stops reconnecting; emits nothing. */
    void close();

    /** Whether the broker has accepted the connection and it has not been lost since. */
    bool isConnected() const { return m_connected; }
    /** "host:port", the name of the broker in log lines. */
    QString address() const;
    /**
     * The connection as /metrics and /health show it: up, or still starting while in its first attempt or first
     * back-off, and how often it was made again after it had been up.
     */
    IMetricsProvider::Connection metrics() const;

    /**
     * Publishes a message. When the library confirms the message during this very call (QoS 0 is confirmed as soon
     * as it is written), confirmed is set and published() is not emitted for it.
     */
    Publish publish(const QByteArray &topic, const QByteArray &payload, int qos, bool retain, int *mid, bool *confirmed,
        QString *error);

signals:
    /** An attempt is about to begin; a will set now goes with it. */
    void connecting();
    /** The broker accepted the connection (and the subscriptions were sent). */
    void connected();
    /** An established connection ended; an attempt that never connected does not emit this. */
    void disconnected();
    /** The message mid was written (QoS 0) or acknowledged (QoS 1), with the broker's reason code (0x80 up: refused).
     */
    void published(int mid, int reasonCode);
    /** A message arrived on a subscribed topic. */
    void messageReceived(const QByteArray &topic, const QByteArray &payload);

private:
    /** What the broker publishes for us when the connection dies without a DISCONNECT. */
    struct Will
    {
        QByteArray topic;
        QByteArray payload;
        int qos = 1;
        bool retain = true;
    };

    static void onConnect(mosquitto *mosq, void *self, int reasonCode, int flags, const mqtt5__property *properties);
    static void onDisconnect(mosquitto *mosq, void *self, int reasonCode, const mqtt5__property *properties);
    static void onPublish(mosquitto *mosq, void *self, int mid, int reasonCode, const mqtt5__property *properties);
    static void onSubscribe(
        mosquitto *mosq, void *self, int mid, int count, const int *granted, const mqtt5__property *properties);
    static void onMessage(
        mosquitto *mosq, void *self, const mosquitto_message *message, const mqtt5__property *properties);
    static void onLog(mosquitto *mosq, void *self, int level, const char *text);

    void attempt();
    static mosquitto *create(const Options &options, const Will &will, MqttConnection *owner, QString *error);
    void afterLoop(int rc);
    void updateWriteNotifier();
    void drop(const QString &reason);
    void teardown();
    void scheduleAttempt();
    QString reasonText(int rc, int savedErrno) const;

    const QLoggingCategory &m_category;
    Options m_options;
    QByteArray m_statusTopic;
    Will m_will;
    QStringList m_subscriptions;
    int m_subscriptionQos = 1;
    Backoff m_backoff;

    mosquitto *m_mosq = nullptr;
    QPointer<QSocketNotifier> m_readNotifier;
    QPointer<QSocketNotifier> m_writeNotifier;
    QTimer m_miscTimer;
    QTimer m_handshakeTimer;
    QTimer m_retryTimer;
    bool m_open = false;
    bool m_connected = false;
    bool m_reportedUnreachable = false;
    int m_attempts = 0;
    bool m_everConnected = false;
    quint64 m_reconnects = 0;

    // Filled by the callbacks, read once the library call has returned.
    bool m_lost = false;
    int m_lostReason = 0;
    QString m_refusal;
    QString m_libraryError;
    bool m_inPublish = false;
    QVector<int> m_confirmedInPublish;
    QSet<int> m_ownMids;
    QHash<int, QStringList> m_pendingSubscriptions;
};

#endif
