#include "logcapture.h"
#include "logcategories.h"
#include "logcontext.h"
#include "logfile.h"
#include "testsupport.h"

#include <QDate>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTextCodec>
#include <QtTest>

using namespace TestSupport;

class tst_LogFile : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void nothingBeforeConfigure();
    void defaultsFromConstructor();
    void lineFormat_data();
    void lineFormat();
    void rotatesAtStart();
    void startWithoutPreviousFile();
    void datedOldCopy();
    void datedOldCopyReplacesSameDay();
    void createsMissingDirectories();
    void warnsWhenDirectoryCannotBeCreated();
    void longMessageRotatesBeforeWriting();
    void manyShortMessagesNeverRotate();
    void unreadableMaxSizeKeepsDefault();
    void truncationWhileWritingLeavesNoHole();
    void tinyMaxSizeIsWarnedAboutOnce_data();
    void tinyMaxSizeIsWarnedAboutOnce();
    void writesUtf8();

private:
    QVariantMap config(const QString &oldCopy = QString(), qint64 maxSize = -1) const
    {
        QVariantMap group { { "filename", m_dir->filePath("orvix.log") },
            { "oldcopy", oldCopy.isEmpty() ? m_dir->filePath("orvix.lastlog") : oldCopy } };
        if (maxSize >= 0)
            group.insert("maxSize", maxSize);
        return QVariantMap { { "logfile", group } };
    }
    QScopedPointer<QTemporaryDir> m_dir;
};

void tst_LogFile::init()
{
    m_dir.reset(new QTemporaryDir);
    QVERIFY(m_dir->isValid());
}

void tst_LogFile::nothingBeforeConfigure()
{
    LogFile file(m_dir->filePath("orvix.log"), m_dir->filePath("orvix.lastlog"));
    file.write(QtInfoMsg, LogContext("core"), "dropped");
    QVERIFY(!QFile::exists(m_dir->filePath("orvix.log")));
}

void tst_LogFile::defaultsFromConstructor()
{
    LogFile file(m_dir->filePath("a/default.log"), m_dir->filePath("a/default.old"));
    file.configure(QVariantMap());
    file.write(QtInfoMsg, LogContext("core"), "hello");
    QCOMPARE(logLines(m_dir->filePath("a/default.log")), QStringList { "INFO core: hello" });
}

void tst_LogFile::lineFormat_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("expected");
    QTest::newRow("debug") << int(QtDebugMsg) << "DEBUG core: text";
    QTest::newRow("info") << int(QtInfoMsg) << "INFO core: text";
    QTest::newRow("warning") << int(QtWarningMsg) << "WARNING core: text";
    QTest::newRow("critical") << int(QtCriticalMsg) << "CRITICAL core: text";
    QTest::newRow("fatal") << int(QtFatalMsg) << "FATAL core: text";
    QTest::newRow("unknown") << 17 << " core: text";
}

void tst_LogFile::lineFormat()
{
    QFETCH(int, type);
    QFETCH(QString, expected);
    LogFile file;
    file.configure(config());
    file.write(QtMsgType(type), LogContext("core"), "text");
    const QString raw = QString::fromUtf8(readFile(m_dir->filePath("orvix.log")));
    QVERIFY(QRegularExpression("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d ").match(raw).hasMatch());
    QCOMPARE(raw.mid(20), expected + QLatin1Char('\n'));
}

void tst_LogFile::rotatesAtStart()
{
    writeFile(m_dir->filePath("orvix.log"), "previous run\n");
    writeFile(m_dir->filePath("orvix.lastlog"), "the run before\n");
    LogFile file;
    file.configure(config());
    QCOMPARE(readFile(m_dir->filePath("orvix.lastlog")), QByteArray("previous run\n"));
    QVERIFY(QFile::exists(m_dir->filePath("orvix.log")));
    QCOMPARE(QFileInfo(m_dir->filePath("orvix.log")).size(), 0);
}

