#include "mqttspool.h"

#include "logcapture.h"
#include "testsupport.h"

#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace TestSupport;

Q_LOGGING_CATEGORY(lcSpoolTest, "spooltest")

namespace {

constexpr qint64 SmallSpool = 65536;
// Header (8), flags and topic length (3), topic "t/7" (3): what a record adds to its payload.
constexpr qint64 Overhead = 14;

QByteArray payload(int index, int size = 100)
{
    QByteArray bytes = QByteArray::number(index) + ':';
    bytes.append(QByteArray(qMax(0, size - bytes.size()), 'x'));
    return bytes;
}

QStringList segmentFiles(const QString &folder)
{
    return QDir(folder).entryList({ QStringLiteral("*.seg") }, QDir::Files, QDir::Name);
}

bool copyFolder(const QString &from, const QString &to)
{
    QDir().mkpath(to);
    const QStringList names = QDir(from).entryList(QDir::Files);
    for (const QString &name : names) {
        if (!QFile::copy(from + '/' + name, to + '/' + name))
            return false;
    }
    return true;
}

} // namespace

class tst_MqttSpool : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void segmentSize_data();
    void segmentSize();
    void handsOutInOrder();
    void leavesOnlyWhenEveryOlderRecordIsAcknowledged();
    void rewindHandsOutTheUnacknowledgedAgain();
    void acknowledgementBeforeRewindIsKept();
    void survivesReopening();
    void acknowledgementsSinceTheLastSyncComeBack();
    void sequenceGoesOnAfterEverythingWasDelivered();
    void deliveredSegmentsAreDeleted();
    void limitDropsTheOldestSegment();
    void bigRecords_data();
    void bigRecords();
    void droppedRecordsIgnoreTheirAcknowledgements();
    void recordLargerThanTheSpoolFails();
    void tornLastRecordIsCutOff();
    void recordsCarryTheStandardCrc32();
    void damagedRecordCutsTheRestOfItsSegment();
    void unusableFolderFails();

private:
    std::unique_ptr<MqttSpool> openSpool(const QString &folder, qint64 maxBytes = SmallSpool);
    static void appendRecords(MqttSpool &spool, int from, int to, int size = 100);

    QTemporaryDir m_dir;
    LogCapture m_log { QStringLiteral("spooltest") };
};

void tst_MqttSpool::init()
{
    m_log.start();
}

void tst_MqttSpool::cleanup()
{
    m_log.stop();
}

std::unique_ptr<MqttSpool> tst_MqttSpool::openSpool(const QString &folder, qint64 maxBytes)
{
    auto spool = std::make_unique<MqttSpool>(folder, maxBytes, lcSpoolTest());
    QString error;
    if (!spool->open(&error)) {
        qWarning("open failed: %s", qPrintable(error));
        return nullptr;
    }
    return spool;
}

void tst_MqttSpool::appendRecords(MqttSpool &spool, int from, int to, int size)
{
    for (int i = from; i < to; ++i) {
        qint64 dropped = -1;
        QString error;
        QVERIFY2(spool.append("t/" + QByteArray::number(i % 10), payload(i, size), i % 3 == 0, &dropped, &error),
            qPrintable(error));
        QCOMPARE(dropped, 0);
    }
}

void tst_MqttSpool::segmentSize_data()
{
    QTest::addColumn<qint64>("maxBytes");
    QTest::addColumn<qint64>("segment");
    QTest::newRow("smallest") << qint64(65536) << qint64(4096);
    QTest::newRow("a sixteenth") << qint64(16 * 100000) << qint64(100000);
    QTest::newRow("default") << qint64(67108864) << qint64(4194304);
    QTest::newRow("at most 4 MiB") << qint64(1) * 1024 * 1024 * 1024 << qint64(4194304);
}

void tst_MqttSpool::segmentSize()
{
    QFETCH(qint64, maxBytes);
    QFETCH(qint64, segment);
    QCOMPARE(MqttSpool::segmentBytes(maxBytes), segment);
}

