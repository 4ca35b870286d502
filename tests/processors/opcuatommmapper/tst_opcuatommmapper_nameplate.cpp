#include "tst_opcuatommmapper.h"

namespace {

/** A nameplate with only the fields that are not optional. */
WwIdentification minimalIdentification()
{
    WwIdentification identification;
    identification.Name = "Saw 1";
    identification.ProductInstanceUri = "urn:maker:saw:42";
    identification.Manufacturer = "Maker";
    identification.Model = "M100";
    identification.DeviceClass = "Saw";
    identification.SerialNumber = "SN42";
    identification.YearOfConstruction = 2019;
    return identification;
}

/** A nameplate with every field present. */
WwIdentification fullIdentification()
{
    WwIdentification identification = minimalIdentification();
    identification.ManufacturerUri = "https://maker.example";
    identification.ProductCode = "PC-7";
    identification.HardwareRevision = "HW1";
    identification.SoftwareRevision = "SW2";
    identification.MonthOfConstruction = 3;
    identification.InitialOperationDate = QDateTime(QDate(2021, 3, 1), QTime(8, 0), Qt::UTC);
    identification.AssetId = "A-17";
    identification.ComponentName = "Main saw";
    identification.Location = "Hall 2";
    identification.LocationPlant = "Plant North";
    identification.LocationGPS = "48.1,11.5";
    identification.CustomerCompanyName = "Customer Ltd";
    return identification;
}

QStringList identificationIds(const QString &machine, const QStringList &fields)
{
    QStringList ids;
    for (const QString &field : fields)
        ids.append(machine + "/Identification/" + field);
    return ids;
}

const QStringList s_mandatoryFields { "ProductInstanceUri", "Manufacturer", "Model", "DeviceClass", "SerialNumber",
    "YearOfConstruction" };

} // namespace

void tst_OpcUaToMMMapper::identificationFields_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("dataType");
    QTest::addColumn<QVariant>("value");

    int i = 0;
    QTest::newRow("ProductInstanceUri") << i++ << "ProductInstanceUri" << 0 << QVariant("urn:maker:saw:42");
    QTest::newRow("Manufacturer") << i++ << "Manufacturer" << 0 << QVariant("Maker");
    QTest::newRow("ManufacturerUri") << i++ << "ManufacturerUri" << 0 << QVariant("https://maker.example");
    QTest::newRow("Model") << i++ << "Model" << 0 << QVariant("M100");
    QTest::newRow("ProductCode") << i++ << "ProductCode" << 0 << QVariant("PC-7");
    QTest::newRow("HardwareRevision") << i++ << "HardwareRevision" << 0 << QVariant("HW1");
    QTest::newRow("SoftwareRevision") << i++ << "SoftwareRevision" << 0 << QVariant("SW2");
    QTest::newRow("DeviceClass") << i++ << "DeviceClass" << 0 << QVariant("Saw");
    QTest::newRow("SerialNumber") << i++ << "SerialNumber" << 0 << QVariant("SN42");
    QTest::newRow("YearOfConstruction") << i++ << "YearOfConstruction" << 1 << QVariant(qint32(2019));
    QTest::newRow("MonthOfConstruction") << i++ << "MonthOfConstruction" << 1 << QVariant(qint32(3));
    QTest::newRow("InitialOperationDate") << i++ << "InitialOperationDate" << 0 << QVariant("2021-03-01T08:00:00Z");
    QTest::newRow("AssetId") << i++ << "AssetId" << 0 << QVariant("A-17");
    QTest::newRow("ComponentName") << i++ << "ComponentName" << 0 << QVariant("Main saw");
    QTest::newRow("Location") << i++ << "Location" << 0 << QVariant("Hall 2");
    QTest::newRow("LocationPlant") << i++ << "LocationPlant" << 0 << QVariant("Plant North");
    QTest::newRow("LocationGPS") << i++ << "LocationGPS" << 0 << QVariant("48.1,11.5");
    QTest::newRow("CustomerCompanyName") << i++ << "CustomerCompanyName" << 0 << QVariant("Customer Ltd");
}

void tst_OpcUaToMMMapper::identificationFields()
{
    QFETCH(int, index);
    QFETCH(QString, name);
    QFETCH(int, dataType);
    QFETCH(QVariant, value);

    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(fullIdentification()));
    QCOMPARE(typeNames(spy), (QStringList { "ConditionDefinitionsV2", "ConditionDatasV2" }));

    const auto definitions = qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3));
    QCOMPARE(definitions.timestamp, s_when);
    QCOMPARE(definitions.items.size(), 18);
    ConditionDefinitionV2 expected;
    expected.id = "m1/Identification/" + name;
    expected.name = name;
    expected.dataType = dataType;
    QCOMPARE(definitions.items.at(index), expected);
    QVERIFY(definitions.items.at(index).text3.isNull());
    QVERIFY(!definitions.items.at(index).unitText.isNull());

    const auto datas = qvariant_cast<ConditionDatasV2>(spy.at(1).at(3));
    QCOMPARE(datas.timestamp, s_when);
    QCOMPARE(datas.items.size(), 18);
    QCOMPARE(datas.items.at(index).id, expected.id);
    QCOMPARE(datas.items.at(index).value.userType(), value.userType());
    QCOMPARE(datas.items.at(index).value, value);
}

