#include "mqttconnection.h"

#include <QFileInfo>
#include <QSocketNotifier>

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <cerrno>
#include <cstring>

namespace {

// An attempt that has not been answered with a CONNACK by then is given up; a TCP connect to a silent host would
// otherwise hang for minutes.
constexpr int HandshakeTimeoutMs = 10000;
constexpr int MiscIntervalMs = 1000;
// Packets read in one turn of the event loop at most, so that timers and other sockets still get their turns.
constexpr int MaxPacketsPerTurn = 256;
// Reason codes of MQTT 5 start at 0x80 for failures; below that the callbacks carry the library's own codes.
constexpr int FirstFailureReason = 0x80;

void initLibrary()
{
    // Not thread safe and meant to run once; the plugins call it from the event-loop thread.
    static const bool initialised = (mosquitto_lib_init(), true);
    Q_UNUSED(initialised)
}

QByteArray utf8OrNull(const QString &text)
{
    return text.isEmpty() ? QByteArray() : text.toUtf8();
}

const char *orNull(const QByteArray &bytes)
{
    return bytes.isEmpty() ? nullptr : bytes.constData();
}

// A key protected by a passphrase would make OpenSSL ask on the terminal of a service; it is refused instead.
int noPassphrase(char *, int, int, void *)
{
    return 0;
}

} // namespace

MqttConnection::MqttConnection(const QLoggingCategory &category, QObject *parent)
    : QObject(parent)
    , m_category(category)
{
    initLibrary();
    m_miscTimer.setInterval(MiscIntervalMs);
    connect(&m_miscTimer, &QTimer::timeout, this, [this] {
        if (m_mosq)
            afterLoop(mosquitto_loop_misc(m_mosq));
    });
    m_handshakeTimer.setSingleShot(true);
    m_handshakeTimer.setInterval(HandshakeTimeoutMs);
    connect(&m_handshakeTimer, &QTimer::timeout, this, [this] {
        if (m_mosq && !m_connected)
            drop(QStringLiteral("no answer within %1 s").arg(HandshakeTimeoutMs / 1000));
    });
    m_retryTimer.setSingleShot(true);
    connect(&m_retryTimer, &QTimer::timeout, this, &MqttConnection::attempt);
}

MqttConnection::~MqttConnection()
{
    // The owner is half destroyed by now; it must hear nothing more.
    blockSignals(true);
    close();
}

bool MqttConnection::check(const Options &options, QString *error)
{
    initLibrary();
    if (options.host.isEmpty()) {
        *error = QStringLiteral("host is empty");
        return false;
    }
    if (options.port < 1 || options.port > 65535) {
        *error = QStringLiteral("port must be from 1 to 65535, not %1").arg(options.port);
        return false;
    }
    if (options.keepAlive != 0 && (options.keepAlive < 5 || options.keepAlive > 65535)) {
        *error = QStringLiteral("keepAlive must be 0 or from 5 to 65535 seconds, not %1").arg(options.keepAlive);
        return false;
    }
    if (!options.password.isEmpty() && options.username.isEmpty()) {
        *error = QStringLiteral("password is set but username is empty");
        return false;
    }
    if (options.tls) {
        if (options.certFile.isEmpty() != options.keyFile.isEmpty()) {
            *error = QStringLiteral("certFile and keyFile must be set together");
            return false;
        }
        for (const QString &file : { options.caFile, options.certFile, options.keyFile }) {
            if (!file.isEmpty() && !QFileInfo(file).isReadable()) {
                *error = QStringLiteral("can't read %1").arg(file);
                return false;
            }
        }
    }
    // Everything else the library checks itself: client id, user name, the certificate files' contents.
    mosquitto *mosq = create(options, Will(), nullptr, error);
    if (!mosq)
        return false;
    mosquitto_destroy(mosq);
    return true;
}

bool MqttConnection::checkTopic(const QByteArray &topic, bool filter, QString *error)
{
    const int rc = topic.isEmpty() ? MOSQ_ERR_INVAL
        : filter                   ? mosquitto_sub_topic_check2(topic.constData(), size_t(topic.size()))
                                   : mosquitto_pub_topic_check2(topic.constData(), size_t(topic.size()));
    if (rc == MOSQ_ERR_SUCCESS && mosquitto_validate_utf8(topic.constData(), topic.size()) == MOSQ_ERR_SUCCESS)
        return true;
    if (error) {
        *error = topic.isEmpty() ? QStringLiteral("topic is empty")
            : filter             ? QStringLiteral("\"%1\" is not a valid topic filter").arg(QString::fromUtf8(topic))
                                 : QStringLiteral("\"%1\" is not a valid topic").arg(QString::fromUtf8(topic));
    }
    return false;
}

