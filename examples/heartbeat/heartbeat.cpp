#include "heartbeat.h"

#include <statev1.h>

bool Heartbeat::init(const QVariantMap &config, QVariantMap &)
{
    // Every plugin reads its own group of the one configuration file.
    const QVariantMap group = config.value(QStringLiteral("heartbeat")).toMap();
    m_machine = group.value(QStringLiteral("machine"), QStringLiteral("demo")).toString();
    m_timer.setInterval(group.value(QStringLiteral("interval"), 1000).toInt());
    connect(&m_timer, &QTimer::timeout, this, [this] {
        StateV1 state;
        state.state = 3;
        emit dataReceived(QDateTime::currentDateTime(), m_machine, name(), QVariant::fromValue(state));
    });
    m_timer.start();
    return true;
}
