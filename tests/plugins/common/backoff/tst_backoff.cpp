#include "backoff.h"

#include <QSet>
#include <QtTest>

class tst_Backoff : public QObject
{
    Q_OBJECT

private slots:
    void base_data();
    void base();
    void pausesAreUpToAQuarterShorter();
    void nextDoublesAndResetStartsAgain();
    void rangeIsSane();
};

void tst_Backoff::base_data()
{
    QTest::addColumn<int>("failures");
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("longest");
    QTest::addColumn<int>("base");
    QTest::newRow("first") << 1 << 1000 << 60000 << 1000;
    QTest::newRow("second doubles") << 2 << 1000 << 60000 << 2000;
    QTest::newRow("sixth") << 6 << 1000 << 60000 << 32000;
    QTest::newRow("seventh reaches the longest") << 7 << 1000 << 60000 << 60000;
    QTest::newRow("stays at the longest") << 500 << 1000 << 60000 << 60000;
    QTest::newRow("short for tests") << 3 << 100 << 300 << 300;
}

void tst_Backoff::base()
{
    QFETCH(int, failures);
    QFETCH(int, first);
    QFETCH(int, longest);
    QFETCH(int, base);
    QCOMPARE(Backoff::base(failures, first, longest), base);
}

void tst_Backoff::pausesAreUpToAQuarterShorter()
{
    QSet<int> seen;
    for (int i = 0; i < 500; ++i) {
        const int pause = Backoff::jittered(60000);
        // Never longer than the longest pause, never more than a quarter shorter.
        QVERIFY2(pause >= 45000 && pause <= 60000, qPrintable(QString::number(pause)));
        seen.insert(pause);
    }
    QVERIFY2(seen.size() > 50, "no jitter");
    QCOMPARE(Backoff::jittered(3), 3);
}

void tst_Backoff::nextDoublesAndResetStartsAgain()
{
    Backoff backoff(100, 400);
    const int expected[] = { 100, 200, 400, 400, 400 };
    for (int base : expected) {
        const int pause = backoff.next();
        QVERIFY2(pause >= base - base / 4 && pause <= base, qPrintable(QString::number(pause)));
    }
    QCOMPARE(backoff.failures(), 5);
    backoff.reset();
    QCOMPARE(backoff.failures(), 0);
    QVERIFY(backoff.next() <= 100);
}

void tst_Backoff::rangeIsSane()
{
    Backoff backoff(0, -5);
    QCOMPARE(backoff.first(), 1);
    QCOMPARE(backoff.longest(), 1);
    backoff.setRange(500, 100);
    QCOMPARE(backoff.longest(), 500);
}

QTEST_GUILESS_MAIN(tst_Backoff)
#include "tst_backoff.moc"
