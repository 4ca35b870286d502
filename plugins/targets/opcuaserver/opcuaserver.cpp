#include "opcuaserver.h"
#include "opcuaserverlogging.h"

#include "opcuaserverhost.h"
#include "opcuasupport.h"
#include "settingvalue.h"
#include "wwaddressspace.h"
#include "wwtypes.h"

#include <QFile>
#include <QLoggingCategory>

namespace {

const QString Group = QStringLiteral("opcuaServerTarget");

/** Adds the user:password entries of lines to *users; false with a sentence naming where for a malformed one. */
bool readUsers(const QStringList &entries, const QString &where, QHash<QString, QString> *users, QString *error)
{
    for (int i = 0; i < entries.size(); ++i) {
        const QString entry = entries.at(i);
        const int colon = entry.indexOf(QLatin1Char(':'));
        if (colon <= 0) {
            *error = QStringLiteral("%1 entry %2 is not user:password").arg(where).arg(i + 1);
            return false;
        }
        users->insert(entry.left(colon), entry.mid(colon + 1));
    }
    return true;
}

} // namespace

const SettingsTable<OpcUaServer::Options> &OpcUaServer::settings()
{
    static const SettingsTable<Options> table {
        SettingKey::whole(
            "port", &Options::port, "4840", 1, 65535, "TCP port the server listens on, on every interface.")
            .strict(),
        SettingKey::trimmed("endpointPath", &Options::endpointPath, "",
            "Path after host and port in the endpoint URL, e.g. /orvix; empty for none."),
        SettingKey::list("securityPolicies", &Options::securityPolicies, "",
            "Security policies offered, separated by commas; empty offers None, Basic256Sha256, Aes128_Sha256_RsaOaep "
            "and Aes256_Sha256_RsaPss."),
        SettingKey::list("securityModes", &Options::securityModes, "",
            "Security modes offered with them, separated by commas; empty offers None, Sign and SignAndEncrypt. None "
            "goes with the policy None only."),
        SettingKey::list("users", &Options::users, "", "Logins as user:password, separated by commas; empty for none."),
        SettingKey::path("passwordFile", &Options::passwordFile, "",
            "File of further logins, one user:password a line; empty for none."),
        SettingKey::boolean("allowAnonymous", &Options::allowAnonymous, "",
            "true lets clients in without a login; empty means true without logins and false with them.")
            .strict(),
        SettingKey::path("pki", &Options::pki, "/var/lib/orvix/opcuaServer/pki",
            "Folder of the own certificate (own/), trusted client certificates (trusted/) and refused ones "
            "(rejected/)."),
    };
    return table;
}

OpcUaServer::OpcUaServer(QObject *parent)
    : QObject(parent)
{
    connect(&m_mapper, &MmToOpcUaMapper::dataProcessed, this,
        [this](const QDateTime &timestamp, const QString &machine, const QString &, const QVariant &data) {
            publish(timestamp, machine, data);
        });
}

OpcUaServer::~OpcUaServer()
{
    m_host.reset();
    m_space.reset();
}

