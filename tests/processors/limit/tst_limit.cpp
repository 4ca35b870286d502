#include "core.h"
#include "iprocessor.h"
#include "limit.h"
#include "limitlogging.h"
#include "mmdatasets.h"
#include "testsupport.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <memory>

using namespace TestSupport;

namespace {

QStringList s_log;

void capture(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    static const QHash<QtMsgType, QString> levels { { QtDebugMsg, "DEBUG" }, { QtInfoMsg, "INFO" },
        { QtWarningMsg, "WARNING" }, { QtCriticalMsg, "CRITICAL" }, { QtFatalMsg, "FATAL" } };
    s_log.append(QStringLiteral("%1 %2: %3").arg(levels.value(type), QString::fromUtf8(context.category), message));
}

const QDateTime When = QDateTime::fromMSecsSinceEpoch(1700000000000);
const char *const Processed = SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant));
const QString WaitWarning = QStringLiteral("WARNING limit: \"Couldn't parse waitTime\"");
const QString KeepAliveWarning = QStringLiteral("WARNING limit: \"Couldn't parse keepAliveTime\"");

/** A type of which QVariant knows no equality. */
struct Opaque
{
    int value = 0;
};

/** The four list kinds, each tested through the same functions. */
enum Kind { ConditionDefinitions, ConditionValues, MaintenanceDefinitions, MaintenanceValues };
/** List entries as (id, number), the number standing for the entry's content. */
using Entries = QList<QPair<QString, int>>;

ConditionDefinitionV2 conditionDefinition(const QString &id, int number)
{
    ConditionDefinitionV2 item;
    item.id = id;
    item.name = id;
    item.dataType = number;
    return item;
}

ConditionDataV2 conditionValue(const QString &id, int number)
{
    ConditionDataV2 item;
    item.id = id;
    item.value = number;
    return item;
}

MaintenanceDefinitionV1 maintenanceDefinition(const QString &id, int number)
{
    MaintenanceDefinitionV1 item;
    item.id = id;
    item.unitText = QStringLiteral("HOURS");
    item.value7 = number;
    item.value8 = 0;
    return item;
}

MaintenanceDataV1 maintenanceValue(const QString &id, double value2, double value3 = 0)
{
    MaintenanceDataV1 item;
    item.id = id;
    item.value2 = value2;
    item.value3 = value3;
    return item;
}

MaintenanceDataV1 maintenanceValueOf(const QString &id, int number)
{
    return maintenanceValue(id, number);
}

// Every list gets a time stamp of its own, so that the duplicate filter never hides what the entries do.
QDateTime nextListTime()
{
    static qint64 counter = 0;
    return When.addMSecs(++counter);
}

template <typename List, typename Item> QVariant listOf(const Entries &entries, Item (*make)(const QString &, int))
{
    List list;
    list.timestamp = nextListTime();
    for (const auto &entry : entries)
        list.items.append(make(entry.first, entry.second));
    return QVariant::fromValue(list);
}

QVariant makeList(Kind kind, const Entries &entries)
{
    switch (kind) {
    case ConditionDefinitions:
        return listOf<ConditionDefinitionsV2>(entries, &conditionDefinition);
    case ConditionValues:
        return listOf<ConditionDatasV2>(entries, &conditionValue);
    case MaintenanceDefinitions:
        return listOf<MaintenanceDefinitionsV1>(entries, &maintenanceDefinition);
    case MaintenanceValues:
        return listOf<MaintenanceDatasV1>(entries, &maintenanceValueOf);
    }
    return QVariant();
}

QVariant makeItem(Kind kind, const QString &id, int number)
{
    switch (kind) {
    case ConditionDefinitions:
        return QVariant::fromValue(conditionDefinition(id, number));
    case ConditionValues:
        return QVariant::fromValue(conditionValue(id, number));
    case MaintenanceDefinitions:
        return QVariant::fromValue(maintenanceDefinition(id, number));
    case MaintenanceValues:
        return QVariant::fromValue(maintenanceValue(id, number));
    }
    return QVariant();
}

/** The entries of an emitted list; an empty list with the time stamp invalid when the type is not the kind's. */
Entries entriesOf(Kind kind, const QVariant &data, QDateTime *timestamp = nullptr)
{
    Entries entries;
    QDateTime listTime;
    switch (kind) {
    case ConditionDefinitions: {
        const auto list = qvariant_cast<ConditionDefinitionsV2>(data);
        listTime = list.timestamp;
        for (const auto &item : list.items)
            entries.append({ item.id, item.dataType });
        break;
    }
    case ConditionValues: {
        const auto list = qvariant_cast<ConditionDatasV2>(data);
        listTime = list.timestamp;
        for (const auto &item : list.items)
            entries.append({ item.id, item.value.toInt() });
        break;
    }
    case MaintenanceDefinitions: {
        const auto list = qvariant_cast<MaintenanceDefinitionsV1>(data);
        listTime = list.timestamp;
        for (const auto &item : list.items)
            entries.append({ item.id, int(item.value7) });
        break;
    }
    case MaintenanceValues: {
        const auto list = qvariant_cast<MaintenanceDatasV1>(data);
        listTime = list.timestamp;
        for (const auto &item : list.items)
            entries.append({ item.id, int(item.value2) });
        break;
    }
    }
    if (timestamp)
        *timestamp = listTime;
    return entries;
}

