#ifndef ORVIX_ISOLATEDSERVICE_H
#define ORVIX_ISOLATEDSERVICE_H

#include "testsupport.h"

#include <QProcess>
#include <QTemporaryDir>

/**
 * The real orvix binary, started in a private mount namespace in which /etc/orvix and /var/log/orvix are folders
 * of a temporary directory. Only root may make such a namespace; tests skip without it.
 */
class IsolatedService
{
public:
    IsolatedService();
    ~IsolatedService();

    static bool available();

    QString etcDir() const { return m_dir.filePath(QStringLiteral("etc")); }
    QString logDir() const { return m_dir.filePath(QStringLiteral("log")); }
    QString pluginDir() const { return m_dir.filePath(QStringLiteral("plugins")); }
    QString path(const QString &relative) const { return m_dir.filePath(relative); }
    QStringList logLines() const { return TestSupport::logLines(logDir() + QStringLiteral("/orvix.log")); }

    /**
     * Writes the service's configuration. Without a [metrics] group of its own the service serves its metrics on a
     * free port, so that the services of tests that run at the same time never compete for the default one.
     */
    void writeConfig(const QByteArray &ini)
    {
        const bool ownMetrics = ini.startsWith("[metrics]") || ini.contains("\n[metrics]");
        TestSupport::writeFile(etcDir() + QStringLiteral("/orvix.ini"),
            ownMetrics ? ini
                       : ini + "\n[metrics]\nlisten=127.0.0.1:" + QByteArray::number(TestSupport::freePort()) + "\n");
    }

    /** Starts the binary; plugins come from pluginPath, or from this service's own plugin folder. */
    bool start(const QStringList &arguments = QStringList(), const QString &pluginPath = QString());

    /** Ends the service the way a service manager does, and returns what it printed. */
    QByteArray stop();

    /** What the service printed so far. */
    QByteArray output();
    QProcess &process() { return m_process; }

private:
    QTemporaryDir m_dir;
    QProcess m_process;
    QByteArray m_output;
};

#endif
