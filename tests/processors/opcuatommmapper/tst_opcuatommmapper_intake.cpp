#include "tst_opcuatommmapper.h"

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
