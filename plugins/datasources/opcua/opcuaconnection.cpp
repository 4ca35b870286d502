#include "opcuaconnection.h"

#include "wwmodel.h"

#include <open62541/nodeids.h>

namespace {

// Type definitions are followed up this many subtype steps to find WwMachineType.
constexpr int MaxTypeDepth = 8;
constexpr UA_UInt32 EventQueueSize = 1000;

/** The fields of a WwBaseEventType that a notification needs, in the order of the select clauses. */
enum EventField {
    EventMessage,
    EventMessageId,
    EventCategory,
    EventLocalizedMessages,
    EventPathParts,
    EventGroup,
    EventMessageName,
    EventTime,
    EventSourceName,
    EventFieldCount
};

QDateTime toDateTime(UA_DateTime time)
{
    return QDateTime::fromMSecsSinceEpoch((time - UA_DATETIME_UNIX_EPOCH) / UA_DATETIME_MSEC, Qt::UTC);
}

QString scalarText(const UA_Variant &value)
{
    if (UA_Variant_hasScalarType(&value, &UA_TYPES[UA_TYPES_STRING]))
        return OpcUa::text(*static_cast<const UA_String *>(value.data));
    if (UA_Variant_hasScalarType(&value, &UA_TYPES[UA_TYPES_LOCALIZEDTEXT]))
        return OpcUa::text(static_cast<const UA_LocalizedText *>(value.data)->text);
    return QString();
}

} // namespace

OpcUaConnection::OpcUaConnection(
    const Options &options, const QLoggingCategory &category, const QLoggingCategory &library, QObject *parent)
    : QObject(parent)
    , m_options(options)
    , m_category(category)
    , m_client(category, library)
{
    m_itemRetry.setSingleShot(true);
    connect(&m_itemRetry, &QTimer::timeout, this, &OpcUaConnection::retryItems);
    connect(&m_client, &OpcUaClient::connected, this, &OpcUaConnection::connected);
    connect(&m_client, &OpcUaClient::disconnected, this, &OpcUaConnection::disconnected);
    connect(&m_client, &OpcUaClient::iterated, this, &OpcUaConnection::flush);
}

OpcUaConnection::~OpcUaConnection()
{
    // The library's client goes first, so that no callback reaches the machines after them.
    m_client.close();
}

void OpcUaConnection::open()
{
    m_client.open(m_options.client);
}

void OpcUaConnection::connected()
{
    createSubscription();
}

void OpcUaConnection::disconnected()
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    for (const auto &machine : m_machines) {
        if (!machine->online)
            continue;
        // One offline state per machine tells the chain that nothing is known of it until the connection is back.
        emit dataReceived(
            stateStamp(machine->name, now), machine->name, m_options.source, QVariant::fromValue(WwState()));
    }
    m_itemRetry.stop();
    m_refused.clear();
    m_itemBackoff.reset();
    m_itemsPerCall = 0;
    m_items.clear();
    m_queued.clear();
    m_machines.clear();
    m_events.clear();
    m_subscription = 0;
}

void OpcUaConnection::createSubscription()
{
    UA_CreateSubscriptionRequest request = UA_CreateSubscriptionRequest_default();
    request.requestedPublishingInterval = m_options.publishingInterval;
    m_client.createSubscription(request, [this](void *result) {
        const auto *response = static_cast<const UA_CreateSubscriptionResponse *>(result);
        if (response->responseHeader.serviceResult != UA_STATUSCODE_GOOD) {
            qCWarning(lc) << QStringLiteral("%1 refused a subscription (%2)")
                                 .arg(m_options.client.name, OpcUa::statusName(response->responseHeader.serviceResult));
            m_client.restart(response->responseHeader.serviceResult);
            return;
        }
        m_subscription = response->subscriptionId;
        readNamespaces();
    });
}

