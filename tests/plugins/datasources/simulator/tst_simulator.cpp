#include "simulator.h"

#include "datasetcodec.h"
#include "logcapture.h"
#include "mmdatasets.h"
#include "opcuatommmapper.h"
#include "pluginchecks.h"
#include "validator.h"
#include "wwtypes.h"

#include <QSet>
#include <QSignalSpy>
#include <QtTest>

namespace {

const char *const Received = SIGNAL(dataReceived(QDateTime, QString, QString, QVariant));
const QDateTime Start = QDateTime::fromMSecsSinceEpoch(1714979289000, Qt::UTC);

using Dataset = DatasetCodec::Dataset;

/** A simulator on a clock that moves by the interval at every round, run for the given number of rounds. */
QList<Dataset> simulate(const QVariantMap &group, int rounds)
{
    Simulator simulator;
    QList<Dataset> datasets;
    QObject::connect(
        &simulator, &Simulator::dataReceived, [&](QDateTime timestamp, QString machine, QString source, QVariant data) {
            datasets.append({ timestamp, machine, source, data });
        });
    const qint64 interval = group.value("interval", 1000).toLongLong();
    qint64 round = 0;
    simulator.setClock([&] { return Start.addMSecs(round * interval); });
    QVariantMap shared;
    simulator.init(QVariantMap { { "simulator", group } }, shared);
    for (round = 0; round < rounds; ++round)
        simulator.tick();
    return datasets;
}

QList<QByteArray> encoded(const QList<Dataset> &datasets)
{
    QList<QByteArray> lines;
    for (const Dataset &dataset : datasets)
        lines.append(DatasetCodec::encodeLine(dataset.timestamp, dataset.machine, dataset.source, dataset.data));
    return lines;
}

QString typeOf(const Dataset &dataset)
{
    return QString::fromLatin1(dataset.data.typeName());
}

QString describe(const Dataset &dataset)
{
    return QString::fromUtf8(
        DatasetCodec::encodeLine(dataset.timestamp, dataset.machine, dataset.source, dataset.data));
}

/** Every optional counter of a values block, by name. */
QHash<QString, std::optional<quint64>> counters(const WwStateValues &values)
{
    QHash<QString, std::optional<quint64>> found;
    WwStateValues::visitFields([&](const char *name, auto member) {
        if constexpr (std::is_same_v<decltype(member), std::optional<quint64> WwStateValues::*>)
            found.insert(QString::fromLatin1(name), values.*member);
    });
    return found;
}

/** The rounds of a long run of three machines: long enough for every stage of a day to come up many times. */
const QVariantMap LongRun { { "machines", "3" }, { "seed", "20240506" }, { "interval", "1000" } };
constexpr int LongRounds = 20000;

} // namespace

class tst_Simulator : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void metadata();
    void sampleIniDocumentsEverySetting();
    void readmeQuotesSampleIni();
    void readmeListsEveryKey();
    void defaultSettings();
    void namesAndInterval();
    void invalidSettings_data();
    void invalidSettings();
    void nameplateFirst();
    void definitionsFirstAsTheMappingMakesThem();
    void sameSeedSameRun();
    void machineIndependentOfOthers();
    void timerDrivesTheRounds();
    void countersOnlyGrow();
    void flagsAgreeWithTheState();
    void offlineNowAndThen();
    void eventsFollowTheState();
    void mappedDatasetsAreValid();

private:
    QList<Dataset> m_longRun;
    LogCapture m_log { QStringLiteral("simulator") };
};

void tst_Simulator::initTestCase()
{
    m_longRun = simulate(LongRun, LongRounds);
}

void tst_Simulator::init()
{
    m_log.start();
}

void tst_Simulator::cleanup()
{
    m_log.stop();
}

void tst_Simulator::metadata()
{
    PluginChecks::checkDatasourceLibrary("simulator", "simulator");
}

