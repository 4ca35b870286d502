#include "opcuaserverhost.h"

#include "opcuapki.h"
#include "opcuasupport.h"

#include <QSysInfo>

#include <open62541/plugin/accesscontrol_default.h>
#include <open62541/plugin/log.h>
#include <open62541/server_config_default.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

const char OpcUaServerHost::ApplicationUri[] = "urn:orvix:opcuaServer";

namespace {

constexpr int DefaultIterateInterval = 5;

// The library's callbacks carry the server or the certificate check, not the host; the hosts live on the event-loop
// thread, so one plain registry each serves.
QHash<const UA_Server *, const OpcUaServerHost *> &hostsByServer()
{
    static QHash<const UA_Server *, const OpcUaServerHost *> hosts;
    return hosts;
}

struct CertificateCheck
{
    const OpcUaServerHost *host;
    UA_StatusCode (*verify)(const UA_CertificateVerification *, const UA_ByteString *);
};

QHash<const UA_CertificateVerification *, CertificateCheck> &checksByVerification()
{
    static QHash<const UA_CertificateVerification *, CertificateCheck> checks;
    return checks;
}

QHash<const UA_Server *, decltype(UA_AccessControl::activateSession)> &activationsByServer()
{
    static QHash<const UA_Server *, decltype(UA_AccessControl::activateSession)> activations;
    return activations;
}

UA_StatusCode activateSession(UA_Server *server, UA_AccessControl *ac, const UA_EndpointDescription *endpoint,
    const UA_ByteString *remoteCertificate, const UA_NodeId *sessionId, const UA_ExtensionObject *token,
    void **sessionContext)
{
    const auto original = activationsByServer().value(server);
    const UA_StatusCode status = original(server, ac, endpoint, remoteCertificate, sessionId, token, sessionContext);
    if (status != UA_STATUSCODE_GOOD) {
        if (const OpcUaServerHost *host = hostsByServer().value(server))
            host->refusedLogin(token, status);
    }
    return status;
}

UA_StatusCode verifyCertificate(const UA_CertificateVerification *cv, const UA_ByteString *certificate)
{
    const CertificateCheck check = checksByVerification().value(cv);
    const UA_StatusCode status = check.verify(cv, certificate);
    if (status != UA_STATUSCODE_GOOD && check.host)
        check.host->refusedCertificate(certificate, status);
    return status;
}

/**
 * Whether nothing listens on port yet. The library opens its sockets so that several processes may share a port,
 * which would let a second server start silently beside the first; a plain bind finds the port taken.
 */
bool portFree(quint16 port, QString *error)
{
    int fd = socket(AF_INET6, SOCK_STREAM, 0);
    int result = -1;
    const int on = 1;
    const int off = 0;
    if (fd >= 0) {
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in6 address {};
        address.sin6_family = AF_INET6;
        address.sin6_addr = in6addr_any;
        address.sin6_port = htons(port);
        result = bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    } else {
        fd = socket(AF_INET, SOCK_STREAM, 0);
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_ANY);
        address.sin_port = htons(port);
        result = bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    }
    const int reason = errno;
    if (fd >= 0)
        close(fd);
    if (result != 0)
        *error = QStringLiteral("can't listen on port %1: %2").arg(port).arg(QString::fromLocal8Bit(strerror(reason)));
    return result == 0;
}

} // namespace

OpcUaServerHost::OpcUaServerHost(const QLoggingCategory &category, QObject *parent)
    : QObject(parent)
    , m_category(category)
{
    m_iterate.setInterval(DefaultIterateInterval);
    connect(&m_iterate, &QTimer::timeout, this, [this] { UA_Server_run_iterate(m_server, false); });
}

OpcUaServerHost::~OpcUaServerHost()
{
    stop();
}

void OpcUaServerHost::setIterateInterval(int msecs)
{
    m_iterate.setInterval(msecs);
}

