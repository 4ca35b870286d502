#include "tst_opcuatommmapper.h"

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