void OpcUaConnection::readNamespaces()
{
    UA_ReadValueId toRead;
    UA_ReadValueId_init(&toRead);
    toRead.nodeId = UA_NODEID_NUMERIC(0, UA_NS0ID_SERVER_NAMESPACEARRAY);
    toRead.attributeId = UA_ATTRIBUTEID_VALUE;
    UA_ReadRequest request;
    UA_ReadRequest_init(&request);
    request.nodesToRead = &toRead;
    request.nodesToReadSize = 1;
    m_client.send(&request, UA_TYPES[UA_TYPES_READREQUEST], UA_TYPES[UA_TYPES_READRESPONSE], [this](void *result) {
        const auto *response = static_cast<const UA_ReadResponse *>(result);
        QStringList namespaces;
        if (response->responseHeader.serviceResult == UA_STATUSCODE_GOOD && response->resultsSize == 1
            && response->results[0].hasValue && response->results[0].value.type == &UA_TYPES[UA_TYPES_STRING]) {
            const UA_Variant &array = response->results[0].value;
            for (size_t i = 0; i < array.arrayLength; ++i)
                namespaces << OpcUa::text(static_cast<const UA_String *>(array.data)[i]);
        }
        m_woodworking = UA_UInt16(qMax(0, namespaces.indexOf(QLatin1String(WwModel::WoodworkingUri))));
        m_machinery = UA_UInt16(qMax(0, namespaces.indexOf(QLatin1String(WwModel::MachineryUri))));
        if (m_woodworking == 0) {
            if (!m_namespaceWarned) {
                qCWarning(lc) << QStringLiteral("%1 lacks the namespace %2: it serves no woodworking machines")
                                     .arg(m_options.client.name, QLatin1String(WwModel::WoodworkingUri));
            }
            m_namespaceWarned = true;
            return;
        }
        m_namespaceWarned = false;
        findMachinesFolder();
    });
}

void OpcUaConnection::findMachinesFolder()
{
    if (m_machinery != 0) {
        findMachines(OpcUa::NodeId(UA_NODEID_NUMERIC(m_machinery, WwModel::MachineryMachines)));
        return;
    }
    // A server without the Machinery namespace may still organise its machines in a folder called Machines.
    browse(UA_NODEID_NUMERIC(0, UA_NS0ID_OBJECTSFOLDER), [this](const References &objects) {
        for (const Reference &object : objects) {
            if (object.name == QLatin1String(WwModel::MachinesName)) {
                findMachines(object.node);
                return;
            }
        }
        qCWarning(lc) << QStringLiteral("%1 has no Machines folder: it serves no woodworking machines")
                             .arg(m_options.client.name);
    });
}

void OpcUaConnection::findMachines(const OpcUa::NodeId &folder)
{
    browse(folder.get(), [this](const References &children) {
        QStringList found;
        for (const Reference &child : children) {
            if (child.nodeClass != UA_NODECLASS_OBJECT)
                continue;
            if (!m_options.machines.isEmpty() && !m_options.machines.contains(child.name))
                continue;
            found << child.name;
            checkType(child.typeDefinition, 0, [this, child](bool isMachine) {
                if (isMachine)
                    addMachine(child);
                else
                    qCDebug(lc) << QStringLiteral("%1 of %2 is not a woodworking machine")
                                       .arg(child.name, m_options.client.name);
            });
        }
        for (const QString &wanted : qAsConst(m_options.machines)) {
            if (!found.contains(wanted)) {
                qCWarning(lc)
                    << QStringLiteral("Machine %1 is not among the machines of %2").arg(wanted, m_options.client.name);
            }
        }
    });
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
        UA_NS0ID_HASSUBTYPE, UA_BROWSEDIRECTION_INVERSE);
}

void OpcUaConnection::addMachine(const Reference &reference)
{
    auto machine = std::make_unique<WwMachine>();
    machine->name = m_options.renames.value(reference.name, reference.name);
    machine->object = reference.node;
    machine->identification.Name = machine->name;
    WwMachine *raw = machine.get();
    m_machines.push_back(std::move(machine));
    walkMachine(raw);
}