void tst_Simulator::sampleIniDocumentsEverySetting()
{
    PluginChecks::checkSampleIni("datasources/simulator", "simulator", Simulator::settings().keys());
}

void tst_Simulator::readmeQuotesSampleIni()
{
    PluginChecks::checkReadmeQuotesSampleIni("datasources/simulator");
}

void tst_Simulator::readmeListsEveryKey()
{
    PluginChecks::checkReadmeKeyTable("datasources/simulator", Simulator::settings().keys());
}

void tst_Simulator::defaultSettings()
{
    Simulator simulator;
    QSignalSpy spy(&simulator, Received);
    QVariantMap shared;
    QVERIFY(simulator.init(QVariantMap(), shared));
    QCOMPARE(m_log.lines(),
        QStringList {
            m_log.info(QStringLiteral("Simulating sim1, sim2 every 1000 ms with seed %1").arg(simulator.seed())) });
    simulator.tick();
    QCOMPARE(spy.count(), 6);
    const QStringList expected { "sim1 ConditionDefinitionsV2", "sim1 WwIdentification", "sim1 WwState",
        "sim2 ConditionDefinitionsV2", "sim2 WwIdentification", "sim2 WwState" };
    for (int index = 0; index < spy.count(); ++index) {
        QCOMPARE(spy.at(index).at(1).toString() + ' ' + spy.at(index).at(3).typeName(), expected.at(index));
        QCOMPARE(spy.at(index).at(2).toString(), QStringLiteral("simulator"));
    }

    // Without a seed every start draws a new one.
    Simulator other;
    QVERIFY(other.init(QVariantMap(), shared));
    QVERIFY(other.seed() != simulator.seed());
}

void tst_Simulator::namesAndInterval()
{
    const QList<Dataset> datasets
        = simulate({ { "machines", "5" }, { "prefix", "press" }, { "interval", "250" }, { "seed", "7" } }, 1);
    QCOMPARE(m_log.lines(), QStringList { m_log.info("Simulating press1 to press5 every 250 ms with seed 7") });
    QStringList machines;
    for (const Dataset &dataset : datasets) {
        if (typeOf(dataset) == QLatin1String("WwIdentification"))
            machines.append(dataset.machine);
    }
    QCOMPARE(machines, (QStringList { "press1", "press2", "press3", "press4", "press5" }));

    m_log.clear();
    simulate({ { "machines", "1" }, { "prefix", "" }, { "seed", "18446744073709551615" } }, 1);
    QCOMPARE(m_log.lines(), QStringList { m_log.info("Simulating 1 every 1000 ms with seed 18446744073709551615") });
}

void tst_Simulator::invalidSettings_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("message");
    QTest::newRow("no machines") << "machines"
                                 << "0"
                                 << "Value 0 of machines is not valid, using 2";
    QTest::newRow("too many machines") << "machines"
                                       << "1001"
                                       << "Value 1001 of machines is not valid, using 2";
    QTest::newRow("machines text") << "machines"
                                   << "many"
                                   << "Value many of machines is not valid, using 2";
    QTest::newRow("interval 0") << "interval"
                                << "0"
                                << "Value 0 of interval is not valid, using 1000";
    QTest::newRow("interval text") << "interval"
                                   << "1s"
                                   << "Value 1s of interval is not valid, using 1000";
    QTest::newRow("seed") << "seed"
                          << "-3"
                          << "Value -3 of seed is not valid, using a new one";
}

void tst_Simulator::invalidSettings()
{
    QFETCH(QString, key);
    QFETCH(QString, value);
    QFETCH(QString, message);
    Simulator simulator;
    QVariantMap shared;
    QVERIFY(simulator.init(QVariantMap { { "simulator", QVariantMap { { key, value } } } }, shared));
    QCOMPARE(m_log.lines().size(), 2);
    QCOMPARE(m_log.lines().first(), m_log.warning(message));
    QCOMPARE(m_log.lines().last(),
        m_log.info(QStringLiteral("Simulating sim1, sim2 every 1000 ms with seed %1").arg(simulator.seed())));
}

