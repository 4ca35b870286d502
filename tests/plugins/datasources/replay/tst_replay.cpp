#include "replay.h"

#include "datasetcodec.h"
#include "logcapture.h"
#include "mmdatasets.h"
#include "pluginchecks.h"
#include "testsupport.h"
#include "wwtypes.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace TestSupport;

namespace {

const char *const Received = SIGNAL(dataReceived(QDateTime, QString, QString, QVariant));

const QByteArray StateLine = R"({"timestamp":"2021-03-01T08:00:00.250Z","machine":"m1","source":"opcua",)"
                             R"("type":"StateV1","data":{"state":3}})";
const QByteArray WwStateLine = R"({"timestamp":"2021-03-01T08:00:01.000Z","machine":"m2","source":"opcua",)"
                               R"("type":"WwState","data":{"MachineState":3,"OperationMode":1,)"
                               R"("Flags":{"MachineOn":true,"FeedRuns":true},"Values":{"AbsolutePiecesOut":15230}}})";
const QByteArray EventLine = R"({"timestamp":"2021-03-01T08:00:02.000+01:00","machine":"m1","source":"opcua",)"
                             R"("type":"WwBaseEventType","data":{"Message":"Door open","Id":"4711","Category":3,)"
                             R"("Texts":{"en":"Door open"},"Path":["Unit1","Spindle"]}})";

QByteArray stateLine(int code, const QString &extra = QString())
{
    return QStringLiteral(R"({"timestamp":"2021-03-01T08:00:00.000Z","machine":"m1","source":"s",)"
                          R"("type":"StateV1","data":{"state":%1}%2})")
        .arg(code)
        .arg(extra)
        .toUtf8();
}

/** The received dataset in the codec's form, so that a comparison shows what differs. */
QByteArray receivedLine(const QList<QVariant> &arguments)
{
    return DatasetCodec::encodeLine(
        arguments.at(0).toDateTime(), arguments.at(1).toString(), arguments.at(2).toString(), arguments.at(3));
}

QByteArray recoded(const QByteArray &line)
{
    DatasetCodec::Dataset dataset;
    if (!DatasetCodec::decodeLine(line, &dataset))
        return "not a dataset: " + line;
    return DatasetCodec::encodeLine(dataset.timestamp, dataset.machine, dataset.source, dataset.data);
}

QString decoderError(const QByteArray &line)
{
    DatasetCodec::Dataset dataset;
    QString error;
    DatasetCodec::decodeLine(line, &dataset, &error);
    return error;
}

} // namespace

class tst_Replay : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void metadata();
    void sampleIniDocumentsEverySetting();
    void readmeQuotesSampleIni();
    void readmeListsEveryKey();
    void sendsEveryLineInFileOrder();
    void nothingBeforeTheEventLoop();
    void boundedBatchPerTurnOfTheEventLoop();
    void pauseEndsTheTurn();
    void intervalBetweenDatasets();
    void lineDelayReplacesInterval();
    void loopStartsAgain();
    void missingTimestampIsNow_data();
    void missingTimestampIsNow();
    void badLinesAreSkipped_data();
    void badLinesAreSkipped();
    void longLinesAreSkipped();
    void fileWithoutDatasetIsNotLooped();
    void missingFile();
    void noFileSet_data();
    void noFileSet();
    void invalidSettings_data();
    void invalidSettings();

private:
    QString write(const QByteArray &content);
    bool start(Replay &replay, const QString &path, const QVariantMap &more = QVariantMap());

    QTemporaryDir m_dir;
    LogCapture m_log { QStringLiteral("replay") };
};

void tst_Replay::init()
{
    m_log.start();
}

void tst_Replay::cleanup()
{
    m_log.stop();
}

QString tst_Replay::write(const QByteArray &content)
{
    static int files = 0;
    const QString path = m_dir.filePath(QStringLiteral("replay%1.jsonl").arg(++files));
    writeFile(path, content);
    return path;
}

bool tst_Replay::start(Replay &replay, const QString &path, const QVariantMap &more)
{
    QVariantMap group = more;
    group.insert("file", path);
    QVariantMap shared;
    return replay.init(QVariantMap { { "replay", group } }, shared);
}

void tst_Replay::metadata()
{
    PluginChecks::checkDatasourceLibrary("replay", "replay");
}

void tst_Replay::sampleIniDocumentsEverySetting()
{
    PluginChecks::checkSampleIni("datasources/replay", "replay", Replay::settings().keys());
}

void tst_Replay::readmeQuotesSampleIni()
{
    PluginChecks::checkReadmeQuotesSampleIni("datasources/replay");
}

void tst_Replay::readmeListsEveryKey()
{
    PluginChecks::checkReadmeKeyTable("datasources/replay", Replay::settings().keys());
}

