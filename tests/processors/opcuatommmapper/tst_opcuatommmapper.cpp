#include "opcuatommmapper.h"

#include "mmdatasets.h"
#include "wwtypes.h"

#include <QSignalSpy>
#include <QtTest>

namespace {

struct LogLine
{
    QtMsgType type;
    QString category;
    QString message;
};

QList<LogLine> s_log;

void capture(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    s_log.append({ type, QString::fromUtf8(context.category), message });
}

// The mapper streams its messages as strings, so they arrive quoted, as the log sinks show them.
QString quoted(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

QStringList mapperMessages(QtMsgType type)
{
    QStringList messages;
    for (const LogLine &line : qAsConst(s_log)) {
        if (line.type == type && line.category == QLatin1String("opcuatommmapper"))
            messages.append(line.message);
    }
    return messages;
}

QStringList mapperWarnings()
{
    return mapperMessages(QtWarningMsg);
}

const QDateTime s_when = QDateTime::fromMSecsSinceEpoch(1614585600123, Qt::UTC);

/** A flags block with every optional flag present and false. */
WwStateFlags allFlagsFalse()
{
    WwStateFlags flags;
    WwStateFlags::visitFields([&](const char *, auto member) {
        if constexpr (std::is_same_v<decltype(member), std::optional<bool> WwStateFlags::*>)
            flags.*member = false;
    });
    return flags;
}

/**
 * A flags block from a description: "none" for an absent block, otherwise every optional flag present and false,
 * changed by the space-separated settings "Name=1", "Name=0" and "Name=-" (absent).
 */
std::optional<WwStateFlags> flagsFrom(const QString &description)
{
    if (description == QLatin1String("none"))
        return std::nullopt;
    WwStateFlags flags = allFlagsFalse();
    const QStringList settings = description.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    for (const QString &setting : settings) {
        const QString name = setting.section(QLatin1Char('='), 0, 0);
        const QString value = setting.section(QLatin1Char('='), 1);
        bool found = false;
        WwStateFlags::visitFields([&](const char *fieldName, auto member) {
            if (name != QLatin1String(fieldName))
                return;
            found = true;
            if constexpr (std::is_same_v<decltype(member), std::optional<bool> WwStateFlags::*>) {
                if (value == QLatin1String("-"))
                    flags.*member = std::nullopt;
                else
                    flags.*member = value == QLatin1String("1");
            } else {
                flags.*member = value == QLatin1String("1");
            }
        });
        if (!found)
            qFatal("Unknown flag in test data");
    }
    return flags;
}

/**
 * A values block from a description: "none" for an absent block, otherwise the space-separated settings
 * "Name=number" on a block of absent values.
 */
std::optional<WwStateValues> valuesFrom(const QString &description)
{
    if (description == QLatin1String("none"))
        return std::nullopt;
    WwStateValues values;
    const QStringList settings = description.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    for (const QString &setting : settings) {
        const QString name = setting.section(QLatin1Char('='), 0, 0);
        const QString value = setting.section(QLatin1Char('='), 1);
        bool found = false;
        WwStateValues::visitFields([&](const char *fieldName, auto member) {
            if (name != QLatin1String(fieldName))
                return;
            found = true;
            using Value = typename std::remove_reference_t<decltype(values.*member)>::value_type;
            if constexpr (std::is_same_v<Value, double>)
                values.*member = value.toDouble();
            else if constexpr (std::is_same_v<Value, quint32>)
                values.*member = value.toUInt();
            else
                values.*member = value.toULongLong();
        });
        if (!found)
            qFatal("Unknown value in test data");
    }
    return values;
}

WwState makeState(quint32 machineState, quint32 operationMode, const std::optional<WwStateFlags> &flags,
                  const std::optional<WwStateValues> &values)
{
    WwState state;
    state.MachineState = machineState;
    state.OperationMode = operationMode;
    state.Flags = flags;
    state.Values = values;
    return state;
}

/** Compares two variants by the records they hold, since QVariant cannot compare them itself. */
template <typename... Records> bool sameRecordOf(const QVariant &a, const QVariant &b)
{
    if (a.userType() != b.userType())
        return false;
    bool handled = false;
    bool equal = false;
    const auto check = [&](auto *tag) {
        using Record = std::remove_pointer_t<decltype(tag)>;
        if (!handled && a.userType() == qMetaTypeId<Record>()) {
            handled = true;
            equal = qvariant_cast<Record>(a) == qvariant_cast<Record>(b);
        }
    };
    (check(static_cast<Records *>(nullptr)), ...);
    return handled ? equal : a == b;
}

bool sameRecord(const QVariant &a, const QVariant &b)
{
    return sameRecordOf<StateV1, GeneralV1, NotificationsAddV1, NotificationsRemoveV1, NotificationsRemoveAllV1,
                        ConditionDefinitionsV2, ConditionDatasV2, MaintenanceDefinitionsV1, MaintenanceDatasV1, SwVerV1,
                        OrderV1>(a, b);
}

QStringList typeNames(const QSignalSpy &spy)
{
    QStringList names;
    for (const QList<QVariant> &arguments : spy)
        names.append(QString::fromLatin1(arguments.at(3).typeName()));
    return names;
}

} // namespace

class tst_OpcUaToMMMapper : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void identity();
    void initLogsAndReadsNoConfiguration();
    void debugLineOnlyWhenEnabled();
    void otherDatasetsPassUnchanged_data();
    void otherDatasetsPassUnchanged();