void flush(Limit &limit, Kind kind)
{
    switch (kind) {
    case ConditionDefinitions:
        limit.doConditionDefinitions();
        break;
    case ConditionValues:
        limit.doConditionValues();
        break;
    case MaintenanceDefinitions:
        limit.doMaintenanceDefinitions();
        break;
    case MaintenanceValues:
        limit.doMaintenanceValues();
        break;
    }
}

QVariantMap limitConfig(const QVariant &waitTime, const QVariant &keepAliveTime)
{
    QVariantMap group;
    if (waitTime.isValid())
        group.insert(QStringLiteral("waitTime"), waitTime);
    if (keepAliveTime.isValid())
        group.insert(QStringLiteral("keepAliveTime"), keepAliveTime);
    return QVariantMap { { QStringLiteral("limit"), group } };
}

StateV1 state(qint32 code)
{
    StateV1 record;
    record.state = code;
    return record;
}

/** An order record with every field set, so that two of them compare by their program name alone. */
OrderV1 program(const QString &programName)
{
    OrderV1 record;
    record.programName = programName;
    record.number4 = record.number6 = record.number7 = record.number11 = 0;
    record.flag5 = false;
    return record;
}

GeneralV1 general(quint64 pieces)
{
    GeneralV1 record;
    record.powerOnHours = 1.5;
    record.pieces = pieces;
    return record;
}

} // namespace

Q_DECLARE_METATYPE(Opaque)
Q_DECLARE_METATYPE(Kind)

class tst_Limit : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void identity();
    void slotOrder();
    void settings_data();
    void settings();
    void settingsFromIniFile_data();
    void settingsFromIniFile();

    void duplicates_data();
    void duplicates();
    void duplicatesPerMachine();
    void unknownTypeAlwaysPasses();
    void stateKeepAliveZero();
    void stateKeepAlive();

    void operatingDataLeavesWithTimer();
    void operatingDataLatestAndInMachineOrder();
    void operatingDataWithoutTimer();

    void firstListLeavesAtOnce_data() { listKinds(); }
    void firstListLeavesAtOnce();
    void unchangedEntriesGiveNothing_data() { listKinds(); }
    void unchangedEntriesGiveNothing();
    void onlyChangedEntriesLeave_data() { listKinds(); }
    void onlyChangedEntriesLeave();
    void singleEntries_data() { listKinds(); }
    void singleEntries();
    void waitTimeHoldsPendingEntries_data() { listKinds(); }
    void waitTimeHoldsPendingEntries();
    void laterChangeOfAnotherMachineReleases_data() { listKinds(); }
    void laterChangeOfAnotherMachineReleases();
    void skippedMachinesAreLoggedEach_data() { listKinds(); }
    void skippedMachinesAreLoggedEach();
    void flushRestartsWaitOfIdleMachine_data() { listKinds(); }
    void flushRestartsWaitOfIdleMachine();
    void kindsWaitIndependently_data() { listKinds(); }
    void kindsWaitIndependently();
    void dropMessagesNeedDebug_data() { listKinds(); }
    void dropMessagesNeedDebug();

    void maintenanceValuesChangeOnlyByValues_data();
    void maintenanceValuesChangeOnlyByValues();
    void conditionValueTypeChangeIsChange();

private:
    void configure(Limit &limit, quint32 waitTime, quint32 keepAliveTime = 0);
    static void send(Limit &limit, const QVariant &data, const QString &machine = QStringLiteral("m1"));
    static void listKinds();
    static void checkDropLine(const QString &line, Kind kind, quint32 waitTime);

    QtMessageHandler m_previous = nullptr;
};

void tst_Limit::init()
{
    s_log.clear();
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false\nlimit.debug=true"));
    m_previous = qInstallMessageHandler(capture);
}

void tst_Limit::cleanup()
{
    qInstallMessageHandler(m_previous);
    QLoggingCategory::setFilterRules(QString());
}

void tst_Limit::configure(Limit &limit, quint32 waitTime, quint32 keepAliveTime)
{
    QVariantMap shared;
    QVERIFY(limit.init(limitConfig(QString::number(waitTime), QString::number(keepAliveTime)), shared));
    QCOMPARE(limit.waitTime(), waitTime);
    QCOMPARE(limit.keepAliveTime(), keepAliveTime);
}

void tst_Limit::send(Limit &limit, const QVariant &data, const QString &machine)
{
    limit.processData(When, machine, QStringLiteral("s1"), data);
}

