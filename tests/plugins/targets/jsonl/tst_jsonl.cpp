#include "jsonl.h"

#include "datasetcodec.h"
#include "logcapture.h"
#include "mmdatasets.h"
#include "pluginchecks.h"
#include "testsupport.h"
#include "wwtypes.h"

#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

#include <sys/resource.h>
#include <sys/wait.h>

#include <fcntl.h>
#include <unistd.h>

using namespace TestSupport;

namespace {

QVariantMap config(const QVariant &file)
{
    return QVariantMap { { "jsonl", QVariantMap { { "file", file } } } };
}

const QDateTime When = QDateTime::fromMSecsSinceEpoch(1614585600250, Qt::UTC);

StateV1 state(qint32 code)
{
    StateV1 record;
    record.state = code;
    return record;
}

WwState working()
{
    WwState record;
    record.MachineState = 3;
    record.OperationMode = 1;
    WwStateFlags flags;
    flags.MachineOn = true;
    flags.FeedRuns = true;
    record.Flags = flags;
    WwStateValues values;
    values.FeedSpeed = 12.5;
    values.AbsolutePiecesOut = 15230;
    record.Values = values;
    return record;
}

/** Standard output, led into a file for as long as the object lives. */
class CapturedStdout
{
public:
    explicit CapturedStdout(const QString &path)
    {
        fflush(stdout);
        m_saved = dup(STDOUT_FILENO);
        const int file = open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(file, STDOUT_FILENO);
        close(file);
    }
    ~CapturedStdout()
    {
        fflush(stdout);
        dup2(m_saved, STDOUT_FILENO);
        close(m_saved);
    }

private:
    int m_saved;
};

} // namespace

class tst_Jsonl : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void metadata();
    void sampleIniDocumentsEverySetting();
    void readmeQuotesSampleIni();
    void readmeListsEveryKey();
    void writesTheLinesOfATurnTogether();
    void longTurnIsWrittenInPieces();
    void stopWritesWhatItHolds();
    void killedProcessLeavesWholeLines();
    void appendsToAnExistingFile();
    void createsAMissingFolder();
    void pathWithComma();
    void standardOutput_data();
    void standardOutput();
    void unwritableFile();
    void folderCannotBeMade();
    void writeFailureWarnsOnce();
    void shortWriteIsCutBackToWholeLines();
    void unwritableDatasetIsSkipped();
    void disabledTargetWritesNothing();

private:
    QTemporaryDir m_dir;
    LogCapture m_log { QStringLiteral("jsonl") };
};

void tst_Jsonl::init()
{
    m_log.start();
}

void tst_Jsonl::cleanup()
{
    m_log.stop();
}

void tst_Jsonl::metadata()
{
    PluginChecks::checkTargetLibrary("jsonl", "jsonl");
}

void tst_Jsonl::sampleIniDocumentsEverySetting()
{
    PluginChecks::checkSampleIni("targets/jsonl", "jsonl", Jsonl::settings().keys());
}

void tst_Jsonl::readmeQuotesSampleIni()
{
    PluginChecks::checkReadmeQuotesSampleIni("targets/jsonl");
}

void tst_Jsonl::readmeListsEveryKey()
{
    PluginChecks::checkReadmeKeyTable("targets/jsonl", Jsonl::settings().keys());
}

