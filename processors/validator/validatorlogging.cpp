#include "validatorlogging.h"

Q_LOGGING_CATEGORY(lcValidator, "validator")
