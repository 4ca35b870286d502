#include "tst_limit.h"

void tst_Limit::duplicates_data()
{
    QTest::addColumn<QVariant>("first");
    QTest::addColumn<QVariant>("second");

    NotificationsAddV1 add;
    add.id = QStringLiteral("src/1");
    add.timestamp = When;
    add.level = 2;
    add.message = QStringLiteral("Door open");
    add.messageCode = QStringLiteral("1");
    NotificationsAddV1 otherAdd = add;
    otherAdd.level = 3;
    NotificationsRemoveV1 remove;
    remove.id = QStringLiteral("1");
    remove.timestamp = When;
    NotificationsRemoveV1 otherRemove = remove;
    otherRemove.id = QStringLiteral("2");
    NotificationsRemoveAllV1 removeAll;
    removeAll.timestamp = When;
    NotificationsRemoveAllV1 otherRemoveAll;
    otherRemoveAll.timestamp = When.addSecs(1);
    SwVerV1 version;
    version.version = QStringLiteral("1.0");
    SwVerV1 otherVersion;
    otherVersion.version = QStringLiteral("1.1");
    const OrderV1 order = program("P1");
    const OrderV1 otherOrder = program("P2");

    QTest::newRow("NotificationsAddV1") << QVariant::fromValue(add) << QVariant::fromValue(otherAdd);
    QTest::newRow("NotificationsRemoveV1") << QVariant::fromValue(remove) << QVariant::fromValue(otherRemove);
    QTest::newRow("NotificationsRemoveAllV1") << QVariant::fromValue(removeAll) << QVariant::fromValue(otherRemoveAll);
    QTest::newRow("SwVerV1") << QVariant::fromValue(version) << QVariant::fromValue(otherVersion);
    QTest::newRow("OrderV1") << QVariant::fromValue(order) << QVariant::fromValue(otherOrder);
    WwState state;
    state.MachineState = 2;
    WwState otherState = state;
    otherState.OperationMode = 1;
    WwIdentification identification;
    identification.SerialNumber = QStringLiteral("4711");
    WwIdentification otherIdentification = identification;
    otherIdentification.YearOfConstruction = 2020;
    WwBaseEventType event;
    event.Id = QStringLiteral("1");
    WwBaseEventType otherEvent = event;
    otherEvent.Message = QStringLiteral("Door open");
    WwCapabilities capabilities;
    capabilities.Mask = WwCapabilities::OwnState;
    WwCapabilities otherCapabilities;
    otherCapabilities.Mask = WwCapabilities::OwnIdentification;
    WwManufacturerSpecific specific;
    specific.LastProgramName = QStringLiteral("P1");
    WwManufacturerSpecific otherSpecific;
    otherSpecific.LastProgramName = QStringLiteral("P2");

    QTest::newRow("WwState") << QVariant::fromValue(state) << QVariant::fromValue(otherState);
    QTest::newRow("WwIdentification") << QVariant::fromValue(identification)
                                      << QVariant::fromValue(otherIdentification);
    QTest::newRow("WwBaseEventType") << QVariant::fromValue(event) << QVariant::fromValue(otherEvent);
    QTest::newRow("WwCapabilities") << QVariant::fromValue(capabilities) << QVariant::fromValue(otherCapabilities);
    QTest::newRow("WwManufacturerSpecific") << QVariant::fromValue(specific) << QVariant::fromValue(otherSpecific);
    QTest::newRow("int") << QVariant(1) << QVariant(2);
    QTest::newRow("string") << QVariant("a") << QVariant("b");
}

