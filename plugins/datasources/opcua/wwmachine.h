#ifndef ORVIX_WWMACHINE_H
#define ORVIX_WWMACHINE_H

#include "backoff.h"
#include "conditiondefinitionsv2.h"
#include "opcuasupport.h"
#include "wwtypes.h"

#include <QByteArray>
#include <QDateTime>
#include <QQueue>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVector>

#include <open62541/types.h>

#include <optional>

/**
 * What the opcua datasource knows of one woodworking machine of a server: the nodes it found by browsing, and the
 * records that the values of those nodes make up. The variables are addressed by their place in the records'
 * field lists, so an update is an index, not a name.
 */
struct WwMachine
{
    /** Where a monitored item's notifications go: a field of a record, or, for Events, the machine's messages. */
    enum class Field { CurrentState, CurrentMode, Flag, Value, Identification, LastProgramName, Events };

    /** The names of the flags, the values and the identification fields, in the order of their records. */
    static const QStringList &flagNames();
    static const QStringList &valueNames();
    static const QStringList &identificationNames();
    /** Whether a flag or an identification field (by index) is one that every machine has. */
    static bool isMandatoryFlag(int index);
    static bool isMandatoryIdentification(int index);

    /**
     * Sets a field from a variable's value; an empty variant (a bad status) makes an optional field absent. False
     * when the value's type does not fit the field, which then stays as it was.
     */
    bool set(Field field, int index, const UA_Variant &value);
    /** Texts from the server are cut at this many bytes, so that a broken server can't fill the memory. */
    static constexpr int MaxTextBytes = 65536;
    static QString boundedText(const UA_String &text);
    static QDateTime toDateTime(UA_DateTime time);
    /** How many EventIds each machine remembers to send each event once, whichever notifier it came through. */
    static constexpr int RememberedEvents = 1000;
    /** Whether an event with this EventId has not been seen yet; remembers it. */
    bool isNewEvent(const QByteArray &eventId);

    /**
     * The condition definitions of the machine's nameplate, flags and values, all in one list and equal to those the
     * mapping makes: sent before the machine's first record, so that Limit, which holds a machine's later lists of
     * definitions within its wait time, passes all of them at once.
     */
    ConditionDefinitionsV2 definitions(const QDateTime &timestamp) const;

    /** Forgets the nodes found by browsing, for a walk that starts again. */
    void clearNodes();

    /** The name the datasets carry. */
    QString name;
    OpcUa::NodeId object;
    OpcUa::NodeId events;
    OpcUa::NodeId currentState;
    OpcUa::NodeId currentMode;
    OpcUa::NodeId lastProgramName;
    bool hasFlags = false;
    bool hasValues = false;
    QVector<OpcUa::NodeId> flags = QVector<OpcUa::NodeId>(flagNames().size());
    QVector<OpcUa::NodeId> values = QVector<OpcUa::NodeId>(valueNames().size());
    QVector<OpcUa::NodeId> identificationNodes = QVector<OpcUa::NodeId>(identificationNames().size());

    WwState state;
    WwIdentification identification;
    WwManufacturerSpecific manufacturerSpecific;

    /** Monitored items of each record whose first value is still to come; a record goes out only when it is 0. */
    int awaitingState = 0;
    int awaitingIdentification = 0;
    bool stateChanged = false;
    bool identificationChanged = false;
    bool programChanged = false;
    /** The newest source time stamp among the changes not sent yet. */
    QDateTime stateTime;
    QDateTime identificationTime;
    QDateTime programTime;
    /** Whether the machine's definitions went out in this session. */
    bool defined = false;
    /** Whether the chain has a state of this machine, so that losing it is reported once. */
    bool online = false;
    /** Whether the machine is in its connection's list of machines with something to send. */
    bool queued = false;
    /** Counts the walks through the machine's nodes; what an abandoned walk receives is dropped. */
    int walk = 0;
    /** The pause before a walk that failed starts again, the machine on its own. */
    Backoff retry;
    /** Items the server would not monitor, gathered for one warning. */
    QStringList givenUp;
    QString givenUpReason;
    /** The last EventIds, oldest first, and the same as a set. */
    QQueue<QByteArray> eventOrder;
    QSet<QByteArray> eventIds;
    /** Variables whose value had a type that does not fit, warned about once each. */
    QSet<QString> mistyped;
};

#endif
