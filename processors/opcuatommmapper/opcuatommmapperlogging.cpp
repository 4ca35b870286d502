#include "opcuatommmapperlogging.h"

Q_LOGGING_CATEGORY(lcOpcUaToMMMapper, "opcuatommmapper")
