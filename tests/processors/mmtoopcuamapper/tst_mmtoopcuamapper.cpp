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

QString warning(const QString &text)
{
    return LogCapture::line("WARNING", Category, text);
}

QString missing(const QString &key)
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
std::optional<WwStateFlags> flagsFrom(const QString &description)
{
    if (description == QLatin1String("none"))
        return std::nullopt;
    return TestSupport::withFlags(WwStateFlags(), description);
}

/** The settings that flagsFrom turns back into the same flags block. */
QString describeFlags(const WwStateFlags &flags)
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

WwState stateOf(quint32 machineState, quint32 operationMode, const QString &flags)
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

QVariant stateCode(qint32 code)
{
    StateV1 state;
    state.state = code;
    return wrap(state);
}

QVariant capabilities(quint32 mask)
{
    WwCapabilities capabilities;
    capabilities.Mask = mask;
    return wrap(capabilities);
}

QVariant general(double powerOnHours, quint64 pieces, double length)
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

NotificationsAddV1 notification(const QString &id, qint32 level, const QString &message = QStringLiteral("Door open"))
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

QVariant removal(const QString &id)
{
    NotificationsRemoveV1 removed;
    removed.id = id;
    removed.timestamp = s_when;
    return wrap(removed);
}

QVariant removeAll()
{
    NotificationsRemoveAllV1 all;
    all.timestamp = s_when;
    return wrap(all);
}

QVariantMap fullMachine()
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

QVariantMap configWith(const QVariantMap &machines)
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

std::unique_ptr<MmToOpcUaMapper> tst_MmToOpcUaMapper::makeMapper(const QVariantMap &config)
{
    auto mapper = std::make_unique<MmToOpcUaMapper>();
    mapper->setElapsedClock([this] { return m_now; });
    mapper->setDateTimeClock([] { return s_wallTime; });
    if (!config.isEmpty()) {
        QVariantMap shared;
        mapper->init(config, shared);
    }
    m_log.clear();
    return mapper;
}

// Inits a mapper with machine m1 of fullMachine(), key set to value or taken out where value is invalid, and returns
// the data of everything emitted.
QList<QVariant> tst_MmToOpcUaMapper::initWith(const QString &key, const QVariant &value)
{
    QVariantMap machine = fullMachine();
    if (value.isValid())
        machine.insert(key, value);
    else
        machine.remove(key);
    auto mapper = makeMapper();
    QSignalSpy spy(mapper.get(), SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    QVariantMap shared;
    mapper->init(configWith({ { "m1", machine } }), shared);
    QList<QVariant> emitted;
    for (const QList<QVariant> &arguments : qAsConst(spy))
        emitted.append(arguments.at(3));
    return emitted;
}

// Feeds one dataset and returns the data of everything emitted for it, the passed-on dataset first.
QList<QVariant> tst_MmToOpcUaMapper::feed(MmToOpcUaMapper &mapper, const QVariant &data, const QString &machine)
{
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, machine, s_source, data);
    QList<QVariant> emitted;
    for (const QList<QVariant> &arguments : qAsConst(spy)) {
        if (arguments.at(0).toDateTime() != s_when || arguments.at(1).toString() != machine
            || arguments.at(2).toString() != s_source)
            qWarning("dataset emitted with other time stamp, machine or source");
        emitted.append(arguments.at(3));
    }
    return emitted;
}

QList<QVariant> tst_MmToOpcUaMapper::announce(MmToOpcUaMapper &mapper, quint32 mask, const QString &machine)
{
    return feed(mapper, capabilities(mask), machine);
}

// Feeds one dataset that must yield exactly one WwState after the passed-on dataset, and returns it.
WwState tst_MmToOpcUaMapper::lastState(MmToOpcUaMapper &mapper, const QVariant &data, const QString &machine)
{
    const QList<QVariant> emitted = feed(mapper, data, machine);
    if (emitted.size() != 2 || emitted.at(1).userType() != qMetaTypeId<WwState>()) {
        qWarning("expected one WwState, got %d datasets", int(emitted.size()));
        return WwState();
    }
    return emitted.at(1).value<WwState>();
}

void tst_MmToOpcUaMapper::initTestCase()
{
    // QVariant compares records of its own types by their bytes unless a comparator is known.
    QMetaType::registerEqualsComparator<StateV1>();
    QMetaType::registerEqualsComparator<GeneralV1>();
    QMetaType::registerEqualsComparator<NotificationsAddV1>();
    QMetaType::registerEqualsComparator<NotificationsRemoveV1>();
    QMetaType::registerEqualsComparator<NotificationsRemoveAllV1>();
    QMetaType::registerEqualsComparator<ConditionDatasV2>();
    QMetaType::registerEqualsComparator<SwVerV1>();
    QMetaType::registerEqualsComparator<OrderV1>();
    QMetaType::registerEqualsComparator<WwState>();
    QMetaType::registerEqualsComparator<WwIdentification>();
    QMetaType::registerEqualsComparator<WwBaseEventType>();
    QMetaType::registerEqualsComparator<WwCapabilities>();
    QMetaType::registerEqualsComparator<WwManufacturerSpecific>();
    QVERIFY((QMetaType::registerConverter<CapabilityCarrier, WwCapabilities>(&CapabilityCarrier::toCapabilities)));
}

void tst_MmToOpcUaMapper::init()
{
    m_now = 0;
    m_log.start(QStringLiteral("mmtoopcuamapper.debug=true"));
}

void tst_MmToOpcUaMapper::cleanup()
{
    m_log.stop();
}

void tst_MmToOpcUaMapper::identity()
{
    MmToOpcUaMapper mapper;
    QCOMPARE(mapper.name(), QStringLiteral("mmtoopcuamapper"));
    QCOMPARE(mapper.orderNumber(), 50u);
    QVERIFY(mapper.qt_metacast("IProcessor"));
    QVERIFY(qobject_cast<IProcessor *>(&mapper));
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    QVERIFY(spy.isValid());
    QVERIFY(QMetaObject::checkConnectArgs(SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)),
        SLOT(processData(QDateTime, QString, QString, QVariant))));
    QVERIFY(mapper.metaObject()->indexOfSlot("processData(QDateTime,QString,QString,QVariant)") >= 0);
    QVariantMap shared;
    QVERIFY(mapper.init(QVariantMap { { "core", QVariantMap() } }, shared));
    QCOMPARE(m_log.ofComponent(), QStringList { InitLine });
}

void tst_MmToOpcUaMapper::offlineTimerDefaults()
{
    QCOMPARE(MmToOpcUaMapper::DefaultOfflineTimeout, 600000);
    QCOMPARE(MmToOpcUaMapper::DefaultCapabilityTimeout, qint64(30000));
    MmToOpcUaMapper mapper;
    const QList<QTimer *> timers = mapper.findChildren<QTimer *>();
    QCOMPARE(timers.size(), 1);
    QVERIFY(timers.first()->isActive());
    QVERIFY(!timers.first()->isSingleShot());
    QCOMPARE(timers.first()->interval(), 600000);
    mapper.setOfflineTimeout(25);
    QCOMPARE(timers.first()->interval(), 25);
    QVERIFY(timers.first()->isActive());
}

void tst_MmToOpcUaMapper::initWithoutSettings()
{
    MmToOpcUaMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    QVariantMap shared;
    QVERIFY(mapper.init(QVariantMap(), shared));
    QCOMPARE(spy.count(), 0);
    QCOMPARE(m_log.ofComponent(), (QStringList { InitLine, warning(QStringLiteral("No settings were provided")) }));
}

void tst_MmToOpcUaMapper::initWithoutIdentificationGroup()
{
    MmToOpcUaMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    QVariantMap shared;
    QVERIFY(
        mapper.init(QVariantMap { { "opcuaserver", QVariantMap { { "enableWwBaseEventPrefix", true } } } }, shared));
    QCOMPARE(spy.count(), 0);
    QCOMPARE(m_log.ofComponent(), QStringList { InitLine });
}

