#include "limit.h"
#include "listhandover.h"
#include "mmdatasets.h"
#include "opcuatommmapper.h"
#include "wwstate.h"

#include <QtTest>

namespace {

const QDateTime When = QDateTime::fromMSecsSinceEpoch(1614585600000, Qt::UTC);
// Every change leaves at once.
const QVariantMap LimitConfig { { "limit", QVariantMap { { "waitTime", 0 }, { "keepAliveTime", 0 } } } };

/** A running machine with the values of its operating data; pieces tells one update from the next. */
WwState running(quint32 pieces)
{
    WwState state;
    state.MachineState = WwState::Working;
    state.OperationMode = WwState::Automatic;
    WwStateFlags flags;
    flags.MachineOn = true;
    state.Flags = flags;
    WwStateValues values;
    values.AbsolutePowerPresentTime = 1000;
    values.AbsoluteProductionTime = 1000;
    values.AbsoluteProductionWithoutWorkpieceTime = 1000;
    values.AbsoluteLength = 1000;
    values.AbsolutePiecesOut = pieces;
    state.Values = values;
    return state;
}

} // namespace

/**
 * The hand-over of condition value lists between the mapper, which sends a list again and writes its changes into the
 * list before the last, and Limit, which keeps the last list it took and lets go of the one before.
 */
class tst_ListHandover : public QObject
{
    Q_OBJECT

private slots:
    void sameListSharesItems();
    void writableOnceNoOneElseHoldsIt();
    void limitLetsGoOfTheListBeforeTheLast();
    void aReceiverThatHoldsEveryListMakesTheMapperCopy();
    void limitKnowsTheSameListAgain();

private:
    /** The address of the first item of every ConditionDatasV2 the mapper sends, without keeping the lists. */
    void recordLists(OpcUaToMMMapper &mapper, QVector<const void *> &firstItems);
};

void tst_ListHandover::recordLists(OpcUaToMMMapper &mapper, QVector<const void *> &firstItems)
{
    connect(&mapper, &OpcUaToMMMapper::dataProcessed, this,
        [&firstItems](const QDateTime &, const QString &, const QString &, const QVariant &data) {
            if (data.userType() == qMetaTypeId<ConditionDatasV2>())
                firstItems.append(&static_cast<const ConditionDatasV2 *>(data.constData())->items.constFirst());
        });
}

void tst_ListHandover::sameListSharesItems()
{
    ConditionDataV2 item;
    item.id = QStringLiteral("m1/State/Machine/Values/AbsolutePiecesOut");
    item.value = 1;
    const QList<ConditionDataV2> list { item };
    const QList<ConditionDataV2> copy = list;
    const QList<ConditionDataV2> equal { item };
    QVERIFY(ListHandover::sameList(list, copy));
    QVERIFY(!ListHandover::sameList(list, equal));
    QVERIFY(!ListHandover::sameList(QList<ConditionDataV2>(), QList<ConditionDataV2>()));
}

void tst_ListHandover::writableOnceNoOneElseHoldsIt()
{
    QList<ConditionDataV2> list { ConditionDataV2() };
    QVERIFY(ListHandover::writableAgain(list));
    {
        const QList<ConditionDataV2> held = list;
        QVERIFY(!ListHandover::writableAgain(list));
    }
    QVERIFY(ListHandover::writableAgain(list));
}

void tst_ListHandover::limitLetsGoOfTheListBeforeTheLast()
{
    OpcUaToMMMapper mapper;
    Limit limit;
    QVariantMap shared;
    limit.init(LimitConfig, shared);
    connect(&mapper, &OpcUaToMMMapper::dataProcessed, &limit, &Limit::processData);
    QVector<const void *> firstItems;
    recordLists(mapper, firstItems);

    for (quint32 pieces = 1; pieces <= 4; ++pieces)
        mapper.processData(When, "m1", "s1", QVariant::fromValue(running(pieces)));
    QCOMPARE(firstItems.size(), 4);
    // The second update is copied from the first, which Limit held; from then on the two lists take turns.
    QVERIFY(firstItems.at(1) != firstItems.at(0));
    QCOMPARE(firstItems.at(2), firstItems.at(0));
    QCOMPARE(firstItems.at(3), firstItems.at(1));
}

void tst_ListHandover::aReceiverThatHoldsEveryListMakesTheMapperCopy()
{
    OpcUaToMMMapper mapper;
    QVariantList held;
    connect(&mapper, &OpcUaToMMMapper::dataProcessed, this,
        [&held](const QDateTime &, const QString &, const QString &, const QVariant &data) { held.append(data); });
    QVector<const void *> firstItems;
    recordLists(mapper, firstItems);

    for (quint32 pieces = 1; pieces <= 3; ++pieces)
        mapper.processData(When, "m1", "s1", QVariant::fromValue(running(pieces)));
    QCOMPARE(firstItems.size(), 3);
    QVERIFY(firstItems.at(2) != firstItems.at(0));
    QVERIFY(firstItems.at(2) != firstItems.at(1));
    // What went out stays as it was sent.
    QCOMPARE(qvariant_cast<ConditionDatasV2>(held.last()).items.size(),
        qvariant_cast<ConditionDatasV2>(held.at(held.size() - 4)).items.size());
}

void tst_ListHandover::limitKnowsTheSameListAgain()
{
    OpcUaToMMMapper mapper;
    Limit limit;
    QVariantMap shared;
    limit.init(LimitConfig, shared);
    connect(&mapper, &OpcUaToMMMapper::dataProcessed, &limit, &Limit::processData);
    QVector<const void *> firstItems;
    recordLists(mapper, firstItems);
    QSignalSpy out(&limit, &Limit::dataProcessed);

    mapper.processData(When, "m1", "s1", QVariant::fromValue(running(1)));
    mapper.processData(When.addSecs(1), "m1", "s1", QVariant::fromValue(running(1)));
    QCOMPARE(firstItems.size(), 2);
    // Nothing changed: the same list again, which Limit takes as a repeat.
    QCOMPARE(firstItems.at(1), firstItems.at(0));
    int lists = 0;
    for (const QList<QVariant> &arguments : qAsConst(out))
        lists += arguments.at(3).userType() == qMetaTypeId<ConditionDatasV2>() ? 1 : 0;
    QCOMPARE(lists, 1);
}

QTEST_GUILESS_MAIN(tst_ListHandover)
#include "tst_listhandover.moc"