void tst_Jsonl::writesTheLinesOfATurnTogether()
{
    const QString path = m_dir.filePath("out.jsonl");
    Jsonl target;
    QVariantMap shared;
    QVERIFY(target.init(config(path), shared));
    QCOMPARE(m_log.lines(), QStringList { m_log.info("Writing datasets to " + path) });

    target.processData(When, "m1", "opcua", QVariant::fromValue(state(3)));
    target.processData(When, "m2", "sim", QVariant::fromValue(working()));
    QCOMPARE(readFile(path), QByteArray());
    // Read while the target still holds the file open: the turn has ended, the lines are there without a close.
    QCoreApplication::processEvents();
    const QByteArray first = DatasetCodec::encodeLine(When, "m1", "opcua", QVariant::fromValue(state(3))) + '\n';
    const QByteArray second = DatasetCodec::encodeLine(When, "m2", "sim", QVariant::fromValue(working())) + '\n';
    QCOMPARE(readFile(path), first + second);

    target.processData(When, "m1", "opcua", QVariant::fromValue(state(3)));
    QCoreApplication::processEvents();
    QCOMPARE(readFile(path), first + second + first);

    DatasetCodec::Dataset dataset;
    QVERIFY(DatasetCodec::decodeLine(second.trimmed(), &dataset));
    QCOMPARE(dataset.machine, QStringLiteral("m2"));
    QCOMPARE(qvariant_cast<WwState>(dataset.data), working());
}

void tst_Jsonl::longTurnIsWrittenInPieces()
{
    // A turn that brings more than 64 KiB of lines does not wait for its end: the lines go out in whole lines.
    const QString path = m_dir.filePath("long.jsonl");
    Jsonl target;
    QVariantMap shared;
    QVERIFY(target.init(config(path), shared));
    const QByteArray line = DatasetCodec::encodeLine(When, "m2", "sim", QVariant::fromValue(working())) + '\n';
    const int count = 2 * 64 * 1024 / line.size();
    for (int i = 0; i < count; ++i)
        target.processData(When, "m2", "sim", QVariant::fromValue(working()));
    const QByteArray written = readFile(path);
    QVERIFY(written.size() >= 64 * 1024);
    QCOMPARE(written.size() % line.size(), 0);
    QCoreApplication::processEvents();
    QCOMPARE(readFile(path), line.repeated(count));
}

void tst_Jsonl::stopWritesWhatItHolds()
{
    // A clean stop deletes the target in the middle of a turn: what it took in is written then.
    const QString path = m_dir.filePath("stop.jsonl");
    {
        Jsonl target;
        QVariantMap shared;
        QVERIFY(target.init(config(path), shared));
        target.processData(When, "m1", "s", QVariant::fromValue(state(1)));
        target.processData(When, "m1", "s", QVariant::fromValue(state(2)));
    }
    QCOMPARE(readFile(path),
        DatasetCodec::encodeLine(When, "m1", "s", QVariant::fromValue(state(1))) + '\n'
            + DatasetCodec::encodeLine(When, "m1", "s", QVariant::fromValue(state(2))) + '\n');
}

void tst_Jsonl::killedProcessLeavesWholeLines()
{
    // A child writes lines turn after turn until it is killed; what it leaves must be whole lines, but for a line that
    // crossed a page of the file.
    const QString path = m_dir.filePath("killed.jsonl");
    const pid_t child = fork();
    QVERIFY(child >= 0);
    if (child == 0) {
        Jsonl target;
        QVariantMap shared;
        if (!target.init(config(path), shared))
            _exit(1);
        for (qint32 code = 0;; ++code) {
            for (int i = 0; i < 50; ++i)
                target.processData(When, "m2", "sim", QVariant::fromValue(working()));
            target.processData(When, "m1", "s", QVariant::fromValue(state(code)));
            QCoreApplication::sendPostedEvents();
        }
    }
    QTRY_VERIFY(QFileInfo(path).size() > 4 * 1024 * 1024);
    QCOMPARE(kill(child, SIGKILL), 0);
    int status = 0;
    QCOMPARE(waitpid(child, &status, 0), child);
    // The kernel can cut a write short only between two pages of the file, and a write crosses a page only with a line
    // of its own: what is not a whole line at the end starts a write and ends at a page.
    QByteArray written = readFile(path);
    if (!written.endsWith('\n')) {
        QCOMPARE(written.size() % 4096, 0);
        written.truncate(written.lastIndexOf('\n') + 1);
    }
    const QList<QByteArray> lines = written.split('\n');
    for (int i = 0; i < lines.size() - 1; ++i) {
        DatasetCodec::Dataset dataset;
        QVERIFY2(DatasetCodec::decodeLine(lines.at(i), &dataset), qPrintable(QString::number(i)));
    }
}

