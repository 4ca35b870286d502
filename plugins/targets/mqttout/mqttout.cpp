#include "mqttout.h"
#include "mqttoutlogging.h"

#include "datasetcodec.h"
#include "mqttspool.h"

#include <QLoggingCategory>
#include <QSysInfo>

#include <limits>

namespace {

const QString Group = QStringLiteral("mqttOut");
// Messages handed to the library and not yet confirmed: enough to keep a distant broker busy, few enough that a lost
// connection sends little twice.
constexpr int InFlightWindow = MqttConnection::MaxInFlight;
constexpr int FirstRefusalReason = 0x80;

const QLatin1String Placeholders[] = { QLatin1String("{machine}"), QLatin1String("{source}"), QLatin1String("{type}") };

} // namespace

const SettingsTable<MqttOut::Options> &MqttOut::settings()
{
    static const SettingsTable<Options> table(
        MqttSettings::connectionKeys("Client id at the broker; empty means orvix- followed by the host name."),
        {
            SettingKey::whole("qos", &Options::qos, "1", 0, 1,
                "1: a dataset leaves the spool when the broker acknowledged it; 0: when it was written to the "
                "connection.")
                .strict(),
            SettingKey::trimmed("topic", &Options::topic, "orvix/{machine}/{type}",
                "Topic of each dataset; {machine}, {source} and {type} are replaced."),
            SettingKey::list("retainTypes", &Options::retainTypes, "StateV1",
                "Dataset types published with the retain flag, separated by commas."),
            SettingKey::path("spool", &Options::spool, "/var/lib/orvix/spool/mqttOut",
                "Folder of the on-disk queue of datasets on their way."),
            SettingKey::whole("spoolMaxBytes", &Options::spoolMaxBytes, "67108864", 65536,
                quint64(std::numeric_limits<qint64>::max()),
                "Bytes the spool may hold; past that the oldest datasets are dropped.")
                .strict(),
        });
    return table;
}

MqttOut::MqttOut(QObject *parent)
    : QObject(parent)
    , m_connection(lcMqttOut())
{
    connect(&m_connection, &MqttConnection::connected, this, [this] {
        m_refusedTopics.clear();
        pump();
    });
    connect(&m_connection, &MqttConnection::disconnected, this, &MqttOut::connectionLost);
    connect(&m_connection, &MqttConnection::published, this, &MqttOut::confirm);
}

MqttOut::~MqttOut()
{
    m_connection.close();
}

bool MqttOut::init(const QVariantMap &config, QVariantMap &)
{
    Options options;
    QString error;
    bool usable = settings().read(config.value(Group).toMap(), lcMqttOut(), &options, &error)
        && MqttSettings::complete(QStringLiteral("orvix-") + QSysInfo::machineHostName(), &options, &error);
    const QString &folder = options.spool;
    const qint64 maxBytes = options.spoolMaxBytes;
    m_topic = options.topic;
    const QByteArray statusTopic
        = QStringLiteral("orvix/status/%1").arg(MqttConnection::topicLevel(options.clientId)).toUtf8();
    if (usable && folder.isEmpty()) {
        error = QStringLiteral("spool is empty");
        usable = false;
    }
    if (usable
        && !MqttConnection::checkTopic(
            topicFor(QStringLiteral("m"), QStringLiteral("s"), QStringLiteral("t")), false, &error)) {
        error = QStringLiteral("topic: %1").arg(error);
        usable = false;
    }
    if (usable && !MqttConnection::checkTopic(statusTopic, false, &error)) {
        error = QStringLiteral("clientId: %1").arg(error);
        usable = false;
    }
    if (!usable) {
        qCWarning(lcMqttOut) << QStringLiteral("Can't use the settings: %1").arg(error);
        return false;
    }
    m_qos = options.qos;
    m_retainTypes = QSet<QString>(options.retainTypes.begin(), options.retainTypes.end());

    m_spool = std::make_unique<MqttSpool>(folder, maxBytes, lcMqttOut());
    m_spoolMaxBytes = maxBytes;
    if (!m_spool->open(&error)) {
        qCWarning(lcMqttOut) << QStringLiteral("Can't use the spool %1: %2").arg(folder, error);
        m_spool.reset();
        return false;
    }
    qCInfo(lcMqttOut) << QStringLiteral("Publishing to %1 as %2 through the spool %3, %4 datasets waiting")
                             .arg(options.host + QLatin1Char(':') + QString::number(options.port), options.clientId,
                                 folder)
                             .arg(m_spool->count());
    m_spoolAge.start(*m_spool);
    m_connection.setOptions(options);
    m_connection.setStatusTopic(statusTopic);
    m_connection.setReconnectDelays(m_initialDelay, m_maximumDelay);
    m_connection.open();
    return true;
}

QString MqttOut::name() const
{
    return QStringLiteral("mqttOut");
}

QList<IMetricsProvider::Connection> MqttOut::metricsConnections() const
{
    if (!m_spool)
        return {};
    return { m_connection.metrics() };
}

QList<IMetricsProvider::Value> MqttOut::metricsValues() const
{
    if (!m_spool)
        return {};
    Value records { "orvix_mqttout_spool_records", "Datasets in mqttOut's spool that the broker does not have yet.",
        false, double(m_spool->count()), {} };
    Value bytes { "orvix_mqttout_spool_bytes", "Bytes of those datasets in the spool's files.", false,
        double(m_spool->bytes()), {} };
    Value age { "orvix_mqttout_spool_oldest_age_seconds",
        "Seconds the oldest dataset in the spool has waited, 0 when it is empty.", false,
        m_spoolAge.oldestSeconds(*m_spool), {} };
    Value dropped { "orvix_mqttout_dropped_total",
        "Datasets mqttOut dropped: unusable, not writable to the spool or pushed out of a full one.", true,
        double(m_dropped), {} };
    return { records, bytes, age, dropped };
}

