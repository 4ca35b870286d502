#include "sparkplug.h"
#include "sparkpluglogging.h"

#include "mqttspool.h"
#include "sparkplugdevice.h"
#include "sparkplugstore.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QSysInfo>

#include <limits>

namespace {

const QString Group = QStringLiteral("sparkplug");
const QByteArray Namespace = QByteArrayLiteral("spBv1.0");
constexpr int InFlightWindow = MqttConnection::MaxInFlight;
// Sparkplug publishes births and data at QoS 0; only the death certificate goes at QoS 1.
constexpr int DataQos = 0;
constexpr int DeathQos = 1;
constexpr quint32 SeqModulus = 256;

const QByteArray DataType = QByteArrayLiteral("DDATA/");

bool isTopicElement(const QString &text)
{
    return !text.isEmpty() && !text.contains(QLatin1Char('/')) && !text.contains(QLatin1Char('+'))
        && !text.contains(QLatin1Char('#'));
}

// Whether a spooled message is a DDATA of this node's group.
bool isData(const QByteArray &topic, const QByteArray &groupPrefix)
{
    return topic.size() > groupPrefix.size() + DataType.size() && topic.startsWith(groupPrefix)
        && qstrncmp(topic.constData() + groupPrefix.size(), DataType.constData(), uint(DataType.size())) == 0;
}

quint64 now()
{
    return quint64(QDateTime::currentMSecsSinceEpoch());
}

} // namespace

const SettingsTable<Sparkplug::Options> &Sparkplug::settings()
{
    static const SettingsTable<Options> table(
        MqttSettings::connectionKeys("Client id at the broker; empty means orvix- followed by edgeNodeId."),
        {
            SettingKey::trimmed("groupId", &Options::groupId, "orvix",
                "Sparkplug group id: the second level of every topic of the node."),
            SettingKey::trimmed(
                "edgeNodeId", &Options::edgeNodeId, "", "Sparkplug edge node id; empty means the host name."),
            SettingKey::trimmed("primaryHostId", &Options::primaryHostId, "",
                "Host application whose STATE must say online before the node sends its births; empty waits for "
                "none."),
            SettingKey::path("state", &Options::state, "/var/lib/orvix/state/sparkplug",
                "Folder where the node keeps its bdSeq and the aliases of its devices' metrics."),
            SettingKey::path("spool", &Options::spool, "/var/lib/orvix/spool/sparkplug",
                "Folder of the on-disk queue of device messages on their way."),
            SettingKey::whole("spoolMaxBytes", &Options::spoolMaxBytes, "67108864", 65536,
                quint64(std::numeric_limits<qint64>::max()),
                "Bytes the spool may hold; past that the oldest messages are dropped.")
                .strict(),
        });
    return table;
}

Sparkplug::Sparkplug(QObject *parent)
    : QObject(parent)
    , m_connection(lcSparkplug())
{
    connect(&m_connection, &MqttConnection::connecting, this, &Sparkplug::connecting);
    connect(&m_connection, &MqttConnection::connected, this, &Sparkplug::connected);
    connect(&m_connection, &MqttConnection::disconnected, this, &Sparkplug::disconnected);
    connect(&m_connection, &MqttConnection::published, this, &Sparkplug::confirm);
    connect(&m_connection, &MqttConnection::messageReceived, this, &Sparkplug::messageReceived);
}

Sparkplug::~Sparkplug()
{
    publishDeath();
    m_connection.close();
    qDeleteAll(m_deviceOrder);
}