void tst_Jsonl::appendsToAnExistingFile()
{
    const QString path = m_dir.filePath("existing.jsonl");
    QVERIFY(writeFile(path, "earlier line\n"));
    Jsonl target;
    QVariantMap shared;
    QVERIFY(target.init(config(path), shared));
    target.processData(When, "m1", "s", QVariant::fromValue(state(2)));
    QCoreApplication::processEvents();
    QCOMPARE(readFile(path),
        "earlier line\n" + DatasetCodec::encodeLine(When, "m1", "s", QVariant::fromValue(state(2))) + '\n');
}

void tst_Jsonl::createsAMissingFolder()
{
    const QString path = m_dir.filePath("a/b/c/out.jsonl");
    Jsonl target;
    QVariantMap shared;
    QVERIFY(target.init(config(path), shared));
    target.processData(When, "m1", "s", QVariant::fromValue(state(4)));
    QCoreApplication::processEvents();
    QCOMPARE(readFile(path), DatasetCodec::encodeLine(When, "m1", "s", QVariant::fromValue(state(4))) + '\n');
}

void tst_Jsonl::pathWithComma()
{
    // QSettings reads the unquoted value a,b.jsonl as a list of two texts.
    Jsonl target;
    QVariantMap shared;
    QVERIFY(target.init(config(QStringList { m_dir.filePath("a"), "b.jsonl" }), shared));
    QVERIFY(QFile::exists(m_dir.filePath("a,b.jsonl")));
}

void tst_Jsonl::standardOutput_data()
{
    QTest::addColumn<QVariantMap>("configuration");
    QTest::newRow("empty") << config(QString());
    QTest::newRow("dash") << config("-");
    QTest::newRow("no key") << QVariantMap { { "jsonl", QVariantMap() } };
    QTest::newRow("no group") << QVariantMap();
}

void tst_Jsonl::standardOutput()
{
    QFETCH(QVariantMap, configuration);
    const QString path = m_dir.filePath("stdout.txt");
    {
        CapturedStdout captured(path);
        Jsonl target;
        QVariantMap shared;
        QVERIFY(target.init(configuration, shared));
        target.processData(When, "m1", "s", QVariant::fromValue(state(5)));
        target.processData(When, "m1", "s", QVariant::fromValue(state(6)));
    }
    QCOMPARE(m_log.lines(), QStringList { m_log.info("Writing datasets to standard output") });
    QCOMPARE(readFile(path),
        DatasetCodec::encodeLine(When, "m1", "s", QVariant::fromValue(state(5))) + '\n'
            + DatasetCodec::encodeLine(When, "m1", "s", QVariant::fromValue(state(6))) + '\n');
}

void tst_Jsonl::unwritableFile()
{
    // A folder where the file should be: even root cannot open that for writing.
    const QString path = m_dir.filePath("folder");
    QVERIFY(QDir().mkpath(path));
    Jsonl target;
    QVariantMap shared;
    QVERIFY(!target.init(config(path), shared));
    QCOMPARE(m_log.lines(), QStringList { m_log.warning("Can't open " + path + " for writing: Is a directory") });
}

void tst_Jsonl::folderCannotBeMade()
{
    QVERIFY(writeFile(m_dir.filePath("plain"), "a file, not a folder\n"));
    const QString path = m_dir.filePath("plain/sub/out.jsonl");
    Jsonl target;
    QVariantMap shared;
    QVERIFY(!target.init(config(path), shared));
    QCOMPARE(m_log.lines(),
        QStringList { m_log.warning(QStringLiteral("Can't open %1 for writing: can't create the folder %2")
                                        .arg(path, m_dir.filePath("plain/sub"))) });
}