void tst_Limit::duplicates()
{
    QFETCH(QVariant, first);
    QFETCH(QVariant, second);

    // Without settings: repeats are dropped all the same.
    Limit limit;
    QVariantMap shared;
    limit.init(QVariantMap(), shared);
    m_log.clear();
    QSignalSpy spy(&limit, Processed);

    limit.processData(When, "m1", "s1", first);
    QVariant copy = first;
    copy.detach();
    limit.processData(When.addSecs(5), "m1", "s2", copy);
    limit.processData(When, "m1", "s1", second);
    limit.processData(When, "m1", "s1", second);
    limit.processData(When.addSecs(9), "m1", "s9", first);

    QCOMPARE(spy.count(), 3);
    QCOMPARE(spy.at(0).at(0).toDateTime(), When);
    QCOMPARE(spy.at(0).at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(spy.at(0).at(2).toString(), QStringLiteral("s1"));
    QCOMPARE(spy.at(0).at(3).userType(), first.userType());
    QCOMPARE(spy.at(1).at(3).userType(), second.userType());
    // What passes keeps its own time stamp and source.
    QCOMPARE(spy.at(2).at(0).toDateTime(), When.addSecs(9));
    QCOMPARE(spy.at(2).at(2).toString(), QStringLiteral("s9"));
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::duplicatesPerMachine()
{
    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    SwVerV1 version;
    version.version = QStringLiteral("1.0");
    const OrderV1 order = program("P1");

    send(limit, QVariant::fromValue(version));
    send(limit, QVariant::fromValue(version), "m2");
    // Another type in between leaves the last value of each type as it was.
    send(limit, QVariant::fromValue(order));
    send(limit, QVariant::fromValue(version));
    send(limit, QVariant::fromValue(version), "m2");
    send(limit, QVariant::fromValue(order));

    QCOMPARE(spy.count(), 3);
    QCOMPARE(spy.at(0).at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(spy.at(1).at(1).toString(), QStringLiteral("m2"));
    QCOMPARE(QString::fromLatin1(spy.at(2).at(3).typeName()), QStringLiteral("OrderV1"));
}

void tst_Limit::unknownTypeAlwaysPasses()
{
    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    const QVariant opaque = QVariant::fromValue(Opaque { 4 });
    send(limit, opaque);
    send(limit, opaque);
    send(limit, QVariant());
    send(limit, QVariant());
    QCOMPARE(spy.count(), 3);
}

void tst_Limit::stateKeepAliveZero()
{
    Limit limit;
    QVariantMap shared;
    limit.init(QVariantMap(), shared);
    QSignalSpy spy(&limit, Processed);
    for (int i = 0; i < 5; ++i)
        send(limit, QVariant::fromValue(state(2)));
    QCOMPARE(spy.count(), 5);
    QCOMPARE(qvariant_cast<StateV1>(spy.last().at(3)).state, 2);
    QCOMPARE(spy.last().at(2).toString(), QStringLiteral("s1"));
}

void tst_Limit::stateKeepAlive()
{
    const quint32 keepAlive = 150;
    Limit limit;
    configure(limit, 0, keepAlive);
    QSignalSpy spy(&limit, Processed);

    QElapsedTimer sinceFirst;
    sinceFirst.start();
    send(limit, QVariant::fromValue(state(2)));
    send(limit, QVariant::fromValue(state(2)));
    QCOMPARE(spy.count(), 1);
    // A different state passes at once, and so does the one before it, which is no longer the last.
    send(limit, QVariant::fromValue(state(3)));
    send(limit, QVariant::fromValue(state(2)));
    send(limit, QVariant::fromValue(state(2)), "m2");
    QCOMPARE(spy.count(), 4);

    // The repeat passes again once the keep-alive time has gone by since the last state that passed.
    QElapsedTimer sinceLast;
    sinceLast.start();
    QTRY_VERIFY_WITH_TIMEOUT((send(limit, QVariant::fromValue(state(2))), spy.count() == 5), 5000);
    QVERIFY(sinceLast.elapsed() >= qint64(keepAlive) - 2);
    QCOMPARE(spy.last().at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(qvariant_cast<StateV1>(spy.last().at(3)).state, 2);

    // And the time counts from there anew.
    send(limit, QVariant::fromValue(state(2)));
    QCOMPARE(spy.count(), 5);
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::stateKeepAliveBoundary()
{
    Limit limit;
    configure(limit, 0, 100);
    limit.setClock(&fakeNow);
    QSignalSpy spy(&limit, Processed);

    s_now = Start;
    send(limit, QVariant::fromValue(state(2)));
    s_now = Start + 99;
    send(limit, QVariant::fromValue(state(2)));
    QCOMPARE(spy.count(), 1);
    // Exactly the keep-alive time after the last one that passed is no longer fewer milliseconds.
    s_now = Start + 100;
    send(limit, QVariant::fromValue(state(2)));
    QCOMPARE(spy.count(), 2);

    // A state that differs from the last one passes at once and restarts the keep-alive time as well.
    s_now = Start + 150;
    send(limit, QVariant::fromValue(state(3)));
    s_now = Start + 160;
    send(limit, QVariant::fromValue(state(2)));
    QCOMPARE(spy.count(), 4);
    s_now = Start + 259;
    send(limit, QVariant::fromValue(state(2)));
    QCOMPARE(spy.count(), 4);
    s_now = Start + 260;
    send(limit, QVariant::fromValue(state(2)));
    QCOMPARE(spy.count(), 5);
}
