#include "core.h"
#include "logcapture.h"
#include "mmdatasets.h"
#include "testsupport.h"
#include "unitoverwrite.h"
#include "unitoverwritelogging.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace TestSupport;

namespace {

const QDateTime When = QDateTime(QDate(2024, 5, 6), QTime(7, 8, 9), Qt::UTC);

QVariantMap entry(const QVariant &unitText, const QVariant &factor)
{
    QVariantMap map;
    if (unitText.isValid())
        map.insert(QStringLiteral("unitText"), unitText);
    if (factor.isValid())
        map.insert(QStringLiteral("factor"), factor);
    return map;
}

/** Adds machine/category/id = settings to a configuration map's group "unitOverwrite", as the INI reader nests it. */
QVariantMap withOverride(
    QVariantMap config, const QString &machine, const QString &category, const QString &id, const QVariantMap &settings)
{
    QVariantMap group = config.value(QStringLiteral("unitOverwrite")).toMap();
    QVariantMap categories = group.value(machine).toMap();
    QVariantMap items = categories.value(category).toMap();
    items.insert(id, settings);
    categories.insert(category, items);
    group.insert(machine, categories);
    config.insert(QStringLiteral("unitOverwrite"), group);
    return config;
}

QVariantMap overrideConfig(
    const QString &machine, const QString &category, const QString &id, const QString &unitText, const QString &factor)
{
    return withOverride(QVariantMap(), machine, category, id, entry(unitText, factor));
}

MaintenanceDefinitionV1 maintenanceDefinition(const QString &id, const QString &unitText, double value7, double value8)
{
    MaintenanceDefinitionV1 item;
    item.id = id;
    item.timestamp = When;
    item.text3 = QStringLiteral("text3 of ") + id;
    item.unitText = unitText;
    item.unitCode = QStringLiteral("SEC");
    item.unitKey = QStringLiteral("key");
    item.value7 = value7;
    item.value8 = value8;
    item.text9 = QStringLiteral("text9");
    item.flag11 = true;
    item.comment = QStringLiteral("own comment");
    item.text20 = QStringLiteral("text20");
    return item;
}

MaintenanceDefinitionV1 overriddenDefinition(const QString &id, const QString &unitText, double value7, double value8)
{
    MaintenanceDefinitionV1 item = maintenanceDefinition(id, unitText, value7, value8);
    item.unitCode = QLatin1String("");
    item.unitKey = QLatin1String("");
    return item;
}

MaintenanceDataV1 maintenanceData(const QString &id, double value2, double value3)
{
    MaintenanceDataV1 item;
    item.id = id;
    item.value2 = value2;
    item.value3 = value3;
    return item;
}

ConditionDefinitionV2 conditionDefinition(
    const QString &id, const QString &unitText, const QString &lowerValue, const QString &upperValue)
{
    ConditionDefinitionV2 item;
    item.id = id;
    item.name = QStringLiteral("name of ") + id;
    item.text3 = QStringLiteral("text3");
    item.dataType = 2;
    item.unitCode = QStringLiteral("SEC");
    item.unitKey = QStringLiteral("key");
    item.unitText = unitText;
    item.number9 = 9;
    item.lowerValue = lowerValue;
    item.upperValue = upperValue;
    item.text13 = QStringLiteral("text13");
    item.flag14 = true;
    return item;
}

ConditionDefinitionV2 overriddenCondition(
    const QString &id, const QString &unitText, const QString &lowerValue, const QString &upperValue)
{
    ConditionDefinitionV2 item = conditionDefinition(id, unitText, lowerValue, upperValue);
    item.unitCode = QLatin1String("");
    item.unitKey = QLatin1String("");
    return item;
}

ConditionDataV2 conditionData(const QString &id, const QVariant &value)
{
    ConditionDataV2 item;
    item.id = id;
    item.value = value;
    return item;
}

template <typename List, typename Item> QVariant list(const QList<Item> &items)
{
    List record;
    record.timestamp = When;
    record.items = items;
    return QVariant::fromValue(record);
}

QVariant maintenanceDefinitions(const QList<MaintenanceDefinitionV1> &items)
{
    return list<MaintenanceDefinitionsV1>(items);
}

QVariant maintenanceDatas(const QList<MaintenanceDataV1> &items)
{
    return list<MaintenanceDatasV1>(items);
}

QVariant conditionDefinitions(const QList<ConditionDefinitionV2> &items)
{
    return list<ConditionDefinitionsV2>(items);
}

QVariant conditionDatas(const QList<ConditionDataV2> &items)
{
    return list<ConditionDatasV2>(items);
}

template <typename T> bool compareAs(const QVariant &actual, const QVariant &expected, QString *text)
{
    const T a = qvariant_cast<T>(actual);
    const T b = qvariant_cast<T>(expected);
    QDebug(text) << "\n   Actual:" << a << "\n Expected:" << b;
    return a == b;
}

/** Compares two datasets by type and content, with exact variant types inside; text tells the difference. */
bool sameDataset(const QVariant &actual, const QVariant &expected, QString *text)
{
    if (actual.userType() != expected.userType()) {
        *text = QStringLiteral("type %1, expected %2").arg(actual.typeName(), expected.typeName());
        return false;
    }
    const int type = actual.userType();
    if (type == qMetaTypeId<MaintenanceDefinitionsV1>())
        return compareAs<MaintenanceDefinitionsV1>(actual, expected, text);
    if (type == qMetaTypeId<MaintenanceDefinitionV1>())
        return compareAs<MaintenanceDefinitionV1>(actual, expected, text);
    if (type == qMetaTypeId<MaintenanceDatasV1>())
        return compareAs<MaintenanceDatasV1>(actual, expected, text);
    if (type == qMetaTypeId<MaintenanceDataV1>())
        return compareAs<MaintenanceDataV1>(actual, expected, text);
    if (type == qMetaTypeId<ConditionDefinitionsV2>())
        return compareAs<ConditionDefinitionsV2>(actual, expected, text);
    if (type == qMetaTypeId<ConditionDefinitionV2>())
        return compareAs<ConditionDefinitionV2>(actual, expected, text);
    if (type == qMetaTypeId<ConditionDatasV2>())
        return compareAs<ConditionDatasV2>(actual, expected, text);
    if (type == qMetaTypeId<ConditionDataV2>())
        return compareAs<ConditionDataV2>(actual, expected, text);
    if (type == qMetaTypeId<StateV1>())
        return compareAs<StateV1>(actual, expected, text);
    if (type == qMetaTypeId<GeneralV1>())
        return compareAs<GeneralV1>(actual, expected, text);
    QDebug(text) << "\n   Actual:" << actual << "\n Expected:" << expected;
    return actual == expected;
}

/** Initialises a fresh processor with the configuration, passes one dataset of the machine and returns its output. */
QVariant processed(const QVariantMap &config, const QString &machine, const QVariant &data)
{
    UnitOverwrite overwrite;
    QVariantMap shared;
    overwrite.init(config, shared);
    QSignalSpy spy(&overwrite, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    overwrite.processData(When, machine, QStringLiteral("src"), data);
    if (spy.count() != 1)
        return QVariant();
    return spy.first().at(3);
}

} // namespace

class tst_UnitOverwrite : public QObject
{
    Q_OBJECT

private slots:
    void identity();
    void initWithoutGroup();
    void rewrites_data();
    void rewrites();
    void conditionValueTexts_data();
    void conditionValueTexts();
    void conditionLimitTexts_data();
    void conditionLimitTexts();
    void clearedUnitCodesAreEmptyNotNull();
    void keepsTimestampMachineAndSource();
    void laterEntryReplacesEarlier();
    void nothingIsLogged();
    void readsOverridesFromIniFile();
    void chainProcessorGetsIniOverrides();

private:
    QScopedPointer<QTemporaryDir> m_dir;
};

void tst_UnitOverwrite::identity()
{
    UnitOverwrite overwrite;
    QCOMPARE(overwrite.name(), QStringLiteral("Unit Overwrite"));
    QCOMPARE(overwrite.orderNumber(), 500u);
    QVERIFY(overwrite.qt_metacast("IProcessor"));
    QCOMPARE(QByteArray(lcUnitOverwrite().categoryName()), QByteArray("unitOverwrite"));
}

void tst_UnitOverwrite::initWithoutGroup()
{
    UnitOverwrite overwrite;
    QVariantMap shared;
    QVERIFY(overwrite.init(QVariantMap(), shared));
    QVERIFY(overwrite.init(QVariantMap { { "limit", QVariantMap { { "waitTime", "5" } } } }, shared));
    QVERIFY(overwrite.init(QVariantMap { { "unitOverwrite", QVariantMap() } }, shared));
    QVERIFY(shared.isEmpty());
}

void tst_UnitOverwrite::rewrites_data()
{
    QTest::addColumn<QVariantMap>("config");
    QTest::addColumn<QString>("machine");
    QTest::addColumn<QVariant>("input");
    QTest::addColumn<QVariant>("expected");

    const QVariantMap maintenanceHalf = overrideConfig("m1", "maintenance", "mt1", "h", "0.5");
    const QVariantMap conditionDouble = overrideConfig("m1", "condition", "c1", "mm", "2");

    QTest::newRow("maintenance definitions: item with entry rewritten, other item untouched")
        << maintenanceHalf << "m1"
        << maintenanceDefinitions(
               { maintenanceDefinition("mt1", "s", 7200, 3600), maintenanceDefinition("mt2", "s", 10, 20) })
        << maintenanceDefinitions(
               { overriddenDefinition("mt1", "h", 3600, 1800), maintenanceDefinition("mt2", "s", 10, 20) });
    QTest::newRow("single maintenance definition")
        << maintenanceHalf << "m1" << QVariant::fromValue(maintenanceDefinition("mt1", "s", 10, 3))
        << QVariant::fromValue(overriddenDefinition("mt1", "h", 5, 1.5));
    QTest::newRow("single maintenance definition without entry")
        << maintenanceHalf << "m1" << QVariant::fromValue(maintenanceDefinition("mt9", "s", 10, 3))
        << QVariant::fromValue(maintenanceDefinition("mt9", "s", 10, 3));
    QTest::newRow("maintenance datas: both values halved, other item untouched")
        << maintenanceHalf << "m1" << maintenanceDatas({ maintenanceData("mt1", 10, 4), maintenanceData("mt2", 10, 4) })
        << maintenanceDatas({ maintenanceData("mt1", 5, 2), maintenanceData("mt2", 10, 4) });
    QTest::newRow("single maintenance data halved")
        << maintenanceHalf << "m1" << QVariant::fromValue(maintenanceData("mt1", 10, 4))
        << QVariant::fromValue(maintenanceData("mt1", 5, 2));
    QTest::newRow("maintenance data of another machine untouched")
        << maintenanceHalf << "m2" << QVariant::fromValue(maintenanceData("mt1", 10, 4))
        << QVariant::fromValue(maintenanceData("mt1", 10, 4));
    QTest::newRow("maintenance datas of another machine untouched")
        << maintenanceHalf << "m2" << maintenanceDatas({ maintenanceData("mt1", 10, 4) })
        << maintenanceDatas({ maintenanceData("mt1", 10, 4) });

    QTest::newRow("condition definitions: limits scaled as text, other item untouched")
        << conditionDouble << "m1"
        << conditionDefinitions(
               { conditionDefinition("c1", "m", "10", "20.5"), conditionDefinition("c2", "m", "10", "20.5") })
        << conditionDefinitions(
               { overriddenCondition("c1", "mm", "20", "41"), conditionDefinition("c2", "m", "10", "20.5") });
    QTest::newRow("single condition definition")
        << conditionDouble << "m1" << QVariant::fromValue(conditionDefinition("c1", "m", "-1.5", "3"))
        << QVariant::fromValue(overriddenCondition("c1", "mm", "-3", "6"));
    QTest::newRow("condition datas: value becomes text, other item keeps its type")
        << conditionDouble << "m1" << conditionDatas({ conditionData("c1", 4), conditionData("c2", 4) })
        << conditionDatas({ conditionData("c1", "8"), conditionData("c2", 4) });
    QTest::newRow("single condition data") << conditionDouble << "m1" << QVariant::fromValue(conditionData("c1", 2.25))
                                           << QVariant::fromValue(conditionData("c1", "4.5"));
    QTest::newRow("single condition data without entry keeps its type")
        << conditionDouble << "m1" << QVariant::fromValue(conditionData("c9", 2.25))
        << QVariant::fromValue(conditionData("c9", 2.25));
    QTest::newRow("condition data of another machine untouched")
        << conditionDouble << "M1" << conditionDatas({ conditionData("c1", 4) })
        << conditionDatas({ conditionData("c1", 4) });

    const QVariantMap wildcard = overrideConfig("m1", "condition", "*", "km", "10");
    QTest::newRow("wildcard rescales every condition of the machine")
        << wildcard << "m1"
        << conditionDatas({ conditionData("c1", 1), conditionData("c2", 2.5), conditionData("c3", "3") })
        << conditionDatas({ conditionData("c1", "10"), conditionData("c2", "25"), conditionData("c3", "30") });
    QTest::newRow("wildcard rewrites every condition definition")
        << wildcard << "m1"
        << conditionDefinitions({ conditionDefinition("c1", "m", "1", "2"), conditionDefinition("c2", "m", "", "x") })
        << conditionDefinitions(
               { overriddenCondition("c1", "km", "10", "20"), overriddenCondition("c2", "km", "0", "0") });
    QTest::newRow("wildcard of another machine has no effect")
        << wildcard << "m2" << conditionDatas({ conditionData("c1", 1) }) << conditionDatas({ conditionData("c1", 1) });

    const QVariantMap ownAndWildcard = withOverride(wildcard, "m1", "condition", "c1", entry("mm", "2"));
    QTest::newRow("own id takes precedence over the wildcard")
        << ownAndWildcard << "m1" << conditionDatas({ conditionData("c1", 1), conditionData("c2", 1) })
        << conditionDatas({ conditionData("c1", "2"), conditionData("c2", "10") });
    QTest::newRow("own id takes precedence over the wildcard for definitions")
        << ownAndWildcard << "m1"
        << conditionDefinitions({ conditionDefinition("c2", "m", "1", "1"), conditionDefinition("c1", "m", "1", "1") })
        << conditionDefinitions(
               { overriddenCondition("c2", "km", "10", "10"), overriddenCondition("c1", "mm", "2", "2") });
    QTest::newRow("maintenance wildcard")
        << overrideConfig("m1", "maintenance", "*", "h", "0.25") << "m1"
        << maintenanceDatas({ maintenanceData("a", 4, 8), maintenanceData("b", 1, 2) })
        << maintenanceDatas({ maintenanceData("a", 1, 2), maintenanceData("b", 0.25, 0.5) });

    const QStringList conditionSpellings { "condition", "Condition", "CONDITION", "cOnDiTiOn" };
    for (const QString &spelling : conditionSpellings) {
        QTest::addRow("category %s", qPrintable(spelling))
            << overrideConfig("m1", spelling, "c1", "mm", "3") << "m1" << QVariant::fromValue(conditionData("c1", 2))
            << QVariant::fromValue(conditionData("c1", "6"));
    }
    const QStringList maintenanceSpellings { "maintenance", "Maintenance", "MAINTENANCE", "mAINTENANCE" };
    for (const QString &spelling : maintenanceSpellings) {
        QTest::addRow("category %s", qPrintable(spelling))
            << overrideConfig("m1", spelling, "mt1", "h", "3") << "m1"
            << QVariant::fromValue(maintenanceData("mt1", 1, 2)) << QVariant::fromValue(maintenanceData("mt1", 3, 6));
    }
    QTest::newRow("unknown category has no effect")
        << overrideConfig("m1", "conditions", "*", "mm", "3") << "m1" << conditionDatas({ conditionData("c1", 2) })
        << conditionDatas({ conditionData("c1", 2) });
    QTest::newRow("maintenance override leaves condition items alone") << overrideConfig("m1", "maintenance", "*", "h",
        "3") << "m1" << conditionDatas({ conditionData("c1", 2) }) << conditionDatas({ conditionData("c1", 2) });
    QTest::newRow("condition override leaves maintenance items alone")
        << overrideConfig("m1", "condition", "*", "h", "3") << "m1"
        << maintenanceDefinitions({ maintenanceDefinition("mt1", "s", 1, 2) })
        << maintenanceDefinitions({ maintenanceDefinition("mt1", "s", 1, 2) });
    QTest::newRow("item ids are compared exactly")
        << overrideConfig("m1", "condition", "C1", "mm", "3") << "m1" << conditionDatas({ conditionData("c1", 2) })
        << conditionDatas({ conditionData("c1", 2) });
    QTest::newRow("missing factor zeroes the values")
        << withOverride(QVariantMap(), "m1", "maintenance", "mt1", entry("h", QVariant())) << "m1"
        << maintenanceDefinitions({ maintenanceDefinition("mt1", "s", 7, 8) })
        << maintenanceDefinitions({ overriddenDefinition("mt1", "h", 0, 0) });
    QTest::newRow("factor that is no number reads as 0")
        << overrideConfig("m1", "maintenance", "mt1", "h", "1/3600") << "m1"
        << QVariant::fromValue(maintenanceData("mt1", 7200, 3600)) << QVariant::fromValue(maintenanceData("mt1", 0, 0));
    QTest::newRow("missing unit text gives an empty unit")
        << withOverride(QVariantMap(), "m1", "condition", "c1", entry(QVariant(), "1")) << "m1"
        << QVariant::fromValue(conditionDefinition("c1", "m", "1", "2"))
        << QVariant::fromValue(overriddenCondition("c1", "", "1", "2"));

    QTest::newRow("StateV1 passes unchanged")
        << wildcard << "m1" << QVariant::fromValue(StateV1 { 3 }) << QVariant::fromValue(StateV1 { 3 });
    GeneralV1 general;
    general.pieces = 12;
    QTest::newRow("GeneralV1 passes unchanged")
        << wildcard << "m1" << QVariant::fromValue(general) << QVariant::fromValue(general);
    QTest::newRow("plain number passes unchanged") << wildcard << "m1" << QVariant(5) << QVariant(5);
    QTest::newRow("no configuration") << QVariantMap() << "m1" << conditionDatas({ conditionData("c1", 2) })
                                      << conditionDatas({ conditionData("c1", 2) });
}

void tst_UnitOverwrite::rewrites()
{
    QFETCH(QVariantMap, config);
    QFETCH(QString, machine);
    QFETCH(QVariant, input);
    QFETCH(QVariant, expected);

    const QVariant output = processed(config, machine, input);
    QString difference;
    QVERIFY2(sameDataset(output, expected, &difference), qPrintable(difference));
    QCOMPARE(QByteArray(output.typeName()), QByteArray(input.typeName()));
}

void tst_UnitOverwrite::conditionValueTexts_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("factor");
    QTest::addColumn<QString>("expected");

