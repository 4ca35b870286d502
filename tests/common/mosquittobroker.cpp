#include "mosquittobroker.h"

#include "testsupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

MosquittoBroker::MosquittoBroker()
    : m_port(TestSupport::freePort())
{
}

MosquittoBroker::~MosquittoBroker()
{
    stop();
}

bool MosquittoBroker::requirePassword(const QString &user, const QString &password)
{
    m_passwordFile = m_dir.filePath(QStringLiteral("passwords"));
    return QProcess::execute(QStringLiteral("mosquitto_passwd"),
               { QStringLiteral("-b"), QStringLiteral("-c"), m_passwordFile, user, password })
        == 0;
}

void MosquittoBroker::requireTls(const Certificates &certificates)
{
    m_certificates = certificates;
    m_tls = true;
    m_plainPort = TestSupport::freePort();
}

void MosquittoBroker::setAcl(const QByteArray &rules)
{
    m_aclFile = m_dir.filePath(QStringLiteral("acl"));
    QFile file(m_aclFile);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(rules);
}

bool MosquittoBroker::start()
{
    writeConfig();
    m_output.clear();
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    m_process.start(QStringLiteral("/usr/sbin/mosquitto"), { QStringLiteral("-c"), configPath() });
    if (!m_process.waitForStarted(10000))
        return false;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 20000) {
        m_process.waitForReadyRead(100);
        m_output += m_process.readAll();
        if (m_output.contains(" running"))
            return true;
        if (m_process.state() == QProcess::NotRunning)
            return false;
    }
    return false;
}

void MosquittoBroker::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(10000)) {
        m_process.kill();
        m_process.waitForFinished(10000);
    }
    m_output += m_process.readAll();
}

MosquittoBroker::Certificates MosquittoBroker::makeCertificates(const QString &folder)
{
    Certificates files;
    const auto path = [&folder](const char *name) { return QDir(folder).filePath(QString::fromLatin1(name)); };
    files.caFile = path("ca.crt");
    files.serverCert = path("server.crt");
    files.serverKey = path("server.key");
    files.clientCert = path("client.crt");
    files.clientKey = path("client.key");
    files.otherCaFile = path("other-ca.crt");
    QFile extensions(path("server.ext"));
    if (!extensions.open(QIODevice::WriteOnly) || extensions.write("subjectAltName=IP:127.0.0.1\n") < 0)
        files.error = QStringLiteral("can't write server.ext");
    extensions.close();
    const QStringList key { QStringLiteral("-newkey"), QStringLiteral("ec"), QStringLiteral("-pkeyopt"),
        QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes") };
    const QVector<QStringList> steps {
        QStringList { QStringLiteral("req"), QStringLiteral("-x509") } + key
            + QStringList { QStringLiteral("-keyout"), path("ca.key"), QStringLiteral("-out"), files.caFile,
                QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-subj"),
                QStringLiteral("/CN=orvix test CA") },
        QStringList { QStringLiteral("req"), QStringLiteral("-x509") } + key
            + QStringList { QStringLiteral("-keyout"), path("other-ca.key"), QStringLiteral("-out"), files.otherCaFile,
                QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-subj"),
                QStringLiteral("/CN=some other CA") },
        QStringList { QStringLiteral("req") } + key
            + QStringList { QStringLiteral("-keyout"), files.serverKey, QStringLiteral("-out"), path("server.csr"),
                QStringLiteral("-subj"), QStringLiteral("/CN=127.0.0.1") },
        QStringList { QStringLiteral("x509"), QStringLiteral("-req"), QStringLiteral("-in"), path("server.csr"),
            QStringLiteral("-CA"), files.caFile, QStringLiteral("-CAkey"), path("ca.key"),
            QStringLiteral("-CAcreateserial"), QStringLiteral("-out"), files.serverCert, QStringLiteral("-days"),
            QStringLiteral("2"), QStringLiteral("-extfile"), path("server.ext") },
        QStringList { QStringLiteral("req") } + key
            + QStringList { QStringLiteral("-keyout"), files.clientKey, QStringLiteral("-out"), path("client.csr"),
                QStringLiteral("-subj"), QStringLiteral("/CN=orvix test client") },
        QStringList { QStringLiteral("x509"), QStringLiteral("-req"), QStringLiteral("-in"), path("client.csr"),
            QStringLiteral("-CA"), files.caFile, QStringLiteral("-CAkey"), path("ca.key"),
            QStringLiteral("-CAcreateserial"), QStringLiteral("-out"), files.clientCert, QStringLiteral("-days"),
            QStringLiteral("2") },
    };
    for (const QStringList &arguments : steps) {
        if (!files.error.isEmpty())
            break;
        QProcess openssl;
        openssl.setProcessChannelMode(QProcess::MergedChannels);
        openssl.start(QStringLiteral("openssl"), arguments);
        if (!openssl.waitForFinished(60000) || openssl.exitStatus() != QProcess::NormalExit || openssl.exitCode() != 0)
            files.error = QStringLiteral("openssl %1 failed: %2")
                              .arg(arguments.join(QLatin1Char(' ')), QString::fromLocal8Bit(openssl.readAll()));
    }
    return files;
}

void MosquittoBroker::writeConfig()
{
    QByteArray config;
    // As root the broker would switch to the user mosquitto, who can't read the files of the temporary folder.
    if (geteuid() == 0)
        config += "user root\n";
    // Standard output would be buffered in a pipe; standard error is written at once.
    config += "log_dest stderr\nlog_type error\nlog_type warning\nlog_type notice\nlog_type information\n";
    config += "max_queued_messages 100000\n";
    if (m_noDelay)
        config += "set_tcp_nodelay true\n";
    if (m_persistent)
        config += "persistence true\npersistence_location " + m_dir.path().toUtf8() + "/\n";
    else
        config += "persistence false\n";
    if (m_passwordFile.isEmpty())
        config += "allow_anonymous true\n";
    else
        config += "allow_anonymous false\npassword_file " + m_passwordFile.toUtf8() + "\n";
    if (!m_aclFile.isEmpty())
        config += "acl_file " + m_aclFile.toUtf8() + "\n";
    config += "listener " + QByteArray::number(m_port) + " 127.0.0.1\n";
    if (m_tls) {
        config += "cafile " + m_certificates.caFile.toUtf8() + "\n";
        config += "certfile " + m_certificates.serverCert.toUtf8() + "\n";
        config += "keyfile " + m_certificates.serverKey.toUtf8() + "\n";
        config += "require_certificate true\n";
        config += "listener " + QByteArray::number(m_plainPort) + " 127.0.0.1\n";
    }
    QFile file(configPath());
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(config);
}

MosquittoBroker::Client::Client()
{
    mosquitto_lib_init();
}

MosquittoBroker::Client::~Client()
{
    if (m_mosq) {
        mosquitto_disconnect(m_mosq);
        mosquitto_loop_stop(m_mosq, true);
        mosquitto_destroy(m_mosq);
    }
}

void MosquittoBroker::Client::setCredentials(const QByteArray &user, const QByteArray &password)
{
    m_user = user;
    m_password = password;
}

bool MosquittoBroker::Client::connectTo(quint16 port, const QByteArray &filter, const QByteArray &clientId)
{
    m_filter = filter;
    m_mosq = mosquitto_new(clientId.isEmpty() ? nullptr : clientId.constData(), clientId.isEmpty(), this);
    if (!m_mosq)
        return false;
    if (!m_user.isEmpty())
        mosquitto_username_pw_set(m_mosq, m_user.constData(), m_password.constData());
    mosquitto_reconnect_delay_set(m_mosq, 1, 1, false);
    mosquitto_connect_callback_set(m_mosq, &Client::onConnect);
    mosquitto_subscribe_callback_set(m_mosq, &Client::onSubscribe);
    mosquitto_message_callback_set(m_mosq, &Client::onMessage);
    if (mosquitto_connect_async(m_mosq, "127.0.0.1", port, 30) != MOSQ_ERR_SUCCESS)
        return false;
    if (mosquitto_loop_start(m_mosq) != MOSQ_ERR_SUCCESS)
        return false;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 20000) {
        if (subscriptions() > 0)
            return true;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(5);
    }
    return false;
}

