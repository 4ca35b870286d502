#include "xmloverwritelogging.h"

Q_LOGGING_CATEGORY(lcXmlOverwrite, "xmlOverwrite")
