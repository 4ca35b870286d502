#ifndef ORVIX_FLEETSERVER_H
#define ORVIX_FLEETSERVER_H

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

/**
 * Woodworking machines served by orvix's own opcuaServer target, in a process of its own so that its CPU does not
 * count as the reader's: the benchmark program started again with the arguments serveArguments() makes. Every update
 * of a machine changes all its 26 flags and 35 values, so that each one is a notification for a reader.
 */
class FleetServer
{
public:
    /** The first argument of the serving process. */
    static const char ServeArgument[];

    /** In the serving process: serves the machines and feeds them until standard input closes; the exit code. */
    static int serve(int argc, char **argv);

    ~FleetServer() { stop(); }

    /**
     * Starts the serving process with the number of machines and the updates per machine and second (0: as fast as
     * the server takes them), and waits until it listens; false with the reason in error() when it does not.
     */
    bool start(int machines, int rate);
    /** Tells the serving process that the reader has every machine: until then it feeds them at 1 Hz only. */
    void unleash();
    /** Ends the serving process by closing its standard input; it reports what it fed. */
    void stop();

    QString url() const { return QStringLiteral("opc.tcp://127.0.0.1:%1").arg(m_port); }
    /** The CPU time (user and system) of the serving process in nanoseconds. */
    qint64 cpuNs() const;
    QString error() const { return m_error; }
    /** The machine updates fed so far, as the serving process last reported them. */
    qint64 updates();

private:
    QTemporaryDir m_folder;
    QProcess m_process;
    quint16 m_port = 0;
    qint64 m_updates = 0;
    QString m_error;
};

/** The CPU time (user and system) of a process in nanoseconds, from /proc/<pid>/stat; 0 when it is gone. */
qint64 processCpuNs(qint64 pid);

#endif
