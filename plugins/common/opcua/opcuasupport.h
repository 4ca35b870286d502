#ifndef ORVIX_OPCUASUPPORT_H
#define ORVIX_OPCUASUPPORT_H

#include <QByteArray>
#include <QLoggingCategory>
#include <QString>
#include <QStringList>
#include <QVector>

#include <open62541/plugin/log.h>
#include <open62541/types.h>

/** Conversions between open62541's types and Qt's, and the library's log output in a plugin's category. */
namespace OpcUa {

/** The security policies by the names the settings use, in the order a server offers them. */
const QStringList &policyNames();
/** The message security modes by the names the settings use, in the order of the library's values from 1. */
const QStringList &modeNames();
/** The URI of a security policy named as in policyNames(). */
QString policyUri(const QString &policy);

/** The library's text as a QString (UTF-8). */
QString text(const UA_String &text);
/** The name of a status code, such as "BadCertificateUntrusted". */
QString statusName(UA_StatusCode status);
/** A view of bytes as the library's string; bytes must outlive it. */
UA_String view(const QByteArray &bytes);
/** Views of each of a list's byte arrays, which must outlive them. */
QVector<UA_ByteString> views(const QList<QByteArray> &list);
/** A copy of bytes that the library owns and frees. */
UA_ByteString copy(const QByteArray &bytes);
/** A node id as text, such as "ns=3;s=Saw1" or "i=85", for log lines. */
QString nodeText(const UA_NodeId &id);

/** A node id that owns what it points to, for keeping node ids in Qt's containers. */
class NodeId
{
public:
    NodeId() { UA_NodeId_init(&m_id); }
    explicit NodeId(const UA_NodeId &id) { UA_NodeId_copy(&id, &m_id); }
    NodeId(const NodeId &other) { UA_NodeId_copy(&other.m_id, &m_id); }
    NodeId &operator=(const NodeId &other)
    {
        if (this != &other) {
            UA_NodeId_clear(&m_id);
            UA_NodeId_copy(&other.m_id, &m_id);
        }
        return *this;
    }
    ~NodeId() { UA_NodeId_clear(&m_id); }

    const UA_NodeId &get() const { return m_id; }
    bool isNull() const { return UA_NodeId_isNull(&m_id); }
    bool operator==(const NodeId &other) const { return UA_NodeId_equal(&m_id, &other.m_id); }

private:
    UA_NodeId m_id;
};

/**
 * A logger for a client's or server's configuration: the library's own messages are its internals, so they go to the
 * debug level of category, and are formatted only when that level is on. The library deletes it with its
 * configuration.
 */
UA_Logger *newLogger(const QLoggingCategory &category);

} // namespace OpcUa

#endif
