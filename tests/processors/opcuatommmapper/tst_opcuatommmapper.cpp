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
WwStateFlags allFlagsFalse()
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
std::optional<WwStateFlags> flagsFrom(const QString &description)
{
    if (description == QLatin1String("none"))
        return std::nullopt;
    return TestSupport::withFlags(allFlagsFalse(), description);
}

/**
 * A values block from a description: "none" for an absent block, otherwise the space-separated settings
 * "Name=number" on a block of absent values.
 */
std::optional<WwStateValues> valuesFrom(const QString &description)
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

WwState makeState(quint32 machineState, quint32 operationMode, const std::optional<WwStateFlags> &flags,
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

bool sameRecord(const QVariant &a, const QVariant &b)
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
QVariant fullStateValue(int index)
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
WwState fullState()
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

QStringList typeNames(const QSignalSpy &spy)
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
QString bitsOf(double number)
{
    return QString::number(number, 'g', 17) + '#'
        + QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(&number), sizeof number).toHex());
}

/** One condition value as "id type value". */
QString describeItem(const QString &id, const QVariant &value)
{
    const QString text = id + ' ' + QString::fromLatin1(value.typeName()) + ' ';
    if (value.userType() == QMetaType::Double)
        return text + bitsOf(value.toDouble());
    return text + value.toString();
}

QString describeGeneral(const GeneralV1 &general)
{
    return QStringLiteral("GeneralV1 %1 %2 %3 %4 %5 %6")
        .arg(bitsOf(general.powerOnHours), bitsOf(general.feedOnHours), QString::number(general.pieces),
            bitsOf(general.length), QString::number(general.counter5), QString::number(general.counter6));
}

QString describeDatas(const QDateTime &timestamp, const QStringList &items)
{
    return QStringLiteral("ConditionDatasV2 %1 [%2]").arg(timestamp.toString(Qt::ISODateWithMs), items.join("; "));
}

QString describeDefinition(const QString &id, const QString &name, int dataType)
{
    return id + ' ' + name + ' ' + QString::number(dataType);
}

QString describeDefinitions(const QDateTime &timestamp, const QStringList &items)
{
    return QStringLiteral("ConditionDefinitionsV2 %1 [%2]")
        .arg(timestamp.toString(Qt::ISODateWithMs), items.join("; "));
}

QString describeDataset(const QDateTime &timestamp, const QString &machine, const QString &source, const QString &what)
{
    return QStringLiteral("%1 %2 %3: %4").arg(timestamp.toString(Qt::ISODateWithMs), machine, source, what);
}

/**
 * A GeneralV1, ConditionDefinitionsV2 or ConditionDatasV2 dataset as text, with every value and its type, so that two
 * descriptions are equal only for equal datasets; other datasets by their type name only.
 */
