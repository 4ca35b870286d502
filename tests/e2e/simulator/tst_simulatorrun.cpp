#include "datasetcodec.h"
#include "isolatedservice.h"
#include "mmdatasets.h"
#include "testsupport.h"

#include <QSet>
#include <QtTest>

using namespace TestSupport;

namespace {

const QStringList Machines { "sim1", "sim2", "sim3" };
const QStringList EveryKind { "StateV1", "GeneralV1", "ConditionDefinitionsV2", "ConditionDatasV2" };

QList<QByteArray> datasetLines(const QByteArray &content)
{
    QList<QByteArray> found;
    for (const QByteArray &line : content.split('\n')) {
        if (line.startsWith('{'))
            found.append(line);
    }
    return found;
}

/** Which kinds of dataset each machine has sent so far. */
QHash<QString, QSet<QString>> kinds(const QList<QByteArray> &lines)
{
    QHash<QString, QSet<QString>> found;
    for (const QByteArray &line : lines) {
        DatasetCodec::Dataset dataset;
        if (DatasetCodec::decodeLine(line, &dataset))
            found[dataset.machine].insert(QString::fromLatin1(dataset.data.typeName()));
    }
    return found;
}

bool everyMachineSentEveryKind(const QList<QByteArray> &lines)
{
    const QHash<QString, QSet<QString>> found = kinds(lines);
    for (const QString &machine : Machines) {
        for (const QString &kind : EveryKind) {
            if (!found.value(machine).contains(kind))
                return false;
        }
    }
    return true;
}

/**
 * Condition values whose definition is not in the lines before them, as "line: id"; and in *defined the ids defined,
 * so that a caller can tell that the definitions it expects went out at all.
 */
QStringList undefinedValues(const QList<QByteArray> &lines, QSet<QString> *defined)
{
    QStringList found;
    for (int index = 0; index < lines.size(); ++index) {
        DatasetCodec::Dataset dataset;
        if (!DatasetCodec::decodeLine(lines.at(index), &dataset))
            continue;
        if (dataset.data.userType() == qMetaTypeId<ConditionDefinitionsV2>()) {
            for (const ConditionDefinitionV2 &definition : qvariant_cast<ConditionDefinitionsV2>(dataset.data).items)
                defined->insert(definition.id);
        } else if (dataset.data.userType() == qMetaTypeId<ConditionDatasV2>()) {
            for (const ConditionDataV2 &value : qvariant_cast<ConditionDatasV2>(dataset.data).items) {
                if (!defined->contains(value.id))
                    found.append(QStringLiteral("%1: %2").arg(index + 1).arg(value.id));
            }
        }
    }
    return found;
}

/** Whether every machine's nameplate and state have been defined. */
bool everyMachineDefined(const QList<QByteArray> &lines)
{
    QSet<QString> defined;
    undefinedValues(lines, &defined);
    for (const QString &machine : Machines) {
        if (!defined.contains(machine + "/Identification/SerialNumber")
            || !defined.contains(machine + "/State/Machine/Flags/MachineOn")
            || !defined.contains(machine + "/State/Machine/Values/AbsolutePowerPresentTime"))
            return false;
    }
    return true;
}

QStringList warnings(const QStringList &logLines)
{
    QStringList found;
    for (const QString &line : logLines) {
        if (!line.startsWith(QLatin1String("INFO")) && !line.startsWith(QLatin1String("DEBUG")))
            found.append(line);
    }
    return found;
}

const QByteArray Configuration = "[core]\n"
                                 "log=\"*.debug=false\"\n"
                                 "[simulator]\n"
                                 "machines=3\n"
                                 "interval=50\n"
                                 "seed=11\n"
                                 "[limit]\n"
                                 "waitTime=200\n"
                                 "keepAliveTime=1000\n";

} // namespace

/**
 * The simulator in the real service, through the whole processor chain into the jsonl target: every machine's
 * datasets arrive, are valid, and make no warning on their way.
 */
class tst_SimulatorRun : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void everyMachineArrivesValid();
    void datasetsOnStandardOutput();
    void definitionsBeforeValues_data();
    void definitionsBeforeValues();

private:
    void installPlugins(IsolatedService &service);
};

void tst_SimulatorRun::initTestCase()
{
    if (!IsolatedService::available())
        QSKIP("needs root and unshare for a private mount namespace");
}

void tst_SimulatorRun::installPlugins(IsolatedService &service)
{
    QVERIFY(QFile::copy(ORVIX_PLUGIN_BUILD_DIR "/libsimulator.so", service.pluginDir() + "/libsimulator.so"));
    QVERIFY(QFile::copy(ORVIX_PLUGIN_BUILD_DIR "/libjsonl.so", service.pluginDir() + "/libjsonl.so"));
}

