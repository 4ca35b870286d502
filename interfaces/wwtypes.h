#ifndef ORVIX_WWTYPES_H
#define ORVIX_WWTYPES_H

// All value types of the woodworking machine model, for code that handles any of them.
#include "wwbaseeventtype.h"
#include "wwcapabilities.h"
#include "wwidentification.h"
#include "wwmanufacturerspecific.h"
#include "wwstate.h"

#endif
