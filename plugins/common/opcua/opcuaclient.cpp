#include "opcuaclient.h"

#include "opcuapki.h"
#include "opcuasupport.h"

#include <QHash>
#include <QRandomGenerator>
#include <QVector>

#include <open62541/client_config_default.h>

#include <cstring>
#include <memory>

const char OpcUaClient::ApplicationUri[] = "urn:orvix:opcua";

namespace {

constexpr int DefaultIterateInterval = 10;

/** A service under way: its continuation runs after the library's iteration, on a copy of the response. */
struct PendingService
{
    OpcUaClient *client;
    const UA_DataType *responseType;
    OpcUaClient::Continuation continuation;
};

// The library's certificate checks carry only their own configuration; the clients live on the event-loop thread,
// so one plain registry serves.
QHash<const UA_CertificateVerification *, const OpcUaClient *> &clientsByVerification()
{
    static QHash<const UA_CertificateVerification *, const OpcUaClient *> clients;
    return clients;
}

} // namespace

bool OpcUaClient::check(const Options &options, QString *error)
{
    if (!options.url.startsWith(QLatin1String("opc.tcp://"))) {
        *error = QStringLiteral("url must begin with opc.tcp://, not \"%1\"").arg(options.url);
        return false;
    }
    if (!OpcUa::modeNames().contains(options.securityMode)) {
        *error = QStringLiteral("securityMode must be one of %1, not \"%2\"")
                     .arg(OpcUa::modeNames().join(QStringLiteral(", ")), options.securityMode);
        return false;
    }
    if (!OpcUa::policyNames().contains(options.securityPolicy)) {
        *error = QStringLiteral("securityPolicy must be one of %1, not \"%2\"")
                     .arg(OpcUa::policyNames().join(QStringLiteral(", ")), options.securityPolicy);
        return false;
    }
    const bool secured = options.securityMode != QLatin1String("None");
    if (secured != (options.securityPolicy != QLatin1String("None"))) {
        *error = QStringLiteral("securityMode %1 does not go with securityPolicy %2")
                     .arg(options.securityMode, options.securityPolicy);
        return false;
    }
    return true;
}

OpcUaClient::OpcUaClient(const QLoggingCategory &category, QObject *parent)
    : QObject(parent)
    , m_category(category)
{
    m_iterate.setInterval(DefaultIterateInterval);
    connect(&m_iterate, &QTimer::timeout, this, &OpcUaClient::iterate);
    m_retry.setSingleShot(true);
    connect(&m_retry, &QTimer::timeout, this, &OpcUaClient::attempt);
}

OpcUaClient::~OpcUaClient()
{
    close();
}

void OpcUaClient::setBackoff(int first, int longest)
{
    m_firstBackoff = first;
    m_longestBackoff = longest;
}

void OpcUaClient::setIterateInterval(int msecs)
{
    m_iterate.setInterval(msecs);
}

void OpcUaClient::open(const Options &options)
{
    close();
    m_options = options;
    m_open = true;
    m_backoff = 0;
    m_lastReported = UA_STATUSCODE_GOOD;
    attempt();
}

void OpcUaClient::close()
{
    m_open = false;
    m_retry.stop();
    tearDown();
}

void OpcUaClient::restart(UA_StatusCode reason)
{
    fail(reason);
}

void OpcUaClient::attempt()
{
    if (!m_open || m_client)
        return;
    UA_ClientConfig config;
    memset(&config, 0, sizeof config);
    config.logging = OpcUa::newLogger(m_category);
    QString error;
    if (!configure(&config, &error)) {
        UA_ClientConfig_clear(&config);
        qCWarning(lc) << QStringLiteral("Can't connect to %1: %2").arg(m_options.name, error);
        return;
    }
    m_client = UA_Client_newWithConfig(&config);
    if (!m_client) {
        qCWarning(lc) << QStringLiteral("Can't connect to %1: the client could not be created").arg(m_options.name);
        return;
    }
    UA_ClientConfig *clientConfig = UA_Client_getConfig(m_client);
    if (m_options.securityMode != QLatin1String("None")) {
        clientsByVerification().insert(&clientConfig->certificateVerification, this);
        clientConfig->certificateVerification.verifyCertificate = verifyCallback;
    }
    m_failed = false;
    m_connected = false;
    qCDebug(lc) << QStringLiteral("Connecting to %1 at %2").arg(m_options.name, m_options.url);
    const UA_StatusCode status = UA_Client_connectAsync(m_client, m_options.url.toUtf8().constData());
    if (status != UA_STATUSCODE_GOOD)
        fail(status);
    if (m_failed) {
        tearDown();
        return;
    }
    m_iterate.start();
}