void tst_SimulatorRun::everyMachineArrivesValid()
{
    IsolatedService service;
    installPlugins(service);
    if (QTest::currentTestFailed())
        return;
    service.writeConfig(Configuration + "[jsonl]\nfile=/var/log/orvix/datasets/output.jsonl\n");
    const QString output = service.logDir() + "/datasets/output.jsonl";

    QElapsedTimer running;
    running.start();
    QVERIFY(service.start());
    QTRY_VERIFY_WITH_TIMEOUT(everyMachineSentEveryKind(datasetLines(readFile(output))), 30000);
    // A few seconds of the machines' days: at 50 ms a round that is a hundred rounds and more.
    QTest::qWait(int(qMax<qint64>(0, 3000 - running.elapsed())));
    service.stop();

    const QList<QByteArray> lines = datasetLines(readFile(output));
    QCOMPARE(lines.size(), readFile(output).count('\n'));
    QHash<QString, GeneralV1> lastGeneral;
    QSet<qint32> states;
    for (const QByteArray &line : lines) {
        DatasetCodec::Dataset dataset;
        QString error;
        QVERIFY2(DatasetCodec::decodeLine(line, &dataset, &error), qPrintable(error + ": " + line));
        QVERIFY2(Machines.contains(dataset.machine), line.constData());
        QVERIFY2(dataset.timestamp.isValid(), line.constData());
        const QString type = QString::fromLatin1(dataset.data.typeName());
        if (type == QLatin1String("StateV1")) {
            const qint32 state = qvariant_cast<StateV1>(dataset.data).state;
            QVERIFY2(state >= 1 && state <= 7, line.constData());
            states.insert(state);
        } else if (type == QLatin1String("GeneralV1")) {
            const GeneralV1 general = qvariant_cast<GeneralV1>(dataset.data);
            const GeneralV1 before = lastGeneral.value(dataset.machine);
            QVERIFY2(general.powerOnHours >= before.powerOnHours && general.pieces >= before.pieces
                    && general.length >= before.length,
                line.constData());
            lastGeneral.insert(dataset.machine, general);
        } else {
            QVERIFY2(type == QLatin1String("ConditionDefinitionsV2") || type == QLatin1String("ConditionDatasV2")
                    || type.startsWith(QLatin1String("Notifications")),
                line.constData());
        }
    }
    QVERIFY2(states.size() >= 2, "the machines' states never changed");

    const QStringList logLines = service.logLines();
    QVERIFY(logLines.contains("INFO simulator: \"Simulating sim1, sim2, sim3 every 50 ms with seed 11\""));
    QVERIFY(logLines.contains("INFO jsonl: \"Writing datasets to /var/log/orvix/datasets/output.jsonl\""));
    QCOMPARE(warnings(logLines), QStringList());
}

void tst_SimulatorRun::datasetsOnStandardOutput()
{
    IsolatedService service;
    installPlugins(service);
    if (QTest::currentTestFailed())
        return;
    service.writeConfig(Configuration + "[jsonl]\nfile=-\n");
    QVERIFY(service.start());
    QTRY_VERIFY_WITH_TIMEOUT(everyMachineSentEveryKind(datasetLines(service.output())), 30000);
    const QByteArray output = service.stop();

    // Log lines and dataset lines take turns on standard output, each whole.
    const QList<QByteArray> all = output.split('\n');
    int logLines = 0;
    for (const QByteArray &line : all) {
        if (line.isEmpty() || line.startsWith('{'))
            continue;
        QVERIFY2(QRegularExpression("^\\d\\d:\\d\\d:\\d\\d +[A-Z]+ +\\S+ ").match(QString::fromUtf8(line)).hasMatch(),
            line.constData());
        ++logLines;
    }
    QVERIFY(logLines >= 3);
    QVERIFY(output.contains("INFO               jsonl \"Writing datasets to standard output\"\n"));
    for (const QByteArray &line : datasetLines(output)) {
        DatasetCodec::Dataset dataset;
        QString error;
        QVERIFY2(DatasetCodec::decodeLine(line, &dataset, &error), qPrintable(error + ": " + line));
    }
    QCOMPARE(warnings(service.logLines()), QStringList());
}

void tst_SimulatorRun::definitionsBeforeValues_data()
{
    QTest::addColumn<int>("waitTime");
    QTest::addColumn<int>("interval");
    QTest::newRow("waitTime 300 ms") << 300 << 50;
    // The shipped wait time, with shorter rounds so that many values are held meanwhile.
    QTest::newRow("waitTime 10 s") << 10000 << 200;
}

void tst_SimulatorRun::definitionsBeforeValues()
{
    QFETCH(int, waitTime);
    QFETCH(int, interval);
    IsolatedService service;
    installPlugins(service);
    if (QTest::currentTestFailed())
        return;
    service.writeConfig(QStringLiteral("[core]\nlog=\"*.debug=false\"\n"
                                       "[simulator]\nmachines=3\ninterval=%1\nseed=11\n"
                                       "[limit]\nwaitTime=%2\nkeepAliveTime=60000\n"
                                       "[jsonl]\nfile=/var/log/orvix/datasets/output.jsonl\n")
                            .arg(interval)
                            .arg(waitTime)
                            .toUtf8());
    const QString output = service.logDir() + "/datasets/output.jsonl";
    QVERIFY(service.start());
    QTRY_VERIFY_WITH_TIMEOUT(everyMachineDefined(datasetLines(readFile(output))), waitTime + 15000);
    // A whole wait time and more, so that values Limit held have left too.
    QTest::qWait(waitTime + 1000);
    service.stop();

    QSet<QString> defined;
    const QStringList undefined = undefinedValues(datasetLines(readFile(output)), &defined);
    QVERIFY2(undefined.isEmpty(), qPrintable(undefined.mid(0, 10).join(QLatin1String(", "))));
    QCOMPARE(warnings(service.logLines()), QStringList());
}

QTEST_GUILESS_MAIN(tst_SimulatorRun)
#include "tst_simulatorrun.moc"
