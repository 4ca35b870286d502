#include "tst_mmtoopcuamapper.h"

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