void tst_Limit::checkDropLine(const QString &line, Kind kind, quint32 waitTime)
{
    static const QStringList texts {
        "Dropping Condition Definitions since last send was at %1, our current time is %2 and we should wait %3ms.",
        "Dropping Condition Values since last send was at %1 our current time is %2 and we should wait %3ms.",
        "Dropping Maintenace Definitions since last send was at %1, our current time is %2 and we should wait %3ms.",
        "Dropping Maintenace Values since last send was at %1, our current time is %2 and we should wait %3ms.",
    };
    QString pattern = QRegularExpression::escape(QStringLiteral("DEBUG limit: \"") + texts.at(kind) + "\"");
    // escape() has put a backslash before every per cent sign.
    pattern.replace(QStringLiteral("\\%1"), QStringLiteral("(.+)"))
        .replace(QStringLiteral("\\%2"), QStringLiteral("(.+)"))
        .replace(QStringLiteral("\\%3"), QString::number(waitTime));
    const QRegularExpressionMatch match = QRegularExpression(QLatin1Char('^') + pattern + QLatin1Char('$')).match(line);
    QVERIFY2(match.hasMatch(), qPrintable(line));
    // Both times in the default text form: they read back, and the current one is not before the last sending.
    const QDateTime last = QDateTime::fromString(match.captured(1));
    const QDateTime now = QDateTime::fromString(match.captured(2));
    QVERIFY2(last.isValid() && now.isValid(), qPrintable(line));
    QVERIFY(last <= now);
    QVERIFY(qAbs(now.secsTo(QDateTime::currentDateTime())) <= 2);
}

void tst_Limit::identity()
{
    Limit limit;
    QVariantMap shared;
    QVERIFY(limit.init(limitConfig("10", "20"), shared));
    QVERIFY(shared.isEmpty());
    QCOMPARE(limit.name(), QStringLiteral("Limit"));
    QCOMPARE(limit.orderNumber(), 1000u);
    QVERIFY(limit.qt_metacast("IProcessor"));
    QCOMPARE(QString::fromLatin1(lcLimit().categoryName()), QStringLiteral("limit"));
    QVERIFY(s_log.isEmpty());
}

void tst_Limit::slotOrder()
{
    const QMetaObject &meta = Limit::staticMetaObject;
    const QStringList signatures { "processData(QDateTime,QString,QString,QVariant)", "doConditionDefinitions()",
        "doConditionValues()", "doMaintenanceDefinitions()", "doMaintenanceValues()", "doOperatingData()" };
    int previous = -1;
    for (const QString &signature : signatures) {
        const int index = meta.indexOfSlot(signature.toLatin1().constData());
        QVERIFY2(index > previous, qPrintable(signature));
        QCOMPARE(meta.method(index).access(), QMetaMethod::Public);
        previous = index;
    }
    QCOMPARE(previous - meta.indexOfSlot("processData(QDateTime,QString,QString,QVariant)"), 5);
}

void tst_Limit::settings_data()
{
    QTest::addColumn<QVariantMap>("config");
    QTest::addColumn<quint32>("waitTime");
    QTest::addColumn<quint32>("keepAliveTime");
    QTest::addColumn<QStringList>("log");

    QTest::newRow("no group") << QVariantMap() << 0u << 0u << QStringList { WaitWarning, KeepAliveWarning };
    QTest::newRow("empty group") << limitConfig(QVariant(), QVariant()) << 0u << 0u
                                 << QStringList { WaitWarning, KeepAliveWarning };
    QTest::newRow("group not a map") << QVariantMap { { "limit", "5" } } << 0u << 0u
                                     << QStringList { WaitWarning, KeepAliveWarning };
    QTest::newRow("texts") << limitConfig("5000", "60000") << 5000u << 60000u << QStringList();
    QTest::newRow("numbers") << limitConfig(250, 30u) << 250u << 30u << QStringList();
    QTest::newRow("zero") << limitConfig("0", "0") << 0u << 0u << QStringList();
    QTest::newRow("largest") << limitConfig("4294967295", "1") << 4294967295u << 1u << QStringList();
    QTest::newRow("keep-alive missing") << limitConfig("100", QVariant()) << 100u << 0u
                                        << QStringList { KeepAliveWarning };
    QTest::newRow("wait missing") << limitConfig(QVariant(), "100") << 0u << 100u << QStringList { WaitWarning };
    QTest::newRow("not numbers") << limitConfig("soon", "1.5") << 0u << 0u
                                 << QStringList { WaitWarning, KeepAliveWarning };
    QTest::newRow("negative number") << limitConfig(-5, 7) << 0u << 7u << QStringList { WaitWarning };
    QTest::newRow("just too large") << limitConfig("4294967297", "1") << 0u << 1u << QStringList { WaitWarning };
    QTest::newRow("negative") << limitConfig("-5", "7") << 0u << 7u << QStringList { WaitWarning };
    QTest::newRow("too large") << limitConfig("4294967296", "") << 0u << 0u
                               << QStringList { WaitWarning, KeepAliveWarning };
    QTest::newRow("list") << limitConfig(QStringList { "1", "5" }, "3") << 0u << 3u << QStringList { WaitWarning };
}

