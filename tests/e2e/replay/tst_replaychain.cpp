#include "isolatedservice.h"
#include "testsupport.h"

#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

using namespace TestSupport;

namespace {

// In an expected line this text stands for a time stamp made while the case ran: a replayed line without one, or
// a dataset that the limiter sends on its own.
const QString Now = QStringLiteral("<now>");

QStringList lines(const QByteArray &content)
{
    return QString::fromUtf8(content).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

/** Replaces in actual every time stamp that expected has as <now>, if it lies within the run. */
QJsonValue matchNow(const QJsonValue &expected, const QJsonValue &actual, const QDateTime &from, const QDateTime &to)
{
    if (expected.toString() == Now && actual.isString()) {
        const QDateTime time = QDateTime::fromString(actual.toString(), Qt::ISODateWithMs);
        return time.isValid() && time >= from && time <= to ? QJsonValue(Now) : actual;
    }
    if (expected.isObject() && actual.isObject()) {
        QJsonObject object = actual.toObject();
        const QJsonObject pattern = expected.toObject();
        for (auto it = pattern.begin(); it != pattern.end(); ++it) {
            if (object.contains(it.key()))
                object.insert(it.key(), matchNow(it.value(), object.value(it.key()), from, to));
        }
        return object;
    }
    if (expected.isArray() && actual.isArray()) {
        QJsonArray array = actual.toArray();
        const QJsonArray pattern = expected.toArray();
        for (int index = 0; index < qMin(array.size(), pattern.size()); ++index)
            array.replace(index, matchNow(pattern.at(index), array.at(index), from, to));
        return array;
    }
    return actual;
}

QString compact(const QJsonValue &value)
{
    return QString::fromUtf8(QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact));
}

} // namespace

/**
 * Replays each case folder of tests/e2e/cases through the real service and its whole processor chain into the jsonl
 * target, and compares what arrives with the case's expected lines. A case is a folder with orvix.ini, input.jsonl,
 * expected.jsonl and, when the run logs warnings, expected.log with every warning line of the service's log.
 */
class tst_ReplayChain : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void chain_data();
    void chain();
};

void tst_ReplayChain::initTestCase()
{
    if (!IsolatedService::available())
        QSKIP("needs root and unshare for a private mount namespace");
}

void tst_ReplayChain::chain_data()
{
    QTest::addColumn<QString>("folder");
    QDirIterator cases(QStringLiteral(ORVIX_SOURCE_DIR "/tests/e2e/cases"), QDir::Dirs | QDir::NoDotAndDotDot);
    QStringList folders;
    while (cases.hasNext())
        folders.append(cases.next());
    folders.sort();
    QVERIFY(!folders.isEmpty());
    for (const QString &folder : qAsConst(folders))
        QTest::newRow(qPrintable(QFileInfo(folder).fileName())) << folder;
}

void tst_ReplayChain::chain()
{
    QFETCH(QString, folder);
    IsolatedService service;
    QVERIFY(QFile::copy(ORVIX_PLUGIN_BUILD_DIR "/libreplay.so", service.pluginDir() + "/libreplay.so"));
    QVERIFY(QFile::copy(ORVIX_PLUGIN_BUILD_DIR "/libjsonl.so", service.pluginDir() + "/libjsonl.so"));
    // The case's INI names the input as /etc/orvix/input.jsonl and the output as /var/log/orvix/output.jsonl.
    service.writeConfig(readFile(folder + "/orvix.ini"));
    // Every other file of the case (an XML comment file, say) is there for the configuration to name.
    const QStringList caseFiles = QDir(folder).entryList(QDir::Files);
    for (const QString &file : caseFiles) {
        if (file != "orvix.ini" && !file.startsWith("expected."))
            QVERIFY(QFile::copy(folder + "/" + file, service.etcDir() + "/" + file));
    }
    const QStringList expected = lines(readFile(folder + "/expected.jsonl"));
    const QStringList expectedWarnings = lines(readFile(folder + "/expected.log"));
    const QString output = service.logDir() + "/output.jsonl";

    const QDateTime from = QDateTime::currentDateTimeUtc().addSecs(-1);
    QVERIFY(service.start());
    QTRY_VERIFY_WITH_TIMEOUT(
        !service.logLines().filter(QRegularExpression("^INFO replay: \"Finished replaying /etc/orvix/input")).isEmpty(),
        20000);
    QTRY_VERIFY_WITH_TIMEOUT(lines(readFile(output)).size() >= expected.size(), 20000);
    // Long enough for a dataset that should not come to show up after the expected ones.
    QTest::qWait(500);
    service.stop();
    const QDateTime to = QDateTime::currentDateTimeUtc().addSecs(1);

    const QStringList actual = lines(readFile(output));
    QStringList warnings;
    for (const QString &line : service.logLines()) {
        if (!line.startsWith(QLatin1String("INFO")) && !line.startsWith(QLatin1String("DEBUG")))
            warnings.append(line);
    }
    if (warnings != expectedWarnings)
        qInfo().noquote() << "Warnings of the case:\n" + warnings.join(QLatin1Char('\n'));
    if (actual.size() != expected.size())
        qInfo().noquote() << "Output of the case:\n" + actual.join(QLatin1Char('\n'));
    for (int index = 0; index < qMin(actual.size(), expected.size()); ++index) {
        const QJsonObject pattern = QJsonDocument::fromJson(expected.at(index).toUtf8()).object();
        QVERIFY2(!pattern.isEmpty(), qPrintable("expected line " + QString::number(index + 1) + " is no object"));
        const QJsonValue line = QJsonDocument::fromJson(actual.at(index).toUtf8()).object();
        QCOMPARE(compact(matchNow(pattern, line, from, to)), compact(pattern));
    }
    QCOMPARE(actual.size(), expected.size());

    QCOMPARE(warnings, expectedWarnings);
}

QTEST_GUILESS_MAIN(tst_ReplayChain)
#include "tst_replaychain.moc"