void tst_Replay::sendsEveryLineInFileOrder()
{
    const QString path = write(StateLine + "\n" + WwStateLine + "\r\n\n   \n" + EventLine);
    Replay replay;
    QSignalSpy spy(&replay, Received);
    QVERIFY(start(replay, path));
    QTRY_COMPARE(spy.count(), 3);

    QCOMPARE(receivedLine(spy.at(0)), recoded(StateLine));
    QCOMPARE(receivedLine(spy.at(1)), recoded(WwStateLine));
    QCOMPARE(receivedLine(spy.at(2)), recoded(EventLine));
    QCOMPARE(spy.at(1).at(3).typeName(), "WwState");
    QCOMPARE(qvariant_cast<WwState>(spy.at(1).at(3)).Values->AbsolutePiecesOut, quint64(15230));
    QCOMPARE(spy.at(2).at(0).toDateTime(), QDateTime::fromString("2021-03-01T08:00:02.000+01:00", Qt::ISODateWithMs));
    QCOMPARE(m_log.lines(),
        (QStringList {
            m_log.info("Replaying " + path), m_log.info("Finished replaying " + path + ", datasets sent: 3") }));

    // Once finished, nothing more comes.
    QTest::qWait(20);
    QCOMPARE(spy.count(), 3);
}

void tst_Replay::nothingBeforeTheEventLoop()
{
    Replay replay;
    QSignalSpy spy(&replay, Received);
    QVERIFY(start(replay, write(StateLine + "\n")));
    QCOMPARE(spy.count(), 0);
    QVERIFY(spy.wait(1000));
}

void tst_Replay::boundedBatchPerTurnOfTheEventLoop()
{
    QByteArray content;
    for (int code = 1; code <= 1000; ++code)
        content += stateLine(code % 7 + 1) + '\n';
    Replay replay;
    QSignalSpy spy(&replay, Received);
    int countWhenOtherTimerRan = -1;
    connect(&replay, &Replay::dataReceived, this, [&] {
        if (spy.count() == 1)
            QTimer::singleShot(0, this, [&] { countWhenOtherTimerRan = spy.count(); });
    });
    QVERIFY(start(replay, write(content)));

    QCoreApplication::processEvents();
    // Several datasets go in one turn, 256 at most.
    QVERIFY2(spy.count() > 1 && spy.count() <= 256, qPrintable(QString::number(spy.count())));
    QTRY_COMPARE(spy.count(), 1000);
    // A timer started after the first dataset ran long before the last one: the replay never held the loop.
    QVERIFY(countWhenOtherTimerRan > 0);
    QVERIFY2(countWhenOtherTimerRan <= 512, qPrintable(QString::number(countWhenOtherTimerRan)));
}

void tst_Replay::pauseEndsTheTurn()
{
    // A line's own pause ends the turn: the datasets before it go in one turn, the line waits for its pause.
    Replay replay;
    QSignalSpy spy(&replay, Received);
    QVERIFY(start(replay,
        write(stateLine(1) + "\n" + stateLine(2) + "\n" + stateLine(3, R"(,"delayMs":200)") + "\n" + stateLine(4)
            + "\n")));
    QCoreApplication::processEvents();
    QCOMPARE(spy.count(), 2);
    QTest::qWait(100);
    QCOMPARE(spy.count(), 2);
    QTRY_COMPARE(spy.count(), 4);
}

void tst_Replay::intervalBetweenDatasets()
{
    Replay replay;
    QSignalSpy spy(&replay, Received);
    QElapsedTimer clock;
    QList<qint64> times;
    connect(&replay, &Replay::dataReceived, this, [&] { times.append(clock.elapsed()); });
    clock.start();
    QVERIFY(start(
        replay, write(stateLine(1) + "\n" + stateLine(2) + "\n" + stateLine(3) + "\n"), { { "interval", "300" } }));
    QTRY_COMPARE(spy.count(), 3);
    // The first goes out at once; the interval lies between two.
    QVERIFY2(times.at(0) < 250, qPrintable(QString::number(times.at(0))));
    QVERIFY2(times.at(1) - times.at(0) >= 300, qPrintable(QString::number(times.at(1) - times.at(0))));
    QVERIFY2(times.at(2) - times.at(1) >= 300, qPrintable(QString::number(times.at(2) - times.at(1))));
}

