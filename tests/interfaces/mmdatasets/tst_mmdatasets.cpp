#include "mmdatasets.h"
#include "recordtesthelpers.h"

#include <QtTest>

#include <functional>
#include <thread>
#include <type_traits>
#include <vector>

using namespace recordtest;

namespace {

// The type-specific checks of one record type, so that the tests below can run over all of them from _data tables.
struct TypeChecks
{
    std::function<Registration()> registration;
    std::function<QStringList()> fieldNames;
    std::function<QStringList()> fieldsIgnoredByEquality;
    std::function<void(QStringList *, QStringList *)> stringDefaults;
};

template <typename Record> TypeChecks checksFor()
{
    return TypeChecks { registration<Record>, fieldNames<Record>, fieldsIgnoredByEquality<Record>,
        stringDefaults<Record> };
}

QHash<QString, TypeChecks> allChecks()
{
    return {
        { QStringLiteral("StateV1"), checksFor<StateV1>() },
        { QStringLiteral("GeneralV1"), checksFor<GeneralV1>() },
        { QStringLiteral("NotificationsAddV1"), checksFor<NotificationsAddV1>() },
        { QStringLiteral("NotificationsRemoveV1"), checksFor<NotificationsRemoveV1>() },
        { QStringLiteral("NotificationsRemoveAllV1"), checksFor<NotificationsRemoveAllV1>() },
        { QStringLiteral("ConditionDefinitionsV2"), checksFor<ConditionDefinitionsV2>() },
        { QStringLiteral("ConditionDefinitionV2"), checksFor<ConditionDefinitionV2>() },
        { QStringLiteral("ConditionDatasV2"), checksFor<ConditionDatasV2>() },
        { QStringLiteral("ConditionDataV2"), checksFor<ConditionDataV2>() },
        { QStringLiteral("MaintenanceDefinitionsV1"), checksFor<MaintenanceDefinitionsV1>() },
        { QStringLiteral("MaintenanceDefinitionV1"), checksFor<MaintenanceDefinitionV1>() },
        { QStringLiteral("MaintenanceDatasV1"), checksFor<MaintenanceDatasV1>() },
        { QStringLiteral("MaintenanceDataV1"), checksFor<MaintenanceDataV1>() },
        { QStringLiteral("SwVerV1"), checksFor<SwVerV1>() },
        { QStringLiteral("OrderV1"), checksFor<OrderV1>() },
    };
}

QStringList split(const char *names)
{
    return QString::fromLatin1(names).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

} // namespace

class tst_MmDatasets : public QObject
{
    Q_OBJECT

private slots:
    void namedCodes();
    void registration_data();
    void registration();
    void registrationIsThreadSafe();
    void fieldOrder_data();
    void fieldOrder();
    void stringDefaults_data();
    void stringDefaults();
    void otherDefaults();
    void equalityCoversEveryField_data();
    void equalityCoversEveryField();
    void conditionValueEqualityIsExact();
    void nullAndEmptyStringsCompareEqual();
    void extractingOtherTypeYieldsDefault();
    void generalV1IsPlainRecord();
    void rewrappingKeepsTypeName();
};

void tst_MmDatasets::registration_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("movable");
    QTest::newRow("StateV1") << "StateV1" << true;
    QTest::newRow("GeneralV1") << "GeneralV1" << true;
    const char *others[]
        = { "NotificationsAddV1", "NotificationsRemoveV1", "NotificationsRemoveAllV1", "ConditionDefinitionsV2",
              "ConditionDefinitionV2", "ConditionDatasV2", "ConditionDataV2", "MaintenanceDefinitionsV1",
              "MaintenanceDefinitionV1", "MaintenanceDatasV1", "MaintenanceDataV1", "SwVerV1", "OrderV1" };
    for (const char *name : others)
        QTest::newRow(name) << QString::fromLatin1(name) << false;
}

void tst_MmDatasets::registration()
{
    QFETCH(QString, name);
    QFETCH(bool, movable);
    const Registration r = allChecks().value(name).registration();
    QCOMPARE(r.variantTypeName, name);
    QVERIFY(r.id >= QMetaType::User);
    QCOMPARE(r.idByName, r.id);
    QCOMPARE(r.movable, movable);
    // The id is cached: asking again gives the same number.
    QCOMPARE(allChecks().value(name).registration().id, r.id);
}