void tst_LogFile::startWithoutPreviousFile()
{
    LogFile file;
    file.configure(config());
    QVERIFY(QFile::exists(m_dir->filePath("orvix.log")));
    QVERIFY(!QFile::exists(m_dir->filePath("orvix.lastlog")));
}

void tst_LogFile::datedOldCopy()
{
    writeFile(m_dir->filePath("orvix.log"), "yesterday\n");
    LogFile file;
    file.configure(config(m_dir->filePath("orvix-[date].log")));
    const QString today = QDate::currentDate().toString("yyyy-MM-dd");
    QCOMPARE(readFile(m_dir->filePath(QStringLiteral("orvix-%1.log").arg(today))), QByteArray("yesterday\n"));
}

void tst_LogFile::datedOldCopyReplacesSameDay()
{
    const QString today = QDate::currentDate().toString("yyyy-MM-dd");
    writeFile(m_dir->filePath(QStringLiteral("%1-orvix-%1.log").arg(today)), "earlier today\n");
    writeFile(m_dir->filePath("orvix.log"), "latest\n");
    LogFile file;
    // Every occurrence of the marker is replaced; "[DATE]" is not the marker.
    file.configure(config(m_dir->filePath("[date]-orvix-[date].log")));
    QCOMPARE(readFile(m_dir->filePath(QStringLiteral("%1-orvix-%1.log").arg(today))), QByteArray("latest\n"));

    writeFile(m_dir->filePath("orvix.log"), "upper\n");
    LogFile other;
    other.configure(config(m_dir->filePath("[DATE].log")));
    QCOMPARE(readFile(m_dir->filePath("[DATE].log")), QByteArray("upper\n"));
}

void tst_LogFile::createsMissingDirectories()
{
    LogFile file;
    QVariantMap settings { { "logfile",
        QVariantMap { { "filename", m_dir->filePath("x/y/z/orvix.log") },
            { "oldcopy", m_dir->filePath("x/y/z/orvix.lastlog") } } } };
    file.configure(settings);
    file.write(QtWarningMsg, LogContext("limit"), "deep");
    QCOMPARE(logLines(m_dir->filePath("x/y/z/orvix.log")), QStringList { "WARNING limit: deep" });
}

void tst_LogFile::warnsWhenDirectoryCannotBeCreated()
{
    writeFile(m_dir->filePath("plainfile"), "in the way");
    const QString directory = m_dir->filePath("plainfile/logs");
    LogCapture log(QStringLiteral("logfile"));
    log.start();
    {
        LogFile file;
        file.configure(
            QVariantMap { { "logfile", QVariantMap { { "filename", QString(directory + "/orvix.log") } } } });
        file.write(QtInfoMsg, LogContext("core"), "lost");
    }
    log.stop();
    QCOMPARE(log.lines(), QStringList { QStringLiteral("WARNING logfile: Creating \"%1\" failed.").arg(directory) });
}

void tst_LogFile::longMessageRotatesBeforeWriting()
{
    LogFile file;
    file.configure(config(QString(), 10));
    file.write(QtInfoMsg, LogContext("core"), "short");
    file.write(QtInfoMsg, LogContext("core"), "exactly10!");
    QCOMPARE(logLines(m_dir->filePath("orvix.log")), (QStringList { "INFO core: short", "INFO core: exactly10!" }));

    file.write(QtInfoMsg, LogContext("core"), "eleven char");
    file.write(QtInfoMsg, LogContext("core"), "after");
    QCOMPARE(logLines(m_dir->filePath("orvix.lastlog")), (QStringList { "INFO core: short", "INFO core: exactly10!" }));
    QCOMPARE(logLines(m_dir->filePath("orvix.log")), (QStringList { "INFO core: eleven char", "INFO core: after" }));
}

