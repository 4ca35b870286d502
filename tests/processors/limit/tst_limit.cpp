#include "core.h"
#include "iprocessor.h"
#include "limit.h"
#include "limitlogging.h"
#include "logcapture.h"
#include "mmdatasets.h"
#include "testsupport.h"
#include "wwtypes.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>

using namespace TestSupport;

namespace {

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

/** Switches the debug messages of the category "limit" on or off, and those of every other category off. */
void showDropMessages(bool on)
{
    QLoggingCategory::setFilterRules(
        on ? QStringLiteral("*.debug=false\nlimit.debug=true") : QStringLiteral("*.debug=false"));
}

/** The time the limiters under test take for now, when they are given fakeNow as their clock. */
qint64 s_now = 0;

qint64 fakeNow()
{
    return s_now;
}

const qint64 Start = 1700000000000;

/** Exact texts of values, telling apart what == takes as equal: null and empty texts, the bits of doubles, types. */
QString exact(const QString &text)
{
    return text.isNull() ? QStringLiteral("null") : QLatin1Char('"') + text + QLatin1Char('"');
}

QString exact(double number)
{
    quint64 bits = 0;
    std::memcpy(&bits, &number, sizeof bits);
    return QStringLiteral("0x") + QString::number(bits, 16);
}

QString exact(bool flag)
{
    return flag ? QStringLiteral("true") : QStringLiteral("false");
}

QString exact(qint32 number)
{
    return QString::number(number);
}

QString exact(const QDateTime &time)
{
    return QString::number(time.toMSecsSinceEpoch()) + QLatin1Char('@') + QString::number(int(time.timeSpec()));
}

QString exact(const QVariant &value)
{
    const QString type = QString::fromLatin1(value.typeName()) + QLatin1Char(':');
    switch (value.userType()) {
    case QMetaType::Double:
        return type + exact(value.toDouble());
    case QMetaType::QString:
        return type + exact(value.toString());
    default:
        return type + value.toString();
    }
}

template <typename Record> QString exactRecord(const Record &record);

template <typename T> QString exact(const QList<T> &list)
{
    QStringList parts;
    for (const T &item : list)
        parts.append(exactRecord(item));
    return QLatin1Char('[') + parts.join(QLatin1Char(',')) + QLatin1Char(']');
}

template <typename Record> QString exactRecord(const Record &record)
{
    QStringList parts;
    Record::visitFields(
        [&](const char *name, auto member) { parts.append(QLatin1String(name) + '=' + exact(record.*member)); });
    return QLatin1Char('(') + parts.join(QLatin1Char(',')) + QLatin1Char(')');
}

/** A dataset as one exact text. */
QString describe(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    const QString head
        = QStringList { exact(timestamp), machine, source, QString::fromLatin1(data.typeName()) }.join(QLatin1Char(' '))
        + QLatin1Char(' ');
    const int type = data.userType();
    if (type == qMetaTypeId<ConditionDefinitionsV2>())
        return head + exactRecord(qvariant_cast<ConditionDefinitionsV2>(data));
    if (type == qMetaTypeId<ConditionDatasV2>())
        return head + exactRecord(qvariant_cast<ConditionDatasV2>(data));
    if (type == qMetaTypeId<MaintenanceDefinitionsV1>())
        return head + exactRecord(qvariant_cast<MaintenanceDefinitionsV1>(data));
    if (type == qMetaTypeId<MaintenanceDatasV1>())
        return head + exactRecord(qvariant_cast<MaintenanceDatasV1>(data));
    return head + exact(data);
}

/** The list kind of an emitted list. */
Kind kindOf(const QVariant &data)
{
    const int type = data.userType();
    if (type == qMetaTypeId<ConditionDefinitionsV2>())
        return ConditionDefinitions;
    if (type == qMetaTypeId<ConditionDatasV2>())
        return ConditionValues;
    if (type == qMetaTypeId<MaintenanceDefinitionsV1>())
        return MaintenanceDefinitions;
    return MaintenanceValues;
}

/** The same list with a time stamp of its own: its items share their data with the given one's. */
QVariant restamped(Kind kind, const QVariant &data)
{
    switch (kind) {
    case ConditionDefinitions: {
        auto list = qvariant_cast<ConditionDefinitionsV2>(data);
        list.timestamp = nextListTime();
        return QVariant::fromValue(list);
    }
    case ConditionValues: {
        auto list = qvariant_cast<ConditionDatasV2>(data);
        list.timestamp = nextListTime();
        return QVariant::fromValue(list);
    }
    case MaintenanceDefinitions: {
        auto list = qvariant_cast<MaintenanceDefinitionsV1>(data);
        list.timestamp = nextListTime();
        return QVariant::fromValue(list);
    }
    case MaintenanceValues: {
        auto list = qvariant_cast<MaintenanceDatasV1>(data);
        list.timestamp = nextListTime();
        return QVariant::fromValue(list);
    }
    }
    return QVariant();
}

/** A condition value of one of the types that compare in their own way: integer, double, NaN, text. */
QVariant conditionValueOf(const QString &id, int number, int variant)
{
    ConditionDataV2 item;
    item.id = id;
    switch (variant) {
    case 0:
        item.value = number * 0.5;
        break;
    case 1:
        item.value = std::nan("");
        break;
    case 2:
        item.value = QString::number(number);
        break;
    default:
        item.value = number;
        break;
    }
    return QVariant::fromValue(item);
}

/**
 * One of two limiters fed the same datasets at the same times: what it sent, and a receiver that, for some of the
 * lists it gets, sends a change back into it while it is still sending.
 */
struct Twin
{
    explicit Twin(bool sendsBack, int machines)
        : sendsBack(sendsBack)
        , machines(machines)
    {
        limit.setClock(&fakeNow);
        QObject::connect(&limit, &Limit::dataProcessed,
            [this](const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data) {
                received(timestamp, machine, source, data);
            });
    }