void tst_MmDatasets::registrationIsThreadSafe()
{
    // OrderV1 and SwVerV1 are first touched here, from several threads at once.
    std::vector<int> orderIds(8), swVerIds(8);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&, i] {
            orderIds[i] = qMetaTypeId<OrderV1>();
            swVerIds[i] = qMetaTypeId<SwVerV1>();
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    for (int i = 0; i < 8; ++i) {
        QCOMPARE(orderIds[i], QMetaType::type("OrderV1"));
        QCOMPARE(swVerIds[i], QMetaType::type("SwVerV1"));
    }
    QVERIFY(orderIds[0] != swVerIds[0]);
}

void tst_MmDatasets::fieldOrder_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QStringList>("fields");
    const QStringList list = split("timestamp items");
    QTest::newRow("StateV1") << "StateV1" << split("state");
    QTest::newRow("GeneralV1") << "GeneralV1" << split("powerOnHours feedOnHours pieces length counter5 counter6");
    QTest::newRow("NotificationsAddV1") << "NotificationsAddV1"
                                        << split("id timestamp flag level message messageCode text7 text8");
    QTest::newRow("NotificationsRemoveV1") << "NotificationsRemoveV1" << split("id timestamp");
    QTest::newRow("NotificationsRemoveAllV1") << "NotificationsRemoveAllV1" << split("timestamp");
    QTest::newRow("ConditionDefinitionsV2") << "ConditionDefinitionsV2" << list;
    QTest::newRow("ConditionDefinitionV2")
        << "ConditionDefinitionV2"
        << split("id name text3 text4 dataType unitCode unitKey unitText number9 lowerValue upperValue text12 text13 "
                 "flag14");
    QTest::newRow("ConditionDatasV2") << "ConditionDatasV2" << list;
    QTest::newRow("ConditionDataV2") << "ConditionDataV2" << split("id value");
    QTest::newRow("MaintenanceDefinitionsV1") << "MaintenanceDefinitionsV1" << list;
    QTest::newRow("MaintenanceDefinitionV1")
        << "MaintenanceDefinitionV1"
        << split("id timestamp text3 unitText unitCode unitKey value7 value8 text9 flag10 flag11 flag12 flag13 text14 "
                 "text15 text16 comment flag18 text19 text20");
    QTest::newRow("MaintenanceDatasV1") << "MaintenanceDatasV1" << list;
    QTest::newRow("MaintenanceDataV1") << "MaintenanceDataV1" << split("id value2 value3");
    QTest::newRow("SwVerV1") << "SwVerV1" << split("version");
    QTest::newRow("OrderV1")
        << "OrderV1"
        << split("text1 programName text3 number4 flag5 number6 number7 number8 time9 time10 number11 text12 text13");
}

void tst_MmDatasets::fieldOrder()
{
    QFETCH(QString, type);
    QFETCH(QStringList, fields);
    QCOMPARE(allChecks().value(type).fieldNames(), fields);
}

void tst_MmDatasets::stringDefaults_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QStringList>("nullFields");
    QTest::addColumn<QStringList>("emptyFields");
    QTest::newRow("NotificationsAddV1") << "NotificationsAddV1" << split("id message messageCode text7 text8")
                                        << QStringList();
    QTest::newRow("NotificationsRemoveV1") << "NotificationsRemoveV1" << split("id") << QStringList();
    QTest::newRow("ConditionDefinitionV2")
        << "ConditionDefinitionV2" << split("id text3 text4")
        << split("name unitCode unitKey unitText lowerValue upperValue text12 text13");
    QTest::newRow("ConditionDataV2") << "ConditionDataV2" << split("id") << QStringList();
    QTest::newRow("MaintenanceDefinitionV1")
        << "MaintenanceDefinitionV1" << split("id text3 unitText")
        << split("unitCode unitKey text9 text14 text15 text16 comment text19 text20");
    QTest::newRow("MaintenanceDataV1") << "MaintenanceDataV1" << split("id") << QStringList();
    QTest::newRow("SwVerV1") << "SwVerV1" << split("version") << QStringList();
    QTest::newRow("OrderV1") << "OrderV1" << split("text1 programName text3 text13") << split("text12");
}

void tst_MmDatasets::stringDefaults()
{
    QFETCH(QString, type);
    QFETCH(QStringList, nullFields);
    QFETCH(QStringList, emptyFields);
    QStringList actualNull, actualEmpty;
    allChecks().value(type).stringDefaults(&actualNull, &actualEmpty);
    QCOMPARE(actualNull, nullFields);
    QCOMPARE(actualEmpty, emptyFields);
}

