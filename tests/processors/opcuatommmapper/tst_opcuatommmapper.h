#ifndef ORVIX_TST_OPCUATOMMMAPPER_H
#define ORVIX_TST_OPCUATOMMMAPPER_H

#include "opcuatommmapper.h"

#include "logcapture.h"
#include "mmdatasets.h"
#include "stateflags.h"
#include "wwtypes.h"

#include <QSignalSpy>
#include <QtTest>

namespace {

const QString IncompleteState = QStringLiteral("Missing some flags, the state might be incomplete");

const QDateTime s_when = QDateTime::fromMSecsSinceEpoch(1614585600123, Qt::UTC);

/** A flags block with every optional flag present and false. */
inline WwStateFlags allFlagsFalse()
{
    WwStateFlags flags;
    WwStateFlags::visitFields([&](const char *, auto member) {
        if constexpr (std::is_same_v<decltype(member), std::optional<bool> WwStateFlags::*>)
            flags.*member = false;
    });
    return flags;
}

/**
 * A flags block from a description: "none" for an absent block, otherwise every optional flag present and false,
 * changed by the space-separated settings "Name=1", "Name=0" and "Name=-" (absent).
 */
inline std::optional<WwStateFlags> flagsFrom(const QString &description)
{
    if (description == QLatin1String("none"))
        return std::nullopt;
    return TestSupport::withFlags(allFlagsFalse(), description);
}

/**
 * A values block from a description: "none" for an absent block, otherwise the space-separated settings
 * "Name=number" on a block of absent values.
 */
inline std::optional<WwStateValues> valuesFrom(const QString &description)
{
    if (description == QLatin1String("none"))
        return std::nullopt;
    WwStateValues values;
    const QStringList settings = description.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    for (const QString &setting : settings) {
        const QString name = setting.section(QLatin1Char('='), 0, 0);
        const QString value = setting.section(QLatin1Char('='), 1);
        bool found = false;
        WwStateValues::visitFields([&](const char *fieldName, auto member) {
            if (name != QLatin1String(fieldName))
                return;
            found = true;
            using Value = typename std::remove_reference_t<decltype(values.*member)>::value_type;
            if constexpr (std::is_same_v<Value, double>)
                values.*member = value.toDouble();
            else if constexpr (std::is_same_v<Value, quint32>)
                values.*member = value.toUInt();
            else
                values.*member = value.toULongLong();
        });
        if (!found)
            qFatal("Unknown value in test data");
    }
    return values;
}

inline WwState makeState(quint32 machineState, quint32 operationMode, const std::optional<WwStateFlags> &flags,
    const std::optional<WwStateValues> &values)
{
    WwState state;
    state.MachineState = machineState;
    state.OperationMode = operationMode;
    state.Flags = flags;
    state.Values = values;
    return state;
}

/** Compares two variants by the records they hold, since QVariant cannot compare them itself. */
template <typename... Records> bool sameRecordOf(const QVariant &a, const QVariant &b)
{
    if (a.userType() != b.userType())
        return false;
    bool handled = false;
    bool equal = false;
    const auto check = [&](auto *tag) {
        using Record = std::remove_pointer_t<decltype(tag)>;
        if (!handled && a.userType() == qMetaTypeId<Record>()) {
            handled = true;
            equal = qvariant_cast<Record>(a) == qvariant_cast<Record>(b);
        }
    };
    (check(static_cast<Records *>(nullptr)), ...);
    return handled ? equal : a == b;
}

inline bool sameRecord(const QVariant &a, const QVariant &b)
{
    return sameRecordOf<StateV1, GeneralV1, NotificationsAddV1, NotificationsRemoveV1, NotificationsRemoveAllV1,
        ConditionDefinitionsV2, ConditionDatasV2, MaintenanceDefinitionsV1, MaintenanceDatasV1, SwVerV1, OrderV1>(a, b);
}

/** Every flag and value of a machine state, in the order in which their conditions are sent. */
struct ExpectedItem
{
    const char *block;
    const char *name;
    int dataType;
    int valueType;
};

const ExpectedItem s_stateItems[] = {
    { "Flags", "MachineOn", 3, QMetaType::Bool },
    { "Flags", "MachineInitialized", 3, QMetaType::Bool },
    { "Flags", "PowerPresent", 3, QMetaType::Bool },
    { "Flags", "AirPresent", 3, QMetaType::Bool },
    { "Flags", "DustChipSuction", 3, QMetaType::Bool },
    { "Flags", "Emergency", 3, QMetaType::Bool },
    { "Flags", "Safety", 3, QMetaType::Bool },
    { "Flags", "Calibrated", 3, QMetaType::Bool },
    { "Flags", "Remote", 3, QMetaType::Bool },
    { "Flags", "WorkpiecePresent", 3, QMetaType::Bool },
    { "Flags", "Moving", 3, QMetaType::Bool },
    { "Flags", "LoadingEnabled", 3, QMetaType::Bool },
    { "Flags", "Alarm", 3, QMetaType::Bool },
    { "Flags", "Warning", 3, QMetaType::Bool },
    { "Flags", "Error", 3, QMetaType::Bool },
    { "Flags", "Hold", 3, QMetaType::Bool },
    { "Flags", "RecipeInRun", 3, QMetaType::Bool },
    { "Flags", "RecipeInSetup", 3, QMetaType::Bool },
    { "Flags", "RecipeInHold", 3, QMetaType::Bool },
    { "Flags", "ManualActivityRequired", 3, QMetaType::Bool },
    { "Flags", "WaitUnload", 3, QMetaType::Bool },
    { "Flags", "WaitLoad", 3, QMetaType::Bool },
    { "Flags", "EnergySaving", 3, QMetaType::Bool },
    { "Flags", "ExternalEmergency", 3, QMetaType::Bool },
    { "Flags", "MaintenanceRequired", 3, QMetaType::Bool },
    { "Flags", "FeedRuns", 3, QMetaType::Bool },
    { "Values", "AxisOverride", 1, QMetaType::UInt },
    { "Values", "SpindleOverride", 1, QMetaType::UInt },
    { "Values", "FeedSpeed", 2, QMetaType::Double },
    { "Values", "ActualCycle", 2, QMetaType::Double },
    { "Values", "AbsoluteMachineOffTime", 1, QMetaType::ULongLong },
    { "Values", "AbsoluteStandbyTime", 1, QMetaType::ULongLong },
    { "Values", "RelativeStandbyTime", 1, QMetaType::ULongLong },
    { "Values", "AbsoluteReadyTime", 1, QMetaType::ULongLong },
    { "Values", "RelativeReadyTime", 1, QMetaType::ULongLong },
    { "Values", "AbsoluteWorkingTime", 1, QMetaType::ULongLong },
    { "Values", "RelativeWorkingTime", 1, QMetaType::ULongLong },
    { "Values", "AbsoluteErrorTime", 1, QMetaType::ULongLong },
    { "Values", "RelativeErrorTime", 1, QMetaType::ULongLong },
    { "Values", "AbsoluteMachineOnTime", 1, QMetaType::ULongLong },
    { "Values", "RelativeMachineOnTime", 1, QMetaType::ULongLong },
    { "Values", "AbsolutePowerPresentTime", 1, QMetaType::ULongLong },
    { "Values", "RelativePowerPresentTime", 1, QMetaType::ULongLong },
    { "Values", "AbsoluteProductionTime", 1, QMetaType::ULongLong },
    { "Values", "RelativeProductionTime", 1, QMetaType::ULongLong },
    { "Values", "AbsoluteProductionWithoutWorkpieceTime", 1, QMetaType::ULongLong },
    { "Values", "RelativeProductionWithoutWorkpieceTime", 1, QMetaType::ULongLong },
    { "Values", "AbsoluteProductionWaitWorkpieceTime", 1, QMetaType::ULongLong },
    { "Values", "RelativeProductionWaitWorkpieceTime", 1, QMetaType::ULongLong },
    { "Values", "AbsoluteRunsGood", 1, QMetaType::ULongLong },
    { "Values", "RelativeRunsGood", 1, QMetaType::ULongLong },
    { "Values", "AbsoluteRunsTotal", 1, QMetaType::ULongLong },
    { "Values", "RelativeRunsTotal", 1, QMetaType::ULongLong },
    { "Values", "AbsoluteRunsAborted", 1, QMetaType::ULongLong },
    { "Values", "RelativeRunsAborted", 1, QMetaType::ULongLong },
    { "Values", "AbsoluteLength", 1, QMetaType::ULongLong },
    { "Values", "RelativeLength", 1, QMetaType::ULongLong },
    { "Values", "AbsolutePiecesIn", 1, QMetaType::ULongLong },
    { "Values", "RelativePiecesIn", 1, QMetaType::ULongLong },
    { "Values", "AbsolutePiecesOut", 1, QMetaType::ULongLong },
    { "Values", "RelativePiecesOut", 1, QMetaType::ULongLong },
};

const int s_flagCount = 26;

/** The value that fullState() gives the item at this index. */
inline QVariant fullStateValue(int index)
{
    switch (s_stateItems[index].valueType) {
    case QMetaType::Bool:
        return index % 2 == 0;
    case QMetaType::UInt:
        return uint(100 + index);
    case QMetaType::Double:
        return index + 0.25;
    default:
        return qulonglong(1000000000000ull + index);
    }
}

/** A running machine's state with every flag and value present, each with its own value. */
inline WwState fullState()
{
    QStringList flags;
    QStringList values;
    for (int i = 0; i < int(std::size(s_stateItems)); ++i) {
        const QVariant value = fullStateValue(i);
        const QString setting = QString::fromLatin1(s_stateItems[i].name) + QLatin1Char('=')
            + (value.userType() == QMetaType::Bool ? QString::number(value.toBool()) : value.toString());
        (i < s_flagCount ? flags : values).append(setting);
    }
    return makeState(2, 0, flagsFrom(flags.join(' ')), valuesFrom(values.join(' ')));
}

inline QStringList typeNames(const QSignalSpy &spy)
{
    QStringList names;
    for (const QList<QVariant> &arguments : spy)
        names.append(QString::fromLatin1(arguments.at(3).typeName()));
    return names;
}

template <typename T> const T *presentOf(const T &value)
{
    return &value;
}

template <typename T> const T *presentOf(const std::optional<T> &value)
{
    return value ? &*value : nullptr;
}

/** A number as text that tells every double apart, -0.0 from 0.0 included. */
inline QString bitsOf(double number)
{
    return QString::number(number, 'g', 17) + '#'
        + QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(&number), sizeof number).toHex());
}

