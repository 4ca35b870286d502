#ifndef ORVIX_MOSQUITTOBROKER_H
#define ORVIX_MOSQUITTOBROKER_H

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QList>
#include <QMutex>
#include <QMutexLocker>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QThread>
#include <QVector>

#include <mosquitto.h>

/**
 * A mosquitto broker of its own for a test or a benchmark: a generated configuration in a temporary folder, loopback
 * ports chosen when it is made and kept across restarts, so that clients reconnect to the same address. The
 * nested Client is a plain libmosquitto client on its own thread that records what it receives.
 */
class MosquittoBroker
{
public:
    /** Files of a certificate authority, a server certificate for 127.0.0.1 and a client certificate. */
    struct Certificates
    {
        QString caFile;
        QString serverCert;
        QString serverKey;
        QString clientCert;
        QString clientKey;
        QString otherCaFile;
        QString error;
    };

    /** One message as a client received it. */
    struct Message
    {
        QByteArray topic;
        QByteArray payload;
        bool retain = false;
    };

    MosquittoBroker();
    ~MosquittoBroker();

    quint16 port() const { return m_port; }
    /** The port of the plain listener that a broker with TLS opens next to its TLS one. */
    quint16 plainPort() const { return m_plainPort; }
    QString folder() const { return m_dir.path(); }

    /** Requires a user name and password; the password file is made with mosquitto_passwd. */
    bool requirePassword(const QString &user, const QString &password);

    /** Makes port() a TLS listener that requires a client certificate from the given CA; plainPort() stays open. */
    void requireTls(const Certificates &certificates);

    /** Limits what clients may publish and receive, in mosquitto's acl_file syntax. */
    void setAcl(const QByteArray &rules);

    /** Makes the broker send small packets at once instead of gathering them (Nagle's algorithm), as tuned brokers do.
     */
    void setTcpNoDelay(bool noDelay) { m_noDelay = noDelay; }

    /** Keeps sessions and queued messages across a stop and start, as a broker with persistence does. */
    void setPersistent(bool persistent) { m_persistent = persistent; }

    /** Starts the broker and waits until it listens; false with its output in lastOutput() otherwise. */
    bool start();

    /** Stops the broker the way a service manager does (it saves its sessions when persistent). */
    void stop();

    bool isRunning() const { return m_process.state() == QProcess::Running; }
    QByteArray lastOutput() { return m_output + m_process.readAll(); }

    /** Makes a CA, a server certificate for 127.0.0.1 and a client certificate with openssl in folder. */
    static Certificates makeCertificates(const QString &folder);

    /** A libmosquitto client on its own network thread that records every message it receives. */
    class Client
    {
    public:
        Client();
        ~Client();

        void setCredentials(const QByteArray &user, const QByteArray &password);

        /** Connects with a persistent session when an id is given, and subscribes to filter after every connect. */
        bool connectTo(quint16 port, const QByteArray &filter, const QByteArray &clientId = QByteArray());

        /** Publishes at qos (1 unless told otherwise) and waits until the library has handed it to the socket. */
        bool publish(const QByteArray &topic, const QByteArray &payload, bool retain = false, int qos = 1);

        QVector<Message> messages() const;
        int count() const;
        /** The payloads received on topics that start with prefix. */
        QList<QByteArray> payloads(const QByteArray &prefix = QByteArray()) const;
        void clear();
        int subscriptions() const;

    private:
        static void onConnect(mosquitto *mosq, void *self, int rc);
        static void onSubscribe(mosquitto *, void *self, int, int, const int *);
        static void onMessage(mosquitto *, void *self, const mosquitto_message *message);

        mosquitto *m_mosq = nullptr;
        QByteArray m_filter;
        QByteArray m_user;
        QByteArray m_password;
        mutable QMutex m_mutex;
        QVector<Message> m_messages;
        int m_subscriptions = 0;
    };

private:
    QString configPath() const { return m_dir.filePath(QStringLiteral("mosquitto.conf")); }

    void writeConfig();

    QTemporaryDir m_dir;
    quint16 m_port = 0;
    quint16 m_plainPort = 0;
    QString m_passwordFile;
    QString m_aclFile;
    Certificates m_certificates;
    bool m_tls = false;
    bool m_persistent = false;
    bool m_noDelay = false;
    QProcess m_process;
    QByteArray m_output;
};

#endif