QString describe(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
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

int conditionTypeOf(bool)
{
    return 3;
}

int conditionTypeOf(double)
{
    return 2;
}

int conditionTypeOf(quint32)
{
    return 1;
}

int conditionTypeOf(quint64)
{
    return 1;
}

/**
 * What a state must yield, worked out from the record alone and described as describe() does: StateV1, GeneralV1
 * unless the machine is offline or has no values, ConditionDefinitionsV2 with the present flags and values not yet
 * in defined (the ids the source has had definitions for; they are added), ConditionDatasV2 with every present flag
 * and value.
 */
QStringList expectedDatasets(const QDateTime &timestamp, const QString &machine, const QString &source,
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
void changeItem(WwState &state, int index, QRandomGenerator &random)
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
void togglePresence(WwState &state, int index, QRandomGenerator &random)
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

void tst_OpcUaToMMMapper::initTestCase()
{
    QVERIFY((QMetaType::registerConverter<FailingStateCarrier, WwState>(&FailingStateCarrier::toState)));
    QVERIFY((QMetaType::registerConverter<NameplateCarrier, WwIdentification>(&NameplateCarrier::toIdentification)));
    QVERIFY((QMetaType::registerConverter<AnyCarrier, WwState>(&AnyCarrier::toState)));
    QVERIFY((QMetaType::registerConverter<AnyCarrier, WwIdentification>(&AnyCarrier::toIdentification)));
    QVERIFY((QMetaType::registerConverter<AnyCarrier, WwBaseEventType>(&AnyCarrier::toEvent)));
    QVERIFY((QMetaType::registerConverter<NameplateOrEventCarrier, WwIdentification>(
        &NameplateOrEventCarrier::toIdentification)));
    QVERIFY(
        (QMetaType::registerConverter<NameplateOrEventCarrier, WwBaseEventType>(&NameplateOrEventCarrier::toEvent)));
}

void tst_OpcUaToMMMapper::init()
{
    m_log.start(QStringLiteral("*.debug=false"));
}

void tst_OpcUaToMMMapper::cleanup()
{
    m_log.stop();
}

void tst_OpcUaToMMMapper::identity()
{
    OpcUaToMMMapper mapper;
    QCOMPARE(mapper.name(), QStringLiteral("OpcUaToMMMapper"));
    QCOMPARE(mapper.orderNumber(), 50u);
    QVERIFY(mapper.qt_metacast("IProcessor"));

    QObject parent;
    auto *child = new OpcUaToMMMapper(&parent);
    QCOMPARE(child->parent(), &parent);
}

void tst_OpcUaToMMMapper::initLogsAndReadsNoConfiguration()
{
    OpcUaToMMMapper mapper;
    QVariantMap shared;
    const QVariantMap config { { QStringLiteral("opcuatommmapper"), QVariantMap { { "x", 1 } } } };
    QVERIFY(mapper.init(config, shared));
    QVERIFY(shared.isEmpty());
    QCOMPARE(m_log.ofComponent("INFO"), QStringList { m_log.info("OpcUaToMMMapper::init") });
    QCOMPARE(m_log.lines().size(), 1);
}

void tst_OpcUaToMMMapper::debugLineOnlyWhenEnabled()
{
    OpcUaToMMMapper mapper;
    mapper.processData(s_when, "m1", "s1", QVariant(42));
    QVERIFY(m_log.ofComponent("DEBUG").isEmpty());

    QLoggingCategory::setFilterRules(QStringLiteral("opcuatommmapper.debug=true"));
    mapper.processData(s_when, "m1", "s1", QVariant(42));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(makeState(0, 0, allFlagsFalse(), std::nullopt)));
    const QStringList lines = m_log.ofComponent("DEBUG");
    QCOMPARE(lines.size(), 2);
    // One line with the four arguments in order.
    QVERIFY(lines.first().contains(QLatin1String("\"m1\" \"s1\" QVariant(int, 42)")));
    QVERIFY(lines.first().startsWith(QLatin1String("DEBUG opcuatommmapper: QDateTime(2021-03-01 08:00:00.123 UTC")));
}

void tst_OpcUaToMMMapper::otherDatasetsPassUnchanged_data()
{
    QTest::addColumn<QVariant>("data");

    StateV1 state;
    state.state = 3;
    QTest::newRow("StateV1") << QVariant::fromValue(state);
    GeneralV1 general;
    general.pieces = 7;
    QTest::newRow("GeneralV1") << QVariant::fromValue(general);
    NotificationsAddV1 add;
    add.id = "a/1";
    add.level = 2;
    QTest::newRow("NotificationsAddV1") << QVariant::fromValue(add);
    NotificationsRemoveV1 remove;
    remove.id = "1";
    QTest::newRow("NotificationsRemoveV1") << QVariant::fromValue(remove);
    QTest::newRow("NotificationsRemoveAllV1") << QVariant::fromValue(NotificationsRemoveAllV1());
    ConditionDefinitionsV2 definitions;
    ConditionDefinitionV2 definition;
    definition.id = "m1/x";
    definition.dataType = 1;
    definitions.items.append(definition);
    QTest::newRow("ConditionDefinitionsV2") << QVariant::fromValue(definitions);
    ConditionDatasV2 datas;
    ConditionDataV2 data;
    data.id = "m1/x";
    data.value = 5;
    datas.items.append(data);
    QTest::newRow("ConditionDatasV2") << QVariant::fromValue(datas);
    QTest::newRow("MaintenanceDefinitionsV1") << QVariant::fromValue(MaintenanceDefinitionsV1());
    QTest::newRow("MaintenanceDatasV1") << QVariant::fromValue(MaintenanceDatasV1());
    SwVerV1 version;
    version.version = "1.2";
    QTest::newRow("SwVerV1") << QVariant::fromValue(version);
    // Numbers without a default stay uninitialised, so set them all: garbage need not equal itself (NaN).
    OrderV1 order;
    order.programName = "p";
    order.number4 = 4;
    order.flag5 = true;
    order.number6 = 6;
    order.number7 = 7;
    order.number11 = 11;
    QTest::newRow("OrderV1") << QVariant::fromValue(order);
    QTest::newRow("int") << QVariant(42);
    QTest::newRow("string") << QVariant(QStringLiteral("WwState"));
    QTest::newRow("invalid") << QVariant();
}

void tst_OpcUaToMMMapper::otherDatasetsPassUnchanged()
{
    QFETCH(QVariant, data);
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", data);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.first().at(0).toDateTime(), s_when);
    QCOMPARE(spy.first().at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(spy.first().at(2).toString(), QStringLiteral("s1"));
    const QVariant out = spy.first().at(3);
    QCOMPARE(out.userType(), data.userType());
    QVERIFY(sameRecord(out, data));
    QVERIFY(m_log.lines().isEmpty());
}

void tst_OpcUaToMMMapper::stateRules_data()
{
    QTest::addColumn<uint>("machineState");
    QTest::addColumn<uint>("operationMode");
    QTest::addColumn<QString>("flags");
    QTest::addColumn<int>("expected");
    QTest::addColumn<bool>("incomplete");
    // Machine state codes 5 and 7 are not defined by the woodworking model; they follow the rules of Ready.

    // Rule 1: an offline machine.
    QTest::newRow("1: offline") << uint(WwState::Offline) << uint(WwState::Other) << "" << int(StateV1::Offline)
                                << false;
    QTest::newRow("1: offline, any flags")
        << uint(WwState::Offline) << uint(WwState::Setup) << "WaitLoad=1 Moving=1 WorkpiecePresent=0"
        << int(StateV1::Offline) << false;
    QTest::newRow("1: offline, no flags")
        << uint(WwState::Offline) << uint(WwState::Other) << "none" << int(StateV1::Offline) << true;
    // Rule 2: machine state 4 wins over everything after it.
    QTest::newRow("2: state 4") << uint(WwState::Error) << uint(WwState::Other) << "" << int(StateV1::Error) << false;
    QTest::newRow("2: state 4, mode 4") << uint(WwState::Error) << uint(WwState::Setup) << "" << int(StateV1::Error)
                                        << false;
    QTest::newRow("2: state 4, wait load")
        << uint(WwState::Error) << uint(WwState::Other) << "WaitLoad=1" << int(StateV1::Error) << false;
    QTest::newRow("2: state 4, no flags")
        << uint(WwState::Error) << uint(WwState::Other) << "none" << int(StateV1::Error) << true;
    // Rule 3: machine state 1.
    QTest::newRow("3: state 1") << uint(WwState::Standby) << uint(WwState::Other) << "" << int(StateV1::Standby)
                                << false;
    QTest::newRow("3: state 1, mode 4") << uint(WwState::Standby) << uint(WwState::Setup) << "" << int(StateV1::Standby)
                                        << false;
    QTest::newRow("3: state 1, wait unload")
        << uint(WwState::Standby) << uint(WwState::Other) << "WaitUnload=1" << int(StateV1::Standby) << false;
    // Rule 4: operation mode 4 wins over the wait flags.
    QTest::newRow("4: state 2, mode 4") << uint(WwState::Ready) << uint(WwState::Setup) << "" << int(StateV1::Setup)
                                        << false;
    QTest::newRow("4: state 3, mode 4, wait load")
        << uint(WwState::Working) << uint(WwState::Setup) << "WaitLoad=1" << int(StateV1::Setup) << false;
    QTest::newRow("4: state 7, mode 4") << 7u << uint(WwState::Setup) << "" << int(StateV1::Setup) << false;
    QTest::newRow("4: state 2, mode 4, no flags")
        << uint(WwState::Ready) << uint(WwState::Setup) << "none" << int(StateV1::Setup) << true;
    // Rule 5: waiting for unloading or loading.
    QTest::newRow("5: wait unload") << uint(WwState::Ready) << uint(WwState::Other) << "WaitUnload=1"
                                    << int(StateV1::Waiting) << false;
    QTest::newRow("5: wait load") << uint(WwState::Ready) << uint(WwState::Other) << "WaitLoad=1"
                                  << int(StateV1::Waiting) << false;
    QTest::newRow("5: state 3, wait load")
        << uint(WwState::Working) << uint(WwState::Other) << "WaitLoad=1" << int(StateV1::Waiting) << false;
    QTest::newRow("5: state 3, wait load, no workpiece")
        << uint(WwState::Working) << uint(WwState::Other) << "WaitLoad=1 WorkpiecePresent=0" << int(StateV1::Waiting)
        << false;
    QTest::newRow("5: state 7, wait unload")
        << 7u << uint(WwState::Other) << "WaitUnload=1" << int(StateV1::Waiting) << false;
    QTest::newRow("5: wait unload only") << uint(WwState::Ready) << uint(WwState::Other) << "WaitUnload=1 WaitLoad=-"
                                         << int(StateV1::Waiting) << true;
    QTest::newRow("5: absent wait flags are not true")
        << uint(WwState::Ready) << uint(WwState::Other) << "WaitUnload=- WaitLoad=-" << int(StateV1::Standby) << true;
    // Rule 6: machine state 3 without a workpiece.
    QTest::newRow("6: state 3, no workpiece") << uint(WwState::Working) << uint(WwState::Other) << "WorkpiecePresent=0"
                                              << int(StateV1::WorkingWithoutWorkpiece) << false;
    // Rule 7: machine state 3 otherwise; an absent WorkpiecePresent is not false.
    QTest::newRow("7: state 3, workpiece")
        << uint(WwState::Working) << uint(WwState::Other) << "WorkpiecePresent=1" << int(StateV1::Producing) << false;
    QTest::newRow("7: state 3, workpiece absent")
        << uint(WwState::Working) << uint(WwState::Other) << "WorkpiecePresent=-" << int(StateV1::Producing) << true;
    QTest::newRow("7: state 3, no flags")
        << uint(WwState::Working) << uint(WwState::Other) << "none" << int(StateV1::Producing) << true;
    QTest::newRow("7: state 3, recipe absent") << uint(WwState::Working) << uint(WwState::Other)
                                               << "RecipeInRun=- WorkpiecePresent=1" << int(StateV1::Producing) << true;
    // Rule 8: moving or feeding without a workpiece, in state 2 and every code above 4.
    QTest::newRow("8: moving, no workpiece")
        << uint(WwState::Ready) << uint(WwState::Other) << "Moving=1 WorkpiecePresent=0"
        << int(StateV1::WorkingWithoutWorkpiece) << false;
    QTest::newRow("8: feed runs, no workpiece")
        << uint(WwState::Ready) << uint(WwState::Other) << "FeedRuns=1 WorkpiecePresent=0"
        << int(StateV1::WorkingWithoutWorkpiece) << false;
    QTest::newRow("8: moving, feed absent")
        << uint(WwState::Ready) << uint(WwState::Other) << "Moving=1 FeedRuns=- WorkpiecePresent=0"
        << int(StateV1::WorkingWithoutWorkpiece) << true;
    QTest::newRow("8: state 7, moving") << 7u << uint(WwState::Other) << "Moving=1 WorkpiecePresent=0"
                                        << int(StateV1::WorkingWithoutWorkpiece) << false;
    QTest::newRow("8: state 5, feed runs") << 5u << uint(WwState::Other) << "FeedRuns=1 WorkpiecePresent=0"
                                           << int(StateV1::WorkingWithoutWorkpiece) << false;
    // Rule 9: anything else; an absent WorkpiecePresent counts as present work here.
    QTest::newRow("9: all false") << uint(WwState::Ready) << uint(WwState::Other) << "" << int(StateV1::Standby)
                                  << false;
    QTest::newRow("9: not moving, feed absent")
        << uint(WwState::Ready) << uint(WwState::Other) << "Moving=0 FeedRuns=- WorkpiecePresent=0"
        << int(StateV1::Standby) << true;
    QTest::newRow("9: moving, workpiece absent") << uint(WwState::Ready) << uint(WwState::Other)
                                                 << "Moving=1 WorkpiecePresent=-" << int(StateV1::Standby) << true;
    QTest::newRow("9: moving, workpiece") << uint(WwState::Ready) << uint(WwState::Other)
                                          << "Moving=1 WorkpiecePresent=1" << int(StateV1::Standby) << false;
    QTest::newRow("9: no flags") << uint(WwState::Ready) << uint(WwState::Other) << "none" << int(StateV1::Standby)
                                 << true;
    QTest::newRow("9: state 7") << 7u << uint(WwState::Other) << "" << int(StateV1::Standby) << false;
    QTest::newRow("9: state 7, feed, workpiece absent")
        << 7u << uint(WwState::Other) << "FeedRuns=1 WorkpiecePresent=-" << int(StateV1::Standby) << true;
    QTest::newRow("9: mode 3") << uint(WwState::Ready) << uint(WwState::Manual) << "" << int(StateV1::Standby) << false;
    // EnergySaving and RecipeInRun only take part in the completeness test.
    QTest::newRow("9: energy saving, recipe") << uint(WwState::Ready) << uint(WwState::Other)
                                              << "EnergySaving=1 RecipeInRun=1" << int(StateV1::Standby) << false;
    QTest::newRow("9: energy saving absent")
        << uint(WwState::Ready) << uint(WwState::Other) << "EnergySaving=-" << int(StateV1::Standby) << true;
    // Other optional flags do not take part in it.
    QTest::newRow("9: other flags absent")
        << uint(WwState::Ready) << uint(WwState::Other) << "Hold=- AirPresent=- Safety=- LoadingEnabled=-"
        << int(StateV1::Standby) << false;
}

void tst_OpcUaToMMMapper::stateRules()
{
    QFETCH(uint, machineState);
    QFETCH(uint, operationMode);
    QFETCH(QString, flags);
    QFETCH(int, expected);
    QFETCH(bool, incomplete);

    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1",
        QVariant::fromValue(makeState(machineState, operationMode, flagsFrom(flags), std::nullopt)));
    QVERIFY(spy.count() >= 1);
    const QVariant first = spy.first().at(3);
    QCOMPARE(first.typeName(), "StateV1");
    QCOMPARE(qvariant_cast<StateV1>(first).state, expected);
    const QString warning = m_log.warning(IncompleteState);
    QCOMPARE(m_log.ofComponent("WARNING").count(warning), incomplete ? 1 : 0);
    if (incomplete)
        QCOMPARE(m_log.ofComponent("WARNING").first(), warning);
}

void tst_OpcUaToMMMapper::completenessNeedsEachFlag_data()
{
    QTest::addColumn<QString>("flag");
    for (const char *flag :
        { "WaitLoad", "EnergySaving", "Moving", "WaitUnload", "WorkpiecePresent", "FeedRuns", "RecipeInRun" })
        QTest::newRow(flag) << QString::fromLatin1(flag);
}

void tst_OpcUaToMMMapper::completenessNeedsEachFlag()
{
    QFETCH(QString, flag);
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(makeState(0, 0, flagsFrom(flag + "=-"), std::nullopt)));
    QCOMPARE(m_log.ofComponent("WARNING"), QStringList { m_log.warning(IncompleteState) });
    QCOMPARE(spy.count(), 1);
    QCOMPARE(qvariant_cast<StateV1>(spy.first().at(3)).state, 1);
}

