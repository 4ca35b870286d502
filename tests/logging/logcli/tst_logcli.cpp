#include "logcli.h"
#include "logcontext.h"

#include <QRegularExpression>
#include <QtTest>

#include <fcntl.h>
#include <unistd.h>

namespace {

/** A pipe whose write end is a FILE*, so a test sees only what the sink has flushed. */
struct Pipe
{
    Pipe()
    {
        if (pipe(fds) == 0) {
            fcntl(fds[0], F_SETFL, O_NONBLOCK);
            out = fdopen(fds[1], "w");
        }
    }
    ~Pipe()
    {
        if (out)
            fclose(out);
        close(fds[0]);
    }
    QByteArray readAvailable()
    {
        QByteArray data;
        char buffer[4096];
        ssize_t n;
        while ((n = read(fds[0], buffer, sizeof buffer)) > 0)
            data.append(buffer, int(n));
        return data;
    }
    int fds[2] = { -1, -1 };
    FILE *out = nullptr;
};

} // namespace

class tst_LogCli : public QObject
{
    Q_OBJECT

private slots:
    void alignedLine_data();
    void alignedLine();
    void longCategoryIsNotCut();
    void everyLineIsFlushed();
    void utf8Text();
};

void tst_LogCli::alignedLine_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("tail");
    QTest::newRow("info") << int(QtInfoMsg) << "     INFO                core \"text\"\n";
    QTest::newRow("debug") << int(QtDebugMsg) << "    DEBUG                core \"text\"\n";
    QTest::newRow("warning") << int(QtWarningMsg) << "  WARNING                core \"text\"\n";
    QTest::newRow("critical") << int(QtCriticalMsg) << " CRITICAL                core \"text\"\n";
    QTest::newRow("fatal") << int(QtFatalMsg) << "    FATAL                core \"text\"\n";
    QTest::newRow("unknown") << 9 << "                         core \"text\"\n";
}

void tst_LogCli::alignedLine()
{
    QFETCH(int, type);
    QFETCH(QString, tail);
    Pipe pipe;
    LogCli cli(pipe.out);
    cli.write(QtMsgType(type), LogContext("core"), "\"text\"");
    const QString line = QString::fromUtf8(pipe.readAvailable());
    QVERIFY2(QRegularExpression("^\\d\\d:\\d\\d:\\d\\d").match(line).hasMatch(), qPrintable(line));
    QCOMPARE(line.mid(8), tail);
}

void tst_LogCli::longCategoryIsNotCut()
{
    Pipe pipe;
    LogCli cli(pipe.out);
    cli.write(QtWarningMsg, LogContext("abcdefghijklmnopqrstuvwxy"), "pushed");
    QCOMPARE(
        QString::fromUtf8(pipe.readAvailable()).mid(8), QStringLiteral("  WARNINGabcdefghijklmnopqrstuvwxy pushed\n"));
}

void tst_LogCli::everyLineIsFlushed()
{
    Pipe pipe;
    LogCli cli(pipe.out);
    for (int i = 0; i < 3; ++i) {
        cli.write(QtInfoMsg, LogContext("core"), QString::number(i));
        QVERIFY(pipe.readAvailable().endsWith(QByteArray::number(i) + '\n'));
    }
}

void tst_LogCli::utf8Text()
{
    Pipe pipe;
    LogCli cli(pipe.out);
    cli.write(QtInfoMsg, LogContext("core"),
        QString::fromUtf8("Gr\xc3\xbc\xc3\x9f"
                          "e"));
    QVERIFY(pipe.readAvailable().endsWith("core Gr\xc3\xbc\xc3\x9f"
                                          "e\n"));
}

QTEST_GUILESS_MAIN(tst_LogCli)
#include "tst_logcli.moc"