void tst_OpcUaToMMMapper::identificationDefinedOnce()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    const QVariant identification = QVariant::fromValue(minimalIdentification());
    mapper.processData(s_when, "m1", "s1", identification);
    QCOMPARE(typeNames(spy), (QStringList { "ConditionDefinitionsV2", "ConditionDatasV2" }));
    for (const QList<QVariant> &arguments : qAsConst(spy))
        QCOMPARE(arguments.mid(0, 3), (QVariantList { s_when, "m1", "s1" }));
    const QStringList expectedIds = identificationIds("m1", s_mandatoryFields);
    QCOMPARE(definitionIds(qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3))), expectedIds);
    QCOMPARE(dataIds(qvariant_cast<ConditionDatasV2>(spy.at(1).at(3))), expectedIds);

    spy.clear();
    mapper.processData(s_when, "m1", "s1", identification);
    QCOMPARE(typeNames(spy), QStringList { "ConditionDatasV2" });
    QCOMPARE(dataIds(qvariant_cast<ConditionDatasV2>(spy.at(0).at(3))), expectedIds);
    QVERIFY(m_log.lines().isEmpty());
}

void tst_OpcUaToMMMapper::identificationNewOptionalField()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    WwIdentification identification = minimalIdentification();
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(identification));
    spy.clear();

    identification.AssetId = "A-17";
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(identification));
    QCOMPARE(typeNames(spy), (QStringList { "ConditionDefinitionsV2", "ConditionDatasV2" }));
    const auto definitions = qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3));
    QCOMPARE(definitionIds(definitions), QStringList { "m1/Identification/AssetId" });
    QCOMPARE(definitions.items.first().name, QStringLiteral("AssetId"));
    QCOMPARE(definitions.items.first().dataType, 0);
    const auto datas = qvariant_cast<ConditionDatasV2>(spy.at(1).at(3));
    QCOMPARE(dataIds(datas),
        identificationIds("m1",
            { "ProductInstanceUri", "Manufacturer", "Model", "DeviceClass", "SerialNumber", "YearOfConstruction",
                "AssetId" }));
    QCOMPARE(datas.items.last().value, QVariant("A-17"));
}

void tst_OpcUaToMMMapper::identificationAbsentMonth()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    WwIdentification identification = fullIdentification();
    identification.MonthOfConstruction.reset();
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(identification));
    const QString month = "m1/Identification/MonthOfConstruction";
    QCOMPARE(qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3)).items.size(), 17);
    QVERIFY(!definitionIds(qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3))).contains(month));
    QVERIFY(!dataIds(qvariant_cast<ConditionDatasV2>(spy.at(1).at(3))).contains(month));

    spy.clear();
    identification.MonthOfConstruction = 12;
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(identification));
    QCOMPARE(definitionIds(qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3))), QStringList { month });
    const auto datas = qvariant_cast<ConditionDatasV2>(spy.at(1).at(3));
    QCOMPARE(datas.items.at(10).id, month);
    QCOMPARE(datas.items.at(10).value.userType(), int(QMetaType::Int));
    QCOMPARE(datas.items.at(10).value.toInt(), 12);
}

void tst_OpcUaToMMMapper::identificationValuesAsTheyStand()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    WwIdentification identification = minimalIdentification();
    identification.Manufacturer = QLatin1String("");
    identification.Model = QString();
    identification.YearOfConstruction = 65535;
    identification.MonthOfConstruction = 255;
    identification.Location = QLatin1String("");
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(identification));
    const auto datas = qvariant_cast<ConditionDatasV2>(spy.at(1).at(3));
    QCOMPARE(dataIds(datas),
        identificationIds("m1",
            { "ProductInstanceUri", "Manufacturer", "Model", "DeviceClass", "SerialNumber", "YearOfConstruction",
                "MonthOfConstruction", "Location" }));
    QCOMPARE(datas.items.at(1).value.userType(), int(QMetaType::QString));
    QVERIFY(datas.items.at(1).value.toString().isEmpty());
    QCOMPARE(datas.items.at(2).value.userType(), int(QMetaType::QString));
    QCOMPARE(datas.items.at(5).value, QVariant(qint32(65535)));
    QCOMPARE(datas.items.at(6).value, QVariant(qint32(255)));
    QCOMPARE(datas.items.at(7).value.userType(), int(QMetaType::QString));
}

