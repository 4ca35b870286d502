#ifndef ORVIX_WWADDRESSSPACENODES_H
#define ORVIX_WWADDRESSSPACENODES_H

#include <QByteArray>
#include <QDateTime>

#include <open62541/nodeids.h>
#include <open62541/types.h>

#include "opcuaserverlogging.h"

// Small helpers of the address space's code, for values the library takes without copying.

inline UA_NodeId ns0(UA_UInt32 id)
{
    return UA_NODEID_NUMERIC(0, id);
}

inline UA_QualifiedName qualified(UA_UInt16 ns, const char *text)
{
    return UA_QUALIFIEDNAME(ns, const_cast<char *>(text));
}

inline UA_String uaString(const QByteArray &bytes)
{
    UA_String text;
    text.length = size_t(bytes.size());
    text.data = reinterpret_cast<UA_Byte *>(const_cast<char *>(bytes.constData()));
    return text;
}

inline UA_DateTime uaTime(const QDateTime &time)
{
    return UA_DATETIME_UNIX_EPOCH + time.toMSecsSinceEpoch() * UA_DATETIME_MSEC;
}

#endif
