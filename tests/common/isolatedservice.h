#ifndef ORVIX_ISOLATEDSERVICE_H
#define ORVIX_ISOLATEDSERVICE_H

#include "testsupport.h"

#include <QProcess>
#include <QTemporaryDir>
#include <unistd.h>

/**
 * The real orvix binary, started in a private mount namespace in which /etc/orvix and /var/log/orvix are folders
 * of a temporary directory. Only root may make such a namespace; tests skip without it.
 */
class IsolatedService
{
public:
    IsolatedService()
    {
        QDir().mkpath(etcDir());
        QDir().mkpath(logDir());
        QDir().mkpath(pluginDir());
    }
    ~IsolatedService() { stop(); }

    static bool available() { return geteuid() == 0 && QFile::exists(QStringLiteral("/usr/bin/unshare")); }

    QString etcDir() const { return m_dir.filePath(QStringLiteral("etc")); }
    QString logDir() const { return m_dir.filePath(QStringLiteral("log")); }
    QString pluginDir() const { return m_dir.filePath(QStringLiteral("plugins")); }
    QString path(const QString &relative) const { return m_dir.filePath(relative); }
    QStringList logLines() const { return TestSupport::logLines(logDir() + QStringLiteral("/orvix.log")); }

    void writeConfig(const QByteArray &ini) { TestSupport::writeFile(etcDir() + QStringLiteral("/orvix.ini"), ini); }

    /** Starts the binary; plugins come from pluginPath, or from this service's own plugin folder. */
    bool start(const QStringList &arguments = QStringList(), const QString &pluginPath = QString())
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("ORVIX_PLUGINPATH"), pluginPath.isEmpty() ? pluginDir() : pluginPath);
        m_process.setProcessEnvironment(environment);
        m_process.setProgram(QStringLiteral(ORVIX_SOURCE_DIR "/tests/e2e/run-isolated.sh"));
        m_process.setArguments(QStringList { etcDir(), logDir(), m_dir.filePath(QStringLiteral("scratch")),
                                             QStringLiteral(ORVIX_BINARY) }
                               + arguments);
        m_process.start();
        return m_process.waitForStarted(10000);
    }

    /** Ends the service the way a service manager does, and returns what it printed. */
    QByteArray stop()
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

    QByteArray output()
    {
        m_output += m_process.readAllStandardOutput();
        return m_output;
    }
    QProcess &process() { return m_process; }

private:
    QTemporaryDir m_dir;
    QProcess m_process;
    QByteArray m_output;
};

#endif
