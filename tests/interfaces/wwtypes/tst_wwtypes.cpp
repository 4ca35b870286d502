#include "recordtesthelpers.h"
#include "wwtypes.h"

#include <QtTest>

#include <type_traits>

using namespace recordtest;

namespace {

QStringList split(const char *names)
{
    return QString::fromLatin1(names).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

// The names of a record's fields whose type is Field, in declaration order.
template <typename Record, typename Field> QStringList fieldsOfType()
{
    QStringList names;
    Record::visitFields([&](const char *name, auto member) {
        if constexpr (std::is_same_v<std::decay_t<decltype(Record().*member)>, Field>)
            names.append(QLatin1String(name));
    });
    return names;
}

const char plainFlags[] = "MachineOn MachineInitialized PowerPresent Emergency Calibrated Alarm Warning Error";
const char optionalFlags[] = "AirPresent DustChipSuction Safety Remote WorkpiecePresent Moving LoadingEnabled Hold "
                             "RecipeInRun RecipeInSetup RecipeInHold ManualActivityRequired WaitUnload WaitLoad "
                             "EnergySaving ExternalEmergency MaintenanceRequired FeedRuns";

} // namespace

class tst_WwTypes : public QObject
{
    Q_OBJECT

private slots:
    void namedCodes();
    void registration();
    void stateDefaults();
    void flagsBlock();
    void valuesBlock();
    void identificationFields();
    void eventFields();
    void capabilities();
    void manufacturerSpecific();
    void equalityCoversEveryField();
    void stateEqualityLooksIntoBlocks();
};

void tst_WwTypes::registration()
{
    const Registration state = recordtest::registration<WwState>();
    QCOMPARE(state.variantTypeName, QStringLiteral("WwState"));
    QCOMPARE(state.idByName, state.id);
    const Registration identification = recordtest::registration<WwIdentification>();
    QCOMPARE(identification.variantTypeName, QStringLiteral("WwIdentification"));
    QCOMPARE(identification.idByName, identification.id);
    const Registration event = recordtest::registration<WwBaseEventType>();
    QCOMPARE(event.variantTypeName, QStringLiteral("WwBaseEventType"));
    QCOMPARE(event.idByName, event.id);
    const Registration capabilities = recordtest::registration<WwCapabilities>();
    QCOMPARE(capabilities.variantTypeName, QStringLiteral("WwCapabilities"));
    QCOMPARE(capabilities.idByName, capabilities.id);
    const Registration specific = recordtest::registration<WwManufacturerSpecific>();
    QCOMPARE(specific.variantTypeName, QStringLiteral("WwManufacturerSpecific"));
    QCOMPARE(specific.idByName, specific.id);

    const QList<int> ids { state.id, identification.id, event.id, capabilities.id, specific.id };
    for (int id : ids)
        QVERIFY(id >= QMetaType::User);
    QCOMPARE(QSet<int>(ids.begin(), ids.end()).size(), ids.size());
}

void tst_WwTypes::stateDefaults()
{
    const WwState state;
    QCOMPARE(state.MachineState, 0u);
    QCOMPARE(state.OperationMode, 0u);
    QVERIFY(!state.Flags.has_value());
    QVERIFY(!state.Values.has_value());
    QCOMPARE(fieldNames<WwState>(), split("MachineState OperationMode Flags Values"));
    static_assert(std::is_same_v<decltype(WwState::MachineState), quint32>);
    static_assert(std::is_same_v<decltype(WwState::OperationMode), quint32>);
    static_assert(std::is_same_v<decltype(WwState::Flags), std::optional<WwStateFlags>>);
    static_assert(std::is_same_v<decltype(WwState::Values), std::optional<WwStateValues>>);

    // A failed conversion yields the default record.
    const WwState converted = qvariant_cast<WwState>(QVariant::fromValue(WwIdentification()));
    QCOMPARE(converted, WwState());
}

void tst_WwTypes::flagsBlock()
{
    QCOMPARE(fieldNames<WwStateFlags>(),
        split("MachineOn MachineInitialized PowerPresent AirPresent DustChipSuction Emergency Safety Calibrated "
              "Remote WorkpiecePresent Moving LoadingEnabled Alarm Warning Error Hold RecipeInRun RecipeInSetup "
              "RecipeInHold ManualActivityRequired WaitUnload WaitLoad EnergySaving ExternalEmergency "
              "MaintenanceRequired FeedRuns"));
    QCOMPARE((fieldsOfType<WwStateFlags, bool>()), split(plainFlags));
    QCOMPARE((fieldsOfType<WwStateFlags, std::optional<bool>>()), split(optionalFlags));

    const WwStateFlags flags;
    WwStateFlags::visitFields([&](const char *name, auto member) {
        using Field = std::decay_t<decltype(flags.*member)>;
        if constexpr (std::is_same_v<Field, bool>)
            QVERIFY2(!(flags.*member), name);
        else
            QVERIFY2(!(flags.*member).has_value(), name);
    });
}

void tst_WwTypes::valuesBlock()
{
    const QStringList names = fieldNames<WwStateValues>();
    QCOMPARE(names.size(), 35);
    QCOMPARE(names.mid(0, 6),
        split("AxisOverride SpindleOverride FeedSpeed ActualCycle AbsoluteMachineOffTime AbsoluteStandbyTime"));
    QCOMPARE(names.last(), QStringLiteral("RelativePiecesOut"));
    QCOMPARE((fieldsOfType<WwStateValues, std::optional<quint32>>()), split("AxisOverride SpindleOverride"));
    QCOMPARE((fieldsOfType<WwStateValues, std::optional<double>>()), split("FeedSpeed ActualCycle"));
    const QStringList counters = fieldsOfType<WwStateValues, std::optional<quint64>>();
    QCOMPARE(counters, names.mid(4));
    QCOMPARE(counters,
        split("AbsoluteMachineOffTime AbsoluteStandbyTime RelativeStandbyTime AbsoluteReadyTime RelativeReadyTime "
              "AbsoluteWorkingTime RelativeWorkingTime AbsoluteErrorTime RelativeErrorTime AbsoluteMachineOnTime "
              "RelativeMachineOnTime AbsolutePowerPresentTime RelativePowerPresentTime AbsoluteProductionTime "
              "RelativeProductionTime AbsoluteProductionWithoutWorkpieceTime "
              "RelativeProductionWithoutWorkpieceTime AbsoluteProductionWaitWorkpieceTime "
              "RelativeProductionWaitWorkpieceTime AbsoluteRunsGood RelativeRunsGood AbsoluteRunsTotal "
              "RelativeRunsTotal AbsoluteRunsAborted RelativeRunsAborted AbsoluteLength RelativeLength "
              "AbsolutePiecesIn RelativePiecesIn AbsolutePiecesOut RelativePiecesOut"));

    const WwStateValues values;
    WwStateValues::visitFields([&](const char *name, auto member) { QVERIFY2(!(values.*member).has_value(), name); });
}

void tst_WwTypes::identificationFields()
{
    QCOMPARE(fieldNames<WwIdentification>(),
        split("Name ProductInstanceUri Manufacturer ManufacturerUri Model ProductCode HardwareRevision "
              "SoftwareRevision DeviceClass SerialNumber YearOfConstruction MonthOfConstruction "
              "InitialOperationDate AssetId ComponentName Location LocationPlant LocationGPS "
              "CustomerCompanyName"));
    QCOMPARE((fieldsOfType<WwIdentification, QString>()),
        split("Name ProductInstanceUri Manufacturer Model DeviceClass SerialNumber"));
    QCOMPARE((fieldsOfType<WwIdentification, std::optional<QString>>()),
        split("ManufacturerUri ProductCode HardwareRevision SoftwareRevision AssetId ComponentName Location "
              "LocationPlant LocationGPS CustomerCompanyName"));
    static_assert(std::is_same_v<decltype(WwIdentification::YearOfConstruction), quint16>);
    static_assert(std::is_same_v<decltype(WwIdentification::MonthOfConstruction), std::optional<quint8>>);
    static_assert(std::is_same_v<decltype(WwIdentification::InitialOperationDate), std::optional<QDateTime>>);

    const WwIdentification identification;
    QCOMPARE(identification.YearOfConstruction, quint16(0));
    QVERIFY(!identification.MonthOfConstruction.has_value());
    QVERIFY(!identification.InitialOperationDate.has_value());
    QVERIFY(!identification.AssetId.has_value());
    QVERIFY(identification.SerialNumber.isNull());
}

void tst_WwTypes::eventFields()
{
    QCOMPARE(fieldNames<WwBaseEventType>(), split("Message Id Category Texts Text5 Text6 Text7 Path"));
    static_assert(std::is_same_v<decltype(WwBaseEventType::Category), qint32>);
    static_assert(std::is_same_v<decltype(WwBaseEventType::Texts), QHash<QString, QString>>);
    static_assert(std::is_same_v<decltype(WwBaseEventType::Path), QStringList>);
    const WwBaseEventType event;
    QCOMPARE(event.Category, 0);
    QVERIFY(event.Texts.isEmpty());
    QVERIFY(event.Path.isEmpty());
    QVERIFY(event.Message.isNull());
}

void tst_WwTypes::capabilities()
{
    static_assert(std::is_same_v<decltype(WwCapabilities::Mask), quint32>);
    QCOMPARE(WwCapabilities().Mask, 0u);
    QCOMPARE(WwCapabilities::OwnIdentification, 1u);
    QCOMPARE(WwCapabilities::OwnState, 2u);
    WwCapabilities capabilities;
    capabilities.Mask = 0xffffffffu;
    QCOMPARE(qvariant_cast<WwCapabilities>(QVariant::fromValue(capabilities)).Mask, 0xffffffffu);
}

void tst_WwTypes::manufacturerSpecific()
{
    QCOMPARE(fieldNames<WwManufacturerSpecific>(), split("LastProgramName"));
    WwManufacturerSpecific specific;
    QVERIFY(specific.LastProgramName.isNull());
    specific.LastProgramName = QStringLiteral("Door_1200x600");
    QCOMPARE(qvariant_cast<WwManufacturerSpecific>(QVariant::fromValue(specific)), specific);
}

void tst_WwTypes::equalityCoversEveryField()
{
    QCOMPARE(fieldsIgnoredByEquality<WwStateFlags>(), QStringList());
    QCOMPARE(fieldsIgnoredByEquality<WwStateValues>(), QStringList());
    QCOMPARE(fieldsIgnoredByEquality<WwState>(), QStringList());
    QCOMPARE(fieldsIgnoredByEquality<WwIdentification>(), QStringList());
    QCOMPARE(fieldsIgnoredByEquality<WwBaseEventType>(), QStringList());
    QCOMPARE(fieldsIgnoredByEquality<WwCapabilities>(), QStringList());
    QCOMPARE(fieldsIgnoredByEquality<WwManufacturerSpecific>(), QStringList());
}

void tst_WwTypes::stateEqualityLooksIntoBlocks()
{
    const WwState base = filledRecord<WwState>();
    WwStateFlags::visitFields([&](const char *name, auto member) {
        WwState changed = base;
        perturb((*changed.Flags).*member);
        QVERIFY2(changed != base, name);
    });
    WwStateValues::visitFields([&](const char *name, auto member) {
        WwState changed = base;
        perturb((*changed.Values).*member);
        QVERIFY2(changed != base, name);
    });
    // An absent block differs from a present block with every item at its default.
    WwState absent;
    WwState present;
    present.Flags = WwStateFlags();
    QVERIFY(absent != present);
}

// The numbers of the woodworking model's enumerations, which servers and clients exchange.
void tst_WwTypes::namedCodes()
{
    QCOMPARE(uint(WwState::Offline), 0u);
    QCOMPARE(uint(WwState::Standby), 1u);
    QCOMPARE(uint(WwState::Ready), 2u);
    QCOMPARE(uint(WwState::Working), 3u);
    QCOMPARE(uint(WwState::Error), 4u);
    QCOMPARE(uint(WwState::Other), 0u);
    QCOMPARE(uint(WwState::Automatic), 1u);
    QCOMPARE(uint(WwState::SemiAutomatic), 2u);
    QCOMPARE(uint(WwState::Manual), 3u);
    QCOMPARE(uint(WwState::Setup), 4u);
    QCOMPARE(uint(WwState::Sleep), 5u);
    QCOMPARE(int(WwBaseEventType::Other), 0);
    QCOMPARE(int(WwBaseEventType::Diagnostic), 1);
    QCOMPARE(int(WwBaseEventType::Information), 2);
    QCOMPARE(int(WwBaseEventType::Warning), 3);
    QCOMPARE(int(WwBaseEventType::Alarm), 4);
    QCOMPARE(int(WwBaseEventType::Error), 5);
    QCOMPARE(WwCapabilities::OwnIdentification, 1u);
    QCOMPARE(WwCapabilities::OwnState, 2u);
}

QTEST_GUILESS_MAIN(tst_WwTypes)

#include "tst_wwtypes.moc"
