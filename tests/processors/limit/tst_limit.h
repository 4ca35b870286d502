#ifndef ORVIX_TST_LIMIT_H
#define ORVIX_TST_LIMIT_H

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

namespace LimitTest {

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

inline ConditionDefinitionV2 conditionDefinition(const QString &id, int number)
{
    ConditionDefinitionV2 item;
    item.id = id;
    item.name = id;
    item.dataType = number;
    return item;
}

inline ConditionDataV2 conditionValue(const QString &id, int number)
{
    ConditionDataV2 item;
    item.id = id;
    item.value = number;
    return item;
}

inline MaintenanceDefinitionV1 maintenanceDefinition(const QString &id, int number)
{
    MaintenanceDefinitionV1 item;
    item.id = id;
    item.unitText = QStringLiteral("HOURS");
    item.value7 = number;
    item.value8 = 0;
    return item;
}

inline MaintenanceDataV1 maintenanceValue(const QString &id, double value2, double value3 = 0)
{
    MaintenanceDataV1 item;
    item.id = id;
    item.value2 = value2;
    item.value3 = value3;
    return item;
}

inline MaintenanceDataV1 maintenanceValueOf(const QString &id, int number)
{
    return maintenanceValue(id, number);
}

// Every list gets a time stamp of its own, so that the duplicate filter never hides what the entries do.
inline QDateTime nextListTime()
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

inline QVariant makeList(Kind kind, const Entries &entries)
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

inline QVariant makeItem(Kind kind, const QString &id, int number)
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
inline Entries entriesOf(Kind kind, const QVariant &data, QDateTime *timestamp = nullptr)
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

inline void flush(Limit &limit, Kind kind)
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

inline QVariantMap limitConfig(const QVariant &waitTime, const QVariant &keepAliveTime)
{
    QVariantMap group;
    if (waitTime.isValid())
        group.insert(QStringLiteral("waitTime"), waitTime);
    if (keepAliveTime.isValid())
        group.insert(QStringLiteral("keepAliveTime"), keepAliveTime);
    return QVariantMap { { QStringLiteral("limit"), group } };
}

inline StateV1 state(qint32 code)
{
    StateV1 record;
    record.state = code;
    return record;
}

/** An order record with every field set, so that two of them compare by their program name alone. */
inline OrderV1 program(const QString &programName)
{
    OrderV1 record;
    record.programName = programName;
    record.number4 = record.number6 = record.number7 = record.number11 = 0;
    record.flag5 = false;
    return record;
}

inline GeneralV1 general(quint64 pieces)
{
    GeneralV1 record;
    record.powerOnHours = 1.5;
    record.pieces = pieces;
    return record;
}

/** Switches the debug messages of the category "limit" on or off, and those of every other category off. */
inline void showDropMessages(bool on)
{
    QLoggingCategory::setFilterRules(
        on ? QStringLiteral("*.debug=false\nlimit.debug=true") : QStringLiteral("*.debug=false"));
}

/** The time the limiters under test take for now, when they are given fakeNow as their clock. */
inline qint64 s_now = 0;

inline qint64 fakeNow()
{
    return s_now;
}

const qint64 Start = 1700000000000;

/** Exact texts of values, telling apart what == takes as equal: null and empty texts, the bits of doubles, types. */
inline QString exact(const QString &text)
{
    return text.isNull() ? QStringLiteral("null") : QLatin1Char('"') + text + QLatin1Char('"');
}

inline QString exact(double number)
{
    quint64 bits = 0;
    std::memcpy(&bits, &number, sizeof bits);
    return QStringLiteral("0x") + QString::number(bits, 16);
}

inline QString exact(bool flag)
{
    return flag ? QStringLiteral("true") : QStringLiteral("false");
}

inline QString exact(qint32 number)
{
    return QString::number(number);
}

inline QString exact(const QDateTime &time)
{
    return QString::number(time.toMSecsSinceEpoch()) + QLatin1Char('@') + QString::number(int(time.timeSpec()));
}

inline QString exact(const QVariant &value)
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
inline QString describe(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
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
inline Kind kindOf(const QVariant &data)
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
inline QVariant restamped(Kind kind, const QVariant &data)
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
inline QVariant conditionValueOf(const QString &id, int number, int variant)
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

} // namespace LimitTest

using namespace LimitTest;

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

#endif
