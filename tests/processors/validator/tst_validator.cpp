#include "logcapture.h"
#include "mmdatasets.h"
#include "validator.h"
#include "validatorlogging.h"

#include <QSignalSpy>
#include <QtTest>

namespace {

const QDateTime When = QDateTime::fromMSecsSinceEpoch(1700000000000);
const char *const Processed = SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant));

QString warning(const QString &message)
{
    return LogCapture::line("WARNING", QStringLiteral("validator"), message);
}

QString debug(const QString &message)
{
    return LogCapture::line("DEBUG", QStringLiteral("validator"), message);
}

QString dropped(const QString &type, const QString &reason)
{
    return warning(QStringLiteral("Dataset %1 from m1(s1) is invalid: %2. Dropping it.").arg(type, reason));
}

QString modified(const QString &type, const QString &reason)
{
    return debug(QStringLiteral("Dataset %1 from m1(s1) was modified: %2.").arg(type, reason));
}

const QString TimestampReason = QStringLiteral("The timestamp is invalid. A valid timestamp is mandatory.");
const QString MessageReason = QStringLiteral("The message is missing or empty. A valid message is mandatory.");
const QString CodeReason = QStringLiteral("The message code is empty or \"0\". A valid message code is mandatory.");
const QString IdReason
    = QStringLiteral("ID is missing or empty. To acknowledge a specific notification. The ID is mandatory.");

NotificationsAddV1 notification(const QDateTime &timestamp, const QString &message, const QString &code)
{
    NotificationsAddV1 record;
    record.id = QStringLiteral("src/17");
    record.timestamp = timestamp;
    record.level = 2;
    record.message = message;
    record.messageCode = code;
    return record;
}

MaintenanceDefinitionV1 maintenance(const QString &id, const QString &unitText, const QString &unitCode = QString())
{
    MaintenanceDefinitionV1 record;
    record.id = id;
    record.unitText = unitText;
    if (!unitCode.isNull())
        record.unitCode = unitCode;
    record.value7 = 10;
    record.value8 = 20;
    record.comment = QStringLiteral("oil");
    return record;
}

ConditionDefinitionV2 definition(const QString &id, qint32 dataType)
{
    ConditionDefinitionV2 record;
    record.id = id;
    record.name = id.section(QLatin1Char('/'), -1);
    record.dataType = dataType;
    return record;
}

ConditionDataV2 value(const QString &id, const QVariant &value)
{
    ConditionDataV2 record;
    record.id = id;
    record.value = value;
    return record;
}

template <typename Record> bool equalAs(const QVariant &a, const QVariant &b)
{
    return qvariant_cast<Record>(a) == qvariant_cast<Record>(b);
}

/** Value equality for the dataset types, which register no comparator with QVariant. */
bool sameValue(const QVariant &a, const QVariant &b)
{
    if (a.userType() != b.userType())
        return false;
    const int type = a.userType();
    if (type == qMetaTypeId<GeneralV1>())
        return equalAs<GeneralV1>(a, b);
    if (type == qMetaTypeId<SwVerV1>())
        return equalAs<SwVerV1>(a, b);
    if (type == qMetaTypeId<OrderV1>())
        return equalAs<OrderV1>(a, b);
    if (type == qMetaTypeId<MaintenanceDatasV1>())
        return equalAs<MaintenanceDatasV1>(a, b);
    if (type == qMetaTypeId<MaintenanceDataV1>())
        return equalAs<MaintenanceDataV1>(a, b);
    return a == b;
}

} // namespace

class tst_Validator : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void identity();
    void state_data();
    void state();
    void notificationAdd_data();
    void notificationAdd();
    void notificationRemove_data();
    void notificationRemove();
    void notificationRemoveAll_data();
    void notificationRemoveAll();
    void untouchedTypes_data();
    void untouchedTypes();
    void conditionDefinitionsPassUnchanged();

    void unitCode_data();
    void unitCode();
    void unitCodeList_data();
    void unitCodeList();

    void conditionValue_data();
    void conditionValue();
    void conditionValueList();
    void listWithoutTextSentAgain();
    void conditionTypesPerMachine();
    void laterDefinitionReplacesType();
    void repairWithoutDebugOutput();
    void repairedKeepTimestampMachineAndSource();

