#ifndef ORVIX_MMDATASETS_H
#define ORVIX_MMDATASETS_H

// All MM dataset types and their element types, for code that handles any of them.
#include "conditiondatasv2.h"
#include "conditiondatav2.h"
#include "conditiondefinitionsv2.h"
#include "conditiondefinitionv2.h"
#include "generalv1.h"
#include "maintenancedatasv1.h"
#include "maintenancedatav1.h"
#include "maintenancedefinitionsv1.h"
#include "maintenancedefinitionv1.h"
#include "notificationsaddv1.h"
#include "notificationsremoveallv1.h"
#include "notificationsremovev1.h"
#include "orderv1.h"
#include "statev1.h"
#include "swverv1.h"

#endif