void tst_LogFile::manyShortMessagesNeverRotate()
{
    LogFile file;
    file.configure(config(QString(), 10));
    for (int i = 0; i < 50; ++i)
        file.write(QtInfoMsg, LogContext("core"), "123456789");
    QCOMPARE(logLines(m_dir->filePath("orvix.log")).size(), 50);
    QVERIFY(!QFile::exists(m_dir->filePath("orvix.lastlog")));
}

void tst_LogFile::unreadableMaxSizeKeepsDefault()
{
    QVariantMap settings = config();
    QVariantMap group = settings.value("logfile").toMap();
    group.insert("maxSize", "50MB");
    settings.insert("logfile", group);
    LogCapture log(QStringLiteral("logfile"));
    log.start();
    LogFile file;
    file.configure(settings);
    file.write(QtInfoMsg, LogContext("core"), "one");
    file.write(QtInfoMsg, LogContext("core"), "two");
    log.stop();
    QCOMPARE(log.lines(), QStringList { log.warning("maxSize \"50MB\" is not a number, using 52428800") });
    QCOMPARE(logLines(m_dir->filePath("orvix.log")), (QStringList { "INFO core: one", "INFO core: two" }));
}

void tst_LogFile::tinyMaxSizeIsWarnedAboutOnce_data()
{
    QTest::addColumn<qint64>("maxSize");
    QTest::addColumn<bool>("warned");
    QTest::newRow("0") << qint64(0) << true;
    QTest::newRow("1023") << qint64(1023) << true;
    QTest::newRow("1024") << qint64(1024) << false;
    QTest::newRow("default") << qint64(-1) << false;
}

void tst_LogFile::tinyMaxSizeIsWarnedAboutOnce()
{
    QFETCH(qint64, maxSize);
    QFETCH(bool, warned);
    LogCapture log(QStringLiteral("logfile"));
    log.start();
    LogFile file;
    file.configure(config(QString(), maxSize));
    for (int i = 0; i < 3; ++i)
        file.write(QtInfoMsg, LogContext("core"), QString(20, QLatin1Char('x')));
    log.stop();
    const QString warning = log.warning(QStringLiteral("maxSize %1 is smaller than most messages: each longer message "
                                                       "starts a new log file and only the last of them is kept as the "
                                                       "old copy")
                                            .arg(maxSize));
    QCOMPARE(log.lines(), warned ? QStringList { warning } : QStringList());
    // The behaviour stays: with a limit of 0 each message starts a new file.
    if (maxSize == 0)
        QCOMPARE(logLines(m_dir->filePath("orvix.log")).size(), 1);
}

void tst_LogFile::truncationWhileWritingLeavesNoHole()
{
    // logrotate's copytruncate empties the open file; the next line must go to its new end.
    LogFile file;
    file.configure(config());
    for (int i = 0; i < 100; ++i)
        file.write(QtInfoMsg, LogContext("core"), "before the truncation");
    QVERIFY(QFile::resize(m_dir->filePath("orvix.log"), 0));
    file.write(QtInfoMsg, LogContext("core"), "after");
    const QByteArray raw = readFile(m_dir->filePath("orvix.log"));
    QVERIFY2(!raw.contains('\0'), "the file has a hole of NUL bytes");
    QCOMPARE(logLines(m_dir->filePath("orvix.log")), QStringList { "INFO core: after" });
}

void tst_LogFile::writesUtf8()
{
    // Whatever the machine's locale: a box started with LANG=C must not write its log in another encoding.
    QTextCodec *locale = QTextCodec::codecForLocale();
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("ISO-8859-1"));
    LogFile file;
    file.configure(config());
    file.write(QtInfoMsg, LogContext("core"), QStringLiteral("Säge \u20ac \U0001F332"));
    QTextCodec::setCodecForLocale(locale);
    const QByteArray raw = readFile(m_dir->filePath("orvix.log"));
    QVERIFY(raw.endsWith(QStringLiteral("INFO core: Säge \u20ac \U0001F332\n").toUtf8()));
}

QTEST_GUILESS_MAIN(tst_LogFile)
#include "tst_logfile.moc"