bool Sparkplug::init(const QVariantMap &config, QVariantMap &)
{
    Options options;
    QString error;
    bool usable = settings().read(config.value(Group).toMap(), lcSparkplug(), &options, &error);
    if (options.edgeNodeId.isEmpty())
        options.edgeNodeId = QSysInfo::machineHostName();
    usable = usable && MqttSettings::complete(QStringLiteral("orvix-") + options.edgeNodeId, &options, &error);
    const QString &groupId = options.groupId;
    const QString &edgeNodeId = options.edgeNodeId;
    m_hostId = options.primaryHostId;
    const qint64 maxBytes = options.spoolMaxBytes;
    const QString &spoolFolder = options.spool;
    const QString &stateFolder = options.state;
    const auto refuse = [&usable, &error](const QString &sentence) {
        if (usable)
            error = sentence;
        usable = false;
    };
    if (!isTopicElement(groupId))
        refuse(QStringLiteral("groupId must be one topic level without /, + or #, not \"%1\"").arg(groupId));
    if (!isTopicElement(edgeNodeId))
        refuse(QStringLiteral("edgeNodeId must be one topic level without /, + or #, not \"%1\"").arg(edgeNodeId));
    if (!m_hostId.isEmpty() && !isTopicElement(m_hostId))
        refuse(QStringLiteral("primaryHostId must be one topic level without /, + or #, not \"%1\"").arg(m_hostId));
    if (spoolFolder.isEmpty())
        refuse(QStringLiteral("spool is empty"));
    if (stateFolder.isEmpty())
        refuse(QStringLiteral("state is empty"));
    if (usable) {
        m_groupPrefix = Namespace + '/' + groupId.toUtf8() + '/';
        m_edgeNodeId = edgeNodeId.toUtf8();
        m_nodeBirthTopic = m_groupPrefix + "NBIRTH/" + m_edgeNodeId;
        m_nodeDeathTopic = m_groupPrefix + "NDEATH/" + m_edgeNodeId;
        m_commandTopic = m_groupPrefix + "NCMD/" + m_edgeNodeId;
        if (!m_hostId.isEmpty())
            m_hostTopic = Namespace + "/STATE/" + m_hostId.toUtf8();
        if (!MqttConnection::checkTopic(m_nodeBirthTopic, false, &error))
            refuse(error);
    }
    if (!usable) {
        qCWarning(lcSparkplug) << QStringLiteral("Can't use the settings: %1").arg(error);
        return false;
    }

    auto store = std::make_unique<SparkplugStore>(stateFolder, lcSparkplug());
    if (!store->open(&error)) {
        qCWarning(lcSparkplug) << QStringLiteral("Can't use the state folder %1: %2").arg(stateFolder, error);
        return false;
    }
    auto spool = std::make_unique<MqttSpool>(spoolFolder, maxBytes, lcSparkplug());
    if (!spool->open(&error)) {
        qCWarning(lcSparkplug) << QStringLiteral("Can't use the spool %1: %2").arg(spoolFolder, error);
        return false;
    }
    m_store = std::move(store);
    m_spool = std::move(spool);
    m_spoolMaxBytes = maxBytes;
    m_spoolAge.start(*m_spool);
    // The devices an earlier run knew are born again with their aliases, so that what waits in the spool still fits.
    for (const QString &machine : m_store->machines())
        deviceFor(machine);
    qCInfo(lcSparkplug) << QStringLiteral("Edge node %1/%2 publishing to %3 as %4 through the spool %5, %6 messages "
                                          "waiting")
                               .arg(groupId, edgeNodeId,
                                   options.host + QLatin1Char(':') + QString::number(options.port), options.clientId,
                                   spoolFolder)
                               .arg(m_spool->count());
    QStringList subscriptions { QString::fromUtf8(m_commandTopic) };
    if (!m_hostTopic.isEmpty())
        subscriptions.append(QString::fromUtf8(m_hostTopic));
    m_connection.setOptions(options);
    m_connection.setSubscriptions(subscriptions, 1);
    m_connection.setReconnectDelays(m_initialDelay, m_maximumDelay);
    m_connection.open();
    return true;
}

QString Sparkplug::name() const
{
    return QStringLiteral("sparkplug");
}

QList<IMetricsProvider::Connection> Sparkplug::metricsConnections() const
{
    if (!m_spool)
        return {};
    return { m_connection.metrics() };
}

