#include "opcuaconnection.h"

#include "wwmodel.h"

#include <open62541/nodeids.h>

namespace {

// Type definitions are followed up this many subtype steps to find WwMachineType.
constexpr int MaxTypeDepth = 8;

} // namespace

void OpcUaConnection::discover()
{
    const auto search = [this](const References &machines) {
        if (machines.isEmpty())
            searchObjects();
        else
            machinesFound(machines);
    };
    if (m_machinery != 0) {
        findMachines(OpcUa::NodeId(UA_NODEID_NUMERIC(m_machinery, WwModel::MachineryMachines)), search);
        return;
    }
    // A server without the Machinery namespace may still organise its machines in a folder called Machines.
    browse(UA_NODEID_NUMERIC(0, UA_NS0ID_OBJECTSFOLDER), [this, search](const References &objects) {
        for (const Reference &object : objects) {
            if (object.name == QLatin1String(WwModel::MachinesName)) {
                findMachines(object.node, search);
                return;
            }
        }
        searchObjects();
    });
}

void OpcUaConnection::findMachines(const OpcUa::NodeId &folder, std::function<void(const References &)> done)
{
    browse(folder.get(), [this, done](const References &children) {
        auto machines = std::make_shared<References>();
        auto pending = std::make_shared<int>(1);
        const auto finished = [machines, pending, done] {
            if (--*pending == 0)
                done(*machines);
        };
        for (const Reference &child : children) {
            if (child.nodeClass != UA_NODECLASS_OBJECT)
                continue;
            ++*pending;
            checkType(child.typeDefinition, 0, [this, child, machines, finished](bool isMachine) {
                if (isMachine)
                    machines->append(child);
                else
                    qCDebug(lc) << QStringLiteral("%1 of %2 is not a woodworking machine")
                                       .arg(child.name, m_options.client.name);
                finished();
            });
        }
        finished();
    });
}

/** A breadth-first search for machines below Objects, one level at a time. */
struct OpcUaConnection::Search
{
    References found;
    QVector<OpcUa::NodeId> level;
    QVector<OpcUa::NodeId> next;
    QSet<QString> seen;
    int depth = 0;
    int pending = 0;
};

void OpcUaConnection::searchObjects()
{
    auto search = std::make_shared<Search>();
    search->level.append(OpcUa::NodeId(UA_NODEID_NUMERIC(0, UA_NS0ID_OBJECTSFOLDER)));
    searchLevel(search);
}

void OpcUaConnection::searchLevel(std::shared_ptr<Search> search)
{
    if (search->level.isEmpty() || search->depth >= MaxSearchDepth) {
        if (search->found.isEmpty()) {
            qCWarning(lc) << QStringLiteral("%1 has no machine of WwMachineType, neither in a Machines folder nor down "
                                            "to %2 levels below Objects: it serves no woodworking machines")
                                 .arg(m_options.client.name)
                                 .arg(MaxSearchDepth);
        }
        machinesFound(search->found);
        return;
    }
    ++search->depth;
    search->pending = search->level.size();
    const QVector<OpcUa::NodeId> level = std::move(search->level);
    search->level.clear();
    const auto finished = [this, search] {
        if (--search->pending > 0)
            return;
        search->level = std::move(search->next);
        search->next.clear();
        searchLevel(search);
    };
    for (const OpcUa::NodeId &node : level) {
        browse(node.get(), [this, search, finished](const References &children) {
            for (const Reference &child : children) {
                // The server's own objects (namespace 0) hold no machines; a machine's parts are not looked into.
                if (child.nodeClass != UA_NODECLASS_OBJECT || child.node.get().namespaceIndex == 0
                    || search->seen.size() >= MaxSearchNodes)
                    continue;
                const QString key = OpcUa::nodeText(child.node.get());
                if (search->seen.contains(key))
                    continue;
                search->seen.insert(key);
                ++search->pending;
                checkType(child.typeDefinition, 0, [search, child, finished](bool isMachine) {
                    if (isMachine)
                        search->found.append(child);
                    else
                        search->next.append(child.node);
                    finished();
                });
            }
            finished();
        });
    }
}

