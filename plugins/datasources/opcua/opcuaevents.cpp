#include "opcuaconnection.h"

#include "wwmodel.h"

#include <open62541/nodeids.h>

namespace {

constexpr UA_UInt32 EventQueueSize = 1000;
// Texts and paths from the server are bounded, as is their number.
constexpr size_t MaxArrayLength = 256;

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
    EventId,
    EventSourceNode,
    EventFieldCount
};

QString scalarText(const UA_Variant &value)
{
    if (UA_Variant_hasScalarType(&value, &UA_TYPES[UA_TYPES_STRING]))
        return WwMachine::boundedText(*static_cast<const UA_String *>(value.data));
    if (UA_Variant_hasScalarType(&value, &UA_TYPES[UA_TYPES_LOCALIZEDTEXT]))
        return WwMachine::boundedText(static_cast<const UA_LocalizedText *>(value.data)->text);
    return QString();
}

/** A MessageId as text: strings as they are, numbers, qualified names, node ids and GUIDs in their text form. */
bool messageIdText(const UA_Variant &value, QString *text)
{
    if (UA_Variant_isEmpty(&value) || !UA_Variant_isScalar(&value))
        return false;
    switch (value.type->typeKind) {
    case UA_DATATYPEKIND_STRING:
    case UA_DATATYPEKIND_LOCALIZEDTEXT:
        *text = scalarText(value);
        return true;
    case UA_DATATYPEKIND_QUALIFIEDNAME:
        *text = WwMachine::boundedText(static_cast<const UA_QualifiedName *>(value.data)->name);
        return true;
    case UA_DATATYPEKIND_SBYTE:
    case UA_DATATYPEKIND_BYTE:
    case UA_DATATYPEKIND_INT16:
    case UA_DATATYPEKIND_UINT16:
    case UA_DATATYPEKIND_INT32:
    case UA_DATATYPEKIND_UINT32:
    case UA_DATATYPEKIND_INT64:
    case UA_DATATYPEKIND_UINT64:
    case UA_DATATYPEKIND_ENUM:
    case UA_DATATYPEKIND_GUID:
    case UA_DATATYPEKIND_NODEID: {
        UA_String printed = UA_STRING_NULL;
        UA_print(value.data, value.type, &printed);
        *text = OpcUa::text(printed);
        UA_String_clear(&printed);
        return true;
    }
    default:
        return false;
    }
}

} // namespace

void OpcUaConnection::subscribeEvents(WwMachine *machine)
{
    // Servers raise a machine's events at its Events object, at the machine itself, or only at the Server object
    // with the machine as SourceNode: all three are monitored and the EventId tells the copies apart.
    m_machinesByNode.insert(OpcUa::nodeText(machine->object.get()), machine);
    QVector<OpcUa::NodeId> notifiers { machine->object };
    if (!machine->events.isNull()) {
        m_machinesByNode.insert(OpcUa::nodeText(machine->events.get()), machine);
        notifiers.append(machine->events);
    }
    createEventItems(machine, notifiers);
}