private:
    void process(Validator &validator, const QVariant &data, const QString &machine = QStringLiteral("m1"));
    static void learn(
        Validator &validator, const QString &id, qint32 dataType, const QString &machine = QStringLiteral("m1"));

    LogCapture m_log { QStringLiteral("validator") };
};

void tst_Validator::init()
{
    m_log.start(QStringLiteral("*.debug=false\nvalidator.debug=true"));
}

void tst_Validator::cleanup()
{
    m_log.stop();
}

void tst_Validator::process(Validator &validator, const QVariant &data, const QString &machine)
{
    validator.processData(When, machine, QStringLiteral("s1"), data);
}

void tst_Validator::learn(Validator &validator, const QString &id, qint32 dataType, const QString &machine)
{
    validator.processData(When, machine, QStringLiteral("s1"), QVariant::fromValue(definition(id, dataType)));
}

void tst_Validator::identity()
{
    Validator validator;
    QVariantMap shared;
    QVERIFY(validator.init(QVariantMap(), shared));
    QVERIFY(validator.init(QVariantMap { { "validator", QVariantMap { { "x", "y" } } } }, shared));
    QVERIFY(shared.isEmpty());
    QCOMPARE(validator.name(), QStringLiteral("Validator"));
    QCOMPARE(validator.orderNumber(), 900u);
    QVERIFY(validator.qt_metacast("IProcessor"));
    QCOMPARE(QString::fromLatin1(lcValidator().categoryName()), QStringLiteral("validator"));
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Validator::state_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<bool>("valid");

    QTest::newRow("0") << 0 << false;
    QTest::newRow("1") << 1 << true;
    QTest::newRow("4") << 4 << true;
    QTest::newRow("7") << 7 << true;
    QTest::newRow("8") << 8 << false;
    QTest::newRow("-3") << -3 << false;
}

void tst_Validator::state()
{
    QFETCH(int, state);
    QFETCH(bool, valid);

    Validator validator;
    QSignalSpy spy(&validator, Processed);
    StateV1 record;
    record.state = state;
    process(validator, QVariant::fromValue(record));

    if (valid) {
        QCOMPARE(spy.count(), 1);
        QCOMPARE(spy.first().at(0).toDateTime(), When);
        QCOMPARE(spy.first().at(1).toString(), QStringLiteral("m1"));
        QCOMPARE(spy.first().at(2).toString(), QStringLiteral("s1"));
        QCOMPARE(qvariant_cast<StateV1>(spy.first().at(3)), record);
        QVERIFY(m_log.lines().isEmpty());
    } else {
        QCOMPARE(spy.count(), 0);
        QCOMPARE(m_log.lines(),
            QStringList { dropped("StateV1",
                QStringLiteral("received State %1. Only states between including 1 and 7 are valid!").arg(state)) });
    }
}

void tst_Validator::notificationAdd_data()
{
    QTest::addColumn<NotificationsAddV1>("record");
    QTest::addColumn<QString>("reason");

    QTest::newRow("valid") << notification(When, "Door open", "17") << QString();
    QTest::newRow("invalid timestamp") << notification(QDateTime(), "Door open", "17") << TimestampReason;
    QTest::newRow("null message") << notification(When, QString(), "17") << MessageReason;
    QTest::newRow("empty message") << notification(When, "", "17") << MessageReason;
    QTest::newRow("timestamp before message") << notification(QDateTime(), "", "17") << TimestampReason;
    QTest::newRow("timestamp before code") << notification(QDateTime(), "Door open", "0") << TimestampReason;
    QTest::newRow("message before code") << notification(When, "", "0") << MessageReason;
    QTest::newRow("null code") << notification(When, "Door open", QString()) << CodeReason;
    QTest::newRow("empty code") << notification(When, "Door open", "") << CodeReason;
    QTest::newRow("code 0") << notification(When, "Door open", "0") << CodeReason;
    QTest::newRow("code 00") << notification(When, "Door open", "00") << QString();
    QTest::newRow("code blank 0") << notification(When, "Door open", " 0") << QString();
    QTest::newRow("blank message") << notification(When, " ", "17") << QString();
}

