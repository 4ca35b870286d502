#include "tst_limit.h"

void tst_Limit::firstListLeavesAtOnce()
{
    QFETCH(Kind, kind);
    QFETCH(QString, listType);

    Limit limit;
    configure(limit, 1000);
    QSignalSpy spy(&limit, Processed);
    const QDateTime before = QDateTime::currentDateTime();
    send(limit, makeList(kind, { { "c", 3 }, { "a", 1 }, { "b", 2 } }));

    QCOMPARE(spy.count(), 1);
    const QVariantList dataset = spy.first();
    QVERIFY(dataset.at(0).toDateTime() >= before.addMSecs(-1));
    QCOMPARE(dataset.at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(dataset.at(2).toString(), QStringLiteral("Limiter"));
    QCOMPARE(QString::fromLatin1(dataset.at(3).typeName()), listType);
    QDateTime listTime;
    QCOMPARE(entriesOf(kind, dataset.at(3), &listTime), (Entries { { "a", 1 }, { "b", 2 }, { "c", 3 } }));
    QCOMPARE(listTime, dataset.at(0).toDateTime());
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::unchangedEntriesGiveNothing()
{
    QFETCH(Kind, kind);

    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    const QVariant list = makeList(kind, { { "a", 1 }, { "b", 2 } });
    send(limit, list);
    QCOMPARE(spy.count(), 1);

    send(limit, list);
    send(limit, makeList(kind, { { "b", 2 }, { "a", 1 } }));
    send(limit, makeList(kind, { { "a", 1 } }));
    send(limit, makeList(kind, {}));
    send(limit, makeItem(kind, "b", 2));
    QCOMPARE(spy.count(), 1);
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::onlyChangedEntriesLeave()
{
    QFETCH(Kind, kind);

    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    send(limit, makeList(kind, { { "a", 1 }, { "b", 1 }, { "c", 1 } }));
    send(limit, makeList(kind, { { "a", 1 }, { "b", 2 }, { "c", 1 }, { "d", 1 } }));
    send(limit, makeList(kind, { { "c", 5 }, { "a", 5 } }));

    QCOMPARE(spy.count(), 3);
    QCOMPARE(entriesOf(kind, spy.at(1).at(3)), (Entries { { "b", 2 }, { "d", 1 } }));
    QCOMPARE(entriesOf(kind, spy.at(2).at(3)), (Entries { { "a", 5 }, { "c", 5 } }));
    // A change back is a change, too.
    send(limit, makeList(kind, { { "b", 1 } }));
    QCOMPARE(spy.count(), 4);
    QCOMPARE(entriesOf(kind, spy.at(3).at(3)), (Entries { { "b", 1 } }));
}

void tst_Limit::singleEntries()
{
    QFETCH(Kind, kind);
    QFETCH(QString, listType);

    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    send(limit, makeItem(kind, "x", 1));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(QString::fromLatin1(spy.first().at(3).typeName()), listType);
    QCOMPARE(entriesOf(kind, spy.first().at(3)), (Entries { { "x", 1 } }));
    QCOMPARE(spy.first().at(2).toString(), QStringLiteral("Limiter"));

    // Single entries and lists share one table.
    send(limit, makeList(kind, { { "x", 1 }, { "y", 1 } }));
    send(limit, makeItem(kind, "y", 1));
    send(limit, makeItem(kind, "y", 2));
    QCOMPARE(spy.count(), 3);
    QCOMPARE(entriesOf(kind, spy.at(1).at(3)), (Entries { { "y", 1 } }));
    QCOMPARE(entriesOf(kind, spy.at(2).at(3)), (Entries { { "y", 2 } }));
}

void tst_Limit::singleEntryRepeatIsDroppedByItsType()
{
    QFETCH(Kind, kind);

    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    send(limit, makeItem(kind, "x", 1));
    send(limit, makeList(kind, { { "x", 2 } }));
    QCOMPARE(spy.count(), 2);

    // The repeat equals the last single entry of the machine, so it is dropped before the entry table is consulted,
    // although the table holds the list's item by now.
    send(limit, makeItem(kind, "x", 1));
    QCOMPARE(spy.count(), 2);

    send(limit, makeItem(kind, "x", 3));
    send(limit, makeItem(kind, "x", 1));
    QCOMPARE(spy.count(), 4);
    QCOMPARE(entriesOf(kind, spy.last().at(3)), (Entries { { "x", 1 } }));
}

void tst_Limit::waitTimeHoldsPendingEntries()
{
    QFETCH(Kind, kind);

    const quint32 wait = 200;
    Limit limit;
    configure(limit, wait);
    QSignalSpy spy(&limit, Processed);
    send(limit, makeItem(kind, "a", 1));
    QCOMPARE(spy.count(), 1);

    // Changes within the wait time stay pending, each entry once, with its latest content.
    QTest::qWait(10);
    send(limit, makeItem(kind, "a", 2));
    send(limit, makeList(kind, { { "b", 1 }, { "a", 3 } }));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(m_log.lines().size(), 2);
    checkDropLine(m_log.lines().at(0), kind, wait);
    checkDropLine(m_log.lines().at(1), kind, wait);

    // Nothing sends them by itself: there is no timer for lists.
    QTest::qWait(int(wait) + 30);
    QCOMPARE(spy.count(), 1);

    m_log.clear();
    flush(limit, kind);
    QCOMPARE(spy.count(), 2);
    QCOMPARE(entriesOf(kind, spy.at(1).at(3)), (Entries { { "a", 3 }, { "b", 1 } }));
    QCOMPARE(spy.at(1).at(2).toString(), QStringLiteral("Limiter"));
    QVERIFY(m_log.lines().isEmpty());

    // Released: a further flush has nothing to send, and logs that it is too early.
    flush(limit, kind);
    QCOMPARE(spy.count(), 2);
    QCOMPARE(m_log.lines().size(), 1);
    checkDropLine(m_log.lines().at(0), kind, wait);
}

void tst_Limit::laterChangeOfAnotherMachineReleases()
{
    QFETCH(Kind, kind);

    const quint32 wait = 200;
    Limit limit;
    configure(limit, wait);
    QSignalSpy spy(&limit, Processed);

    // Two changes of one machine 10 ms apart: the first leaves at once, the second waits.
    send(limit, makeItem(kind, "x", 1));
    QTest::qWait(10);
    send(limit, makeItem(kind, "x", 2));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(m_log.lines().size(), 1);
    checkDropLine(m_log.lines().at(0), kind, wait);

    // A change of any machine after the wait time lets it go, machines in ascending order of name.
    QTest::qWait(int(wait) + 30);
    m_log.clear();
    send(limit, makeItem(kind, "x", 1), "a0");
    QCOMPARE(spy.count(), 3);
    QCOMPARE(spy.at(1).at(1).toString(), QStringLiteral("a0"));
    QCOMPARE(entriesOf(kind, spy.at(1).at(3)), (Entries { { "x", 1 } }));
    QCOMPARE(spy.at(2).at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(entriesOf(kind, spy.at(2).at(3)), (Entries { { "x", 2 } }));
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::skippedMachinesAreLoggedEach()
{
    QFETCH(Kind, kind);

    const quint32 wait = 1000;
    Limit limit;
    configure(limit, wait);
    QSignalSpy spy(&limit, Processed);

    send(limit, makeItem(kind, "x", 1), "m2");
    send(limit, makeItem(kind, "x", 1), "m1");
    // m1's flush found m2 within its wait time, with nothing pending.
    QCOMPARE(spy.count(), 2);
    QCOMPARE(m_log.lines().size(), 1);
    checkDropLine(m_log.lines().at(0), kind, wait);

    m_log.clear();
    send(limit, makeItem(kind, "x", 2), "m3");
    QCOMPARE(spy.count(), 3);
    QCOMPARE(spy.at(2).at(1).toString(), QStringLiteral("m3"));
    QCOMPARE(m_log.lines().size(), 2);
    checkDropLine(m_log.lines().at(0), kind, wait);
    checkDropLine(m_log.lines().at(1), kind, wait);
}

void tst_Limit::flushRestartsWaitOfIdleMachine()
{
    QFETCH(Kind, kind);

    const quint32 wait = 200;
    Limit limit;
    configure(limit, wait);
    QSignalSpy spy(&limit, Processed);

    send(limit, makeItem(kind, "x", 1), "m1");
    QTest::qWait(int(wait) + 30);
    // This flush passes m1 after its wait time: m1's last sending becomes now although it has nothing to send.
    send(limit, makeItem(kind, "x", 1), "m2");
    QCOMPARE(spy.count(), 2);
    m_log.clear();
    send(limit, makeItem(kind, "x", 2), "m1");
    QCOMPARE(spy.count(), 2);
    QCOMPARE(m_log.lines().size(), 2);
    checkDropLine(m_log.lines().at(0), kind, wait);
}

void tst_Limit::kindsWaitIndependently()
{
    QFETCH(Kind, kind);

    Limit limit;
    configure(limit, 1000);
    QSignalSpy spy(&limit, Processed);
    send(limit, makeItem(kind, "x", 1));
    for (int other = ConditionDefinitions; other <= MaintenanceValues; ++other) {
        if (other != kind)
            send(limit, makeItem(Kind(other), "x", 1));
    }
    QCOMPARE(spy.count(), 4);
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::machinesWithoutEntriesAreNotVisited()
{
    QFETCH(Kind, kind);

    const quint32 wait = 1000;
    Limit limit;
    configure(limit, wait);
    QSignalSpy spy(&limit, Processed);

    // Machines the limiter knows, yet without entries of this kind: one sent only a state, one only an empty list.
    send(limit, QVariant::fromValue(state(2)), "a0");
    send(limit, makeList(kind, {}), "a1");
    QCOMPARE(spy.count(), 1);
    send(limit, makeItem(kind, "x", 1), "m1");
    QCOMPARE(spy.count(), 2);
    QVERIFY(m_log.lines().isEmpty());

    // The flush of this change finds only m1 within its wait time; the others are no part of it.
    send(limit, makeItem(kind, "x", 2), "m1");
    QCOMPARE(spy.count(), 2);
    QCOMPARE(m_log.lines().size(), 1);
    checkDropLine(m_log.lines().at(0), kind, wait);
}

void tst_Limit::dropMessagesNeedDebug()
{
    QFETCH(Kind, kind);

    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false"));
    Limit limit;
    configure(limit, 1000);
    QSignalSpy spy(&limit, Processed);
    send(limit, makeItem(kind, "x", 1));
    send(limit, makeItem(kind, "x", 2));
    QCOMPARE(spy.count(), 1);
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::maintenanceValuesChangeOnlyByValues_data()
{
    QTest::addColumn<MaintenanceDataV1>("next");
    QTest::addColumn<bool>("changed");

    QTest::newRow("same") << maintenanceValue("oil", 1.5, 2) << false;
    QTest::newRow("value2") << maintenanceValue("oil", 1.25, 2) << true;
    QTest::newRow("value3") << maintenanceValue("oil", 1.5, 2.0000001) << true;
    // Exact comparison: no tolerance hides a small change of a counter.
    QTest::newRow("value2 by 1e-12") << maintenanceValue("oil", 1.5 + 1e-12, 2) << true;
    QTest::newRow("value3 by 1e-12") << maintenanceValue("oil", 1.5, 2 + 1e-12) << true;
    QTest::newRow("both") << maintenanceValue("oil", 0, 0) << true;
    QTest::newRow("id null and empty alike") << maintenanceValue("", 1.5, 2) << false;
}

void tst_Limit::maintenanceValuesChangeOnlyByValues()
{
    QFETCH(MaintenanceDataV1, next);
    QFETCH(bool, changed);

    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    MaintenanceDatasV1 list;
    list.timestamp = When;
    list.items = { maintenanceValue("oil", 1.5, 2), maintenanceValue(QString(), 1.5, 2) };
    send(limit, QVariant::fromValue(list));
    QCOMPARE(spy.count(), 1);

    MaintenanceDatasV1 again;
    again.timestamp = When.addSecs(1);
    again.items = { next };
    send(limit, QVariant::fromValue(again));
    QCOMPARE(spy.count(), changed ? 2 : 1);
    if (changed)
        QCOMPARE(qvariant_cast<MaintenanceDatasV1>(spy.last().at(3)).items, QList<MaintenanceDataV1> { next });
}

void tst_Limit::conditionValueTypeChangeIsChange()
{
    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    ConditionDataV2 value;
    value.id = QStringLiteral("x");
    value.value = 12;
    send(limit, QVariant::fromValue(value));
    value.value = QStringLiteral("12");
    send(limit, QVariant::fromValue(value));
    value.value = QStringLiteral("12");
    send(limit, QVariant::fromValue(value));
    QCOMPARE(spy.count(), 2);
    const ConditionDatasV2 list = qvariant_cast<ConditionDatasV2>(spy.last().at(3));
    QCOMPARE(list.items.size(), 1);
    QCOMPARE(list.items.first().value.userType(), int(QMetaType::QString));
}

void tst_Limit::idleMachineFollowsFlushesOfOthers_data()
{
    QTest::addColumn<Kind>("kind");
    QTest::addColumn<bool>("debug");

    const QList<QPair<Kind, QString>> kinds { { ConditionDefinitions, "condition definitions" },
        { ConditionValues, "condition values" }, { MaintenanceDefinitions, "maintenance definitions" },
        { MaintenanceValues, "maintenance values" } };
    for (const auto &kind : kinds) {
        QTest::newRow(qPrintable(kind.second)) << kind.first << false;
        QTest::newRow(qPrintable(kind.second + ", drop messages logged")) << kind.first << true;
    }
}

void tst_Limit::idleMachineFollowsFlushesOfOthers()
{
    QFETCH(Kind, kind);
    QFETCH(bool, debug);

    showDropMessages(debug);
    Limit limit;
    configure(limit, 200);
    limit.setClock(&fakeNow);
    QSignalSpy spy(&limit, Processed);

    s_now = Start;
    send(limit, makeItem(kind, "x", 1), "m1");
    QCOMPARE(spy.count(), 1);
    // Flushes run by the first entries of other machines. m1 has nothing pending, yet its last sending moves to the
    // first flush at least 200 ms after it (210), then to the first at least 200 ms after that (410, not 409).
    int other = 0;
    for (const qint64 at : { 150, 210, 300, 409, 410, 500 }) {
        s_now = Start + at;
        send(limit, makeItem(kind, "x", 1), QStringLiteral("a%1").arg(++other));
    }
    QCOMPARE(spy.count(), 7);

    // So a change at 550 waits, a flush at 609 does not let it go, and one at 610 does.
    s_now = Start + 550;
    send(limit, makeItem(kind, "x", 2), "m1");
    s_now = Start + 609;
    send(limit, makeItem(kind, "x", 1), "b1");
    QCOMPARE(spy.count(), 8);
    QCOMPARE(spy.last().at(1).toString(), QStringLiteral("b1"));
    s_now = Start + 610;
    send(limit, makeItem(kind, "x", 1), "b2");
    QCOMPARE(spy.count(), 10);
    QCOMPARE(spy.at(8).at(1).toString(), QStringLiteral("b2"));
    QCOMPARE(spy.at(9).at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(entriesOf(kind, spy.at(9).at(3)), (Entries { { "x", 2 } }));
    QCOMPARE(spy.at(9).at(0).toDateTime(), QDateTime::fromMSecsSinceEpoch(Start + 610));
    if (!debug)
        QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::manyMachinesLeaveInNameOrder()
{
    showDropMessages(false);
    Limit limit;
    configure(limit, 100);
    limit.setClock(&fakeNow);
    QSignalSpy spy(&limit, Processed);

    // Their name order ("edge-10" before "edge-2") is neither the order of their numbers nor the order they come in.
    const int count = 3000;
    QStringList names;
    for (int i = 0; i < count; ++i)
        names.append(QStringLiteral("edge-%1").arg(i));
    std::shuffle(names.begin(), names.end(), std::mt19937(7));

    s_now = Start;
    for (const QString &name : qAsConst(names))
        send(limit, makeItem(ConditionValues, "x", 1), name);
    QCOMPARE(spy.count(), count);
    s_now = Start + 10;
    for (const QString &name : qAsConst(names))
        send(limit, makeItem(ConditionValues, "x", 2), name);
    s_now = Start + 99;
    send(limit, makeItem(ConditionValues, "x", 1), "zz");
    QCOMPARE(spy.count(), count + 1);

    // The first change after the wait time lets every machine's pending entries go, one list each, in name order.
    s_now = Start + 100;
    send(limit, makeItem(ConditionValues, "y", 1), names.first());
    QCOMPARE(spy.count(), 2 * count + 1);
    QStringList sorted = names;
    std::sort(sorted.begin(), sorted.end());
    for (int i = 0; i < count; ++i) {
        const QVariantList &dataset = spy.at(count + 1 + i);
        QCOMPARE(dataset.at(1).toString(), sorted.at(i));
        QCOMPARE(dataset.at(0).toDateTime(), QDateTime::fromMSecsSinceEpoch(Start + 100));
        const Entries expected
            = sorted.at(i) == names.first() ? Entries { { "x", 2 }, { "y", 1 } } : Entries { { "x", 2 } };
        QCOMPARE(entriesOf(ConditionValues, dataset.at(3)), expected);
    }

    // All of them have just sent: a change of one of them waits again.
    s_now = Start + 150;
    send(limit, makeItem(ConditionValues, "x", 3), names.last());
    QCOMPARE(spy.count(), 2 * count + 1);
    s_now = Start + 200;
    send(limit, makeItem(ConditionValues, "x", 2), "zz");
    QCOMPARE(spy.count(), 2 * count + 3);
    QCOMPARE(spy.at(2 * count + 1).at(1).toString(), names.last());
    QCOMPARE(spy.at(2 * count + 2).at(1).toString(), QStringLiteral("zz"));
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::sameItemsWithNewTime()
{
    QFETCH(Kind, kind);

    showDropMessages(false);
    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    const QVariant list = makeList(kind, { { "a", 1 }, { "b", 2 } });
    send(limit, list);
    QCOMPARE(spy.count(), 1);

    // The same items, shared with the list before, with a new time stamp: nothing has changed.
    send(limit, restamped(kind, list));
    QCOMPARE(spy.count(), 1);

    // A single entry in between: the same items again change it back.
    send(limit, makeItem(kind, "a", 5));
    QCOMPARE(spy.count(), 2);
    QCOMPARE(entriesOf(kind, spy.last().at(3)), (Entries { { "a", 5 } }));
    send(limit, restamped(kind, list));
    QCOMPARE(spy.count(), 3);
    QCOMPARE(entriesOf(kind, spy.last().at(3)), (Entries { { "a", 1 } }));
    send(limit, restamped(kind, list));
    QCOMPARE(spy.count(), 3);

    // A list holding an id twice: the items are taken in turn, so the first is a change, and the second is sent.
    const QVariant twice = makeList(kind, { { "a", 3 }, { "b", 2 }, { "a", 1 } });
    send(limit, twice);
    QCOMPARE(spy.count(), 4);
    QCOMPARE(entriesOf(kind, spy.last().at(3)), (Entries { { "a", 1 } }));
    send(limit, restamped(kind, twice));
    QCOMPARE(spy.count(), 5);
    QCOMPARE(entriesOf(kind, spy.last().at(3)), (Entries { { "a", 1 } }));
    send(limit, makeList(kind, { { "b", 2 } }));
    send(limit, restamped(kind, list));
    QCOMPARE(spy.count(), 5);
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::sameItemsWithNaNChangeEachTime()
{
    showDropMessages(false);
    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    ConditionDatasV2 list;
    list.timestamp = nextListTime();
    list.items.append(qvariant_cast<ConditionDataV2>(conditionValueOf("x", 0, 1)));
    list.items.append(conditionValue("y", 1));
    send(limit, QVariant::fromValue(list));
    QCOMPARE(spy.count(), 1);

    // A NaN never equals the stored value, not even itself: it is a change every time the list comes.
    const QVariant again = restamped(ConditionValues, QVariant::fromValue(list));
    send(limit, again);
    QCOMPARE(spy.count(), 2);
    const ConditionDatasV2 sent = qvariant_cast<ConditionDatasV2>(spy.last().at(3));
    QCOMPARE(sent.items.size(), 1);
    QCOMPARE(sent.items.first().id, QStringLiteral("x"));
    QVERIFY(std::isnan(sent.items.first().value.toDouble()));
    const QVariant third = restamped(ConditionValues, again);
    send(limit, third);
    QCOMPARE(spy.count(), 3);
    // The very same dataset again is a repeat, though: the duplicate filter takes a list as equal to itself.
    send(limit, third);
    QCOMPARE(spy.count(), 3);
}

void tst_Limit::entriesLeftOutKeepTheirItems()
{
    QFETCH(Kind, kind);

    showDropMessages(false);
    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    send(limit, makeList(kind, { { "a", 1 }, { "b", 2 }, { "c", 3 } }));
    QCOMPARE(spy.count(), 1);

    // Lists that leave entries out, while the lists their items came in are gone.
    send(limit, makeList(kind, { { "b", 2 } }));
    send(limit, makeList(kind, { { "c", 3 }, { "a", 1 } }));
    send(limit, makeList(kind, {}));
    QCOMPARE(spy.count(), 1);
    send(limit, makeItem(kind, "c", 4));
    QCOMPARE(spy.count(), 2);
    send(limit, makeList(kind, { { "a", 1 }, { "c", 4 } }));
    send(limit, makeList(kind, { { "b", 2 } }));
    QCOMPARE(spy.count(), 2);
    send(limit, makeList(kind, { { "a", 7 }, { "b", 2 }, { "c", 4 } }));
    QCOMPARE(spy.count(), 3);
    QCOMPARE(entriesOf(kind, spy.last().at(3)), (Entries { { "a", 7 } }));
}

void tst_Limit::entryKeepsLatestOfEqualItems()
{
    showDropMessages(false);
    Limit limit;
    configure(limit, 1000);
    limit.setClock(&fakeNow);
    QSignalSpy spy(&limit, Processed);

    s_now = Start;
    ConditionDataV2 value;
    value.id = QStringLiteral("x");
    value.value = 1.0;
    send(limit, QVariant::fromValue(value));
    s_now = Start + 10;
    value.value = 2.0;
    send(limit, QVariant::fromValue(value));
    // Equal for QVariant, which compares doubles with a tolerance, so no change; the entry takes it all the same.
    const double nearly = 2.0 + 4e-15;
    QVERIFY(nearly != 2.0);
    s_now = Start + 20;
    value.value = nearly;
    ConditionDatasV2 list;
    list.timestamp = nextListTime();
    list.items = { value };
    send(limit, QVariant::fromValue(list));
    QCOMPARE(spy.count(), 1);

    s_now = Start + 1100;
    send(limit, QVariant::fromValue(value), "m2");
    QCOMPARE(spy.count(), 3);
    QCOMPARE(spy.at(1).at(1).toString(), QStringLiteral("m1"));
    const ConditionDatasV2 sent = qvariant_cast<ConditionDatasV2>(spy.at(1).at(3));
    QCOMPARE(sent.items.size(), 1);
    QCOMPARE(exact(sent.items.first().value), exact(QVariant(nearly)));

    // Likewise an id that is empty where the stored one is null.
    MaintenanceDatasV1 maintenance;
    maintenance.timestamp = nextListTime();
    maintenance.items = { maintenanceValue(QString(), 1) };
    send(limit, QVariant::fromValue(maintenance), "m3");
    QCOMPARE(spy.count(), 4);
    QVERIFY(qvariant_cast<MaintenanceDatasV1>(spy.last().at(3)).items.first().id.isNull());
    s_now = Start + 2200;
    send(limit, QVariant::fromValue(maintenanceValue(QStringLiteral(""), 2)), "m3");
    QCOMPARE(spy.count(), 5);
    const MaintenanceDatasV1 sentMaintenance = qvariant_cast<MaintenanceDatasV1>(spy.last().at(3));
    QCOMPARE(exact(sentMaintenance.items), exactRecord(maintenanceValue(QStringLiteral(""), 2)).prepend('[') + ']');
}

void tst_Limit::receiverSendsBackWhileFlushing()
{
    for (const bool debug : { false, true }) {
        showDropMessages(debug);
        Limit limit;
        configure(limit, 100);
        limit.setClock(&fakeNow);
        QStringList out;
        bool sentBack = false;
        QObject::connect(&limit, &Limit::dataProcessed,
            [&](const QDateTime &, const QString &machine, const QString &, const QVariant &data) {
                out.append(
                    machine + QLatin1Char(' ') + QString::number(entriesOf(ConditionValues, data).first().second));
                // While m2's second list is being sent, a change of m1, which has just sent.
                if (machine == QLatin1String("m2") && s_now == Start + 150 && !sentBack) {
                    sentBack = true;
                    send(limit, makeItem(ConditionValues, "x", 3), "m1");
                }
            });

        s_now = Start;
        for (const char *machine : { "m1", "m2", "m3" })
            send(limit, makeItem(ConditionValues, "x", 1), machine);
        s_now = Start + 10;
        for (const char *machine : { "m1", "m2", "m3" })
            send(limit, makeItem(ConditionValues, "x", 2), machine);
        // The flush of m9's first entry sends m1 and m2; the one m2's receiver starts finds m1 within its wait time,
        // and sends m3 and m9 before the first goes on, which then finds them within their wait times.
        s_now = Start + 150;
        send(limit, makeItem(ConditionValues, "x", 1), "m9");
        QCOMPARE(out, (QStringList { "m1 1", "m2 1", "m3 1", "m1 2", "m2 2", "m3 2", "m9 1" }));
        s_now = Start + 249;
        send(limit, makeItem(ConditionValues, "x", 1), "m8");
        s_now = Start + 250;
        send(limit, makeItem(ConditionValues, "x", 1), "m7");
        QCOMPARE(out.mid(7), (QStringList { "m8 1", "m1 3", "m7 1" }));
    }
}

void tst_Limit::quickFlushesMatchVisitingEveryMachine_data()
{
    QTest::addColumn<quint32>("wait");
    QTest::addColumn<int>("machines");
    QTest::addColumn<int>("steps");
    QTest::addColumn<bool>("sendsBack");
    QTest::addColumn<bool>("backwards");
    QTest::addColumn<bool>("switchDebug");
    QTest::addColumn<uint>("seed");

    QTest::newRow("wait 0") << 0u << 12 << 1500 << false << false << false << 1u;
    QTest::newRow("wait 50") << 50u << 25 << 4000 << false << false << false << 2u;
    QTest::newRow("long history") << 1000u << 6 << 6000 << false << false << false << 3u;
    QTest::newRow("clock steps back") << 50u << 25 << 3000 << false << true << false << 4u;
    QTest::newRow("receivers send back") << 50u << 25 << 3000 << true << false << false << 5u;
    QTest::newRow("drop messages switched on and off") << 50u << 25 << 3000 << false << false << true << 6u;
    QTest::newRow("all at once") << 80u << 60 << 5000 << true << true << true << 7u;
}

void tst_Limit::quickFlushesMatchVisitingEveryMachine()
{
    QFETCH(quint32, wait);
    QFETCH(int, machines);
    QFETCH(int, steps);
    QFETCH(bool, sendsBack);
    QFETCH(bool, backwards);
    QFETCH(bool, switchDebug);
    QFETCH(uint, seed);

    // Two limiters get the same datasets at the same times. The drop messages are always on for the one, so that it
    // visits every machine in every flush; for the other they are off, or now and then on.
    s_now = Start;
    Twin full(sendsBack, machines);
    Twin quick(sendsBack, machines);
    configure(full.limit, wait);
    configure(quick.limit, wait);
    std::mt19937 random(seed);
    const auto below = [&random](int bound) { return int(random() % uint(bound)); };
    const QStringList ids { "a", "b", "c", "d", "e", "f" };
    const auto valueVariant = [&below]() {
        const int choice = below(20);
        return choice < 16 ? 3 : choice - 16;
    };
    QHash<QString, QVariant> lastLists;
    bool quickDebug = false;
    int sent = 0;
    int logged = 0;

    for (int step = 0; step < steps; ++step) {
        const QString machine = QStringLiteral("m%1").arg(below(machines));
        const Kind kind = Kind(below(4));
        const QString key = machine + QLatin1Char('/') + QString::number(kind);
        const int choice = below(100);
        QVariant data;
        bool flushes = false;
        if (choice < 45) {
            QStringList chosen;
            for (const QString &id : ids) {
                if (below(3) != 0)
                    chosen.append(id);
            }
            if (below(10) < 3)
                std::shuffle(chosen.begin(), chosen.end(), random);
            if (!chosen.isEmpty() && below(20) == 0)
                chosen.append(chosen.first());
            Entries entries;
            for (const QString &id : qAsConst(chosen))
                entries.append({ id, below(4) });
            if (kind == ConditionValues) {
                ConditionDatasV2 list;
                list.timestamp = nextListTime();
                for (const auto &entry : qAsConst(entries))
                    list.items.append(
                        qvariant_cast<ConditionDataV2>(conditionValueOf(entry.first, entry.second, valueVariant())));
                data = QVariant::fromValue(list);
            } else {
                data = makeList(kind, entries);
            }
            lastLists.insert(key, data);
        } else if (choice < 55) {
            if (lastLists.contains(key)) {
                data = restamped(kind, lastLists.value(key));
                lastLists.insert(key, data);
            }
        } else if (choice < 60) {
            data = lastLists.value(key);
        } else if (choice < 75) {
            const QString id = ids.at(below(ids.size()));
            data = kind == ConditionValues ? conditionValueOf(id, below(4), valueVariant())
                                           : makeItem(kind, id, below(4));
        } else if (choice < 80) {
            flushes = true;
        } else if (choice < 95) {
            s_now += below(int(wait / 2) + 2);
        } else if (choice < 97) {
            s_now += qint64(wait) + below(int(wait) + 1);
        } else if (choice < 99) {
            if (backwards)
                s_now -= below(int(wait) + 5);
        } else if (switchDebug) {
            quickDebug = !quickDebug;
        } else if (wait != 0 && below(4) == 0) {
            // A new wait time from here on, for the machines that are waiting as well.
            const quint32 newWait = quint32(below(int(2 * wait) + 1));
            configure(full.limit, newWait);
            configure(quick.limit, newWait);
        }

        const auto apply = [&](Twin &twin) {
            if (data.isValid())
                twin.limit.processData(When, machine, QStringLiteral("s1"), data);
            else if (flushes)
                flush(twin.limit, kind);
        };
        showDropMessages(true);
        m_log.clear();
        apply(full);
        const QStringList fullLog = m_log.lines();
        showDropMessages(quickDebug);
        m_log.clear();
        apply(quick);
        if (quick.out != full.out || (quickDebug && m_log.lines() != fullLog)) {
            QFAIL(qPrintable(QStringLiteral("step %1, %2 of %3: sent %4 and logged %5 where visiting every machine "
                                            "sends %6 and logs %7")
                                 .arg(step)
                                 .arg(machine)
                                 .arg(kind)
                                 .arg(quick.out.join(QLatin1String("; ")), m_log.lines().join(QLatin1String("; ")),
                                     full.out.join(QLatin1String("; ")), fullLog.join(QLatin1String("; ")))));
        }
        sent += full.out.size();
        logged += fullLog.size();
        full.out.clear();
        quick.out.clear();
    }
    // Lists went out, and (with a wait time) lists were held back.
    QVERIFY(sent > steps / 10);
    QVERIFY(wait == 0 || logged > steps / 10);
}