void OpcUaConnection::machinesFound(const References &machines)
{
    QStringList found;
    for (const Reference &reference : machines) {
        if (!m_options.machines.isEmpty() && !m_options.machines.contains(reference.name))
            continue;
        found << reference.name;
        const QString name = m_options.renames.value(reference.name, reference.name);
        const QString owner = m_options.client.name + QLatin1Char('|') + OpcUa::nodeText(reference.node.get());
        MachineName &taken = (*m_options.names)[name];
        if (taken.owner.isEmpty()) {
            taken.owner = owner;
            taken.description = QStringLiteral("machine %1 of %2").arg(reference.name, m_options.client.name);
        } else if (taken.owner != owner) {
            // Limit and the targets know a machine by its name alone: two under one name would be merged.
            if (!m_leftOut.contains(owner)) {
                m_leftOut.insert(owner);
                qCWarning(lc) << QStringLiteral("Left out machine %1 (%2) of %3: the name %4 is already that of %5; "
                                                "give it another with rename=%1=<name> in opcua/%3")
                                     .arg(reference.name, OpcUa::nodeText(reference.node.get()), m_options.client.name,
                                         name, taken.description);
            }
            continue;
        }
        addMachine(reference, name);
    }
    if (!m_machines.empty())
        createEventItems(nullptr, { OpcUa::NodeId(UA_NODEID_NUMERIC(0, UA_NS0ID_SERVER)) });
    for (const QString &wanted : qAsConst(m_options.machines)) {
        if (!found.contains(wanted)) {
            qCWarning(lc)
                << QStringLiteral("Machine %1 is not among the machines of %2").arg(wanted, m_options.client.name);
        }
    }
}

void OpcUaConnection::checkType(const OpcUa::NodeId &type, int depth, std::function<void(bool)> done)
{
    const UA_NodeId &id = type.get();
    if (id.namespaceIndex == m_woodworking && id.identifierType == UA_NODEIDTYPE_NUMERIC
        && id.identifier.numeric == WwModel::WwMachineType) {
        done(true);
        return;
    }
    if (type.isNull() || depth >= MaxTypeDepth
        || (id.namespaceIndex == 0 && id.identifierType == UA_NODEIDTYPE_NUMERIC)) {
        done(false);
        return;
    }
    const QString key = OpcUa::nodeText(id);
    const auto known = m_machineTypes.constFind(key);
    if (known != m_machineTypes.constEnd()) {
        done(known.value());
        return;
    }
    browse(
        id,
        [this, key, depth, done](const References &supertypes) {
            if (supertypes.isEmpty()) {
                m_machineTypes.insert(key, false);
                done(false);
                return;
            }
            checkType(supertypes.first().node, depth + 1, [this, key, done](bool isMachine) {
                m_machineTypes.insert(key, isMachine);
                done(isMachine);
            });
        },
        Failed(), UA_NS0ID_HASSUBTYPE, UA_BROWSEDIRECTION_INVERSE);
}

void OpcUaConnection::addMachine(const Reference &reference, const QString &name)
{
    auto machine = std::make_unique<WwMachine>();
    machine->name = name;
    machine->object = reference.node;
    machine->identification.Name = machine->name;
    machine->retry.setRange(m_itemBackoff.first(), m_itemBackoff.longest());
    WwMachine *raw = machine.get();
    m_machines.push_back(std::move(machine));
    walkMachine(raw);
}

