#include "spoolage.h"

#include "mqttspool.h"

void SpoolAge::start(const MqttSpool &spool)
{
    m_clock.start();
    m_appendTimes.clear();
    if (spool.count() > 0)
        m_appendTimes.emplace_back(spool.headSequence(), 0);
}

void SpoolAge::appended(const MqttSpool &spool)
{
    const qint64 now = m_clock.elapsed();
    if (m_appendTimes.empty() || now - m_appendTimes.back().second >= 1000)
        m_appendTimes.emplace_back(spool.nextSequence() - 1, now);
}

double SpoolAge::oldestSeconds(const MqttSpool &spool)
{
    // Entries whose records have all left the spool are forgotten; the first one left holds the oldest record.
    const quint64 head = spool.headSequence();
    while (
        !m_appendTimes.empty() && (spool.count() == 0 || (m_appendTimes.size() > 1 && m_appendTimes[1].first <= head)))
        m_appendTimes.pop_front();
    return m_appendTimes.empty() ? 0 : (m_clock.elapsed() - m_appendTimes.front().second) / 1000.0;
}