/** One condition value as "id type value". */
inline QString describeItem(const QString &id, const QVariant &value)
{
    const QString text = id + ' ' + QString::fromLatin1(value.typeName()) + ' ';
    if (value.userType() == QMetaType::Double)
        return text + bitsOf(value.toDouble());
    return text + value.toString();
}

inline QString describeGeneral(const GeneralV1 &general)
{
    return QStringLiteral("GeneralV1 %1 %2 %3 %4 %5 %6")
        .arg(bitsOf(general.powerOnHours), bitsOf(general.feedOnHours), QString::number(general.pieces),
            bitsOf(general.length), QString::number(general.counter5), QString::number(general.counter6));
}

inline QString describeDatas(const QDateTime &timestamp, const QStringList &items)
{
    return QStringLiteral("ConditionDatasV2 %1 [%2]").arg(timestamp.toString(Qt::ISODateWithMs), items.join("; "));
}

inline QString describeDefinition(const QString &id, const QString &name, int dataType)
{
    return id + ' ' + name + ' ' + QString::number(dataType);
}

inline QString describeDefinitions(const QDateTime &timestamp, const QStringList &items)
{
    return QStringLiteral("ConditionDefinitionsV2 %1 [%2]")
        .arg(timestamp.toString(Qt::ISODateWithMs), items.join("; "));
}

