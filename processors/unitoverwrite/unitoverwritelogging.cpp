#include "unitoverwritelogging.h"

Q_LOGGING_CATEGORY(lcUnitOverwrite, "unitOverwrite")