    void stateRules_data();
    void stateRules();
    void completenessNeedsEachFlag_data();
    void completenessNeedsEachFlag();
    void sameStateTwiceGivesTwoEqualStates();
    void stateKeepsTimestampMachineAndSource();

    void operatingData_data();
    void operatingData();

private:
    QtMessageHandler m_previous = nullptr;
};

void tst_OpcUaToMMMapper::init()
{
    s_log.clear();
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false"));
    m_previous = qInstallMessageHandler(capture);
}

void tst_OpcUaToMMMapper::cleanup()
{
    qInstallMessageHandler(m_previous);
    QLoggingCategory::setFilterRules(QString());
}

void tst_OpcUaToMMMapper::identity()
{
    OpcUaToMMMapper mapper;
    QCOMPARE(mapper.name(), QStringLiteral("OpcUaToMMMapper"));
    QCOMPARE(mapper.orderNumber(), 50u);
    QVERIFY(mapper.qt_metacast("IProcessor"));

    QObject parent;
    auto *child = new OpcUaToMMMapper(&parent);
    QCOMPARE(child->parent(), &parent);
}

void tst_OpcUaToMMMapper::initLogsAndReadsNoConfiguration()
{
    OpcUaToMMMapper mapper;
    QVariantMap shared;
    const QVariantMap config { { QStringLiteral("opcuatommmapper"), QVariantMap { { "x", 1 } } } };
    QVERIFY(mapper.init(config, shared));
    QVERIFY(shared.isEmpty());
    QCOMPARE(mapperMessages(QtInfoMsg), QStringList { quoted("OpcUaToMMMapper::init") });
    QCOMPARE(s_log.size(), 1);
}

void tst_OpcUaToMMMapper::debugLineOnlyWhenEnabled()
{
    OpcUaToMMMapper mapper;
    mapper.processData(s_when, "m1", "s1", QVariant(42));
    QVERIFY(mapperMessages(QtDebugMsg).isEmpty());

    QLoggingCategory::setFilterRules(QStringLiteral("opcuatommmapper.debug=true"));
    mapper.processData(s_when, "m1", "s1", QVariant(42));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(makeState(0, 0, allFlagsFalse(), std::nullopt)));
    const QStringList lines = mapperMessages(QtDebugMsg);
    QCOMPARE(lines.size(), 2);
    // One line with the four arguments in order.
    QVERIFY(lines.first().contains(QLatin1String("\"m1\" \"s1\" QVariant(int, 42)")));
    QVERIFY(lines.first().startsWith(QLatin1String("QDateTime(2021-03-01 08:00:00.123 UTC")));
}

