#ifndef ORVIX_PROCESSSTATS_H
#define ORVIX_PROCESSSTATS_H

#include <QtGlobal>

/** What the kernel says about this process, read from /proc when the metrics are scraped. */
struct ProcessStats
{
    qint64 residentBytes = 0;
    double cpuSeconds = 0;
    qint64 openFiles = 0;
    qint64 maxFiles = 0;
    /** Seconds since the Unix epoch. */
    double startTime = 0;

    static ProcessStats read();
};

#endif