void tst_Limit::settings()
{
    QFETCH(QVariantMap, config);
    QFETCH(quint32, waitTime);
    QFETCH(quint32, keepAliveTime);
    QFETCH(QStringList, log);

    Limit limit;
    QVariantMap shared;
    QVERIFY(limit.init(config, shared));
    QCOMPARE(limit.waitTime(), waitTime);
    QCOMPARE(limit.keepAliveTime(), keepAliveTime);
    QCOMPARE(s_log, log);

    QTimer *timer = limit.findChild<QTimer *>();
    QVERIFY(timer);
    QCOMPARE(timer->isActive(), waitTime != 0);
    if (waitTime != 0 && waitTime <= quint32(std::numeric_limits<int>::max()))
        QCOMPARE(timer->interval(), int(waitTime));
}

void tst_Limit::settingsFromIniFile_data()
{
    QTest::addColumn<QByteArray>("ini");
    QTest::addColumn<quint32>("waitTime");
    QTest::addColumn<quint32>("keepAliveTime");
    QTest::addColumn<QStringList>("warnings");

    QTest::newRow("both") << QByteArray("[limit]\nwaitTime=40\nkeepAliveTime=60000\n") << 40u << 60000u
                          << QStringList();
    QTest::newRow("no group") << QByteArray("[other]\nwaitTime=40\n") << 0u << 0u
                              << QStringList { WaitWarning, KeepAliveWarning };
    QTest::newRow("quoted number") << QByteArray("[limit]\nwaitTime=\"40\"\nkeepAliveTime=x\n") << 40u << 0u
                                   << QStringList { KeepAliveWarning };
    QTest::newRow("comma makes a list") << QByteArray("[limit]\nwaitTime=4,0\nkeepAliveTime=\"1,5\"\n") << 0u << 0u
                                        << QStringList { WaitWarning, KeepAliveWarning };
}

void tst_Limit::settingsFromIniFile()
{
    QFETCH(QByteArray, ini);
    QFETCH(quint32, waitTime);
    QFETCH(quint32, keepAliveTime);
    QFETCH(QStringList, warnings);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString iniPath = dir.filePath(QStringLiteral("etc/orvix.ini"));
    const QString logPath = dir.filePath(QStringLiteral("log/orvix.log"));
    QVERIFY(writeFile(iniPath, ini));
    QDir().mkpath(dir.filePath(QStringLiteral("plugins")));
    qputenv("ORVIX_PLUGINPATH", dir.filePath(QStringLiteral("plugins")).toUtf8());

    Limit *limit = nullptr;
    {
        Core core(false, nullptr, iniPath, logPath, dir.filePath(QStringLiteral("log/orvix.lastlog")));
        core.run();
        for (IProcessor *processor : core.processors()) {
            if (processor->name() == QLatin1String("Limit"))
                limit = dynamic_cast<Limit *>(processor);
        }
        QVERIFY(limit);
        QCOMPARE(limit->waitTime(), waitTime);
        QCOMPARE(limit->keepAliveTime(), keepAliveTime);
        QTimer *timer = limit->findChild<QTimer *>();
        QCOMPARE(timer->isActive(), waitTime != 0);

        if (waitTime != 0) {
            QSignalSpy spy(limit, Processed);
            send(*limit, QVariant::fromValue(general(3)));
            QCOMPARE(spy.count(), 0);
            QTRY_COMPARE_WITH_TIMEOUT(spy.count(), 1, 2000);
            QCOMPARE(spy.first().at(2).toString(), QStringLiteral("Limiter"));
        }
    }
    qunsetenv("ORVIX_PLUGINPATH");

    QStringList limitLines;
    for (const QString &line : logLines(logPath)) {
        if (line.contains(QLatin1String(" limit: ")))
            limitLines.append(line);
    }
    QCOMPARE(limitLines, warnings);
}

void tst_Limit::duplicates_data()
{
    QTest::addColumn<QVariant>("first");
    QTest::addColumn<QVariant>("second");

    NotificationsAddV1 add;
    add.id = QStringLiteral("src/1");
    add.timestamp = When;
    add.level = 2;
    add.message = QStringLiteral("Door open");
    add.messageCode = QStringLiteral("1");
    NotificationsAddV1 otherAdd = add;
    otherAdd.level = 3;
    NotificationsRemoveV1 remove;
    remove.id = QStringLiteral("1");
    remove.timestamp = When;
    NotificationsRemoveV1 otherRemove = remove;
    otherRemove.id = QStringLiteral("2");
    NotificationsRemoveAllV1 removeAll;
    removeAll.timestamp = When;
    NotificationsRemoveAllV1 otherRemoveAll;
    otherRemoveAll.timestamp = When.addSecs(1);
    SwVerV1 version;
    version.version = QStringLiteral("1.0");
    SwVerV1 otherVersion;
    otherVersion.version = QStringLiteral("1.1");
    const OrderV1 order = program("P1");
    const OrderV1 otherOrder = program("P2");

    QTest::newRow("NotificationsAddV1") << QVariant::fromValue(add) << QVariant::fromValue(otherAdd);
    QTest::newRow("NotificationsRemoveV1") << QVariant::fromValue(remove) << QVariant::fromValue(otherRemove);
    QTest::newRow("NotificationsRemoveAllV1") << QVariant::fromValue(removeAll) << QVariant::fromValue(otherRemoveAll);
    QTest::newRow("SwVerV1") << QVariant::fromValue(version) << QVariant::fromValue(otherVersion);
    QTest::newRow("OrderV1") << QVariant::fromValue(order) << QVariant::fromValue(otherOrder);
    QTest::newRow("int") << QVariant(1) << QVariant(2);
    QTest::newRow("string") << QVariant("a") << QVariant("b");
}

