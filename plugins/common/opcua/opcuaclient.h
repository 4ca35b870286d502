#ifndef ORVIX_OPCUACLIENT_H
#define ORVIX_OPCUACLIENT_H

#include <QLoggingCategory>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVector>

#include "backoff.h"

#include <open62541/client.h>
#include <open62541/client_subscriptions.h>

#include <functional>

/**
 * One OPC UA client connection through open62541, driven by the event loop: a timer runs one non-blocking iteration
 * of the library at a time, and every service is asynchronous, so a slow or silent server never holds up the chain.
 * It connects on its own, and after a refused or lost connection it starts again with a fresh library client after a
 * back-off (Backoff: 1 s doubling to 60 s, up to a quarter shorter), which starts from the first pause again only
 * after a session has stayed up for a while. An attempt that has no session by its deadline is given up. After
 * connecting it reads the server's operation limits, which the owner splits its requests by. Each change of the
 * connection's state is one log line in the owner's category: info when connected, a warning with the status code's
 * name when refused or lost, and a warning naming the file to trust when the server refused orvix's certificate.
 */
class OpcUaClient : public QObject
{
    Q_OBJECT
public:
    /** Where and how to connect; see the opcua datasource's README for the meaning of each. */
    struct Options
    {
        /** How log lines name the connection. */
        QString name;
        QString url;
        QString securityMode = QStringLiteral("None");
        QString securityPolicy = QStringLiteral("None");
        QString username;
        QString password;
        /** The PKI folder; used only with a security mode other than None. */
        QString pki;
        /** Milliseconds a service may take before it counts as failed. */
        int timeout = 5000;
    };

    /** The application URI, also written into the own certificate. */
    static const char ApplicationUri[];
    /** Checks the options without connecting; false with a sentence in *error if they can't work. */
    static bool check(const Options &options, QString *error);

    /** The server's operation limits that matter to a client that browses, reads and monitors; 0 means none. */
    struct Limits
    {
        quint32 maxNodesPerBrowse = 0;
        quint32 maxNodesPerRead = 0;
        quint32 maxNodesPerTranslate = 0;
        quint32 maxMonitoredItemsPerCall = 0;
        quint32 maxMonitoredItemsPerSubscription = 0;
        quint32 maxSubscriptionsPerSession = 0;
    };

    /** What an asynchronous service gives its continuation: the response, of the type asked for. */
    using Continuation = std::function<void(void *response)>;

    /** Log lines go to category, the library's own lines to the debug level of library. */
    OpcUaClient(const QLoggingCategory &category, const QLoggingCategory &library, QObject *parent = nullptr);
    ~OpcUaClient() override;

    /** Starts connecting; the client keeps trying until close(). */
    void open(const Options &options);
    /** Closes the connection and stops trying. */
    void close();
    /** Closes the connection at once as if the server had gone, for the back-off to start again. */
    void restart(UA_StatusCode reason);

    bool isConnected() const { return m_connected; }
    /** The library's client while connected or connecting, else nullptr. */
    UA_Client *handle() const { return m_client; }
    /** The limits the server announced, read after connecting and before connected() is emitted. */
    const Limits &limits() const { return m_limits; }
    /** The connection's name and the service's time-out, as the options gave them. */
    const Options &options() const { return m_options; }

    /**
     * Sends request; continuation gets the response once it arrives, or one with a bad service result after a time
     * out. It is not called when the connection goes before: continuations may hold what the connection owns.
     */
    bool send(const void *request, const UA_DataType &requestType, const UA_DataType &responseType,
        Continuation continuation);

    /** Creates a subscription; the library keeps it with the session. */
    bool createSubscription(const UA_CreateSubscriptionRequest &request, Continuation continuation);
    /** Creates monitored items of data changes, each with its context and callback. */
    bool createDataChanges(const UA_CreateMonitoredItemsRequest &request, void **contexts,
        UA_Client_DataChangeNotificationCallback *callbacks, Continuation continuation);
    /** Creates monitored items of events, each with its context and callback. */
    bool createEvents(const UA_CreateMonitoredItemsRequest &request, void **contexts,
        UA_Client_EventNotificationCallback *callbacks, Continuation continuation);

    /** The first and the longest pause between two attempts to connect, in milliseconds (1000 and 60000). */
    void setBackoff(int first, int longest);
    /** Milliseconds a session must stay up before the back-off starts from its first pause again (60000). */
    void setStableAfter(int msecs);
    /** Milliseconds between two iterations of the library (default 10). */
    void setIterateInterval(int msecs);

signals:
    /** The session is active: browse, read and subscribe. */
    void connected();
    /** A connection that was active is gone; everything the library held for it is gone too. */
    void disconnected();
    /** One iteration of the library has run; notifications that arrived in it are complete. */
    void iterated();

private:
    /** A response that arrived during an iteration, with what to do with it. */
    struct ArrivedResponse
    {
        void *response;
        const UA_DataType *responseType;
        Continuation continuation;
    };

    bool dispatch(const UA_DataType &responseType, Continuation continuation,
        const std::function<UA_StatusCode(void *userdata)> &send);
    void attempt();
    void iterate();
    void fail(UA_StatusCode status);
    void tearDown();
    void stateChanged(UA_SecureChannelState channel, UA_SessionState session, UA_StatusCode status);
    void readLimits();
    void reportFailure(bool wasConnected, UA_StatusCode reason);
    bool refusedOwnCertificate(UA_StatusCode reason) const;
    bool configure(UA_ClientConfig *config, QString *error);
    UA_StatusCode verifyServerCertificate(const UA_ByteString *certificate) const;
    const QLoggingCategory &lc() const { return m_category; }

    static void stateCallback(
        UA_Client *client, UA_SecureChannelState channel, UA_SessionState session, UA_StatusCode status);
    static UA_StatusCode verifyCallback(
        const UA_CertificateVerification *verification, const UA_ByteString *certificate);
    static void serviceCallback(UA_Client *client, void *userdata, UA_UInt32 requestId, void *response);

    const QLoggingCategory &m_category;
    Options m_options;
    UA_Client *m_client = nullptr;
    const QLoggingCategory &m_library;
    QTimer m_iterate;
    QTimer m_retry;
    QTimer m_stable;
    QTimer m_deadline;
    Limits m_limits;
    /** Secure channels closed in this attempt before a session; the library reopens one when the endpoint needs it. */
    int m_channelCloses = 0;
    UA_SecureChannelState m_lastChannel = UA_SECURECHANNELSTATE_CLOSED;
    /** Whether this attempt refused the server's certificate, so that a refusal is not taken for the server's. */
    mutable bool m_refusedServer = false;
    bool m_open = false;
    bool m_connected = false;
    bool m_failed = false;
    UA_StatusCode m_failure = UA_STATUSCODE_GOOD;
    UA_StatusCode m_lastReported = UA_STATUSCODE_GOOD;
    Backoff m_backoff;
    mutable QString m_lastRejected;
    QVector<ArrivedResponse> m_arrived;
};

#endif
