#include "opcuaconnection.h"

namespace {

// Sent in one call when the server names no limit; a server that still finds it too many gets halves.
constexpr int DefaultItemsPerCall = 1000;
// Attempts to create an item that the server refused for want of resources, before the machine goes on without it.
constexpr int ItemAttempts = 5;

/** Refusals that may pass when the server has more room: worth another attempt later. */
bool isResourceRefusal(UA_StatusCode status)
{
    switch (status) {
    case UA_STATUSCODE_BADTOOMANYOPERATIONS:
    case UA_STATUSCODE_BADTOOMANYMONITOREDITEMS:
    case UA_STATUSCODE_BADOUTOFMEMORY:
    case UA_STATUSCODE_BADRESOURCEUNAVAILABLE:
    case UA_STATUSCODE_BADTCPSERVERTOOBUSY:
    case UA_STATUSCODE_BADTIMEOUT:
        return true;
    default:
        return false;
    }
}

void later(QDateTime *newest, const QDateTime &time)
{
    if (!newest->isValid() || time > *newest)
        *newest = time;
}

} // namespace

void OpcUaConnection::subscribe(WwMachine *machine)
{
    if (machine->hasFlags)
        machine->state.Flags.emplace();
    if (machine->hasValues)
        machine->state.Values.emplace();

    // The items without which the record is wrong go first, so that a server's limits cut the optional ones.
    QVector<Item *> mandatory;
    QVector<Item *> optional;
    const auto add
        = [&](const OpcUa::NodeId &node, WwMachine::Field field, int index, const QString &path, bool isMandatory) {
              if (node.isNull())
                  return;
              m_items.push_back(std::make_unique<Item>(Item { this, machine, field, index, path, node, isMandatory }));
              (isMandatory ? mandatory : optional).append(m_items.back().get());
              if (field == WwMachine::Field::Identification)
                  ++machine->awaitingIdentification;
              else if (field != WwMachine::Field::LastProgramName)
                  ++machine->awaitingState;
          };
    add(machine->currentState, WwMachine::Field::CurrentState, 0, QStringLiteral("State/Machine/Overview/CurrentState"),
        true);
    add(machine->currentMode, WwMachine::Field::CurrentMode, 0, QStringLiteral("State/Machine/Overview/CurrentMode"),
        true);
    for (int i = 0; i < machine->flags.size(); ++i)
        add(machine->flags.at(i), WwMachine::Field::Flag, i,
            QStringLiteral("State/Machine/Flags/") + WwMachine::flagNames().at(i), WwMachine::isMandatoryFlag(i));
    for (int i = 0; i < machine->values.size(); ++i)
        add(machine->values.at(i), WwMachine::Field::Value, i,
            QStringLiteral("State/Machine/Values/") + WwMachine::valueNames().at(i), false);
    for (int i = 0; i < machine->identificationNodes.size(); ++i)
        add(machine->identificationNodes.at(i), WwMachine::Field::Identification, i,
            QStringLiteral("Identification/") + WwMachine::identificationNames().at(i),
            WwMachine::isMandatoryIdentification(i));
    add(machine->lastProgramName, WwMachine::Field::LastProgramName, 0,
        QStringLiteral("ManufacturerSpecific/LastProgramName"), false);
    if (machine->currentState.isNull()) {
        qCWarning(lc) << QStringLiteral("Machine %1 of %2 has no State/Machine/Overview/CurrentState")
                             .arg(machine->name, m_options.client.name);
    }
    // The events before the optional items: a message matters more than a counter.
    subscribeEvents(machine);
    createItems(mandatory + optional);
}

void OpcUaConnection::createItems(const QVector<Item *> &items)
{
    const quint32 limit = m_client.limits().maxMonitoredItemsPerCall;
    const int perCall = m_itemsPerCall > 0 ? m_itemsPerCall
        : limit > 0                        ? int(qMin<quint32>(limit, DefaultItemsPerCall))
                                           : DefaultItemsPerCall;
    for (int first = 0; first < items.size(); first += perCall)
        sendItems(items.mid(first, perCall));
}

void OpcUaConnection::sendItems(const QVector<Item *> &items)
{
    QVector<UA_MonitoredItemCreateRequest> requests;
    QVector<void *> contexts;
    QVector<UA_Client_DataChangeNotificationCallback> callbacks;
    requests.reserve(items.size());
    for (Item *item : items) {
        UA_MonitoredItemCreateRequest request = UA_MonitoredItemCreateRequest_default(item->node.get());
        // Sampled twice per publishing interval, so that a change shows in the next notification.
        request.requestedParameters.samplingInterval = m_options.publishingInterval / 2.0;
        requests.append(request);
        contexts.append(item);
        callbacks.append(dataChangeCallback);
    }
    UA_CreateMonitoredItemsRequest request;
    UA_CreateMonitoredItemsRequest_init(&request);
    request.subscriptionId = m_subscription;
    request.timestampsToReturn = UA_TIMESTAMPSTORETURN_BOTH;
    request.itemsToCreate = requests.data();
    request.itemsToCreateSize = size_t(requests.size());
    m_client.createDataChanges(request, contexts.data(), callbacks.data(), [this, items](void *result) {
        itemsCreated(items, *static_cast<const UA_CreateMonitoredItemsResponse *>(result));
    });
}