inline QString describeDataset(
    const QDateTime &timestamp, const QString &machine, const QString &source, const QString &what)
{
    return QStringLiteral("%1 %2 %3: %4").arg(timestamp.toString(Qt::ISODateWithMs), machine, source, what);
}

/**
 * A GeneralV1, ConditionDefinitionsV2 or ConditionDatasV2 dataset as text, with every value and its type, so that two
 * descriptions are equal only for equal datasets; other datasets by their type name only.
 */
inline QString describe(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    if (data.userType() == qMetaTypeId<GeneralV1>())
        return describeDataset(timestamp, machine, source, describeGeneral(qvariant_cast<GeneralV1>(data)));
    if (data.userType() == qMetaTypeId<ConditionDefinitionsV2>()) {
        const auto definitions = qvariant_cast<ConditionDefinitionsV2>(data);
        QStringList items;
        for (const ConditionDefinitionV2 &item : definitions.items)
            items.append(describeDefinition(item.id, item.name, item.dataType));
        return describeDataset(timestamp, machine, source, describeDefinitions(definitions.timestamp, items));
    }
    if (data.userType() == qMetaTypeId<ConditionDatasV2>()) {
        const auto datas = qvariant_cast<ConditionDatasV2>(data);
        QStringList items;
        for (const ConditionDataV2 &item : datas.items)
            items.append(describeItem(item.id, item.value));
        return describeDataset(timestamp, machine, source, describeDatas(datas.timestamp, items));
    }
    return describeDataset(timestamp, machine, source, QString::fromLatin1(data.typeName()));
}