bool OpcUaClient::configure(UA_ClientConfig *config, QString *error)
{
    UA_StatusCode status = UA_STATUSCODE_GOOD;
    const bool secured = m_options.securityMode != QLatin1String("None");
    if (secured) {
        OpcUaPki::Credentials credentials;
        if (!OpcUaPki(m_options.pki, m_category).credentials(QString::fromLatin1(ApplicationUri), &credentials, error))
            return false;
        const QVector<UA_ByteString> trustList = OpcUa::views(credentials.trusted);
        status = UA_ClientConfig_setDefaultEncryption(config, OpcUa::view(credentials.certificate),
            OpcUa::view(credentials.key), trustList.constData(), size_t(trustList.size()), nullptr, 0);
    } else {
        status = UA_ClientConfig_setDefault(config);
    }
    if (status != UA_STATUSCODE_GOOD) {
        *error = QStringLiteral("the client could not be set up (%1)").arg(OpcUa::statusName(status));
        return false;
    }
    UA_String_clear(&config->clientDescription.applicationUri);
    config->clientDescription.applicationUri = UA_STRING_ALLOC(ApplicationUri);
    UA_LocalizedText_clear(&config->clientDescription.applicationName);
    config->clientDescription.applicationName = UA_LOCALIZEDTEXT_ALLOC("en", "orvix");
    config->securityMode = UA_MessageSecurityMode(OpcUa::modeNames().indexOf(m_options.securityMode) + 1);
    UA_String_clear(&config->securityPolicyUri);
    config->securityPolicyUri = UA_STRING_ALLOC(OpcUa::policyUri(m_options.securityPolicy).toUtf8().constData());
    if (!m_options.username.isEmpty()) {
        UA_ClientConfig_setAuthenticationUsername(
            config, m_options.username.toUtf8().constData(), m_options.password.toUtf8().constData());
    }
    config->timeout = UA_UInt32(m_options.timeout);
    // Reconnecting after a loss is this class's business: a fresh library client each time, so no state of a lost
    // session lingers. The library still reopens the channel itself when the endpoint it found needs other security.
    config->noNewSession = true;
    config->clientContext = this;
    config->stateCallback = stateCallback;
    return true;
}

void OpcUaClient::iterate()
{
    if (!m_client)
        return;
    UA_Client_run_iterate(m_client, 0);
    // Continuations run only now, outside the library's callbacks, so they may send services of their own.
    const QVector<ArrivedResponse> arrived = std::move(m_arrived);
    m_arrived.clear();
    for (const ArrivedResponse &response : arrived) {
        if (!m_failed && m_connected)
            response.continuation(response.response);
        UA_delete(response.response, response.responseType);
    }
    if (m_failed) {
        tearDown();
        return;
    }
    if (m_connected)
        emit iterated();
}

bool OpcUaClient::send(
    const void *request, const UA_DataType &requestType, const UA_DataType &responseType, Continuation continuation)
{
    return dispatch(responseType, std::move(continuation), [&](void *userdata) {
        return __UA_Client_AsyncService(
            m_client, request, &requestType, serviceCallback, &responseType, userdata, nullptr);
    });
}

bool OpcUaClient::createSubscription(const UA_CreateSubscriptionRequest &request, Continuation continuation)
{
    return dispatch(UA_TYPES[UA_TYPES_CREATESUBSCRIPTIONRESPONSE], std::move(continuation), [&](void *userdata) {
        return UA_Client_Subscriptions_create_async(
            m_client, request, nullptr, nullptr, nullptr, serviceCallback, userdata, nullptr);
    });
}

bool OpcUaClient::createDataChanges(const UA_CreateMonitoredItemsRequest &request, void **contexts,
    UA_Client_DataChangeNotificationCallback *callbacks, Continuation continuation)
{
    return dispatch(UA_TYPES[UA_TYPES_CREATEMONITOREDITEMSRESPONSE], std::move(continuation), [&](void *userdata) {
        return UA_Client_MonitoredItems_createDataChanges_async(
            m_client, request, contexts, callbacks, nullptr, serviceCallback, userdata, nullptr);
    });
}

bool OpcUaClient::createEvents(const UA_CreateMonitoredItemsRequest &request, void **contexts,
    UA_Client_EventNotificationCallback *callbacks, Continuation continuation)
{
    return dispatch(UA_TYPES[UA_TYPES_CREATEMONITOREDITEMSRESPONSE], std::move(continuation), [&](void *userdata) {
        return UA_Client_MonitoredItems_createEvents_async(
            m_client, request, contexts, callbacks, nullptr, serviceCallback, userdata, nullptr);
    });
}

bool OpcUaClient::dispatch(const UA_DataType &responseType, Continuation continuation,
    const std::function<UA_StatusCode(void *userdata)> &send)
{
    if (!m_client || !m_connected || m_failed)
        return false;
    auto *pending = new PendingService { this, &responseType, std::move(continuation) };
    const UA_StatusCode status = send(pending);
    if (status != UA_STATUSCODE_GOOD) {
        delete pending;
        fail(status);
        return false;
    }
    return true;
}