void OpcUaConnection::walkMachine(WwMachine *machine)
{
    // Each browse below adds one to the count of walks under way; the last one to end subscribes.
    const int walk = ++machine->walk;
    auto pending = std::make_shared<int>(1);
    auto finished = [this, machine, walk, pending] {
        if (machine->walk == walk && --*pending == 0)
            subscribe(machine);
    };
    const QString &name = machine->name;
    walkBrowse(machine, walk, machine->object, name, [=](const References &children) {
        for (const Reference &child : children) {
            if (child.name == QLatin1String(WwModel::IdentificationName)) {
                ++*pending;
                walkBrowse(machine, walk, child.node, name + QStringLiteral("/Identification"),
                    [machine, finished](const References &properties) {
                        for (const Reference &property : properties) {
                            const int index = WwMachine::identificationNames().indexOf(property.name);
                            if (index >= 0 && property.nodeClass == UA_NODECLASS_VARIABLE)
                                machine->identificationNodes[index] = property.node;
                        }
                        finished();
                    });
            } else if (child.name == QLatin1String(WwModel::StateName)) {
                ++*pending;
                walkBrowse(machine, walk, child.node, name + QStringLiteral("/State"),
                    [this, machine, walk, finished, pending](const References &units) {
                        for (const Reference &unit : units) {
                            if (unit.name == QLatin1String(WwModel::MachineName)) {
                                ++*pending;
                                walkState(machine, walk, unit.node, finished);
                            }
                        }
                        finished();
                    });
            } else if (child.name == QLatin1String(WwModel::EventsName) && child.nodeClass == UA_NODECLASS_OBJECT) {
                machine->events = child.node;
            } else if (child.name == QLatin1String(WwModel::ManufacturerSpecificName)) {
                ++*pending;
                walkBrowse(machine, walk, child.node, name + QStringLiteral("/ManufacturerSpecific"),
                    [machine, finished](const References &variables) {
                        for (const Reference &variable : variables) {
                            if (variable.name == QLatin1String(WwModel::LastProgramNameName))
                                machine->lastProgramName = variable.node;
                        }
                        finished();
                    });
            }
        }
        finished();
    });
}

void OpcUaConnection::walkState(WwMachine *machine, int walk, const OpcUa::NodeId &unit, std::function<void()> done)
{
    const QString path = machine->name + QStringLiteral("/State/Machine");
    walkBrowse(machine, walk, unit, path, [this, machine, walk, path, done](const References &parts) {
        auto pending = std::make_shared<int>(1);
        auto finished = [pending, done] {
            if (--*pending == 0)
                done();
        };
        for (const Reference &part : parts) {
            const bool isFlags = part.name == QLatin1String(WwModel::FlagsName);
            const bool isValues = part.name == QLatin1String(WwModel::ValuesName);
            if (part.name != QLatin1String(WwModel::OverviewName) && !isFlags && !isValues)
                continue;
            machine->hasFlags = machine->hasFlags || isFlags;
            machine->hasValues = machine->hasValues || isValues;
            ++*pending;
            walkBrowse(machine, walk, part.node, path + QLatin1Char('/') + part.name,
                [machine, isFlags, isValues, finished](const References &variables) {
                    for (const Reference &variable : variables) {
                        if (variable.nodeClass != UA_NODECLASS_VARIABLE)
                            continue;
                        if (isFlags) {
                            const int index = WwMachine::flagNames().indexOf(variable.name);
                            if (index >= 0)
                                machine->flags[index] = variable.node;
                        } else if (isValues) {
                            const int index = WwMachine::valueNames().indexOf(variable.name);
                            if (index >= 0)
                                machine->values[index] = variable.node;
                        } else if (variable.name == QLatin1String(WwModel::CurrentStateName)) {
                            machine->currentState = variable.node;
                        } else if (variable.name == QLatin1String(WwModel::CurrentModeName)) {
                            machine->currentMode = variable.node;
                        }
                    }
                    finished();
                });
        }
        if (!machine->hasFlags)
            qCInfo(lc) << QStringLiteral("Machine %1 of %2 has no Flags").arg(machine->name, m_options.client.name);
        if (!machine->hasValues)
            qCInfo(lc) << QStringLiteral("Machine %1 of %2 has no Values").arg(machine->name, m_options.client.name);
        finished();
    });
}

void OpcUaConnection::walkBrowse(WwMachine *machine, int walk, const OpcUa::NodeId &node, const QString &path,
    std::function<void(const References &)> done)
{
    browse(
        node.get(),
        [machine, walk, done](const References &found) {
            if (machine->walk == walk)
                done(found);
        },
        [this, machine, walk, path](UA_StatusCode status) { walkFailed(machine, walk, path, status); });
}