inline int conditionTypeOf(bool)
{
    return 3;
}

inline int conditionTypeOf(double)
{
    return 2;
}

inline int conditionTypeOf(quint32)
{
    return 1;
}

inline int conditionTypeOf(quint64)
{
    return 1;
}

/**
 * What a state must yield, worked out from the record alone and described as describe() does: StateV1, GeneralV1
 * unless the machine is offline or has no values, ConditionDefinitionsV2 with the present flags and values not yet
 * in defined (the ids the source has had definitions for; they are added), ConditionDatasV2 with every present flag
 * and value.
 */
inline QStringList expectedDatasets(const QDateTime &timestamp, const QString &machine, const QString &source,
    const WwState &state, QSet<QString> &defined)
{
    QStringList datasets { describeDataset(timestamp, machine, source, "StateV1") };
    if (state.MachineState == 0)
        return datasets;
    if (state.Values) {
        const WwStateValues &values = *state.Values;
        GeneralV1 general;
        if (values.AbsolutePowerPresentTime)
            general.powerOnHours = double(*values.AbsolutePowerPresentTime) / 3600000.0;
        if (values.AbsoluteProductionTime && values.AbsoluteProductionWithoutWorkpieceTime)
            general.feedOnHours
                = double(quint64(*values.AbsoluteProductionTime + *values.AbsoluteProductionWithoutWorkpieceTime))
                / 3600000.0;
        if (values.AbsolutePiecesOut)
            general.pieces = *values.AbsolutePiecesOut;
        if (values.AbsoluteLength)
            general.length = double(*values.AbsoluteLength / 1000u);
        datasets.append(describeDataset(timestamp, machine, source, describeGeneral(general)));
    }
    QStringList definitions;
    QStringList items;
    const auto add = [&](const char *block, const char *name, const auto &field) {
        const auto *value = presentOf(field);
        if (!value)
            return;
        const QString id = machine + "/State/Machine/" + block + '/' + name;
        if (!defined.contains(id)) {
            defined.insert(id);
            definitions.append(describeDefinition(id, name, conditionTypeOf(*value)));
        }
        items.append(describeItem(id, QVariant::fromValue(*value)));
    };
    if (state.Flags)
        WwStateFlags::visitFields([&](const char *name, auto member) { add("Flags", name, (*state.Flags).*member); });
    if (state.Values)
        WwStateValues::visitFields(
            [&](const char *name, auto member) { add("Values", name, (*state.Values).*member); });
    if (!definitions.isEmpty())
        datasets.append(describeDataset(timestamp, machine, source, describeDefinitions(timestamp, definitions)));
    if (!items.isEmpty())
        datasets.append(describeDataset(timestamp, machine, source, describeDatas(timestamp, items)));
    return datasets;
}

/** Changes the flag or value at this index of the order of the conditions, if it is present. */
inline void changeItem(WwState &state, int index, QRandomGenerator &random)
{
    int i = 0;
    if (state.Flags) {
        WwStateFlags::visitFields([&](const char *, auto member) {
            if (i++ != index)
                return;
            auto &field = (*state.Flags).*member;
            if constexpr (std::is_same_v<std::decay_t<decltype(field)>, bool>)
                field = !field;
            else if (field)
                field = !*field;
        });
    }
    i = s_flagCount;
    if (state.Values) {
        WwStateValues::visitFields([&](const char *, auto member) {
            if (i++ != index)
                return;
            auto &field = (*state.Values).*member;
            if (!field)
                return;
            using Value = typename std::decay_t<decltype(field)>::value_type;
            if constexpr (std::is_same_v<Value, double>) {
                const double choices[] = { 0.0, -0.0, qQNaN(), random.generateDouble() * 1000 };
                field = choices[random.bounded(4)];
            } else if constexpr (std::is_same_v<Value, quint32>) {
                field = random.generate();
            } else {
                field = random.bounded(2) == 0 ? random.generate64() : *field + 1;
            }
        });
    }
}

