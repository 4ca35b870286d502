#ifndef ORVIX_THREADCPUTIMER_H
#define ORVIX_THREADCPUTIMER_H

#include <QtGlobal>

/**
 * Measures the CPU time of the calling thread from its creation, the time Google Benchmark reports as CPU, so that
 * the derived figures agree with its own column also on a machine shared with other work.
 */
class ThreadCpuTimer
{
public:
    ThreadCpuTimer();

    /** Nanoseconds of CPU time this thread has used since the timer was created. */
    qint64 elapsedNanoseconds() const;

private:
    static qint64 now();

    qint64 m_start;
};

#endif
