#include "logcontext.h"

LogContext::LogContext(const char *category)
    : QMessageLogContext(nullptr, 0, nullptr, category)
{
}