void tst_OpcUaToMMMapper::sameStateTwiceGivesTwoEqualStates()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    const QVariant state = QVariant::fromValue(makeState(3, 0, flagsFrom("WorkpiecePresent=0"), std::nullopt));
    mapper.processData(s_when, "m1", "s1", state);
    mapper.processData(s_when, "m1", "s1", state);
    QList<StateV1> states;
    for (const QList<QVariant> &arguments : qAsConst(spy)) {
        if (qstrcmp(arguments.at(3).typeName(), "StateV1") == 0)
            states.append(qvariant_cast<StateV1>(arguments.at(3)));
    }
    QCOMPARE(states.size(), 2);
    QCOMPARE(states.at(0).state, 5);
    QCOMPARE(states.at(1), states.at(0));
}

void tst_OpcUaToMMMapper::stateKeepsTimestampMachineAndSource()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(
        s_when, "machine 7", "source 9", QVariant::fromValue(makeState(0, 0, std::nullopt, std::nullopt)));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.first(), (QVariantList { s_when, "machine 7", "source 9", spy.first().at(3) }));
    QCOMPARE(typeNames(spy), QStringList { "StateV1" });
}

void tst_OpcUaToMMMapper::operatingData_data()
{
    QTest::addColumn<uint>("machineState");
    QTest::addColumn<QString>("values");
    QTest::addColumn<bool>("emitted");
    QTest::addColumn<double>("powerOnHours");
    QTest::addColumn<double>("feedOnHours");
    QTest::addColumn<qulonglong>("pieces");
    QTest::addColumn<double>("length");
    QTest::addColumn<QStringList>("warnings");

    const QString all = "AbsolutePowerPresentTime=7200000 AbsoluteProductionTime=3600000 "
                        "AbsoluteProductionWithoutWorkpieceTime=1800000 AbsolutePiecesOut=42 AbsoluteLength=1999";
    const QString power = "AbsolutePowerPresentTime is not set";
    const QString feed = "Missing values for FeedOnHours";
    const QString pieces = "AbsolutePiecesOut is not set";
    const QString length = "AbsoluteLength is not set";
    const quint64 max = std::numeric_limits<quint64>::max();

    QTest::newRow("offline") << 0u << all << false << 0.0 << 0.0 << 0ull << 0.0 << QStringList();
    QTest::newRow("offline, no values") << 0u << "none" << false << 0.0 << 0.0 << 0ull << 0.0 << QStringList();
    QTest::newRow("offline, empty values") << 0u << "" << false << 0.0 << 0.0 << 0ull << 0.0 << QStringList();
    QTest::newRow("no values") << 2u << "none" << false << 0.0 << 0.0 << 0ull << 0.0
                               << QStringList { "Values are not availabe, unable to calculate GeneralV1" };
    QTest::newRow("all present") << 2u << all << true << 2.0 << 1.5 << 42ull << 1.0 << QStringList();
    QTest::newRow("state 1") << 1u << all << true << 2.0 << 1.5 << 42ull << 1.0 << QStringList();
    QTest::newRow("state 3") << 3u << all << true << 2.0 << 1.5 << 42ull << 1.0 << QStringList();
    QTest::newRow("state 4") << 4u << all << true << 2.0 << 1.5 << 42ull << 1.0 << QStringList();
    QTest::newRow("state 9") << 9u << all << true << 2.0 << 1.5 << 42ull << 1.0 << QStringList();
    QTest::newRow("none of the five") << 2u << "" << true << 0.0 << 0.0 << 0ull << 0.0
                                      << QStringList { power, feed, pieces, length };
    QTest::newRow("only relative counters")
        << 2u
        << "RelativePowerPresentTime=7200000 RelativeProductionTime=3600000 "
           "RelativeProductionWithoutWorkpieceTime=1 RelativePiecesOut=4 RelativeLength=5000"
        << true << 0.0 << 0.0 << 0ull << 0.0 << QStringList { power, feed, pieces, length };
    QTest::newRow("power 7200000") << 2u << "AbsolutePowerPresentTime=7200000" << true << 2.0 << 0.0 << 0ull << 0.0
                                   << QStringList { feed, pieces, length };
    QTest::newRow("power fraction") << 2u << "AbsolutePowerPresentTime=5400000" << true << 1.5 << 0.0 << 0ull << 0.0
                                    << QStringList { feed, pieces, length };
    QTest::newRow("power largest") << 2u << QString("AbsolutePowerPresentTime=%1").arg(max) << true
                                   << double(max) / 3600000.0 << 0.0 << 0ull << 0.0
                                   << QStringList { feed, pieces, length };
    QTest::newRow("feed sum") << 2u << "AbsoluteProductionTime=3600000 AbsoluteProductionWithoutWorkpieceTime=1800000"
                              << true << 0.0 << 1.5 << 0ull << 0.0 << QStringList { power, pieces, length };
    QTest::newRow("feed without second addend") << 2u << "AbsoluteProductionTime=3600000" << true << 0.0 << 0.0 << 0ull
                                                << 0.0 << QStringList { power, feed, pieces, length };
    QTest::newRow("feed without first addend") << 2u << "AbsoluteProductionWithoutWorkpieceTime=3600000" << true << 0.0
                                               << 0.0 << 0ull << 0.0 << QStringList { power, feed, pieces, length };
    QTest::newRow("feed ignores waiting") << 2u
                                          << "AbsoluteProductionTime=3600000 AbsoluteProductionWithoutWorkpieceTime=0 "
                                             "AbsoluteProductionWaitWorkpieceTime=3600000"
                                          << true << 0.0 << 1.0 << 0ull << 0.0 << QStringList { power, pieces, length };
    QTest::newRow("feed wraps")
        << 2u << QString("AbsoluteProductionTime=%1 AbsoluteProductionWithoutWorkpieceTime=3600001").arg(max) << true
        << 0.0 << 1.0 << 0ull << 0.0 << QStringList { power, pieces, length };
    QTest::newRow("pieces") << 2u << "AbsolutePiecesOut=12345678901234" << true << 0.0 << 0.0 << 12345678901234ull
                            << 0.0 << QStringList { power, feed, length };
    QTest::newRow("pieces largest") << 2u << QString("AbsolutePiecesOut=%1").arg(max) << true << 0.0 << 0.0
                                    << qulonglong(max) << 0.0 << QStringList { power, feed, length };
    QTest::newRow("length 1999") << 2u << "AbsoluteLength=1999" << true << 0.0 << 0.0 << 0ull << 1.0
                                 << QStringList { power, feed, pieces };
    QTest::newRow("length 999") << 2u << "AbsoluteLength=999" << true << 0.0 << 0.0 << 0ull << 0.0
                                << QStringList { power, feed, pieces };
    QTest::newRow("length 2000") << 2u << "AbsoluteLength=2000" << true << 0.0 << 0.0 << 0ull << 2.0
                                 << QStringList { power, feed, pieces };
    QTest::newRow("length largest") << 2u << QString("AbsoluteLength=%1").arg(max) << true << 0.0 << 0.0 << 0ull
                                    << double(max / 1000u) << QStringList { power, feed, pieces };
}

void tst_OpcUaToMMMapper::operatingData()
{
    QFETCH(uint, machineState);
    QFETCH(QString, values);
    QFETCH(bool, emitted);
    QFETCH(double, powerOnHours);
    QFETCH(double, feedOnHours);
    QFETCH(qulonglong, pieces);
    QFETCH(double, length);
    QFETCH(QStringList, warnings);

    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(
        s_when, "m1", "s1", QVariant::fromValue(makeState(machineState, 0, allFlagsFalse(), valuesFrom(values))));
    QStringList expectedWarnings;
    for (const QString &warning : qAsConst(warnings))
        expectedWarnings.append(m_log.warning(warning));
    QCOMPARE(m_log.ofComponent("WARNING"), expectedWarnings);

    const QStringList types = typeNames(spy);
    QCOMPARE(types.count("GeneralV1"), emitted ? 1 : 0);
    if (!emitted)
        return;
    // Right after the state.
    QCOMPARE(types.indexOf("GeneralV1"), 1);
    const QList<QVariant> arguments = spy.at(1);
    QCOMPARE(arguments.at(0).toDateTime(), s_when);
    QCOMPARE(arguments.at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(arguments.at(2).toString(), QStringLiteral("s1"));
    const GeneralV1 general = qvariant_cast<GeneralV1>(arguments.at(3));
    QCOMPARE(general.powerOnHours, powerOnHours);
    QCOMPARE(general.feedOnHours, feedOnHours);
    QCOMPARE(general.pieces, quint64(pieces));
    QCOMPARE(general.length, length);
    QCOMPARE(general.counter5, 0);
    QCOMPARE(general.counter6, 0);
}

namespace {

/** The one emitted dataset of the given type; an invalid variant when there is not exactly one. */
QVariant onlyDataset(const QSignalSpy &spy, const char *typeName)
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

QStringList definitionIds(const ConditionDefinitionsV2 &definitions)
{
    QStringList ids;
    for (const ConditionDefinitionV2 &definition : definitions.items)
        ids.append(definition.id);
    return ids;
}

QStringList dataIds(const ConditionDatasV2 &datas)
{
    QStringList ids;
    for (const ConditionDataV2 &data : datas.items)
        ids.append(data.id);
    return ids;
}

QStringList stateIds(const QString &machine, bool flags, bool values)
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

void tst_OpcUaToMMMapper::stateConditionItems_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("dataType");
    QTest::addColumn<int>("valueType");
    for (int i = 0; i < int(std::size(s_stateItems)); ++i) {
        const ExpectedItem &item = s_stateItems[i];
        QTest::newRow(item.name) << i << QString("m1/State/Machine/%1/%2").arg(item.block, item.name) << item.name
                                 << item.dataType << item.valueType;
    }
}

void tst_OpcUaToMMMapper::stateConditionItems()
{
    QFETCH(int, index);
    QFETCH(QString, id);
    QFETCH(QString, name);
    QFETCH(int, dataType);
    QFETCH(int, valueType);

    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(fullState()));

    const auto definitions = qvariant_cast<ConditionDefinitionsV2>(onlyDataset(spy, "ConditionDefinitionsV2"));
    QCOMPARE(definitions.items.size(), int(std::size(s_stateItems)));
    ConditionDefinitionV2 expected;
    expected.id = id;
    expected.name = name;
    expected.dataType = dataType;
    const ConditionDefinitionV2 &definition = definitions.items.at(index);
    QCOMPARE(definition, expected);
    // The defaults that equality does not tell apart from null texts.
    QVERIFY(definition.text3.isNull() && definition.text4.isNull());
    QVERIFY(!definition.unitCode.isNull() && !definition.unitKey.isNull() && !definition.unitText.isNull());
    QVERIFY(!definition.lowerValue.isNull() && !definition.upperValue.isNull());
    QVERIFY(!definition.text12.isNull() && !definition.text13.isNull());

    const auto datas = qvariant_cast<ConditionDatasV2>(onlyDataset(spy, "ConditionDatasV2"));
    QCOMPARE(datas.items.size(), int(std::size(s_stateItems)));
    const ConditionDataV2 &data = datas.items.at(index);
    QCOMPARE(data.id, id);
    QCOMPARE(data.value.userType(), valueType);
    QCOMPARE(data.value, fullStateValue(index));
}