void OpcUaConnection::walkFailed(WwMachine *machine, int walk, const QString &path, UA_StatusCode status)
{
    if (machine->walk != walk)
        return;
    // What the failed walk still receives is dropped; the machine starts again from its object.
    ++machine->walk;
    machine->clearNodes();
    const int pause = machine->retry.next();
    const QString text = QStringLiteral("Browsing %1 of %2 failed (%3, time-out %4 ms): machine %5 is tried again in "
                                        "%6 ms, the others go on")
                             .arg(path, m_options.client.name, OpcUa::statusName(status))
                             .arg(m_options.client.timeout)
                             .arg(machine->name)
                             .arg(pause);
    if (machine->retry.failures() == 1)
        qCWarning(lc) << text;
    else
        qCDebug(lc) << text;
    const int session = m_session;
    QTimer::singleShot(pause, this, [this, machine, session] {
        if (m_session == session)
            walkMachine(machine);
    });
}

void OpcUaConnection::browse(const UA_NodeId &node, std::function<void(const References &)> done, Failed failed,
    UA_UInt32 referenceType, UA_BrowseDirection direction)
{
    UA_BrowseDescription description;
    UA_BrowseDescription_init(&description);
    description.nodeId = node;
    description.browseDirection = direction;
    description.referenceTypeId = UA_NODEID_NUMERIC(0, referenceType);
    description.includeSubtypes = true;
    description.resultMask
        = UA_BROWSERESULTMASK_BROWSENAME | UA_BROWSERESULTMASK_NODECLASS | UA_BROWSERESULTMASK_TYPEDEFINITION;
    UA_BrowseRequest request;
    UA_BrowseRequest_init(&request);
    request.nodesToBrowse = &description;
    request.nodesToBrowseSize = 1;
    m_client.send(&request, UA_TYPES[UA_TYPES_BROWSEREQUEST], UA_TYPES[UA_TYPES_BROWSERESPONSE],
        [this, done, failed](void *result) {
            const auto *response = static_cast<const UA_BrowseResponse *>(result);
            if (response->responseHeader.serviceResult != UA_STATUSCODE_GOOD) {
                browseFailed(failed, response->responseHeader.serviceResult);
                return;
            }
            collect(response->resultsSize == 1 ? &response->results[0] : nullptr, References(), done, failed);
        });
}

void OpcUaConnection::browseFailed(const Failed &failed, UA_StatusCode status)
{
    if (failed)
        failed(status);
    else
        m_client.restart(status);
}

void OpcUaConnection::collect(
    const UA_BrowseResult *result, References found, std::function<void(const References &)> done, Failed failed)
{
    if (!result || result->statusCode != UA_STATUSCODE_GOOD) {
        done(found);
        return;
    }
    for (size_t i = 0; i < result->referencesSize; ++i) {
        const UA_ReferenceDescription &description = result->references[i];
        Reference reference;
        reference.node = OpcUa::NodeId(description.nodeId.nodeId);
        reference.name = OpcUa::text(description.browseName.name);
        reference.nodeClass = description.nodeClass;
        reference.typeDefinition = OpcUa::NodeId(description.typeDefinition.nodeId);
        found.append(reference);
    }
    if (result->continuationPoint.length == 0) {
        done(found);
        return;
    }
    // The server hands out long lists in parts.
    UA_BrowseNextRequest request;
    UA_BrowseNextRequest_init(&request);
    request.continuationPoints = const_cast<UA_ByteString *>(&result->continuationPoint);
    request.continuationPointsSize = 1;
    m_client.send(&request, UA_TYPES[UA_TYPES_BROWSENEXTREQUEST], UA_TYPES[UA_TYPES_BROWSENEXTRESPONSE],
        [this, found, done, failed](void *next) {
            const auto *response = static_cast<const UA_BrowseNextResponse *>(next);
            if (response->responseHeader.serviceResult != UA_STATUSCODE_GOOD) {
                browseFailed(failed, response->responseHeader.serviceResult);
                return;
            }
            collect(response->resultsSize == 1 ? &response->results[0] : nullptr, found, done, failed);
        });
}