void tst_OpcUaToMMMapper::otherDatasetsPassUnchanged_data()
{
    QTest::addColumn<QVariant>("data");

    StateV1 state;
    state.state = 3;
    QTest::newRow("StateV1") << QVariant::fromValue(state);
    GeneralV1 general;
    general.pieces = 7;
    QTest::newRow("GeneralV1") << QVariant::fromValue(general);
    NotificationsAddV1 add;
    add.id = "a/1";
    add.level = 2;
    QTest::newRow("NotificationsAddV1") << QVariant::fromValue(add);
    NotificationsRemoveV1 remove;
    remove.id = "1";
    QTest::newRow("NotificationsRemoveV1") << QVariant::fromValue(remove);
    QTest::newRow("NotificationsRemoveAllV1") << QVariant::fromValue(NotificationsRemoveAllV1());
    ConditionDefinitionsV2 definitions;
    ConditionDefinitionV2 definition;
    definition.id = "m1/x";
    definition.dataType = 1;
    definitions.items.append(definition);
    QTest::newRow("ConditionDefinitionsV2") << QVariant::fromValue(definitions);
    ConditionDatasV2 datas;
    ConditionDataV2 data;
    data.id = "m1/x";
    data.value = 5;
    datas.items.append(data);
    QTest::newRow("ConditionDatasV2") << QVariant::fromValue(datas);
    QTest::newRow("MaintenanceDefinitionsV1") << QVariant::fromValue(MaintenanceDefinitionsV1());
    QTest::newRow("MaintenanceDatasV1") << QVariant::fromValue(MaintenanceDatasV1());
    SwVerV1 version;
    version.version = "1.2";
    QTest::newRow("SwVerV1") << QVariant::fromValue(version);
    OrderV1 order;
    order.programName = "p";
    QTest::newRow("OrderV1") << QVariant::fromValue(order);
    QTest::newRow("int") << QVariant(42);
    QTest::newRow("string") << QVariant(QStringLiteral("WwState"));
    QTest::newRow("invalid") << QVariant();
}