void tst_OpcUaToMMMapper::stateEmissionOrder()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    const QVariant state = QVariant::fromValue(fullState());
    mapper.processData(s_when, "m1", "s1", state);
    QCOMPARE(typeNames(spy), (QStringList { "StateV1", "GeneralV1", "ConditionDefinitionsV2", "ConditionDatasV2" }));
    for (const QList<QVariant> &arguments : qAsConst(spy)) {
        QCOMPARE(arguments.at(0).toDateTime(), s_when);
        QCOMPARE(arguments.at(1).toString(), QStringLiteral("m1"));
        QCOMPARE(arguments.at(2).toString(), QStringLiteral("s1"));
    }
    QCOMPARE(qvariant_cast<ConditionDefinitionsV2>(spy.at(2).at(3)).timestamp, s_when);
    QCOMPARE(qvariant_cast<ConditionDatasV2>(spy.at(3).at(3)).timestamp, s_when);
    const ConditionDatasV2 firstData = qvariant_cast<ConditionDatasV2>(spy.at(3).at(3));

    // The same items again: no definitions, the data again.
    spy.clear();
    const QDateTime later = s_when.addSecs(1);
    mapper.processData(later, "m1", "s1", state);
    QCOMPARE(typeNames(spy), (QStringList { "StateV1", "GeneralV1", "ConditionDatasV2" }));
    const ConditionDatasV2 secondData = qvariant_cast<ConditionDatasV2>(spy.at(2).at(3));
    QCOMPARE(secondData.timestamp, later);
    QCOMPARE(secondData.items, firstData.items);
    QVERIFY(m_log.ofComponent("WARNING").isEmpty());
}

void tst_OpcUaToMMMapper::offlineMachineHasNoConditions()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    WwState offline = fullState();
    offline.MachineState = 0;
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(offline));
    QCOMPARE(typeNames(spy), QStringList { "StateV1" });
    QVERIFY(m_log.ofComponent("WARNING").isEmpty());

    // Nothing became known while the machine was offline.
    spy.clear();
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(fullState()));
    QCOMPARE(typeNames(spy), (QStringList { "StateV1", "GeneralV1", "ConditionDefinitionsV2", "ConditionDatasV2" }));
    QCOMPARE(qvariant_cast<ConditionDefinitionsV2>(spy.at(2).at(3)).items.size(), int(std::size(s_stateItems)));
}

void tst_OpcUaToMMMapper::noBlocksNoConditions()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(makeState(2, 0, std::nullopt, std::nullopt)));
    QCOMPARE(typeNames(spy), QStringList { "StateV1" });
    QCOMPARE(m_log.ofComponent("WARNING"),
        (QStringList {
            m_log.warning(IncompleteState), m_log.warning("Values are not availabe, unable to calculate GeneralV1") }));
}

void tst_OpcUaToMMMapper::absentItemsAreSkipped()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    // Every optional flag absent, two plain flags true, and two of the values.
    WwStateFlags flags;
    flags.MachineOn = true;
    flags.Alarm = true;
    WwStateValues values;
    values.SpindleOverride = 80;
    values.RelativePiecesOut = 3;
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(makeState(2, 0, flags, values)));
    QCOMPARE(typeNames(spy), (QStringList { "StateV1", "GeneralV1", "ConditionDefinitionsV2", "ConditionDatasV2" }));

    QStringList expectedIds;
    for (const QString &name : s_plainFlags)
        expectedIds.append("m1/State/Machine/Flags/" + name);
    expectedIds << "m1/State/Machine/Values/SpindleOverride"
                << "m1/State/Machine/Values/RelativePiecesOut";
    const auto definitions = qvariant_cast<ConditionDefinitionsV2>(spy.at(2).at(3));
    QCOMPARE(definitionIds(definitions), expectedIds);
    const auto datas = qvariant_cast<ConditionDatasV2>(spy.at(3).at(3));
    QCOMPARE(dataIds(datas), expectedIds);
    QCOMPARE(datas.items.at(0).value, QVariant(true));
    QCOMPARE(datas.items.at(1).value, QVariant(false));
    QCOMPARE(datas.items.at(5).value, QVariant(true));
    QCOMPARE(datas.items.at(8).value, QVariant(uint(80)));
    QCOMPARE(datas.items.at(9).value, QVariant(qulonglong(3)));
}

void tst_OpcUaToMMMapper::onlyValuesBlock()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    WwState state = fullState();
    state.Flags.reset();
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(state));
    QCOMPARE(typeNames(spy), (QStringList { "StateV1", "GeneralV1", "ConditionDefinitionsV2", "ConditionDatasV2" }));
    const QStringList expectedIds = stateIds("m1", false, true);
    QCOMPARE(definitionIds(qvariant_cast<ConditionDefinitionsV2>(spy.at(2).at(3))), expectedIds);
    const auto datas = qvariant_cast<ConditionDatasV2>(spy.at(3).at(3));
    QCOMPARE(dataIds(datas), expectedIds);
    for (int i = 0; i < datas.items.size(); ++i)
        QCOMPARE(datas.items.at(i).value, fullStateValue(s_flagCount + i));

    // The flags that come later are defined then, the values not again.
    spy.clear();
    state.Flags = fullState().Flags;
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(state));
    QCOMPARE(typeNames(spy), (QStringList { "StateV1", "GeneralV1", "ConditionDefinitionsV2", "ConditionDatasV2" }));
    QCOMPARE(definitionIds(qvariant_cast<ConditionDefinitionsV2>(spy.at(2).at(3))), stateIds("m1", true, false));
    QCOMPARE(dataIds(qvariant_cast<ConditionDatasV2>(spy.at(3).at(3))), stateIds("m1", true, true));
}

void tst_OpcUaToMMMapper::newFlagLaterIsDefinedAlone()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    WwState state = fullState();
    state.Flags->Hold.reset();
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(state));
    QVERIFY(
        !definitionIds(qvariant_cast<ConditionDefinitionsV2>(spy.at(2).at(3))).contains("m1/State/Machine/Flags/Hold"));
    QVERIFY(!dataIds(qvariant_cast<ConditionDatasV2>(spy.at(3).at(3))).contains("m1/State/Machine/Flags/Hold"));

    spy.clear();
    state.Flags->Hold = true;
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(state));
    QCOMPARE(typeNames(spy), (QStringList { "StateV1", "GeneralV1", "ConditionDefinitionsV2", "ConditionDatasV2" }));
    const auto definitions = qvariant_cast<ConditionDefinitionsV2>(spy.at(2).at(3));
    QCOMPARE(definitions.items.size(), 1);
    QCOMPARE(definitions.items.first().id, QStringLiteral("m1/State/Machine/Flags/Hold"));
    QCOMPARE(definitions.items.first().name, QStringLiteral("Hold"));
    QCOMPARE(definitions.items.first().dataType, 3);
    const auto datas = qvariant_cast<ConditionDatasV2>(spy.at(3).at(3));
    QCOMPARE(dataIds(datas), stateIds("m1", true, true));

    // Gone again and back: known already.
    spy.clear();
    state.Flags->Hold.reset();
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(state));
    state.Flags->Hold = false;
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(state));
    QCOMPARE(typeNames(spy).count("ConditionDefinitionsV2"), 0);
}

void tst_OpcUaToMMMapper::knownConditionsPerSource()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    const QVariant state = QVariant::fromValue(fullState());
    mapper.processData(s_when, "m1", "s1", state);
    const auto first = qvariant_cast<ConditionDefinitionsV2>(onlyDataset(spy, "ConditionDefinitionsV2"));

    // The same machine from a second source: its definitions again, with equal ids.
    spy.clear();
    mapper.processData(s_when, "m1", "s2", state);
    QCOMPARE(typeNames(spy), (QStringList { "StateV1", "GeneralV1", "ConditionDefinitionsV2", "ConditionDatasV2" }));
    QCOMPARE(spy.at(2).at(2).toString(), QStringLiteral("s2"));
    const auto second = qvariant_cast<ConditionDefinitionsV2>(spy.at(2).at(3));
    QCOMPARE(second.items, first.items);
    QCOMPARE(definitionIds(second), stateIds("m1", true, true));

    // Each source knows them now.
    spy.clear();
    mapper.processData(s_when, "m1", "s1", state);
    mapper.processData(s_when, "m1", "s2", state);
    QCOMPARE(typeNames(spy).count("ConditionDefinitionsV2"), 0);
    QCOMPARE(typeNames(spy).count("ConditionDatasV2"), 2);
}