void tst_Validator::notificationAdd()
{
    QFETCH(NotificationsAddV1, record);
    QFETCH(QString, reason);

    Validator validator;
    QSignalSpy spy(&validator, Processed);
    process(validator, QVariant::fromValue(record));

    if (reason.isNull()) {
        QCOMPARE(spy.count(), 1);
        QCOMPARE(qvariant_cast<NotificationsAddV1>(spy.first().at(3)), record);
        QVERIFY(m_log.lines().isEmpty());
    } else {
        QCOMPARE(spy.count(), 0);
        QCOMPARE(m_log.lines(), QStringList { dropped("NotificationsAddV1", reason) });
    }
}

void tst_Validator::notificationRemove_data()
{
    QTest::addColumn<QString>("id");
    QTest::addColumn<QDateTime>("timestamp");
    QTest::addColumn<QString>("reason");

    QTest::newRow("valid") << "17" << When << QString();
    QTest::newRow("null id") << QString() << When << IdReason;
    QTest::newRow("empty id") << "" << When << IdReason;
    QTest::newRow("invalid timestamp") << "17" << QDateTime() << TimestampReason;
    QTest::newRow("id before timestamp") << "" << QDateTime() << IdReason;
}

void tst_Validator::notificationRemove()
{
    QFETCH(QString, id);
    QFETCH(QDateTime, timestamp);
    QFETCH(QString, reason);

    Validator validator;
    QSignalSpy spy(&validator, Processed);
    NotificationsRemoveV1 record;
    record.id = id;
    record.timestamp = timestamp;
    process(validator, QVariant::fromValue(record));

    if (reason.isNull()) {
        QCOMPARE(spy.count(), 1);
        QCOMPARE(qvariant_cast<NotificationsRemoveV1>(spy.first().at(3)), record);
        QVERIFY(m_log.lines().isEmpty());
    } else {
        QCOMPARE(spy.count(), 0);
        QCOMPARE(m_log.lines(), QStringList { dropped("NotificationsRemoveV1", reason) });
    }
}

void tst_Validator::notificationRemoveAll_data()
{
    QTest::addColumn<QDateTime>("timestamp");
    QTest::addColumn<bool>("valid");

    QTest::newRow("valid") << When << true;
    QTest::newRow("invalid timestamp") << QDateTime() << false;
}

void tst_Validator::notificationRemoveAll()
{
    QFETCH(QDateTime, timestamp);
    QFETCH(bool, valid);

    Validator validator;
    QSignalSpy spy(&validator, Processed);
    NotificationsRemoveAllV1 record;
    record.timestamp = timestamp;
    process(validator, QVariant::fromValue(record));

    if (valid) {
        QCOMPARE(spy.count(), 1);
        QCOMPARE(qvariant_cast<NotificationsRemoveAllV1>(spy.first().at(3)), record);
        QVERIFY(m_log.lines().isEmpty());
    } else {
        QCOMPARE(spy.count(), 0);
        QCOMPARE(m_log.lines(), QStringList { dropped("NotificationsRemoveAllV1", TimestampReason) });
    }
}

void tst_Validator::untouchedTypes_data()
{
    QTest::addColumn<QVariant>("data");

    GeneralV1 general;
    general.pieces = 5;
    SwVerV1 version;
    version.version = QStringLiteral("1.2");
    OrderV1 order;
    order.programName = QStringLiteral("P1");
    MaintenanceDatasV1 maintenanceValues;
    MaintenanceDataV1 maintenanceValue;
    maintenanceValue.id = QStringLiteral("oil");
    maintenanceValue.value2 = 1;
    maintenanceValue.value3 = 2;
    maintenanceValues.items.append(maintenanceValue);

    QTest::newRow("GeneralV1") << QVariant::fromValue(general);
    QTest::newRow("SwVerV1") << QVariant::fromValue(version);
    QTest::newRow("OrderV1") << QVariant::fromValue(order);
    QTest::newRow("MaintenanceDatasV1") << QVariant::fromValue(maintenanceValues);
    QTest::newRow("MaintenanceDataV1") << QVariant::fromValue(maintenanceValue);
    QTest::newRow("int") << QVariant(42);
    QTest::newRow("string") << QVariant(QStringLiteral("STUNDEN"));
    QTest::newRow("invalid") << QVariant();
}

