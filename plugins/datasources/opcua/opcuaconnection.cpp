#include "opcuaconnection.h"

#include "wwmodel.h"

#include <open62541/nodeids.h>

namespace {

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
    ++m_session;
    m_machinesByNode.clear();
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
        const UA_StatusCode status = response->responseHeader.serviceResult;
        if (status != UA_STATUSCODE_GOOD) {
            // A slow server is not one without the namespace: say what happened and start again.
            qCWarning(lc) << QStringLiteral("Reading the namespace array (i=2255) of %1 failed (%2, time-out %3 ms)")
                                 .arg(m_options.client.name, OpcUa::statusName(status))
                                 .arg(m_options.client.timeout);
            m_client.restart(status);
            return;
        }
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
        discover();
    });
}

void OpcUaConnection::queue(WwMachine *machine)
{
    if (machine->queued)
        return;
    machine->queued = true;
    m_queued.append(machine);
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
    int waiting = 0;
    for (WwMachine *machine : qAsConst(m_queued)) {
        const bool stateDue = machine->stateChanged && machine->awaitingState == 0;
        const bool nameplateDue = machine->identificationChanged && machine->awaitingIdentification == 0;
        if ((stateDue || nameplateDue) && !machine->defined) {
            // Limit passes the first list of a machine's definitions at once and holds a later one within its wait
            // time: all of them in one list, before the first record.
            machine->defined = true;
            const QDateTime time = stateDue ? machine->stateTime : machine->identificationTime;
            emit dataReceived(time, machine->name, source, QVariant::fromValue(machine->definitions(time)));
        }
        if (stateDue) {
            machine->stateChanged = false;
            machine->online = true;
            emit dataReceived(stateStamp(machine->name, machine->stateTime), machine->name, source,
                QVariant::fromValue(machine->state));
            machine->stateTime = QDateTime();
        }
        if (nameplateDue) {
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