void tst_Simulator::nameplateFirst()
{
    const QList<Dataset> datasets = simulate({ { "machines", "2" }, { "seed", "1" } }, 3);
    QStringList order;
    for (const Dataset &dataset : datasets)
        order.append(dataset.machine + ' ' + typeOf(dataset));
    QCOMPARE(order.mid(0, 8),
        (QStringList { "sim1 ConditionDefinitionsV2", "sim1 WwIdentification", "sim1 WwState",
            "sim2 ConditionDefinitionsV2", "sim2 WwIdentification", "sim2 WwState", "sim1 WwState", "sim2 WwState" }));

    const WwIdentification nameplate = qvariant_cast<WwIdentification>(datasets.at(1).data);
    QCOMPARE(nameplate.Name, QStringLiteral("sim1"));
    QCOMPARE(nameplate.ProductInstanceUri, QStringLiteral("urn:orvix:simulator:sim1"));
    QVERIFY(!nameplate.Manufacturer.isEmpty());
    QVERIFY(!nameplate.Model.isEmpty());
    QVERIFY(!nameplate.DeviceClass.isEmpty());
    QVERIFY(QRegularExpression("^SIM-\\d{6}$").match(nameplate.SerialNumber).hasMatch());
    QVERIFY(nameplate.YearOfConstruction >= 2008 && nameplate.YearOfConstruction <= 2023);
    QVERIFY(
        nameplate.MonthOfConstruction && *nameplate.MonthOfConstruction >= 1 && *nameplate.MonthOfConstruction <= 12);
    QVERIFY(nameplate.InitialOperationDate && nameplate.InitialOperationDate->isValid());
    QVERIFY(qvariant_cast<WwIdentification>(datasets.at(4).data).DeviceClass != nameplate.DeviceClass);

    // The first round shows the machine switched off, as it is found in the morning.
    const WwState first = qvariant_cast<WwState>(datasets.at(2).data);
    QCOMPARE(first.MachineState, 1u);
    QVERIFY(first.Flags && !first.Flags->MachineOn && first.Flags->PowerPresent);
}

void tst_Simulator::definitionsFirstAsTheMappingMakesThem()
{
    OpcUaToMMMapper mapper;
    QVariantMap shared;
    mapper.init(QVariantMap(), shared);
    QHash<QString, ConditionDefinitionV2> first;
    QSet<QString> defined;
    int mappedLists = 0;
    connect(&mapper, &OpcUaToMMMapper::dataProcessed, [&](QDateTime, QString machine, QString, QVariant data) {
        if (data.userType() != qMetaTypeId<ConditionDefinitionsV2>())
            return;
        const QList<ConditionDefinitionV2> items = qvariant_cast<ConditionDefinitionsV2>(data).items;
        if (!defined.contains(machine)) {
            // The simulator's own list, passed on unchanged: the machine's first.
            defined.insert(machine);
            for (const ConditionDefinitionV2 &definition : items) {
                QVERIFY2(definition.id.startsWith(machine + '/'), qPrintable(definition.id));
                first.insert(definition.id, definition);
            }
            return;
        }
        ++mappedLists;
        for (const ConditionDefinitionV2 &definition : items) {
            QVERIFY2(first.contains(definition.id), qPrintable(definition.id));
            QVERIFY2(first.value(definition.id) == definition, qPrintable(definition.id));
            first.remove(definition.id);
        }
    });
    for (const Dataset &dataset : qAsConst(m_longRun)) {
        // No value comes before its machine's definitions.
        QVERIFY2(defined.contains(dataset.machine) || typeOf(dataset) == QLatin1String("ConditionDefinitionsV2"),
            qPrintable(describe(dataset)));
        mapper.processData(dataset.timestamp, dataset.machine, dataset.source, dataset.data);
    }
    // The mapping defined every condition of the simulator's lists once more, in a nameplate's and a state's list.
    QCOMPARE(mappedLists, 3 * 2);
    QCOMPARE(first.keys(), QList<QString>());
}