// GCC 12 at -O2 takes the std::optional assignments of these random state edits, once inlined, for writes past
// an atomic counter of QRandomGenerator and warns; the writes stay within the optionals.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstringop-overflow"
#endif
/** Takes the optional flag or value at this index away, or brings it back; plain flags stay. */
inline void togglePresence(WwState &state, int index, QRandomGenerator &random)
{
    int i = 0;
    if (state.Flags) {
        WwStateFlags::visitFields([&](const char *, auto member) {
            if (i++ != index)
                return;
            auto &field = (*state.Flags).*member;
            if constexpr (!std::is_same_v<std::decay_t<decltype(field)>, bool>) {
                if (field)
                    field.reset();
                else
                    field = random.bounded(2) == 0;
            }
        });
    }
    i = s_flagCount;
    if (state.Values) {
        WwStateValues::visitFields([&](const char *, auto member) {
            if (i++ != index)
                return;
            auto &field = (*state.Values).*member;
            if (field)
                field.reset();
            else
                field = typename std::decay_t<decltype(field)>::value_type(random.bounded(1000));
        });
    }
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
} // namespace

/** Converts to a WwState, but the conversion always fails. */
struct FailingStateCarrier
{
    WwState toState(bool *ok) const
    {
        *ok = false;
        WwState state;
        state.MachineState = 3;
        return state;
    }
};

/** Converts to a nameplate with only its serial number set. */
struct NameplateCarrier
{
    QString serialNumber;

    WwIdentification toIdentification() const
    {
        WwIdentification identification;
        identification.SerialNumber = serialNumber;
        return identification;
    }
};

/** Converts to every one of the three machine data types. */
struct AnyCarrier
{
    WwState toState() const
    {
        WwState state;
        state.MachineState = 4;
        return state;
    }
    WwIdentification toIdentification() const { return WwIdentification(); }
    WwBaseEventType toEvent() const { return WwBaseEventType(); }
};

/** Converts to a nameplate and to an event. */
struct NameplateOrEventCarrier
{
    WwIdentification toIdentification() const { return WwIdentification(); }
    WwBaseEventType toEvent() const { return WwBaseEventType(); }
};

Q_DECLARE_METATYPE(FailingStateCarrier)
Q_DECLARE_METATYPE(NameplateCarrier)
Q_DECLARE_METATYPE(AnyCarrier)
Q_DECLARE_METATYPE(NameplateOrEventCarrier)

/** How much of what it receives a ValuesReceiver keeps. */
enum class Keeping {
    Nothing,
    Records,
    Datasets,
};

Q_DECLARE_METATYPE(Keeping)

/**
 * Receives a mapper's datasets as the next processor does, describes each as it arrives and keeps, if asked, the
 * records (a list that a receiver keeps shares its items with the mapper) or the datasets themselves, to see later
 * that they have not changed since they went out.
 */
class ValuesReceiver : public QObject
{
    Q_OBJECT
public:
    ValuesReceiver(OpcUaToMMMapper *mapper, Keeping keeping)
        : m_keeping(keeping)
    {
        connect(mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)), this,
            SLOT(processData(QDateTime, QString, QString, QVariant)));
    }

    /** Every dataset, described when it arrived. */
    const QStringList &seen() const { return m_seen; }

    /** The kept datasets, described now. */
    QStringList keptNow() const
    {
        QStringList described;
        for (const Kept &kept : m_kept)
            described.append(describe(kept.timestamp, kept.machine, kept.source, kept.data));
        return described;
    }

public slots:
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data)
    {
        m_seen.append(describe(timestamp, machine, source, data));
        if (m_keeping == Keeping::Nothing)
            return;
        QVariant kept = data;
        if (m_keeping == Keeping::Records) {
            if (data.userType() == qMetaTypeId<ConditionDatasV2>())
                kept = QVariant::fromValue(qvariant_cast<ConditionDatasV2>(data));
            else if (data.userType() == qMetaTypeId<GeneralV1>())
                kept = QVariant::fromValue(qvariant_cast<GeneralV1>(data));
        }
        m_kept.append({ timestamp, machine, source, kept });
    }

private:
    struct Kept
    {
        QDateTime timestamp;
        QString machine;
        QString source;
        QVariant data;
    };

    Keeping m_keeping;
    QStringList m_seen;
    QList<Kept> m_kept;
};

/** A mapper with a receiver, fed with states one second apart, and what the states must yield. */
struct StateFeed
{
    explicit StateFeed(Keeping keeping)
        : receiver(&mapper, keeping)
    {
    }