    QTest::newRow("one million two hundred thirty-four thousand five hundred sixty-seven") << QVariant(1234567) << "1"
                                                                                           << "1.23457e+06";
    QTest::newRow("same as double") << QVariant(1234567.0) << "1"
                                    << "1.23457e+06";
    QTest::newRow("six digits stay fixed") << QVariant(123456) << "1"
                                           << "123456";
    QTest::newRow("seven significant digits rounded") << QVariant(1.0) << "0.333333333"
                                                      << "0.333333";
    QTest::newRow("small number in exponent notation") << QVariant(0.00001) << "1"
                                                       << "1e-05";
    QTest::newRow("small number in fixed notation") << QVariant(0.0001) << "1"
                                                    << "0.0001";
    QTest::newRow("negative") << QVariant(-2.5) << "2"
                              << "-5";
    QTest::newRow("factor 0") << QVariant(5) << "0"
                              << "0";
    QTest::newRow("unsigned") << QVariant(7u) << "2"
                              << "14";
    QTest::newRow("unsigned 64 bit") << QVariant(qulonglong(10000000000ULL)) << "1"
                                     << "1e+10";
    QTest::newRow("bool true") << QVariant(true) << "3"
                               << "3";
    QTest::newRow("bool false") << QVariant(false) << "3"
                                << "0";
    QTest::newRow("number text") << QVariant("12.5") << "2"
                                 << "25";
    QTest::newRow("text that is no number") << QVariant("abc") << "2"
                                            << "0";
    QTest::newRow("text that is no number, factor 1") << QVariant("open") << "1"
                                                      << "0";
    QTest::newRow("empty text") << QVariant("") << "5"
                                << "0";
    QTest::newRow("decimal comma is no number") << QVariant("1,5") << "1"
                                                << "0";
}

