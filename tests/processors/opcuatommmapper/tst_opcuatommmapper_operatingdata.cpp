#include "tst_opcuatommmapper.h"

void tst_OpcUaToMMMapper::operatingData_data()
{
    QTest::addColumn<uint>("machineState");
    QTest::addColumn<QString>("values");
    QTest::addColumn<bool>("emitted");
    QTest::addColumn<double>("powerOnHours");
    QTest::addColumn<double>("feedOnHours");
    QTest::addColumn<qulonglong>("pieces");
    QTest::addColumn<double>("length");
    QTest::addColumn<QStringList>("warnings");

    const QString all = "AbsolutePowerPresentTime=7200000 AbsoluteProductionTime=3600000 "
                        "AbsoluteProductionWithoutWorkpieceTime=1800000 AbsolutePiecesOut=42 AbsoluteLength=1999";
    const QString power = "AbsolutePowerPresentTime is not set";
    const QString feed = "Missing values for FeedOnHours";
    const QString pieces = "AbsolutePiecesOut is not set";
    const QString length = "AbsoluteLength is not set";
    const quint64 max = std::numeric_limits<quint64>::max();

    QTest::newRow("offline") << 0u << all << false << 0.0 << 0.0 << 0ull << 0.0 << QStringList();
    QTest::newRow("offline, no values") << 0u << "none" << false << 0.0 << 0.0 << 0ull << 0.0 << QStringList();
    QTest::newRow("offline, empty values") << 0u << "" << false << 0.0 << 0.0 << 0ull << 0.0 << QStringList();
    QTest::newRow("no values") << 2u << "none" << false << 0.0 << 0.0 << 0ull << 0.0
                               << QStringList { "Values are not availabe, unable to calculate GeneralV1" };
    QTest::newRow("all present") << 2u << all << true << 2.0 << 1.5 << 42ull << 1.0 << QStringList();
    QTest::newRow("state 1") << 1u << all << true << 2.0 << 1.5 << 42ull << 1.0 << QStringList();
    QTest::newRow("state 3") << 3u << all << true << 2.0 << 1.5 << 42ull << 1.0 << QStringList();
    QTest::newRow("state 4") << 4u << all << true << 2.0 << 1.5 << 42ull << 1.0 << QStringList();
    QTest::newRow("state 9") << 9u << all << true << 2.0 << 1.5 << 42ull << 1.0 << QStringList();
    QTest::newRow("none of the five") << 2u << "" << true << 0.0 << 0.0 << 0ull << 0.0
                                      << QStringList { power, feed, pieces, length };
    QTest::newRow("only relative counters")
        << 2u
        << "RelativePowerPresentTime=7200000 RelativeProductionTime=3600000 "
           "RelativeProductionWithoutWorkpieceTime=1 RelativePiecesOut=4 RelativeLength=5000"
        << true << 0.0 << 0.0 << 0ull << 0.0 << QStringList { power, feed, pieces, length };
    QTest::newRow("power 7200000") << 2u << "AbsolutePowerPresentTime=7200000" << true << 2.0 << 0.0 << 0ull << 0.0
                                   << QStringList { feed, pieces, length };
    QTest::newRow("power fraction") << 2u << "AbsolutePowerPresentTime=5400000" << true << 1.5 << 0.0 << 0ull << 0.0
                                    << QStringList { feed, pieces, length };
    QTest::newRow("power largest") << 2u << QString("AbsolutePowerPresentTime=%1").arg(max) << true
                                   << double(max) / 3600000.0 << 0.0 << 0ull << 0.0
                                   << QStringList { feed, pieces, length };
    QTest::newRow("feed sum") << 2u << "AbsoluteProductionTime=3600000 AbsoluteProductionWithoutWorkpieceTime=1800000"
                              << true << 0.0 << 1.5 << 0ull << 0.0 << QStringList { power, pieces, length };
    QTest::newRow("feed without second addend") << 2u << "AbsoluteProductionTime=3600000" << true << 0.0 << 0.0 << 0ull
                                                << 0.0 << QStringList { power, feed, pieces, length };
    QTest::newRow("feed without first addend") << 2u << "AbsoluteProductionWithoutWorkpieceTime=3600000" << true << 0.0
                                               << 0.0 << 0ull << 0.0 << QStringList { power, feed, pieces, length };
    QTest::newRow("feed ignores waiting") << 2u
                                          << "AbsoluteProductionTime=3600000 AbsoluteProductionWithoutWorkpieceTime=0 "
                                             "AbsoluteProductionWaitWorkpieceTime=3600000"
                                          << true << 0.0 << 1.0 << 0ull << 0.0 << QStringList { power, pieces, length };
    QTest::newRow("feed wraps")
        << 2u << QString("AbsoluteProductionTime=%1 AbsoluteProductionWithoutWorkpieceTime=3600001").arg(max) << true
        << 0.0 << 1.0 << 0ull << 0.0 << QStringList { power, pieces, length };
    QTest::newRow("pieces") << 2u << "AbsolutePiecesOut=12345678901234" << true << 0.0 << 0.0 << 12345678901234ull
                            << 0.0 << QStringList { power, feed, length };
    QTest::newRow("pieces largest") << 2u << QString("AbsolutePiecesOut=%1").arg(max) << true << 0.0 << 0.0
                                    << qulonglong(max) << 0.0 << QStringList { power, feed, length };
    QTest::newRow("length 1999") << 2u << "AbsoluteLength=1999" << true << 0.0 << 0.0 << 0ull << 1.0
                                 << QStringList { power, feed, pieces };
    QTest::newRow("length 999") << 2u << "AbsoluteLength=999" << true << 0.0 << 0.0 << 0ull << 0.0
                                << QStringList { power, feed, pieces };
    QTest::newRow("length 2000") << 2u << "AbsoluteLength=2000" << true << 0.0 << 0.0 << 0ull << 2.0
                                 << QStringList { power, feed, pieces };
    QTest::newRow("length largest") << 2u << QString("AbsoluteLength=%1").arg(max) << true << 0.0 << 0.0 << 0ull
                                    << double(max / 1000u) << QStringList { power, feed, pieces };
}

