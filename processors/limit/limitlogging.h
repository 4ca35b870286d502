#ifndef ORVIX_LIMITLOGGING_H
#define ORVIX_LIMITLOGGING_H

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcLimit)

#endif