    void received(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
    {
        const QString text = describe(timestamp, machine, source, data);
        out.append(text);
        const uint hash = qHash(text);
        if (!sendsBack || depth >= 2 || hash % 3 != 0)
            return;
        // Decided by what arrived, so that both limiters get the same as long as they sent the same.
        ++depth;
        const QString target = (hash / 3) % 5 == 0 ? QStringLiteral("r%1").arg(++broughtIn)
                                                   : QStringLiteral("m%1").arg((hash / 7) % uint(machines));
        const QString id = QString(QChar(QLatin1Char('a' + int((hash / 11) % 6))));
        limit.processData(When, target, QStringLiteral("s1"), makeItem(kindOf(data), id, int((hash / 13) % 4)));
        --depth;
    }

    Limit limit;
    const bool sendsBack;
    const int machines;
    QStringList out;
    int depth = 0;
    int broughtIn = 0;
};

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
    void stateKeepAliveBoundary();

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
    void singleEntryRepeatIsDroppedByItsType_data() { listKinds(); }
    void singleEntryRepeatIsDroppedByItsType();
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
    void machinesWithoutEntriesAreNotVisited_data() { listKinds(); }
    void machinesWithoutEntriesAreNotVisited();
    void dropMessagesNeedDebug_data() { listKinds(); }
    void dropMessagesNeedDebug();

    void maintenanceValuesChangeOnlyByValues_data();
    void maintenanceValuesChangeOnlyByValues();
    void conditionValueTypeChangeIsChange();

    void idleMachineFollowsFlushesOfOthers_data();
    void idleMachineFollowsFlushesOfOthers();
    void manyMachinesLeaveInNameOrder();
    void sameItemsWithNewTime_data() { listKinds(); }
    void sameItemsWithNewTime();
    void sameItemsWithNaNChangeEachTime();
    void entriesLeftOutKeepTheirItems_data() { listKinds(); }
    void entriesLeftOutKeepTheirItems();
    void entryKeepsLatestOfEqualItems();
    void receiverSendsBackWhileFlushing();
    void quickFlushesMatchVisitingEveryMachine_data();
    void quickFlushesMatchVisitingEveryMachine();

private:
    void configure(Limit &limit, quint32 waitTime, quint32 keepAliveTime = 0);
    static void send(Limit &limit, const QVariant &data, const QString &machine = QStringLiteral("m1"));
    static void listKinds();
    static void checkDropLine(const QString &line, Kind kind, quint32 waitTime);