void tst_MqttSpool::handsOutInOrder()
{
    const QString folder = m_dir.filePath("order");
    auto spool = openSpool(folder);
    QVERIFY(spool);
    appendRecords(*spool, 0, 100);
    QCOMPARE(spool->count(), 100);
    QCOMPARE(spool->bytes(), 100 * (100 + Overhead));

    MqttSpool::Record record;
    for (int i = 0; i < 100; ++i) {
        QVERIFY(spool->next(&record));
        QCOMPARE(record.sequence, quint64(i));
        QCOMPARE(record.topic, "t/" + QByteArray::number(i % 10));
        QCOMPARE(record.payload, payload(i));
        QCOMPARE(record.retain, i % 3 == 0);
    }
    QVERIFY(!spool->next(&record));
    QCOMPARE(spool->outstanding(), 100);
    appendRecords(*spool, 100, 101);
    QVERIFY(spool->next(&record));
    QCOMPARE(record.payload, payload(100));
    for (quint64 i = 0; i <= 100; ++i)
        spool->acknowledge(i);
    QCOMPARE(spool->count(), 0);
    QCOMPARE(spool->bytes(), 0);
}

void tst_MqttSpool::leavesOnlyWhenEveryOlderRecordIsAcknowledged()
{
    auto spool = openSpool(m_dir.filePath("acks"));
    QVERIFY(spool);
    appendRecords(*spool, 0, 5);
    MqttSpool::Record record;
    for (int i = 0; i < 5; ++i)
        QVERIFY(spool->next(&record));
    spool->acknowledge(1);
    spool->acknowledge(2);
    QCOMPARE(spool->count(), 5);
    spool->acknowledge(0);
    QCOMPARE(spool->count(), 2);
    QCOMPARE(spool->outstanding(), 2);
    spool->acknowledge(0);
    spool->acknowledge(7);
    QCOMPARE(spool->count(), 2);
}

void tst_MqttSpool::rewindHandsOutTheUnacknowledgedAgain()
{
    auto spool = openSpool(m_dir.filePath("rewind"));
    QVERIFY(spool);
    appendRecords(*spool, 0, 3);
    MqttSpool::Record record;
    QVERIFY(spool->next(&record));
    QVERIFY(spool->next(&record));
    QVERIFY(spool->next(&record));
    spool->acknowledge(0);
    spool->acknowledge(2);
    QCOMPARE(spool->outstanding(), 1);
    spool->rewind();
    QCOMPARE(spool->outstanding(), 0);
    QVERIFY(spool->next(&record));
    QCOMPARE(record.sequence, quint64(1));
    QCOMPARE(record.payload, payload(1));
    // Record 2 reached the broker before the rewind: it is not sent again.
    QVERIFY(!spool->next(&record));
    spool->acknowledge(1);
    QCOMPARE(spool->count(), 0);
    appendRecords(*spool, 3, 4);
    QVERIFY(spool->next(&record));
    QCOMPARE(record.sequence, quint64(3));
    QCOMPARE(record.payload, payload(3));
}

void tst_MqttSpool::acknowledgementBeforeRewindIsKept()
{
    auto spool = openSpool(m_dir.filePath("kept"));
    QVERIFY(spool);
    appendRecords(*spool, 0, 2);
    MqttSpool::Record record;
    QVERIFY(spool->next(&record));
    QVERIFY(spool->next(&record));
    spool->acknowledge(1);
    spool->rewind();
    QVERIFY(spool->next(&record));
    QCOMPARE(record.sequence, quint64(0));
    spool->acknowledge(0);
    QVERIFY(!spool->next(&record));
    QCOMPARE(spool->count(), 0);
}

