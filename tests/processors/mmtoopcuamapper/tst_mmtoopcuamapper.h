#ifndef ORVIX_TST_MMTOOPCUAMAPPER_H
#define ORVIX_TST_MMTOOPCUAMAPPER_H

#include "mmtoopcuamapper.h"

#include "core.h"
#include "logcapture.h"
#include "mmdatasets.h"
#include "opcuatommmapper.h"
#include "stateflags.h"
#include "testsupport.h"
#include "wwtypes.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <memory>

namespace {

const QString Category = QStringLiteral("mmtoopcuamapper");
const QString InitLine = LogCapture::line("INFO", Category, QStringLiteral("MmToOpcUaMapper::init"));

inline QString warning(const QString &text)
{
    return LogCapture::line("WARNING", Category, text);
}

inline QString missing(const QString &key)
{
    return warning(QStringLiteral("Config is missing value for mandatory node '%1'").arg(key));
}

template <typename Record> QString describe(const Record &record)
{
    QString text;
    QDebug debug(&text);
    orvix::debugField(debug, record);
    return text;
}

#define COMPARE_RECORD(actual, expected)                                                                               \
    do {                                                                                                               \
        const auto a_ = (actual);                                                                                      \
        const auto e_ = (expected);                                                                                    \
        QVERIFY2(                                                                                                      \
            a_ == e_, qPrintable(QStringLiteral("\n   actual: %1\n expected: %2").arg(describe(a_), describe(e_))));   \
    } while (false)

const QDateTime s_when = QDateTime(QDate(2022, 5, 6), QTime(7, 8, 9), Qt::UTC);
const QDateTime s_wallTime = QDateTime(QDate(2023, 1, 2), QTime(3, 4, 5), Qt::UTC);

const QString s_source = QStringLiteral("src1");
const QString s_ini = QStringLiteral("orvix.ini");

/**
 * A flags block from a description: "none" for an absent block, otherwise the cleared block (plain flags false,
 * optional ones absent) changed by the space-separated settings "Name=1", "Name=0" and "Name=-" (absent).
 */
inline std::optional<WwStateFlags> flagsFrom(const QString &description)
{
    if (description == QLatin1String("none"))
        return std::nullopt;
    return TestSupport::withFlags(WwStateFlags(), description);
}

/** The settings that flagsFrom turns back into the same flags block. */
inline QString describeFlags(const WwStateFlags &flags)
{
    QStringList settings;
    WwStateFlags::visitFields([&](const char *name, auto member) {
        const auto &value = flags.*member;
        if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::optional<bool>>)
            settings.append(QStringLiteral("%1=%2").arg(
                QLatin1String(name), value ? QString::number(int(*value)) : QStringLiteral("-")));
        else
            settings.append(QStringLiteral("%1=%2").arg(QLatin1String(name)).arg(int(value)));
    });
    return settings.join(QLatin1Char(' '));
}

inline WwState stateOf(quint32 machineState, quint32 operationMode, const QString &flags)
{
    WwState state;
    state.MachineState = machineState;
    state.OperationMode = operationMode;
    state.Flags = flagsFrom(flags);
    return state;
}

const QString s_running = QStringLiteral("MachineOn=1 MachineInitialized=1 PowerPresent=1 Calibrated=1 ");
// What code 3 leaves on a machine that had no state before.
const QString s_afterCode3 = s_running + QStringLiteral("Error=0 RecipeInRun=1 RecipeInSetup=1 EnergySaving=0");

template <typename T> QVariant wrap(const T &value)
{
    return QVariant::fromValue(value);
}

inline QVariant stateCode(qint32 code)
{
    StateV1 state;
    state.state = code;
    return wrap(state);
}

inline QVariant capabilities(quint32 mask)
{
    WwCapabilities capabilities;
    capabilities.Mask = mask;
    return wrap(capabilities);
}

inline QVariant general(double powerOnHours, quint64 pieces, double length)
{
    GeneralV1 general;
    general.powerOnHours = powerOnHours;
    general.feedOnHours = 99;
    general.pieces = pieces;
    general.length = length;
    general.counter5 = 5;
    general.counter6 = 6;
    return wrap(general);
}

inline NotificationsAddV1 notification(
    const QString &id, qint32 level, const QString &message = QStringLiteral("Door open"))
{
    NotificationsAddV1 added;
    added.id = id;
    added.timestamp = s_when;
    added.level = level;
    added.message = message;
    added.messageCode = id.section(QLatin1Char('/'), -1);
    added.text7 = QStringLiteral("seven");
    added.text8 = QStringLiteral("eight");
    return added;
}

inline QVariant removal(const QString &id)
{
    NotificationsRemoveV1 removed;
    removed.id = id;
    removed.timestamp = s_when;
    return wrap(removed);
}

inline QVariant removeAll()
{
    NotificationsRemoveAllV1 all;
    all.timestamp = s_when;
    return wrap(all);
}

