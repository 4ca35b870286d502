#include "watchdog.h"

#include <systemd/sd-daemon.h>

#include <cstdint>

Watchdog::Watchdog(QObject *parent)
    : QObject(parent)
{
    uint64_t usec = 0;
    m_enabled = sd_watchdog_enabled(0, &usec) > 0 && usec > 0;
    if (m_enabled) {
        // Half the time systemd waits leaves room for one late turn of the loop without a restart.
        m_timer.setInterval(static_cast<int>(qMax<uint64_t>(usec / 2000, 1)));
        connect(&m_timer, &QTimer::timeout, this, &Watchdog::ping);
    }
}

Watchdog::~Watchdog()
{
    sd_notify(0, "STOPPING=1");
}

void Watchdog::ready()
{
    sd_notify(0, "READY=1");
    if (m_enabled && !m_timer.isActive()) {
        ping();
        m_timer.start();
    }
}

void Watchdog::ping()
{
    sd_notify(0, "WATCHDOG=1");
}
