#ifndef ORVIX_NODESCRIPT_H
#define ORVIX_NODESCRIPT_H

#include <QJsonObject>
#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>

/**
 * A node.js script of the OPC UA tests (a node-opcua client or server, an implementation orvix did not write), run as
 * a process that takes JSON lines on its standard input and reports in JSON lines on its standard output.
 */
class NodeScript
{
public:
    /** Where node finds node-opcua: NODE_PATH when set, else tests/nodeopcua's own installation. */
    static QString modules();
    /** Whether node and node-opcua are there; the tests that need them skip otherwise. */
    static bool available();

    ~NodeScript();

    /** Starts node with script (a path below the source tree) and arguments. */
    void start(const QString &script, const QStringList &arguments);
    /** Sends one JSON line to the script. */
    void send(const QJsonObject &object);
    /**
     * The first reported object that has key, while the event loop turns; empty after timeoutMs. Objects without it
     * are kept for later calls, so that the order of independent reports does not matter.
     */
    QJsonObject next(const QString &key, int timeoutMs = 20000);
    /** Sends command and waits for the script's answer "ok"; false (with a warning) when it does not come. */
    bool command(const QJsonObject &command, int timeoutMs = 20000);
    /** Ends the script by closing its standard input, and kills it if it does not end. */
    void stop();
    /** Kills the script at once, as a crash or a power cut would. */
    void kill();
    int exitCode();

private:
    QProcess m_process;
    QList<QJsonObject> m_backlog;
};

#endif