void OpcUaConnection::itemsCreated(const QVector<Item *> &items, const UA_CreateMonitoredItemsResponse &response)
{
    const UA_StatusCode service = response.responseHeader.serviceResult;
    if (service == UA_STATUSCODE_BADTOOMANYOPERATIONS && items.size() > 1) {
        // A server that announces no limit, or a smaller one than it keeps: halves until they fit.
        m_itemsPerCall = items.size() / 2;
        createItems(items);
        return;
    }
    QVector<WwMachine *> gaveUp;
    for (int i = 0; i < items.size(); ++i) {
        Item *item = items.at(i);
        const UA_StatusCode status = size_t(i) < response.resultsSize ? response.results[i].statusCode : service;
        if (status == UA_STATUSCODE_GOOD) {
            item->monitored = true;
            continue;
        }
        WwMachine *machine = item->machine;
        if (!isResourceRefusal(status)) {
            qCWarning(lc) << QStringLiteral("%1 of machine %2 can't be monitored (%3)")
                                 .arg(item->path, machine->name, OpcUa::statusName(status));
            release(item);
            continue;
        }
        if (++item->attempts < ItemAttempts) {
            // The record goes out without an optional item meanwhile; it joins once the server takes it.
            if (!item->mandatory)
                release(item);
            m_refused.append(item);
            continue;
        }
        release(item);
        machine->givenUp << item->path;
        machine->givenUpReason = OpcUa::statusName(status);
        if (!gaveUp.contains(machine))
            gaveUp.append(machine);
    }
    for (WwMachine *machine : qAsConst(gaveUp)) {
        qCWarning(lc) << QStringLiteral("Machine %1 of %2 goes on without %3: the server refused to monitor them (%4)")
                             .arg(machine->name, m_options.client.name, machine->givenUp.join(QStringLiteral(", ")),
                                 machine->givenUpReason);
        machine->givenUp.clear();
    }
    if (m_refused.isEmpty())
        m_itemBackoff.reset();
    else if (!m_itemRetry.isActive())
        m_itemRetry.start(m_itemBackoff.next());
}

void OpcUaConnection::retryItems()
{
    const QVector<Item *> items = std::move(m_refused);
    m_refused.clear();
    createItems(items);
}

void OpcUaConnection::release(Item *item)
{
    if (!item->awaitingFirst)
        return;
    item->awaitingFirst = false;
    if (item->field == WwMachine::Field::Identification)
        --item->machine->awaitingIdentification;
    else if (item->field != WwMachine::Field::LastProgramName)
        --item->machine->awaitingState;
    queue(item->machine);
}

void OpcUaConnection::dataChangeCallback(
    UA_Client *, UA_UInt32, void *, UA_UInt32, void *itemContext, UA_DataValue *value)
{
    auto *item = static_cast<Item *>(itemContext);
    item->connection->valueChanged(item, *value);
}

void OpcUaConnection::valueChanged(Item *item, const UA_DataValue &value)
{
    WwMachine &machine = *item->machine;
    UA_Variant none;
    UA_Variant_init(&none);
    const bool usable = value.hasValue && !(value.hasStatus && UA_StatusCode_isBad(value.status));
    if (!machine.set(item->field, item->index, usable ? value.value : none)) {
        if (!machine.mistyped.contains(item->path)) {
            machine.mistyped.insert(item->path);
            qCWarning(lc) << QStringLiteral("Skipped %1 of machine %2: a value of type %3 does not fit")
                                 .arg(item->path, machine.name, QString::fromLatin1(value.value.type->typeName));
        }
    }
    const QDateTime time = value.hasSourceTimestamp ? WwMachine::toDateTime(value.sourceTimestamp)
        : value.hasServerTimestamp                  ? WwMachine::toDateTime(value.serverTimestamp)
                                                    : QDateTime::currentDateTimeUtc();
    switch (item->field) {
    case WwMachine::Field::Identification:
        machine.identificationChanged = true;
        later(&machine.identificationTime, time);
        if (item->awaitingFirst)
            --machine.awaitingIdentification;
        break;
    case WwMachine::Field::LastProgramName:
        machine.programChanged = true;
        later(&machine.programTime, time);
        break;
    default:
        machine.stateChanged = true;
        later(&machine.stateTime, time);
        if (item->awaitingFirst)
            --machine.awaitingState;
        break;
    }
    item->awaitingFirst = false;
    queue(&machine);
}