void tst_UnitOverwrite::conditionValueTexts()
{
    QFETCH(QVariant, value);
    QFETCH(QString, factor);
    QFETCH(QString, expected);

    const QVariantMap config = overrideConfig("m1", "condition", "*", "u", factor);
    const QVariant single = processed(config, "m1", QVariant::fromValue(conditionData("c1", value)));
    const ConditionDataV2 item = qvariant_cast<ConditionDataV2>(single);
    QCOMPARE(item.value.userType(), int(QMetaType::QString));
    QCOMPARE(item.value.toString(), expected);

    const QVariant listed = processed(config, "m1", conditionDatas({ conditionData("c1", value) }));
    const ConditionDatasV2 record = qvariant_cast<ConditionDatasV2>(listed);
    QCOMPARE(record.items.size(), 1);
    QCOMPARE(record.items.first().value, QVariant(expected));
    QCOMPARE(record.timestamp, When);
}

void tst_UnitOverwrite::conditionLimitTexts_data()
{
    QTest::addColumn<QString>("limit");
    QTest::addColumn<QString>("factor");
    QTest::addColumn<QString>("expected");

    QTest::newRow("integer text") << "10"
                                  << "0.5"
                                  << "5";
    QTest::newRow("large") << "1234567"
                           << "1"
                           << "1.23457e+06";
    QTest::newRow("exponent text") << "2.5e3"
                                   << "1"
                                   << "2500";
    QTest::newRow("no number") << "abc"
                               << "2"
                               << "0";
    QTest::newRow("empty") << ""
                           << "2"
                           << "0";
    QTest::newRow("negative") << "-4"
                              << "0.25"
                              << "-1";
}