void tst_Validator::untouchedTypes()
{
    QFETCH(QVariant, data);

    Validator validator;
    QSignalSpy spy(&validator, Processed);
    process(validator, data);

    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.first().at(3).userType(), data.userType());
    QVERIFY(sameValue(spy.first().at(3), data));
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Validator::conditionDefinitionsPassUnchanged()
{
    Validator validator;
    QSignalSpy spy(&validator, Processed);
    ConditionDefinitionsV2 list;
    list.timestamp = When;
    list.items = { definition("m1/State/Machine/Values/a", 1), definition(QString(), 99) };
    process(validator, QVariant::fromValue(list));
    process(validator, QVariant::fromValue(definition("m1/State/Machine/Values/b", -5)));
    process(validator, QVariant::fromValue(ConditionDefinitionV2()));

    QCOMPARE(spy.count(), 3);
    QCOMPARE(qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3)), list);
    QCOMPARE(qvariant_cast<ConditionDefinitionV2>(spy.at(1).at(3)), definition("m1/State/Machine/Values/b", -5));
    QCOMPARE(QString::fromLatin1(spy.at(2).at(3).typeName()), QStringLiteral("ConditionDefinitionV2"));
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Validator::unitCode_data()
{
    QTest::addColumn<QString>("unitText");
    QTest::addColumn<QString>("unitCode");
    QTest::addColumn<QString>("expected");

    const auto row = [](const char *name, const QString &unitText, const QString &unitCode, const QString &expected) {
        QTest::newRow(name) << unitText << unitCode << expected;
    };
    row("STUNDEN", "STUNDEN", "", "HUR");
    row("Stunden", "Stunden", "", "HUR");
    row("HOURS", "HOURS", "", "HUR");
    row("hours", "hours", "", "HUR");
    row("H", "H", "", "HUR");
    row("h", "h", "", "HUR");
    row("SEKUNDEN", "SEKUNDEN", "", "SEC");
    row("sekunden", "sekunden", "", "SEC");
    row("SECONDS", "SECONDS", "", "SEC");
    row("Seconds", "Seconds", "", "SEC");
    row("S", "S", "", "SEC");
    row("s", "s", "", "SEC");
    row("#", "#", "", "NPT");
    row("# and blank", "# ", "", "");
    row("blank and h", " h", "", "");
    row("minutes", "MIN", "", "");
    row("null text", QString(), "", "");
    row("code kept", "h", "SEC", "SEC");
    row("unknown code kept", "#", "XYZ", "XYZ");
}

void tst_Validator::unitCode()
{
    QFETCH(QString, unitText);
    QFETCH(QString, unitCode);
    QFETCH(QString, expected);

    Validator validator;
    QSignalSpy spy(&validator, Processed);
    const MaintenanceDefinitionV1 record = maintenance("oil", unitText, unitCode);
    process(validator, QVariant::fromValue(record));

    QCOMPARE(spy.count(), 1);
    const QVariant out = spy.first().at(3);
    QCOMPARE(QString::fromLatin1(out.typeName()), QStringLiteral("MaintenanceDefinitionV1"));
    MaintenanceDefinitionV1 wanted = record;
    wanted.unitCode = expected;
    QCOMPARE(qvariant_cast<MaintenanceDefinitionV1>(out), wanted);
    QCOMPARE(qvariant_cast<MaintenanceDefinitionV1>(out).unitCode, expected);

    const bool changed = unitCode.isEmpty() && !expected.isEmpty();
    if (changed)
        QCOMPARE(m_log.lines(),
            QStringList { modified("MaintenanceDefinitionV1", QStringLiteral("Added unitcode to maintenance")) });
    else
        QVERIFY(m_log.lines().isEmpty());
}