void tst_MmDatasets::otherDefaults()
{
    ConditionDefinitionV2 definition;
    QVERIFY(definition.id.isNull());
    QVERIFY(!definition.name.isNull());
    QVERIFY(definition.name.isEmpty());
    QCOMPARE(definition.number9, 0.0);
    QCOMPARE(definition.flag14, false);

    MaintenanceDefinitionV1 maintenance;
    QVERIFY(maintenance.id.isNull());
    QVERIFY(maintenance.text3.isNull());
    QVERIFY(maintenance.unitText.isNull());
    QVERIFY(!maintenance.unitCode.isNull());
    QVERIFY(!maintenance.timestamp.isValid());
    QVERIFY(!maintenance.flag10 && !maintenance.flag11 && !maintenance.flag12 && !maintenance.flag13
        && !maintenance.flag18);

    const GeneralV1 general;
    QCOMPARE(general.powerOnHours, 0.0);
    QCOMPARE(general.feedOnHours, 0.0);
    QCOMPARE(general.pieces, quint64(0));
    QCOMPARE(general.length, 0.0);
    QCOMPARE(general.counter5, qint64(0));
    QCOMPARE(general.counter6, qint64(0));

    OrderV1 order;
    QCOMPARE(order.number8, 0.0);
    QVERIFY(!order.time9.isValid());
    QVERIFY(!order.time10.isValid());

    NotificationsAddV1 add;
    QVERIFY(!add.timestamp.isValid());
    QCOMPARE(add.flag, false);
    QVERIFY(!NotificationsRemoveV1().timestamp.isValid());
    QVERIFY(!NotificationsRemoveAllV1().timestamp.isValid());
    QVERIFY(!ConditionDataV2().value.isValid());

    const ConditionDatasV2 list;
    QVERIFY(!list.timestamp.isValid());
    QVERIFY(list.items.isEmpty());
    QVERIFY(ConditionDefinitionsV2().items.isEmpty());
    QVERIFY(MaintenanceDefinitionsV1().items.isEmpty());
    QVERIFY(MaintenanceDatasV1().items.isEmpty());

    // The numeric widths are part of the contract with plugins.
    static_assert(std::is_same_v<decltype(StateV1::state), qint32>);
    static_assert(std::is_same_v<decltype(GeneralV1::pieces), quint64>);
    static_assert(std::is_same_v<decltype(GeneralV1::counter5), qint64>);
    static_assert(std::is_same_v<decltype(NotificationsAddV1::level), qint32>);
    static_assert(std::is_same_v<decltype(ConditionDefinitionV2::dataType), qint32>);
    static_assert(std::is_same_v<decltype(ConditionDataV2::value), QVariant>);
    static_assert(std::is_same_v<decltype(ConditionDefinitionsV2::items), QList<ConditionDefinitionV2>>);
    static_assert(std::is_same_v<decltype(ConditionDatasV2::items), QList<ConditionDataV2>>);
    static_assert(std::is_same_v<decltype(MaintenanceDefinitionsV1::items), QList<MaintenanceDefinitionV1>>);
    static_assert(std::is_same_v<decltype(MaintenanceDatasV1::items), QList<MaintenanceDataV1>>);
}

void tst_MmDatasets::equalityCoversEveryField_data()
{
    QTest::addColumn<QString>("type");
    const QStringList types = allChecks().keys();
    for (const QString &type : types)
        QTest::newRow(qPrintable(type)) << type;
}

void tst_MmDatasets::equalityCoversEveryField()
{
    QFETCH(QString, type);
    QCOMPARE(allChecks().value(type).fieldsIgnoredByEquality(), QStringList());
}

void tst_MmDatasets::conditionValueEqualityIsExact()
{
    ConditionDataV2 a;
    a.id = QStringLiteral("m1/State/Machine/Values/AxisOverride");
    a.value = QVariant(12u);
    ConditionDataV2 b = a;
    QCOMPARE(a, b);
    b.value = QVariant(12);
    QVERIFY(a != b);
    b.value = QVariant(QStringLiteral("12"));
    QVERIFY(a != b);
    b.value = QVariant(qulonglong(12));
    QVERIFY(a != b);
}