void tst_UnitOverwrite::conditionLimitTexts()
{
    QFETCH(QString, limit);
    QFETCH(QString, factor);
    QFETCH(QString, expected);

    const QVariantMap config = overrideConfig("m1", "condition", "c1", "u", factor);
    const QVariant output
        = processed(config, "m1", conditionDefinitions({ conditionDefinition("c1", "m", limit, limit) }));
    const ConditionDefinitionsV2 record = qvariant_cast<ConditionDefinitionsV2>(output);
    QCOMPARE(record.items.size(), 1);
    QCOMPARE(record.items.first().lowerValue, expected);
    QCOMPARE(record.items.first().upperValue, expected);
    QCOMPARE(record.items.first().unitText, QStringLiteral("u"));
}

void tst_UnitOverwrite::clearedUnitCodesAreEmptyNotNull()
{
    const QVariantMap config
        = withOverride(overrideConfig("m1", "condition", "c1", "mm", "1"), "m1", "maintenance", "mt1", entry("h", "1"));

    const MaintenanceDefinitionV1 maintenance = qvariant_cast<MaintenanceDefinitionV1>(
        processed(config, "m1", QVariant::fromValue(maintenanceDefinition("mt1", "s", 1, 1))));
    QVERIFY(maintenance.unitCode.isEmpty());
    QVERIFY(!maintenance.unitCode.isNull());
    QVERIFY(maintenance.unitKey.isEmpty());
    QVERIFY(!maintenance.unitKey.isNull());
    QCOMPARE(maintenance.unitText, QStringLiteral("h"));

    const ConditionDefinitionV2 condition = qvariant_cast<ConditionDefinitionV2>(
        processed(config, "m1", QVariant::fromValue(conditionDefinition("c1", "m", "1", "1"))));
    QVERIFY(condition.unitCode.isEmpty());
    QVERIFY(!condition.unitCode.isNull());
    QVERIFY(condition.unitKey.isEmpty());
    QVERIFY(!condition.unitKey.isNull());
    QCOMPARE(condition.unitText, QStringLiteral("mm"));
}