    void send(const QString &machine, const QString &source, const WwState &state)
    {
        const QDateTime timestamp = s_when.addSecs(sent++);
        mapper.processData(timestamp, machine, source, QVariant::fromValue(state));
        expected += expectedDatasets(timestamp, machine, source, state, defined[source]);
    }

    OpcUaToMMMapper mapper;
    ValuesReceiver receiver;
    QStringList expected;
    QHash<QString, QSet<QString>> defined;
    int sent = 0;
};

namespace {

/** The one emitted dataset of the given type; an invalid variant when there is not exactly one. */
inline QVariant onlyDataset(const QSignalSpy &spy, const char *typeName)
{
    QVariant found;
    int count = 0;
    for (const QList<QVariant> &arguments : spy) {
        if (qstrcmp(arguments.at(3).typeName(), typeName) == 0) {
            found = arguments.at(3);
            ++count;
        }
    }
    if (count != 1)
        qWarning("expected one %s, got %d", typeName, count);
    return count == 1 ? found : QVariant();
}

inline QStringList definitionIds(const ConditionDefinitionsV2 &definitions)
{
    QStringList ids;
    for (const ConditionDefinitionV2 &definition : definitions.items)
        ids.append(definition.id);
    return ids;
}

inline QStringList dataIds(const ConditionDatasV2 &datas)
{
    QStringList ids;
    for (const ConditionDataV2 &data : datas.items)
        ids.append(data.id);
    return ids;
}

inline QStringList stateIds(const QString &machine, bool flags, bool values)
{
    QStringList ids;
    for (int i = 0; i < int(std::size(s_stateItems)); ++i) {
        if ((i < s_flagCount && flags) || (i >= s_flagCount && values))
            ids.append(machine + "/State/Machine/" + s_stateItems[i].block + '/' + s_stateItems[i].name);
    }
    return ids;
}

const QStringList s_plainFlags { "MachineOn", "MachineInitialized", "PowerPresent", "Emergency", "Calibrated", "Alarm",
    "Warning", "Error" };

} // namespace

class tst_OpcUaToMMMapper : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void identity();
    void initLogsAndReadsNoConfiguration();
    void debugLineOnlyWhenEnabled();
    void otherDatasetsPassUnchanged_data();
    void otherDatasetsPassUnchanged();

    void stateRules_data();
    void stateRules();
    void completenessNeedsEachFlag_data();
    void completenessNeedsEachFlag();
    void sameStateTwiceGivesTwoEqualStates();
    void stateKeepsTimestampMachineAndSource();

    void operatingData_data();
    void operatingData();

    void stateConditionItems_data();
    void stateConditionItems();
    void stateEmissionOrder();
    void offlineMachineHasNoConditions();
    void noBlocksNoConditions();
    void absentItemsAreSkipped();
    void onlyValuesBlock();
    void newFlagLaterIsDefinedAlone();
    void knownConditionsPerSource();
    void knownConditionsPerMachine();
    void emptyMachineName();
    void conditionIdsHaveNoSpareRoom();
    void conditionIdsAreBuiltOnce();
    void valueChangesAfterIdenticalUpdates_data();
    void valueChangesAfterIdenticalUpdates();
    void unchangedUpdateSendsTheSameList();
    void optionalItemsComeAndGo_data();
    void optionalItemsComeAndGo();
    void twoSourcesOfOneMachine_data();
    void twoSourcesOfOneMachine();
    void sentDatasetsKeepTheirValues_data();
    void sentDatasetsKeepTheirValues();
    void valuesGoOutBitForBit_data();
    void valuesGoOutBitForBit();
    void manyUpdatesOfSeveralMachines_data();
    void manyUpdatesOfSeveralMachines();

    void notificationLevel_data();
    void notificationLevel();
    void withdrawal_data();
    void withdrawal();
    void announcementFields();
    void withdrawalFields();
    void notificationIdFromPath_data();
    void notificationIdFromPath();
    void notificationText();
    void repeatedEventsRepeat();

    void identificationFields_data();
    void identificationFields();
    void identificationDefinedOnce();
    void identificationNewOptionalField();
    void identificationAbsentMonth();
    void identificationValuesAsTheyStand();
    void identificationDate_data();
    void identificationDate();
    void identificationKnownPerSourceAndMachine();
    void identificationAndStateShareSource();

    void conversionThatFailsGivesDefaultState();
    void convertedIdentification();
    void dispatchOrder();

private:
    LogCapture m_log { QStringLiteral("opcuatommmapper") };
};

#endif