void OpcUaConnection::walkMachine(WwMachine *machine)
{
    // Each browse below adds one to the count of walks under way; the last one to end subscribes.
    auto pending = std::make_shared<int>(1);
    auto finished = [this, machine, pending] {
        if (--*pending == 0)
            subscribe(machine);
    };
    browse(machine->object.get(), [this, machine, pending, finished](const References &children) {
        for (const Reference &child : children) {
            if (child.name == QLatin1String(WwModel::IdentificationName)) {
                ++*pending;
                browse(child.node.get(), [machine, finished](const References &properties) {
                    for (const Reference &property : properties) {
                        const int index = WwMachine::identificationNames().indexOf(property.name);
                        if (index >= 0 && property.nodeClass == UA_NODECLASS_VARIABLE)
                            machine->identificationNodes[index] = property.node;
                    }
                    finished();
                });
            } else if (child.name == QLatin1String(WwModel::StateName)) {
                ++*pending;
                browse(child.node.get(), [this, machine, finished, pending](const References &units) {
                    for (const Reference &unit : units) {
                        if (unit.name == QLatin1String(WwModel::MachineName)) {
                            ++*pending;
                            walkState(machine, unit.node, finished);
                        }
                    }
                    finished();
                });
            } else if (child.name == QLatin1String(WwModel::EventsName) && child.nodeClass == UA_NODECLASS_OBJECT) {
                machine->events = child.node;
            } else if (child.name == QLatin1String(WwModel::ManufacturerSpecificName)) {
                ++*pending;
                browse(child.node.get(), [machine, finished](const References &variables) {
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

void OpcUaConnection::walkState(WwMachine *machine, const OpcUa::NodeId &unit, std::function<void()> done)
{
    browse(unit.get(), [this, machine, done](const References &parts) {
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
            browse(part.node.get(), [machine, isFlags, isValues, finished](const References &variables) {
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

void OpcUaConnection::subscribeEvents(WwMachine *machine)
{
    const OpcUa::NodeId notifier = machine->events.isNull() ? machine->object : machine->events;
    const UA_NodeId baseEvent = UA_NODEID_NUMERIC(0, UA_NS0ID_BASEEVENTTYPE);
    const UA_NodeId wwEvent = UA_NODEID_NUMERIC(m_woodworking, WwModel::WwBaseEventType);
    struct Select
    {
        const UA_NodeId *type;
        UA_UInt16 ns;
        const char *name;
    };
    const Select fields[EventFieldCount] = {
        { &baseEvent, 0, "Message" },
        { &wwEvent, m_woodworking, "MessageId" },
        { &wwEvent, m_woodworking, "EventCategory" },
        { &wwEvent, m_woodworking, "LocalizedMessages" },
        { &wwEvent, m_woodworking, "PathParts" },
        { &wwEvent, m_woodworking, "Group" },
        { &wwEvent, m_woodworking, "MessageName" },
        { &baseEvent, 0, "Time" },
        { &baseEvent, 0, "SourceName" },
    };
    UA_QualifiedName names[EventFieldCount];
    UA_SimpleAttributeOperand select[EventFieldCount];
    for (int i = 0; i < EventFieldCount; ++i) {
        names[i] = UA_QUALIFIEDNAME(fields[i].ns, const_cast<char *>(fields[i].name));
        UA_SimpleAttributeOperand_init(&select[i]);
        select[i].typeDefinitionId = *fields[i].type;
        select[i].browsePath = &names[i];
        select[i].browsePathSize = 1;
        select[i].attributeId = UA_ATTRIBUTEID_VALUE;
    }
    UA_EventFilter filter;
    UA_EventFilter_init(&filter);
    filter.selectClauses = select;
    filter.selectClausesSize = EventFieldCount;

    m_items.push_back(std::make_unique<Item>(
        Item { this, machine, WwMachine::Field::Events, 0, QStringLiteral("Events"), notifier, false }));
    void *context = m_items.back().get();
    UA_MonitoredItemCreateRequest item;
    UA_MonitoredItemCreateRequest_init(&item);
    item.itemToMonitor.nodeId = notifier.get();
    item.itemToMonitor.attributeId = UA_ATTRIBUTEID_EVENTNOTIFIER;
    item.monitoringMode = UA_MONITORINGMODE_REPORTING;
    item.requestedParameters.samplingInterval = 0;
    item.requestedParameters.queueSize = EventQueueSize;
    item.requestedParameters.discardOldest = true;
    item.requestedParameters.filter.encoding = UA_EXTENSIONOBJECT_DECODED;
    item.requestedParameters.filter.content.decoded.type = &UA_TYPES[UA_TYPES_EVENTFILTER];
    item.requestedParameters.filter.content.decoded.data = &filter;

    UA_CreateMonitoredItemsRequest request;
    UA_CreateMonitoredItemsRequest_init(&request);
    request.subscriptionId = m_subscription;
    request.timestampsToReturn = UA_TIMESTAMPSTORETURN_BOTH;
    request.itemsToCreate = &item;
    request.itemsToCreateSize = 1;
    UA_Client_EventNotificationCallback callback = eventCallback;
    m_client.createEvents(request, &context, &callback, [this, machine](void *result) {
        const auto *response = static_cast<const UA_CreateMonitoredItemsResponse *>(result);
        const UA_StatusCode status
            = response->resultsSize == 1 ? response->results[0].statusCode : response->responseHeader.serviceResult;
        if (status != UA_STATUSCODE_GOOD) {
            qCWarning(lc) << QStringLiteral("The events of machine %1 of %2 can't be monitored (%3)")
                                 .arg(machine->name, m_options.client.name, OpcUa::statusName(status));
        }
    });
}

void OpcUaConnection::browse(const UA_NodeId &node, std::function<void(const References &)> done)
{
    browse(node, std::move(done), UA_NS0ID_HIERARCHICALREFERENCES, UA_BROWSEDIRECTION_FORWARD);
}

void OpcUaConnection::browse(const UA_NodeId &node, std::function<void(const References &)> done,
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
    m_client.send(
        &request, UA_TYPES[UA_TYPES_BROWSEREQUEST], UA_TYPES[UA_TYPES_BROWSERESPONSE], [this, done](void *result) {
            const auto *response = static_cast<const UA_BrowseResponse *>(result);
            if (response->responseHeader.serviceResult != UA_STATUSCODE_GOOD) {
                m_client.restart(response->responseHeader.serviceResult);
                return;
            }
            collect(response->resultsSize == 1 ? &response->results[0] : nullptr, References(), done);
        });
}

void OpcUaConnection::collect(
    const UA_BrowseResult *result, References found, std::function<void(const References &)> done)
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
        [this, found, done](void *next) {
            const auto *response = static_cast<const UA_BrowseNextResponse *>(next);
            if (response->responseHeader.serviceResult != UA_STATUSCODE_GOOD) {
                m_client.restart(response->responseHeader.serviceResult);
                return;
            }
            collect(response->resultsSize == 1 ? &response->results[0] : nullptr, found, done);
        });
}

void OpcUaConnection::queue(WwMachine *machine)
{
    if (machine->queued)
        return;
    machine->queued = true;
    m_queued.append(machine);
}

void OpcUaConnection::eventCallback(
    UA_Client *, UA_UInt32, void *, UA_UInt32, void *itemContext, size_t count, UA_Variant *fields)
{
    auto *item = static_cast<Item *>(itemContext);
    item->connection->eventArrived(item->machine, count, fields);
}

void OpcUaConnection::eventArrived(WwMachine *machine, size_t count, const UA_Variant *fields)
{
    if (count != EventFieldCount)
        return;
    WwBaseEventType event;
    event.Id = scalarText(fields[EventMessageId]);
    if (event.Id.isEmpty()) {
        qCDebug(lc) << QStringLiteral("An event of machine %1 without a MessageId is no woodworking message")
                           .arg(machine->name);
        return;
    }
    event.Message = scalarText(fields[EventMessage]);
    const UA_Variant &category = fields[EventCategory];
    if (UA_Variant_isScalar(&category) && category.type->memSize == sizeof(UA_Int32)
        && (category.type->typeKind == UA_DATATYPEKIND_INT32 || category.type->typeKind == UA_DATATYPEKIND_ENUM))
        event.Category = *static_cast<const UA_Int32 *>(category.data);
    const UA_Variant &texts = fields[EventLocalizedMessages];
    if (texts.type == &UA_TYPES[UA_TYPES_LOCALIZEDTEXT]) {
        const auto *localized = static_cast<const UA_LocalizedText *>(texts.data);
        const size_t length = UA_Variant_isScalar(&texts) ? 1 : texts.arrayLength;
        for (size_t i = 0; i < length; ++i)
            event.Texts.insert(OpcUa::text(localized[i].locale), OpcUa::text(localized[i].text));
    }
    // A message without texts in several languages still has its own.
    if (event.Texts.isEmpty() && UA_Variant_hasScalarType(&fields[EventMessage], &UA_TYPES[UA_TYPES_LOCALIZEDTEXT])) {
        const auto *message = static_cast<const UA_LocalizedText *>(fields[EventMessage].data);
        event.Texts.insert(OpcUa::text(message->locale), OpcUa::text(message->text));
    }
    const UA_Variant &path = fields[EventPathParts];
    if (path.type == &UA_TYPES[UA_TYPES_STRING]) {
        const auto *parts = static_cast<const UA_String *>(path.data);
        const size_t length = UA_Variant_isScalar(&path) ? 1 : path.arrayLength;
        for (size_t i = 0; i < length; ++i)
            event.Path << OpcUa::text(parts[i]);
    }
    event.Text5 = scalarText(fields[EventGroup]);
    event.Text6 = scalarText(fields[EventMessageName]);
    event.Text7 = scalarText(fields[EventSourceName]);
    const QDateTime time = UA_Variant_hasScalarType(&fields[EventTime], &UA_TYPES[UA_TYPES_DATETIME])
        ? toDateTime(*static_cast<const UA_DateTime *>(fields[EventTime].data))
        : QDateTime::currentDateTimeUtc();
    m_events.append(ArrivedEvent { machine, time, event });
}

QDateTime OpcUaConnection::stateStamp(const QString &machine, const QDateTime &time)
{
    // Source time stamps after a reconnect may be older than the offline state sent when the connection went.
    QDateTime &last = m_lastStates[machine];
    if (!last.isValid() || time > last)
        last = time;
    return last;
}

void OpcUaConnection::flush()
{
    const QString &source = m_options.source;
    // The state first: the chain passes on the condition definitions of the first list it sees of a machine at once,
    // and those of the flags and values matter most.
    int waiting = 0;
    for (WwMachine *machine : qAsConst(m_queued)) {
        if (machine->stateChanged && machine->awaitingState == 0) {
            machine->stateChanged = false;
            machine->online = true;
            emit dataReceived(stateStamp(machine->name, machine->stateTime), machine->name, source,
                QVariant::fromValue(machine->state));
            machine->stateTime = QDateTime();
        }
        if (machine->identificationChanged && machine->awaitingIdentification == 0) {
            machine->identificationChanged = false;
            emit dataReceived(
                machine->identificationTime, machine->name, source, QVariant::fromValue(machine->identification));
            machine->identificationTime = QDateTime();
        }
        if (machine->programChanged) {
            machine->programChanged = false;
            emit dataReceived(
                machine->programTime, machine->name, source, QVariant::fromValue(machine->manufacturerSpecific));
            machine->programTime = QDateTime();
        }
        // A record still waiting for its first values keeps the machine in the list.
        machine->queued = machine->stateChanged || machine->identificationChanged;
        if (machine->queued)
            m_queued[waiting++] = machine;
    }
    m_queued.resize(waiting);
    if (m_events.isEmpty())
        return;
    const QVector<ArrivedEvent> events = std::move(m_events);
    m_events.clear();
    for (const ArrivedEvent &arrived : events)
        emit dataReceived(arrived.time, arrived.machine->name, source, QVariant::fromValue(arrived.event));
}