void OpcUaClient::serviceCallback(UA_Client *, void *userdata, UA_UInt32, void *response)
{
    std::unique_ptr<PendingService> pending(static_cast<PendingService *>(userdata));
    if (!response)
        return;
    const auto *header = static_cast<const UA_ResponseHeader *>(response);
    if (header->serviceResult == UA_STATUSCODE_BADSHUTDOWN)
        return;
    void *copy = UA_new(pending->responseType);
    UA_copy(response, copy, pending->responseType);
    pending->client->m_arrived.append(
        ArrivedResponse { copy, pending->responseType, std::move(pending->continuation) });
}

void OpcUaClient::stateCallback(
    UA_Client *client, UA_SecureChannelState channel, UA_SessionState session, UA_StatusCode status)
{
    static_cast<OpcUaClient *>(UA_Client_getContext(client))->stateChanged(channel, session, status);
}

void OpcUaClient::stateChanged(UA_SecureChannelState channel, UA_SessionState session, UA_StatusCode status)
{
    if (status != UA_STATUSCODE_GOOD) {
        fail(status);
        return;
    }
    if (session == UA_SESSIONSTATE_ACTIVATED && !m_connected && !m_failed) {
        m_connected = true;
        m_backoff = 0;
        m_lastReported = UA_STATUSCODE_GOOD;
        qCInfo(lc) << QStringLiteral("Connected to %1 at %2").arg(m_options.name, m_options.url);
        QMetaObject::invokeMethod(this, &OpcUaClient::connected, Qt::QueuedConnection);
        return;
    }
    if (m_connected && (session != UA_SESSIONSTATE_ACTIVATED || channel != UA_SECURECHANNELSTATE_OPEN))
        fail(UA_STATUSCODE_BADCONNECTIONCLOSED);
}

void OpcUaClient::fail(UA_StatusCode status)
{
    if (m_failed)
        return;
    m_failed = true;
    m_failure = status;
}

void OpcUaClient::tearDown()
{
    m_iterate.stop();
    if (!m_client)
        return;
    const bool wasConnected = m_connected;
    UA_Client *client = m_client;
    m_client = nullptr;
    m_connected = false;
    UA_ClientConfig *config = UA_Client_getConfig(client);
    clientsByVerification().remove(&config->certificateVerification);
    UA_Client_delete(client);
    const QVector<ArrivedResponse> arrived = std::move(m_arrived);
    m_arrived.clear();
    for (const ArrivedResponse &response : arrived)
        UA_delete(response.response, response.responseType);
    if (!m_open)
        return;

    const UA_StatusCode reason = m_failed ? m_failure : UA_STATUSCODE_BADCONNECTIONCLOSED;
    if (wasConnected) {
        qCWarning(lc)
            << QStringLiteral("Lost the connection to %1 (%2)").arg(m_options.name, OpcUa::statusName(reason));
    } else if (reason != m_lastReported) {
        qCWarning(lc) << QStringLiteral("Can't connect to %1 at %2 (%3)")
                             .arg(m_options.name, m_options.url, OpcUa::statusName(reason));
    } else {
        qCDebug(lc) << QStringLiteral("Still can't connect to %1 (%2)").arg(m_options.name, OpcUa::statusName(reason));
    }
    m_lastReported = reason;
    m_backoff = m_backoff == 0 ? m_firstBackoff : qMin(m_backoff * 2, m_longestBackoff);
    // Up to a quarter less, so that many connections lost together don't all come back in the same instant.
    const int jitter = m_backoff >= 4 ? int(QRandomGenerator::global()->bounded(m_backoff / 4)) : 0;
    m_retry.start(m_backoff - jitter);
    if (wasConnected)
        emit disconnected();
}

UA_StatusCode OpcUaClient::verifyCallback(
    const UA_CertificateVerification *verification, const UA_ByteString *certificate)
{
    const OpcUaClient *client = clientsByVerification().value(verification);
    return client ? client->verifyServerCertificate(certificate) : UA_STATUSCODE_BADCERTIFICATEUNTRUSTED;
}

UA_StatusCode OpcUaClient::verifyServerCertificate(const UA_ByteString *certificate) const
{
    const QByteArray bytes(reinterpret_cast<const char *>(certificate->data), int(certificate->length));
    const OpcUaPki pki(m_options.pki, m_category);
    if (pki.isTrusted(bytes))
        return UA_STATUSCODE_GOOD;
    QString error;
    const QString path = pki.reject(bytes, &error);
    // Every attempt meets the same certificate again; one warning tells the administrator what to do.
    if (!path.isEmpty() && path == m_lastRejected)
        return UA_STATUSCODE_BADCERTIFICATEUNTRUSTED;
    m_lastRejected = path;
    if (path.isEmpty()) {
        qCWarning(lc) << QStringLiteral("Refused the certificate of %1, not trusted; it could not be saved: %2")
                             .arg(m_options.name, error);
    } else {
        qCWarning(lc) << QStringLiteral("Refused the certificate of %1, not trusted; saved as %2, move it to %3 to "
                                        "trust it")
                             .arg(m_options.name, path, pki.root() + QStringLiteral("/trusted/"));
    }
    return UA_STATUSCODE_BADCERTIFICATEUNTRUSTED;
}