void tst_MqttSpool::survivesReopening()
{
    const QString folder = m_dir.filePath("reopen");
    {
        auto spool = openSpool(folder);
        QVERIFY(spool);
        appendRecords(*spool, 0, 500);
        MqttSpool::Record record;
        for (int i = 0; i < 200; ++i) {
            QVERIFY(spool->next(&record));
            spool->acknowledge(record.sequence);
        }
        // Handed out but not acknowledged: these must come back.
        for (int i = 0; i < 50; ++i)
            QVERIFY(spool->next(&record));
    }
    QVERIFY(segmentFiles(folder).size() > 1);
    auto spool = openSpool(folder);
    QVERIFY(spool);
    QCOMPARE(spool->count(), 300);
    QCOMPARE(spool->bytes(), 300 * (100 + Overhead));
    appendRecords(*spool, 500, 510);
    MqttSpool::Record record;
    for (int i = 200; i < 510; ++i) {
        QVERIFY(spool->next(&record));
        QCOMPARE(record.sequence, quint64(i));
        QCOMPARE(record.payload, payload(i));
    }
    QVERIFY(m_log.lines().isEmpty());
}

void tst_MqttSpool::acknowledgementsSinceTheLastSyncComeBack()
{
    const QString folder = m_dir.filePath("sync");
    auto spool = openSpool(folder);
    QVERIFY(spool);
    appendRecords(*spool, 0, 10);
    MqttSpool::Record record;
    for (int i = 0; i < 5; ++i) {
        QVERIFY(spool->next(&record));
        spool->acknowledge(record.sequence);
    }
    // A copy of the folder is what a killed process leaves behind.
    QVERIFY(copyFolder(folder, m_dir.filePath("sync-before")));
    spool->sync();
    QVERIFY(copyFolder(folder, m_dir.filePath("sync-after")));

    auto before = openSpool(m_dir.filePath("sync-before"));
    QVERIFY(before);
    QCOMPARE(before->count(), 10);
    auto after = openSpool(m_dir.filePath("sync-after"));
    QVERIFY(after);
    QCOMPARE(after->count(), 5);
    QVERIFY(after->next(&record));
    QCOMPARE(record.payload, payload(5));
}

void tst_MqttSpool::sequenceGoesOnAfterEverythingWasDelivered()
{
    const QString folder = m_dir.filePath("sequence");
    {
        auto spool = openSpool(folder);
        QVERIFY(spool);
        appendRecords(*spool, 0, 5);
        MqttSpool::Record record;
        while (spool->next(&record))
            spool->acknowledge(record.sequence);
        QCOMPARE(spool->count(), 0);
    }
    auto spool = openSpool(folder);
    QVERIFY(spool);
    QCOMPARE(spool->count(), 0);
    appendRecords(*spool, 5, 6);
    MqttSpool::Record record;
    QVERIFY(spool->next(&record));
    QCOMPARE(record.sequence, quint64(5));
    QCOMPARE(record.payload, payload(5));
}

void tst_MqttSpool::deliveredSegmentsAreDeleted()
{
    const QString folder = m_dir.filePath("delete");
    auto spool = openSpool(folder);
    QVERIFY(spool);
    // 4096-byte segments of 35 records each.
    appendRecords(*spool, 0, 350);
    QCOMPARE(segmentFiles(folder).size(), 10);
    MqttSpool::Record record;
    for (int i = 0; i < 100; ++i) {
        QVERIFY(spool->next(&record));
        spool->acknowledge(record.sequence);
    }
    QCOMPARE(segmentFiles(folder).size(), 8);
    while (spool->next(&record))
        spool->acknowledge(record.sequence);
    // The segment being written to stays.
    QCOMPARE(segmentFiles(folder).size(), 1);
    appendRecords(*spool, 350, 390);
    QCOMPARE(segmentFiles(folder).size(), 2);
    QVERIFY(spool->next(&record));
    QCOMPARE(record.payload, payload(350));
}

