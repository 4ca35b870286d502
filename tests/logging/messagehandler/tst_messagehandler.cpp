#include "logcategories.h"
#include "logcli.h"
#include "logfile.h"
#include "messagehandler.h"
#include "testsupport.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

using namespace TestSupport;

namespace {

/** Both sinks of a test: a log file in a folder of its own and a console that is a temporary file. */
struct Sinks
{
    Sinks()
        : cli(console)
        , file(dir.filePath("orvix.log"), dir.filePath("orvix.lastlog"))
    {
        file.configure(QVariantMap());
    }
    ~Sinks() { fclose(console); }
    QStringList fileLines() const { return logLines(dir.filePath("orvix.log")); }

    QTemporaryDir dir;
    FILE *console = tmpfile();
    LogCli cli;
    LogFile file;
};

} // namespace

class tst_MessageHandler : public QObject
{
    Q_OBJECT

private slots:
    void levelWords_data();
    void levelWords();
    void messageReachesBothSinks();
    void fileIsWrittenBeforeConsole();
    void filterRulesDecide();
    void restoreDetachesSinks();
    void fatalReachesBothSinksBeforeExit();
};

void tst_MessageHandler::levelWords_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("word");
    QTest::newRow("debug") << int(QtDebugMsg) << "DEBUG";
    QTest::newRow("warning") << int(QtWarningMsg) << "WARNING";
    QTest::newRow("critical") << int(QtCriticalMsg) << "CRITICAL";
    QTest::newRow("fatal") << int(QtFatalMsg) << "FATAL";
    QTest::newRow("info") << int(QtInfoMsg) << "INFO";
    QTest::newRow("other") << 5 << "";
}

void tst_MessageHandler::levelWords()
{
    QFETCH(int, type);
    QFETCH(QString, word);
    QCOMPARE(MessageHandler::levelWord(QtMsgType(type)), word);
}

void tst_MessageHandler::messageReachesBothSinks()
{
    Sinks sinks;
    MessageHandler::install(&sinks.file, &sinks.cli);
    qCWarning(lcCore) << QStringLiteral("Disabling target %1").arg("x");
    MessageHandler::restore();

    QCOMPARE(sinks.fileLines(), QStringList { "WARNING core: \"Disabling target x\"" });
    rewind(sinks.console);
    char line[256] = {};
    QVERIFY(fgets(line, sizeof line, sinks.console));
    QCOMPARE(QString::fromUtf8(line).mid(8), QStringLiteral("  WARNING                core \"Disabling target x\"\n"));
}

namespace {

/** A console that, at each write, notes whether the log file already holds the message being written. */
struct WatchingConsole
{
    QString logFile;
    QList<bool> fileHadLine;

    static ssize_t write(void *cookie, const char *, size_t size)
    {
        auto *self = static_cast<WatchingConsole *>(cookie);
        self->fileHadLine.append(readFile(self->logFile).contains("ordered"));
        return ssize_t(size);
    }
};

} // namespace

void tst_MessageHandler::fileIsWrittenBeforeConsole()
{
    // A crash right after a message must find it at least in the file, which outlives the terminal.
    QTemporaryDir dir;
    WatchingConsole watcher { dir.filePath("orvix.log"), {} };
    cookie_io_functions_t functions {};
    functions.write = &WatchingConsole::write;
    FILE *console = fopencookie(&watcher, "w", functions);
    QVERIFY(console);
    {
        LogCli cli(console);
        LogFile file(dir.filePath("orvix.log"), dir.filePath("orvix.lastlog"));
        file.configure(QVariantMap());
        MessageHandler::install(&file, &cli);
        qCWarning(lcCore) << "ordered";
        MessageHandler::restore();
    }
    fclose(console);
    QCOMPARE(watcher.fileHadLine, QList<bool> { true });
}

void tst_MessageHandler::filterRulesDecide()
{
    Sinks sinks;
    MessageHandler::install(&sinks.file, &sinks.cli);
    QLoggingCategory::setFilterRules("*.debug=false");
    qCDebug(lcDataset) << "hidden";
    QLoggingCategory::setFilterRules("*.debug=true");
    qCDebug(lcDataset) << "shown";
    QLoggingCategory::setFilterRules(QString());
    MessageHandler::restore();
    QCOMPARE(sinks.fileLines(), QStringList { "DEBUG dataset: shown" });
}

void tst_MessageHandler::restoreDetachesSinks()
{
    Sinks sinks;
    MessageHandler::install(&sinks.file, &sinks.cli);
    MessageHandler::restore();
    qCWarning(lcCore) << "nobody";
    QVERIFY(sinks.fileLines().isEmpty());
    QCOMPARE(ftell(sinks.console), 0L);
}

void tst_MessageHandler::fatalReachesBothSinksBeforeExit()
{
    QTemporaryDir dir;
    QProcess child;
    child.setProgram(QCoreApplication::applicationFilePath());
    child.setProcessEnvironment(QProcessEnvironment::systemEnvironment());
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("ORVIX_FATAL_CHILD_LOG", dir.filePath("orvix.log"));
    // The sanitizers would otherwise report the intended abort as an error of their own.
    environment.insert("ASAN_OPTIONS", "handle_abort=0");
    child.setProcessEnvironment(environment);
    child.start();
    QVERIFY(child.waitForFinished(30000));
    QVERIFY(child.exitStatus() == QProcess::CrashExit || child.exitCode() != 0);
    QCOMPARE(logLines(dir.filePath("orvix.log")), QStringList { "FATAL core: the end" });
    QVERIFY(child.readAllStandardOutput().contains("    FATAL                core the end\n"));
}

// Run as a child process, the test binary logs one fatal message through the handler and dies.
static int fatalChild(const QString &logPath)
{
    static LogCli cli;
    static LogFile file(logPath, logPath + ".old");
    file.configure(QVariantMap());
    MessageHandler::install(&file, &cli);
    QMessageLogger(nullptr, 0, nullptr, "core").fatal("the end");
    return 0;
}

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QByteArray childLog = qgetenv("ORVIX_FATAL_CHILD_LOG");
    if (!childLog.isEmpty())
        return fatalChild(QString::fromUtf8(childLog));
    tst_MessageHandler test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_messagehandler.moc"