QList<IMetricsProvider::Value> Sparkplug::metricsValues() const
{
    if (!m_spool)
        return {};
    Value records { "orvix_sparkplug_spool_records",
        "Device messages in sparkplug's spool that the broker does not have yet.", false, double(m_spool->count()),
        {} };
    Value bytes { "orvix_sparkplug_spool_bytes", "Bytes of those messages in the spool's files.", false,
        double(m_spool->bytes()), {} };
    Value age { "orvix_sparkplug_spool_oldest_age_seconds",
        "Seconds the oldest message in the spool has waited, 0 when it is empty.", false,
        m_spoolAge.oldestSeconds(*m_spool), {} };
    Value dropped { "orvix_sparkplug_dropped_total",
        "Messages sparkplug dropped: not writable to the spool, pushed out of a full one or refused on the way.", true,
        double(m_dropped), {} };
    Value sent { "orvix_sparkplug_messages_sent_total",
        "Sparkplug messages handed to the broker: births, data and deaths, live and as history.", true, double(m_sent),
        {} };
    Value born { "orvix_sparkplug_born",
        "1 while the edge node is born and publishes live, 0 while it waits for the broker or the primary host.", false,
        m_born ? 1.0 : 0.0, {} };
    Value devices { "orvix_sparkplug_devices", "Machines the edge node has as its devices.", false,
        double(m_deviceOrder.size()), {} };
    return { records, bytes, age, dropped, sent, born, devices };
}

void Sparkplug::setReconnectDelays(int initialMs, int maximumMs)
{
    m_initialDelay = initialMs;
    m_maximumDelay = maximumMs;
    m_connection.setReconnectDelays(initialMs, maximumMs);
}

qint64 Sparkplug::spooled() const
{
    return m_spool ? m_spool->count() : 0;
}

void Sparkplug::processData(QDateTime timestamp, QString machine, QString, QVariant data)
{
    // A target disabled in the configuration gets no init but stays connected for data.
    if (!m_spool)
        return;
    SparkplugDevice *device = deviceFor(machine);
    // One change record for all datasets: its list keeps its capacity.
    SparkplugDevice::Change &change = m_change;
    change.metrics.clear();
    change.newMetrics = change.died = change.revived = false;
    if (!device || !device->apply(timestamp, data, &change))
        return;
    if (change.died) {
        if (device->isAnnounced()) {
            m_payload.deviceData(now(), *device, change.metrics, &m_buffer);
            queue(device->dataTopic(), m_buffer, machine);
            m_payload.deviceDeath(now(), &m_buffer);
            queue(device->deathTopic(), m_buffer, machine);
            device->setAnnounced(false);
        }
        return;
    }
    // The values of an offline machine wait for its next birth.
    if (!device->isAlive())
        return;
    if (!device->isAnnounced() || change.newMetrics || change.revived) {
        m_payload.deviceBirth(now(), *device, &m_buffer);
        queue(device->birthTopic(), m_buffer, machine);
        device->setAnnounced(true);
    } else if (!change.metrics.isEmpty()) {
        m_payload.deviceData(now(), *device, change.metrics, &m_buffer);
        queue(device->dataTopic(), m_buffer, machine);
    }
}

SparkplugDevice *Sparkplug::deviceFor(const QString &machine)
{
    const auto known = m_devices.constFind(machine);
    if (known != m_devices.constEnd())
        return known.value();
    const QByteArray deviceId = MqttConnection::topicLevel(machine).toUtf8();
    const QString other = m_deviceIds.value(deviceId);
    SparkplugDevice *device = nullptr;
    if (other.isNull()) {
        device = new SparkplugDevice(machine, m_groupPrefix, m_edgeNodeId, m_store.get());
        m_deviceOrder.append(device);
        m_deviceIds.insert(deviceId, machine);
    } else {
        // Two devices on one topic would contradict each other's births; the first one seen keeps it.
        qCWarning(lcSparkplug) << QStringLiteral("Machines %1 and %2 would both be device %3: leaving %2 out")
                                      .arg(other, machine, QString::fromUtf8(deviceId));
    }
    m_devices.insert(machine, device);
    return device;
}

void Sparkplug::queue(const QByteArray &topic, const QByteArray &payload, const QString &machine)
{
    qint64 dropped = 0;
    QString error;
    if (!m_spool->append(topic, payload, false, &dropped, &error)) {
        // A full disk is reported once, not once per message, until the spool takes a message again.
        if (error != m_spoolError)
            qCWarning(lcSparkplug) << QStringLiteral("Dropped a message of %1: %2").arg(machine, error);
        m_spoolError = error;
        ++m_dropped;
        return;
    }
    m_spoolError.clear();
    m_spoolAge.appended(*m_spool);
    if (dropped > 0) {
        if (m_droppedWhileFull == 0)
            qCWarning(lcSparkplug) << QStringLiteral("Spool %1 is full: dropping the oldest messages until the broker "
                                                     "takes them again")
                                          .arg(m_spool->folder());
        m_droppedWhileFull += dropped;
        m_dropped += quint64(dropped);
    }
    pump();
}