void tst_MqttSpool::limitDropsTheOldestSegment()
{
    const QString folder = m_dir.filePath("limit");
    auto spool = openSpool(folder);
    QVERIFY(spool);
    const qint64 recordBytes = 400 + Overhead;
    const qint64 perSegment = 4096 / recordBytes;
    qint64 totalDropped = 0;
    QList<qint64> drops;
    for (int i = 0; i < 2000; ++i) {
        qint64 dropped = 0;
        QString error;
        QVERIFY(spool->append("t/7", payload(i, 400), false, &dropped, &error));
        if (dropped > 0)
            drops.append(dropped);
        totalDropped += dropped;
        QVERIFY(spool->bytes() <= SmallSpool);
        QVERIFY(folderBytes(folder) <= SmallSpool + 4096 + 64);
    }
    QVERIFY(!drops.isEmpty());
    // A whole segment each time, a sixteenth of the spool.
    for (qint64 dropped : qAsConst(drops))
        QCOMPARE(dropped, perSegment);
    QCOMPARE(spool->count() + totalDropped, 2000);
    MqttSpool::Record record;
    QVERIFY(spool->next(&record));
    QCOMPARE(record.sequence, quint64(totalDropped));
    QCOMPARE(record.payload, payload(int(totalDropped), 400));
}

void tst_MqttSpool::bigRecords_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QList<qint64>>("drops");
    QTest::addColumn<int>("oldest");
    // Larger than a segment: each record has a segment of its own, the spool holds two.
    QTest::newRow("a segment each") << 30000 << QList<qint64> { 0, 0, 1, 1, 1 } << 3;
    // Two do not fit: the segment being written to is dropped too.
    QTest::newRow("one fills the spool") << 40000 << QList<qint64> { 0, 1, 1, 1, 1 } << 4;
}

void tst_MqttSpool::bigRecords()
{
    QFETCH(int, size);
    QFETCH(QList<qint64>, drops);
    QFETCH(int, oldest);
    auto spool = openSpool(m_dir.filePath(QTest::currentDataTag()));
    QVERIFY(spool);
    for (int i = 0; i < drops.size(); ++i) {
        qint64 dropped = 0;
        QString error;
        QVERIFY(spool->append("t/7", payload(i, size), false, &dropped, &error));
        QCOMPARE(dropped, drops.at(i));
        QVERIFY(spool->bytes() <= SmallSpool);
    }
    QCOMPARE(spool->count(), qint64(drops.size() - oldest));
    MqttSpool::Record record;
    QVERIFY(spool->next(&record));
    QCOMPARE(record.sequence, quint64(oldest));
    QCOMPARE(record.payload, payload(oldest, size));
}

void tst_MqttSpool::droppedRecordsIgnoreTheirAcknowledgements()
{
    auto spool = openSpool(m_dir.filePath("dropacks"));
    QVERIFY(spool);
    appendRecords(*spool, 0, 20, 400);
    MqttSpool::Record record;
    for (int i = 0; i < 20; ++i)
        QVERIFY(spool->next(&record));
    qint64 dropped = 0;
    for (int i = 20; dropped == 0; ++i) {
        QString error;
        QVERIFY(spool->append("t/7", payload(i, 400), false, &dropped, &error));
    }
    const qint64 left = spool->count();
    QCOMPARE(spool->outstanding(), 20 - int(dropped));
    spool->acknowledge(0);
    QCOMPARE(spool->count(), left);
    // The records handed out after the dropped ones keep their places.
    spool->acknowledge(quint64(dropped));
    QCOMPARE(spool->count(), left - 1);
    QVERIFY(spool->next(&record));
    QCOMPARE(record.sequence, quint64(20));
}

void tst_MqttSpool::recordLargerThanTheSpoolFails()
{
    auto spool = openSpool(m_dir.filePath("huge"));
    QVERIFY(spool);
    appendRecords(*spool, 0, 3);
    qint64 dropped = 0;
    QString error;
    QVERIFY(!spool->append("t/7", QByteArray(int(SmallSpool), 'x'), false, &dropped, &error));
    QCOMPARE(error, QStringLiteral("a record of 65550 bytes does not fit into a spool of 65536 bytes"));
    QCOMPARE(dropped, 0);
    QCOMPARE(spool->count(), 3);
}