void tst_OpcUaToMMMapper::otherDatasetsPassUnchanged()
{
    QFETCH(QVariant, data);
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", data);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.first().at(0).toDateTime(), s_when);
    QCOMPARE(spy.first().at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(spy.first().at(2).toString(), QStringLiteral("s1"));
    const QVariant out = spy.first().at(3);
    QCOMPARE(out.userType(), data.userType());
    QVERIFY(sameRecord(out, data));
    QVERIFY(s_log.isEmpty());
}

void tst_OpcUaToMMMapper::stateRules_data()
{
    QTest::addColumn<uint>("machineState");
    QTest::addColumn<uint>("operationMode");
    QTest::addColumn<QString>("flags");
    QTest::addColumn<int>("expected");
    QTest::addColumn<bool>("incomplete");

    // Rule 1: an offline machine.
    QTest::newRow("1: offline") << 0u << 0u << "" << 1 << false;
    QTest::newRow("1: offline, any flags") << 0u << 4u << "WaitLoad=1 Moving=1 WorkpiecePresent=0" << 1 << false;
    QTest::newRow("1: offline, no flags") << 0u << 0u << "none" << 1 << true;
    // Rule 2: machine state 4 wins over everything after it.
    QTest::newRow("2: state 4") << 4u << 0u << "" << 7 << false;
    QTest::newRow("2: state 4, mode 4") << 4u << 4u << "" << 7 << false;
    QTest::newRow("2: state 4, wait load") << 4u << 0u << "WaitLoad=1" << 7 << false;
    QTest::newRow("2: state 4, no flags") << 4u << 0u << "none" << 7 << true;
    // Rule 3: machine state 1.
    QTest::newRow("3: state 1") << 1u << 0u << "" << 4 << false;
    QTest::newRow("3: state 1, mode 4") << 1u << 4u << "" << 4 << false;
    QTest::newRow("3: state 1, wait unload") << 1u << 0u << "WaitUnload=1" << 4 << false;
    // Rule 4: operation mode 4 wins over the wait flags.
    QTest::newRow("4: state 2, mode 4") << 2u << 4u << "" << 3 << false;
    QTest::newRow("4: state 3, mode 4, wait load") << 3u << 4u << "WaitLoad=1" << 3 << false;
    QTest::newRow("4: state 7, mode 4") << 7u << 4u << "" << 3 << false;
    QTest::newRow("4: state 2, mode 4, no flags") << 2u << 4u << "none" << 3 << true;
    // Rule 5: waiting for unloading or loading.
    QTest::newRow("5: wait unload") << 2u << 0u << "WaitUnload=1" << 6 << false;
    QTest::newRow("5: wait load") << 2u << 0u << "WaitLoad=1" << 6 << false;
    QTest::newRow("5: state 3, wait load") << 3u << 0u << "WaitLoad=1" << 6 << false;
    QTest::newRow("5: state 3, wait load, no workpiece") << 3u << 0u << "WaitLoad=1 WorkpiecePresent=0" << 6 << false;
    QTest::newRow("5: state 7, wait unload") << 7u << 0u << "WaitUnload=1" << 6 << false;
    QTest::newRow("5: wait unload only") << 2u << 0u << "WaitUnload=1 WaitLoad=-" << 6 << true;
    QTest::newRow("5: absent wait flags are not true") << 2u << 0u << "WaitUnload=- WaitLoad=-" << 4 << true;
    // Rule 6: machine state 3 without a workpiece.
    QTest::newRow("6: state 3, no workpiece") << 3u << 0u << "WorkpiecePresent=0" << 5 << false;
    // Rule 7: machine state 3 otherwise; an absent WorkpiecePresent is not false.
    QTest::newRow("7: state 3, workpiece") << 3u << 0u << "WorkpiecePresent=1" << 2 << false;
    QTest::newRow("7: state 3, workpiece absent") << 3u << 0u << "WorkpiecePresent=-" << 2 << true;
    QTest::newRow("7: state 3, no flags") << 3u << 0u << "none" << 2 << true;
    QTest::newRow("7: state 3, recipe absent") << 3u << 0u << "RecipeInRun=- WorkpiecePresent=1" << 2 << true;
    // Rule 8: moving or feeding without a workpiece, in state 2 and every code above 4.
    QTest::newRow("8: moving, no workpiece") << 2u << 0u << "Moving=1 WorkpiecePresent=0" << 5 << false;
    QTest::newRow("8: feed runs, no workpiece") << 2u << 0u << "FeedRuns=1 WorkpiecePresent=0" << 5 << false;
    QTest::newRow("8: moving, feed absent") << 2u << 0u << "Moving=1 FeedRuns=- WorkpiecePresent=0" << 5 << true;
    QTest::newRow("8: state 7, moving") << 7u << 0u << "Moving=1 WorkpiecePresent=0" << 5 << false;
    QTest::newRow("8: state 5, feed runs") << 5u << 0u << "FeedRuns=1 WorkpiecePresent=0" << 5 << false;
    // Rule 9: anything else; an absent WorkpiecePresent counts as present work here.
    QTest::newRow("9: all false") << 2u << 0u << "" << 4 << false;
    QTest::newRow("9: not moving, feed absent") << 2u << 0u << "Moving=0 FeedRuns=- WorkpiecePresent=0" << 4 << true;
    QTest::newRow("9: moving, workpiece absent") << 2u << 0u << "Moving=1 WorkpiecePresent=-" << 4 << true;
    QTest::newRow("9: moving, workpiece") << 2u << 0u << "Moving=1 WorkpiecePresent=1" << 4 << false;
    QTest::newRow("9: no flags") << 2u << 0u << "none" << 4 << true;
    QTest::newRow("9: state 7") << 7u << 0u << "" << 4 << false;
    QTest::newRow("9: state 7, feed, workpiece absent") << 7u << 0u << "FeedRuns=1 WorkpiecePresent=-" << 4 << true;
    QTest::newRow("9: mode 3") << 2u << 3u << "" << 4 << false;
    // EnergySaving and RecipeInRun only take part in the completeness test.
    QTest::newRow("9: energy saving, recipe") << 2u << 0u << "EnergySaving=1 RecipeInRun=1" << 4 << false;
    QTest::newRow("9: energy saving absent") << 2u << 0u << "EnergySaving=-" << 4 << true;
    // Other optional flags do not take part in it.
    QTest::newRow("9: other flags absent") << 2u << 0u << "Hold=- AirPresent=- Safety=- LoadingEnabled=-" << 4 << false;
}

void tst_OpcUaToMMMapper::stateRules()
{
    QFETCH(uint, machineState);
    QFETCH(uint, operationMode);
    QFETCH(QString, flags);
    QFETCH(int, expected);
    QFETCH(bool, incomplete);

    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(makeState(machineState, operationMode, flagsFrom(flags),
                                                                         std::nullopt)));
    QVERIFY(spy.count() >= 1);
    const QVariant first = spy.first().at(3);
    QCOMPARE(first.typeName(), "StateV1");
    QCOMPARE(qvariant_cast<StateV1>(first).state, expected);
    const QString warning = quoted("Missing some flags, the state might be incomplete");
    QCOMPARE(mapperWarnings().count(warning), incomplete ? 1 : 0);
    if (incomplete)
        QCOMPARE(mapperWarnings().first(), warning);
}

