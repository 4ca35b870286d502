#ifndef ORVIX_STATEFLAGS_H
#define ORVIX_STATEFLAGS_H

#include "wwtypes.h"

#include <QString>
#include <QStringList>

namespace TestSupport {

/**
 * The flags block flags changed by the space-separated settings "Name=1", "Name=0" and "Name=-" (absent, which leaves
 * a plain flag false), so that test tables describe flags in a line; a name that is no flag stops the test.
 */
WwStateFlags withFlags(WwStateFlags flags, const QString &settings);

} // namespace TestSupport

#endif