void tst_MqttSpool::recordsCarryTheStandardCrc32()
{
    // Spool files outlive updates of orvix: the check value of a record is CRC-32 as zlib and Ethernet compute it.
    const QString folder = m_dir.filePath("crc");
    {
        auto spool = openSpool(folder);
        QVERIFY(spool);
        qint64 dropped = 0;
        QString error;
        QVERIFY(spool->append("t", "123456", false, &dropped, &error));
    }
    QFile segment(folder + '/' + segmentFiles(folder).constLast());
    QVERIFY(segment.open(QIODevice::ReadOnly));
    const QByteArray bytes = segment.readAll();
    // Body: flags 0, topic length 1, "t", then the payload; its CRC-32 is that of "\0\1\0t123456".
    QCOMPARE(bytes.left(8).toHex(), QByteArray("0a000000") + QByteArray("cffa6654"));
    QCOMPARE(bytes.mid(8), QByteArray("\0\1\0t123456", 10));
}

void tst_MqttSpool::tornLastRecordIsCutOff()
{
    const QString folder = m_dir.filePath("torn");
    {
        auto spool = openSpool(folder);
        QVERIFY(spool);
        appendRecords(*spool, 0, 3);
    }
    const QString file = folder + '/' + segmentFiles(folder).constLast();
    QFile segment(file);
    QVERIFY(segment.open(QIODevice::Append));
    // The first bytes of a record of 114 bytes: a write cut short by a power failure.
    segment.write(QByteArray::fromHex("6a000000") + "abc");
    segment.close();

    auto spool = openSpool(folder);
    QVERIFY(spool);
    QCOMPARE(m_log.lines(),
        QStringList { m_log.warning(
            QStringLiteral("Spool file %1 is damaged at byte 342; 7 bytes after it dropped").arg(file)) });
    QCOMPARE(spool->count(), 3);
    appendRecords(*spool, 3, 4);
    MqttSpool::Record record;
    for (int i = 0; i < 4; ++i) {
        QVERIFY(spool->next(&record));
        QCOMPARE(record.payload, payload(i));
    }
}

void tst_MqttSpool::damagedRecordCutsTheRestOfItsSegment()
{
    const QString folder = m_dir.filePath("damaged");
    {
        auto spool = openSpool(folder);
        QVERIFY(spool);
        appendRecords(*spool, 0, 50);
    }
    const QStringList files = segmentFiles(folder);
    QCOMPARE(files.size(), 2);
    QFile segment(folder + '/' + files.first());
    QVERIFY(segment.open(QIODevice::ReadWrite));
    // A flipped byte in the payload of the sixth record.
    QVERIFY(segment.seek(5 * 114 + 50));
    segment.write("#");
    segment.close();

    auto spool = openSpool(folder);
    QVERIFY(spool);
    QCOMPARE(m_log.lines().size(), 1);
    QVERIFY(m_log.lines().first().contains("is damaged at byte 570;"));
    // Five records of the first segment and the 15 of the second, which moves up behind them.
    QCOMPARE(spool->count(), 5 + 15);
    MqttSpool::Record record;
    QList<QByteArray> payloads;
    while (spool->next(&record))
        payloads.append(record.payload);
    QCOMPARE(payloads.size(), 20);
    QCOMPARE(payloads.at(4), payload(4));
    QCOMPARE(payloads.at(5), payload(35));
    QCOMPARE(payloads.last(), payload(49));
    QCOMPARE(record.sequence, quint64(19));
    appendRecords(*spool, 50, 51);
    QVERIFY(spool->next(&record));
    QCOMPARE(record.sequence, quint64(20));
}

void tst_MqttSpool::unusableFolderFails()
{
    QVERIFY(writeFile(m_dir.filePath("file"), "not a folder"));
    MqttSpool spool(m_dir.filePath("file/spool"), SmallSpool, lcSpoolTest());
    QString error;
    QVERIFY(!spool.open(&error));
    QCOMPARE(error, QStringLiteral("can't create the folder"));
}

QTEST_GUILESS_MAIN(tst_MqttSpool)
#include "tst_mqttspool.moc"