void tst_Jsonl::writeFailureWarnsOnce()
{
    if (!QFile::exists("/dev/full"))
        QSKIP("needs /dev/full");
    Jsonl target;
    QVariantMap shared;
    QVERIFY(target.init(config("/dev/full"), shared));
    m_log.clear();
    target.processData(When, "m1", "s", QVariant::fromValue(state(1)));
    QCoreApplication::processEvents();
    target.processData(When, "m1", "s", QVariant::fromValue(state(2)));
    QCoreApplication::processEvents();
    QCOMPARE(m_log.lines(), QStringList { m_log.warning("Can't write to /dev/full: No space left on device") });
}

void tst_Jsonl::disabledTargetWritesNothing()
{
    // Core leaves a disabled target connected but never calls its init.
    Jsonl target;
    target.processData(When, "m1", "s", QVariant::fromValue(state(1)));
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Jsonl::shortWriteIsCutBackToWholeLines()
{
    // A file size limit makes the kernel take part of a line and then refuse the rest, as a full disk does.
    const QString path = m_dir.filePath("limited.jsonl");
    Jsonl target;
    QVariantMap shared;
    QVERIFY(target.init(config(path), shared));
    m_log.clear();
    const qint64 lineBytes = DatasetCodec::encodeLine(When, "m1", "s", QVariant::fromValue(state(1))).size() + 1;

    struct sigaction ignore
    {
    };
    ignore.sa_handler = SIG_IGN;
    struct sigaction previous
    {
    };
    QCOMPARE(sigaction(SIGXFSZ, &ignore, &previous), 0);
    struct rlimit unlimited
    {
    };
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &unlimited), 0);
    struct rlimit limited = unlimited;
    limited.rlim_cur = rlim_t(lineBytes + lineBytes / 2);
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &limited), 0);
    target.processData(When, "m1", "s", QVariant::fromValue(state(1)));
    target.processData(When, "m1", "s", QVariant::fromValue(state(2)));
    target.processData(When, "m1", "s", QVariant::fromValue(state(3)));
    QCoreApplication::processEvents();
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &unlimited), 0);
    QCOMPARE(sigaction(SIGXFSZ, &previous, nullptr), 0);
    QCOMPARE(QFileInfo(path).size(), lineBytes);

    target.processData(When, "m1", "s", QVariant::fromValue(state(4)));
    QCoreApplication::processEvents();
    QCOMPARE(m_log.lines(),
        (QStringList { m_log.warning("Can't write to " + path + ": File too large"),
            m_log.warning("Writing to " + path + " again; 2 datasets could not be written") }));
    const QList<QByteArray> lines = readFile(path).split('\n');
    QCOMPARE(lines.size(), 3);
    QVERIFY(lines.last().isEmpty());
    for (int i = 0; i < 2; ++i) {
        DatasetCodec::Dataset dataset;
        QVERIFY(DatasetCodec::decodeLine(lines.at(i), &dataset));
        QCOMPARE(qvariant_cast<StateV1>(dataset.data).state, i == 0 ? 1 : 4);
    }
}

void tst_Jsonl::unwritableDatasetIsSkipped()
{
    // A line that could not be read back is not written; the warning names the machine and the field.
    const QString path = m_dir.filePath("refused.jsonl");
    Jsonl target;
    QVariantMap shared;
    QVERIFY(target.init(config(path), shared));
    m_log.clear();
    target.processData(QDateTime(QDate(12000, 1, 1), QTime(0, 0), Qt::UTC), "m1", "s", QVariant::fromValue(state(1)));
    target.processData(When, "m1", "s", QVariant::fromValue(state(2)));
    QCoreApplication::processEvents();
    QCOMPARE(m_log.lines(),
        QStringList { m_log.warning(
            "Skipping a StateV1 of m1: field \"timestamp\" holds a date-time outside the years 1 to 9999") });
    QCOMPARE(readFile(path).count('\n'), 1);
}

QTEST_GUILESS_MAIN(tst_Jsonl)
#include "tst_jsonl.moc"