void tst_Simulator::sameSeedSameRun()
{
    const QVariantMap group { { "machines", "3" }, { "seed", "42" } };
    const QList<QByteArray> first = encoded(simulate(group, 3000));
    const QList<QByteArray> second = encoded(simulate(group, 3000));
    QVERIFY(first.size() > 9000);
    QCOMPARE(first.size(), second.size());
    for (int index = 0; index < first.size(); ++index)
        QCOMPARE(second.at(index), first.at(index));

    QVERIFY(encoded(simulate({ { "machines", "3" }, { "seed", "43" } }, 3000)) != first);
}

void tst_Simulator::machineIndependentOfOthers()
{
    QList<QByteArray> alone;
    for (const Dataset &dataset : simulate({ { "machines", "1" }, { "seed", "5" } }, 2000))
        alone.append(describe(dataset).toUtf8());
    QList<QByteArray> withOthers;
    for (const Dataset &dataset : simulate({ { "machines", "4" }, { "seed", "5" } }, 2000)) {
        if (dataset.machine == QLatin1String("sim1"))
            withOthers.append(describe(dataset).toUtf8());
    }
    QCOMPARE(withOthers, alone);
}

void tst_Simulator::timerDrivesTheRounds()
{
    Simulator simulator;
    QSignalSpy spy(&simulator, Received);
    QVariantMap shared;
    const QDateTime before = QDateTime::currentDateTimeUtc();
    // Seeded, so that the machine is not one of the few that go offline within the first rounds.
    QVERIFY(simulator.init(
        QVariantMap { { "simulator", QVariantMap { { "machines", "1" }, { "interval", "5" }, { "seed", "1" } } } },
        shared));
    QCOMPARE(spy.count(), 0);
    QTRY_VERIFY(spy.count() >= 22);
    const QDateTime last = spy.at(21).at(0).toDateTime();
    QCOMPARE(last.timeSpec(), Qt::UTC);
    QVERIFY(last >= before);
    QVERIFY(last <= QDateTime::currentDateTimeUtc());

    // Each round moves the machine's clock on by the interval.
    const WwState second = qvariant_cast<WwState>(spy.at(3).at(3));
    const WwState third = qvariant_cast<WwState>(spy.at(4).at(3));
    QCOMPARE(*third.Values->AbsolutePowerPresentTime - *second.Values->AbsolutePowerPresentTime, quint64(5));
}