void tst_OpcUaToMMMapper::completenessNeedsEachFlag_data()
{
    QTest::addColumn<QString>("flag");
    for (const char *flag :
         { "WaitLoad", "EnergySaving", "Moving", "WaitUnload", "WorkpiecePresent", "FeedRuns", "RecipeInRun" })
        QTest::newRow(flag) << QString::fromLatin1(flag);
}

void tst_OpcUaToMMMapper::completenessNeedsEachFlag()
{
    QFETCH(QString, flag);
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(makeState(0, 0, flagsFrom(flag + "=-"), std::nullopt)));
    QCOMPARE(mapperWarnings(), QStringList { quoted("Missing some flags, the state might be incomplete") });
    QCOMPARE(spy.count(), 1);
    QCOMPARE(qvariant_cast<StateV1>(spy.first().at(3)).state, 1);
}

void tst_OpcUaToMMMapper::sameStateTwiceGivesTwoEqualStates()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    const QVariant state = QVariant::fromValue(makeState(3, 0, flagsFrom("WorkpiecePresent=0"), std::nullopt));
    mapper.processData(s_when, "m1", "s1", state);
    const int perUpdate = spy.count();
    mapper.processData(s_when, "m1", "s1", state);
    QCOMPARE(spy.count(), 2 * perUpdate);
    QCOMPARE(spy.at(perUpdate).at(3).typeName(), "StateV1");
    QCOMPARE(qvariant_cast<StateV1>(spy.at(0).at(3)), qvariant_cast<StateV1>(spy.at(perUpdate).at(3)));
    QCOMPARE(qvariant_cast<StateV1>(spy.at(perUpdate).at(3)).state, 5);
}

void tst_OpcUaToMMMapper::stateKeepsTimestampMachineAndSource()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "machine 7", "source 9", QVariant::fromValue(makeState(0, 0, std::nullopt, std::nullopt)));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.first(), (QVariantList { s_when, "machine 7", "source 9", spy.first().at(3) }));
    QCOMPARE(typeNames(spy), QStringList { "StateV1" });
}