void tst_OpcUaToMMMapper::knownConditionsPerMachine()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    const QVariant state = QVariant::fromValue(fullState());
    mapper.processData(s_when, "m1", "s1", state);
    spy.clear();

    // Another machine of the same source has ids of its own.
    mapper.processData(s_when, "m2", "s1", state);
    QCOMPARE(typeNames(spy), (QStringList { "StateV1", "GeneralV1", "ConditionDefinitionsV2", "ConditionDatasV2" }));
    QCOMPARE(spy.at(2).at(1).toString(), QStringLiteral("m2"));
    QCOMPARE(definitionIds(qvariant_cast<ConditionDefinitionsV2>(spy.at(2).at(3))), stateIds("m2", true, true));
    QCOMPARE(dataIds(qvariant_cast<ConditionDatasV2>(spy.at(3).at(3))), stateIds("m2", true, true));

    // Alternating updates keep each machine's ids.
    spy.clear();
    mapper.processData(s_when, "m1", "s1", state);
    mapper.processData(s_when, "m2", "s1", state);
    QCOMPARE(typeNames(spy),
        (QStringList { "StateV1", "GeneralV1", "ConditionDatasV2", "StateV1", "GeneralV1", "ConditionDatasV2" }));
    QCOMPARE(dataIds(qvariant_cast<ConditionDatasV2>(spy.at(2).at(3))), stateIds("m1", true, true));
    QCOMPARE(dataIds(qvariant_cast<ConditionDatasV2>(spy.at(5).at(3))), stateIds("m2", true, true));
}

void tst_OpcUaToMMMapper::emptyMachineName()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, QString(), "s1", QVariant::fromValue(fullState()));
    const auto datas = qvariant_cast<ConditionDatasV2>(onlyDataset(spy, "ConditionDatasV2"));
    QCOMPARE(datas.items.first().id, QStringLiteral("/State/Machine/Flags/MachineOn"));
}

void tst_OpcUaToMMMapper::conditionIdsHaveNoSpareRoom()
{
    // The ids are kept for every machine for the life of the process: no room beyond their length.
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "edgebander-00001", "opcua-client", QVariant::fromValue(fullState()));
    const auto definitions = qvariant_cast<ConditionDefinitionsV2>(onlyDataset(spy, "ConditionDefinitionsV2"));
    const auto datas = qvariant_cast<ConditionDatasV2>(onlyDataset(spy, "ConditionDatasV2"));
    QCOMPARE(datas.items.size(), int(std::size(s_stateItems)));
    for (int i = 0; i < datas.items.size(); ++i) {
        const QString &id = datas.items.at(i).id;
        QCOMPARE(id.capacity(), id.size());
        // One string per id, shared by the definition and the data.
        QVERIFY(id.isSharedWith(definitions.items.at(i).id));
    }

    spy.clear();
    WwIdentification identification;
    identification.ManufacturerUri = "https://maker.example";
    identification.CustomerCompanyName = "Customer Ltd";
    mapper.processData(s_when, "edgebander-00001", "opcua-client", QVariant::fromValue(identification));
    const auto nameplate = qvariant_cast<ConditionDatasV2>(onlyDataset(spy, "ConditionDatasV2"));
    QCOMPARE(nameplate.items.size(), 8);
    for (const ConditionDataV2 &item : nameplate.items)
        QCOMPARE(item.id.capacity(), item.id.size());
}

void tst_OpcUaToMMMapper::conditionIdsAreBuiltOnce()
{
    // One string per id for the life of the process, shared by its definition and all its data, also for an item
    // that comes later or goes and comes back.
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    WwState state = fullState();
    state.Flags->Hold.reset();
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(state));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(state));
    state.Flags->Hold = true;
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(state));
    state.Flags->Hold.reset();
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(state));
    state.Flags->Hold = false;
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(state));
    QCOMPARE(typeNames(spy).count("ConditionDefinitionsV2"), 2);

    QHash<QString, QString> definedIds;
    QStringList dataIdsSeen;
    for (const QList<QVariant> &arguments : qAsConst(spy)) {
        const QVariant &data = arguments.at(3);
        if (data.userType() == qMetaTypeId<ConditionDefinitionsV2>()) {
            for (const ConditionDefinitionV2 &definition : qvariant_cast<ConditionDefinitionsV2>(data).items)
                definedIds.insert(definition.id, definition.id);
        } else if (data.userType() == qMetaTypeId<ConditionDatasV2>()) {
            for (const ConditionDataV2 &item : qvariant_cast<ConditionDatasV2>(data).items) {
                QVERIFY2(definedIds.contains(item.id), qPrintable(item.id));
                QVERIFY2(item.id.isSharedWith(definedIds.value(item.id)), qPrintable(item.id));
                dataIdsSeen.append(item.id);
            }
        }
    }
    QCOMPARE(definedIds.size(), int(std::size(s_stateItems)));
    QCOMPARE(dataIdsSeen.count("m1/State/Machine/Flags/Hold"), 2);
}

namespace {

void addKeepingRows()
{
    QTest::addColumn<Keeping>("keeping");
    QTest::newRow("receiver keeps nothing") << Keeping::Nothing;
    QTest::newRow("receiver keeps the records") << Keeping::Records;
    QTest::newRow("receiver keeps the datasets") << Keeping::Datasets;
}

} // namespace

void tst_OpcUaToMMMapper::valueChangesAfterIdenticalUpdates_data()
{
    addKeepingRows();
}

void tst_OpcUaToMMMapper::valueChangesAfterIdenticalUpdates()
{
    QFETCH(Keeping, keeping);
    StateFeed feed(keeping);
    WwState state = fullState();
    for (int i = 0; i < 50; ++i)
        feed.send("m1", "s1", state);
    state.Flags->MachineOn = !state.Flags->MachineOn;
    state.Flags->WorkpiecePresent = !*state.Flags->WorkpiecePresent;
    state.Values->FeedSpeed = 7.5;
    state.Values->AbsoluteLength = *state.Values->AbsoluteLength + 1000;
    for (int i = 0; i < 10; ++i)
        feed.send("m1", "s1", state);
    // Back to the first values, then the last item alone changes.
    state = fullState();
    feed.send("m1", "s1", state);
    state.Values->RelativePiecesOut = 0;
    feed.send("m1", "s1", state);
    QCOMPARE(feed.receiver.seen(), feed.expected);
    if (keeping != Keeping::Nothing)
        QCOMPARE(feed.receiver.keptNow(), feed.expected);
}

void tst_OpcUaToMMMapper::unchangedUpdateSendsTheSameList()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    const QVariant state = QVariant::fromValue(fullState());
    mapper.processData(s_when, "m1", "s1", state);
    mapper.processData(s_when.addSecs(1), "m1", "s1", state);
    WwState changed = fullState();
    changed.Values->FeedSpeed = 1.5;
    changed.Values->AbsoluteLength = *changed.Values->AbsoluteLength + 1000;
    mapper.processData(s_when.addSecs(2), "m1", "s1", QVariant::fromValue(changed));
    QCOMPARE(typeNames(spy),
        (QStringList { "StateV1", "GeneralV1", "ConditionDefinitionsV2", "ConditionDatasV2", "StateV1", "GeneralV1",
            "ConditionDatasV2", "StateV1", "GeneralV1", "ConditionDatasV2" }));
    const auto first = qvariant_cast<ConditionDatasV2>(spy.at(3).at(3));
    const auto second = qvariant_cast<ConditionDatasV2>(spy.at(6).at(3));
    const auto third = qvariant_cast<ConditionDatasV2>(spy.at(9).at(3));
    QCOMPARE(first.timestamp, s_when);
    QCOMPARE(second.timestamp, s_when.addSecs(1));
    QCOMPARE(third.timestamp, s_when.addSecs(2));

    // Nothing changed: the same items, not a copy of them, so that a receiver can tell at once.
    QVERIFY(&second.items.at(0) == &first.items.at(0));
    QVERIFY(spy.at(5).at(3).constData() == spy.at(1).at(3).constData());

    // Something changed: items of its own, and those sent before keep their values.
    QVERIFY(&third.items.at(0) != &second.items.at(0));
    QCOMPARE(third.items.at(28).value, QVariant(1.5));
    QCOMPARE(second.items.at(28).value, fullStateValue(28));
    QVERIFY(spy.at(8).at(3).constData() != spy.at(5).at(3).constData());
    QCOMPARE(qvariant_cast<GeneralV1>(spy.at(8).at(3)).length, qvariant_cast<GeneralV1>(spy.at(5).at(3)).length + 1.0);
}

void tst_OpcUaToMMMapper::optionalItemsComeAndGo_data()
{
    addKeepingRows();
}

