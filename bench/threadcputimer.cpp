#include "threadcputimer.h"

#include <time.h>

ThreadCpuTimer::ThreadCpuTimer()
    : m_start(now())
{
}

qint64 ThreadCpuTimer::elapsedNanoseconds() const
{
    return now() - m_start;
}

qint64 ThreadCpuTimer::now()
{
    timespec time {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return qint64(time.tv_sec) * 1000000000 + time.tv_nsec;
}