void tst_OpcUaToMMMapper::operatingData_data()
{
    QTest::addColumn<uint>("machineState");
    QTest::addColumn<QString>("values");
    QTest::addColumn<bool>("emitted");
    QTest::addColumn<double>("powerOnHours");
    QTest::addColumn<double>("feedOnHours");
    QTest::addColumn<qulonglong>("pieces");
    QTest::addColumn<double>("length");
    QTest::addColumn<QStringList>("warnings");

    const QString all = "AbsolutePowerPresentTime=7200000 AbsoluteProductionTime=3600000 "
                        "AbsoluteProductionWithoutWorkpieceTime=1800000 AbsolutePiecesOut=42 AbsoluteLength=1999";
    const QString power = "AbsolutePowerPresentTime is not set";
    const QString feed = "Missing values for FeedOnHours";
    const QString pieces = "AbsolutePiecesOut is not set";
    const QString length = "AbsoluteLength is not set";
    const quint64 max = std::numeric_limits<quint64>::max();

    QTest::newRow("offline") << 0u << all << false << 0.0 << 0.0 << 0ull << 0.0 << QStringList();
    QTest::newRow("offline, no values") << 0u << "none" << false << 0.0 << 0.0 << 0ull << 0.0 << QStringList();
    QTest::newRow("offline, empty values") << 0u << "" << false << 0.0 << 0.0 << 0ull << 0.0 << QStringList();
    QTest::newRow("no values") << 2u << "none" << false << 0.0 << 0.0 << 0ull << 0.0
                               << QStringList { "Values are not availabe, unable to calculate GeneralV1" };
    QTest::newRow("all present") << 2u << all << true << 2.0 << 1.5 << 42ull << 1.0 << QStringList();
    QTest::newRow("state 1") << 1u << all << true << 2.0 << 1.5 << 42ull << 1.0 << QStringList();
    QTest::newRow("state 3") << 3u << all << true << 2.0 << 1.5 << 42ull << 1.0 << QStringList();
    QTest::newRow("state 4") << 4u << all << true << 2.0 << 1.5 << 42ull << 1.0 << QStringList();
    QTest::newRow("state 9") << 9u << all << true << 2.0 << 1.5 << 42ull << 1.0 << QStringList();
    QTest::newRow("none of the five") << 2u << "" << true << 0.0 << 0.0 << 0ull << 0.0
                                      << QStringList { power, feed, pieces, length };
    QTest::newRow("only relative counters")
        << 2u
        << "RelativePowerPresentTime=7200000 RelativeProductionTime=3600000 "
           "RelativeProductionWithoutWorkpieceTime=1 RelativePiecesOut=4 RelativeLength=5000"
        << true << 0.0 << 0.0 << 0ull << 0.0 << QStringList { power, feed, pieces, length };
    QTest::newRow("power 7200000") << 2u << "AbsolutePowerPresentTime=7200000" << true << 2.0 << 0.0 << 0ull << 0.0
                                   << QStringList { feed, pieces, length };
    QTest::newRow("power fraction") << 2u << "AbsolutePowerPresentTime=5400000" << true << 1.5 << 0.0 << 0ull << 0.0
                                    << QStringList { feed, pieces, length };
    QTest::newRow("power largest") << 2u << QString("AbsolutePowerPresentTime=%1").arg(max) << true
                                   << double(max) / 3600000.0 << 0.0 << 0ull << 0.0
                                   << QStringList { feed, pieces, length };
    QTest::newRow("feed sum") << 2u << "AbsoluteProductionTime=3600000 AbsoluteProductionWithoutWorkpieceTime=1800000"
                              << true << 0.0 << 1.5 << 0ull << 0.0 << QStringList { power, pieces, length };
    QTest::newRow("feed without second addend") << 2u << "AbsoluteProductionTime=3600000" << true << 0.0 << 0.0
                                                << 0ull << 0.0 << QStringList { power, feed, pieces, length };
    QTest::newRow("feed without first addend") << 2u << "AbsoluteProductionWithoutWorkpieceTime=3600000" << true
                                               << 0.0 << 0.0 << 0ull << 0.0
                                               << QStringList { power, feed, pieces, length };
    QTest::newRow("feed ignores waiting")
        << 2u
        << "AbsoluteProductionTime=3600000 AbsoluteProductionWithoutWorkpieceTime=0 "
           "AbsoluteProductionWaitWorkpieceTime=3600000"
        << true << 0.0 << 1.0 << 0ull << 0.0 << QStringList { power, pieces, length };
    QTest::newRow("feed wraps") << 2u
                                << QString("AbsoluteProductionTime=%1 AbsoluteProductionWithoutWorkpieceTime=3600001")
                                       .arg(max)
                                << true << 0.0 << 1.0 << 0ull << 0.0 << QStringList { power, pieces, length };
    QTest::newRow("pieces") << 2u << "AbsolutePiecesOut=12345678901234" << true << 0.0 << 0.0 << 12345678901234ull
                            << 0.0 << QStringList { power, feed, length };
    QTest::newRow("pieces largest") << 2u << QString("AbsolutePiecesOut=%1").arg(max) << true << 0.0 << 0.0
                                    << qulonglong(max) << 0.0 << QStringList { power, feed, length };
    QTest::newRow("length 1999") << 2u << "AbsoluteLength=1999" << true << 0.0 << 0.0 << 0ull << 1.0
                                 << QStringList { power, feed, pieces };
    QTest::newRow("length 999") << 2u << "AbsoluteLength=999" << true << 0.0 << 0.0 << 0ull << 0.0
                                << QStringList { power, feed, pieces };
    QTest::newRow("length 2000") << 2u << "AbsoluteLength=2000" << true << 0.0 << 0.0 << 0ull << 2.0
                                 << QStringList { power, feed, pieces };
    QTest::newRow("length largest") << 2u << QString("AbsoluteLength=%1").arg(max) << true << 0.0 << 0.0 << 0ull
                                    << double(max / 1000u) << QStringList { power, feed, pieces };
}

