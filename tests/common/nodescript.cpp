#include "nodescript.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QtDebug>

QString NodeScript::modules()
{
    const QString path = qEnvironmentVariable("NODE_PATH");
    return path.isEmpty() ? QStringLiteral(ORVIX_SOURCE_DIR "/tests/nodeopcua/node_modules") : path;
}

bool NodeScript::available()
{
    QProcess probe;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("NODE_PATH"), modules());
    probe.setProcessEnvironment(environment);
    probe.start(QStringLiteral("node"), { QStringLiteral("-e"), QStringLiteral("require('node-opcua')") });
    return probe.waitForFinished(60000) && probe.exitStatus() == QProcess::NormalExit && probe.exitCode() == 0;
}

NodeScript::~NodeScript()
{
    stop();
}

void NodeScript::start(const QString &script, const QStringList &arguments)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("NODE_PATH"), modules());
    m_process.setProcessEnvironment(environment);
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_backlog.clear();
    m_process.start(QStringLiteral("node"), QStringList { QStringLiteral(ORVIX_SOURCE_DIR "/") + script } + arguments);
}

void NodeScript::send(const QJsonObject &object)
{
    m_process.write(QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n');
}

QJsonObject NodeScript::next(const QString &key, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (true) {
        while (m_process.canReadLine()) {
            const QJsonObject object = QJsonDocument::fromJson(m_process.readLine()).object();
            if (object.contains(QStringLiteral("error")))
                qWarning().noquote() << object.value(QStringLiteral("error")).toString();
            m_backlog.append(object);
        }
        for (int i = 0; i < m_backlog.size(); ++i) {
            if (m_backlog.at(i).contains(key))
                return m_backlog.takeAt(i);
        }
        if (clock.elapsed() >= timeoutMs)
            return QJsonObject();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        m_process.waitForReadyRead(5);
    }
}

bool NodeScript::command(const QJsonObject &command, int timeoutMs)
{
    send(command);
    return !next(QStringLiteral("ok"), timeoutMs).isEmpty();
}

void NodeScript::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.closeWriteChannel();
    if (!m_process.waitForFinished(10000))
        m_process.kill();
    m_process.waitForFinished(1000);
}

void NodeScript::kill()
{
    m_process.kill();
    m_process.waitForFinished(5000);
}

int NodeScript::exitCode()
{
    m_process.waitForFinished(20000);
    return m_process.exitCode();
}
