#include "opcuaclient.h"

#include "opcuapki.h"
#include "opcuasupport.h"

#include <QHash>
#include <QVector>

#include <open62541/client_config_default.h>
#include <open62541/nodeids.h>

#include <cstring>
#include <memory>

const char OpcUaClient::ApplicationUri[] = "urn:orvix:opcua";

namespace {

constexpr int DefaultIterateInterval = 10;
constexpr int DefaultStableAfter = 60000;
// Everything an attempt does (channel, endpoints, session) fits in a few services' time-outs.
constexpr int DeadlineInTimeouts = 3;
// An attempt opens a second channel when the endpoint it found needs other security; one more means the server keeps
// closing the channel while it opens.
constexpr int ChannelClosesPerAttempt = 1;

/** The status codes with which a server tells that it does not accept the client's certificate. */
bool isCertificateRefusal(UA_StatusCode status)
{
    switch (status) {
    case UA_STATUSCODE_BADSECURITYCHECKSFAILED:
    case UA_STATUSCODE_BADCERTIFICATEUNTRUSTED:
    case UA_STATUSCODE_BADCERTIFICATEINVALID:
    case UA_STATUSCODE_BADCERTIFICATEUSENOTALLOWED:
    case UA_STATUSCODE_BADCERTIFICATEURIINVALID:
    case UA_STATUSCODE_BADCERTIFICATETIMEINVALID:
    case UA_STATUSCODE_BADCERTIFICATEREVOKED:
    case UA_STATUSCODE_BADCERTIFICATEISSUERREVOKED:
    case UA_STATUSCODE_BADCERTIFICATEREVOCATIONUNKNOWN:
    case UA_STATUSCODE_BADCERTIFICATECHAININCOMPLETE:
        return true;
    default:
        return false;
    }
}

/** A limit as the server gives it: any unsigned integer type, else none. */
quint32 limitOf(const UA_ReadResponse &response)
{
    if (response.responseHeader.serviceResult != UA_STATUSCODE_GOOD || response.resultsSize != 1
        || !response.results[0].hasValue || !UA_Variant_isScalar(&response.results[0].value))
        return 0;
    const UA_Variant &value = response.results[0].value;
    switch (value.type->typeKind) {
    case UA_DATATYPEKIND_UINT16:
        return *static_cast<const UA_UInt16 *>(value.data);
    case UA_DATATYPEKIND_UINT32:
        return *static_cast<const UA_UInt32 *>(value.data);
    case UA_DATATYPEKIND_UINT64:
        return quint32(qMin<UA_UInt64>(*static_cast<const UA_UInt64 *>(value.data), 0xffffffffu));
    default:
        return 0;
    }
}

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

OpcUaClient::OpcUaClient(const QLoggingCategory &category, const QLoggingCategory &library, QObject *parent)
    : QObject(parent)
    , m_category(category)
    , m_library(library)
{
    m_iterate.setInterval(DefaultIterateInterval);
    connect(&m_iterate, &QTimer::timeout, this, &OpcUaClient::iterate);
    m_retry.setSingleShot(true);
    connect(&m_retry, &QTimer::timeout, this, &OpcUaClient::attempt);
    // A server that drops every session soon after opening it must not be asked again at the first pause each time.
    m_stable.setSingleShot(true);
    m_stable.setInterval(DefaultStableAfter);
    connect(&m_stable, &QTimer::timeout, this, [this] { m_backoff.reset(); });
    m_deadline.setSingleShot(true);
    connect(&m_deadline, &QTimer::timeout, this, [this] {
        if (m_client && !m_connected)
            fail(UA_STATUSCODE_BADTIMEOUT);
    });
}

OpcUaClient::~OpcUaClient()
{
    close();
}

void OpcUaClient::setBackoff(int first, int longest)
{
    m_backoff.setRange(first, longest);
}

void OpcUaClient::setStableAfter(int msecs)
{
    m_stable.setInterval(msecs);
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
    m_backoff.reset();
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
    config.logging = OpcUa::newLogger(m_library);
    QString error;
    if (!configure(&config, &error)) {
        UA_ClientConfig_clear(&config);
        qCWarning(lc) << QStringLiteral("Can't connect to %1: %2").arg(m_options.name, error);
        // An unreadable file may be fixed while the service runs: the connection keeps trying.
        m_retry.start(m_backoff.next());
        return;
    }
    m_client = UA_Client_newWithConfig(&config);
    if (!m_client) {
        qCWarning(lc) << QStringLiteral("Can't connect to %1: the client could not be created").arg(m_options.name);
        m_retry.start(m_backoff.next());
        return;
    }
    UA_ClientConfig *clientConfig = UA_Client_getConfig(m_client);
    if (m_options.securityMode != QLatin1String("None")) {
        clientsByVerification().insert(&clientConfig->certificateVerification, this);
        clientConfig->certificateVerification.verifyCertificate = verifyCallback;
    }
    m_failed = false;
    m_connected = false;
    m_channelCloses = 0;
    m_lastChannel = UA_SECURECHANNELSTATE_CLOSED;
    m_refusedServer = false;
    m_limits = Limits();
    qCDebug(lc) << QStringLiteral("Connecting to %1 at %2").arg(m_options.name, m_options.url);
    const UA_StatusCode status = UA_Client_connectAsync(m_client, m_options.url.toUtf8().constData());
    if (status != UA_STATUSCODE_GOOD)
        fail(status);
    if (m_failed) {
        tearDown();
        return;
    }
    m_deadline.start(DeadlineInTimeouts * m_options.timeout);
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
    if (!m_connected && (channel == UA_SECURECHANNELSTATE_CLOSING || channel == UA_SECURECHANNELSTATE_CLOSED)
        && m_lastChannel != UA_SECURECHANNELSTATE_CLOSING && m_lastChannel != UA_SECURECHANNELSTATE_CLOSED
        && ++m_channelCloses > ChannelClosesPerAttempt) {
        // The library would open the next channel at once, several a second, for as long as the server refuses.
        fail(m_options.securityMode != QLatin1String("None") ? UA_STATUSCODE_BADSECURITYCHECKSFAILED
                                                             : UA_STATUSCODE_BADCONNECTIONCLOSED);
        return;
    }
    m_lastChannel = channel;
    if (session == UA_SESSIONSTATE_ACTIVATED && !m_connected && !m_failed) {
        m_connected = true;
        m_deadline.stop();
        m_stable.start();
        m_lastReported = UA_STATUSCODE_GOOD;
        qCInfo(lc) << QStringLiteral("Connected to %1 at %2").arg(m_options.name, m_options.url);
        // Services may not be sent from within the library's callback.
        QMetaObject::invokeMethod(this, &OpcUaClient::readLimits, Qt::QueuedConnection);
        return;
    }
    if (m_connected && (session != UA_SESSIONSTATE_ACTIVATED || channel != UA_SECURECHANNELSTATE_OPEN))
        fail(UA_STATUSCODE_BADCONNECTIONCLOSED);
}

void OpcUaClient::readLimits()
{
    struct Limit
    {
        UA_UInt32 node;
        quint32 Limits::*field;
    };
    static const Limit limits[] = {
        { UA_NS0ID_SERVER_SERVERCAPABILITIES_OPERATIONLIMITS_MAXNODESPERBROWSE, &Limits::maxNodesPerBrowse },
        { UA_NS0ID_SERVER_SERVERCAPABILITIES_OPERATIONLIMITS_MAXNODESPERREAD, &Limits::maxNodesPerRead },
        { UA_NS0ID_SERVER_SERVERCAPABILITIES_OPERATIONLIMITS_MAXNODESPERTRANSLATEBROWSEPATHSTONODEIDS,
            &Limits::maxNodesPerTranslate },
        { UA_NS0ID_SERVER_SERVERCAPABILITIES_OPERATIONLIMITS_MAXMONITOREDITEMSPERCALL,
            &Limits::maxMonitoredItemsPerCall },
        { UA_NS0ID_SERVER_SERVERCAPABILITIES_MAXMONITOREDITEMSPERSUBSCRIPTION,
            &Limits::maxMonitoredItemsPerSubscription },
        { UA_NS0ID_SERVER_SERVERCAPABILITIES_MAXSUBSCRIPTIONSPERSESSION, &Limits::maxSubscriptionsPerSession },
    };
    // One node a request: the limit of nodes per read is not known yet. A limit the server lacks is none.
    auto pending = std::make_shared<int>(int(sizeof limits / sizeof *limits));
    for (const Limit &limit : limits) {
        UA_ReadValueId toRead;
        UA_ReadValueId_init(&toRead);
        toRead.nodeId = UA_NODEID_NUMERIC(0, limit.node);
        toRead.attributeId = UA_ATTRIBUTEID_VALUE;
        UA_ReadRequest request;
        UA_ReadRequest_init(&request);
        request.nodesToRead = &toRead;
        request.nodesToReadSize = 1;
        const bool sent = send(&request, UA_TYPES[UA_TYPES_READREQUEST], UA_TYPES[UA_TYPES_READRESPONSE],
            [this, limit, pending](void *response) {
                m_limits.*limit.field = limitOf(*static_cast<const UA_ReadResponse *>(response));
                if (--*pending == 0)
                    emit connected();
            });
        if (!sent)
            return;
    }
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
    m_deadline.stop();
    m_stable.stop();
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

    reportFailure(wasConnected, m_failed ? m_failure : UA_STATUSCODE_BADCONNECTIONCLOSED);
    m_retry.start(m_backoff.next());
    if (wasConnected)
        emit disconnected();
}

bool OpcUaClient::refusedOwnCertificate(UA_StatusCode reason) const
{
    return m_options.securityMode != QLatin1String("None") && !m_refusedServer && isCertificateRefusal(reason);
}

void OpcUaClient::reportFailure(bool wasConnected, UA_StatusCode reason)
{
    if (wasConnected) {
        qCWarning(lc)
            << QStringLiteral("Lost the connection to %1 (%2)").arg(m_options.name, OpcUa::statusName(reason));
    } else if (reason == m_lastReported) {
        qCDebug(lc) << QStringLiteral("Still can't connect to %1 (%2)").arg(m_options.name, OpcUa::statusName(reason));
    } else if (refusedOwnCertificate(reason)) {
        qCWarning(lc) << QStringLiteral("The server of %1 at %2 refused orvix's certificate (%3): trust %4 on the "
                                        "server")
                             .arg(m_options.name, m_options.url, OpcUa::statusName(reason),
                                 OpcUaPki(m_options.pki, m_category).root() + QStringLiteral("/own/certs/cert.der"));
    } else {
        qCWarning(lc) << QStringLiteral("Can't connect to %1 at %2 (%3)")
                             .arg(m_options.name, m_options.url, OpcUa::statusName(reason));
    }
    m_lastReported = reason;
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
    m_refusedServer = true;
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
