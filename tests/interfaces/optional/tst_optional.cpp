#include "optional.h"

#include <QProcess>
#include <QtTest>

class tst_Optional : public QObject
{
    Q_OBJECT

private slots:
    void readsPresentValue();
    void absentValueEndsProcess();
};

void tst_Optional::readsPresentValue()
{
    const std::optional<quint32> constant(7u);
    QCOMPARE(orvix::optionalValue(constant), 7u);
    std::optional<QString> text(QStringLiteral("a"));
    orvix::optionalValue(text).append(QLatin1Char('b'));
    QCOMPARE(*text, QStringLiteral("ab"));
}

void tst_Optional::absentValueEndsProcess()
{
    // Reading an absent value ends the process, so the read runs in a second copy of this program.
    if (qEnvironmentVariableIsSet("ORVIX_READ_ABSENT_OPTIONAL")) {
        const std::optional<bool> absent;
        const bool value = orvix::optionalValue(absent);
        QFAIL(value ? "read an absent optional as true" : "read an absent optional as false");
    }
    QProcess child;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("ORVIX_READ_ABSENT_OPTIONAL"), QStringLiteral("1"));
    child.setProcessEnvironment(environment);
    child.setProcessChannelMode(QProcess::MergedChannels);
    child.start(QCoreApplication::applicationFilePath(), { QStringLiteral("absentValueEndsProcess") });
    QVERIFY(child.waitForFinished(30000));
    const QByteArray output = child.readAll();
    QVERIFY2(child.exitStatus() == QProcess::CrashExit || child.exitCode() != 0, output.constData());
    QVERIFY2(output.contains("Optional has no value"), output.constData());
}

QTEST_GUILESS_MAIN(tst_Optional)

#include "tst_optional.moc"