void tst_UnitOverwrite::keepsTimestampMachineAndSource()
{
    UnitOverwrite overwrite;
    QVariantMap shared;
    overwrite.init(overrideConfig("m1", "condition", "*", "mm", "2"), shared);
    QSignalSpy spy(&overwrite, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    const QDateTime when = QDateTime::fromMSecsSinceEpoch(123456789);
    overwrite.processData(when, "m1", "source 1", conditionDatas({ conditionData("c1", 1) }));
    overwrite.processData(when.addSecs(1), "m2", "source 2", QVariant::fromValue(StateV1 { 2 }));
    QCOMPARE(spy.count(), 2);
    QCOMPARE(spy.at(0).at(0).toDateTime(), when);
    QCOMPARE(spy.at(0).at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(spy.at(0).at(2).toString(), QStringLiteral("source 1"));
    QCOMPARE(qvariant_cast<ConditionDatasV2>(spy.at(0).at(3)).timestamp, When);
    QCOMPARE(spy.at(1).at(0).toDateTime(), when.addSecs(1));
    QCOMPARE(spy.at(1).at(1).toString(), QStringLiteral("m2"));
    QCOMPARE(spy.at(1).at(2).toString(), QStringLiteral("source 2"));
}

void tst_UnitOverwrite::laterEntryReplacesEarlier()
{
    // The configuration map is ordered by key, so "CONDITION" comes before "condition" and the latter wins.
    QVariantMap config = overrideConfig("m1", "CONDITION", "c1", "first", "2");
    config = withOverride(config, "m1", "condition", "c1", entry("second", "3"));
    config = withOverride(config, "m1", "CONDITION", "*", entry("first", "5"));
    config = withOverride(config, "m1", "condition", "*", entry("second", "7"));

    const QVariant output = processed(config, "m1",
        conditionDefinitions({ conditionDefinition("c1", "m", "1", "1"), conditionDefinition("c2", "m", "1", "1") }));
    QString difference;
    QVERIFY2(sameDataset(output,
                 conditionDefinitions(
                     { overriddenCondition("c1", "second", "3", "3"), overriddenCondition("c2", "second", "7", "7") }),
                 &difference),
        qPrintable(difference));

    // A second init builds the table afresh instead of adding to the first one.
    UnitOverwrite overwrite;
    QVariantMap shared;
    overwrite.init(config, shared);
    overwrite.init(overrideConfig("m2", "condition", "*", "x", "2"), shared);
    QSignalSpy spy(&overwrite, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    overwrite.processData(When, "m1", "src", QVariant::fromValue(conditionData("c1", 1)));
    QCOMPARE(qvariant_cast<ConditionDataV2>(spy.first().at(3)).value, QVariant(1));
}

void tst_UnitOverwrite::nothingIsLogged()
{
    // Unknown categories, ids and machines and numbers that are none have no effect, and none is reported.
    LogCapture log(QStringLiteral("unitOverwrite"));
    log.start(QStringLiteral("*.debug=true"));
    QVariantMap config = overrideConfig("m1", "conditions", "*", "mm", "3");
    config = withOverride(config, "m1", "condition", "c1", entry("mm", "two"));
    config = withOverride(config, "m1", "maintenance", "mt1", entry(QVariant(), QVariant()));
    QVariantMap group = config.value(QStringLiteral("unitOverwrite")).toMap();
    group.insert(QStringLiteral("m2"), QStringLiteral("not a group"));
    config.insert(QStringLiteral("unitOverwrite"), group);

    UnitOverwrite overwrite;
    QVariantMap shared;
    QVERIFY(overwrite.init(config, shared));
    QSignalSpy spy(&overwrite, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    overwrite.processData(When, "m1", "src", conditionDatas({ conditionData("c1", "abc"), conditionData("c9", 1) }));
    overwrite.processData(When, "m1", "src", QVariant::fromValue(conditionDefinition("c1", "m", "x", "")));
    overwrite.processData(When, "m1", "src", QVariant::fromValue(maintenanceDefinition("mt1", "s", 1, 2)));
    overwrite.processData(When, "m2", "src", QVariant::fromValue(maintenanceData("mt1", 1, 2)));
    overwrite.processData(When, "m3", "src", QVariant::fromValue(StateV1 { 9 }));
    log.stop();
    QCOMPARE(spy.count(), 5);
    QCOMPARE(log.lines(), QStringList());
}

void tst_UnitOverwrite::readsOverridesFromIniFile()
{
    m_dir.reset(new QTemporaryDir);
    QVERIFY(m_dir->isValid());
    QDir().mkpath(m_dir->filePath("plugins"));
    qputenv("ORVIX_PLUGINPATH", m_dir->filePath("plugins").toUtf8());
    QVERIFY(writeFile(m_dir->filePath("orvix.ini"),
        "[unitOverwrite]\n"
        "m1/condition/*/factor=2\n"
        "m1/condition/*/unitText=mm\n"
        "m1/Condition/special/factor=0.001\n"
        "m1/Condition/special/unitText=km\n"
        "m1/MAINTENANCE/mt1/factor=0.5\n"
        "m1/MAINTENANCE/mt1/unitText=h\n"
        "m2\\maintenance\\*\\factor=3\n"
        "m2\\maintenance\\*\\unitText=min\n"));
    QVariantMap config;
    {
        Core core(false, nullptr, m_dir->filePath("orvix.ini"), m_dir->filePath("log/orvix.log"),
            m_dir->filePath("log/orvix.lastlog"));
        config = core.config();
    }
    qunsetenv("ORVIX_PLUGINPATH");
    QCOMPARE(config.value("unitOverwrite").toMap().value("m1").toMap().value("condition").toMap().value("*"),
        QVariant(QVariantMap { { "factor", "2" }, { "unitText", "mm" } }));

    QString difference;
    QVERIFY2(sameDataset(
                 processed(config, "m1", conditionDatas({ conditionData("a", 1.5), conditionData("special", 2500) })),
                 conditionDatas({ conditionData("a", "3"), conditionData("special", "2.5") }), &difference),
        qPrintable(difference));
    QVERIFY2(
        sameDataset(processed(config, "m1", conditionDefinitions({ conditionDefinition("special", "m", "0", "5000") })),
            conditionDefinitions({ overriddenCondition("special", "km", "0", "5") }), &difference),
        qPrintable(difference));
    QVERIFY2(
        sameDataset(processed(config, "m1",
                        maintenanceDefinitions(
                            { maintenanceDefinition("mt1", "s", 8, 4), maintenanceDefinition("mt2", "s", 8, 4) })),
            maintenanceDefinitions({ overriddenDefinition("mt1", "h", 4, 2), maintenanceDefinition("mt2", "s", 8, 4) }),
            &difference),
        qPrintable(difference));
    QVERIFY2(sameDataset(processed(config, "m2", maintenanceDatas({ maintenanceData("x", 1, 2) })),
                 maintenanceDatas({ maintenanceData("x", 3, 6) }), &difference),
        qPrintable(difference));
    QVERIFY2(sameDataset(processed(config, "m2", conditionDatas({ conditionData("x", 1) })),
                 conditionDatas({ conditionData("x", 1) }), &difference),
        qPrintable(difference));
}

void tst_UnitOverwrite::chainProcessorGetsIniOverrides()
{
    m_dir.reset(new QTemporaryDir);
    QVERIFY(m_dir->isValid());
    QDir().mkpath(m_dir->filePath("plugins"));
    qputenv("ORVIX_PLUGINPATH", m_dir->filePath("plugins").toUtf8());
    QVERIFY(writeFile(
        m_dir->filePath("orvix.ini"), "[unitOverwrite]\nm1/condition/*/factor=1\nm1/condition/*/unitText=s\n"));
    Core core(false, nullptr, m_dir->filePath("orvix.ini"), m_dir->filePath("log/orvix.log"),
        m_dir->filePath("log/orvix.lastlog"));
    core.run();
    qunsetenv("ORVIX_PLUGINPATH");

    UnitOverwrite *overwrite = nullptr;
    for (IProcessor *processor : core.processors()) {
        if (auto *candidate = dynamic_cast<UnitOverwrite *>(processor))
            overwrite = candidate;
    }
    QVERIFY(overwrite);
    // Only this processor's output is of interest here, not what the rest of the chain makes of it.
    QObject::disconnect(overwrite, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)), nullptr, nullptr);
    QSignalSpy spy(overwrite, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    overwrite->processData(When, "m1", "src", conditionDatas({ conditionData("c1", 1234567) }));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(qvariant_cast<ConditionDatasV2>(spy.first().at(3)).items.first().value, QVariant("1.23457e+06"));
}

QTEST_GUILESS_MAIN(tst_UnitOverwrite)
#include "tst_unitoverwrite.moc"