void tst_OpcUaToMMMapper::operatingData()
{
    QFETCH(uint, machineState);
    QFETCH(QString, values);
    QFETCH(bool, emitted);
    QFETCH(double, powerOnHours);
    QFETCH(double, feedOnHours);
    QFETCH(qulonglong, pieces);
    QFETCH(double, length);
    QFETCH(QStringList, warnings);

    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(
        s_when, "m1", "s1", QVariant::fromValue(makeState(machineState, 0, allFlagsFalse(), valuesFrom(values))));
    QStringList expectedWarnings;
    for (const QString &warning : qAsConst(warnings))
        expectedWarnings.append(m_log.warning(warning));
    QCOMPARE(m_log.ofComponent("WARNING"), expectedWarnings);

    const QStringList types = typeNames(spy);
    QCOMPARE(types.count("GeneralV1"), emitted ? 1 : 0);
    if (!emitted)
        return;
    // Right after the state.
    QCOMPARE(types.indexOf("GeneralV1"), 1);
    const QList<QVariant> arguments = spy.at(1);
    QCOMPARE(arguments.at(0).toDateTime(), s_when);
    QCOMPARE(arguments.at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(arguments.at(2).toString(), QStringLiteral("s1"));
    const GeneralV1 general = qvariant_cast<GeneralV1>(arguments.at(3));
    QCOMPARE(general.powerOnHours, powerOnHours);
    QCOMPARE(general.feedOnHours, feedOnHours);
    QCOMPARE(general.pieces, quint64(pieces));
    QCOMPARE(general.length, length);
    QCOMPARE(general.counter5, 0);
    QCOMPARE(general.counter6, 0);
}
