#include "limitlogging.h"

Q_LOGGING_CATEGORY(lcLimit, "limit")