    LogCapture m_log { QStringLiteral("limit") };
};

void tst_Limit::init()
{
    m_log.start(QStringLiteral("*.debug=false\nlimit.debug=true"));
}

void tst_Limit::cleanup()
{
    m_log.stop();
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
    QVERIFY(m_log.lines().isEmpty());
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
    QCOMPARE(m_log.lines(), log);

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
    WwState state;
    state.MachineState = 2;
    WwState otherState = state;
    otherState.OperationMode = 1;
    WwIdentification identification;
    identification.SerialNumber = QStringLiteral("4711");
    WwIdentification otherIdentification = identification;
    otherIdentification.YearOfConstruction = 2020;
    WwBaseEventType event;
    event.Id = QStringLiteral("1");
    WwBaseEventType otherEvent = event;
    otherEvent.Message = QStringLiteral("Door open");
    WwCapabilities capabilities;
    capabilities.Mask = WwCapabilities::OwnState;
    WwCapabilities otherCapabilities;
    otherCapabilities.Mask = WwCapabilities::OwnIdentification;
    WwManufacturerSpecific specific;
    specific.LastProgramName = QStringLiteral("P1");
    WwManufacturerSpecific otherSpecific;
    otherSpecific.LastProgramName = QStringLiteral("P2");

    QTest::newRow("WwState") << QVariant::fromValue(state) << QVariant::fromValue(otherState);
    QTest::newRow("WwIdentification") << QVariant::fromValue(identification)
                                      << QVariant::fromValue(otherIdentification);
    QTest::newRow("WwBaseEventType") << QVariant::fromValue(event) << QVariant::fromValue(otherEvent);
    QTest::newRow("WwCapabilities") << QVariant::fromValue(capabilities) << QVariant::fromValue(otherCapabilities);
    QTest::newRow("WwManufacturerSpecific") << QVariant::fromValue(specific) << QVariant::fromValue(otherSpecific);
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
    m_log.clear();
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
    QVERIFY(m_log.lines().isEmpty());
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
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::stateKeepAliveBoundary()
{
    Limit limit;
    configure(limit, 0, 100);
    limit.setClock(&fakeNow);
    QSignalSpy spy(&limit, Processed);

    s_now = Start;
    send(limit, QVariant::fromValue(state(2)));
    s_now = Start + 99;
    send(limit, QVariant::fromValue(state(2)));
    QCOMPARE(spy.count(), 1);
    // Exactly the keep-alive time after the last one that passed is no longer fewer milliseconds.
    s_now = Start + 100;
    send(limit, QVariant::fromValue(state(2)));
    QCOMPARE(spy.count(), 2);

    // A state that differs from the last one passes at once and restarts the keep-alive time as well.
    s_now = Start + 150;
    send(limit, QVariant::fromValue(state(3)));
    s_now = Start + 160;
    send(limit, QVariant::fromValue(state(2)));
    QCOMPARE(spy.count(), 4);
    s_now = Start + 259;
    send(limit, QVariant::fromValue(state(2)));
    QCOMPARE(spy.count(), 4);
    s_now = Start + 260;
    send(limit, QVariant::fromValue(state(2)));
    QCOMPARE(spy.count(), 5);
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
    QVERIFY(m_log.lines().isEmpty());
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
    QVERIFY(m_log.lines().isEmpty());
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
    QVERIFY(m_log.lines().isEmpty());
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

void tst_Limit::singleEntryRepeatIsDroppedByItsType()
{
    QFETCH(Kind, kind);

    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    send(limit, makeItem(kind, "x", 1));
    send(limit, makeList(kind, { { "x", 2 } }));
    QCOMPARE(spy.count(), 2);

    // The repeat equals the last single entry of the machine, so it is dropped before the entry table is consulted,
    // although the table holds the list's item by now.
    send(limit, makeItem(kind, "x", 1));
    QCOMPARE(spy.count(), 2);

    send(limit, makeItem(kind, "x", 3));
    send(limit, makeItem(kind, "x", 1));
    QCOMPARE(spy.count(), 4);
    QCOMPARE(entriesOf(kind, spy.last().at(3)), (Entries { { "x", 1 } }));
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
    QCOMPARE(m_log.lines().size(), 2);
    checkDropLine(m_log.lines().at(0), kind, wait);
    checkDropLine(m_log.lines().at(1), kind, wait);

    // Nothing sends them by itself: there is no timer for lists.
    QTest::qWait(int(wait) + 30);
    QCOMPARE(spy.count(), 1);

    m_log.clear();
    flush(limit, kind);
    QCOMPARE(spy.count(), 2);
    QCOMPARE(entriesOf(kind, spy.at(1).at(3)), (Entries { { "a", 3 }, { "b", 1 } }));
    QCOMPARE(spy.at(1).at(2).toString(), QStringLiteral("Limiter"));
    QVERIFY(m_log.lines().isEmpty());

    // Released: a further flush has nothing to send, and logs that it is too early.
    flush(limit, kind);
    QCOMPARE(spy.count(), 2);
    QCOMPARE(m_log.lines().size(), 1);
    checkDropLine(m_log.lines().at(0), kind, wait);
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
    QCOMPARE(m_log.lines().size(), 1);
    checkDropLine(m_log.lines().at(0), kind, wait);

    // A change of any machine after the wait time lets it go, machines in ascending order of name.
    QTest::qWait(int(wait) + 30);
    m_log.clear();
    send(limit, makeItem(kind, "x", 1), "a0");
    QCOMPARE(spy.count(), 3);
    QCOMPARE(spy.at(1).at(1).toString(), QStringLiteral("a0"));
    QCOMPARE(entriesOf(kind, spy.at(1).at(3)), (Entries { { "x", 1 } }));
    QCOMPARE(spy.at(2).at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(entriesOf(kind, spy.at(2).at(3)), (Entries { { "x", 2 } }));
    QVERIFY(m_log.lines().isEmpty());
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
    QCOMPARE(m_log.lines().size(), 1);
    checkDropLine(m_log.lines().at(0), kind, wait);

    m_log.clear();
    send(limit, makeItem(kind, "x", 2), "m3");
    QCOMPARE(spy.count(), 3);
    QCOMPARE(spy.at(2).at(1).toString(), QStringLiteral("m3"));
    QCOMPARE(m_log.lines().size(), 2);
    checkDropLine(m_log.lines().at(0), kind, wait);
    checkDropLine(m_log.lines().at(1), kind, wait);
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
    m_log.clear();
    send(limit, makeItem(kind, "x", 2), "m1");
    QCOMPARE(spy.count(), 2);
    QCOMPARE(m_log.lines().size(), 2);
    checkDropLine(m_log.lines().at(0), kind, wait);
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
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::machinesWithoutEntriesAreNotVisited()
{
    QFETCH(Kind, kind);

    const quint32 wait = 1000;
    Limit limit;
    configure(limit, wait);
    QSignalSpy spy(&limit, Processed);

    // Machines the limiter knows, yet without entries of this kind: one sent only a state, one only an empty list.
    send(limit, QVariant::fromValue(state(2)), "a0");
    send(limit, makeList(kind, {}), "a1");
    QCOMPARE(spy.count(), 1);
    send(limit, makeItem(kind, "x", 1), "m1");
    QCOMPARE(spy.count(), 2);
    QVERIFY(m_log.lines().isEmpty());

    // The flush of this change finds only m1 within its wait time; the others are no part of it.
    send(limit, makeItem(kind, "x", 2), "m1");
    QCOMPARE(spy.count(), 2);
    QCOMPARE(m_log.lines().size(), 1);
    checkDropLine(m_log.lines().at(0), kind, wait);
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
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::maintenanceValuesChangeOnlyByValues_data()
{
    QTest::addColumn<MaintenanceDataV1>("next");
    QTest::addColumn<bool>("changed");

    QTest::newRow("same") << maintenanceValue("oil", 1.5, 2) << false;
    QTest::newRow("value2") << maintenanceValue("oil", 1.25, 2) << true;
    QTest::newRow("value3") << maintenanceValue("oil", 1.5, 2.0000001) << true;
    // Exact comparison: no tolerance hides a small change of a counter.
    QTest::newRow("value2 by 1e-12") << maintenanceValue("oil", 1.5 + 1e-12, 2) << true;
    QTest::newRow("value3 by 1e-12") << maintenanceValue("oil", 1.5, 2 + 1e-12) << true;
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

void tst_Limit::idleMachineFollowsFlushesOfOthers_data()
{
    QTest::addColumn<Kind>("kind");
    QTest::addColumn<bool>("debug");

    const QList<QPair<Kind, QString>> kinds { { ConditionDefinitions, "condition definitions" },
        { ConditionValues, "condition values" }, { MaintenanceDefinitions, "maintenance definitions" },
        { MaintenanceValues, "maintenance values" } };
    for (const auto &kind : kinds) {
        QTest::newRow(qPrintable(kind.second)) << kind.first << false;
        QTest::newRow(qPrintable(kind.second + ", drop messages logged")) << kind.first << true;
    }
}

void tst_Limit::idleMachineFollowsFlushesOfOthers()
{
    QFETCH(Kind, kind);
    QFETCH(bool, debug);

    showDropMessages(debug);
    Limit limit;
    configure(limit, 200);
    limit.setClock(&fakeNow);
    QSignalSpy spy(&limit, Processed);

    s_now = Start;
    send(limit, makeItem(kind, "x", 1), "m1");
    QCOMPARE(spy.count(), 1);
    // Flushes run by the first entries of other machines. m1 has nothing pending, yet its last sending moves to the
    // first flush at least 200 ms after it (210), then to the first at least 200 ms after that (410, not 409).
    int other = 0;
    for (const qint64 at : { 150, 210, 300, 409, 410, 500 }) {
        s_now = Start + at;
        send(limit, makeItem(kind, "x", 1), QStringLiteral("a%1").arg(++other));
    }
    QCOMPARE(spy.count(), 7);

    // So a change at 550 waits, a flush at 609 does not let it go, and one at 610 does.
    s_now = Start + 550;
    send(limit, makeItem(kind, "x", 2), "m1");
    s_now = Start + 609;
    send(limit, makeItem(kind, "x", 1), "b1");
    QCOMPARE(spy.count(), 8);
    QCOMPARE(spy.last().at(1).toString(), QStringLiteral("b1"));
    s_now = Start + 610;
    send(limit, makeItem(kind, "x", 1), "b2");
    QCOMPARE(spy.count(), 10);
    QCOMPARE(spy.at(8).at(1).toString(), QStringLiteral("b2"));
    QCOMPARE(spy.at(9).at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(entriesOf(kind, spy.at(9).at(3)), (Entries { { "x", 2 } }));
    QCOMPARE(spy.at(9).at(0).toDateTime(), QDateTime::fromMSecsSinceEpoch(Start + 610));
    if (!debug)
        QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::manyMachinesLeaveInNameOrder()
{
    showDropMessages(false);
    Limit limit;
    configure(limit, 100);
    limit.setClock(&fakeNow);
    QSignalSpy spy(&limit, Processed);

    // Their name order ("edge-10" before "edge-2") is neither the order of their numbers nor the order they come in.
    const int count = 3000;
    QStringList names;
    for (int i = 0; i < count; ++i)
        names.append(QStringLiteral("edge-%1").arg(i));
    std::shuffle(names.begin(), names.end(), std::mt19937(7));

    s_now = Start;
    for (const QString &name : qAsConst(names))
        send(limit, makeItem(ConditionValues, "x", 1), name);
    QCOMPARE(spy.count(), count);
    s_now = Start + 10;
    for (const QString &name : qAsConst(names))
        send(limit, makeItem(ConditionValues, "x", 2), name);
    s_now = Start + 99;
    send(limit, makeItem(ConditionValues, "x", 1), "zz");
    QCOMPARE(spy.count(), count + 1);

    // The first change after the wait time lets every machine's pending entries go, one list each, in name order.
    s_now = Start + 100;
    send(limit, makeItem(ConditionValues, "y", 1), names.first());
    QCOMPARE(spy.count(), 2 * count + 1);
    QStringList sorted = names;
    std::sort(sorted.begin(), sorted.end());
    for (int i = 0; i < count; ++i) {
        const QVariantList &dataset = spy.at(count + 1 + i);
        QCOMPARE(dataset.at(1).toString(), sorted.at(i));
        QCOMPARE(dataset.at(0).toDateTime(), QDateTime::fromMSecsSinceEpoch(Start + 100));
        const Entries expected
            = sorted.at(i) == names.first() ? Entries { { "x", 2 }, { "y", 1 } } : Entries { { "x", 2 } };
        QCOMPARE(entriesOf(ConditionValues, dataset.at(3)), expected);
    }

    // All of them have just sent: a change of one of them waits again.
    s_now = Start + 150;
    send(limit, makeItem(ConditionValues, "x", 3), names.last());
    QCOMPARE(spy.count(), 2 * count + 1);
    s_now = Start + 200;
    send(limit, makeItem(ConditionValues, "x", 2), "zz");
    QCOMPARE(spy.count(), 2 * count + 3);
    QCOMPARE(spy.at(2 * count + 1).at(1).toString(), names.last());
    QCOMPARE(spy.at(2 * count + 2).at(1).toString(), QStringLiteral("zz"));
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::sameItemsWithNewTime()
{
    QFETCH(Kind, kind);

    showDropMessages(false);
    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    const QVariant list = makeList(kind, { { "a", 1 }, { "b", 2 } });
    send(limit, list);
    QCOMPARE(spy.count(), 1);

    // The same items, shared with the list before, with a new time stamp: nothing has changed.
    send(limit, restamped(kind, list));
    QCOMPARE(spy.count(), 1);

    // A single entry in between: the same items again change it back.
    send(limit, makeItem(kind, "a", 5));
    QCOMPARE(spy.count(), 2);
    QCOMPARE(entriesOf(kind, spy.last().at(3)), (Entries { { "a", 5 } }));
    send(limit, restamped(kind, list));
    QCOMPARE(spy.count(), 3);
    QCOMPARE(entriesOf(kind, spy.last().at(3)), (Entries { { "a", 1 } }));
    send(limit, restamped(kind, list));
    QCOMPARE(spy.count(), 3);

    // A list holding an id twice: the items are taken in turn, so the first is a change, and the second is sent.
    const QVariant twice = makeList(kind, { { "a", 3 }, { "b", 2 }, { "a", 1 } });
    send(limit, twice);
    QCOMPARE(spy.count(), 4);
    QCOMPARE(entriesOf(kind, spy.last().at(3)), (Entries { { "a", 1 } }));
    send(limit, restamped(kind, twice));
    QCOMPARE(spy.count(), 5);
    QCOMPARE(entriesOf(kind, spy.last().at(3)), (Entries { { "a", 1 } }));
    send(limit, makeList(kind, { { "b", 2 } }));
    send(limit, restamped(kind, list));
    QCOMPARE(spy.count(), 5);
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::sameItemsWithNaNChangeEachTime()
{
    showDropMessages(false);
    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    ConditionDatasV2 list;
    list.timestamp = nextListTime();
    list.items.append(qvariant_cast<ConditionDataV2>(conditionValueOf("x", 0, 1)));
    list.items.append(conditionValue("y", 1));
    send(limit, QVariant::fromValue(list));
    QCOMPARE(spy.count(), 1);

    // A NaN never equals the stored value, not even itself: it is a change every time the list comes.
    const QVariant again = restamped(ConditionValues, QVariant::fromValue(list));
    send(limit, again);
    QCOMPARE(spy.count(), 2);
    const ConditionDatasV2 sent = qvariant_cast<ConditionDatasV2>(spy.last().at(3));
    QCOMPARE(sent.items.size(), 1);
    QCOMPARE(sent.items.first().id, QStringLiteral("x"));
    QVERIFY(std::isnan(sent.items.first().value.toDouble()));
    const QVariant third = restamped(ConditionValues, again);
    send(limit, third);
    QCOMPARE(spy.count(), 3);
    // The very same dataset again is a repeat, though: the duplicate filter takes a list as equal to itself.
    send(limit, third);
    QCOMPARE(spy.count(), 3);
}

void tst_Limit::entriesLeftOutKeepTheirItems()
{
    QFETCH(Kind, kind);

    showDropMessages(false);
    Limit limit;
    configure(limit, 0);
    QSignalSpy spy(&limit, Processed);
    send(limit, makeList(kind, { { "a", 1 }, { "b", 2 }, { "c", 3 } }));
    QCOMPARE(spy.count(), 1);

    // Lists that leave entries out, while the lists their items came in are gone.
    send(limit, makeList(kind, { { "b", 2 } }));
    send(limit, makeList(kind, { { "c", 3 }, { "a", 1 } }));
    send(limit, makeList(kind, {}));
    QCOMPARE(spy.count(), 1);
    send(limit, makeItem(kind, "c", 4));
    QCOMPARE(spy.count(), 2);
    send(limit, makeList(kind, { { "a", 1 }, { "c", 4 } }));
    send(limit, makeList(kind, { { "b", 2 } }));
    QCOMPARE(spy.count(), 2);
    send(limit, makeList(kind, { { "a", 7 }, { "b", 2 }, { "c", 4 } }));
    QCOMPARE(spy.count(), 3);
    QCOMPARE(entriesOf(kind, spy.last().at(3)), (Entries { { "a", 7 } }));
}

void tst_Limit::entryKeepsLatestOfEqualItems()
{
    showDropMessages(false);
    Limit limit;
    configure(limit, 1000);
    limit.setClock(&fakeNow);
    QSignalSpy spy(&limit, Processed);

    s_now = Start;
    ConditionDataV2 value;
    value.id = QStringLiteral("x");
    value.value = 1.0;
    send(limit, QVariant::fromValue(value));
    s_now = Start + 10;
    value.value = 2.0;
    send(limit, QVariant::fromValue(value));
    // Equal for QVariant, which compares doubles with a tolerance, so no change; the entry takes it all the same.
    const double nearly = 2.0 + 4e-15;
    QVERIFY(nearly != 2.0);
    s_now = Start + 20;
    value.value = nearly;
    ConditionDatasV2 list;
    list.timestamp = nextListTime();
    list.items = { value };
    send(limit, QVariant::fromValue(list));
    QCOMPARE(spy.count(), 1);

    s_now = Start + 1100;
    send(limit, QVariant::fromValue(value), "m2");
    QCOMPARE(spy.count(), 3);
    QCOMPARE(spy.at(1).at(1).toString(), QStringLiteral("m1"));
    const ConditionDatasV2 sent = qvariant_cast<ConditionDatasV2>(spy.at(1).at(3));
    QCOMPARE(sent.items.size(), 1);
    QCOMPARE(exact(sent.items.first().value), exact(QVariant(nearly)));

    // Likewise an id that is empty where the stored one is null.
    MaintenanceDatasV1 maintenance;
    maintenance.timestamp = nextListTime();
    maintenance.items = { maintenanceValue(QString(), 1) };
    send(limit, QVariant::fromValue(maintenance), "m3");
    QCOMPARE(spy.count(), 4);
    QVERIFY(qvariant_cast<MaintenanceDatasV1>(spy.last().at(3)).items.first().id.isNull());
    s_now = Start + 2200;
    send(limit, QVariant::fromValue(maintenanceValue(QStringLiteral(""), 2)), "m3");
    QCOMPARE(spy.count(), 5);
    const MaintenanceDatasV1 sentMaintenance = qvariant_cast<MaintenanceDatasV1>(spy.last().at(3));
    QCOMPARE(exact(sentMaintenance.items), exactRecord(maintenanceValue(QStringLiteral(""), 2)).prepend('[') + ']');
}

void tst_Limit::receiverSendsBackWhileFlushing()
{
    for (const bool debug : { false, true }) {
        showDropMessages(debug);
        Limit limit;
        configure(limit, 100);
        limit.setClock(&fakeNow);
        QStringList out;
        bool sentBack = false;
        QObject::connect(&limit, &Limit::dataProcessed,
            [&](const QDateTime &, const QString &machine, const QString &, const QVariant &data) {
                out.append(
                    machine + QLatin1Char(' ') + QString::number(entriesOf(ConditionValues, data).first().second));
                // While m2's second list is being sent, a change of m1, which has just sent.
                if (machine == QLatin1String("m2") && s_now == Start + 150 && !sentBack) {
                    sentBack = true;
                    send(limit, makeItem(ConditionValues, "x", 3), "m1");
                }
            });

        s_now = Start;
        for (const char *machine : { "m1", "m2", "m3" })
            send(limit, makeItem(ConditionValues, "x", 1), machine);
        s_now = Start + 10;
        for (const char *machine : { "m1", "m2", "m3" })
            send(limit, makeItem(ConditionValues, "x", 2), machine);
        // The flush of m9's first entry sends m1 and m2; the one m2's receiver starts finds m1 within its wait time,
        // and sends m3 and m9 before the first goes on, which then finds them within their wait times.
        s_now = Start + 150;
        send(limit, makeItem(ConditionValues, "x", 1), "m9");
        QCOMPARE(out, (QStringList { "m1 1", "m2 1", "m3 1", "m1 2", "m2 2", "m3 2", "m9 1" }));
        s_now = Start + 249;
        send(limit, makeItem(ConditionValues, "x", 1), "m8");
        s_now = Start + 250;
        send(limit, makeItem(ConditionValues, "x", 1), "m7");
        QCOMPARE(out.mid(7), (QStringList { "m8 1", "m1 3", "m7 1" }));
    }
}

void tst_Limit::quickFlushesMatchVisitingEveryMachine_data()
{
    QTest::addColumn<quint32>("wait");
    QTest::addColumn<int>("machines");
    QTest::addColumn<int>("steps");
    QTest::addColumn<bool>("sendsBack");
    QTest::addColumn<bool>("backwards");
    QTest::addColumn<bool>("switchDebug");
    QTest::addColumn<uint>("seed");

    QTest::newRow("wait 0") << 0u << 12 << 1500 << false << false << false << 1u;
    QTest::newRow("wait 50") << 50u << 25 << 4000 << false << false << false << 2u;
    QTest::newRow("long history") << 1000u << 6 << 6000 << false << false << false << 3u;
    QTest::newRow("clock steps back") << 50u << 25 << 3000 << false << true << false << 4u;
    QTest::newRow("receivers send back") << 50u << 25 << 3000 << true << false << false << 5u;
    QTest::newRow("drop messages switched on and off") << 50u << 25 << 3000 << false << false << true << 6u;
    QTest::newRow("all at once") << 80u << 60 << 5000 << true << true << true << 7u;
}

void tst_Limit::quickFlushesMatchVisitingEveryMachine()
{
    QFETCH(quint32, wait);
    QFETCH(int, machines);
    QFETCH(int, steps);
    QFETCH(bool, sendsBack);
    QFETCH(bool, backwards);
    QFETCH(bool, switchDebug);
    QFETCH(uint, seed);

    // Two limiters get the same datasets at the same times. The drop messages are always on for the one, so that it
    // visits every machine in every flush; for the other they are off, or now and then on.
    s_now = Start;
    Twin full(sendsBack, machines);
    Twin quick(sendsBack, machines);
    configure(full.limit, wait);
    configure(quick.limit, wait);
    std::mt19937 random(seed);
    const auto below = [&random](int bound) { return int(random() % uint(bound)); };
    const QStringList ids { "a", "b", "c", "d", "e", "f" };
    const auto valueVariant = [&below]() {
        const int choice = below(20);
        return choice < 16 ? 3 : choice - 16;
    };
    QHash<QString, QVariant> lastLists;
    bool quickDebug = false;
    int sent = 0;
    int logged = 0;

    for (int step = 0; step < steps; ++step) {
        const QString machine = QStringLiteral("m%1").arg(below(machines));
        const Kind kind = Kind(below(4));
        const QString key = machine + QLatin1Char('/') + QString::number(kind);
        const int choice = below(100);
        QVariant data;
        bool flushes = false;
        if (choice < 45) {
            QStringList chosen;
            for (const QString &id : ids) {
                if (below(3) != 0)
                    chosen.append(id);
            }
            if (below(10) < 3)
                std::shuffle(chosen.begin(), chosen.end(), random);
            if (!chosen.isEmpty() && below(20) == 0)
                chosen.append(chosen.first());
            Entries entries;
            for (const QString &id : qAsConst(chosen))
                entries.append({ id, below(4) });
            if (kind == ConditionValues) {
                ConditionDatasV2 list;
                list.timestamp = nextListTime();
                for (const auto &entry : qAsConst(entries))
                    list.items.append(
                        qvariant_cast<ConditionDataV2>(conditionValueOf(entry.first, entry.second, valueVariant())));
                data = QVariant::fromValue(list);
            } else {
                data = makeList(kind, entries);
            }
            lastLists.insert(key, data);
        } else if (choice < 55) {
            if (lastLists.contains(key)) {
                data = restamped(kind, lastLists.value(key));
                lastLists.insert(key, data);
            }
        } else if (choice < 60) {
            data = lastLists.value(key);
        } else if (choice < 75) {
            const QString id = ids.at(below(ids.size()));
            data = kind == ConditionValues ? conditionValueOf(id, below(4), valueVariant())
                                           : makeItem(kind, id, below(4));
        } else if (choice < 80) {
            flushes = true;
        } else if (choice < 95) {
            s_now += below(int(wait / 2) + 2);
        } else if (choice < 97) {
            s_now += qint64(wait) + below(int(wait) + 1);
        } else if (choice < 99) {
            if (backwards)
                s_now -= below(int(wait) + 5);
        } else if (switchDebug) {
            quickDebug = !quickDebug;
        } else if (wait != 0 && below(4) == 0) {
            // A new wait time from here on, for the machines that are waiting as well.
            const quint32 newWait = quint32(below(int(2 * wait) + 1));
            configure(full.limit, newWait);
            configure(quick.limit, newWait);
        }

        const auto apply = [&](Twin &twin) {
            if (data.isValid())
                twin.limit.processData(When, machine, QStringLiteral("s1"), data);
            else if (flushes)
                flush(twin.limit, kind);
        };
        showDropMessages(true);
        m_log.clear();
        apply(full);
        const QStringList fullLog = m_log.lines();
        showDropMessages(quickDebug);
        m_log.clear();
        apply(quick);
        if (quick.out != full.out || (quickDebug && m_log.lines() != fullLog)) {
            QFAIL(qPrintable(QStringLiteral("step %1, %2 of %3: sent %4 and logged %5 where visiting every machine "
                                            "sends %6 and logs %7")
                                 .arg(step)
                                 .arg(machine)
                                 .arg(kind)
                                 .arg(quick.out.join(QLatin1String("; ")), m_log.lines().join(QLatin1String("; ")),
                                     full.out.join(QLatin1String("; ")), fullLog.join(QLatin1String("; ")))));
        }
        sent += full.out.size();
        logged += fullLog.size();
        full.out.clear();
        quick.out.clear();
    }
    // Lists went out, and (with a wait time) lists were held back.
    QVERIFY(sent > steps / 10);
    QVERIFY(wait == 0 || logged > steps / 10);
}

QTEST_GUILESS_MAIN(tst_Limit)
#include "tst_limit.moc"