void tst_Replay::lineDelayReplacesInterval()
{
    Replay replay;
    QSignalSpy spy(&replay, Received);
    QElapsedTimer clock;
    QList<qint64> times;
    connect(&replay, &Replay::dataReceived, this, [&] { times.append(clock.elapsed()); });
    clock.start();
    QVERIFY(start(replay,
        write(stateLine(1, R"(,"delayMs":80)") + "\n" + stateLine(2, R"(,"delayMs":0)") + "\n" + stateLine(3) + "\n"
            + stateLine(4, R"(,"delayMs":70.5)") + "\n"),
        { { "interval", "1000" } }));
    QTRY_COMPARE(spy.count(), 2);
    // The first line's own pause comes before it; the second's is 0 instead of the interval.
    QVERIFY2(times.at(0) >= 80, qPrintable(QString::number(times.at(0))));
    QVERIFY2(times.at(1) - times.at(0) < 500, qPrintable(QString::number(times.at(1) - times.at(0))));
    // The third has none, so the interval holds it back.
    QTest::qWait(300);
    QCOMPARE(spy.count(), 2);
    QTRY_COMPARE_WITH_TIMEOUT(spy.count(), 4, 5000);
    QVERIFY2(times.at(2) - times.at(1) >= 1000, qPrintable(QString::number(times.at(2) - times.at(1))));
    QVERIFY2(times.at(3) - times.at(2) >= 70, qPrintable(QString::number(times.at(3) - times.at(2))));
    QVERIFY2(times.at(3) - times.at(2) < 900, qPrintable(QString::number(times.at(3) - times.at(2))));
    QCOMPARE(spy.at(3).at(3).value<StateV1>().state, 4);
}

void tst_Replay::loopStartsAgain()
{
    const QString path = write(stateLine(1) + "\n" + stateLine(2) + "\n");
    Replay replay;
    QSignalSpy spy(&replay, Received);
    QVERIFY(start(replay, path, { { "loop", "true" } }));
    QTRY_VERIFY(spy.count() >= 7);
    for (int index = 0; index < 7; ++index)
        QCOMPARE(spy.at(index).at(3).value<StateV1>().state, index % 2 + 1);
    QCOMPARE(m_log.lines(), QStringList { m_log.info("Replaying " + path) });
}

void tst_Replay::missingTimestampIsNow_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::newRow("null") << QByteArray(R"({"timestamp":null,"machine":"m1","source":"s","type":"StateV1",)"
                                        R"("data":{"state":2}})");
    QTest::newRow("missing") << QByteArray(R"({"machine":"m1","source":"s","type":"StateV1","data":{"state":2}})");
}