void tst_Validator::unitCodeList_data()
{
    QTest::addColumn<QList<MaintenanceDefinitionV1>>("items");
    QTest::addColumn<QStringList>("codes");
    QTest::addColumn<QString>("reason");

    using Items = QList<MaintenanceDefinitionV1>;
    const auto row = [](const char *name, const Items &items, const QStringList &codes, const QString &reason) {
        QTest::newRow(name) << items << codes << reason;
    };
    row("one item h", { maintenance("a", "h") }, { "HUR" }, "Added UnitCode");
    row("all three codes", { maintenance("a", "Stunden"), maintenance("b", "seconds"), maintenance("c", "#") },
        { "HUR", "SEC", "NPT" }, "Added UnitCode");
    row("kept and added", { maintenance("a", "h", "SEC"), maintenance("b", "s") }, { "SEC", "SEC" }, "Added UnitCode");
    row("none found", { maintenance("a", "min"), maintenance("b", "# ") }, { "", "" }, QString());
    row("all have codes", { maintenance("a", "h", "HUR"), maintenance("b", "x", "C62") }, { "HUR", "C62" }, QString());
    // The list shares one reason: a later item without a code that finds none sets it back.
    row("found then not found", { maintenance("a", "h"), maintenance("b", "min") }, { "HUR", "" },
        "Added unitcode to maintenance");
    row("not found then found", { maintenance("a", "min"), maintenance("b", "h") }, { "", "HUR" }, "Added UnitCode");
    row("empty list", {}, {}, QString());
}

void tst_Validator::unitCodeList()
{
    QFETCH(QList<MaintenanceDefinitionV1>, items);
    QFETCH(QStringList, codes);
    QFETCH(QString, reason);

    Validator validator;
    QSignalSpy spy(&validator, Processed);
    MaintenanceDefinitionsV1 list;
    list.timestamp = When;
    list.items = items;
    process(validator, QVariant::fromValue(list));

    QCOMPARE(spy.count(), 1);
    const QVariant out = spy.first().at(3);
    QCOMPARE(QString::fromLatin1(out.typeName()), QStringLiteral("MaintenanceDefinitionsV1"));
    MaintenanceDefinitionsV1 wanted = list;
    for (int i = 0; i < codes.size(); ++i)
        wanted.items[i].unitCode = codes.at(i);
    QCOMPARE(qvariant_cast<MaintenanceDefinitionsV1>(out), wanted);

    if (reason.isNull())
        QVERIFY(m_log.lines().isEmpty());
    else
        QCOMPARE(m_log.lines(), QStringList { modified("MaintenanceDefinitionsV1", reason) });
}

