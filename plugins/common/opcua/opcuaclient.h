#ifndef ORVIX_OPCUACLIENT_H
#define ORVIX_OPCUACLIENT_H

#include <QLoggingCategory>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVector>

#include <open62541/client.h>
#include <open62541/client_subscriptions.h>

#include <functional>

/**
 * One OPC UA client connection through open62541, driven by the event loop: a timer runs one non-blocking iteration
 * of the library at a time, and every service is asynchronous, so a slow or silent server never holds up the chain.
 * It connects on its own, and after a refused or lost connection it starts again with a fresh library client after a
 * back-off of 1 s doubling to 60 s with jitter. Each change of the connection's state is one log line in the owner's
 * category: info when connected, a warning with the status code's name when refused or lost.
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

    /** What an asynchronous service gives its continuation: the response, of the type asked for. */
    using Continuation = std::function<void(void *response)>;

    explicit OpcUaClient(const QLoggingCategory &category, QObject *parent = nullptr);
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
    QTimer m_iterate;
    QTimer m_retry;
    bool m_open = false;
    bool m_connected = false;
    bool m_failed = false;
    UA_StatusCode m_failure = UA_STATUSCODE_GOOD;
    UA_StatusCode m_lastReported = UA_STATUSCODE_GOOD;
    int m_firstBackoff = 1000;
    int m_longestBackoff = 60000;
    int m_backoff = 0;
    mutable QString m_lastRejected;
    QVector<ArrivedResponse> m_arrived;
};

#endif