bool OpcUaServerHost::start(const Options &options, QString *error)
{
    stop();
    if (!portFree(options.port, error))
        return false;
    m_pki = options.pki;
    UA_ServerConfig config;
    memset(&config, 0, sizeof config);
    config.logging = OpcUa::newLogger(m_category);
    if (!configure(&config, options, error)) {
        UA_ServerConfig_clean(&config);
        return false;
    }
    m_server = UA_Server_newWithConfig(&config);
    if (!m_server) {
        *error = QStringLiteral("the server could not be created");
        return false;
    }
    UA_ServerConfig *serverConfig = UA_Server_getConfig(m_server);
    hostsByServer().insert(m_server, this);
    activationsByServer().insert(m_server, serverConfig->accessControl.activateSession);
    serverConfig->accessControl.activateSession = activateSession;
    if (serverConfig->secureChannelPKI.verifyCertificate) {
        checksByVerification().insert(&serverConfig->secureChannelPKI,
            CertificateCheck { this, serverConfig->secureChannelPKI.verifyCertificate });
        serverConfig->secureChannelPKI.verifyCertificate = verifyCertificate;
    }

    const UA_StatusCode status = UA_Server_run_startup(m_server);
    if (status != UA_STATUSCODE_GOOD) {
        *error = QStringLiteral("can't listen on port %1 (%2)").arg(options.port).arg(OpcUa::statusName(status));
        stop();
        return false;
    }
    m_running = true;
    m_endpointUrl = QStringLiteral("opc.tcp://%1:%2%3")
                        .arg(QSysInfo::machineHostName())
                        .arg(options.port)
                        .arg(options.endpointPath);
    m_iterate.start();
    return true;
}

bool OpcUaServerHost::configure(UA_ServerConfig *config, const Options &options, QString *error)
{
    bool encrypted = false;
    for (const QString &policy : options.securityPolicies)
        encrypted = encrypted || policy != QLatin1String("None");

    UA_StatusCode status = UA_STATUSCODE_GOOD;
    if (encrypted) {
        OpcUaPki::Credentials credentials;
        if (!OpcUaPki(m_pki, m_category).credentials(QString::fromLatin1(ApplicationUri), &credentials, error))
            return false;
        const QVector<UA_ByteString> trustList = OpcUa::views(credentials.trusted);
        const UA_ByteString certificate = OpcUa::view(credentials.certificate);
        const UA_ByteString key = OpcUa::view(credentials.key);
        status = UA_ServerConfig_setDefaultWithSecurityPolicies(config, options.port, &certificate, &key,
            trustList.constData(), size_t(trustList.size()), nullptr, 0, nullptr, 0);
    } else {
        status = UA_ServerConfig_setMinimal(config, options.port, nullptr);
    }
    if (status != UA_STATUSCODE_GOOD) {
        *error = QStringLiteral("the server could not be set up (%1)").arg(OpcUa::statusName(status));
        return false;
    }

    const QByteArray url = QStringLiteral("opc.tcp://:%1%2").arg(options.port).arg(options.endpointPath).toUtf8();
    UA_Array_delete(config->serverUrls, config->serverUrlsSize, &UA_TYPES[UA_TYPES_STRING]);
    config->serverUrls = UA_String_new();
    config->serverUrlsSize = 1;
    *config->serverUrls = UA_STRING_ALLOC(url.constData());

    UA_String_clear(&config->applicationDescription.applicationUri);
    config->applicationDescription.applicationUri = UA_STRING_ALLOC(ApplicationUri);
    UA_LocalizedText_clear(&config->applicationDescription.applicationName);
    config->applicationDescription.applicationName = UA_LOCALIZEDTEXT_ALLOC("en", "orvix");
    for (size_t i = 0; i < config->endpointsSize; ++i) {
        UA_ApplicationDescription &server = config->endpoints[i].server;
        UA_ApplicationDescription_clear(&server);
        UA_ApplicationDescription_copy(&config->applicationDescription, &server);
    }

    // Clients that want changes quickly may publish and sample every 10 ms; the library's floor is 100 and 50 ms.
    config->publishingIntervalLimits.min = 10.0;
    config->samplingIntervalLimits.min = 10.0;

    // Offer only the listed combinations of policy and mode; a listed policy without a listed mode offers nothing.
    size_t kept = 0;
    bool noneOffered = false;
    for (size_t i = 0; i < config->endpointsSize; ++i) {
        UA_EndpointDescription &endpoint = config->endpoints[i];
        const QString uri = OpcUa::text(endpoint.securityPolicyUri);
        const QString policy = uri.mid(uri.indexOf(QLatin1Char('#')) + 1);
        const int mode = int(endpoint.securityMode) - 1;
        const bool offered = options.securityPolicies.contains(policy) && mode >= 0 && mode < OpcUa::modeNames().size()
            && options.securityModes.contains(OpcUa::modeNames().at(mode));
        if (!offered) {
            UA_EndpointDescription_clear(&endpoint);
            continue;
        }
        noneOffered = noneOffered || endpoint.securityMode == UA_MESSAGESECURITYMODE_NONE;
        if (kept != i) {
            config->endpoints[kept] = endpoint;
            UA_EndpointDescription_init(&endpoint);
        }
        ++kept;
    }
    config->endpointsSize = kept;
    if (kept == 0) {
        *error = QStringLiteral("securityPolicies and securityModes leave no endpoint to offer");
        return false;
    }
    // Without an endpoint of mode None the policy None still answers for finding the endpoints, never for a session.
    config->securityPolicyNoneDiscoveryOnly = !noneOffered;

    QVector<UA_UsernamePasswordLogin> logins;
    QList<QByteArray> texts;
    for (auto user = options.users.constBegin(); user != options.users.constEnd(); ++user) {
        texts << user.key().toUtf8() << user.value().toUtf8();
        logins.append(UA_UsernamePasswordLogin { OpcUa::view(texts.at(texts.size() - 2)), OpcUa::view(texts.last()) });
    }
    status
        = UA_AccessControl_default(config, options.allowAnonymous, nullptr, size_t(logins.size()), logins.constData());
    if (status != UA_STATUSCODE_GOOD) {
        *error = QStringLiteral("the user logins could not be set up (%1)").arg(OpcUa::statusName(status));
        return false;
    }
    return true;
}