void MqttOut::setReconnectDelays(int initialMs, int maximumMs)
{
    m_initialDelay = initialMs;
    m_maximumDelay = maximumMs;
    m_connection.setReconnectDelays(initialMs, maximumMs);
}

qint64 MqttOut::spooled() const
{
    return m_spool ? m_spool->count() : 0;
}

void MqttOut::processData(
    const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    // A target disabled in the configuration gets no init but stays connected for data.
    if (!m_spool)
        return;
    const QString type = data.isValid() ? QString::fromLatin1(data.typeName()) : QString();
    const QByteArray topic = topicFor(machine, source, type);
    QString error;
    if (!MqttConnection::checkTopic(topic, false, &error)) {
        qCWarning(lcMqttOut) << QStringLiteral("Dropped a dataset of %1: %2").arg(machine, error);
        ++m_dropped;
        return;
    }
    QString problem;
    const QByteArray payload = DatasetCodec::encodeLine(timestamp, machine, source, data, &problem);
    if (payload.isEmpty()) {
        qCWarning(lcMqttOut) << QStringLiteral("Skipping a %1 of %2: %3").arg(type, machine, problem);
        ++m_dropped;
        return;
    }
    qint64 dropped = 0;
    if (!m_spool->append(topic, payload, m_retainTypes.contains(type), &dropped, &error)) {
        // A full disk is reported once, not once per dataset, until the spool takes a dataset again.
        if (error != m_spoolError)
            qCWarning(lcMqttOut) << QStringLiteral("Dropped a dataset of %1: %2").arg(machine, error);
        m_spoolError = error;
        ++m_dropped;
        return;
    }
    m_spoolError.clear();
    m_spoolAge.appended(*m_spool);
    if (dropped > 0) {
        // Said once when dropping starts; the count follows when the spool has room again.
        if (m_droppedWhileFull == 0)
            qCWarning(lcMqttOut) << QStringLiteral("Spool %1 is full: dropping the oldest datasets until the broker "
                                                   "takes them again")
                                        .arg(m_spool->folder());
        m_droppedWhileFull += dropped;
        m_dropped += quint64(dropped);
    }
    pump();
}

QByteArray MqttOut::topicFor(const QString &machine, const QString &source, const QString &type) const
{
    const QString values[]
        = { MqttConnection::topicLevel(machine), MqttConnection::topicLevel(source), MqttConnection::topicLevel(type) };
    QString topic;
    topic.reserve(m_topic.size() + machine.size() + type.size());
    // One pass, so that a machine named "{type}" stays a machine name.
    int at = 0;
    while (at < m_topic.size()) {
        bool replaced = false;
        if (m_topic.at(at) == QLatin1Char('{')) {
            for (int i = 0; i < 3; ++i) {
                if (QStringView(m_topic).mid(at).startsWith(Placeholders[i])) {
                    topic += values[i];
                    at += Placeholders[i].size();
                    replaced = true;
                    break;
                }
            }
        }
        if (!replaced)
            topic += m_topic.at(at++);
    }
    return topic.toUtf8();
}

void MqttOut::pump()
{
    if (m_pumping || !m_spool)
        return;
    m_pumping = true;
    MqttSpool::Record record;
    while (m_connection.isConnected() && m_inFlight.size() < InFlightWindow && m_spool->next(&record)) {
        int mid = 0;
        bool confirmed = false;
        QString error;
        const MqttConnection::Publish result
            = m_connection.publish(record.topic, record.payload, m_qos, record.retain, &mid, &confirmed, &error);
        if (result == MqttConnection::Publish::NotConnected)
            break;
        if (result == MqttConnection::Publish::Unusable) {
            qCWarning(lcMqttOut)
                << QStringLiteral("Dropped the dataset on %1: %2").arg(QString::fromUtf8(record.topic), error);
            m_spool->acknowledge(record.sequence);
        } else if (confirmed) {
            m_spool->acknowledge(record.sequence);
            reportSpoolRoom();
        } else {
            m_inFlight.insert(mid, InFlight { record.sequence, record.topic });
        }
    }
    m_pumping = false;
}

void MqttOut::confirm(int mid, int reasonCode)
{
    const auto found = m_inFlight.constFind(mid);
    if (found == m_inFlight.constEnd())
        return;
    const InFlight message = found.value();
    m_inFlight.erase(found);
    // A refusal is final (not authorised, quota): sending it again would block every dataset behind it.
    if (reasonCode >= FirstRefusalReason && !m_refusedTopics.contains(message.topic)) {
        m_refusedTopics.insert(message.topic);
        qCWarning(lcMqttOut) << QStringLiteral("Broker %1 refused the dataset on %2: %3")
                                    .arg(m_connection.address(), QString::fromUtf8(message.topic),
                                        MqttConnection::reasonString(reasonCode));
    }
    m_spool->acknowledge(message.sequence);
    reportSpoolRoom();
    pump();
}

void MqttOut::reportSpoolRoom()
{
    // Half the spool free: datasets are no longer dropped one segment after another.
    if (m_droppedWhileFull == 0 || m_spool->bytes() > m_spoolMaxBytes / 2)
        return;
    qCWarning(lcMqttOut) << QStringLiteral("Spool %1 has room again: %2 datasets were dropped while it was full")
                                .arg(m_spool->folder())
                                .arg(m_droppedWhileFull);
    m_droppedWhileFull = 0;
}

void MqttOut::connectionLost()
{
    m_inFlight.clear();
    if (m_spool)
        m_spool->rewind();
}

#include "moc_mqttout.cpp"