void tst_MmDatasets::nullAndEmptyStringsCompareEqual()
{
    // Equality follows QString's: a null and an empty text are the same value.
    SwVerV1 a;
    SwVerV1 b;
    b.version = QLatin1String("");
    QVERIFY(a.version.isNull() && !b.version.isNull());
    QCOMPARE(a, b);
}

void tst_MmDatasets::extractingOtherTypeYieldsDefault()
{
    ConditionDatasV2 datas;
    datas.timestamp = QDateTime::currentDateTimeUtc();
    ConditionDataV2 data;
    data.id = QStringLiteral("m1/x");
    data.value = true;
    datas.items.append(data);
    const QVariant variant = QVariant::fromValue(datas);

    const ConditionDefinitionsV2 definitions = qvariant_cast<ConditionDefinitionsV2>(variant);
    QVERIFY(!definitions.timestamp.isValid());
    QVERIFY(definitions.items.isEmpty());
    QCOMPARE(qvariant_cast<ConditionDatasV2>(variant), datas);
}

void tst_MmDatasets::generalV1IsPlainRecord()
{
    static_assert(std::is_trivially_copyable_v<GeneralV1>);
    static_assert(std::is_trivially_copyable_v<StateV1>);
    QVERIFY(!QTypeInfo<GeneralV1>::isStatic);
    QVERIFY(!QTypeInfo<GeneralV1>::isComplex || QTypeInfo<GeneralV1>::isRelocatable);

    GeneralV1 general;
    general.powerOnHours = 1.5;
    general.feedOnHours = 0.25;
    general.pieces = 42;
    general.length = 12;
    general.counter5 = -1;
    general.counter6 = 6;
    GeneralV1 copy = general;
    QCOMPARE(copy, general);
    GeneralV1 moved = std::move(copy);
    QCOMPARE(moved, general);
    QVector<GeneralV1> vector(3, general);
    vector.insert(0, GeneralV1());
    QCOMPARE(vector.at(3), general);
    QCOMPARE(qvariant_cast<GeneralV1>(QVariant::fromValue(general)), general);
}

void tst_MmDatasets::rewrappingKeepsTypeName()
{
    ConditionDefinitionV2 definition;
    definition.id = QStringLiteral("m1/State/Machine/Values/FeedSpeed");
    ConditionDefinitionsV2 definitions;
    definitions.items.append(definition);
    QVariant variant = QVariant::fromValue(definitions);
    ConditionDefinitionsV2 changed = qvariant_cast<ConditionDefinitionsV2>(variant);
    changed.items[0].unitText = QStringLiteral("mm/min");
    variant.setValue(changed);
    QCOMPARE(QByteArray(variant.typeName()), QByteArray("ConditionDefinitionsV2"));
    QCOMPARE(variant.userType(), qMetaTypeId<ConditionDefinitionsV2>());
    QCOMPARE(qvariant_cast<ConditionDefinitionsV2>(variant).items.at(0).unitText, QStringLiteral("mm/min"));

    const QVariant element = QVariant::fromValue(changed.items.at(0));
    QCOMPARE(QByteArray(element.typeName()), QByteArray("ConditionDefinitionV2"));
}

// The names stand for numbers that travel in datasets and JSON lines: they may never change.
void tst_MmDatasets::namedCodes()
{
    QCOMPARE(int(StateV1::Offline), 1);
    QCOMPARE(int(StateV1::Producing), 2);
    QCOMPARE(int(StateV1::Setup), 3);
    QCOMPARE(int(StateV1::Standby), 4);
    QCOMPARE(int(StateV1::WorkingWithoutWorkpiece), 5);
    QCOMPARE(int(StateV1::Waiting), 6);
    QCOMPARE(int(StateV1::Error), 7);
    QCOMPARE(int(NotificationsAddV1::Other), 0);
    QCOMPARE(int(NotificationsAddV1::Information), 1);
    QCOMPARE(int(NotificationsAddV1::Warning), 2);
    QCOMPARE(int(NotificationsAddV1::Alarm), 3);
    QCOMPARE(int(ConditionDefinitionV2::Text), 0);
    QCOMPARE(int(ConditionDefinitionV2::Integer), 1);
    QCOMPARE(int(ConditionDefinitionV2::FloatingPoint), 2);
    QCOMPARE(int(ConditionDefinitionV2::Boolean), 3);
}

QTEST_GUILESS_MAIN(tst_MmDatasets)

#include "tst_mmdatasets.moc"