void Sparkplug::connecting()
{
    // Each connection registers its own NDEATH, whose bdSeq the following NBIRTH repeats.
    m_bdSeq = m_store->takeBdSeq();
    m_payload.nodeDeath(now(), m_bdSeq, &m_buffer);
    m_connection.setWill(m_nodeDeathTopic, m_buffer, DeathQos, false);
}

void Sparkplug::connected()
{
    if (m_hostTopic.isEmpty())
        birth();
    else
        qCInfo(lcSparkplug) << QStringLiteral("Waiting for the primary host %1 to be online").arg(m_hostId);
}

void Sparkplug::disconnected()
{
    m_born = false;
    m_hostOnline = false;
    m_inFlight.clear();
    if (m_spool)
        m_spool->rewind();
}

void Sparkplug::messageReceived(const QByteArray &topic, const QByteArray &payload)
{
    if (topic == m_hostTopic) {
        hostState(payload);
        return;
    }
    if (topic != m_commandTopic)
        return;
    bool rebirth = false;
    if (!SparkplugPayload::rebirthRequested(payload, &rebirth)) {
        qCWarning(lcSparkplug)
            << QStringLiteral("Ignoring a command on %1: not a Sparkplug B payload").arg(QString::fromUtf8(topic));
        return;
    }
    if (rebirth && m_born) {
        qCInfo(lcSparkplug) << QStringLiteral("Rebirth requested");
        birth();
    }
}

void Sparkplug::hostState(const QByteArray &payload)
{
    const QJsonObject state = QJsonDocument::fromJson(payload).object();
    const QJsonValue online = state.value(QStringLiteral("online"));
    const QJsonValue timestamp = state.value(QStringLiteral("timestamp"));
    if (!online.isBool() || !timestamp.isDouble()) {
        qCWarning(lcSparkplug)
            << QStringLiteral("Ignoring the STATE of %1: %2").arg(m_hostId, QString::fromUtf8(payload.left(200)));
        return;
    }
    // A STATE older than the last one is a stale retained message of an earlier session of the host.
    const qint64 when = qint64(timestamp.toDouble());
    if (when < m_hostTimestamp)
        return;
    m_hostTimestamp = when;
    if (online.toBool()) {
        m_hostOnline = true;
        if (!m_born) {
            qCInfo(lcSparkplug) << QStringLiteral("Primary host %1 is online").arg(m_hostId);
            birth();
        }
    } else if (m_hostOnline || m_born) {
        qCWarning(lcSparkplug) << QStringLiteral("Primary host %1 is offline: ending the session").arg(m_hostId);
        m_hostOnline = false;
        m_born = false;
        // Not from within the library's callback that brought the message: the connection is taken down there.
        QMetaObject::invokeMethod(this, &Sparkplug::endSession, Qt::QueuedConnection);
    }
}

void Sparkplug::endSession()
{
    publishDeath();
    m_connection.close();
    disconnected();
    m_connection.open();
}

void Sparkplug::publishDeath()
{
    if (!m_connection.isConnected())
        return;
    m_payload.nodeDeath(now(), m_bdSeq, &m_buffer);
    int mid = 0;
    bool confirmed = false;
    QString error;
    m_connection.publish(m_nodeDeathTopic, m_buffer, DeathQos, false, &mid, &confirmed, &error);
}