void tst_MmToOpcUaMapper::initPublishesFullMachine()
{
    auto mapper = makeMapper();
    QSignalSpy spy(mapper.get(), SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    QVariantMap shared;
    QVERIFY(mapper->init(configWith({ { "m1", fullMachine() } }), shared));
    QCOMPARE(m_log.ofComponent(), QStringList { InitLine });
    QCOMPARE(spy.count(), 2);
    for (const QList<QVariant> &arguments : qAsConst(spy)) {
        QCOMPARE(arguments.at(0).toDateTime(), s_wallTime);
        QCOMPARE(arguments.at(1).toString(), QStringLiteral("m1"));
        QCOMPARE(arguments.at(2).toString(), s_ini);
    }

    WwIdentification expected;
    expected.ProductInstanceUri = QStringLiteral("urn:orvix:m1");
    expected.Manufacturer = QStringLiteral("Acme");
    expected.ManufacturerUri = QStringLiteral("https://acme.example");
    expected.Model = QStringLiteral("EB 200");
    expected.ProductCode = QStringLiteral("EB-200-X");
    expected.HardwareRevision = QStringLiteral("hw2");
    expected.SoftwareRevision = QStringLiteral("sw3");
    expected.DeviceClass = QStringLiteral("EdgeBander");
    expected.SerialNumber = QStringLiteral("4711");
    expected.YearOfConstruction = 2019;
    expected.MonthOfConstruction = 7;
    expected.InitialOperationDate = QDateTime(QDate(2021, 3, 4), QTime(5, 6, 7, 890), Qt::UTC);
    expected.AssetId = QStringLiteral("A-1");
    expected.ComponentName = QStringLiteral("Line 1");
    expected.Location = QStringLiteral("Hall 2");
    expected.LocationPlant = QStringLiteral("North");
    expected.LocationGPS = QStringLiteral("47.1 8.5");
    expected.CustomerCompanyName = QStringLiteral("Joinery");
    QCOMPARE(spy.at(0).at(3).userType(), qMetaTypeId<WwIdentification>());
    COMPARE_RECORD(spy.at(0).at(3).value<WwIdentification>(), expected);

    QCOMPARE(spy.at(1).at(3).userType(), qMetaTypeId<WwState>());
    COMPARE_RECORD(spy.at(1).at(3).value<WwState>(),
        stateOf(0, 0, "WorkpiecePresent=0 RecipeInRun=0 RecipeInSetup=0 EnergySaving=0 FeedRuns=0"));
    QVERIFY(!spy.at(1).at(3).value<WwState>().Values);

    // The configured locale is the one the events use.
    m_log.clear();
    announce(*mapper, 0);
    const QList<QVariant> emitted = feed(*mapper, wrap(notification("n1", 0)));
    QCOMPARE(emitted.at(1).value<WwBaseEventType>().Texts,
        (QHash<QString, QString> { { QStringLiteral("de"), QStringLiteral("Door open") } }));
    QCOMPARE(m_log.ofComponent(), QStringList());
}

void tst_MmToOpcUaMapper::initEmptyMachineMap()
{
    auto mapper = makeMapper();
    QSignalSpy spy(mapper.get(), SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    QVariantMap shared;
    QVERIFY(mapper->init(configWith({ { "m1", QVariantMap() } }), shared));
    QCOMPARE(m_log.ofComponent(),
        (QStringList {
            InitLine,
            warning(QStringLiteral("No 'locale' set; defaulting to 'en'")),
            missing(QStringLiteral("ProductInstanceUri")),
            missing(QStringLiteral("Manufacturer")),
            missing(QStringLiteral("Model")),
            missing(QStringLiteral("SerialNumber")),
            missing(QStringLiteral("DeviceClass")),
            missing(QStringLiteral("YearOfConstruction")),
            missing(QStringLiteral("MonthOfConstruction")),
            missing(QStringLiteral("InitialOperationDate")),
        }));
    QCOMPARE(spy.count(), 2);
    const WwIdentification identification = spy.at(0).at(3).value<WwIdentification>();
    COMPARE_RECORD(identification, WwIdentification());
    QVERIFY(!identification.ProductInstanceUri.isNull());
    QVERIFY(!identification.DeviceClass.isNull());
    COMPARE_RECORD(spy.at(1).at(3).value<WwState>(),
        stateOf(0, 0, "WorkpiecePresent=0 RecipeInRun=0 RecipeInSetup=0 EnergySaving=0 FeedRuns=0"));

    // Published with the locale "en": events need no fallback warning.
    m_log.clear();
    announce(*mapper, 0);
    const QList<QVariant> emitted = feed(*mapper, wrap(notification("n1", 0)));
    QCOMPARE(emitted.at(1).value<WwBaseEventType>().Texts.keys(), QStringList { QStringLiteral("en") });
    QVERIFY(m_log.ofComponent().isEmpty());
}

void tst_MmToOpcUaMapper::initOptionalTexts()
{
    QVariantMap machine = fullMachine();
    machine.remove(QStringLiteral("ManufacturerUri"));
    machine.remove(QStringLiteral("AssetId"));
    machine.insert(QStringLiteral("Location"), QString());
    machine.insert(QStringLiteral("LocationGPS"), QStringList { QStringLiteral("47.1"), QStringLiteral("8.5") });
    machine.insert(QStringLiteral("Model"), QString());
    auto mapper = makeMapper();
    QSignalSpy spy(mapper.get(), SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    QVariantMap shared;
    mapper->init(configWith({ { "m1", machine } }), shared);
    QCOMPARE(m_log.ofComponent(), (QStringList { InitLine, missing(QStringLiteral("Model")) }));
    const WwIdentification identification = spy.at(0).at(3).value<WwIdentification>();
    QVERIFY(!identification.ManufacturerUri);
    QVERIFY(!identification.AssetId);
    QVERIFY(identification.Location);
    QCOMPARE(*identification.Location, QString());
    QCOMPARE(*identification.LocationGPS, QStringLiteral("47.1, 8.5"));
    QCOMPARE(identification.Model, QString());
    QCOMPARE(identification.Manufacturer, QStringLiteral("Acme"));
}

void tst_MmToOpcUaMapper::initYear_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<int>("expected");
    QTest::addColumn<bool>("warns");
    QTest::newRow("text") << QVariant(QStringLiteral("2019")) << 2019 << false;
    QTest::newRow("typed") << QVariant(2020) << 2020 << false;
    QTest::newRow("zero is a number") << QVariant(QStringLiteral("0")) << 0 << false;
    QTest::newRow("not a number") << QVariant(QStringLiteral("twenty")) << 0 << true;
    QTest::newRow("empty") << QVariant(QString()) << 0 << true;
    QTest::newRow("missing") << QVariant() << 0 << true;
}

void tst_MmToOpcUaMapper::initYear()
{
    QFETCH(QVariant, value);
    QFETCH(int, expected);
    QFETCH(bool, warns);
    const QList<QVariant> emitted = initWith(QStringLiteral("YearOfConstruction"), value);
    QCOMPARE(emitted.size(), 2);
    QCOMPARE(int(emitted.at(0).value<WwIdentification>().YearOfConstruction), expected);
    QCOMPARE(m_log.ofComponent().contains(missing(QStringLiteral("YearOfConstruction"))), warns);
    QCOMPARE(m_log.ofComponent().size(), warns ? 2 : 1);
}

void tst_MmToOpcUaMapper::initMonth_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<int>("expected");
    QTest::newRow("text") << QVariant(QStringLiteral("3")) << 3;
    QTest::newRow("typed") << QVariant(11) << 11;
    QTest::newRow("13 without range check") << QVariant(QStringLiteral("13")) << 13;
    QTest::newRow("zero is a number") << QVariant(QStringLiteral("0")) << 0;
    QTest::newRow("not a number") << QVariant(QStringLiteral("March")) << -1;
    QTest::newRow("missing") << QVariant() << -1;
}

void tst_MmToOpcUaMapper::initMonth()
{
    QFETCH(QVariant, value);
    QFETCH(int, expected);
    const QList<QVariant> emitted = initWith(QStringLiteral("MonthOfConstruction"), value);
    const std::optional<quint8> month = emitted.at(0).value<WwIdentification>().MonthOfConstruction;
    if (expected < 0) {
        QVERIFY(!month);
        QCOMPARE(m_log.ofComponent().mid(1), QStringList { missing(QStringLiteral("MonthOfConstruction")) });
    } else {
        QVERIFY(month);
        QCOMPARE(int(*month), expected);
        QCOMPARE(m_log.ofComponent().size(), 1);
    }
}

void tst_MmToOpcUaMapper::initNumbersTooLargeForTheirField_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("warning");
    QTest::newRow("year") << "YearOfConstruction" << QVariant(QStringLiteral("70000"))
                          << "Config value 70000 for node 'YearOfConstruction' does not fit its field (0 to 65535), "
                             "using 0";
    QTest::newRow("month") << "MonthOfConstruction" << QVariant(2019)
                           << "Config value 2019 for node 'MonthOfConstruction' does not fit its field (0 to 255), "
                              "using no value";
}

void tst_MmToOpcUaMapper::initNumbersTooLargeForTheirField()
{
    QFETCH(QString, key);
    QFETCH(QVariant, value);
    QFETCH(QString, warning);
    const QList<QVariant> emitted = initWith(key, value);
    const WwIdentification identification = emitted.at(0).value<WwIdentification>();
    if (key == QLatin1String("YearOfConstruction"))
        QCOMPARE(int(identification.YearOfConstruction), 0);
    else
        QVERIFY(!identification.MonthOfConstruction);
    QCOMPARE(m_log.ofComponent(), (QStringList { InitLine, ::warning(warning) }));
    // The largest numbers that fit are stored as they are.
    const QList<QVariant> largest = initWith(key, key == QLatin1String("YearOfConstruction") ? 65535 : 255);
    const WwIdentification fits = largest.at(0).value<WwIdentification>();
    if (key == QLatin1String("YearOfConstruction"))
        QCOMPARE(int(fits.YearOfConstruction), 65535);
    else
        QCOMPARE(int(fits.MonthOfConstruction.value()), 255);
}

void tst_MmToOpcUaMapper::initUsesTheCurrentDateTimeWithoutClock()
{
    MmToOpcUaMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    QVariantMap shared;
    const QDateTime before = QDateTime::currentDateTime();
    mapper.init(configWith({ { "m1", fullMachine() } }), shared);
    const QDateTime after = QDateTime::currentDateTime();
    QCOMPARE(spy.count(), 2);
    for (const QList<QVariant> &arguments : qAsConst(spy)) {
        const QDateTime stamp = arguments.at(0).toDateTime();
        QVERIFY(stamp >= before && stamp <= after);
        QCOMPARE(stamp.timeSpec(), before.timeSpec());
    }
}

void tst_MmToOpcUaMapper::initOperationDate_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QDateTime>("expected");
    const QDateTime local(QDate(2021, 3, 4), QTime(5, 6, 7, 890));
    const QDateTime localWhole(QDate(2021, 3, 4), QTime(5, 6, 7));
    QTest::newRow("ISO 8601 with milliseconds") << QVariant(QStringLiteral("2021-03-04T05:06:07.890")) << local;
    QTest::newRow("ISO 8601 with offset") << QVariant(QStringLiteral("2021-03-04T05:06:07.890Z"))
                                          << QDateTime(QDate(2021, 3, 4), QTime(5, 6, 7, 890), Qt::UTC);
    QTest::newRow("ISO 8601") << QVariant(QStringLiteral("2021-03-04T05:06:07")) << localWhole;
    // Qt's ISO 8601 reading, tried first, already accepts this form; it drops the milliseconds after the colon.
    QTest::newRow("colon before milliseconds") << QVariant(QStringLiteral("2021-03-04 05:06:07:890")) << localWhole;
    QTest::newRow("dot before milliseconds") << QVariant(QStringLiteral("2021-03-04 05:06:07.890")) << local;
    QTest::newRow("without milliseconds") << QVariant(QStringLiteral("2021-03-04 05:06:07")) << localWhole;
    QTest::newRow("typed") << QVariant(local) << local;
    QTest::newRow("German date") << QVariant(QStringLiteral("04.03.2021")) << QDateTime();
    QTest::newRow("empty") << QVariant(QString()) << QDateTime();
    QTest::newRow("missing") << QVariant() << QDateTime();
}

void tst_MmToOpcUaMapper::initOperationDate()
{
    QFETCH(QVariant, value);
    QFETCH(QDateTime, expected);
    const QList<QVariant> emitted = initWith(QStringLiteral("InitialOperationDate"), value);
    const std::optional<QDateTime> date = emitted.at(0).value<WwIdentification>().InitialOperationDate;
    if (expected.isValid()) {
        QVERIFY(date);
        QCOMPARE(*date, expected);
        QCOMPARE(m_log.ofComponent().size(), 1);
    } else {
        QVERIFY(!date);
        QCOMPARE(m_log.ofComponent().mid(1), QStringList { missing(QStringLiteral("InitialOperationDate")) });
    }
}

