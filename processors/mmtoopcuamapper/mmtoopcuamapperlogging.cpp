#include "mmtoopcuamapperlogging.h"

Q_LOGGING_CATEGORY(lcMmToOpcUaMapper, "mmtoopcuamapper")
