#include "tst_mmtoopcuamapper.h"

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
