#ifndef ORVIX_OPCUASERVERHOST_H
#define ORVIX_OPCUASERVERHOST_H

#include <QHash>
#include <QLoggingCategory>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <open62541/server.h>

/**
 * An open62541 server inside the event loop: a timer runs one non-blocking iteration of the library at a time, so
 * the server never holds up the chain. It sets up the endpoints, the own certificate in the PKI folder, the trusted
 * client certificates and the user logins, and reports refused logins and certificates in the owner's category.
 */
class OpcUaServerHost : public QObject
{
    Q_OBJECT
public:
    /** What the server offers; see the target's README for the meaning of each. */
    struct Options
    {
        quint16 port = 4840;
        QString endpointPath;
        QStringList securityPolicies;
        QStringList securityModes;
        QHash<QString, QString> users;
        bool allowAnonymous = true;
        QString pki;
    };

    /** The application URI, also written into the own certificate. */
    static const char ApplicationUri[];

    explicit OpcUaServerHost(const QLoggingCategory &category, QObject *parent = nullptr);
    ~OpcUaServerHost() override;

    /** Sets the server up and opens its port; false with a sentence in *error when it can't serve. */
    bool start(const Options &options, QString *error);
    /** The running server, or nullptr before start() succeeded. */
    UA_Server *server() const { return m_server; }
    /** The endpoint URL that clients use, with this host's name. */
    QString endpointUrl() const { return m_endpointUrl; }
    /** Milliseconds between two iterations of the library (default 5). */
    void setIterateInterval(int msecs);

    /** Logs a refused login; called by the access control wrapper. */
    void refusedLogin(const UA_ExtensionObject *token, UA_StatusCode status) const;
    /** Logs a refused client certificate and keeps it in rejected/; called by the certificate check wrapper. */
    void refusedCertificate(const UA_ByteString *certificate, UA_StatusCode status) const;

private:
    const QLoggingCategory &lc() const { return m_category; }
    bool configure(UA_ServerConfig *config, const Options &options, QString *error);
    void stop();

    const QLoggingCategory &m_category;
    UA_Server *m_server = nullptr;
    bool m_running = false;
    QTimer m_iterate;
    QString m_pki;
    QString m_endpointUrl;
};

#endif
