#include "opcua.h"
#include "opcualogging.h"

#include "opcuaconnection.h"

#include <QLoggingCategory>

namespace {

const QString Group = QStringLiteral("opcua");
constexpr quint64 LongestPublishingInterval = 3600000;

} // namespace

const SettingsTable<OpcUaDatasource::ConnectionOptions> &OpcUaDatasource::settings()
{
    using Options = ConnectionOptions;
    static const SettingsTable<Options> table {
        SettingKey::string("url", &Options::url, "opc.tcp://localhost:4840", "Endpoint of the OPC UA server.")
            .required(),
        SettingKey::string("securityMode", &Options::securityMode, "None", "None, Sign or SignAndEncrypt."),
        SettingKey::string("securityPolicy", &Options::securityPolicy, "None",
            "None, Basic256Sha256, Aes128_Sha256_RsaOaep or Aes256_Sha256_RsaPss; None exactly when securityMode is "
            "None."),
        SettingKey::string("username", &Options::username, "", "User name of the login; empty logs in anonymously."),
        SettingKey::string("password", &Options::password, "", "Password of username."),
        SettingKey::path("pki", &Options::pki, "/var/lib/orvix/pki/opcua",
            "Folder of the client certificate (own/, made at first start) and of the server certificates (trusted/, "
            "rejected/); used with a securityMode other than None."),
        SettingKey::list("machines", &Options::machines, "",
            "Browse names of the machines to read, separated by commas; empty reads every "
            "machine of the server."),
        SettingKey::list("rename", &Options::rename, "",
            "Names the datasets carry instead of the browse names, as browseName=name pairs separated by commas."),
        SettingKey::duration("publishingInterval", &Options::publishingInterval, "1000", 10, LongestPublishingInterval,
            "Milliseconds between two notifications of the server; changes within one arrive together."),
        SettingKey::duration("timeout", &Options::timeout, "5000", 100, LongestPublishingInterval,
            "Milliseconds a request may take before the connection counts as lost."),
    };
    return table;
}

OpcUaDatasource::OpcUaDatasource(QObject *parent)
    : QObject(parent)
{
}

OpcUaDatasource::~OpcUaDatasource() = default;

void OpcUaDatasource::setBackoff(int first, int longest)
{
    m_firstBackoff = first;
    m_longestBackoff = longest;
}

bool OpcUaDatasource::init(const QVariantMap &config, QVariantMap &)
{
    const QVariantMap group = config.value(Group).toMap();
    // One name, one machine, across all connections: Limit and the targets know machines by name alone.
    const auto names = std::make_shared<OpcUaConnection::MachineNames>();
    for (auto entry = group.constBegin(); entry != group.constEnd(); ++entry) {
        const QString &connection = entry.key();
        if (entry.value().type() != QVariant::Map) {
            qCWarning(lcOpcUa) << QStringLiteral("Ignored the key %1 of the group opcua: a connection's keys are "
                                                 "written as opcua/<connection>/url and so on")
                                      .arg(connection);
            continue;
        }
        const QVariantMap keys = entry.value().toMap();
        ConnectionOptions written;
        QString error;
        if (!settings().read(keys, lcOpcUa(), &written, &error)) {
            qCWarning(lcOpcUa) << QStringLiteral("Skipped the connection %1: %2").arg(connection, error);
            continue;
        }
        OpcUaConnection::Options options;
        options.source = Group + QLatin1Char('/') + connection;
        options.client = written;
        options.client.name = connection;
        options.machines = written.machines;
        options.publishingInterval = written.publishingInterval;
        options.names = names;
        bool renamesFit = true;
        for (const QString &pair : qAsConst(written.rename)) {
            const int separator = pair.indexOf(QLatin1Char('='));
            if (separator <= 0 || separator == pair.size() - 1) {
                renamesFit = false;
                qCWarning(lcOpcUa) << QStringLiteral("Skipped the connection %1: rename must be browseName=name "
                                                     "pairs, not \"%2\"")
                                          .arg(connection, pair);
                break;
            }
            options.renames.insert(pair.left(separator).trimmed(), pair.mid(separator + 1).trimmed());
        }
        if (!renamesFit)
            continue;
        if (!OpcUaClient::check(options.client, &error)) {
            qCWarning(lcOpcUa) << QStringLiteral("Skipped the connection %1: %2").arg(connection, error);
            continue;
        }
        auto *opened = new OpcUaConnection(options, lcOpcUa(), lcOpcUaLibrary(), this);
        opened->client().setBackoff(m_firstBackoff, m_longestBackoff);
        opened->setItemBackoff(m_firstBackoff, m_longestBackoff);
        connect(opened, &OpcUaConnection::dataReceived, this, &OpcUaDatasource::dataReceived);
        m_connections.append(opened);
        watch(opened, connection, options.client.timeout + m_firstBackoff);
    }
    if (m_connections.isEmpty()) {
        qCWarning(lcOpcUa) << QStringLiteral("No usable connection in the group opcua: write at least "
                                             "opcua/<connection>/url");
        return false;
    }
    for (OpcUaConnection *connection : qAsConst(m_connections))
        connection->open();
    return true;
}

QString OpcUaDatasource::name() const
{
    return QStringLiteral("opcua");
}

void OpcUaDatasource::watch(OpcUaConnection *connection, const QString &name, int firstBackoff)
{
    if (!m_clock.isValid())
        m_clock.start();
    const int index = m_watched.size();
    m_watched.append({ name, false, 0, m_clock.elapsed(), firstBackoff });
    connect(&connection->client(), &OpcUaClient::connected, this, [this, index] {
        m_watched[index].up = true;
        ++m_watched[index].connects;
    });
    connect(&connection->client(), &OpcUaClient::disconnected, this, [this, index] {
        m_watched[index].up = false;
        m_watched[index].downSince = m_clock.elapsed();
    });
}

QList<IMetricsProvider::Connection> OpcUaDatasource::metricsConnections() const
{
    QList<Connection> connections;
    for (const Watched &watched : m_watched) {
        Connection connection;
        connection.name = watched.name;
        connection.up = watched.up;
        connection.starting = !watched.up && m_clock.elapsed() - watched.downSince < watched.firstBackoff;
        connection.reconnects = watched.connects > 0 ? watched.connects - 1 : 0;
        connections.append(connection);
    }
    return connections;
}