void tst_OpcUaToMMMapper::operatingData()
{
    QFETCH(uint, machineState);
    QFETCH(QString, values);
    QFETCH(bool, emitted);
    QFETCH(double, powerOnHours);
    QFETCH(double, feedOnHours);
    QFETCH(qulonglong, pieces);
    QFETCH(double, length);
    QFETCH(QStringList, warnings);

    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(makeState(machineState, 0, allFlagsFalse(),
                                                                         valuesFrom(values))));
    QStringList expectedWarnings;
    for (const QString &warning : qAsConst(warnings))
        expectedWarnings.append(quoted(warning));
    QCOMPARE(mapperWarnings(), expectedWarnings);

    const QStringList types = typeNames(spy);
    QCOMPARE(types.count("GeneralV1"), emitted ? 1 : 0);
    if (!emitted)
        return;
    // Right after the state.
    QCOMPARE(types.indexOf("GeneralV1"), 1);
    const QList<QVariant> arguments = spy.at(1);
    QCOMPARE(arguments.at(0).toDateTime(), s_when);
    QCOMPARE(arguments.at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(arguments.at(2).toString(), QStringLiteral("s1"));
    const GeneralV1 general = qvariant_cast<GeneralV1>(arguments.at(3));
    QCOMPARE(general.powerOnHours, powerOnHours);
    QCOMPARE(general.feedOnHours, feedOnHours);
    QCOMPARE(general.pieces, quint64(pieces));
    QCOMPARE(general.length, length);
    QCOMPARE(general.counter5, 0);
    QCOMPARE(general.counter6, 0);
}

QTEST_GUILESS_MAIN(tst_OpcUaToMMMapper)
#include "tst_opcuatommmapper.moc"
