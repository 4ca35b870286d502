#ifndef ORVIX_WWADDRESSSPACE_H
#define ORVIX_WWADDRESSSPACE_H

#include "wwtypes.h"

#include <QDateTime>
#include <QHash>
#include <QSet>
#include <QString>

#include <open62541/server.h>

#include <memory>
#include <vector>

/**
 * The woodworking machines in a server's address space: the type nodes with their standard node ids, the Machines
 * folder, and one WwMachineType object per machine, kept up to date from the records of the woodworking model.
 */
class WwAddressSpace
{
public:
    /** The namespace of the machine objects, which this server alone defines. */
    static const char MachinesUri[];

    explicit WwAddressSpace(UA_Server *server);
    ~WwAddressSpace();
    WwAddressSpace(const WwAddressSpace &) = delete;
    WwAddressSpace &operator=(const WwAddressSpace &) = delete;

    /** Adds the namespaces, the type nodes and the Machines folder; false with a sentence in *error. */
    bool build(QString *error);

    /** The namespace index of the machine objects. */
    UA_UInt16 machinesNamespace() const { return m_ns; }
    /** Machines that have an object. */
    int machineCount() const { return int(m_machines.size()); }

    /** The language of the machine's localised texts ("en" unless set before its object is made). */
    void setLocale(const QString &machine, const QString &locale);

    void updateIdentification(const QString &machine, const WwIdentification &identification);
    void updateState(const QString &machine, const WwState &state);
    void updateManufacturerSpecific(const QString &machine, const WwManufacturerSpecific &record);
    /** Raises the event at the machine's Events object; false when the library refused it. */
    bool raiseEvent(const QString &machine, const QDateTime &time, const WwBaseEventType &event);

private:
    struct Machine;

    Machine &machine(const QString &name);
    /** A new node id in the machines namespace; the caller owns it. */
    UA_NodeId nodeId(const QString &path) const;
    enum class Action { Add, Reference, Write };

    /** Whether the library did what it was asked; warns of a refusal, once per node and action. */
    bool checked(const UA_NodeId &id, Action action, UA_StatusCode status);
    bool addObject(const UA_NodeId &id, const UA_NodeId &parent, const UA_NodeId &reference, UA_UInt16 ns,
        const char *name, const UA_NodeId &type, UA_Byte eventNotifier = 0);
    bool addVariable(const UA_NodeId &id, const UA_NodeId &parent, const UA_NodeId &reference, UA_UInt16 ns,
        const char *name, const UA_NodeId &dataType, const UA_NodeId &type, const UA_Variant &value);
    void writeValue(const UA_NodeId &id, const UA_Variant &value);
    void writeMissing(const UA_NodeId &id);

    UA_Server *m_server;
    // The enumerations as data types of the library, so that their variables take their values; the server keeps
    // pointers to them, so it must be deleted before this object.
    UA_DataType m_enumTypes[3];
    std::unique_ptr<UA_DataTypeArray> m_customTypes;
    UA_UInt16 m_ww = 0;
    UA_UInt16 m_di = 0;
    UA_UInt16 m_machinery = 0;
    UA_UInt16 m_ns = 0;
    QHash<QString, QString> m_locales;
    QHash<QString, std::shared_ptr<Machine>> m_machines;
    // The nodes and actions a refusal was warned of (bounded by the nodes there are).
    QSet<QString> m_refused;
};

#endif
