#include "mqttin.h"
#include "mqttinlogging.h"

#include "datasetcodec.h"

#include <QLoggingCategory>
#include <QSysInfo>

#include <cstring>

namespace {

const QString Group = QStringLiteral("mqttIn");

} // namespace

const SettingsTable<MqttIn::Options> &MqttIn::settings()
{
    static const SettingsTable<Options> table(
        MqttSettings::connectionKeys("Client id at the broker; empty means orvix- followed by the host name and -in."),
        {
            SettingKey::list(
                "topics", &Options::topics, "orvix/in/#", "Topic filters subscribed to, separated by commas."),
            SettingKey::whole(
                "qos", &Options::qos, "1", 0, 1, "QoS of the subscriptions and of the published requests, 0 or 1.")
                .strict(),
            SettingKey::whole("maxPayload", &Options::maxPayload, "262144", 1, 268435455,
                "Bytes a message may have; a larger one is dropped with a warning.")
                .strict(),
        });
    return table;
}

MqttIn::MqttIn(QObject *parent)
    : QObject(parent)
    , m_connection(lcMqttIn())
{
    connect(&m_connection, &MqttConnection::messageReceived, this, &MqttIn::receive);
}

MqttIn::~MqttIn()
{
    m_connection.close();
}

bool MqttIn::init(const QVariantMap &config, QVariantMap &)
{
    Options options;
    QString error;
    bool usable = settings().read(config.value(Group).toMap(), lcMqttIn(), &options, &error)
        && MqttSettings::complete(QStringLiteral("orvix-%1-in").arg(QSysInfo::machineHostName()), &options, &error);
    const QStringList &topics = options.topics;
    if (usable && topics.isEmpty()) {
        error = QStringLiteral("topics is empty");
        usable = false;
    }
    for (const QString &topic : topics) {
        if (usable && !MqttConnection::checkTopic(topic.toUtf8(), true, &error)) {
            error = QStringLiteral("topics: %1").arg(error);
            usable = false;
        }
    }
    if (!usable) {
        qCWarning(lcMqttIn) << QStringLiteral("Can't use the settings: %1").arg(error);
        return false;
    }
    m_qos = options.qos;
    m_maxPayload = options.maxPayload;
    qCInfo(lcMqttIn) << QStringLiteral("Subscribing to %1 at %2 as %3")
                            .arg(topics.join(QStringLiteral(", ")),
                                options.host + QLatin1Char(':') + QString::number(options.port), options.clientId);
    m_connection.setOptions(options);
    m_connection.setSubscriptions(topics, m_qos);
    m_connection.open();
    m_initialised = true;
    return true;
}

QString MqttIn::name() const
{
    return QStringLiteral("mqttIn");
}

QList<IMetricsProvider::Connection> MqttIn::metricsConnections() const
{
    if (!m_initialised)
        return {};
    return { m_connection.metrics() };
}

void MqttIn::setReconnectDelays(int initialMs, int maximumMs)
{
    m_connection.setReconnectDelays(initialMs, maximumMs);
}

void MqttIn::machineRequest(QString machine, QVariant request)
{
    if (!m_initialised)
        return;
    const QByteArray topic = QStringLiteral("orvix/request/%1").arg(MqttConnection::topicLevel(machine)).toUtf8();
    const QByteArray payload = DatasetCodec::encodeLine(QDateTime::currentDateTimeUtc(), machine, QString(), request);
    int mid = 0;
    bool confirmed = false;
    QString error;
    const MqttConnection::Publish result = m_connection.publish(topic, payload, m_qos, false, &mid, &confirmed, &error);
    if (result == MqttConnection::Publish::NotConnected)
        error = QStringLiteral("not connected to %1").arg(m_connection.address());
    if (result != MqttConnection::Publish::Sent)
        qCWarning(lcMqttIn) << QStringLiteral("Request for %1 not sent: %2").arg(machine, error);
}

void MqttIn::receive(const QByteArray &topic, const QByteArray &payload)
{
    if (payload.size() > m_maxPayload) {
        qCWarning(lcMqttIn) << QStringLiteral("Dropped the message on %1: %2 bytes, more than maxPayload %3")
                                   .arg(QString::fromUtf8(topic))
                                   .arg(payload.size())
                                   .arg(m_maxPayload);
        return;
    }
    // An empty message is how MQTT clears a retained one; there is nothing to decode.
    if (payload.trimmed().isEmpty()) {
        qCDebug(lcMqttIn) << QStringLiteral("Ignored the empty message on %1").arg(QString::fromUtf8(topic));
        return;
    }
    // Most messages are one line: decoded as they are, without a list of lines or a copy of one.
    const char *const bytes = payload.constData();
    const auto *const first = static_cast<const char *>(std::memchr(bytes, '\n', size_t(payload.size())));
    const int lineFeed = first ? int(first - bytes) : -1;
    if (lineFeed < 0
        || (!std::memchr(first + 1, '\n', size_t(payload.size() - lineFeed - 1))
            && payload.mid(lineFeed + 1).trimmed().isEmpty())) {
        DatasetCodec::Dataset dataset;
        QString error;
        if (!DatasetCodec::decodeLine(lineFeed < 0 ? payload : payload.left(lineFeed), &dataset, &error)) {
            qCWarning(lcMqttIn) << QStringLiteral("Dropped the message on %1: %2").arg(QString::fromUtf8(topic), error);
            return;
        }
        send(topic, dataset);
        return;
    }
    const QList<QByteArray> lines = payload.split('\n');
    QVector<DatasetCodec::Dataset> datasets;
    int lineNumber = 0;
    int nonEmpty = 0;
    for (const QByteArray &line : lines)
        nonEmpty += line.trimmed().isEmpty() ? 0 : 1;
    for (const QByteArray &line : lines) {
        ++lineNumber;
        if (line.trimmed().isEmpty())
            continue;
        DatasetCodec::Dataset dataset;
        QString error;
        if (!DatasetCodec::decodeLine(line, &dataset, &error)) {
            // The message is one unit: half of it would leave the machine's data inconsistent.
            qCWarning(lcMqttIn) << QStringLiteral("Dropped the message on %1: %2")
                                       .arg(QString::fromUtf8(topic),
                                           nonEmpty > 1 ? QStringLiteral("line %1: %2").arg(lineNumber).arg(error)
                                                        : error);
            return;
        }
        datasets.append(dataset);
    }
    for (const DatasetCodec::Dataset &dataset : qAsConst(datasets))
        send(topic, dataset);
}

void MqttIn::send(const QByteArray &topic, const DatasetCodec::Dataset &dataset)
{
    // The topic's texts only for a dataset that names no machine or source.
    const auto topicText = [&topic] { return QString::fromUtf8(topic); };
    emit dataReceived(dataset.timestamp.isValid() ? dataset.timestamp : QDateTime::currentDateTime(),
        m_names.intern(dataset.machine.isEmpty() ? topicText().section(QLatin1Char('/'), 1, 1) : dataset.machine),
        m_names.intern(dataset.source.isEmpty() ? topicText() : dataset.source), dataset.data);
}

#include "moc_mqttin.cpp"
