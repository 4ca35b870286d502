#include "tst_mmtoopcuamapper.h"

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
