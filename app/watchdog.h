#ifndef ORVIX_WATCHDOG_H
#define ORVIX_WATCHDOG_H

#include <QObject>
#include <QTimer>

/**
 * Tells systemd that the service is ready and keeps its watchdog fed from the event loop, so that a loop that hangs
 * stops the pings and gets the service restarted. Outside systemd (no NOTIFY_SOCKET) it does nothing.
 */
class Watchdog : public QObject
{
    Q_OBJECT
public:
    explicit Watchdog(QObject *parent = nullptr);
    ~Watchdog() override;

    /** The ping interval: half of the watchdog time systemd asked for, 0 when it asked for none. */
    int interval() const { return m_timer.interval(); }

public slots:
    /** Sends READY=1 and starts the pings; called once the pipeline is wired. */
    void ready();

private slots:
    void ping();

private:
    QTimer m_timer;
    bool m_enabled = false;
};

#endif