void tst_Limit::duplicates()
{
    QFETCH(QVariant, first);
    QFETCH(QVariant, second);

    // Without settings: repeats are dropped all the same.
    Limit limit;
    QVariantMap shared;
    limit.init(QVariantMap(), shared);
    s_log.clear();
    QSignalSpy spy(&limit, Processed);

    limit.processData(When, "m1", "s1", first);
    QVariant copy = first;
    copy.detach();
    limit.processData(When.addSecs(5), "m1", "s2", copy);
    limit.processData(When, "m1", "s1", second);
    limit.processData(When, "m1", "s1", second);
    limit.processData(When.addSecs(9), "m1", "s9", first);

    QCOMPARE(spy.count(), 3);
    QCOMPARE(spy.at(0).at(0).toDateTime(), When);
    QCOMPARE(spy.at(0).at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(spy.at(0).at(2).toString(), QStringLiteral("s1"));
    QCOMPARE(spy.at(0).at(3).userType(), first.userType());
    QCOMPARE(spy.at(1).at(3).userType(), second.userType());
    // What passes keeps its own time stamp and source.
    QCOMPARE(spy.at(2).at(0).toDateTime(), When.addSecs(9));
    QCOMPARE(spy.at(2).at(2).toString(), QStringLiteral("s9"));
    QVERIFY(s_log.isEmpty());
}

void tst_Limit::duplicatesPerMachine()
{
    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    SwVerV1 version;
    version.version = QStringLiteral("1.0");
    const OrderV1 order = program("P1");

    send(limit, QVariant::fromValue(version));
    send(limit, QVariant::fromValue(version), "m2");
    // Another type in between leaves the last value of each type as it was.
    send(limit, QVariant::fromValue(order));
    send(limit, QVariant::fromValue(version));
    send(limit, QVariant::fromValue(version), "m2");
    send(limit, QVariant::fromValue(order));

    QCOMPARE(spy.count(), 3);
    QCOMPARE(spy.at(0).at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(spy.at(1).at(1).toString(), QStringLiteral("m2"));
    QCOMPARE(QString::fromLatin1(spy.at(2).at(3).typeName()), QStringLiteral("OrderV1"));
}

void tst_Limit::unknownTypeAlwaysPasses()
{
    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    const QVariant opaque = QVariant::fromValue(Opaque { 4 });
    send(limit, opaque);
    send(limit, opaque);
    send(limit, QVariant());
    send(limit, QVariant());
    QCOMPARE(spy.count(), 3);
}

void tst_Limit::stateKeepAliveZero()
{
    Limit limit;
    QVariantMap shared;
    limit.init(QVariantMap(), shared);
    QSignalSpy spy(&limit, Processed);
    for (int i = 0; i < 5; ++i)
        send(limit, QVariant::fromValue(state(2)));
    QCOMPARE(spy.count(), 5);
    QCOMPARE(qvariant_cast<StateV1>(spy.last().at(3)).state, 2);
    QCOMPARE(spy.last().at(2).toString(), QStringLiteral("s1"));
}

void tst_Limit::stateKeepAlive()
{
    const quint32 keepAlive = 150;
    Limit limit;
    configure(limit, 0, keepAlive);
    QSignalSpy spy(&limit, Processed);

    QElapsedTimer sinceFirst;
    sinceFirst.start();
    send(limit, QVariant::fromValue(state(2)));
    send(limit, QVariant::fromValue(state(2)));
    QCOMPARE(spy.count(), 1);
    // A different state passes at once, and so does the one before it, which is no longer the last.
    send(limit, QVariant::fromValue(state(3)));
    send(limit, QVariant::fromValue(state(2)));
    send(limit, QVariant::fromValue(state(2)), "m2");
    QCOMPARE(spy.count(), 4);

    // The repeat passes again once the keep-alive time has gone by since the last state that passed.
    QElapsedTimer sinceLast;
    sinceLast.start();
    QTRY_VERIFY_WITH_TIMEOUT((send(limit, QVariant::fromValue(state(2))), spy.count() == 5), 5000);
    QVERIFY(sinceLast.elapsed() >= qint64(keepAlive) - 2);
    QCOMPARE(spy.last().at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(qvariant_cast<StateV1>(spy.last().at(3)).state, 2);

    // And the time counts from there anew.
    send(limit, QVariant::fromValue(state(2)));
    QCOMPARE(spy.count(), 5);
    QVERIFY(s_log.isEmpty());
}

void tst_Limit::operatingDataLeavesWithTimer()
{
    Limit limit;
    configure(limit, 30);
    QSignalSpy spy(&limit, Processed);

    send(limit, QVariant::fromValue(general(7)));
    QCOMPARE(spy.count(), 0);
    const QDateTime before = QDateTime::currentDateTime();
    QTRY_COMPARE_WITH_TIMEOUT(spy.count(), 1, 2000);
    QCOMPARE(spy.first().at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(spy.first().at(2).toString(), QStringLiteral("Limiter"));
    QVERIFY(spy.first().at(0).toDateTime() >= before.addMSecs(-1));
    QCOMPARE(QString::fromLatin1(spy.first().at(3).typeName()), QStringLiteral("GeneralV1"));
    QCOMPARE(qvariant_cast<GeneralV1>(spy.first().at(3)), general(7));

    // Sent once: the same data again is a repeat, and nothing is pending for the next ticks.
    send(limit, QVariant::fromValue(general(7)));
    QTest::qWait(100);
    QCOMPARE(spy.count(), 1);

    send(limit, QVariant::fromValue(general(8)));
    QTRY_COMPARE_WITH_TIMEOUT(spy.count(), 2, 2000);
    QCOMPARE(qvariant_cast<GeneralV1>(spy.last().at(3)), general(8));
    QVERIFY(s_log.isEmpty());
}

void tst_Limit::operatingDataLatestAndInMachineOrder()
{
    Limit limit;
    configure(limit, 40);
    QSignalSpy spy(&limit, Processed);

    // All of these come in before the next tick.
    send(limit, QVariant::fromValue(general(1)), "m2");
    send(limit, QVariant::fromValue(general(2)), "m2");
    send(limit, QVariant::fromValue(general(3)), "m10");
    send(limit, QVariant::fromValue(GeneralV1()), "m1");
    send(limit, QVariant::fromValue(general(4)), "b");
    QCOMPARE(spy.count(), 0);

    QTRY_COMPARE_WITH_TIMEOUT(spy.count(), 4, 2000);
    QStringList machines;
    for (const QVariantList &dataset : qAsConst(spy))
        machines.append(dataset.at(1).toString());
    QCOMPARE(machines, (QStringList { "b", "m1", "m10", "m2" }));
    QCOMPARE(qvariant_cast<GeneralV1>(spy.at(1).at(3)), GeneralV1());
    QCOMPARE(qvariant_cast<GeneralV1>(spy.at(3).at(3)), general(2));
    // One tick sends them all at one time.
    QCOMPARE(spy.at(0).at(0).toDateTime(), spy.at(3).at(0).toDateTime());
}

void tst_Limit::operatingDataWithoutTimer()
{
    Limit limit;
    QVariantMap shared;
    limit.init(QVariantMap(), shared);
    QSignalSpy spy(&limit, Processed);

    send(limit, QVariant::fromValue(general(1)));
    send(limit, QVariant::fromValue(general(2)), "m2");
    QTest::qWait(50);
    QCOMPARE(spy.count(), 0);

    // The slot itself sends what is pending, once.
    limit.doOperatingData();
    QCOMPARE(spy.count(), 2);
    QCOMPARE(spy.at(0).at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(spy.at(1).at(2).toString(), QStringLiteral("Limiter"));
    limit.doOperatingData();
    QCOMPARE(spy.count(), 2);
}

void tst_Limit::listKinds()
{
    QTest::addColumn<Kind>("kind");
    QTest::addColumn<QString>("listType");

    QTest::newRow("condition definitions") << ConditionDefinitions << "ConditionDefinitionsV2";
    QTest::newRow("condition values") << ConditionValues << "ConditionDatasV2";
    QTest::newRow("maintenance definitions") << MaintenanceDefinitions << "MaintenanceDefinitionsV1";
    QTest::newRow("maintenance values") << MaintenanceValues << "MaintenanceDatasV1";
}

void tst_Limit::firstListLeavesAtOnce()
{
    QFETCH(Kind, kind);
    QFETCH(QString, listType);

    Limit limit;
    configure(limit, 1000);
    QSignalSpy spy(&limit, Processed);
    const QDateTime before = QDateTime::currentDateTime();
    send(limit, makeList(kind, { { "c", 3 }, { "a", 1 }, { "b", 2 } }));

    QCOMPARE(spy.count(), 1);
    const QVariantList dataset = spy.first();
    QVERIFY(dataset.at(0).toDateTime() >= before.addMSecs(-1));
    QCOMPARE(dataset.at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(dataset.at(2).toString(), QStringLiteral("Limiter"));
    QCOMPARE(QString::fromLatin1(dataset.at(3).typeName()), listType);
    QDateTime listTime;
    QCOMPARE(entriesOf(kind, dataset.at(3), &listTime), (Entries { { "a", 1 }, { "b", 2 }, { "c", 3 } }));
    QCOMPARE(listTime, dataset.at(0).toDateTime());
    QVERIFY(s_log.isEmpty());
}

void tst_Limit::unchangedEntriesGiveNothing()
{
    QFETCH(Kind, kind);

    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    const QVariant list = makeList(kind, { { "a", 1 }, { "b", 2 } });
    send(limit, list);
    QCOMPARE(spy.count(), 1);

    send(limit, list);
    send(limit, makeList(kind, { { "b", 2 }, { "a", 1 } }));
    send(limit, makeList(kind, { { "a", 1 } }));
    send(limit, makeList(kind, {}));
    send(limit, makeItem(kind, "b", 2));
    QCOMPARE(spy.count(), 1);
    QVERIFY(s_log.isEmpty());
}

void tst_Limit::onlyChangedEntriesLeave()
{
    QFETCH(Kind, kind);

    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    send(limit, makeList(kind, { { "a", 1 }, { "b", 1 }, { "c", 1 } }));
    send(limit, makeList(kind, { { "a", 1 }, { "b", 2 }, { "c", 1 }, { "d", 1 } }));
    send(limit, makeList(kind, { { "c", 5 }, { "a", 5 } }));

    QCOMPARE(spy.count(), 3);
    QCOMPARE(entriesOf(kind, spy.at(1).at(3)), (Entries { { "b", 2 }, { "d", 1 } }));
    QCOMPARE(entriesOf(kind, spy.at(2).at(3)), (Entries { { "a", 5 }, { "c", 5 } }));
    // A change back is a change, too.
    send(limit, makeList(kind, { { "b", 1 } }));
    QCOMPARE(spy.count(), 4);
    QCOMPARE(entriesOf(kind, spy.at(3).at(3)), (Entries { { "b", 1 } }));
}

void tst_Limit::singleEntries()
{
    QFETCH(Kind, kind);
    QFETCH(QString, listType);

    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    send(limit, makeItem(kind, "x", 1));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(QString::fromLatin1(spy.first().at(3).typeName()), listType);
    QCOMPARE(entriesOf(kind, spy.first().at(3)), (Entries { { "x", 1 } }));
    QCOMPARE(spy.first().at(2).toString(), QStringLiteral("Limiter"));

    // Single entries and lists share one table.
    send(limit, makeList(kind, { { "x", 1 }, { "y", 1 } }));
    send(limit, makeItem(kind, "y", 1));
    send(limit, makeItem(kind, "y", 2));
    QCOMPARE(spy.count(), 3);
    QCOMPARE(entriesOf(kind, spy.at(1).at(3)), (Entries { { "y", 1 } }));
    QCOMPARE(entriesOf(kind, spy.at(2).at(3)), (Entries { { "y", 2 } }));
}

void tst_Limit::waitTimeHoldsPendingEntries()
{
    QFETCH(Kind, kind);

    const quint32 wait = 200;
    Limit limit;
    configure(limit, wait);
    QSignalSpy spy(&limit, Processed);
    send(limit, makeItem(kind, "a", 1));
    QCOMPARE(spy.count(), 1);

    // Changes within the wait time stay pending, each entry once, with its latest content.
    QTest::qWait(10);
    send(limit, makeItem(kind, "a", 2));
    send(limit, makeList(kind, { { "b", 1 }, { "a", 3 } }));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(s_log.size(), 2);
    checkDropLine(s_log.at(0), kind, wait);
    checkDropLine(s_log.at(1), kind, wait);

    // Nothing sends them by itself: there is no timer for lists.
    QTest::qWait(int(wait) + 30);
    QCOMPARE(spy.count(), 1);

    s_log.clear();
    flush(limit, kind);
    QCOMPARE(spy.count(), 2);
    QCOMPARE(entriesOf(kind, spy.at(1).at(3)), (Entries { { "a", 3 }, { "b", 1 } }));
    QCOMPARE(spy.at(1).at(2).toString(), QStringLiteral("Limiter"));
    QVERIFY(s_log.isEmpty());

    // Released: a further flush has nothing to send, and logs that it is too early.
    flush(limit, kind);
    QCOMPARE(spy.count(), 2);
    QCOMPARE(s_log.size(), 1);
    checkDropLine(s_log.at(0), kind, wait);
}

void tst_Limit::laterChangeOfAnotherMachineReleases()
{
    QFETCH(Kind, kind);

    const quint32 wait = 200;
    Limit limit;
    configure(limit, wait);
    QSignalSpy spy(&limit, Processed);

    // Two changes of one machine 10 ms apart: the first leaves at once, the second waits.
    send(limit, makeItem(kind, "x", 1));
    QTest::qWait(10);
    send(limit, makeItem(kind, "x", 2));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(s_log.size(), 1);
    checkDropLine(s_log.at(0), kind, wait);

    // A change of any machine after the wait time lets it go, machines in ascending order of name.
    QTest::qWait(int(wait) + 30);
    s_log.clear();
    send(limit, makeItem(kind, "x", 1), "a0");
    QCOMPARE(spy.count(), 3);
    QCOMPARE(spy.at(1).at(1).toString(), QStringLiteral("a0"));
    QCOMPARE(entriesOf(kind, spy.at(1).at(3)), (Entries { { "x", 1 } }));
    QCOMPARE(spy.at(2).at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(entriesOf(kind, spy.at(2).at(3)), (Entries { { "x", 2 } }));
    QVERIFY(s_log.isEmpty());
}

void tst_Limit::skippedMachinesAreLoggedEach()
{
    QFETCH(Kind, kind);

    const quint32 wait = 1000;
    Limit limit;
    configure(limit, wait);
    QSignalSpy spy(&limit, Processed);

    send(limit, makeItem(kind, "x", 1), "m2");
    send(limit, makeItem(kind, "x", 1), "m1");
    // m1's flush found m2 within its wait time, with nothing pending.
    QCOMPARE(spy.count(), 2);
    QCOMPARE(s_log.size(), 1);
    checkDropLine(s_log.at(0), kind, wait);

    s_log.clear();
    send(limit, makeItem(kind, "x", 2), "m3");
    QCOMPARE(spy.count(), 3);
    QCOMPARE(spy.at(2).at(1).toString(), QStringLiteral("m3"));
    QCOMPARE(s_log.size(), 2);
    checkDropLine(s_log.at(0), kind, wait);
    checkDropLine(s_log.at(1), kind, wait);
}

void tst_Limit::flushRestartsWaitOfIdleMachine()
{
    QFETCH(Kind, kind);

    const quint32 wait = 200;
    Limit limit;
    configure(limit, wait);
    QSignalSpy spy(&limit, Processed);

    send(limit, makeItem(kind, "x", 1), "m1");
    QTest::qWait(int(wait) + 30);
    // This flush passes m1 after its wait time: m1's last sending becomes now although it has nothing to send.
    send(limit, makeItem(kind, "x", 1), "m2");
    QCOMPARE(spy.count(), 2);
    s_log.clear();
    send(limit, makeItem(kind, "x", 2), "m1");
    QCOMPARE(spy.count(), 2);
    QCOMPARE(s_log.size(), 2);
    checkDropLine(s_log.at(0), kind, wait);
}

void tst_Limit::kindsWaitIndependently()
{
    QFETCH(Kind, kind);

    Limit limit;
    configure(limit, 1000);
    QSignalSpy spy(&limit, Processed);
    send(limit, makeItem(kind, "x", 1));
    for (int other = ConditionDefinitions; other <= MaintenanceValues; ++other) {
        if (other != kind)
            send(limit, makeItem(Kind(other), "x", 1));
    }
    QCOMPARE(spy.count(), 4);
    QVERIFY(s_log.isEmpty());
}

void tst_Limit::dropMessagesNeedDebug()
{
    QFETCH(Kind, kind);

    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false"));
    Limit limit;
    configure(limit, 1000);
    QSignalSpy spy(&limit, Processed);
    send(limit, makeItem(kind, "x", 1));
    send(limit, makeItem(kind, "x", 2));
    QCOMPARE(spy.count(), 1);
    QVERIFY(s_log.isEmpty());
}

void tst_Limit::maintenanceValuesChangeOnlyByValues_data()
{
    QTest::addColumn<MaintenanceDataV1>("next");
    QTest::addColumn<bool>("changed");

    QTest::newRow("same") << maintenanceValue("oil", 1.5, 2) << false;
    QTest::newRow("value2") << maintenanceValue("oil", 1.25, 2) << true;
    QTest::newRow("value3") << maintenanceValue("oil", 1.5, 2.0000001) << true;
    QTest::newRow("both") << maintenanceValue("oil", 0, 0) << true;
    QTest::newRow("id null and empty alike") << maintenanceValue("", 1.5, 2) << false;
}

void tst_Limit::maintenanceValuesChangeOnlyByValues()
{
    QFETCH(MaintenanceDataV1, next);
    QFETCH(bool, changed);

    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    MaintenanceDatasV1 list;
    list.timestamp = When;
    list.items = { maintenanceValue("oil", 1.5, 2), maintenanceValue(QString(), 1.5, 2) };
    send(limit, QVariant::fromValue(list));
    QCOMPARE(spy.count(), 1);

    MaintenanceDatasV1 again;
    again.timestamp = When.addSecs(1);
    again.items = { next };
    send(limit, QVariant::fromValue(again));
    QCOMPARE(spy.count(), changed ? 2 : 1);
    if (changed)
        QCOMPARE(qvariant_cast<MaintenanceDatasV1>(spy.last().at(3)).items, QList<MaintenanceDataV1> { next });
}

void tst_Limit::conditionValueTypeChangeIsChange()
{
    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    ConditionDataV2 value;
    value.id = QStringLiteral("x");
    value.value = 12;
    send(limit, QVariant::fromValue(value));
    value.value = QStringLiteral("12");
    send(limit, QVariant::fromValue(value));
    value.value = QStringLiteral("12");
    send(limit, QVariant::fromValue(value));
    QCOMPARE(spy.count(), 2);
    const ConditionDatasV2 list = qvariant_cast<ConditionDatasV2>(spy.last().at(3));
    QCOMPARE(list.items.size(), 1);
    QCOMPARE(list.items.first().value.userType(), int(QMetaType::QString));
}

QTEST_GUILESS_MAIN(tst_Limit)
#include "tst_limit.moc"