void tst_Simulator::countersOnlyGrow()
{
    QHash<QString, WwStateValues> last;
    int states = 0;
    for (const Dataset &dataset : qAsConst(m_longRun)) {
        if (typeOf(dataset) != QLatin1String("WwState"))
            continue;
        ++states;
        const WwState state = qvariant_cast<WwState>(dataset.data);
        QVERIFY(state.Values);
        const WwStateValues &values = *state.Values;
        const auto now = counters(values);
        QCOMPARE(now.size(), 31);
        for (auto it = now.cbegin(); it != now.cend(); ++it)
            QVERIFY2(it.value().has_value(), qPrintable(it.key()));

        if (last.contains(dataset.machine)) {
            const auto before = counters(last.value(dataset.machine));
            for (auto it = now.cbegin(); it != now.cend(); ++it) {
                if (*it.value() < *before.value(it.key()))
                    QFAIL(qPrintable(it.key() + " went down: " + describe(dataset)));
            }
            // An offline machine's counters stand still.
            if (state.MachineState == 0)
                QVERIFY(now == before);
        }
        last.insert(dataset.machine, values);

        // The counters add up: power present is on or off, on is one of four machine states, working is with or
        // without a workpiece, and every run ends good or aborted.
        QCOMPARE(*values.AbsoluteMachineOnTime + *values.AbsoluteMachineOffTime, *values.AbsolutePowerPresentTime);
        QCOMPARE(*values.RelativeStandbyTime + *values.RelativeReadyTime + *values.RelativeWorkingTime
                + *values.RelativeErrorTime,
            *values.RelativeMachineOnTime);
        QCOMPARE(*values.RelativeProductionTime + *values.RelativeProductionWithoutWorkpieceTime,
            *values.RelativeWorkingTime);
        QCOMPARE(*values.AbsoluteRunsGood + *values.AbsoluteRunsAborted, *values.AbsoluteRunsTotal);
        QCOMPARE(*values.AbsoluteRunsGood, *values.AbsolutePiecesOut);
        const quint64 inside = *values.AbsolutePiecesIn - *values.AbsolutePiecesOut - *values.AbsoluteRunsAborted;
        QVERIFY(inside <= 1);
        for (const QString &name : now.keys()) {
            if (name.startsWith(QLatin1String("Relative")))
                QVERIFY(*now.value(name) <= *now.value(QStringLiteral("Absolute") + name.mid(8)));
        }
    }
    QCOMPARE(states, 3 * LongRounds);

    // The run produced something: pieces and length grew on every machine.
    for (auto it = last.cbegin(); it != last.cend(); ++it) {
        QVERIFY2(*it.value().RelativePiecesOut > 100, qPrintable(it.key()));
        QVERIFY2(*it.value().RelativeLength > 100000, qPrintable(it.key()));
        QVERIFY2(*it.value().RelativeRunsAborted > 0, qPrintable(it.key()));
    }
}

void tst_Simulator::flagsAgreeWithTheState()
{
    for (const Dataset &dataset : qAsConst(m_longRun)) {
        if (typeOf(dataset) != QLatin1String("WwState"))
            continue;
        const WwState state = qvariant_cast<WwState>(dataset.data);
        const QString text = describe(dataset);
        QVERIFY2(state.Flags, qPrintable(text));
        const WwStateFlags &flags = *state.Flags;
        bool anyTrue = false;
        WwStateFlags::visitFields([&](const char *, auto member) {
            if constexpr (std::is_same_v<decltype(member), std::optional<bool> WwStateFlags::*>) {
                QVERIFY2((flags.*member).has_value(), qPrintable(text));
                anyTrue = anyTrue || *(flags.*member);
            } else {
                anyTrue = anyTrue || flags.*member;
            }
        });
        const quint32 machineState = state.MachineState;
        const quint32 mode = state.OperationMode;
        QVERIFY2(machineState <= 4, qPrintable(text));
        if (machineState == 0)
            QVERIFY2(!anyTrue && mode == 0, qPrintable(text));
        QVERIFY2(flags.PowerPresent == (machineState != 0), qPrintable(text));
        QVERIFY2(flags.Error == (machineState == 4), qPrintable(text));
        QVERIFY2(flags.Alarm == (machineState == 4), qPrintable(text));
        QVERIFY2(*flags.Moving == (machineState == 3), qPrintable(text));
        QVERIFY2(*flags.FeedRuns == (machineState == 3), qPrintable(text));
        QVERIFY2(*flags.DustChipSuction == (machineState == 3), qPrintable(text));
        QVERIFY2((*state.Values->FeedSpeed > 0) == (machineState == 3), qPrintable(text));
        QVERIFY2(*flags.EnergySaving == (machineState == 1 && mode == 5), qPrintable(text));
        QVERIFY2(*flags.RecipeInSetup == (mode == 4), qPrintable(text));
        if (mode == 4)
            QVERIFY2(machineState == 2, qPrintable(text));
        if (*flags.WaitLoad || *flags.WaitUnload)
            QVERIFY2(machineState == 2 && mode == 1 && !(*flags.WaitLoad && *flags.WaitUnload), qPrintable(text));
        if (*flags.WorkpiecePresent)
            QVERIFY2(machineState == 3 || *flags.WaitUnload, qPrintable(text));
        QVERIFY2(flags.MachineOn == (machineState != 0 && mode != 0), qPrintable(text));
        if (!flags.MachineOn)
            QVERIFY2(machineState <= 1 && !flags.Warning, qPrintable(text));
        QVERIFY2(flags.Calibrated == flags.MachineInitialized, qPrintable(text));
        if (flags.MachineInitialized)
            QVERIFY2(flags.MachineOn, qPrintable(text));
        QVERIFY2(!flags.Emergency && !*flags.ExternalEmergency, qPrintable(text));
    }
}