void tst_Validator::conditionValue_data()
{
    QTest::addColumn<int>("dataType");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QVariant>("expected");
    QTest::addColumn<QString>("log");

    const QString toInt = modified("ConditionDataV2", "Changed Variant Datatype from String to Int");
    const QString toDouble = modified("ConditionDataV2", "Changed Variant Datatype from String to Double");
    const QString toBool = modified("ConditionDataV2", "Changed Variant Datatype from String to Bool");
    const auto notA = [](const QString &text, const QString &type) {
        return warning(QStringLiteral("Couldn't interpret %1 from m1 as %2").arg(text, type));
    };

    QTest::newRow("int 42") << 1 << QVariant("42") << QVariant(42) << toInt;
    QTest::newRow("int -7") << 1 << QVariant("-7") << QVariant(-7) << toInt;
    QTest::newRow("int 4x") << 1 << QVariant("4x") << QVariant("4x") << notA("4x", "Integer");
    QTest::newRow("int hex") << 1 << QVariant("0x1F") << QVariant("0x1F") << notA("0x1F", "Integer");
    QTest::newRow("int 1.5") << 1 << QVariant("1.5") << QVariant("1.5") << notA("1.5", "Integer");
    QTest::newRow("int too big") << 1 << QVariant("3000000000") << QVariant("3000000000")
                                 << notA("3000000000", "Integer");
    QTest::newRow("int empty") << 1 << QVariant("") << QVariant("") << notA("", "Integer");
    QTest::newRow("double 3.5") << 2 << QVariant("3.5") << QVariant(3.5) << toDouble;
    QTest::newRow("double 7") << 2 << QVariant("7") << QVariant(7.0) << toDouble;
    QTest::newRow("double 1e3") << 2 << QVariant("1e3") << QVariant(1000.0) << toDouble;
    QTest::newRow("double 3,5") << 2 << QVariant("3,5") << QVariant("3,5") << notA("3,5", "Double");
    QTest::newRow("double abc") << 2 << QVariant("abc") << QVariant("abc") << notA("abc", "Double");
    QTest::newRow("bool TRUE") << 3 << QVariant("TRUE") << QVariant(true) << toBool;
    QTest::newRow("bool true") << 3 << QVariant("true") << QVariant(true) << toBool;
    QTest::newRow("bool Yes") << 3 << QVariant("Yes") << QVariant(true) << toBool;
    QTest::newRow("bool wahr") << 3 << QVariant("wahr") << QVariant(true) << toBool;
    QTest::newRow("bool ja") << 3 << QVariant("ja") << QVariant(true) << toBool;
    QTest::newRow("bool 1") << 3 << QVariant("1") << QVariant(true) << toBool;
    QTest::newRow("bool False") << 3 << QVariant("False") << QVariant(false) << toBool;
    QTest::newRow("bool no") << 3 << QVariant("no") << QVariant(false) << toBool;
    QTest::newRow("bool FALSCH") << 3 << QVariant("FALSCH") << QVariant(false) << toBool;
    QTest::newRow("bool nein") << 3 << QVariant("nein") << QVariant(false) << toBool;
    QTest::newRow("bool 0") << 3 << QVariant("0") << QVariant(false) << toBool;
    QTest::newRow("bool maybe") << 3 << QVariant("maybe") << QVariant("maybe") << notA("maybe", "Bool");
    QTest::newRow("bool blank ja") << 3 << QVariant(" ja") << QVariant(" ja") << notA(" ja", "Bool");
    QTest::newRow("bool 2") << 3 << QVariant("2") << QVariant("2") << notA("2", "Bool");
    QTest::newRow("bool on") << 3 << QVariant("on") << QVariant("on") << notA("on", "Bool");
    QTest::newRow("text type") << 0 << QVariant("42") << QVariant("42") << QString();
    QTest::newRow("unknown type") << 4 << QVariant("42") << QVariant("42") << QString();
    QTest::newRow("negative type") << -1 << QVariant("42") << QVariant("42") << QString();
    QTest::newRow("int already int") << 1 << QVariant(5) << QVariant(5) << QString();
    QTest::newRow("bool already int") << 3 << QVariant(1) << QVariant(1) << QString();
    QTest::newRow("int from double") << 1 << QVariant(2.5) << QVariant(2.5) << QString();
    QTest::newRow("double from uint") << 2 << QVariant(7u) << QVariant(7u) << QString();
    QTest::newRow("bool from qulonglong") << 3 << QVariant(qulonglong(1)) << QVariant(qulonglong(1)) << QString();
    QTest::newRow("int from bytes") << 1 << QVariant(QByteArray("42")) << QVariant(QByteArray("42")) << QString();
    QTest::newRow("int from invalid") << 1 << QVariant() << QVariant() << QString();
}

