#include "tst_limit.h"

void tst_Limit::operatingDataLeavesWithTimer()
{
    Limit limit;
    configure(limit, 30);
    QSignalSpy spy(&limit, Processed);

    send(limit, QVariant::fromValue(general(7)));
    QCOMPARE(spy.count(), 0);
    const QDateTime before = QDateTime::currentDateTime();
    QTRY_COMPARE_WITH_TIMEOUT(spy.count(), 1, 2000);
    QCOMPARE(spy.first().at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(spy.first().at(2).toString(), QStringLiteral("Limiter"));
    QVERIFY(spy.first().at(0).toDateTime() >= before.addMSecs(-1));
    QCOMPARE(QString::fromLatin1(spy.first().at(3).typeName()), QStringLiteral("GeneralV1"));
    QCOMPARE(qvariant_cast<GeneralV1>(spy.first().at(3)), general(7));

    // Sent once: the same data again is a repeat, and nothing is pending for the next ticks.
    send(limit, QVariant::fromValue(general(7)));
    QTest::qWait(100);
    QCOMPARE(spy.count(), 1);

    send(limit, QVariant::fromValue(general(8)));
    QTRY_COMPARE_WITH_TIMEOUT(spy.count(), 2, 2000);
    QCOMPARE(qvariant_cast<GeneralV1>(spy.last().at(3)), general(8));
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::operatingDataLatestAndInMachineOrder()
{
    Limit limit;
    configure(limit, 40);
    QSignalSpy spy(&limit, Processed);

    // All of these come in before the next tick.
    send(limit, QVariant::fromValue(general(1)), "m2");
    send(limit, QVariant::fromValue(general(2)), "m2");
    send(limit, QVariant::fromValue(general(3)), "m10");
    send(limit, QVariant::fromValue(GeneralV1()), "m1");
    send(limit, QVariant::fromValue(general(4)), "b");
    QCOMPARE(spy.count(), 0);

    QTRY_COMPARE_WITH_TIMEOUT(spy.count(), 4, 2000);
    QStringList machines;
    for (const QVariantList &dataset : qAsConst(spy))
        machines.append(dataset.at(1).toString());
    QCOMPARE(machines, (QStringList { "b", "m1", "m10", "m2" }));
    QCOMPARE(qvariant_cast<GeneralV1>(spy.at(1).at(3)), GeneralV1());
    QCOMPARE(qvariant_cast<GeneralV1>(spy.at(3).at(3)), general(2));
    // One tick sends them all at one time.
    QCOMPARE(spy.at(0).at(0).toDateTime(), spy.at(3).at(0).toDateTime());
}

void tst_Limit::operatingDataWithoutTimer()
{
    Limit limit;
    QVariantMap shared;
    limit.init(QVariantMap(), shared);
    QSignalSpy spy(&limit, Processed);

    send(limit, QVariant::fromValue(general(1)));
    send(limit, QVariant::fromValue(general(2)), "m2");
    QTest::qWait(50);
    QCOMPARE(spy.count(), 0);

    // The slot itself sends what is pending, once.
    limit.doOperatingData();
    QCOMPARE(spy.count(), 2);
    QCOMPARE(spy.at(0).at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(spy.at(1).at(2).toString(), QStringLiteral("Limiter"));
    limit.doOperatingData();
    QCOMPARE(spy.count(), 2);
}
