#include "opcua.h"
#include "opcualogging.h"

#include "opcuaconnection.h"

#include <QLoggingCategory>

namespace {

const QString Group = QStringLiteral("opcua");
constexpr quint64 LongestPublishingInterval = 3600000;

} // namespace

const QVector<SettingKey> &OpcUaDatasource::settings()
{
    static const QVector<SettingKey> table {
        SettingKey::string("url", "opc.tcp://localhost:4840", "Endpoint of the OPC UA server."),
        SettingKey::string("securityMode", "None", "None, Sign or SignAndEncrypt."),
        SettingKey::string("securityPolicy", "None",
            "None, Basic256Sha256, Aes128_Sha256_RsaOaep or Aes256_Sha256_RsaPss; None exactly when securityMode is "
            "None."),
        SettingKey::string("username", "", "User name of the login; empty logs in anonymously."),
        SettingKey::string("password", "", "Password of username."),
        SettingKey::path("pki", "/var/lib/orvix/pki/opcua",
            "Folder of the client certificate (own/, made at first start) and of the server certificates (trusted/, "
            "rejected/); used with a securityMode other than None."),
        SettingKey::list("machines", "",
            "Browse names of the machines to read, separated by commas; empty reads every "
            "machine of the server."),
        SettingKey::list("rename", "",
            "Names the datasets carry instead of the browse names, as browseName=name pairs separated by commas."),
        SettingKey::duration("publishingInterval", "1000", 10, LongestPublishingInterval,
            "Milliseconds between two notifications of the server; changes within one arrive together."),
        SettingKey::duration("timeout", "5000", 100, LongestPublishingInterval,
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
        const SettingsGroup settings(keys, OpcUaDatasource::settings(), lcOpcUa());
        if (settings.text("url").isEmpty() || !keys.contains(QStringLiteral("url"))) {
            qCWarning(lcOpcUa) << QStringLiteral("Skipped the connection %1: it has no url").arg(connection);
            continue;
        }
        OpcUaConnection::Options options;
        options.source = Group + QLatin1Char('/') + connection;
        options.client.name = connection;
        options.client.url = settings.text("url");
        options.client.securityMode = settings.text("securityMode");
        options.client.securityPolicy = settings.text("securityPolicy");
        options.client.username = settings.text("username");
        options.client.password = settings.text("password");
        options.client.pki = settings.text("pki");
        options.client.timeout = int(settings.number("timeout"));
        options.machines = settings.list("machines");
        options.publishingInterval = int(settings.number("publishingInterval"));
        options.names = names;
        bool renamesFit = true;
        for (const QString &pair : settings.list("rename")) {
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
        QString error;
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
