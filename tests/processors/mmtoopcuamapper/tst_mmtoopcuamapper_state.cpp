#include "tst_mmtoopcuamapper.h"

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