inline QVariantMap fullMachine()
{
    return QVariantMap {
        { "locale", "de" },
        { "ProductInstanceUri", "urn:orvix:m1" },
        { "Manufacturer", "Acme" },
        { "ManufacturerUri", "https://acme.example" },
        { "Model", "EB 200" },
        { "ProductCode", "EB-200-X" },
        { "HardwareRevision", "hw2" },
        { "SoftwareRevision", "sw3" },
        { "DeviceClass", "EdgeBander" },
        { "SerialNumber", "4711" },
        { "YearOfConstruction", "2019" },
        { "MonthOfConstruction", "7" },
        { "InitialOperationDate", "2021-03-04T05:06:07.890Z" },
        { "AssetId", "A-1" },
        { "ComponentName", "Line 1" },
        { "Location", "Hall 2" },
        { "LocationPlant", "North" },
        { "LocationGPS", "47.1 8.5" },
        { "CustomerCompanyName", "Joinery" },
        { "unknownKey", "ignored" },
    };
}

inline QVariantMap configWith(const QVariantMap &machines)
{
    return QVariantMap { { "opcuawwcsidentification", machines } };
}

/** A datasource's own type that converts to WwCapabilities, or fails to where valid is false. */
struct CapabilityCarrier
{
    quint32 mask = 0;
    bool valid = true;

    WwCapabilities toCapabilities(bool *ok) const
    {
        *ok = valid;
        WwCapabilities capabilities;
        capabilities.Mask = valid ? mask : 0xffffffffu;
        return capabilities;
    }
};

} // namespace

Q_DECLARE_METATYPE(CapabilityCarrier)

class tst_MmToOpcUaMapper : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void identity();
    void offlineTimerDefaults();
    void initWithoutSettings();
    void initWithoutIdentificationGroup();
    void initPublishesFullMachine();
    void initEmptyMachineMap();
    void initOptionalTexts();
    void initYear_data();
    void initYear();
    void initMonth_data();
    void initMonth();
    void initNumbersTooLargeForTheirField_data();
    void initNumbersTooLargeForTheirField();
    void initUsesTheCurrentDateTimeWithoutClock();
    void initOperationDate_data();
    void initOperationDate();
    void initDeviceClass_data();
    void initDeviceClass();
    void initMachinesInKeyOrder();
    void initReplacesEarlierRecord();
    void initFromIniFile();

    void passesEveryDatasetFirst_data();
    void passesEveryDatasetFirst();
    void nothingMappedBeforeCapabilities();
    void capabilityDefaultAfterTimeout();
    void capabilityDefaultOnRealClock();
    void capabilitiesReplaced();
    void capabilitiesConverted();
    void ownStateStopsStateAndGeneral();
    void ownIdentificationAccepted();
    void ownIdentificationWithoutCapability();
    void ownIdentificationOfUnconfiguredMachine();
    void softwareVersion();
    void softwareVersionOfUnknownMachine();
    void order();

    void generalFirstAndLater();
    void generalConversions_data();
    void generalConversions();
    void generalKeepsState();

    void stateTable_data();
    void stateTable();
    void stateFromClearedRecord_data();
    void stateFromClearedRecord();
    void stateFromConfiguredMachine();
    void stateRowsKeepUnnamedFields();
    void durationTimers_data();
    void durationTimers();
    void durationStandbyAddsTenSeconds();
    void durationTimersNeverStop();

    void notificationEvent_data();
    void notificationEvent();
    void notificationPath_data();
    void notificationPath();
    void notificationPrefix_data();
    void notificationPrefix();
    void prefixSwitchWords_data();
    void prefixSwitchWords();
    void notificationLocaleFallback();
    void notificationRaisesFlags_data();
    void notificationRaisesFlags();
    void notificationAlarmInMachineState4();
    void notificationFlagsWithOwnState();
    void notificationRemoveTwice();
    void notificationRemoveClearsFlags();
    void notificationRemoveAll();
    void notificationReplacesSameId();

    void offlineTimeout();
    void offlineTimeoutRepeats();
    void offlineTimeoutAtItsDefault();
    void offlineIgnoresUnseenMachines();

    void roundTripState_data();
    void roundTripState();
    void roundTripOperatingData();
    void roundTripNotification();
    void roundTripIdentification();

private:
    std::unique_ptr<MmToOpcUaMapper> makeMapper(const QVariantMap &config = QVariantMap());
    QList<QVariant> initWith(const QString &key, const QVariant &value);
    QList<QVariant> feed(MmToOpcUaMapper &mapper, const QVariant &data, const QString &machine = QStringLiteral("m1"));
    QList<QVariant> announce(MmToOpcUaMapper &mapper, quint32 mask, const QString &machine = QStringLiteral("m1"));
    WwState lastState(MmToOpcUaMapper &mapper, const QVariant &data, const QString &machine = QStringLiteral("m1"));

    QList<QVariant> roundTrip(MmToOpcUaMapper &mapper, const QVariant &data);

    LogCapture m_log { Category };
    qint64 m_now = 0;
};

#endif