void tst_Simulator::offlineNowAndThen()
{
    QHash<QString, quint32> lastState;
    QSet<QString> nameplateSent;
    QHash<QString, int> offlinePeriods;
    for (const Dataset &dataset : qAsConst(m_longRun)) {
        const QString type = typeOf(dataset);
        if (type == QLatin1String("WwIdentification"))
            nameplateSent.insert(dataset.machine);
        if (type != QLatin1String("WwState"))
            continue;
        const quint32 machineState = qvariant_cast<WwState>(dataset.data).MachineState;
        if (machineState == 0 && lastState.value(dataset.machine, 1) != 0) {
            ++offlinePeriods[dataset.machine];
            nameplateSent.remove(dataset.machine);
        }
        // A machine that is back announces its nameplate again before its first state.
        if (machineState != 0)
            QVERIFY2(nameplateSent.contains(dataset.machine), qPrintable(describe(dataset)));
        lastState.insert(dataset.machine, machineState);
    }
    QCOMPARE(offlinePeriods.size(), 3);
    for (auto it = offlinePeriods.cbegin(); it != offlinePeriods.cend(); ++it)
        QVERIFY2(it.value() >= 10 && it.value() < 200, qPrintable(it.key() + QString::number(it.value())));
}

void tst_Simulator::eventsFollowTheState()
{
    QHash<QString, QString> openAlarm;
    QHash<QString, QString> openWarning;
    int alarms = 0;
    int warnings = 0;
    for (const Dataset &dataset : qAsConst(m_longRun)) {
        const QString type = typeOf(dataset);
        if (type == QLatin1String("WwState")) {
            const WwState state = qvariant_cast<WwState>(dataset.data);
            // While online, the alarm flag (and so the error state) stands exactly while an alarm is open, and the
            // warning flag while a warning is.
            if (state.MachineState != 0) {
                QCOMPARE(state.Flags->Alarm, openAlarm.contains(dataset.machine));
                QCOMPARE(state.Flags->Warning, openWarning.contains(dataset.machine));
            }
            continue;
        }
        if (type != QLatin1String("WwBaseEventType"))
            continue;
        const WwBaseEventType event = qvariant_cast<WwBaseEventType>(dataset.data);
        const QString text = describe(dataset);
        QVERIFY2(!event.Id.isEmpty() && event.Id != QLatin1String("0"), qPrintable(text));
        QCOMPARE(event.Texts.size(), 1);
        QVERIFY(!event.Texts.value("en").isEmpty());
        QVERIFY(!event.Path.isEmpty());
        QVERIFY2(event.Category == 5 || event.Category == 3, qPrintable(text));
        QHash<QString, QString> &open = event.Category == 5 ? openAlarm : openWarning;
        const bool withdrawn = event.Message.startsWith(QLatin1String("{OFF"));
        if (withdrawn) {
            QCOMPARE(event.Message, QStringLiteral("{OFF}"));
            QCOMPARE(open.take(dataset.machine), event.Id);
        } else {
            QCOMPARE(event.Message, event.Texts.value("en"));
            QVERIFY2(!open.contains(dataset.machine), qPrintable(text));
            open.insert(dataset.machine, event.Id);
            (event.Category == 5 ? alarms : warnings)++;
        }
    }
    QVERIFY2(alarms >= 30, qPrintable(QString::number(alarms)));
    QVERIFY2(warnings >= 30, qPrintable(QString::number(warnings)));
}