QString MqttConnection::topicLevel(const QString &name)
{
    // A name put into a topic stays one level and never becomes a wildcard.
    QString level = name;
    for (QChar &c : level) {
        if (c == QLatin1Char('/') || c == QLatin1Char('+') || c == QLatin1Char('#'))
            c = QLatin1Char('_');
    }
    return level;
}

QString MqttConnection::reasonString(int reasonCode)
{
    return QString::fromUtf8(mosquitto_reason_string(reasonCode));
}

void MqttConnection::setOptions(const Options &options)
{
    m_options = options;
}

void MqttConnection::setReconnectDelays(int initialMs, int maximumMs)
{
    m_backoff.setRange(initialMs, maximumMs);
}

void MqttConnection::setStatusTopic(const QByteArray &topic)
{
    m_statusTopic = topic;
    m_will = Will { topic, QByteArrayLiteral("offline"), 1, true };
}

void MqttConnection::setWill(const QByteArray &topic, const QByteArray &payload, int qos, bool retain)
{
    m_will = Will { topic, payload, qos, retain };
}

void MqttConnection::setSubscriptions(const QStringList &filters, int qos)
{
    m_subscriptions = filters;
    m_subscriptionQos = qos;
}

void MqttConnection::open()
{
    if (m_open)
        return;
    m_open = true;
    attempt();
}

void MqttConnection::close()
{
    m_open = false;
    m_retryTimer.stop();
    if (m_mosq && m_connected) {
        if (!m_statusTopic.isEmpty())
            mosquitto_publish(m_mosq, nullptr, m_statusTopic.constData(), 7, "offline", 1, true);
        mosquitto_disconnect(m_mosq);
        // Not in a callback, so the library has written both packets already unless the socket is full.
        for (int i = 0; i < 10 && mosquitto_want_write(m_mosq); ++i) {
            if (mosquitto_loop_write(m_mosq, 1) != MOSQ_ERR_SUCCESS)
                break;
        }
    }
    teardown();
}

QString MqttConnection::address() const
{
    return QStringLiteral("%1:%2").arg(m_options.host).arg(m_options.port);
}

IMetricsProvider::Connection MqttConnection::metrics() const
{
    IMetricsProvider::Connection connection;
    connection.name = address();
    connection.up = m_connected;
    connection.starting = !m_connected && m_backoff.failures() <= 1;
    connection.reconnects = m_reconnects;
    return connection;
}

MqttConnection::Publish MqttConnection::publish(
    const QByteArray &topic, const QByteArray &payload, int qos, bool retain, int *mid, bool *confirmed, QString *error)
{
    *confirmed = false;
    if (!m_mosq || !m_connected || m_lost)
        return Publish::NotConnected;
    m_inPublish = true;
    m_confirmedInPublish.clear();
    errno = 0;
    const int rc = mosquitto_publish_v5(
        m_mosq, mid, topic.constData(), payload.size(), payload.constData(), qos, retain, nullptr);
    const int savedErrno = errno;
    m_inPublish = false;
    // Confirmations of other messages that the library wrote out along with this one.
    const QVector<int> confirmedNow = m_confirmedInPublish;
    for (int other : confirmedNow) {
        if (rc == MOSQ_ERR_SUCCESS && other == *mid)
            *confirmed = true;
        else
            emit published(other, 0);
    }
    switch (rc) {
    case MOSQ_ERR_SUCCESS:
        updateWriteNotifier();
        return Publish::Sent;
    case MOSQ_ERR_INVAL:
    case MOSQ_ERR_PAYLOAD_SIZE:
    case MOSQ_ERR_MALFORMED_UTF8:
    case MOSQ_ERR_OVERSIZE_PACKET:
    case MOSQ_ERR_QOS_NOT_SUPPORTED:
    case MOSQ_ERR_RETAIN_NOT_SUPPORTED:
        *error = QString::fromUtf8(mosquitto_strerror(rc));
        return Publish::Unusable;
    default:
        // The socket failed under the write; the next turn of the event loop takes the connection down.
        if (!m_lost) {
            m_lost = true;
            m_lostReason = rc;
            m_libraryError = reasonText(rc, savedErrno);
            QTimer::singleShot(0, this, [this, generation = m_mosq] {
                if (m_mosq == generation)
                    afterLoop(m_lostReason);
            });
        }
        return Publish::NotConnected;
    }
}