void tst_OpcUaToMMMapper::optionalItemsComeAndGo()
{
    QFETCH(Keeping, keeping);
    StateFeed feed(keeping);
    WwState state = fullState();
    const auto sendTimes = [&](int times) {
        for (int i = 0; i < times; ++i)
            feed.send("m1", "s1", state);
    };
    sendTimes(3);
    state.Flags->Hold.reset();
    sendTimes(3);
    state.Flags->Hold = true;
    sendTimes(2);
    state.Values->ActualCycle.reset();
    state.Values->RelativePiecesOut.reset();
    sendTimes(2);
    state.Values->ActualCycle = 2.5;
    sendTimes(2);
    // One comes as another goes: as many items as before, but not the same.
    state.Values->RelativePiecesOut = 4;
    state.Flags->Hold.reset();
    sendTimes(2);
    state.Values.reset();
    sendTimes(2);
    state.Flags.reset();
    sendTimes(2);
    state = fullState();
    sendTimes(2);
    state.Flags.reset();
    sendTimes(2);
    state.MachineState = 0;
    sendTimes(2);
    state = fullState();
    sendTimes(2);
    QCOMPARE(feed.receiver.seen(), feed.expected);
    if (keeping != Keeping::Nothing)
        QCOMPARE(feed.receiver.keptNow(), feed.expected);
}

void tst_OpcUaToMMMapper::twoSourcesOfOneMachine_data()
{
    addKeepingRows();
}

void tst_OpcUaToMMMapper::twoSourcesOfOneMachine()
{
    QFETCH(Keeping, keeping);
    StateFeed feed(keeping);
    WwState first = fullState();
    WwState second = fullState();
    second.Flags->Hold.reset();
    second.Values->FeedSpeed = 99.5;
    second.Values->AbsoluteLength = 5000;
    for (int i = 0; i < 5; ++i) {
        feed.send("m1", "s1", first);
        feed.send("m1", "s2", second);
    }
    first.Values->FeedSpeed = 3.0;
    feed.send("m1", "s1", first);
    feed.send("m1", "s2", second);
    feed.send("m1", "s1", first);
    second.Flags->Hold = false;
    feed.send("m1", "s2", second);
    feed.send("m1", "s1", first);
    QCOMPARE(feed.receiver.seen(), feed.expected);
    if (keeping != Keeping::Nothing)
        QCOMPARE(feed.receiver.keptNow(), feed.expected);
}

void tst_OpcUaToMMMapper::sentDatasetsKeepTheirValues_data()
{
    QTest::addColumn<Keeping>("keeping");
    QTest::newRow("receiver keeps the records") << Keeping::Records;
    QTest::newRow("receiver keeps the datasets") << Keeping::Datasets;
}

void tst_OpcUaToMMMapper::sentDatasetsKeepTheirValues()
{
    QFETCH(Keeping, keeping);
    StateFeed feed(keeping);
    WwState state = fullState();
    feed.send("m1", "s1", state);
    feed.send("m1", "s1", state);
    const QStringList sent = feed.receiver.keptNow();
    // Every flag and value changes, then some go.
    QRandomGenerator random(7);
    for (int i = 0; i < int(std::size(s_stateItems)); ++i)
        changeItem(state, i, random);
    feed.send("m1", "s1", state);
    state.Flags->Hold.reset();
    state.Values->FeedSpeed.reset();
    feed.send("m1", "s1", state);
    QCOMPARE(feed.receiver.keptNow().mid(0, sent.size()), sent);
    QCOMPARE(feed.receiver.keptNow(), feed.expected);
}

void tst_OpcUaToMMMapper::valuesGoOutBitForBit_data()
{
    addKeepingRows();
}

void tst_OpcUaToMMMapper::valuesGoOutBitForBit()
{
    // -0.0 equals 0.0 and NaN equals nothing, but each goes out as it came.
    QFETCH(Keeping, keeping);
    StateFeed feed(keeping);
    WwState state = fullState();
    for (const double speed : { 0.0, -0.0, -0.0, qQNaN(), qQNaN(), 0.0, qInf(), -qInf() }) {
        state.Values->FeedSpeed = speed;
        feed.send("m1", "s1", state);
    }
    QCOMPARE(feed.receiver.seen(), feed.expected);
    if (keeping != Keeping::Nothing)
        QCOMPARE(feed.receiver.keptNow(), feed.expected);
}

void tst_OpcUaToMMMapper::manyUpdatesOfSeveralMachines_data()
{
    addKeepingRows();
}

// GCC 12 at -O2 takes the std::optional assignments of these random state edits, once inlined, for writes past
// an atomic counter of QRandomGenerator and warns; the writes stay within the optionals.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstringop-overflow"
#endif

void tst_OpcUaToMMMapper::manyUpdatesOfSeveralMachines()
{
    // Two machines from two sources each, in a random order, with random changes of values, items, blocks and the
    // machine state; about half of the updates change nothing.
    QFETCH(Keeping, keeping);
    StateFeed feed(keeping);
    struct Machine
    {
        QString machine;
        QString source;
        WwState state;
    };
    QVector<Machine> machines { { "m1", "s1", fullState() }, { "m1", "s2", fullState() }, { "m2", "s1", fullState() },
        { "m2", "s2", fullState() } };
    QRandomGenerator random(20261121);
    for (int step = 0; step < 800; ++step) {
        Machine &machine = machines[int(random.bounded(machines.size()))];
        WwState &state = machine.state;
        const int what = int(random.bounded(100));
        if (what < 25) {
            const int changes = 1 + int(random.bounded(3));
            for (int i = 0; i < changes; ++i)
                changeItem(state, int(random.bounded(int(std::size(s_stateItems)))), random);
        } else if (what < 40) {
            togglePresence(state, int(random.bounded(int(std::size(s_stateItems)))), random);
        } else if (what < 44) {
            state.Flags = state.Flags ? std::nullopt : fullState().Flags;
        } else if (what < 48) {
            state.Values = state.Values ? std::nullopt : fullState().Values;
        } else if (what < 52) {
            state.MachineState = state.MachineState == 0 ? 2 : 0;
        }
        feed.send(machine.machine, machine.source, state);
    }
    QCOMPARE(feed.receiver.seen(), feed.expected);
    if (keeping != Keeping::Nothing)
        QCOMPARE(feed.receiver.keptNow(), feed.expected);
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

namespace {

WwBaseEventType makeEvent(const QString &message, const QString &id, qint32 category, const QStringList &path)
{
    WwBaseEventType event;
    event.Message = message;
    event.Id = id;
    event.Category = category;
    event.Texts.insert("en", "Spindle overheated");
    event.Path = path;
    return event;
}

} // namespace

void tst_OpcUaToMMMapper::notificationLevel_data()
{
    QTest::addColumn<int>("category");
    QTest::addColumn<int>("level");
    QTest::newRow("0") << int(WwBaseEventType::Other) << int(NotificationsAddV1::Other);
    QTest::newRow("1") << int(WwBaseEventType::Diagnostic) << int(NotificationsAddV1::Other);
    QTest::newRow("2") << int(WwBaseEventType::Information) << int(NotificationsAddV1::Information);
    QTest::newRow("3") << int(WwBaseEventType::Warning) << int(NotificationsAddV1::Warning);
    QTest::newRow("4") << int(WwBaseEventType::Alarm) << int(NotificationsAddV1::Other);
    QTest::newRow("5") << int(WwBaseEventType::Error) << int(NotificationsAddV1::Alarm);
    QTest::newRow("6") << 6 << int(NotificationsAddV1::Other);
    QTest::newRow("-1") << -1 << int(NotificationsAddV1::Other);
    QTest::newRow("1000") << 1000 << int(NotificationsAddV1::Other);
}

void tst_OpcUaToMMMapper::notificationLevel()
{
    QFETCH(int, category);
    QFETCH(int, level);
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(makeEvent("Overheat", "4711", category, { "U" })));
    QCOMPARE(typeNames(spy), QStringList { "NotificationsAddV1" });
    QCOMPARE(qvariant_cast<NotificationsAddV1>(spy.first().at(3)).level, level);
}

void tst_OpcUaToMMMapper::withdrawal_data()
{
    QTest::addColumn<QString>("message");
    QTest::addColumn<bool>("withdraws");
    QTest::newRow("{OFF}") << "{OFF}" << true;
    QTest::newRow("{OFF") << "{OFF" << true;
    QTest::newRow("{OFF} with text") << "{OFF} Spindle overheated" << true;
    QTest::newRow("{OFFline") << "{OFFline" << true;
    QTest::newRow("{off}") << "{off}" << false;
    QTest::newRow("{Off}") << "{Off}" << false;
    QTest::newRow("leading space") << " {OFF}" << false;
    QTest::newRow("inside") << "Spindle {OFF}" << false;
    QTest::newRow("{OF") << "{OF" << false;
    QTest::newRow("OFF") << "OFF" << false;
    QTest::newRow("empty") << "" << false;
    QTest::newRow("null") << QString() << false;
}

void tst_OpcUaToMMMapper::withdrawal()
{
    QFETCH(QString, message);
    QFETCH(bool, withdraws);
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(makeEvent(message, "4711", 3, { "Unit1" })));
    QCOMPARE(typeNames(spy), QStringList { withdraws ? "NotificationsRemoveV1" : "NotificationsAddV1" });
    QVERIFY(m_log.lines().isEmpty());
}

void tst_OpcUaToMMMapper::announcementFields()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    WwBaseEventType event = makeEvent("Overheat", "4711", 5, { "Unit1", "Spindle" });
    event.Text5 = "five";
    event.Text6 = "six";
    event.Text7 = "seven";
    mapper.processData(s_when, "machine 1", "source 1", QVariant::fromValue(event));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.first().at(0).toDateTime(), s_when);
    QCOMPARE(spy.first().at(1).toString(), QStringLiteral("machine 1"));
    QCOMPARE(spy.first().at(2).toString(), QStringLiteral("source 1"));
    const NotificationsAddV1 add = qvariant_cast<NotificationsAddV1>(spy.first().at(3));
    QCOMPARE(add.id, QStringLiteral("Unit1/Spindle/4711"));
    QCOMPARE(add.timestamp, s_when);
    QCOMPARE(add.flag, false);
    QCOMPARE(add.level, 3);
    QCOMPARE(add.message, QStringLiteral("Spindle overheated"));
    QCOMPARE(add.messageCode, QStringLiteral("4711"));
    QVERIFY(add.text7.isEmpty());
    QVERIFY(add.text8.isEmpty());
}

