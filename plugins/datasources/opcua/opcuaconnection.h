#ifndef ORVIX_OPCUACONNECTION_H
#define ORVIX_OPCUACONNECTION_H

#include "opcuaclient.h"
#include "wwmachine.h"

#include <QDateTime>
#include <QHash>
#include <QLoggingCategory>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVariant>
#include <QVector>

#include <open62541/nodeids.h>

#include <functional>
#include <memory>
#include <vector>

/**
 * One OPC UA server of the opcua datasource: it finds the woodworking machines by browsing (the Machines folder,
 * else a bounded search below Objects), subscribes to their state, nameplate, last program and events, and turns what
 * arrives into the datasets of the woodworking model. Browsing and subscribing start again after every reconnect.
 */
class OpcUaConnection : public QObject
{
    Q_OBJECT
public:
    /** Which machine of which connection a name of the datasets belongs to. */
    struct MachineName
    {
        /** The connection and the machine's node, as text. */
        QString owner;
        /** The machine for a log line: "machine Saw1 of line1". */
        QString description;
    };
    /** The names given out, shared by the connections of one datasource so that no two machines share one. */
    using MachineNames = QHash<QString, MachineName>;

    /** How deep below Objects and how many objects the search for machines outside a Machines folder looks. */
    static constexpr int MaxSearchDepth = 5;
    static constexpr int MaxSearchNodes = 2000;

    struct Options
    {
        OpcUaClient::Options client;
        /** The datasets' source. */
        QString source;
        /** Browse names of the machines to read; empty reads every machine. */
        QStringList machines;
        /** Browse name to the name the datasets carry. */
        QHash<QString, QString> renames;
        int publishingInterval = 1000;
        std::shared_ptr<MachineNames> names = std::make_shared<MachineNames>();
    };

    /** A browsed reference: the target node with its browse name, node class and type definition. */
    struct Reference
    {
        OpcUa::NodeId node;
        QString name;
        UA_NodeClass nodeClass = UA_NODECLASS_UNSPECIFIED;
        OpcUa::NodeId typeDefinition;
    };
    using References = QVector<Reference>;

    OpcUaConnection(const Options &options, const QLoggingCategory &category, const QLoggingCategory &library,
        QObject *parent = nullptr);
    ~OpcUaConnection() override;

    void open();
    OpcUaClient &client() { return m_client; }
    /** The first and the longest pause before the server is asked again for items it refused for want of room. */
    void setItemBackoff(int first, int longest) { m_itemBackoff.setRange(first, longest); }

signals:
    void dataReceived(QDateTime timestamp, QString machine, QString source, QVariant data);

private:
    /** A monitored variable: where its value goes, and how its creation went. */
    struct Item
    {
        OpcUaConnection *connection;
        WwMachine *machine;
        WwMachine::Field field;
        int index;
        QString path;
        OpcUa::NodeId node;
        /** Whether the record waits for it; optional items that the server refuses for now don't hold it. */
        bool mandatory = false;
        bool awaitingFirst = true;
        bool monitored = false;
        int attempts = 0;
    };
    struct ArrivedEvent
    {
        WwMachine *machine;
        QDateTime time;
        WwBaseEventType event;
    };

    void connected();
    void disconnected();
    void flush();
    void queue(WwMachine *machine);

    void createSubscription();
    void readNamespaces();
    void discover();
    void findMachines(const OpcUa::NodeId &folder, std::function<void(const References &)> done);
    struct Search;
    void searchObjects();
    void searchLevel(std::shared_ptr<Search> search);
    void machinesFound(const References &machines);
    void checkType(const OpcUa::NodeId &type, int depth, std::function<void(bool)> done);
    void addMachine(const Reference &reference, const QString &name);
    void walkMachine(WwMachine *machine);
    void walkState(WwMachine *machine, int walk, const OpcUa::NodeId &unit, std::function<void()> done);
    void walkBrowse(WwMachine *machine, int walk, const OpcUa::NodeId &node, const QString &path,
        std::function<void(const References &)> done);
    void walkFailed(WwMachine *machine, int walk, const QString &path, UA_StatusCode status);
    void subscribe(WwMachine *machine);
    void createItems(const QVector<Item *> &items);
    void sendItems(const QVector<Item *> &items);
    void itemsCreated(const QVector<Item *> &items, const UA_CreateMonitoredItemsResponse &response);
    void retryItems();
    void release(Item *item);
    QDateTime stateStamp(const QString &machine, const QDateTime &time);
    void subscribeEvents(WwMachine *machine);
    void createEventItems(WwMachine *machine, const QVector<OpcUa::NodeId> &notifiers);

    /** What to do when a browse fails; without one the connection starts again. */
    using Failed = std::function<void(UA_StatusCode)>;
    void browse(const UA_NodeId &node, std::function<void(const References &)> done, Failed failed = Failed(),
        UA_UInt32 referenceType = UA_NS0ID_HIERARCHICALREFERENCES,
        UA_BrowseDirection direction = UA_BROWSEDIRECTION_FORWARD);
    void browseFailed(const Failed &failed, UA_StatusCode status);
    void collect(
        const UA_BrowseResult *result, References found, std::function<void(const References &)> done, Failed failed);

    void valueChanged(Item *item, const UA_DataValue &value);
    void eventArrived(WwMachine *machine, size_t count, const UA_Variant *fields);

    static void dataChangeCallback(UA_Client *, UA_UInt32, void *, UA_UInt32, void *itemContext, UA_DataValue *value);
    static void eventCallback(
        UA_Client *, UA_UInt32, void *, UA_UInt32, void *machineContext, size_t count, UA_Variant *fields);

    const QLoggingCategory &lc() const { return m_category; }

    Options m_options;
    const QLoggingCategory &m_category;
    OpcUaClient m_client;
    UA_UInt32 m_subscription = 0;
    UA_UInt16 m_woodworking = 0;
    UA_UInt16 m_machinery = 0;
    QHash<QString, bool> m_machineTypes;
    std::vector<std::unique_ptr<WwMachine>> m_machines;
    std::vector<std::unique_ptr<Item>> m_items;
    /** Machines with a record to send, so that an iteration looks only at what changed. */
    QVector<WwMachine *> m_queued;
    /** Events in the order they arrived, sent after the records of the same iteration. */
    QVector<ArrivedEvent> m_events;
    bool m_namespaceWarned = false;
    /** Counts the sessions, so that a timer of an earlier one finds its machines gone. */
    int m_session = 0;
    /** Machines left out for a name that is taken, warned about once each. */
    QSet<QString> m_leftOut;
    /** Each machine by its object's and its Events object's node, for the events raised at the Server object. */
    QHash<QString, WwMachine *> m_machinesByNode;
    /** Types of MessageId without a text form, warned about once each. */
    QSet<QString> m_messageIdTypes;
    /** Items per create call once the server refused more than that at once; 0 while none did. */
    int m_itemsPerCall = 0;
    /** Items the server refused for want of resources, created again when m_itemRetry fires. */
    QVector<Item *> m_refused;
    QTimer m_itemRetry;
    Backoff m_itemBackoff;
    /** The time stamp of the last state of each machine, so that no later one is stamped earlier. */
    QHash<QString, QDateTime> m_lastStates;
};

#endif