void Sparkplug::birth()
{
    m_seq = 0;
    m_payload.nodeBirth(now(), m_bdSeq, &m_buffer);
    if (!publishNow(m_nodeBirthTopic, m_buffer))
        return;
    for (SparkplugDevice *device : qAsConst(m_deviceOrder)) {
        m_payload.deviceBirth(now(), *device, &m_buffer);
        SparkplugPayload::appendSeq(&m_buffer, nextSeq());
        if (!publishNow(device->birthTopic(), m_buffer))
            return;
    }
    // What the spool holds now happened before these births: it follows them as history.
    m_historyEnd = m_spool->end();
    m_deathsPending = true;
    m_born = true;
    qCInfo(lcSparkplug) << QStringLiteral("Born with bdSeq %1 and %2 devices, %3 messages to send as history")
                               .arg(m_bdSeq)
                               .arg(m_deviceOrder.size())
                               .arg(m_spool->count());
    pump();
}

bool Sparkplug::publishNow(const QByteArray &topic, const QByteArray &payload)
{
    int mid = 0;
    bool confirmed = false;
    QString error;
    if (m_connection.publish(topic, payload, DataQos, false, &mid, &confirmed, &error) != MqttConnection::Publish::Sent)
        return false;
    ++m_sent;
    return true;
}

quint32 Sparkplug::nextSeq()
{
    m_seq = (m_seq + 1) % SeqModulus;
    return m_seq;
}

void Sparkplug::pump()
{
    if (m_pumping || !m_born)
        return;
    m_pumping = true;
    MqttSpool::Record record;
    QByteArray payload;
    while (m_born && m_connection.isConnected() && m_inFlight.size() < InFlightWindow) {
        const bool more = m_spool->next(&record);
        const bool history = more && record.sequence < m_historyEnd;
        if (m_deathsPending && !history) {
            // The devices that are offline now die after their history.
            m_deathsPending = false;
            for (SparkplugDevice *device : qAsConst(m_deviceOrder)) {
                if (!device->isAlive()) {
                    m_payload.deviceDeath(now(), &m_buffer);
                    SparkplugPayload::appendSeq(&m_buffer, nextSeq());
                    publishNow(device->deathTopic(), m_buffer);
                }
            }
        }
        if (!more)
            break;
        if (history) {
            // Births and deaths of an earlier session are replaced by this session's.
            if (!isData(record.topic, m_groupPrefix)) {
                m_spool->acknowledge(record.sequence);
                continue;
            }
            if (!SparkplugPayload::historical(record.payload, (m_seq + 1) % SeqModulus, &payload)) {
                qCWarning(lcSparkplug) << QStringLiteral("Dropped the message on %1: not a Sparkplug B payload")
                                              .arg(QString::fromUtf8(record.topic));
                m_spool->acknowledge(record.sequence);
                ++m_dropped;
                continue;
            }
            nextSeq();
        } else {
            payload = record.payload;
            SparkplugPayload::appendSeq(&payload, nextSeq());
        }
        int mid = 0;
        bool confirmed = false;
        QString error;
        const MqttConnection::Publish result
            = m_connection.publish(record.topic, payload, DataQos, false, &mid, &confirmed, &error);
        if (result == MqttConnection::Publish::NotConnected)
            break;
        if (result == MqttConnection::Publish::Unusable) {
            qCWarning(lcSparkplug)
                << QStringLiteral("Dropped the message on %1: %2").arg(QString::fromUtf8(record.topic), error);
            m_spool->acknowledge(record.sequence);
            ++m_dropped;
        } else if (confirmed) {
            m_spool->acknowledge(record.sequence);
            ++m_sent;
            reportSpoolRoom();
        } else {
            m_inFlight.insert(mid, record.sequence);
        }
    }
    m_pumping = false;
}

void Sparkplug::confirm(int mid, int)
{
    const auto found = m_inFlight.constFind(mid);
    if (found == m_inFlight.constEnd())
        return;
    const quint64 sequence = found.value();
    m_inFlight.erase(found);
    m_spool->acknowledge(sequence);
    ++m_sent;
    reportSpoolRoom();
    pump();
}

void Sparkplug::reportSpoolRoom()
{
    if (m_droppedWhileFull == 0 || m_spool->bytes() > m_spoolMaxBytes / 2)
        return;
    qCWarning(lcSparkplug) << QStringLiteral("Spool %1 has room again: %2 messages were dropped while it was full")
                                  .arg(m_spool->folder())
                                  .arg(m_droppedWhileFull);
    m_droppedWhileFull = 0;
}

#include "moc_sparkplug.cpp"