void OpcUaConnection::createEventItems(WwMachine *machine, const QVector<OpcUa::NodeId> &notifiers)
{
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
        { &baseEvent, 0, "EventId" },
        { &baseEvent, 0, "SourceNode" },
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

    // A notifier that is none (a machine object without events) is refused; only all of them refused is a warning.
    struct Outcome
    {
        int pending;
        int monitored = 0;
        UA_StatusCode refusal = UA_STATUSCODE_GOOD;
    };
    auto outcome = std::make_shared<Outcome>(Outcome { notifiers.size() });
    for (const OpcUa::NodeId &notifier : notifiers) {
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
        m_client.createEvents(request, &context, &callback, [this, machine, outcome](void *result) {
            const auto *response = static_cast<const UA_CreateMonitoredItemsResponse *>(result);
            const UA_StatusCode status
                = response->resultsSize == 1 ? response->results[0].statusCode : response->responseHeader.serviceResult;
            if (status == UA_STATUSCODE_GOOD)
                ++outcome->monitored;
            else if (outcome->refusal == UA_STATUSCODE_GOOD)
                outcome->refusal = status;
            if (--outcome->pending > 0 || outcome->monitored > 0)
                return;
            const QString reason = OpcUa::statusName(outcome->refusal);
            if (machine) {
                qCWarning(lc) << QStringLiteral("The events of machine %1 of %2 can't be monitored (%3)")
                                     .arg(machine->name, m_options.client.name, reason);
            } else {
                qCDebug(lc) << QStringLiteral("The events of the Server object of %1 can't be monitored (%2)")
                                   .arg(m_options.client.name, reason);
            }
        });
    }
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
    if (!machine) {
        // Raised at the Server object: the SourceNode names the machine, or it is none of them.
        const UA_Variant &source = fields[EventSourceNode];
        if (!UA_Variant_hasScalarType(&source, &UA_TYPES[UA_TYPES_NODEID]))
            return;
        machine = m_machinesByNode.value(OpcUa::nodeText(*static_cast<const UA_NodeId *>(source.data)));
        if (!machine)
            return;
    }
    WwBaseEventType event;
    if (!messageIdText(fields[EventMessageId], &event.Id)) {
        const UA_Variant &id = fields[EventMessageId];
        if (UA_Variant_isEmpty(&id)) {
            qCDebug(lc) << QStringLiteral("An event of machine %1 without a MessageId is no woodworking message")
                               .arg(machine->name);
        } else {
            const QString type = QString::fromLatin1(id.type->typeName);
            if (!m_messageIdTypes.contains(type)) {
                m_messageIdTypes.insert(type);
                qCWarning(lc) << QStringLiteral("Left out the events of %1 whose MessageId is a %2, which has no text "
                                                "form (first seen at machine %3)")
                                     .arg(m_options.client.name, type, machine->name);
            }
        }
        return;
    }
    const UA_Variant &eventId = fields[EventId];
    if (UA_Variant_hasScalarType(&eventId, &UA_TYPES[UA_TYPES_BYTESTRING])) {
        const auto *bytes = static_cast<const UA_ByteString *>(eventId.data);
        if (!machine->isNewEvent(QByteArray(reinterpret_cast<const char *>(bytes->data), int(bytes->length))))
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
        const size_t length = qMin(UA_Variant_isScalar(&texts) ? 1 : texts.arrayLength, MaxArrayLength);
        for (size_t i = 0; i < length; ++i)
            event.Texts.insert(WwMachine::boundedText(localized[i].locale), WwMachine::boundedText(localized[i].text));
    }
    // A message without texts in several languages still has its own.
    if (event.Texts.isEmpty() && UA_Variant_hasScalarType(&fields[EventMessage], &UA_TYPES[UA_TYPES_LOCALIZEDTEXT])) {
        const auto *message = static_cast<const UA_LocalizedText *>(fields[EventMessage].data);
        event.Texts.insert(WwMachine::boundedText(message->locale), WwMachine::boundedText(message->text));
    }
    const UA_Variant &path = fields[EventPathParts];
    if (path.type == &UA_TYPES[UA_TYPES_STRING]) {
        const auto *parts = static_cast<const UA_String *>(path.data);
        const size_t length = qMin(UA_Variant_isScalar(&path) ? 1 : path.arrayLength, MaxArrayLength);
        for (size_t i = 0; i < length; ++i)
            event.Path << WwMachine::boundedText(parts[i]);
    }
    event.Text5 = scalarText(fields[EventGroup]);
    event.Text6 = scalarText(fields[EventMessageName]);
    event.Text7 = scalarText(fields[EventSourceName]);
    const QDateTime time = UA_Variant_hasScalarType(&fields[EventTime], &UA_TYPES[UA_TYPES_DATETIME])
        ? WwMachine::toDateTime(*static_cast<const UA_DateTime *>(fields[EventTime].data))
        : QDateTime::currentDateTimeUtc();
    m_events.append(ArrivedEvent { machine, time, event });
}