void OpcUaServerHost::refusedLogin(const UA_ExtensionObject *token, UA_StatusCode status) const
{
    if (token && token->encoding == UA_EXTENSIONOBJECT_DECODED
        && token->content.decoded.type == &UA_TYPES[UA_TYPES_USERNAMEIDENTITYTOKEN]) {
        const auto *user = static_cast<const UA_UserNameIdentityToken *>(token->content.decoded.data);
        qCInfo(lc) << QStringLiteral("Refused the login of user %1 (%2)")
                          .arg(OpcUa::text(user->userName), OpcUa::statusName(status));
        return;
    }
    if (!token || token->encoding == UA_EXTENSIONOBJECT_ENCODED_NOBODY
        || (token->encoding == UA_EXTENSIONOBJECT_DECODED
            && token->content.decoded.type == &UA_TYPES[UA_TYPES_ANONYMOUSIDENTITYTOKEN])) {
        qCInfo(lc) << QStringLiteral("Refused an anonymous login (%1)").arg(OpcUa::statusName(status));
        return;
    }
    qCInfo(lc) << QStringLiteral("Refused a login (%1)").arg(OpcUa::statusName(status));
}

void OpcUaServerHost::refusedCertificate(const UA_ByteString *certificate, UA_StatusCode status) const
{
    const QByteArray bytes(reinterpret_cast<const char *>(certificate->data), int(certificate->length));
    QString error;
    const QString path = OpcUaPki(m_pki, m_category).reject(bytes, &error);
    qCInfo(lc) << QStringLiteral("Refused a client certificate (%1), %2")
                      .arg(OpcUa::statusName(status),
                          path.isEmpty() ? QStringLiteral("not saved: %1").arg(error)
                                         : QStringLiteral("saved as %1").arg(path));
}

void OpcUaServerHost::stop()
{
    m_iterate.stop();
    if (!m_server)
        return;
    if (m_running)
        UA_Server_run_shutdown(m_server);
    m_running = false;
    UA_ServerConfig *config = UA_Server_getConfig(m_server);
    checksByVerification().remove(&config->secureChannelPKI);
    activationsByServer().remove(m_server);
    hostsByServer().remove(m_server);
    UA_Server_delete(m_server);
    m_server = nullptr;
}