void tst_Simulator::mappedDatasetsAreValid()
{
    OpcUaToMMMapper mapper;
    Validator validator;
    QVariantMap shared;
    mapper.init(QVariantMap(), shared);
    validator.init(QVariantMap(), shared);
    connect(&mapper, &OpcUaToMMMapper::dataProcessed, &validator, &Validator::processData);
    QList<Dataset> mapped;
    connect(&validator, &Validator::dataProcessed,
        [&](QDateTime timestamp, QString machine, QString source, QVariant data) {
            mapped.append({ timestamp, machine, source, data });
        });
    m_log.clear();
    for (const Dataset &dataset : qAsConst(m_longRun))
        mapper.processData(dataset.timestamp, dataset.machine, dataset.source, dataset.data);

    // Nothing is incomplete to the mapper or invalid to the validator.
    QCOMPARE(m_log.warnings(), QStringList());

    QHash<QString, int> types;
    QSet<qint32> codes;
    QHash<QString, GeneralV1> lastGeneral;
    QSet<QString> conditionIds;
    for (const Dataset &dataset : qAsConst(mapped)) {
        const QString type = typeOf(dataset);
        ++types[type];
        if (type == QLatin1String("StateV1")) {
            const qint32 code = qvariant_cast<StateV1>(dataset.data).state;
            QVERIFY2(code >= 1 && code <= 7, qPrintable(describe(dataset)));
            codes.insert(code);
        } else if (type == QLatin1String("GeneralV1")) {
            const GeneralV1 general = qvariant_cast<GeneralV1>(dataset.data);
            if (lastGeneral.contains(dataset.machine)) {
                const GeneralV1 before = lastGeneral.value(dataset.machine);
                QVERIFY(general.powerOnHours >= before.powerOnHours);
                QVERIFY(general.feedOnHours >= before.feedOnHours);
                QVERIFY(general.pieces >= before.pieces);
                QVERIFY(general.length >= before.length);
            }
            lastGeneral.insert(dataset.machine, general);
        } else if (type == QLatin1String("ConditionDefinitionsV2")) {
            for (const ConditionDefinitionV2 &definition : qvariant_cast<ConditionDefinitionsV2>(dataset.data).items)
                conditionIds.insert(definition.id);
        }
    }
    // Every machine state of a working day came up: off, working, setup, ready, without workpiece, waiting, error.
    QCOMPARE(codes, (QSet<qint32> { 1, 2, 3, 4, 5, 6, 7 }));
    QCOMPARE(types.value("StateV1"), 3 * LongRounds);
    QVERIFY(types.value("GeneralV1") > 2 * LongRounds);
    QVERIFY(types.value("NotificationsAddV1") >= 60);
    // At the end at most an alarm and a warning per machine are still open.
    const int open = types.value("NotificationsAddV1") - types.value("NotificationsRemoveV1");
    QVERIFY2(open >= 0 && open <= 6, qPrintable(QString::number(open)));
    QCOMPARE(lastGeneral.size(), 3);
    for (const QString machine : { "sim1", "sim2", "sim3" }) {
        QVERIFY(conditionIds.contains(machine + QStringLiteral("/Identification/SerialNumber")));
        QVERIFY(conditionIds.contains(machine + QStringLiteral("/State/Machine/Flags/WaitLoad")));
        QVERIFY(conditionIds.contains(machine + QStringLiteral("/State/Machine/Values/AbsolutePiecesOut")));
    }
    // Per machine: eleven nameplate fields, every flag, and every value but ActualCycle, which is not simulated.
    QCOMPARE(conditionIds.size(), 3 * (11 + 26 + 34));
}

QTEST_GUILESS_MAIN(tst_Simulator)
#include "tst_simulator.moc"
