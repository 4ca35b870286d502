#ifndef ORVIX_VALIDATORLOGGING_H
#define ORVIX_VALIDATORLOGGING_H

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcValidator)

#endif