bool OpcUaServer::init(const QVariantMap &config, QVariantMap &shared)
{
    Options written;
    QString error;
    bool usable = settings().read(config.value(Group).toMap(), lcOpcUaServer(), &written, &error);
    OpcUaServerHost::Options options;
    options.port = written.port;
    options.endpointPath = written.endpointPath;
    if (usable && !options.endpointPath.isEmpty() && !options.endpointPath.startsWith(QLatin1Char('/')))
        options.endpointPath.prepend(QLatin1Char('/'));
    options.securityPolicies = written.securityPolicies;
    if (options.securityPolicies.isEmpty())
        options.securityPolicies = OpcUa::policyNames();
    options.securityModes = written.securityModes;
    if (options.securityModes.isEmpty())
        options.securityModes = OpcUa::modeNames();
    for (const QString &policy : qAsConst(options.securityPolicies)) {
        if (usable && !OpcUa::policyNames().contains(policy)) {
            error = QStringLiteral("securityPolicies: unknown policy %1; known are %2")
                        .arg(policy, OpcUa::policyNames().join(QStringLiteral(", ")));
            usable = false;
        }
    }
    for (const QString &mode : qAsConst(options.securityModes)) {
        if (usable && !OpcUa::modeNames().contains(mode)) {
            error = QStringLiteral("securityModes: unknown mode %1; known are %2")
                        .arg(mode, OpcUa::modeNames().join(QStringLiteral(", ")));
            usable = false;
        }
    }
    usable = usable && readUsers(written.users, QStringLiteral("users"), &options.users, &error);
    const QString &passwordFile = written.passwordFile;
    if (usable && !passwordFile.isEmpty()) {
        QFile file(passwordFile);
        if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
            error = QStringLiteral("can't read the passwordFile %1: %2").arg(passwordFile, file.errorString());
            usable = false;
        } else {
            QStringList lines;
            for (const QString &line : QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'))) {
                const QString trimmed = line.trimmed();
                if (!trimmed.isEmpty() && !trimmed.startsWith(QLatin1Char('#')))
                    lines.append(trimmed);
            }
            usable = readUsers(lines, QStringLiteral("passwordFile"), &options.users, &error);
        }
    }
    options.allowAnonymous = written.allowAnonymous.value_or(options.users.isEmpty());
    if (usable && !options.allowAnonymous && options.users.isEmpty()) {
        error = QStringLiteral("allowAnonymous is false and no users are configured, so nobody could log in");
        usable = false;
    }
    options.pki = written.pki;
    if (!usable) {
        qCWarning(lcOpcUaServer) << QStringLiteral("Can't use the settings: %1").arg(error);
        return false;
    }

    auto host = std::make_unique<OpcUaServerHost>(lcOpcUaServer());
    if (!host->start(options, &error)) {
        qCWarning(lcOpcUaServer) << QStringLiteral("Can't serve OPC UA: %1").arg(error);
        return false;
    }
    auto space = std::make_unique<WwAddressSpace>(host->server());
    if (!space->build(&error)) {
        host.reset();
        qCWarning(lcOpcUaServer) << QStringLiteral("Can't serve OPC UA: %1").arg(error);
        return false;
    }
    const QVariantMap identification = config.value(QStringLiteral("opcuawwcsidentification")).toMap();
    for (auto machine = identification.constBegin(); machine != identification.constEnd(); ++machine) {
        const QString locale = SettingValue::text(machine.value().toMap().value(QStringLiteral("locale")));
        if (!locale.isEmpty())
            space->setLocale(machine.key(), locale);
    }
    m_host = std::move(host);
    m_space = std::move(space);
    qCInfo(lcOpcUaServer) << QStringLiteral("Serving the machines at %1 (policies %2; modes %3; %4 users%5)")
                                 .arg(m_host->endpointUrl(), options.securityPolicies.join(QStringLiteral(", ")),
                                     options.securityModes.join(QStringLiteral(", ")))
                                 .arg(options.users.size())
                                 .arg(options.allowAnonymous ? QStringLiteral(", anonymous allowed") : QString());
    m_mapper.init(config, shared);
    return true;
}

QString OpcUaServer::name() const
{
    return QStringLiteral("opcuaServer");
}

QString OpcUaServer::endpointUrl() const
{
    return m_host ? m_host->endpointUrl() : QString();
}

int OpcUaServer::machineCount() const
{
    return m_space ? m_space->machineCount() : 0;
}

void OpcUaServer::processData(QDateTime timestamp, QString machine, QString source, QVariant data)
{
    // A target disabled in the configuration gets no init but stays connected for data.
    if (!m_space)
        return;
    m_mapper.processData(timestamp, machine, source, data);
}

void OpcUaServer::publish(const QDateTime &timestamp, const QString &machine, const QVariant &data)
{
    if (!m_space)
        return;
    static const int stateType = qMetaTypeId<WwState>();
    static const int identificationType = qMetaTypeId<WwIdentification>();
    static const int eventType = qMetaTypeId<WwBaseEventType>();
    static const int manufacturerType = qMetaTypeId<WwManufacturerSpecific>();
    const int type = data.userType();
    if (type == stateType) {
        m_space->updateState(machine, *static_cast<const WwState *>(data.constData()));
    } else if (type == identificationType) {
        m_space->updateIdentification(machine, *static_cast<const WwIdentification *>(data.constData()));
    } else if (type == eventType) {
        if (!m_space->raiseEvent(machine, timestamp, *static_cast<const WwBaseEventType *>(data.constData())))
            qCWarning(lcOpcUaServer) << QStringLiteral("Could not raise an event of %1").arg(machine);
    } else if (type == manufacturerType) {
        m_space->updateManufacturerSpecific(machine, *static_cast<const WwManufacturerSpecific *>(data.constData()));
    }
}

#include "moc_opcuaserver.cpp"