void tst_Replay::missingTimestampIsNow()
{
    QFETCH(QByteArray, line);
    Replay replay;
    QSignalSpy spy(&replay, Received);
    const QDateTime before = QDateTime::currentDateTimeUtc();
    QVERIFY(start(replay, write(line)));
    QVERIFY(spy.wait(1000));
    const QDateTime timestamp = spy.at(0).at(0).toDateTime();
    QVERIFY(timestamp >= before);
    QVERIFY(timestamp <= QDateTime::currentDateTimeUtc());
    QCOMPARE(spy.at(0).at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(spy.at(0).at(3).value<StateV1>().state, 2);
}

void tst_Replay::badLinesAreSkipped_data()
{
    QTest::addColumn<QByteArray>("bad");
    QTest::addColumn<QString>("reason");
    const QByteArray wrongField = R"({"machine":"m1","type":"StateV1","data":{"state":"three"}})";
    const QByteArray unknownType = R"({"machine":"m1","type":"StateV9","data":{}})";
    QTest::newRow("not JSON") << QByteArray("{not json") << decoderError("{not json");
    QTest::newRow("not an object") << QByteArray("[1,2]") << decoderError("[1,2]");
    QTest::newRow("wrong field") << wrongField << decoderError(wrongField);
    QTest::newRow("unknown type") << unknownType << decoderError(unknownType);
    const QString delayReason
        = QStringLiteral("field \"delayMs\" must be a number of milliseconds from 0 to 2147483647");
    QTest::newRow("delay as text") << stateLine(5, R"(,"delayMs":"10")") << delayReason;
    QTest::newRow("negative delay") << stateLine(5, R"(,"delayMs":-1)") << delayReason;
    QTest::newRow("huge delay") << stateLine(5, R"(,"delayMs":1e12)") << delayReason;
    // The strict check refuses a repeated key before anything is read.
    QTest::newRow("duplicate key") << QByteArray(R"({"type":"StateV1","data":{"state":5},"data":{"state":6}})")
                                   << QStringLiteral("duplicate key \"data\"");
    QTest::newRow("invalid escape") << QByteArray(R"({"machine":"m\q","type":"StateV1","data":{"state":5}})")
                                    << QStringLiteral("the line is not valid JSON: an invalid escape at offset 13");
}

void tst_Replay::longLinesAreSkipped()
{
    // A line longer than maxLineBytes is skipped without being read whole; the lines around it come through.
    const QByteArray longLine = R"({"type":"SwVerV1","data":{"version":")" + QByteArray(300000, 'x') + R"("}})";
    const QString path = write(stateLine(1) + "\n" + longLine + "\n" + stateLine(2) + "\n");
    Replay replay;
    QSignalSpy spy(&replay, Received);
    QVERIFY(start(replay, path, { { "maxLineBytes", "2048" } }));
    QTRY_COMPARE(spy.count(), 2);
    QCOMPARE(spy.at(1).at(3).value<StateV1>().state, 2);
    QTRY_COMPARE(m_log.lines().size(), 3);
    QCOMPARE(m_log.lines().at(1),
        m_log.warning(QStringLiteral("Skipping line 2 of %1: the line is longer than 2048 bytes").arg(path)));
}

void tst_Replay::badLinesAreSkipped()
{
    QFETCH(QByteArray, bad);
    QFETCH(QString, reason);
    QVERIFY(!reason.isEmpty());
    const QString path = write(stateLine(1) + "\n\n" + bad + "\n" + stateLine(2) + "\n");
    Replay replay;
    QSignalSpy spy(&replay, Received);
    QVERIFY(start(replay, path));
    QTRY_COMPARE(spy.count(), 2);
    QCOMPARE(spy.at(0).at(3).value<StateV1>().state, 1);
    QCOMPARE(spy.at(1).at(3).value<StateV1>().state, 2);
    QTRY_COMPARE(m_log.lines().size(), 3);
    // Blank lines count: the bad one is the third line of the file.
    QCOMPARE(m_log.lines(),
        (QStringList { m_log.info("Replaying " + path),
            m_log.warning(QStringLiteral("Skipping line 3 of %1: %2").arg(path, reason)),
            m_log.info("Finished replaying " + path + ", datasets sent: 2") }));
}

void tst_Replay::fileWithoutDatasetIsNotLooped()
{
    const QString path = write("{bad\n[]\n");
    Replay replay;
    QSignalSpy spy(&replay, Received);
    QVERIFY(start(replay, path, { { "loop", "yes" } }));
    QCOMPARE(m_log.lines(),
        (QStringList { m_log.info("Replaying " + path),
            m_log.warning(QStringLiteral("Skipping line 1 of %1: %2").arg(path, decoderError("{bad"))),
            m_log.warning(QStringLiteral("Skipping line 2 of %1: %2").arg(path, decoderError("[]"))),
            m_log.warning("No dataset in " + path + ", not replaying it again") }));
    QTest::qWait(20);
    QCOMPARE(spy.count(), 0);
    QCOMPARE(m_log.lines().size(), 4);
}

void tst_Replay::missingFile()
{
    const QString path = m_dir.filePath("missing.jsonl");
    Replay replay;
    QVERIFY(!start(replay, path));
    QCOMPARE(m_log.lines(), QStringList { m_log.warning("Can't open " + path + ": No such file or directory") });
}

void tst_Replay::noFileSet_data()
{
    QTest::addColumn<QVariantMap>("configuration");
    QTest::newRow("no group") << QVariantMap();
    QTest::newRow("no key") << QVariantMap { { "replay", QVariantMap { { "loop", "true" } } } };
    QTest::newRow("empty") << QVariantMap { { "replay", QVariantMap { { "file", "" } } } };
}

void tst_Replay::noFileSet()
{
    QFETCH(QVariantMap, configuration);
    Replay replay;
    QVariantMap shared;
    QVERIFY(!replay.init(configuration, shared));
    QCOMPARE(m_log.lines(), QStringList { m_log.warning("No file to replay: set file in the group replay") });
}

void tst_Replay::invalidSettings_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("message");
    QTest::newRow("interval text") << "interval"
                                   << "soon"
                                   << "Value soon of interval is not valid, using 0";
    QTest::newRow("interval negative") << "interval"
                                       << "-5"
                                       << "Value -5 of interval is not valid, using 0";
    QTest::newRow("loop") << "loop"
                          << "maybe"
                          << "Value maybe of loop is not valid, using false";
}

void tst_Replay::invalidSettings()
{
    QFETCH(QString, key);
    QFETCH(QString, value);
    QFETCH(QString, message);
    const QString path = write(stateLine(1) + "\n");
    Replay replay;
    QSignalSpy spy(&replay, Received);
    QVERIFY(start(replay, path, { { key, value } }));
    QTRY_COMPARE(spy.count(), 1);
    QTest::qWait(20);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(m_log.lines(),
        (QStringList { m_log.warning(message), m_log.info("Replaying " + path),
            m_log.info("Finished replaying " + path + ", datasets sent: 1") }));
}

QTEST_GUILESS_MAIN(tst_Replay)
#include "tst_replay.moc"