bool MosquittoBroker::Client::publish(const QByteArray &topic, const QByteArray &payload, bool retain, int qos)
{
    return mosquitto_publish(m_mosq, nullptr, topic.constData(), payload.size(), payload.constData(), qos, retain)
        == MOSQ_ERR_SUCCESS;
}

QVector<MosquittoBroker::Message> MosquittoBroker::Client::messages() const
{
    QMutexLocker lock(&m_mutex);
    return m_messages;
}

int MosquittoBroker::Client::count() const
{
    QMutexLocker lock(&m_mutex);
    return m_messages.size();
}

QList<QByteArray> MosquittoBroker::Client::payloads(const QByteArray &prefix) const
{
    QMutexLocker lock(&m_mutex);
    QList<QByteArray> result;
    for (const Message &message : m_messages) {
        if (message.topic.startsWith(prefix))
            result.append(message.payload);
    }
    return result;
}

void MosquittoBroker::Client::clear()
{
    QMutexLocker lock(&m_mutex);
    m_messages.clear();
}

int MosquittoBroker::Client::subscriptions() const
{
    QMutexLocker lock(&m_mutex);
    return m_subscriptions;
}

void MosquittoBroker::Client::onConnect(mosquitto *mosq, void *self, int rc)
{
    if (rc == 0)
        mosquitto_subscribe(mosq, nullptr, static_cast<Client *>(self)->m_filter.constData(), 1);
}

void MosquittoBroker::Client::onSubscribe(mosquitto *, void *self, int, int, const int *)
{
    Client *client = static_cast<Client *>(self);
    QMutexLocker lock(&client->m_mutex);
    ++client->m_subscriptions;
}

void MosquittoBroker::Client::onMessage(mosquitto *, void *self, const mosquitto_message *message)
{
    Client *client = static_cast<Client *>(self);
    Message received;
    received.topic = QByteArray(message->topic);
    received.payload = QByteArray(static_cast<const char *>(message->payload), message->payloadlen);
    received.retain = message->retain;
    QMutexLocker lock(&client->m_mutex);
    client->m_messages.append(received);
}