void tst_OpcUaToMMMapper::identificationDate_data()
{
    QTest::addColumn<QDateTime>("date");
    QTest::addColumn<QString>("text");
    QTest::newRow("UTC") << QDateTime(QDate(2021, 3, 1), QTime(8, 0), Qt::UTC) << "2021-03-01T08:00:00Z";
    QTest::newRow("offset") << QDateTime(QDate(2021, 3, 1), QTime(9, 0), Qt::OffsetFromUTC, 3600)
                            << "2021-03-01T09:00:00+01:00";
    QTest::newRow("milliseconds") << QDateTime(QDate(2021, 3, 1), QTime(8, 0, 0, 500), Qt::UTC)
                                  << "2021-03-01T08:00:00Z";
    QTest::newRow("invalid") << QDateTime() << "";
}

void tst_OpcUaToMMMapper::identificationDate()
{
    QFETCH(QDateTime, date);
    QFETCH(QString, text);
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    WwIdentification identification = minimalIdentification();
    identification.InitialOperationDate = date;
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(identification));
    const auto definitions = qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3));
    QCOMPARE(definitions.items.last().id, QStringLiteral("m1/Identification/InitialOperationDate"));
    QCOMPARE(definitions.items.last().dataType, 0);
    const auto datas = qvariant_cast<ConditionDatasV2>(spy.at(1).at(3));
    QCOMPARE(datas.items.last().id, QStringLiteral("m1/Identification/InitialOperationDate"));
    QCOMPARE(datas.items.last().value.userType(), int(QMetaType::QString));
    QCOMPARE(datas.items.last().value.toString(), text);
}

void tst_OpcUaToMMMapper::identificationKnownPerSourceAndMachine()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    const QVariant identification = QVariant::fromValue(minimalIdentification());
    mapper.processData(s_when, "m1", "s1", identification);
    mapper.processData(s_when, "m1", "s2", identification);
    mapper.processData(s_when, "m2", "s1", identification);
    QCOMPARE(typeNames(spy),
        (QStringList { "ConditionDefinitionsV2", "ConditionDatasV2", "ConditionDefinitionsV2", "ConditionDatasV2",
            "ConditionDefinitionsV2", "ConditionDatasV2" }));
    QCOMPARE(definitionIds(qvariant_cast<ConditionDefinitionsV2>(spy.at(2).at(3))),
        identificationIds("m1", s_mandatoryFields));
    QCOMPARE(definitionIds(qvariant_cast<ConditionDefinitionsV2>(spy.at(4).at(3))),
        identificationIds("m2", s_mandatoryFields));
    QCOMPARE(dataIds(qvariant_cast<ConditionDatasV2>(spy.at(5).at(3))), identificationIds("m2", s_mandatoryFields));

    spy.clear();
    mapper.processData(s_when, "m1", "s1", identification);
    mapper.processData(s_when, "m1", "s2", identification);
    mapper.processData(s_when, "m2", "s1", identification);
    QCOMPARE(typeNames(spy), (QStringList { "ConditionDatasV2", "ConditionDatasV2", "ConditionDatasV2" }));
    QCOMPARE(dataIds(qvariant_cast<ConditionDatasV2>(spy.at(0).at(3))), identificationIds("m1", s_mandatoryFields));
}

void tst_OpcUaToMMMapper::identificationAndStateShareSource()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(fullState()));
    spy.clear();

    // The machine's flags and values being known does not make its nameplate known, and the other way round.
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(minimalIdentification()));
    QCOMPARE(typeNames(spy), (QStringList { "ConditionDefinitionsV2", "ConditionDatasV2" }));
    QCOMPARE(definitionIds(qvariant_cast<ConditionDefinitionsV2>(spy.at(0).at(3))),
        identificationIds("m1", s_mandatoryFields));
    spy.clear();
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(fullState()));
    QCOMPARE(typeNames(spy), (QStringList { "StateV1", "GeneralV1", "ConditionDatasV2" }));
    QCOMPARE(dataIds(qvariant_cast<ConditionDatasV2>(spy.at(2).at(3))), stateIds("m1", true, true));

    OpcUaToMMMapper second;
    QSignalSpy secondSpy(&second, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    second.processData(s_when, "m1", "s1", QVariant::fromValue(minimalIdentification()));
    second.processData(s_when, "m1", "s1", QVariant::fromValue(fullState()));
    QCOMPARE(typeNames(secondSpy),
        (QStringList { "ConditionDefinitionsV2", "ConditionDatasV2", "StateV1", "GeneralV1", "ConditionDefinitionsV2",
            "ConditionDatasV2" }));
    QCOMPARE(definitionIds(qvariant_cast<ConditionDefinitionsV2>(secondSpy.at(4).at(3))), stateIds("m1", true, true));
}

void tst_OpcUaToMMMapper::convertedIdentification()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(NameplateCarrier { "SN77" }));
    QCOMPARE(typeNames(spy), (QStringList { "ConditionDefinitionsV2", "ConditionDatasV2" }));
    const auto datas = qvariant_cast<ConditionDatasV2>(spy.at(1).at(3));
    QCOMPARE(datas.items.at(4).id, QStringLiteral("m1/Identification/SerialNumber"));
    QCOMPARE(datas.items.at(4).value, QVariant("SN77"));
}