void tst_Validator::conditionValue()
{
    QFETCH(int, dataType);
    QFETCH(QVariant, value);
    QFETCH(QVariant, expected);
    QFETCH(QString, log);

    const QString id = QStringLiteral("m1/State/Machine/Values/x");
    Validator validator;
    QSignalSpy spy(&validator, Processed);
    learn(validator, id, dataType);
    process(validator, QVariant::fromValue(::value(id, value)));

    QCOMPARE(spy.count(), 2);
    const QVariant out = spy.at(1).at(3);
    QCOMPARE(QString::fromLatin1(out.typeName()), QStringLiteral("ConditionDataV2"));
    const ConditionDataV2 record = qvariant_cast<ConditionDataV2>(out);
    QCOMPARE(record.id, id);
    QCOMPARE(record.value.userType(), expected.userType());
    QCOMPARE(record.value, expected);
    QCOMPARE(m_log.lines(), log.isNull() ? QStringList() : QStringList { log });

    // Without a definition of the condition the value stays as it came.
    m_log.clear();
    Validator unaware;
    QSignalSpy unawareSpy(&unaware, Processed);
    learn(unaware, QStringLiteral("m1/State/Machine/Values/other"), dataType);
    process(unaware, QVariant::fromValue(::value(id, value)));
    QCOMPARE(unawareSpy.count(), 2);
    QCOMPARE(qvariant_cast<ConditionDataV2>(unawareSpy.at(1).at(3)).value.userType(), value.userType());
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Validator::conditionValueList()
{
    Validator validator;
    QSignalSpy spy(&validator, Processed);
    ConditionDefinitionsV2 definitions;
    definitions.items = { definition("i", 1), definition("d", 2), definition("b", 3), definition("t", 0) };
    process(validator, QVariant::fromValue(definitions));

    ConditionDatasV2 list;
    list.timestamp = When;
    list.items = { value("t", "text"), value("i", "12"), value("b", "nope"), value("d", "0.25"), value("u", "9"),
        value("b", 7), value("i", "x") };
    process(validator, QVariant::fromValue(list));

    QCOMPARE(spy.count(), 2);
    const QVariant out = spy.at(1).at(3);
    QCOMPARE(QString::fromLatin1(out.typeName()), QStringLiteral("ConditionDatasV2"));
    const ConditionDatasV2 result = qvariant_cast<ConditionDatasV2>(out);
    QCOMPARE(result.timestamp, When);
    ConditionDatasV2 wanted = list;
    wanted.items[1].value = 12;
    wanted.items[3].value = 0.25;
    QCOMPARE(result, wanted);
    QCOMPARE(result.items.at(1).value.userType(), int(QMetaType::Int));
    QCOMPARE(result.items.at(3).value.userType(), int(QMetaType::Double));
    // Warnings in list order, then the reason of the last item that changed.
    QCOMPARE(m_log.lines(),
        (QStringList { warning("Couldn't interpret nope from m1 as Bool"),
            warning("Couldn't interpret x from m1 as Integer"),
            modified("ConditionDatasV2", "Changed Variant Datatype from String to Double") }));

    // A list in which nothing changes leaves as it came and is not reported.
    m_log.clear();
    ConditionDatasV2 plain;
    plain.items = { value("t", "text"), value("i", 4), value("u", "1") };
    process(validator, QVariant::fromValue(plain));
    QCOMPARE(spy.count(), 3);
    QCOMPARE(qvariant_cast<ConditionDatasV2>(spy.at(2).at(3)), plain);
    QVERIFY(m_log.lines().isEmpty());

    ConditionDatasV2 empty;
    process(validator, QVariant::fromValue(empty));
    QCOMPARE(spy.count(), 4);
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Validator::listWithoutTextSentAgain()
{
    // A list without text is passed on as it came, again and again; once an item of it changes to text, that item is
    // converted, in the list sent again as in a copy of it.
    Validator validator;
    QSignalSpy spy(&validator, Processed);
    learn(validator, "i", 1);
    ConditionDatasV2 list;
    list.items = { value("i", 4), value("u", "1") };
    list.items[1].value = 2.5;
    const QVariant sent = QVariant::fromValue(list);
    process(validator, sent);
    process(validator, sent);
    QCOMPARE(spy.count(), 3);
    QCOMPARE(qvariant_cast<ConditionDatasV2>(spy.at(1).at(3)), list);
    QCOMPARE(qvariant_cast<ConditionDatasV2>(spy.at(2).at(3)), list);

    list.items[0].value = QStringLiteral("12");
    process(validator, QVariant::fromValue(list));
    QCOMPARE(spy.count(), 4);
    const ConditionDatasV2 result = qvariant_cast<ConditionDatasV2>(spy.at(3).at(3));
    QCOMPARE(result.items.at(0).value, QVariant(12));
    QCOMPARE(result.items.at(0).value.userType(), int(QMetaType::Int));
    QCOMPARE(result.items.at(1).value, QVariant(2.5));
    QCOMPARE(
        m_log.lines(), QStringList { modified("ConditionDatasV2", "Changed Variant Datatype from String to Int") });
}

void tst_Validator::conditionTypesPerMachine()
{
    Validator validator;
    QSignalSpy spy(&validator, Processed);
    learn(validator, "x", 1, "m2");

    // A value that comes before its definition is not converted.
    process(validator, QVariant::fromValue(value("x", "5")));
    learn(validator, "x", 3, "m1");
    process(validator, QVariant::fromValue(value("x", "5")), "m2");
    process(validator, QVariant::fromValue(value("x", "1")), "m1");

    QCOMPARE(spy.count(), 5);
    QCOMPARE(qvariant_cast<ConditionDataV2>(spy.at(1).at(3)).value, QVariant("5"));
    QCOMPARE(qvariant_cast<ConditionDataV2>(spy.at(3).at(3)).value, QVariant(5));
    QCOMPARE(spy.at(3).at(1).toString(), QStringLiteral("m2"));
    QCOMPARE(qvariant_cast<ConditionDataV2>(spy.at(4).at(3)).value, QVariant(true));
    QCOMPARE(m_log.lines(),
        (QStringList { debug("Dataset ConditionDataV2 from m2(s1) was modified: Changed Variant Datatype from "
                             "String to Int."),
            modified("ConditionDataV2", "Changed Variant Datatype from String to Bool") }));
}

void tst_Validator::laterDefinitionReplacesType()
{
    Validator validator;
    QSignalSpy spy(&validator, Processed);
    learn(validator, "x", 1);
    ConditionDefinitionsV2 definitions;
    definitions.items = { definition("x", 2) };
    process(validator, QVariant::fromValue(definitions));
    process(validator, QVariant::fromValue(value("x", "1.5")));
    learn(validator, "x", 0);
    process(validator, QVariant::fromValue(value("x", "1.5")));

    QCOMPARE(spy.count(), 5);
    QCOMPARE(qvariant_cast<ConditionDataV2>(spy.at(2).at(3)).value, QVariant(1.5));
    QCOMPARE(qvariant_cast<ConditionDataV2>(spy.at(4).at(3)).value, QVariant("1.5"));
    QCOMPARE(
        m_log.lines(), QStringList { modified("ConditionDataV2", "Changed Variant Datatype from String to Double") });
}

void tst_Validator::repairWithoutDebugOutput()
{
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false"));
    Validator validator;
    QSignalSpy spy(&validator, Processed);
    learn(validator, "x", 1);
    process(validator, QVariant::fromValue(value("x", "3")));
    process(validator, QVariant::fromValue(maintenance("oil", "h")));
    process(validator, QVariant::fromValue(value("x", "y")));

    QCOMPARE(spy.count(), 4);
    QCOMPARE(qvariant_cast<ConditionDataV2>(spy.at(1).at(3)).value, QVariant(3));
    QCOMPARE(qvariant_cast<MaintenanceDefinitionV1>(spy.at(2).at(3)).unitCode, QStringLiteral("HUR"));
    QCOMPARE(m_log.lines(), QStringList { warning("Couldn't interpret y from m1 as Integer") });
}

void tst_Validator::repairedKeepTimestampMachineAndSource()
{
    Validator validator;
    QSignalSpy spy(&validator, Processed);
    const QDateTime later = When.addSecs(3600);
    validator.processData(later, "m2", "s2", QVariant::fromValue(definition("x", 1)));
    validator.processData(later.addSecs(1), "m2", "s3", QVariant::fromValue(value("x", "3")));
    validator.processData(later.addSecs(2), "m3", "s4", QVariant::fromValue(maintenance("oil", "h")));

    QCOMPARE(spy.count(), 3);
    QCOMPARE(qvariant_cast<ConditionDataV2>(spy.at(1).at(3)).value, QVariant(3));
    QCOMPARE(spy.at(1).at(0).toDateTime(), later.addSecs(1));
    QCOMPARE(spy.at(1).at(1).toString(), QStringLiteral("m2"));
    QCOMPARE(spy.at(1).at(2).toString(), QStringLiteral("s3"));
    QCOMPARE(qvariant_cast<MaintenanceDefinitionV1>(spy.at(2).at(3)).unitCode, QStringLiteral("HUR"));
    QCOMPARE(spy.at(2).at(0).toDateTime(), later.addSecs(2));
    QCOMPARE(spy.at(2).at(1).toString(), QStringLiteral("m3"));
    QCOMPARE(spy.at(2).at(2).toString(), QStringLiteral("s4"));
}

QTEST_GUILESS_MAIN(tst_Validator)
#include "tst_validator.moc"
