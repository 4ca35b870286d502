#include "isolatedservice.h"

#include <unistd.h>

IsolatedService::IsolatedService()
{
    QDir().mkpath(etcDir());
    QDir().mkpath(logDir());
    QDir().mkpath(pluginDir());
}

IsolatedService::~IsolatedService()
{
    stop();
}

bool IsolatedService::available()
{
    return geteuid() == 0 && QFile::exists(QStringLiteral("/usr/bin/unshare"));
}

bool IsolatedService::start(const QStringList &arguments, const QString &pluginPath)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("ORVIX_PLUGINPATH"), pluginPath.isEmpty() ? pluginDir() : pluginPath);
    m_process.setProcessEnvironment(environment);
    m_process.setProgram(QStringLiteral(ORVIX_SOURCE_DIR "/tests/e2e/run-isolated.sh"));
    m_process.setArguments(
        QStringList { etcDir(), logDir(), m_dir.filePath(QStringLiteral("scratch")), QStringLiteral(ORVIX_BINARY) }
        + arguments);
    m_process.start();
    return m_process.waitForStarted(10000);
}

QByteArray IsolatedService::stop()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.terminate();
        if (!m_process.waitForFinished(10000)) {
            m_process.kill();
            m_process.waitForFinished(10000);
        }
    }
    m_output += m_process.readAllStandardOutput();
    return m_output;
}

QByteArray IsolatedService::output()
{
    m_output += m_process.readAllStandardOutput();
    return m_output;
}
