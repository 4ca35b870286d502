#include "logcategories.h"

Q_LOGGING_CATEGORY(lcCore, "core")
Q_LOGGING_CATEGORY(lcLogFile, "logfile")
Q_LOGGING_CATEGORY(lcDataset, "dataset")
