#ifndef ORVIX_LOGCONTEXT_H
#define ORVIX_LOGCONTEXT_H

#include <QMessageLogContext>

/** The context of a message of category, for tests that hand messages to a log sink directly. */
struct LogContext : QMessageLogContext
{
    explicit LogContext(const char *category);
};

#endif