mosquitto *MqttConnection::create(const Options &options, const Will &will, MqttConnection *owner, QString *error)
{
    const QByteArray clientId = options.clientId.toUtf8();
    mosquitto *mosq = mosquitto_new(clientId.constData(), true, owner);
    if (!mosq) {
        *error = QStringLiteral("the client id \"%1\" is not usable").arg(options.clientId);
        return nullptr;
    }
    const auto fail = [mosq, error](const QString &what, int rc) {
        *error = QStringLiteral("%1: %2").arg(what, QString::fromUtf8(mosquitto_strerror(rc)));
        mosquitto_destroy(mosq);
        return nullptr;
    };
    mosquitto_int_option(mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    // Nagle's algorithm stays on: it gathers a burst of small messages into few packets and delays none that
    // comes alone. The library may have as many messages on their way as the owner's window allows.
    mosquitto_int_option(mosq, MOSQ_OPT_SEND_MAXIMUM, MaxInFlight);
    if (!options.username.isEmpty()) {
        const int rc = mosquitto_username_pw_set(
            mosq, options.username.toUtf8().constData(), orNull(utf8OrNull(options.password)));
        if (rc != MOSQ_ERR_SUCCESS)
            return fail(QStringLiteral("username"), rc);
    }
    if (!will.topic.isEmpty()) {
        const int rc = mosquitto_will_set_v5(mosq, will.topic.constData(), will.payload.size(),
            will.payload.constData(), will.qos, will.retain, nullptr);
        if (rc != MOSQ_ERR_SUCCESS)
            return fail(QStringLiteral("last will on %1").arg(QString::fromUtf8(will.topic)), rc);
    }
    if (options.tls) {
        const QByteArray caFile = utf8OrNull(options.caFile);
        const QByteArray certFile = utf8OrNull(options.certFile);
        const QByteArray keyFile = utf8OrNull(options.keyFile);
        if (caFile.isEmpty())
            mosquitto_int_option(mosq, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
        const int rc = mosquitto_tls_set(mosq, orNull(caFile), caFile.isEmpty() ? "/etc/ssl/certs" : nullptr,
            orNull(certFile), orNull(keyFile), &noPassphrase);
        if (rc != MOSQ_ERR_SUCCESS)
            return fail(QStringLiteral("TLS files"), rc);
    }
    mosquitto_connect_v5_callback_set(mosq, &MqttConnection::onConnect);
    mosquitto_disconnect_v5_callback_set(mosq, &MqttConnection::onDisconnect);
    mosquitto_publish_v5_callback_set(mosq, &MqttConnection::onPublish);
    mosquitto_subscribe_v5_callback_set(mosq, &MqttConnection::onSubscribe);
    mosquitto_message_v5_callback_set(mosq, &MqttConnection::onMessage);
    mosquitto_log_callback_set(mosq, &MqttConnection::onLog);
    return mosq;
}

void MqttConnection::attempt()
{
    if (!m_open || m_mosq)
        return;
    ++m_attempts;
    qCDebug(m_category) << QStringLiteral("Connecting to %1, attempt %2").arg(address()).arg(m_attempts);
    emit connecting();
    QString error;
    m_mosq = create(m_options, m_will, this, &error);
    if (!m_mosq) {
        drop(error);
        return;
    }
    m_lost = false;
    m_lostReason = 0;
    m_refusal.clear();
    m_libraryError.clear();
    m_ownMids.clear();
    m_pendingSubscriptions.clear();
    errno = 0;
    // Resolves the host name in this thread; the TCP connect itself does not block.
    const int rc
        = mosquitto_connect_async(m_mosq, m_options.host.toUtf8().constData(), m_options.port, m_options.keepAlive);
    const int savedErrno = errno;
    if (rc != MOSQ_ERR_SUCCESS) {
        drop(m_libraryError.isEmpty() ? reasonText(rc, savedErrno) : m_libraryError);
        return;
    }
    const int fd = mosquitto_socket(m_mosq);
    m_readNotifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    connect(m_readNotifier, &QSocketNotifier::activated, this, [this] {
        if (!m_mosq)
            return;
        // Every packet the socket holds, up to a bound, in this turn of the event loop: a turn (and its poll) per
        // packet costs more than the packet. The library reads until a read would block, which it leaves in errno.
        int rc = MOSQ_ERR_SUCCESS;
        for (int packet = 0; packet < MaxPacketsPerTurn && rc == MOSQ_ERR_SUCCESS && m_mosq && !m_lost; ++packet) {
            errno = 0;
            rc = mosquitto_loop_read(m_mosq, 1);
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                break;
        }
        if (!m_mosq)
            return;
        // What the callbacks queued (acknowledgements answered with the next messages) goes out now, not a turn later.
        if (rc == MOSQ_ERR_SUCCESS && !m_lost && mosquitto_want_write(m_mosq))
            rc = mosquitto_loop_write(m_mosq, 1);
        afterLoop(rc);
    });
    m_writeNotifier = new QSocketNotifier(fd, QSocketNotifier::Write, this);
    connect(m_writeNotifier, &QSocketNotifier::activated, this, [this] {
        if (m_mosq)
            afterLoop(mosquitto_loop_write(m_mosq, 1));
    });
    updateWriteNotifier();
    m_miscTimer.start();
    m_handshakeTimer.start();
}

void MqttConnection::afterLoop(int rc)
{
    if (!m_mosq)
        return;
    if (rc == MOSQ_ERR_SUCCESS && !m_lost) {
        updateWriteNotifier();
        return;
    }
    const int savedErrno = errno;
    if (!m_refusal.isEmpty()) {
        drop(m_refusal);
    } else if (m_lost && m_lostReason >= FirstFailureReason) {
        drop(QString::fromUtf8(mosquitto_reason_string(m_lostReason)));
    } else if (!m_libraryError.isEmpty()) {
        drop(m_libraryError);
    } else {
        drop(reasonText(rc != MOSQ_ERR_SUCCESS ? rc : m_lostReason, savedErrno));
    }
}

void MqttConnection::updateWriteNotifier()
{
    if (m_mosq && m_writeNotifier)
        m_writeNotifier->setEnabled(mosquitto_want_write(m_mosq));
}

void MqttConnection::drop(const QString &reason)
{
    const bool wasConnected = m_connected;
    const bool refused = !m_refusal.isEmpty();
    teardown();
    if (wasConnected) {
        m_reportedUnreachable = true;
        qCWarning(m_category) << QStringLiteral("Connection to %1 lost: %2").arg(address(), reason);
    } else if (refused) {
        qCWarning(m_category) << QStringLiteral("Broker %1 refused the connection: %2").arg(address(), reason);
    } else if (!m_reportedUnreachable) {
        m_reportedUnreachable = true;
        qCWarning(m_category) << QStringLiteral("Can't reach broker %1: %2").arg(address(), reason);
    } else {
        qCDebug(m_category) << QStringLiteral("Can't reach broker %1: %2").arg(address(), reason);
    }
    scheduleAttempt();
    if (wasConnected)
        emit disconnected();
}

void MqttConnection::teardown()
{
    m_miscTimer.stop();
    m_handshakeTimer.stop();
    // The library may have closed the socket already; the notifiers must not watch a number the next socket reuses.
    for (QSocketNotifier *notifier : { m_readNotifier.data(), m_writeNotifier.data() }) {
        if (notifier) {
            notifier->setEnabled(false);
            notifier->deleteLater();
        }
    }
    m_readNotifier.clear();
    m_writeNotifier.clear();
    if (m_mosq) {
        mosquitto_destroy(m_mosq);
        m_mosq = nullptr;
    }
    m_connected = false;
}

void MqttConnection::scheduleAttempt()
{
    if (!m_open)
        return;
    const int delay = m_backoff.next();
    qCDebug(m_category) << QStringLiteral("Next attempt to reach %1 in %2 ms").arg(address()).arg(delay);
    m_retryTimer.start(delay);
}

QString MqttConnection::reasonText(int rc, int savedErrno) const
{
    switch (rc) {
    case MOSQ_ERR_ERRNO:
        return QString::fromLocal8Bit(std::strerror(savedErrno));
    case MOSQ_ERR_KEEPALIVE:
        return QStringLiteral("no answer to the keep-alive ping");
    case MOSQ_ERR_EAI:
        return QStringLiteral("can't resolve the host name %1").arg(m_options.host);
    default:
        return QString::fromUtf8(mosquitto_strerror(rc));
    }
}

void MqttConnection::onConnect(mosquitto *mosq, void *self, int reasonCode, int, const mqtt5__property *)
{
    MqttConnection *connection = static_cast<MqttConnection *>(self);
    if (reasonCode != 0) {
        connection->m_refusal = QString::fromUtf8(mosquitto_reason_string(reasonCode));
        return;
    }
    connection->m_handshakeTimer.stop();
    connection->m_connected = true;
    connection->m_backoff.reset();
    if (connection->m_everConnected)
        ++connection->m_reconnects;
    connection->m_everConnected = true;
    connection->m_reportedUnreachable = false;
    qCInfo(connection->m_category)
        << QStringLiteral("Connected to %1 as %2").arg(connection->address(), connection->m_options.clientId);
    if (!connection->m_statusTopic.isEmpty()) {
        int mid = 0;
        if (mosquitto_publish(mosq, &mid, connection->m_statusTopic.constData(), 6, "online", 1, true)
            == MOSQ_ERR_SUCCESS)
            connection->m_ownMids.insert(mid);
    }
    if (!connection->m_subscriptions.isEmpty()) {
        QVector<QByteArray> filters;
        QVector<char *> pointers;
        for (const QString &filter : qAsConst(connection->m_subscriptions))
            filters.append(filter.toUtf8());
        for (QByteArray &filter : filters)
            pointers.append(filter.data());
        int mid = 0;
        const int rc = mosquitto_subscribe_multiple(
            mosq, &mid, pointers.size(), pointers.data(), connection->m_subscriptionQos, 0, nullptr);
        if (rc == MOSQ_ERR_SUCCESS)
            connection->m_pendingSubscriptions.insert(mid, connection->m_subscriptions);
        else
            qCWarning(connection->m_category) << QStringLiteral("Can't subscribe to %1: %2")
                                                     .arg(connection->m_subscriptions.join(QStringLiteral(", ")),
                                                         QString::fromUtf8(mosquitto_strerror(rc)));
    }
    emit connection->connected();
}

void MqttConnection::onDisconnect(mosquitto *, void *self, int reasonCode, const mqtt5__property *)
{
    MqttConnection *connection = static_cast<MqttConnection *>(self);
    if (connection->m_lost)
        return;
    connection->m_lost = true;
    connection->m_lostReason = reasonCode;
}

void MqttConnection::onPublish(mosquitto *, void *self, int mid, int reasonCode, const mqtt5__property *)
{
    MqttConnection *connection = static_cast<MqttConnection *>(self);
    if (connection->m_ownMids.remove(mid))
        return;
    if (connection->m_inPublish && reasonCode < FirstFailureReason) {
        connection->m_confirmedInPublish.append(mid);
        return;
    }
    emit connection->published(mid, reasonCode);
}

void MqttConnection::onSubscribe(
    mosquitto *, void *self, int mid, int count, const int *granted, const mqtt5__property *)
{
    MqttConnection *connection = static_cast<MqttConnection *>(self);
    const QStringList filters = connection->m_pendingSubscriptions.take(mid);
    for (int i = 0; i < count && i < filters.size(); ++i) {
        if (granted[i] >= FirstFailureReason)
            qCWarning(connection->m_category) << QStringLiteral("Broker %1 refused the subscription to %2: %3")
                                                     .arg(connection->address(), filters.at(i),
                                                         QString::fromUtf8(mosquitto_reason_string(granted[i])));
        else
            qCDebug(connection->m_category)
                << QStringLiteral("Subscribed to %1 at QoS %2").arg(filters.at(i)).arg(granted[i]);
    }
}

void MqttConnection::onMessage(mosquitto *, void *self, const mosquitto_message *message, const mqtt5__property *)
{
    MqttConnection *connection = static_cast<MqttConnection *>(self);
    emit connection->messageReceived(
        QByteArray(message->topic), QByteArray(static_cast<const char *>(message->payload), message->payloadlen));
}

void MqttConnection::onLog(mosquitto *, void *self, int level, const char *text)
{
    // The library names TLS failures only in its log ("OpenSSL Error[0]: ... certificate verify failed").
    if (level == MOSQ_LOG_ERR)
        static_cast<MqttConnection *>(self)->m_libraryError = QString::fromUtf8(text);
}