void tst_OpcUaToMMMapper::withdrawalFields()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(
        s_when, "machine 1", "source 1", QVariant::fromValue(makeEvent("{OFF}", "4711", 5, { "Unit1", "Spindle" })));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.first().at(0).toDateTime(), s_when);
    QCOMPARE(spy.first().at(1).toString(), QStringLiteral("machine 1"));
    QCOMPARE(spy.first().at(2).toString(), QStringLiteral("source 1"));
    const NotificationsRemoveV1 remove = qvariant_cast<NotificationsRemoveV1>(spy.first().at(3));
    QCOMPARE(remove.id, QStringLiteral("4711"));
    QCOMPARE(remove.timestamp, s_when);
}

void tst_OpcUaToMMMapper::notificationIdFromPath_data()
{
    QTest::addColumn<QStringList>("path");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("expected");
    QTest::newRow("two elements") << QStringList { "Unit1", "Spindle" } << "4711"
                                  << "Unit1/Spindle/4711";
    QTest::newRow("one element") << QStringList { "Unit1" } << "4711"
                                 << "Unit1/4711";
    QTest::newRow("empty path") << QStringList() << "4711"
                                << "/4711";
    QTest::newRow("empty element") << QStringList { "" } << "4711"
                                   << "/4711";
    QTest::newRow("empty id") << QStringList { "Unit1" } << ""
                              << "Unit1/";
    QTest::newRow("placeholders stay") << QStringList { "%2", "%1" } << "%1"
                                       << "%2/%1/%1";
}

void tst_OpcUaToMMMapper::notificationIdFromPath()
{
    QFETCH(QStringList, path);
    QFETCH(QString, id);
    QFETCH(QString, expected);
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(makeEvent("Overheat", id, 3, path)));
    const NotificationsAddV1 add = qvariant_cast<NotificationsAddV1>(onlyDataset(spy, "NotificationsAddV1"));
    QCOMPARE(add.id, expected);
    QCOMPARE(add.messageCode, id);
}

void tst_OpcUaToMMMapper::notificationText()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    WwBaseEventType event = makeEvent("Overheat", "1", 3, { "U" });

    // Whichever text the hash yields first, not a preferred language.
    event.Texts = { { "de", "Spindel zu heiss" }, { "en", "Spindle overheated" }, { "fr", "Broche surchauffee" },
        { "it", "Mandrino surriscaldato" } };
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(event));
    QCOMPARE(qvariant_cast<NotificationsAddV1>(spy.last().at(3)).message, event.Texts.constBegin().value());

    event.Texts.clear();
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(event));
    QVERIFY(qvariant_cast<NotificationsAddV1>(spy.last().at(3)).message.isEmpty());
    QCOMPARE(spy.count(), 2);
}

void tst_OpcUaToMMMapper::repeatedEventsRepeat()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    const QVariant add = QVariant::fromValue(makeEvent("Overheat", "4711", 3, { "U" }));
    const QVariant remove = QVariant::fromValue(makeEvent("{OFF}", "4711", 3, { "U" }));
    mapper.processData(s_when, "m1", "s1", add);
    mapper.processData(s_when, "m1", "s1", add);
    mapper.processData(s_when, "m1", "s1", remove);
    mapper.processData(s_when, "m1", "s1", remove);
    QCOMPARE(typeNames(spy),
        (QStringList { "NotificationsAddV1", "NotificationsAddV1", "NotificationsRemoveV1", "NotificationsRemoveV1" }));
    QCOMPARE(qvariant_cast<NotificationsAddV1>(spy.at(0).at(3)), qvariant_cast<NotificationsAddV1>(spy.at(1).at(3)));
    QCOMPARE(
        qvariant_cast<NotificationsRemoveV1>(spy.at(2).at(3)), qvariant_cast<NotificationsRemoveV1>(spy.at(3).at(3)));
}

namespace {

/** A nameplate with only the fields that are not optional. */
WwIdentification minimalIdentification()
{
    WwIdentification identification;
    identification.Name = "Saw 1";
    identification.ProductInstanceUri = "urn:maker:saw:42";
    identification.Manufacturer = "Maker";
    identification.Model = "M100";
    identification.DeviceClass = "Saw";
    identification.SerialNumber = "SN42";
    identification.YearOfConstruction = 2019;
    return identification;
}

/** A nameplate with every field present. */
WwIdentification fullIdentification()
{
    WwIdentification identification = minimalIdentification();
    identification.ManufacturerUri = "https://maker.example";
    identification.ProductCode = "PC-7";
    identification.HardwareRevision = "HW1";
    identification.SoftwareRevision = "SW2";
    identification.MonthOfConstruction = 3;
    identification.InitialOperationDate = QDateTime(QDate(2021, 3, 1), QTime(8, 0), Qt::UTC);
    identification.AssetId = "A-17";
    identification.ComponentName = "Main saw";
    identification.Location = "Hall 2";
    identification.LocationPlant = "Plant North";
    identification.LocationGPS = "48.1,11.5";
    identification.CustomerCompanyName = "Customer Ltd";
    return identification;
}

QStringList identificationIds(const QString &machine, const QStringList &fields)
{
    QStringList ids;
    for (const QString &field : fields)
        ids.append(machine + "/Identification/" + field);
    return ids;
}

const QStringList s_mandatoryFields { "ProductInstanceUri", "Manufacturer", "Model", "DeviceClass", "SerialNumber",
    "YearOfConstruction" };

} // namespace

void tst_OpcUaToMMMapper::identificationFields_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("dataType");
    QTest::addColumn<QVariant>("value");

    int i = 0;
    QTest::newRow("ProductInstanceUri") << i++ << "ProductInstanceUri" << 0 << QVariant("urn:maker:saw:42");
    QTest::newRow("Manufacturer") << i++ << "Manufacturer" << 0 << QVariant("Maker");
    QTest::newRow("ManufacturerUri") << i++ << "ManufacturerUri" << 0 << QVariant("https://maker.example");
    QTest::newRow("Model") << i++ << "Model" << 0 << QVariant("M100");
    QTest::newRow("ProductCode") << i++ << "ProductCode" << 0 << QVariant("PC-7");
    QTest::newRow("HardwareRevision") << i++ << "HardwareRevision" << 0 << QVariant("HW1");
    QTest::newRow("SoftwareRevision") << i++ << "SoftwareRevision" << 0 << QVariant("SW2");
    QTest::newRow("DeviceClass") << i++ << "DeviceClass" << 0 << QVariant("Saw");
    QTest::newRow("SerialNumber") << i++ << "SerialNumber" << 0 << QVariant("SN42");
    QTest::newRow("YearOfConstruction") << i++ << "YearOfConstruction" << 1 << QVariant(qint32(2019));
    QTest::newRow("MonthOfConstruction") << i++ << "MonthOfConstruction" << 1 << QVariant(qint32(3));
    QTest::newRow("InitialOperationDate") << i++ << "InitialOperationDate" << 0 << QVariant("2021-03-01T08:00:00Z");
    QTest::newRow("AssetId") << i++ << "AssetId" << 0 << QVariant("A-17");
    QTest::newRow("ComponentName") << i++ << "ComponentName" << 0 << QVariant("Main saw");
    QTest::newRow("Location") << i++ << "Location" << 0 << QVariant("Hall 2");
    QTest::newRow("LocationPlant") << i++ << "LocationPlant" << 0 << QVariant("Plant North");
    QTest::newRow("LocationGPS") << i++ << "LocationGPS" << 0 << QVariant("48.1,11.5");
    QTest::newRow("CustomerCompanyName") << i++ << "CustomerCompanyName" << 0 << QVariant("Customer Ltd");
}

void tst_OpcUaToMMMapper::identificationFields()
{
    QFETCH(int, index);
    QFETCH(QString, name);
    QFETCH(int, dataType);
    QFETCH(QVariant, value);

    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(fullIdentification()));
    QCOMPARE(typeNames(spy), (QStringList { "ConditionDefinitionsV2", "ConditionDatasV2" }));

    const auto definitions = qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3));
    QCOMPARE(definitions.timestamp, s_when);
    QCOMPARE(definitions.items.size(), 18);
    ConditionDefinitionV2 expected;
    expected.id = "m1/Identification/" + name;
    expected.name = name;
    expected.dataType = dataType;
    QCOMPARE(definitions.items.at(index), expected);
    QVERIFY(definitions.items.at(index).text3.isNull());
    QVERIFY(!definitions.items.at(index).unitText.isNull());

    const auto datas = qvariant_cast<ConditionDatasV2>(spy.at(1).at(3));
    QCOMPARE(datas.timestamp, s_when);
    QCOMPARE(datas.items.size(), 18);
    QCOMPARE(datas.items.at(index).id, expected.id);
    QCOMPARE(datas.items.at(index).value.userType(), value.userType());
    QCOMPARE(datas.items.at(index).value, value);
}

void tst_OpcUaToMMMapper::identificationDefinedOnce()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    const QVariant identification = QVariant::fromValue(minimalIdentification());
    mapper.processData(s_when, "m1", "s1", identification);
    QCOMPARE(typeNames(spy), (QStringList { "ConditionDefinitionsV2", "ConditionDatasV2" }));
    for (const QList<QVariant> &arguments : qAsConst(spy))
        QCOMPARE(arguments.mid(0, 3), (QVariantList { s_when, "m1", "s1" }));
    const QStringList expectedIds = identificationIds("m1", s_mandatoryFields);
    QCOMPARE(definitionIds(qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3))), expectedIds);
    QCOMPARE(dataIds(qvariant_cast<ConditionDatasV2>(spy.at(1).at(3))), expectedIds);

    spy.clear();
    mapper.processData(s_when, "m1", "s1", identification);
    QCOMPARE(typeNames(spy), QStringList { "ConditionDatasV2" });
    QCOMPARE(dataIds(qvariant_cast<ConditionDatasV2>(spy.at(0).at(3))), expectedIds);
    QVERIFY(m_log.lines().isEmpty());
}