void tst_MmToOpcUaMapper::initDeviceClass_data()
{
    QTest::addColumn<QString>("deviceClass");
    QTest::addColumn<bool>("moves");
    QTest::newRow("MachiningCenter") << "MachiningCenter" << true;
    QTest::newRow("Press") << "Press" << true;
    QTest::newRow("machiningcenter") << "machiningcenter" << false;
    QTest::newRow("PRESS") << "PRESS" << false;
    QTest::newRow("EdgeBander") << "EdgeBander" << false;
    QTest::newRow("Saw") << "Saw" << false;
}

void tst_MmToOpcUaMapper::initDeviceClass()
{
    QFETCH(QString, deviceClass);
    QFETCH(bool, moves);
    const QList<QVariant> emitted = initWith(QStringLiteral("DeviceClass"), deviceClass);
    const QString common = QStringLiteral("WorkpiecePresent=0 RecipeInRun=0 RecipeInSetup=0 EnergySaving=0 ");
    COMPARE_RECORD(emitted.at(1).value<WwState>(),
        stateOf(0, 0, common + (moves ? QStringLiteral("Moving=0") : QStringLiteral("FeedRuns=0"))));
}

void tst_MmToOpcUaMapper::initMachinesInKeyOrder()
{
    auto mapper = makeMapper();
    QSignalSpy spy(mapper.get(), SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    QVariantMap shared;
    mapper->init(configWith({ { "b2", fullMachine() }, { "a1", fullMachine() } }), shared);
    QCOMPARE(spy.count(), 4);
    QStringList order;
    for (const QList<QVariant> &arguments : qAsConst(spy))
        order.append(arguments.at(1).toString() + QLatin1Char(' ') + QLatin1String(arguments.at(3).typeName()));
    QCOMPARE(order, (QStringList { "a1 WwIdentification", "a1 WwState", "b2 WwIdentification", "b2 WwState" }));
}

void tst_MmToOpcUaMapper::initReplacesEarlierRecord()
{
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    QVariantMap machine = fullMachine();
    machine.insert(QStringLiteral("locale"), QStringLiteral("fr"));
    machine.insert(QStringLiteral("SerialNumber"), QStringLiteral("0815"));
    QVariantMap shared;
    mapper->init(configWith({ { "m1", machine } }), shared);
    announce(*mapper, 0);
    SwVerV1 version;
    version.version = QStringLiteral("9");
    const QList<QVariant> emitted = feed(*mapper, wrap(version));
    QCOMPARE(emitted.at(1).value<WwIdentification>().SerialNumber, QStringLiteral("0815"));
    QCOMPARE(feed(*mapper, wrap(notification("n", 0))).at(1).value<WwBaseEventType>().Texts.keys(),
        QStringList { QStringLiteral("fr") });
}

void tst_MmToOpcUaMapper::initFromIniFile()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString ini = dir.filePath(QStringLiteral("orvix.ini"));
    QVERIFY(TestSupport::writeFile(ini,
        "[core]\n"
        "log=\"mmtoopcuamapper.debug=true\"\n"
        "[opcuaserver]\n"
        "enableWwBaseEventPrefix=true\n"
        "[opcuawwcsidentification]\n"
        "m1/locale=de\n"
        "m1/ProductInstanceUri=urn:orvix:m1\n"
        "m1/Manufacturer=Acme\n"
        "m1/Model=EB 200\n"
        "m1/DeviceClass=MachiningCenter\n"
        "m1/SerialNumber=4711\n"
        "m1/YearOfConstruction=2019\n"
        "m1/MonthOfConstruction=13\n"
        "m1/InitialOperationDate=2021-03-04 05:06:07:890\n"
        "m1/LocationGPS=\"47.1, 8.5\"\n"
        "m1/Location=\n"
        "m2/DeviceClass=Press\n"));
    Core core(
        false, nullptr, ini, dir.filePath(QStringLiteral("orvix.log")), dir.filePath(QStringLiteral("orvix.lastlog")));
    m_log.reinstall();
    m_log.clear();

    auto mapper = makeMapper();
    QSignalSpy spy(mapper.get(), SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    QVariantMap shared;
    QVERIFY(mapper->init(core.config(), shared));
    QCOMPARE(spy.count(), 4);
    const WwIdentification m1 = spy.at(0).at(3).value<WwIdentification>();
    QCOMPARE(m1.Model, QStringLiteral("EB 200"));
    QCOMPARE(m1.YearOfConstruction, quint16(2019));
    QCOMPARE(int(*m1.MonthOfConstruction), 13);
    QCOMPARE(*m1.InitialOperationDate, QDateTime(QDate(2021, 3, 4), QTime(5, 6, 7)));
    QCOMPARE(*m1.LocationGPS, QStringLiteral("47.1, 8.5"));
    QCOMPARE(*m1.Location, QString());
    QVERIFY(!m1.AssetId);
    COMPARE_RECORD(spy.at(1).at(3).value<WwState>(),
        stateOf(0, 0, "WorkpiecePresent=0 RecipeInRun=0 RecipeInSetup=0 EnergySaving=0 Moving=0"));
    QCOMPARE(spy.at(3).at(1).toString(), QStringLiteral("m2"));
    QCOMPARE(spy.at(3).at(3).value<WwState>().Flags->Moving, std::optional<bool>(false));
    QCOMPARE(m_log.ofComponent(),
        (QStringList {
            InitLine,
            warning(QStringLiteral("No 'locale' set; defaulting to 'en'")),
            missing(QStringLiteral("ProductInstanceUri")),
            missing(QStringLiteral("Manufacturer")),
            missing(QStringLiteral("Model")),
            missing(QStringLiteral("SerialNumber")),
            missing(QStringLiteral("YearOfConstruction")),
            missing(QStringLiteral("MonthOfConstruction")),
            missing(QStringLiteral("InitialOperationDate")),
        }));

    // The prefix flag came from the file too.
    announce(*mapper, 0);
    QCOMPARE(feed(*mapper, wrap(notification("n", 0))).at(1).value<WwBaseEventType>().Message,
        QStringLiteral("{ON }Door open"));
}

void tst_MmToOpcUaMapper::passesEveryDatasetFirst_data()
{
    QTest::addColumn<QVariant>("data");
    QTest::addColumn<int>("count");
    ConditionDatasV2 conditions;
    conditions.timestamp = s_when;
    QTest::newRow("int") << QVariant(42) << 1;
    QTest::newRow("invalid") << QVariant() << 1;
    QTest::newRow("ConditionDatasV2") << wrap(conditions) << 1;
    QTest::newRow("WwCapabilities") << capabilities(3) << 1;
    QTest::newRow("WwState") << wrap(stateOf(3, 1, "MachineOn=1")) << 1;
    QTest::newRow("StateV1") << stateCode(2) << 2;
    QTest::newRow("GeneralV1") << general(1, 2, 3) << 2;
    QTest::newRow("NotificationsAddV1") << wrap(notification("n", 2)) << 3;
}

void tst_MmToOpcUaMapper::passesEveryDatasetFirst()
{
    QFETCH(QVariant, data);
    QFETCH(int, count);
    auto mapper = makeMapper();
    announce(*mapper, 0);
    QSignalSpy spy(mapper.get(), SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper->processData(s_when, QStringLiteral("m1"), s_source, data);
    QCOMPARE(spy.count(), count);
    QCOMPARE(spy.first().at(0).toDateTime(), s_when);
    QCOMPARE(spy.first().at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(spy.first().at(2).toString(), s_source);
    QCOMPARE(spy.first().at(3).userType(), data.userType());
    QCOMPARE(spy.first().at(3), data);
}

void tst_MmToOpcUaMapper::nothingMappedBeforeCapabilities()
{
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    SwVerV1 version;
    version.version = QStringLiteral("2.0");
    const QList<QVariant> inputs { stateCode(2), general(1, 2, 3), wrap(notification("n", 3)), wrap(version),
        wrap(OrderV1()), removeAll() };
    for (const QVariant &input : inputs) {
        const QList<QVariant> emitted = feed(*mapper, input);
        QCOMPARE(emitted, QList<QVariant> { input });
    }
    QVERIFY(m_log.ofComponent().isEmpty());
    // Once the capabilities are known, the same datasets are mapped.
    announce(*mapper, 0);
    QCOMPARE(feed(*mapper, stateCode(2)).size(), 2);
}

void tst_MmToOpcUaMapper::capabilityDefaultAfterTimeout()
{
    auto mapper = makeMapper();
    m_now = 1000;
    QCOMPARE(feed(*mapper, stateCode(2)).size(), 1);
    m_now = 1000 + 29999;
    QCOMPARE(feed(*mapper, stateCode(2)).size(), 1);
    // Other machines keep their own first-seen time.
    QCOMPARE(feed(*mapper, stateCode(2), QStringLiteral("m2")).size(), 1);
    m_now = 1000 + 30000;
    const QList<QVariant> emitted = feed(*mapper, stateCode(2));
    QCOMPARE(emitted.size(), 2);
    QCOMPARE(emitted.at(1).value<WwState>().MachineState, 3u);
    QCOMPARE(feed(*mapper, stateCode(2), QStringLiteral("m2")).size(), 1);
}

void tst_MmToOpcUaMapper::capabilityDefaultOnRealClock()
{
    MmToOpcUaMapper mapper;
    mapper.setCapabilityTimeout(30);
    QCOMPARE(feed(mapper, stateCode(2)).size(), 1);
    QTRY_COMPARE_WITH_TIMEOUT(feed(mapper, stateCode(2)).size(), 2, 2000);
}

void tst_MmToOpcUaMapper::capabilitiesReplaced()
{
    auto mapper = makeMapper();
    announce(*mapper, 2);
    QCOMPARE(feed(*mapper, stateCode(2)).size(), 1);
    announce(*mapper, 0);
    QCOMPARE(feed(*mapper, stateCode(2)).size(), 2);
    // Capabilities of one machine are not those of another.
    announce(*mapper, 2, QStringLiteral("m2"));
    QCOMPARE(feed(*mapper, stateCode(2)).size(), 2);
    QCOMPARE(feed(*mapper, stateCode(2), QStringLiteral("m2")).size(), 1);
}

void tst_MmToOpcUaMapper::capabilitiesConverted()
{
    auto mapper = makeMapper();
    CapabilityCarrier carrier;
    carrier.mask = 0;
    QCOMPARE(feed(*mapper, wrap(carrier)).size(), 1);
    QCOMPARE(feed(*mapper, stateCode(2)).size(), 2);
    carrier.mask = 2;
    QCOMPARE(feed(*mapper, wrap(carrier)).size(), 1);
    QCOMPARE(feed(*mapper, stateCode(2)).size(), 1);
    // A conversion that fails stores the mask 0, whatever the converter left behind.
    carrier.valid = false;
    QCOMPARE(feed(*mapper, wrap(carrier), QStringLiteral("m2")).size(), 1);
    QCOMPARE(feed(*mapper, stateCode(2), QStringLiteral("m2")).size(), 2);
    QVERIFY(m_log.ofComponent().isEmpty());
}

void tst_MmToOpcUaMapper::ownStateStopsStateAndGeneral()
{
    auto mapper = makeMapper();
    announce(*mapper, 2);
    for (qint32 code = 0; code <= 8; ++code)
        QCOMPARE(feed(*mapper, stateCode(code)).size(), 1);
    QCOMPARE(feed(*mapper, general(1, 2, 3)).size(), 1);
    QCOMPARE(feed(*mapper, wrap(notification("n", 2))).size(), 2);
    OrderV1 order;
    order.programName = QStringLiteral("P1");
    QCOMPARE(feed(*mapper, wrap(order)).size(), 2);
    QVERIFY(!m_log.ofComponent().contains(warning(QStringLiteral("StateV1/EvMachineStateUndefined unhandled"))));
}

void tst_MmToOpcUaMapper::ownIdentificationAccepted()
{
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    announce(*mapper, 1);
    WwIdentification own;
    own.Manufacturer = QStringLiteral("Machine's own");
    own.SerialNumber = QStringLiteral("S-9");
    own.YearOfConstruction = 2001;
    const QList<QVariant> emitted = feed(*mapper, wrap(own));
    QCOMPARE(emitted, QList<QVariant> { wrap(own) });
    QVERIFY(m_log.ofComponent().isEmpty());

    SwVerV1 version;
    version.version = QStringLiteral("5.1");
    const QList<QVariant> updated = feed(*mapper, wrap(version));
    WwIdentification expected = own;
    expected.SoftwareRevision = QStringLiteral("5.1");
    COMPARE_RECORD(updated.at(1).value<WwIdentification>(), expected);
    // The configured locale stays.
    QCOMPARE(feed(*mapper, wrap(notification("n", 0))).at(1).value<WwBaseEventType>().Texts.keys(),
        QStringList { QStringLiteral("de") });
    // Bit 1 alone does not stop the state mapping.
    QCOMPARE(feed(*mapper, stateCode(2)).size(), 2);
}

void tst_MmToOpcUaMapper::ownIdentificationWithoutCapability()
{
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    announce(*mapper, 2);
    WwIdentification own;
    own.Manufacturer = QStringLiteral("Machine's own");
    QCOMPARE(feed(*mapper, wrap(own)), QList<QVariant> { wrap(own) });
    QCOMPARE(m_log.ofComponent(),
        QStringList { QStringLiteral("WARNING mmtoopcuamapper: Machine \"m1\" did sent WwCsIdentification information "
                                     "without having announced the capability") });
    SwVerV1 version;
    version.version = QStringLiteral("5.1");
    QCOMPARE(feed(*mapper, wrap(version)).at(1).value<WwIdentification>().Manufacturer, QStringLiteral("Acme"));
}

void tst_MmToOpcUaMapper::ownIdentificationOfUnconfiguredMachine()
{
    auto mapper = makeMapper();
    announce(*mapper, 1);
    WwIdentification own;
    own.Model = QStringLiteral("Own");
    feed(*mapper, wrap(own));
    SwVerV1 version;
    version.version = QStringLiteral("1");
    QCOMPARE(feed(*mapper, wrap(version)).at(1).value<WwIdentification>().Model, QStringLiteral("Own"));
    m_log.clear();
    QCOMPARE(feed(*mapper, wrap(notification("n", 0))).at(1).value<WwBaseEventType>().Texts.keys(),
        QStringList { QStringLiteral("en") });
    QCOMPARE(m_log.ofComponent(),
        QStringList { QStringLiteral(
            "WARNING mmtoopcuamapper: Machine \"m1\" is missing locale information; falling back to 'en'") });
}

void tst_MmToOpcUaMapper::softwareVersion()
{
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    announce(*mapper, 0);
    SwVerV1 version;
    version.version = QStringLiteral("3.4.5");
    const QList<QVariant> emitted = feed(*mapper, wrap(version));
    QCOMPARE(emitted.size(), 2);
    QCOMPARE(emitted.at(0), wrap(version));
    QCOMPARE(emitted.at(1).userType(), qMetaTypeId<WwIdentification>());
    const WwIdentification identification = emitted.at(1).value<WwIdentification>();
    QCOMPARE(identification.SoftwareRevision, std::optional<QString>(QStringLiteral("3.4.5")));
    QCOMPARE(identification.SerialNumber, QStringLiteral("4711"));
    QCOMPARE(m_log.ofComponent(),
        QStringList { QStringLiteral(
            "INFO mmtoopcuamapper: Updating WWIdentification - Setting SoftwareRevision to \"3.4.5\"") });
    // The change is kept.
    QCOMPARE(feed(*mapper, wrap(version)).at(1).value<WwIdentification>(), identification);
}

void tst_MmToOpcUaMapper::softwareVersionOfUnknownMachine()
{
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    announce(*mapper, 0, QStringLiteral("m9"));
    SwVerV1 version;
    version.version = QStringLiteral("3.4.5");
    QCOMPARE(feed(*mapper, wrap(version), QStringLiteral("m9")), QList<QVariant> { wrap(version) });
    QCOMPARE(m_log.ofComponent(),
        QStringList { QStringLiteral("WARNING mmtoopcuamapper: got a SwVerv1 struct for unknown machine: \"m9\"") });
}

void tst_MmToOpcUaMapper::order()
{
    auto mapper = makeMapper();
    announce(*mapper, 0);
    OrderV1 order;
    order.text1 = QStringLiteral("order 1");
    order.programName = QStringLiteral("Door_left.mpr");
    const QList<QVariant> emitted = feed(*mapper, wrap(order));
    QCOMPARE(emitted.size(), 2);
    QCOMPARE(emitted.at(1).userType(), qMetaTypeId<WwManufacturerSpecific>());
    QCOMPARE(emitted.at(1).value<WwManufacturerSpecific>().LastProgramName, QStringLiteral("Door_left.mpr"));
    QCOMPARE(m_log.ofComponent(),
        QStringList { QStringLiteral(
            "INFO mmtoopcuamapper: Updating WwManufacturerSpecific - Setting LastProgramName to \"Door_left.mpr\"") });
}

void tst_MmToOpcUaMapper::generalFirstAndLater()
{
    auto mapper = makeMapper();
    announce(*mapper, 0);
    WwState first = lastState(*mapper, general(2.5, 100, 1.999));
    QCOMPARE(first.MachineState, 0u);
    COMPARE_RECORD(first.Flags, flagsFrom(QString()));
    QVERIFY(first.Values);
    WwStateValues expected;
    expected.AbsoluteMachineOnTime = 9000000;
    expected.RelativeMachineOnTime = 0;
    expected.AbsolutePowerPresentTime = 9000000;
    expected.RelativePowerPresentTime = 0;
    expected.AbsolutePiecesOut = 100;
    expected.RelativePiecesOut = 0;
    expected.AbsoluteLength = 1999;
    expected.RelativeLength = 0;
    COMPARE_RECORD(*first.Values, expected);

    const WwState second = lastState(*mapper, general(3, 130, 5));
    expected.AbsoluteMachineOnTime = 10800000;
    expected.RelativeMachineOnTime = 1800000;
    expected.AbsolutePowerPresentTime = 10800000;
    expected.RelativePowerPresentTime = 1800000;
    expected.AbsolutePiecesOut = 130;
    expected.RelativePiecesOut = 30;
    expected.AbsoluteLength = 5000;
    expected.RelativeLength = 3001;
    COMPARE_RECORD(*second.Values, expected);
    QVERIFY(m_log.ofComponent().isEmpty());

    // Each machine has its own baselines.
    announce(*mapper, 0, QStringLiteral("m2"));
    QCOMPARE(*lastState(*mapper, general(3, 130, 5), QStringLiteral("m2")).Values->RelativePiecesOut, quint64(0));
}

void tst_MmToOpcUaMapper::generalConversions_data()
{
    QTest::addColumn<double>("hours");
    QTest::addColumn<double>("metres");
    QTest::addColumn<quint64>("milliseconds");
    QTest::addColumn<quint64>("millimetres");
    QTest::newRow("zero") << 0.0 << 0.0 << quint64(0) << quint64(0);
    QTest::newRow("truncated") << (1.0 / 3600000.0) * 0.999 << 0.0009 << quint64(0) << quint64(0);
    QTest::newRow("fraction") << 1.5 << 12.3456 << quint64(5400000) << quint64(12345);
    QTest::newRow("2^63 and more") << 4398046511104.0 << 1e16 << quint64(15832967439974400000ULL)
                                   << quint64(10000000000000000000ULL);
    QTest::newRow("negative wraps") << -1.0 << -0.0015 << quint64(-3600000LL) << quint64(-1LL);
    QTest::newRow("not a number") << qQNaN() << qQNaN() << quint64(0) << quint64(0);
    QTest::newRow("beyond 2^64") << 1e300 << 1e300 << std::numeric_limits<quint64>::max()
                                 << std::numeric_limits<quint64>::max();
}

void tst_MmToOpcUaMapper::generalConversions()
{
    QFETCH(double, hours);
    QFETCH(double, metres);
    QFETCH(quint64, milliseconds);
    QFETCH(quint64, millimetres);
    auto mapper = makeMapper();
    announce(*mapper, 0);
    const WwStateValues values = *lastState(*mapper, general(hours, 7, metres)).Values;
    QCOMPARE(*values.AbsoluteMachineOnTime, milliseconds);
    QCOMPARE(*values.AbsolutePowerPresentTime, milliseconds);
    QCOMPARE(*values.AbsoluteLength, millimetres);
    QCOMPARE(*values.AbsolutePiecesOut, quint64(7));
}

void tst_MmToOpcUaMapper::generalKeepsState()
{
    auto mapper = makeMapper();
    announce(*mapper, 0);
    const WwState running = lastState(*mapper, stateCode(2));
    const WwState afterGeneral = lastState(*mapper, general(1, 1, 1));
    QCOMPARE(afterGeneral.MachineState, running.MachineState);
    QCOMPARE(afterGeneral.OperationMode, running.OperationMode);
    COMPARE_RECORD(afterGeneral.Flags, running.Flags);
    // feedOnHours, counter5 and counter6 are not published: nothing but the eight values is set.
    int present = 0;
    WwStateValues::visitFields([&](const char *, auto member) { present += (*afterGeneral.Values.*member) ? 1 : 0; });
    QCOMPARE(present, 8);
    // A later StateV1 keeps the values.
    COMPARE_RECORD(lastState(*mapper, stateCode(3)).Values, afterGeneral.Values);
}

void tst_MmToOpcUaMapper::stateTable_data()
{
    QTest::addColumn<qint32>("prior");
    QTest::addColumn<qint32>("code");
    QTest::addColumn<WwState>("expected");
    QTest::addColumn<QStringList>("log");

    // The state table, one row per code: MachineState and OperationMode (-1 unchanged) and the flags it sets.
    struct Row
    {
        qint32 code;
        int machineState;
        int operationMode;
        QString flags;
    };
    const QString reset = QStringLiteral("reset");
    const QList<Row> rows {
        { 0, -1, -1, QString() },
        { 1, 0, 0, reset },
        { 2, 3, 1, s_running + "Error=0 WorkpiecePresent=1 Moving=1 RecipeInRun=1 FeedRuns=1 EnergySaving=0" },
        { 3, 3, 4, s_running + "Error=0 RecipeInRun=1 RecipeInSetup=1 EnergySaving=0" },
        { 4, 3, 5, s_running + "Error=0 Moving=0 RecipeInRun=0 RecipeInSetup=0 FeedRuns=0 EnergySaving=1" },
        { 5, 2, 1,
            s_running + "Error=0 WorkpiecePresent=0 Moving=0 RecipeInRun=0 RecipeInSetup=0 FeedRuns=1 EnergySaving=0" },
        { 6, 4, -1, s_running + "Moving=0 RecipeInRun=0 RecipeInSetup=0 FeedRuns=0" },
        { 7, 4, -1, s_running + "Moving=0 RecipeInRun=0 RecipeInSetup=0 FeedRuns=0 Error=1" },
        { 8, -1, -1, QString() },
        { 1000, -1, -1, QString() },
        { -1, -1, -1, QString() },
    };
    // The states that codes 3, 4 and 7 leave on a machine without a state, as starting points that differ in every
    // flag a row sets.
    const QMap<qint32, WwState> priors {
        { 3, stateOf(3, 4, s_afterCode3) },
        { 4, stateOf(3, 5, s_running + "Error=0 Moving=0 RecipeInRun=0 RecipeInSetup=0 FeedRuns=0 EnergySaving=1") },
        { 7, stateOf(4, 0, s_running + "Error=1 Moving=0 RecipeInRun=0 RecipeInSetup=0 FeedRuns=0") },
    };
    for (auto prior = priors.cbegin(); prior != priors.cend(); ++prior) {
        for (const Row &row : rows) {
            WwState expected = *prior;
            if (row.machineState >= 0)
                expected.MachineState = quint32(row.machineState);
            if (row.operationMode >= 0)
                expected.OperationMode = quint32(row.operationMode);
            if (row.flags == reset)
                expected.Flags = WwStateFlags();
            else if (!row.flags.isEmpty())
                expected.Flags = flagsFrom(QStringLiteral("%1 %2").arg(describeFlags(*prior->Flags), row.flags));
            QStringList log;
            if (row.code == 0)
                log.append(warning(QStringLiteral("StateV1/EvMachineStateUndefined unhandled")));
            QTest::addRow("%d after %d", row.code, prior.key()) << prior.key() << row.code << expected << log;
        }
    }
}

void tst_MmToOpcUaMapper::stateTable()
{
    QFETCH(qint32, prior);
    QFETCH(qint32, code);
    QFETCH(WwState, expected);
    QFETCH(QStringList, log);
    auto mapper = makeMapper();
    announce(*mapper, 0);
    lastState(*mapper, stateCode(prior));
    m_log.clear();
    const WwState state = lastState(*mapper, stateCode(code));
    // The Values block holds the durations, checked on their own below.
    QCOMPARE(state.MachineState, expected.MachineState);
    QCOMPARE(state.OperationMode, expected.OperationMode);
    COMPARE_RECORD(state.Flags, expected.Flags);
    QCOMPARE(m_log.ofComponent(), log);
    // The result is the machine's current state: a GeneralV1 starts from it.
    const WwState next = lastState(*mapper, general(0, 0, 0));
    COMPARE_RECORD(next.Flags, expected.Flags);
    QCOMPARE(next.MachineState, expected.MachineState);
    QCOMPARE(next.OperationMode, expected.OperationMode);
}

void tst_MmToOpcUaMapper::stateFromClearedRecord_data()
{
    QTest::addColumn<qint32>("code");
    QTest::addColumn<WwState>("expected");
    // The cleared record has no Flags block; only a row that changes the record makes it present.
    QTest::newRow("0") << 0 << stateOf(0, 0, "none");
    QTest::newRow("1") << 1 << stateOf(0, 0, QString());
    QTest::newRow("3") << 3 << stateOf(3, 4, s_afterCode3);
    QTest::newRow("6") << 6 << stateOf(4, 0, s_running + "Moving=0 RecipeInRun=0 RecipeInSetup=0 FeedRuns=0");
    QTest::newRow("7") << 7 << stateOf(4, 0, s_running + "Error=1 Moving=0 RecipeInRun=0 RecipeInSetup=0 FeedRuns=0");
    QTest::newRow("9") << 9 << stateOf(0, 0, "none");
}

void tst_MmToOpcUaMapper::stateFromClearedRecord()
{
    QFETCH(qint32, code);
    QFETCH(WwState, expected);
    auto mapper = makeMapper();
    announce(*mapper, 0);
    COMPARE_RECORD(lastState(*mapper, stateCode(code)), expected);
}

void tst_MmToOpcUaMapper::stateFromConfiguredMachine()
{
    QVariantMap machine = fullMachine();
    machine.insert(QStringLiteral("DeviceClass"), QStringLiteral("Press"));
    auto mapper = makeMapper(configWith({ { "m1", machine } }));
    announce(*mapper, 0);
    const QString initial = QStringLiteral("WorkpiecePresent=0 RecipeInRun=0 RecipeInSetup=0 EnergySaving=0 Moving=0");
    COMPARE_RECORD(lastState(*mapper, stateCode(8)), stateOf(0, 0, initial));
    COMPARE_RECORD(lastState(*mapper, stateCode(6)),
        stateOf(4, 0, s_running + initial + " Moving=0 RecipeInRun=0 RecipeInSetup=0 FeedRuns=0"));
    // Offline resets every flag to the cleared record's, so the optional ones are absent again.
    COMPARE_RECORD(lastState(*mapper, stateCode(1)), stateOf(0, 0, QString()));
}

void tst_MmToOpcUaMapper::stateRowsKeepUnnamedFields()
{
    auto mapper = makeMapper();
    announce(*mapper, 0);
    lastState(*mapper, stateCode(7));
    QCOMPARE(feed(*mapper, wrap(notification("w", 2))).size(), 3);
    // Code 6 leaves Error, Warning and EnergySaving as they are; code 2 clears Error but not Warning.
    WwState state = lastState(*mapper, stateCode(6));
    QVERIFY(state.Flags->Error);
    QVERIFY(state.Flags->Warning);
    state = lastState(*mapper, stateCode(2));
    QVERIFY(!state.Flags->Error);
    QVERIFY(state.Flags->Warning);
    state = lastState(*mapper, stateCode(4));
    QCOMPARE(state.Flags->EnergySaving, std::optional<bool>(true));
    state = lastState(*mapper, stateCode(6));
    QCOMPARE(state.Flags->EnergySaving, std::optional<bool>(true));
    QCOMPARE(state.OperationMode, 5u);
}

void tst_MmToOpcUaMapper::durationTimers_data()
{
    QTest::addColumn<qint32>("code");
    QTest::addColumn<QStringList>("added");
    QTest::newRow("0") << 0 << QStringList();
    QTest::newRow("1") << 1 << QStringList();
    QTest::newRow("2") << 2 << QStringList { "RelativeWorkingTime", "RelativeProductionTime" };
    QTest::newRow("3") << 3 << QStringList();
    QTest::newRow("4") << 4 << QStringList { "RelativeStandbyTime" };
    QTest::newRow("5") << 5 << QStringList { "RelativeWorkingTime", "RelativeProductionWithoutWorkpieceTime" };
    QTest::newRow("6") << 6 << QStringList();
    QTest::newRow("7") << 7 << QStringList { "RelativeErrorTime" };
    QTest::newRow("8") << 8 << QStringList();
}

void tst_MmToOpcUaMapper::durationTimers()
{
    QFETCH(qint32, code);
    QFETCH(QStringList, added);
    auto mapper = makeMapper();
    announce(*mapper, 0);
    m_now = 500;
    // The first time only starts the timers.
    QVERIFY(!lastState(*mapper, stateCode(code)).Values);
    m_now = 1750;
    const WwState state = lastState(*mapper, stateCode(code));
    QStringList present;
    if (state.Values) {
        WwStateValues::visitFields([&](const char *name, auto member) {
            if ((*state.Values.*member)) {
                present.append(QLatin1String(name));
                QCOMPARE(double(*(*state.Values.*member)), 1250.0);
            }
        });
    }
    QCOMPARE(present, added);
    m_now = 1760;
    const WwState third = lastState(*mapper, stateCode(code));
    for (const QString &name : qAsConst(added)) {
        WwStateValues::visitFields([&](const char *field, auto member) {
            if (name == QLatin1String(field))
                QCOMPARE(double(*(*third.Values.*member)), 1260.0);
        });
    }
}

void tst_MmToOpcUaMapper::durationStandbyAddsTenSeconds()
{
    auto mapper = makeMapper();
    announce(*mapper, 0);
    m_now = 100;
    lastState(*mapper, stateCode(4));
    m_now = 5100;
    QVERIFY(!lastState(*mapper, stateCode(2)).Values);
    m_now = 10100;
    const WwState state = lastState(*mapper, stateCode(4));
    WwStateValues expected;
    expected.RelativeStandbyTime = 10000;
    COMPARE_RECORD(*state.Values, expected);
}

void tst_MmToOpcUaMapper::durationTimersNeverStop()
{
    auto mapper = makeMapper();
    announce(*mapper, 0);
    lastState(*mapper, stateCode(5));
    m_now = 3000;
    lastState(*mapper, stateCode(4));
    m_now = 8000;
    lastState(*mapper, stateCode(1));
    m_now = 9000;
    // Working was started by code 5 and never stopped: standby and offline time count as well.
    WwState state = lastState(*mapper, stateCode(2));
    QCOMPARE(*state.Values->RelativeWorkingTime, quint64(9000));
    QVERIFY(!state.Values->RelativeProductionTime);
    m_now = 9500;
    state = lastState(*mapper, stateCode(5));
    QCOMPARE(*state.Values->RelativeWorkingTime, quint64(9500));
    QCOMPARE(*state.Values->RelativeProductionWithoutWorkpieceTime, quint64(9500));
    // A GeneralV1 does not touch them.
    QCOMPARE(*lastState(*mapper, general(1, 1, 1)).Values->RelativeWorkingTime, quint64(9500));
}

void tst_MmToOpcUaMapper::notificationEvent_data()
{
    QTest::addColumn<qint32>("level");
    QTest::addColumn<qint32>("category");
    QTest::newRow("0") << 0 << 0;
    QTest::newRow("1") << 1 << 2;
    QTest::newRow("2") << 2 << 3;
    QTest::newRow("3") << 3 << 5;
    QTest::newRow("4") << 4 << 0;
    QTest::newRow("-1") << -1 << 0;
}

void tst_MmToOpcUaMapper::notificationEvent()
{
    QFETCH(qint32, level);
    QFETCH(qint32, category);
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    announce(*mapper, 0);
    const NotificationsAddV1 added = notification(QStringLiteral("Unit1/Spindle/4711"), level);
    const QList<QVariant> emitted = feed(*mapper, wrap(added));
    QCOMPARE(emitted.at(0), wrap(added));
    QCOMPARE(emitted.at(1).userType(), qMetaTypeId<WwBaseEventType>());
    WwBaseEventType expected;
    expected.Message = QStringLiteral("Door open");
    expected.Id = QStringLiteral("Unit1/Spindle/4711");
    expected.Category = category;
    expected.Texts.insert(QStringLiteral("de"), QStringLiteral("Door open"));
    expected.Text5 = QStringLiteral("4711");
    expected.Text6 = QStringLiteral("seven");
    expected.Text7 = QStringLiteral("eight");
    expected.Path = QStringList { QStringLiteral("Unit1"), QStringLiteral("Spindle") };
    COMPARE_RECORD(emitted.at(1).value<WwBaseEventType>(), expected);
    QVERIFY(m_log.ofComponent().isEmpty());

    const QList<QVariant> removed = feed(*mapper, removal(QStringLiteral("Unit1/Spindle/4711")));
    QCOMPARE(removed.at(0), removal(QStringLiteral("Unit1/Spindle/4711")));
    COMPARE_RECORD(removed.at(1).value<WwBaseEventType>(), expected);
    QCOMPARE(m_log.ofComponent(),
        QStringList {
            QStringLiteral("DEBUG mmtoopcuamapper: NotificationsRemoveV1: removing \"Unit1/Spindle/4711\"") });
}

void tst_MmToOpcUaMapper::notificationPath_data()
{
    QTest::addColumn<QString>("id");
    QTest::addColumn<QStringList>("path");
    QTest::newRow("source path") << "Unit1/Spindle/4711" << QStringList { "Unit1", "Spindle" };
    QTest::newRow("one part") << "Unit1/4711" << QStringList { "Unit1" };
    QTest::newRow("bare id") << "4711" << QStringList();
    QTest::newRow("empty path") << "/4711" << QStringList();
    QTest::newRow("empty parts kept") << "a//b/4711" << QStringList { "a", "", "b" };
    QTest::newRow("leading slash") << "/a/4711" << QStringList { "", "a" };
    QTest::newRow("trailing slash") << "a/b/" << QStringList { "a", "b" };
    QTest::newRow("empty") << "" << QStringList();
}

void tst_MmToOpcUaMapper::notificationPath()
{
    QFETCH(QString, id);
    QFETCH(QStringList, path);
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    announce(*mapper, 0);
    const WwBaseEventType event = feed(*mapper, wrap(notification(id, 1))).at(1).value<WwBaseEventType>();
    QCOMPARE(event.Path, path);
    QCOMPARE(event.Id, id);
}

void tst_MmToOpcUaMapper::notificationPrefix_data()
{
    QTest::addColumn<QVariantMap>("config");
    QTest::addColumn<QString>("on");
    QTest::addColumn<QString>("off");
    const QVariantMap machines { { "m1", fullMachine() } };
    QVariantMap enabled = configWith(machines);
    enabled.insert(QStringLiteral("opcuaserver"), QVariantMap { { "enableWwBaseEventPrefix", "true" } });
    QVariantMap typed = configWith(machines);
    typed.insert(QStringLiteral("opcuaserver"), QVariantMap { { "enableWwBaseEventPrefix", true } });
    QVariantMap disabled = configWith(machines);
    disabled.insert(QStringLiteral("opcuaserver"), QVariantMap { { "enableWwBaseEventPrefix", "false" } });
    QVariantMap keyMissing = configWith(machines);
    keyMissing.insert(QStringLiteral("opcuaserver"), QVariantMap { { "other", "true" } });
    QTest::newRow("true") << enabled << "{ON }Door open"
                          << "{OFF}Door open";
    QTest::newRow("typed true") << typed << "{ON }Door open"
                                << "{OFF}Door open";
    QTest::newRow("false") << disabled << "Door open"
                           << "Door open";
    QTest::newRow("key missing") << keyMissing << "Door open"
                                 << "Door open";
    QTest::newRow("group missing") << configWith(machines) << "Door open"
                                   << "Door open";
}

void tst_MmToOpcUaMapper::notificationPrefix()
{
    QFETCH(QVariantMap, config);
    QFETCH(QString, on);
    QFETCH(QString, off);
    auto mapper = makeMapper(config);
    announce(*mapper, 0);
    const WwBaseEventType raised = feed(*mapper, wrap(notification("n1", 0))).at(1).value<WwBaseEventType>();
    QCOMPARE(raised.Message, on);
    QCOMPARE(raised.Texts.value(QStringLiteral("de")), QStringLiteral("Door open"));
    const WwBaseEventType removed = feed(*mapper, removal(QStringLiteral("n1"))).at(1).value<WwBaseEventType>();
    QCOMPARE(removed.Message, off);
    QCOMPARE(removed.Texts.value(QStringLiteral("de")), QStringLiteral("Door open"));
    feed(*mapper, wrap(notification("n2", 0)));
    QCOMPARE(feed(*mapper, removeAll()).at(1).value<WwBaseEventType>().Message, off);
}

void tst_MmToOpcUaMapper::prefixSwitchWords_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<bool>("prefixed");
    QTest::addColumn<QString>("warning");
    QTest::newRow("no") << QVariant(QStringLiteral("no")) << false << QString();
    QTest::newRow("off") << QVariant(QStringLiteral("off")) << false << QString();
    QTest::newRow("0") << QVariant(QStringLiteral("0")) << false << QString();
    QTest::newRow("FALSE") << QVariant(QStringLiteral("FALSE")) << false << QString();
    QTest::newRow("yes") << QVariant(QStringLiteral("yes")) << true << QString();
    QTest::newRow("On") << QVariant(QStringLiteral("On")) << true << QString();
    QTest::newRow("1") << QVariant(QStringLiteral("1")) << true << QString();
    QTest::newRow("nein") << QVariant(QStringLiteral("nein")) << false
                          << "Value nein of enableWwBaseEventPrefix is not valid, using false";
}

void tst_MmToOpcUaMapper::prefixSwitchWords()
{
    QFETCH(QVariant, value);
    QFETCH(bool, prefixed);
    QFETCH(QString, warning);
    QVariantMap config = configWith({ { "m1", fullMachine() } });
    config.insert(QStringLiteral("opcuaserver"), QVariantMap { { "enableWwBaseEventPrefix", value } });
    auto mapper = std::make_unique<MmToOpcUaMapper>();
    mapper->setElapsedClock([this] { return m_now; });
    mapper->setDateTimeClock([] { return s_wallTime; });
    QVariantMap shared;
    mapper->init(config, shared);
    QStringList warnings;
    for (const QString &line : m_log.ofComponent()) {
        if (line.startsWith(QStringLiteral("WARNING")))
            warnings.append(line);
    }
    QCOMPARE(warnings, warning.isEmpty() ? QStringList() : QStringList { ::warning(warning) });
    announce(*mapper, 0);
    const WwBaseEventType raised = feed(*mapper, wrap(notification("n1", 0))).at(1).value<WwBaseEventType>();
    QCOMPARE(raised.Message, prefixed ? QStringLiteral("{ON }Door open") : QStringLiteral("Door open"));
}

void tst_MmToOpcUaMapper::notificationLocaleFallback()
{
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    announce(*mapper, 0, QStringLiteral("m9"));
    const QString fallback
        = QStringLiteral("WARNING mmtoopcuamapper: Machine \"m9\" is missing locale information; falling back to 'en'");
    const WwBaseEventType first
        = feed(*mapper, wrap(notification("n1", 0)), QStringLiteral("m9")).at(1).value<WwBaseEventType>();
    QCOMPARE(first.Texts, (QHash<QString, QString> { { QStringLiteral("en"), QStringLiteral("Door open") } }));
    QCOMPARE(m_log.ofComponent(), QStringList { fallback });
    feed(*mapper, wrap(notification("n2", 0, QStringLiteral("Cover open"))), QStringLiteral("m9"));
    QCOMPARE(m_log.ofComponent(), (QStringList { fallback, fallback }));
}

void tst_MmToOpcUaMapper::notificationRaisesFlags_data()
{
    QTest::addColumn<qint32>("level");
    QTest::addColumn<QString>("flags");
    QTest::newRow("0") << 0 << QString();
    QTest::newRow("1") << 1 << QString();
    QTest::newRow("2") << 2 << "Warning=1";
    QTest::newRow("3") << 3 << "Alarm=1";
    QTest::newRow("4") << 4 << QString();
}

void tst_MmToOpcUaMapper::notificationRaisesFlags()
{
    QFETCH(qint32, level);
    QFETCH(QString, flags);
    auto mapper = makeMapper();
    announce(*mapper, 0);
    const QList<QVariant> emitted = feed(*mapper, wrap(notification("n", level)));
    if (flags.isEmpty()) {
        QCOMPARE(emitted.size(), 2);
        return;
    }
    QCOMPARE(emitted.size(), 3);
    QCOMPARE(emitted.at(1).userType(), qMetaTypeId<WwBaseEventType>());
    // A machine without a state gets the cleared record with its Flags block present.
    COMPARE_RECORD(emitted.at(2).value<WwState>(), stateOf(0, 0, flags));
    // The flag stays raised in the machine's state.
    COMPARE_RECORD(lastState(*mapper, stateCode(4)).Flags,
        flagsFrom(s_running + flags + " Error=0 Moving=0 RecipeInRun=0 RecipeInSetup=0 FeedRuns=0 EnergySaving=1"));
}

void tst_MmToOpcUaMapper::notificationAlarmInMachineState4()
{
    auto mapper = makeMapper();
    announce(*mapper, 0);
    const WwState waiting = lastState(*mapper, stateCode(6));
    QCOMPARE(waiting.MachineState, 4u);
    QCOMPARE(feed(*mapper, wrap(notification("a", 3))).size(), 2);
    // A warning is still raised in MachineState 4.
    const QList<QVariant> warned = feed(*mapper, wrap(notification("w", 2)));
    QCOMPARE(warned.size(), 3);
    QVERIFY(warned.at(2).value<WwState>().Flags->Warning);
    QVERIFY(!lastState(*mapper, stateCode(2)).Flags->Alarm);
}

void tst_MmToOpcUaMapper::notificationFlagsWithOwnState()
{
    auto mapper = makeMapper();
    announce(*mapper, 2);
    QCOMPARE(feed(*mapper, wrap(notification("w", 2))).size(), 2);
    QCOMPARE(feed(*mapper, wrap(notification("a", 3))).size(), 2);
    QCOMPARE(feed(*mapper, removal(QStringLiteral("w"))).size(), 2);
    QCOMPARE(feed(*mapper, removeAll()).size(), 2);
}

void tst_MmToOpcUaMapper::notificationRemoveTwice()
{
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    announce(*mapper, 0);
    feed(*mapper, wrap(notification("n1", 0)));
    QCOMPARE(feed(*mapper, removal(QStringLiteral("n1"))).size(), 2);
    QCOMPARE(feed(*mapper, removal(QStringLiteral("n1"))), QList<QVariant> { removal(QStringLiteral("n1")) });
    QCOMPARE(m_log.ofComponent(),
        (QStringList { QStringLiteral("DEBUG mmtoopcuamapper: NotificationsRemoveV1: removing \"n1\""),
            QStringLiteral("DEBUG mmtoopcuamapper: NotificationsRemoveV1: removing \"n1\""),
            QStringLiteral("DEBUG mmtoopcuamapper: NotificationsRemoveV1 for an unknown notification \"n1\"") }));
    // Ids are per machine.
    feed(*mapper, wrap(notification("n2", 0)), QStringLiteral("m2"));
    m_log.clear();
    QCOMPARE(feed(*mapper, removal(QStringLiteral("n2"))).size(), 1);
    QVERIFY(m_log.ofComponent().contains(
        QStringLiteral("DEBUG mmtoopcuamapper: NotificationsRemoveV1 for an unknown notification \"n2\"")));
}

void tst_MmToOpcUaMapper::notificationRemoveClearsFlags()
{
    auto mapper = makeMapper();
    announce(*mapper, 0);
    lastState(*mapper, stateCode(2));
    feed(*mapper, wrap(notification("w1", 2)));
    feed(*mapper, wrap(notification("w2", 2)));
    feed(*mapper, wrap(notification("a1", 3)));
    feed(*mapper, wrap(notification("i1", 1)));

    // A warning remains active: nothing to clear, no state.
    QList<QVariant> emitted = feed(*mapper, removal(QStringLiteral("w1")));
    QCOMPARE(emitted.size(), 2);
    emitted = feed(*mapper, removal(QStringLiteral("w2")));
    QCOMPARE(emitted.size(), 3);
    QCOMPARE(emitted.at(1).userType(), qMetaTypeId<WwBaseEventType>());
    WwState state = emitted.at(2).value<WwState>();
    QVERIFY(!state.Flags->Warning);
    QVERIFY(state.Flags->Alarm);
    QCOMPARE(state.MachineState, 3u);
    QCOMPARE(state.Flags->FeedRuns, std::optional<bool>(true));

    emitted = feed(*mapper, removal(QStringLiteral("a1")));
    QCOMPARE(emitted.size(), 3);
    QVERIFY(!emitted.at(2).value<WwState>().Flags->Alarm);
    QCOMPARE(feed(*mapper, removal(QStringLiteral("i1"))).size(), 2);

    // A flag that a removal finds cleared already (offline) is not published again, nor raised.
    feed(*mapper, wrap(notification("a2", 3)));
    feed(*mapper, wrap(notification("a3", 3)));
    lastState(*mapper, stateCode(1));
    QCOMPARE(feed(*mapper, removal(QStringLiteral("a2"))).size(), 2);
    QCOMPARE(feed(*mapper, removal(QStringLiteral("a3"))).size(), 2);
}

void tst_MmToOpcUaMapper::notificationRemoveAll()
{
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    announce(*mapper, 0);
    feed(*mapper, wrap(notification("b", 2, QStringLiteral("Second"))));
    feed(*mapper, wrap(notification("a", 3, QStringLiteral("First"))));
    feed(*mapper, wrap(notification("c", 0, QStringLiteral("Third"))));
    const QList<QVariant> emitted = feed(*mapper, removeAll());
    QCOMPARE(emitted.size(), 5);
    QCOMPARE(emitted.at(0), removeAll());
    QStringList ids;
    QStringList messages;
    for (int i = 1; i <= 3; ++i) {
        ids.append(emitted.at(i).value<WwBaseEventType>().Id);
        messages.append(emitted.at(i).value<WwBaseEventType>().Message);
    }
    QCOMPARE(ids, (QStringList { "a", "b", "c" }));
    QCOMPARE(messages, (QStringList { "First", "Second", "Third" }));
    const WwState state = emitted.at(4).value<WwState>();
    QVERIFY(!state.Flags->Warning);
    QVERIFY(!state.Flags->Alarm);

    // Nothing is active any more.
    QCOMPARE(feed(*mapper, removeAll()).size(), 1);
    QCOMPARE(feed(*mapper, removal(QStringLiteral("a"))).size(), 1);
}

void tst_MmToOpcUaMapper::notificationReplacesSameId()
{
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    announce(*mapper, 0);
    feed(*mapper, wrap(notification("n", 0, QStringLiteral("Old"))));
    QCOMPARE(feed(*mapper, wrap(notification("n", 0, QStringLiteral("New")))).size(), 2);
    const QList<QVariant> emitted = feed(*mapper, removeAll());
    QCOMPARE(emitted.size(), 2);
    QCOMPARE(emitted.at(1).value<WwBaseEventType>().Message, QStringLiteral("New"));
}

void tst_MmToOpcUaMapper::offlineTimeoutAtItsDefault()
{
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    announce(*mapper, 0);
    lastState(*mapper, stateCode(2));
    QTimer *timer = mapper->findChild<QTimer *>();
    QVERIFY(timer);
    QCOMPARE(timer->interval(), 600000);
    QSignalSpy spy(mapper.get(), SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    // The timer's tick is sent by hand; the clock decides whether the machine has been silent for 600000 ms.
    m_now = 599999;
    QVERIFY(QMetaObject::invokeMethod(timer, "timeout"));
    QCOMPARE(spy.count(), 0);
    m_now = 600000;
    QVERIFY(QMetaObject::invokeMethod(timer, "timeout"));
    QCOMPARE(spy.count(), 2);
    QCOMPARE(spy.at(0).at(3), stateCode(1));
}

void tst_MmToOpcUaMapper::offlineTimeout()
{
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    announce(*mapper, 0);
    lastState(*mapper, stateCode(2));
    m_now = 10;
    announce(*mapper, 0, QStringLiteral("m2"));
    QSignalSpy spy(mapper.get(), SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper->setOfflineTimeout(20);
    // Not silent long enough: the timer ticks without marking.
    m_now = 19;
    QTest::qWait(60);
    QCOMPARE(spy.count(), 0);

    m_now = 30;
    QTRY_COMPARE(spy.count(), 4);
    mapper->setOfflineTimeout(MmToOpcUaMapper::DefaultOfflineTimeout);
    QCOMPARE(m_log.ofComponent(),
        (QStringList { QStringLiteral("DEBUG mmtoopcuamapper: Timeout: marking \"m1\" as OFFLINE"),
            QStringLiteral("DEBUG mmtoopcuamapper: Timeout: marking \"m2\" as OFFLINE") }));
    for (const QList<QVariant> &arguments : qAsConst(spy)) {
        QCOMPARE(arguments.at(0).toDateTime(), s_wallTime);
        QCOMPARE(arguments.at(2).toString(), s_source);
    }
    QCOMPARE(spy.at(0).at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(spy.at(0).at(3), stateCode(1));
    WwState expected = stateOf(0, 0, QString());
    COMPARE_RECORD(spy.at(1).at(3).value<WwState>(), expected);
    QCOMPARE(spy.at(2).at(1).toString(), QStringLiteral("m2"));
    QCOMPARE(spy.at(2).at(3), stateCode(1));
    COMPARE_RECORD(spy.at(3).at(3).value<WwState>(), expected);
}

void tst_MmToOpcUaMapper::offlineTimeoutRepeats()
{
    auto mapper = makeMapper();
    announce(*mapper, 0);
    QSignalSpy spy(mapper.get(), SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper->setOfflineTimeout(20);
    m_now = 20;
    QTRY_COMPARE(spy.count(), 2);
    // The synthetic dataset restarted the last-seen timer: no mark until the machine is silent again.
    QTest::qWait(60);
    QCOMPARE(spy.count(), 2);
    m_now = 40;
    QTRY_COMPARE(spy.count(), 4);
    // A dataset of the machine postpones the next mark.
    m_now = 55;
    announce(*mapper, 0);
    m_now = 74;
    QTest::qWait(60);
    QCOMPARE(spy.count(), 5);
    m_now = 75;
    QTRY_COMPARE(spy.count(), 7);
    mapper->setOfflineTimeout(MmToOpcUaMapper::DefaultOfflineTimeout);
}

void tst_MmToOpcUaMapper::offlineIgnoresUnseenMachines()
{
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    QSignalSpy spy(mapper.get(), SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper->setOfflineTimeout(10);
    m_now = 1000000;
    QTest::qWait(60);
    QCOMPARE(spy.count(), 0);
    QVERIFY(m_log.ofComponent().isEmpty());
}

// Feeds OPC UA data through OpcUaToMMMapper into the mapper and returns what the mapper made of it: the records it
// emitted after the MM datasets, which it passes on, are left out.
QList<QVariant> tst_MmToOpcUaMapper::roundTrip(MmToOpcUaMapper &mapper, const QVariant &data)
{
    OpcUaToMMMapper forward;
    QObject::connect(&forward, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)), &mapper,
        SLOT(processData(QDateTime, QString, QString, QVariant)));
    QSignalSpy intermediate(&forward, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    forward.processData(s_when, QStringLiteral("m1"), s_source, data);
    QSet<int> intermediateTypes;
    for (const QList<QVariant> &arguments : qAsConst(intermediate))
        intermediateTypes.insert(arguments.at(3).userType());
    QList<QVariant> made;
    for (const QList<QVariant> &arguments : qAsConst(spy)) {
        if (arguments.at(0).toDateTime() != s_when || arguments.at(1).toString() != QLatin1String("m1")
            || arguments.at(2).toString() != s_source)
            qWarning("dataset emitted with other time stamp, machine or source");
        if (!intermediateTypes.contains(arguments.at(3).userType()))
            made.append(arguments.at(3));
    }
    return made;
}

void tst_MmToOpcUaMapper::roundTripState_data()
{
    QTest::addColumn<WwState>("input");
    QTest::addColumn<WwState>("expected");
    const QString complete = QStringLiteral("WorkpiecePresent=1 Moving=1 RecipeInRun=1 WaitUnload=0 WaitLoad=0 "
                                            "EnergySaving=0 FeedRuns=1 ");
    const QString initial
        = QStringLiteral("WorkpiecePresent=0 RecipeInRun=0 RecipeInSetup=0 EnergySaving=0 FeedRuns=0 ");
    const QString production
        = s_running + initial + "Error=0 WorkpiecePresent=1 Moving=1 RecipeInRun=1 FeedRuns=1 EnergySaving=0";
    // Codes and flags that survive.
    QTest::newRow("offline") << stateOf(0, 0, complete) << stateOf(0, 0, QString());
    QTest::newRow("production") << stateOf(3, 1, s_running + complete) << stateOf(3, 1, production);
    QTest::newRow("setup") << stateOf(3, 4, s_running + complete)
                           << stateOf(
                                  3, 4, s_running + initial + "Error=0 RecipeInRun=1 RecipeInSetup=1 EnergySaving=0");
    QTest::newRow("error") << stateOf(4, 0, s_running + complete + "Error=1")
                           << stateOf(4, 0,
                                  s_running + initial + "Moving=0 RecipeInRun=0 RecipeInSetup=0 FeedRuns=0 Error=1");
    // Codes that come back changed: the two mappings are not inverses of each other.
    QTest::newRow("idle becomes standby")
        << stateOf(1, 0, s_running + complete)
        << stateOf(
               3, 5, s_running + initial + "Error=0 Moving=0 RecipeInRun=0 RecipeInSetup=0 FeedRuns=0 EnergySaving=1");
    QTest::newRow("setup in state 2") << stateOf(2, 4,
        s_running
            + complete) << stateOf(3, 4, s_running + initial + "Error=0 RecipeInRun=1 RecipeInSetup=1 EnergySaving=0");
    QTest::newRow("waiting for load") << stateOf(3, 1, s_running + complete + "WaitLoad=1")
                                      << stateOf(4, 0,
                                             s_running + initial + "Moving=0 RecipeInRun=0 RecipeInSetup=0 FeedRuns=0");
    QTest::newRow("without workpiece")
        << stateOf(3, 1, s_running + complete + "WorkpiecePresent=0")
        << stateOf(2, 1,
               s_running + initial
                   + "Error=0 WorkpiecePresent=0 Moving=0 RecipeInRun=0 RecipeInSetup=0 FeedRuns=1 EnergySaving=0");
}

void tst_MmToOpcUaMapper::roundTripState()
{
    QFETCH(WwState, input);
    QFETCH(WwState, expected);
    QVariantMap machine = fullMachine();
    machine.insert(QStringLiteral("locale"), QStringLiteral("en"));
    auto mapper = makeMapper(configWith({ { "m1", machine } }));
    QVERIFY(roundTrip(*mapper, capabilities(0)).isEmpty());
    const QList<QVariant> made = roundTrip(*mapper, wrap(input));
    // Without a Values block: one WwState from the StateV1 and nothing else (conditions are not mapped back).
    QCOMPARE(made.size(), 1);
    QCOMPARE(made.first().userType(), qMetaTypeId<WwState>());
    COMPARE_RECORD(made.first().value<WwState>(), expected);
    QVERIFY(m_log.ofComponent().isEmpty());
}

void tst_MmToOpcUaMapper::roundTripOperatingData()
{
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    roundTrip(*mapper, capabilities(0));
    WwState input = stateOf(3, 1,
        s_running
            + "WorkpiecePresent=1 Moving=1 RecipeInRun=1 WaitUnload=0 WaitLoad=0 "
              "EnergySaving=0 FeedRuns=1");
    WwStateValues values;
    values.AxisOverride = 100;
    values.AbsoluteMachineOnTime = 9000000;
    values.AbsolutePowerPresentTime = 7200000;
    values.AbsoluteProductionTime = 3600000;
    values.AbsoluteProductionWithoutWorkpieceTime = 1800000;
    values.AbsolutePiecesOut = 42;
    values.AbsoluteLength = 1999;
    input.Values = values;
    QList<QVariant> made = roundTrip(*mapper, wrap(input));
    // The StateV1 and then the GeneralV1 each give the machine's WwState.
    QCOMPARE(made.size(), 2);
    WwState state = made.last().value<WwState>();
    QCOMPARE(state.MachineState, 3u);
    WwStateValues expected;
    // The power-present time survives and stands for the machine-on time too; the length survives in whole metres.
    expected.AbsoluteMachineOnTime = 7200000;
    expected.RelativeMachineOnTime = 0;
    expected.AbsolutePowerPresentTime = 7200000;
    expected.RelativePowerPresentTime = 0;
    expected.AbsolutePiecesOut = 42;
    expected.RelativePiecesOut = 0;
    expected.AbsoluteLength = 1000;
    expected.RelativeLength = 0;
    COMPARE_RECORD(*state.Values, expected);

    values.AbsolutePowerPresentTime = 10800000;
    values.AbsolutePiecesOut = 50;
    values.AbsoluteLength = 3500;
    input.Values = values;
    made = roundTrip(*mapper, wrap(input));
    state = made.last().value<WwState>();
    QCOMPARE(*state.Values->RelativePowerPresentTime, quint64(3600000));
    QCOMPARE(*state.Values->RelativePiecesOut, quint64(8));
    QCOMPARE(*state.Values->AbsoluteLength, quint64(3000));
    QCOMPARE(*state.Values->RelativeLength, quint64(2000));
}

void tst_MmToOpcUaMapper::roundTripNotification()
{
    QVariantMap config = configWith({ { "m1", fullMachine() } });
    config.insert(QStringLiteral("opcuaserver"), QVariantMap { { "enableWwBaseEventPrefix", true } });
    auto mapper = makeMapper(config);
    roundTrip(*mapper, capabilities(0));
    WwBaseEventType raised;
    raised.Message = QStringLiteral("Door open");
    raised.Id = QStringLiteral("4711");
    raised.Category = 3;
    raised.Texts.insert(QStringLiteral("de"), QStringLiteral("Door open"));
    raised.Path = QStringList { QStringLiteral("Unit1"), QStringLiteral("Spindle") };
    const QList<QVariant> made = roundTrip(*mapper, wrap(raised));
    QCOMPARE(made.size(), 2);
    const WwBaseEventType event = made.at(0).value<WwBaseEventType>();
    // Category, text and path survive; the Id is the notification id, which carries the path in front.
    QCOMPARE(event.Category, raised.Category);
    QCOMPARE(event.Texts, raised.Texts);
    QCOMPARE(event.Path, raised.Path);
    QCOMPARE(event.Message, QStringLiteral("{ON }Door open"));
    QCOMPARE(event.Id, QStringLiteral("Unit1/Spindle/4711"));
    QCOMPARE(event.Text5, QStringLiteral("4711"));
    QVERIFY(made.at(1).value<WwState>().Flags->Warning);

    // A withdrawal names the bare message id, under which no notification is active: nothing comes back.
    WwBaseEventType withdrawn = raised;
    withdrawn.Message = QStringLiteral("{OFF}Door open");
    QVERIFY(roundTrip(*mapper, wrap(withdrawn)).isEmpty());
    QCOMPARE(m_log.ofComponent(),
        (QStringList { QStringLiteral("DEBUG mmtoopcuamapper: NotificationsRemoveV1: removing \"4711\""),
            QStringLiteral("DEBUG mmtoopcuamapper: NotificationsRemoveV1 for an unknown notification \"4711\"") }));

    // The event the mapper publishes for a removal withdraws the same notification when it is read again.
    const QList<QVariant> removed = feed(*mapper, removal(QStringLiteral("Unit1/Spindle/4711")));
    QCOMPARE(removed.size(), 3);
    OpcUaToMMMapper forward;
    QSignalSpy spy(&forward, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    forward.processData(s_when, QStringLiteral("m1"), s_source, removed.at(1));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.first().at(3).value<NotificationsRemoveV1>().id, QStringLiteral("Unit1/Spindle/4711"));
}

void tst_MmToOpcUaMapper::roundTripIdentification()
{
    auto mapper = makeMapper(configWith({ { "m1", fullMachine() } }));
    roundTrip(*mapper, capabilities(1));
    WwIdentification own;
    own.Manufacturer = QStringLiteral("Machine's own");
    own.DeviceClass = QStringLiteral("Press");
    // The nameplate reaches the mapper only as conditions, which it does not map back.
    QVERIFY(roundTrip(*mapper, wrap(own)).isEmpty());
    SwVerV1 version;
    version.version = QStringLiteral("1");
    QCOMPARE(feed(*mapper, wrap(version)).at(1).value<WwIdentification>().Manufacturer, QStringLiteral("Acme"));
}

QTEST_GUILESS_MAIN(tst_MmToOpcUaMapper)
#include "tst_mmtoopcuamapper.moc"
