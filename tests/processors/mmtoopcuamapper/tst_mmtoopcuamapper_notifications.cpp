#include "tst_mmtoopcuamapper.h"

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