void tst_OpcUaToMMMapper::identificationNewOptionalField()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    WwIdentification identification = minimalIdentification();
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(identification));
    spy.clear();

    identification.AssetId = "A-17";
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(identification));
    QCOMPARE(typeNames(spy), (QStringList { "ConditionDefinitionsV2", "ConditionDatasV2" }));
    const auto definitions = qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3));
    QCOMPARE(definitionIds(definitions), QStringList { "m1/Identification/AssetId" });
    QCOMPARE(definitions.items.first().name, QStringLiteral("AssetId"));
    QCOMPARE(definitions.items.first().dataType, 0);
    const auto datas = qvariant_cast<ConditionDatasV2>(spy.at(1).at(3));
    QCOMPARE(dataIds(datas),
        identificationIds("m1",
            { "ProductInstanceUri", "Manufacturer", "Model", "DeviceClass", "SerialNumber", "YearOfConstruction",
                "AssetId" }));
    QCOMPARE(datas.items.last().value, QVariant("A-17"));
}

void tst_OpcUaToMMMapper::identificationAbsentMonth()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    WwIdentification identification = fullIdentification();
    identification.MonthOfConstruction.reset();
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(identification));
    const QString month = "m1/Identification/MonthOfConstruction";
    QCOMPARE(qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3)).items.size(), 17);
    QVERIFY(!definitionIds(qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3))).contains(month));
    QVERIFY(!dataIds(qvariant_cast<ConditionDatasV2>(spy.at(1).at(3))).contains(month));

    spy.clear();
    identification.MonthOfConstruction = 12;
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(identification));
    QCOMPARE(definitionIds(qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3))), QStringList { month });
    const auto datas = qvariant_cast<ConditionDatasV2>(spy.at(1).at(3));
    QCOMPARE(datas.items.at(10).id, month);
    QCOMPARE(datas.items.at(10).value.userType(), int(QMetaType::Int));
    QCOMPARE(datas.items.at(10).value.toInt(), 12);
}

void tst_OpcUaToMMMapper::identificationValuesAsTheyStand()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    WwIdentification identification = minimalIdentification();
    identification.Manufacturer = QLatin1String("");
    identification.Model = QString();
    identification.YearOfConstruction = 65535;
    identification.MonthOfConstruction = 255;
    identification.Location = QLatin1String("");
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(identification));
    const auto datas = qvariant_cast<ConditionDatasV2>(spy.at(1).at(3));
    QCOMPARE(dataIds(datas),
        identificationIds("m1",
            { "ProductInstanceUri", "Manufacturer", "Model", "DeviceClass", "SerialNumber", "YearOfConstruction",
                "MonthOfConstruction", "Location" }));
    QCOMPARE(datas.items.at(1).value.userType(), int(QMetaType::QString));
    QVERIFY(datas.items.at(1).value.toString().isEmpty());
    QCOMPARE(datas.items.at(2).value.userType(), int(QMetaType::QString));
    QCOMPARE(datas.items.at(5).value, QVariant(qint32(65535)));
    QCOMPARE(datas.items.at(6).value, QVariant(qint32(255)));
    QCOMPARE(datas.items.at(7).value.userType(), int(QMetaType::QString));
}

void tst_OpcUaToMMMapper::identificationDate_data()
{
    QTest::addColumn<QDateTime>("date");
    QTest::addColumn<QString>("text");
    QTest::newRow("UTC") << QDateTime(QDate(2021, 3, 1), QTime(8, 0), Qt::UTC) << "2021-03-01T08:00:00Z";
    QTest::newRow("offset") << QDateTime(QDate(2021, 3, 1), QTime(9, 0), Qt::OffsetFromUTC, 3600)
                            << "2021-03-01T09:00:00+01:00";
    QTest::newRow("milliseconds") << QDateTime(QDate(2021, 3, 1), QTime(8, 0, 0, 500), Qt::UTC)
                                  << "2021-03-01T08:00:00Z";
    QTest::newRow("invalid") << QDateTime() << "";
}

void tst_OpcUaToMMMapper::identificationDate()
{
    QFETCH(QDateTime, date);
    QFETCH(QString, text);
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    WwIdentification identification = minimalIdentification();
    identification.InitialOperationDate = date;
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(identification));
    const auto definitions = qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3));
    QCOMPARE(definitions.items.last().id, QStringLiteral("m1/Identification/InitialOperationDate"));
    QCOMPARE(definitions.items.last().dataType, 0);
    const auto datas = qvariant_cast<ConditionDatasV2>(spy.at(1).at(3));
    QCOMPARE(datas.items.last().id, QStringLiteral("m1/Identification/InitialOperationDate"));
    QCOMPARE(datas.items.last().value.userType(), int(QMetaType::QString));
    QCOMPARE(datas.items.last().value.toString(), text);
}

void tst_OpcUaToMMMapper::identificationKnownPerSourceAndMachine()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    const QVariant identification = QVariant::fromValue(minimalIdentification());
    mapper.processData(s_when, "m1", "s1", identification);
    mapper.processData(s_when, "m1", "s2", identification);
    mapper.processData(s_when, "m2", "s1", identification);
    QCOMPARE(typeNames(spy),
        (QStringList { "ConditionDefinitionsV2", "ConditionDatasV2", "ConditionDefinitionsV2", "ConditionDatasV2",
            "ConditionDefinitionsV2", "ConditionDatasV2" }));
    QCOMPARE(definitionIds(qvariant_cast<ConditionDefinitionsV2>(spy.at(2).at(3))),
        identificationIds("m1", s_mandatoryFields));
    QCOMPARE(definitionIds(qvariant_cast<ConditionDefinitionsV2>(spy.at(4).at(3))),
        identificationIds("m2", s_mandatoryFields));
    QCOMPARE(dataIds(qvariant_cast<ConditionDatasV2>(spy.at(5).at(3))), identificationIds("m2", s_mandatoryFields));

    spy.clear();
    mapper.processData(s_when, "m1", "s1", identification);
    mapper.processData(s_when, "m1", "s2", identification);
    mapper.processData(s_when, "m2", "s1", identification);
    QCOMPARE(typeNames(spy), (QStringList { "ConditionDatasV2", "ConditionDatasV2", "ConditionDatasV2" }));
    QCOMPARE(dataIds(qvariant_cast<ConditionDatasV2>(spy.at(0).at(3))), identificationIds("m1", s_mandatoryFields));
}

void tst_OpcUaToMMMapper::identificationAndStateShareSource()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(fullState()));
    spy.clear();

    // The machine's flags and values being known does not make its nameplate known, and the other way round.
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(minimalIdentification()));
    QCOMPARE(typeNames(spy), (QStringList { "ConditionDefinitionsV2", "ConditionDatasV2" }));
    QCOMPARE(definitionIds(qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3))),
        identificationIds("m1", s_mandatoryFields));
    spy.clear();
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(fullState()));
    QCOMPARE(typeNames(spy), (QStringList { "StateV1", "GeneralV1", "ConditionDatasV2" }));
    QCOMPARE(dataIds(qvariant_cast<ConditionDatasV2>(spy.at(2).at(3))), stateIds("m1", true, true));

    OpcUaToMMMapper second;
    QSignalSpy secondSpy(&second, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    second.processData(s_when, "m1", "s1", QVariant::fromValue(minimalIdentification()));
    second.processData(s_when, "m1", "s1", QVariant::fromValue(fullState()));
    QCOMPARE(typeNames(secondSpy),
        (QStringList { "ConditionDefinitionsV2", "ConditionDatasV2", "StateV1", "GeneralV1", "ConditionDefinitionsV2",
            "ConditionDatasV2" }));
    QCOMPARE(definitionIds(qvariant_cast<ConditionDefinitionsV2>(secondSpy.at(4).at(3))), stateIds("m1", true, true));
}

void tst_OpcUaToMMMapper::conversionThatFailsGivesDefaultState()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(FailingStateCarrier()));
    // A default state: an offline machine without flags.
    QCOMPARE(typeNames(spy), QStringList { "StateV1" });
    QCOMPARE(qvariant_cast<StateV1>(spy.first().at(3)).state, 1);
    QCOMPARE(m_log.ofComponent("WARNING"), QStringList { m_log.warning(IncompleteState) });
}

void tst_OpcUaToMMMapper::convertedIdentification()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(NameplateCarrier { "SN77" }));
    QCOMPARE(typeNames(spy), (QStringList { "ConditionDefinitionsV2", "ConditionDatasV2" }));
    const auto datas = qvariant_cast<ConditionDatasV2>(spy.at(1).at(3));
    QCOMPARE(datas.items.at(4).id, QStringLiteral("m1/Identification/SerialNumber"));
    QCOMPARE(datas.items.at(4).value, QVariant("SN77"));
}

void tst_OpcUaToMMMapper::dispatchOrder()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    // A state comes before a nameplate and an event.
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(AnyCarrier()));
    QCOMPARE(typeNames(spy), QStringList { "StateV1" });
    QCOMPARE(qvariant_cast<StateV1>(spy.first().at(3)).state, 7);

    // A nameplate comes before an event.
    spy.clear();
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(NameplateOrEventCarrier()));
    QCOMPARE(typeNames(spy), (QStringList { "ConditionDefinitionsV2", "ConditionDatasV2" }));
}

QTEST_GUILESS_MAIN(tst_OpcUaToMMMapper)
#include "tst_opcuatommmapper.moc"
