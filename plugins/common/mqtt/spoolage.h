#ifndef ORVIX_SPOOLAGE_H
#define ORVIX_SPOOLAGE_H

#include <QElapsedTimer>
#include <QtGlobal>

#include <deque>
#include <utility>

class MqttSpool;

/**
 * How long the oldest record of a spool has waited, for the plugins' metrics. It keeps when records were appended,
 * one entry a second at most, so its memory follows the age of the spool rather than the number of records.
 */
class SpoolAge
{
public:
    /** Starts the clock; what an earlier run left in the spool counts as appended now. */
    void start(const MqttSpool &spool);
    /** Called after each record appended to the spool. */
    void appended(const MqttSpool &spool);
    /** Seconds the oldest record still in the spool has waited, 0 when it is empty. */
    double oldestSeconds(const MqttSpool &spool);

private:
    // The first sequence of each second with its time.
    std::deque<std::pair<quint64, qint64>> m_appendTimes;
    QElapsedTimer m_clock;
};

#endif
