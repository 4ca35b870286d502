#include "datasetcodec.h"
#include "mmdatasets.h"
#include "recordtesthelpers.h"
#include "strictjson.h"
#include "wwtypes.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

#include <cmath>
#include <functional>
#include <limits>

using namespace recordtest;

namespace {

struct Unlisted
{
    int x = 0;
};

} // namespace

Q_DECLARE_METATYPE(Unlisted)

namespace {

const QDateTime someTime(QDate(2021, 3, 1), QTime(8, 0, 0, 250), Qt::UTC);

template <typename T> void compareNullness(const T &a, const T &b, const QString &path, QStringList *differences);

/** Lists the string fields, at any depth, whose null mark differs between two records of the same type. */
template <typename Record>
void compareRecordNullness(const Record &a, const Record &b, const QString &path, QStringList *differences)
{
    Record::visitFields([&](const char *name, auto member) {
        compareNullness(a.*member, b.*member, path + QLatin1Char('/') + QLatin1String(name), differences);
    });
}

template <typename T> void compareNullness(const T &a, const T &b, const QString &path, QStringList *differences)
{
    if constexpr (std::is_same_v<T, QString>) {
        if (a.isNull() != b.isNull())
            differences->append(path);
    } else if constexpr (IsOptional<T>::value) {
        if (a.has_value() != b.has_value())
            differences->append(path + QLatin1String(" presence"));
        else if (a.has_value())
            compareNullness(*a, *b, path, differences);
    } else if constexpr (IsList<T>::value) {
        for (int i = 0; i < qMin(a.size(), b.size()); ++i)
            compareRecordNullness(a.at(i), b.at(i), path + QLatin1Char('/') + QString::number(i), differences);
    } else if constexpr (std::is_same_v<T, QStringList>) {
        for (int i = 0; i < qMin(a.size(), b.size()); ++i)
            compareNullness(a.at(i), b.at(i), path + QLatin1Char('/') + QString::number(i), differences);
    } else if constexpr (
        std::is_class_v<
            T> && !std::is_same_v<T, QDateTime> && !std::is_same_v<T, QVariant> && !std::is_same_v<T, QHash<QString, QString>>) {
        compareRecordNullness(a, b, path, differences);
    }
}

/** Encodes a record as a line, decodes the line and reports what did not survive. */
template <typename Record> QStringList roundTripProblems(const Record &record)
{
    QStringList problems;
    const QVariant data = QVariant::fromValue(record);
    const QByteArray line = DatasetCodec::encodeLine(someTime, QStringLiteral("m1"), QStringLiteral("Source 1"), data);
    if (line.contains('\n'))
        problems.append(QStringLiteral("line feed in the line"));
    DatasetCodec::Dataset decoded;
    QString error;
    if (!DatasetCodec::decodeLine(line, &decoded, &error))
        return { QStringLiteral("decoding failed: ") + error + QStringLiteral(" in ") + QString::fromUtf8(line) };
    if (decoded.timestamp != someTime || decoded.machine != QLatin1String("m1")
        || decoded.source != QLatin1String("Source 1"))
        problems.append(QStringLiteral("envelope differs"));
    if (decoded.data.userType() != qMetaTypeId<Record>())
        problems.append(QStringLiteral("type differs: ") + QLatin1String(decoded.data.typeName()));
    const Record back = qvariant_cast<Record>(decoded.data);
    if (back != record)
        problems.append(QStringLiteral("record differs: ") + QString::fromUtf8(line));
    compareRecordNullness(record, back, QString(), &problems);
    if (DatasetCodec::encodeLine(someTime, QStringLiteral("m1"), QStringLiteral("Source 1"), decoded.data) != line)
        problems.append(QStringLiteral("second encoding differs"));
    const QJsonObject object = DatasetCodec::encode(someTime, QStringLiteral("m1"), QStringLiteral("Source 1"), data);
    if (object != QJsonDocument::fromJson(line).object())
        problems.append(QStringLiteral("encode() differs from encodeLine()"));
    return problems;
}

using Check = std::function<QStringList()>;

template <typename Record> QStringList filledRoundTrip()
{
    return roundTripProblems(filledRecord<Record>());
}

template <typename Record> QStringList emptyRoundTrip()
{
    // Value-initialised: every optional absent, unset numbers 0, strings as the record's defaults.
    return roundTripProblems(Record {});
}

QHash<QString, QPair<Check, Check>> roundTrips()
{
    QHash<QString, QPair<Check, Check>> checks;
#define ORVIX_ROUND_TRIP(T)                                                                                            \
    checks.insert(QStringLiteral(#T), qMakePair(Check(filledRoundTrip<T>), Check(emptyRoundTrip<T>)))
    ORVIX_ROUND_TRIP(StateV1);
    ORVIX_ROUND_TRIP(GeneralV1);
    ORVIX_ROUND_TRIP(NotificationsAddV1);
    ORVIX_ROUND_TRIP(NotificationsRemoveV1);
    ORVIX_ROUND_TRIP(NotificationsRemoveAllV1);
    ORVIX_ROUND_TRIP(ConditionDefinitionsV2);
    ORVIX_ROUND_TRIP(ConditionDefinitionV2);
    ORVIX_ROUND_TRIP(ConditionDatasV2);
    ORVIX_ROUND_TRIP(ConditionDataV2);
    ORVIX_ROUND_TRIP(MaintenanceDefinitionsV1);
    ORVIX_ROUND_TRIP(MaintenanceDefinitionV1);
    ORVIX_ROUND_TRIP(MaintenanceDatasV1);
    ORVIX_ROUND_TRIP(MaintenanceDataV1);
    ORVIX_ROUND_TRIP(SwVerV1);
    ORVIX_ROUND_TRIP(OrderV1);
    ORVIX_ROUND_TRIP(WwState);
    ORVIX_ROUND_TRIP(WwIdentification);
    ORVIX_ROUND_TRIP(WwBaseEventType);
    ORVIX_ROUND_TRIP(WwCapabilities);
    ORVIX_ROUND_TRIP(WwManufacturerSpecific);
#undef ORVIX_ROUND_TRIP
    return checks;
}

QJsonObject dataOf(const QVariant &value)
{
    return DatasetCodec::encode(someTime, QStringLiteral("m1"), QStringLiteral("s"), value)
        .value(QLatin1String("data"))
        .toObject();
}

QVariant decodeData(const QByteArray &line)
{
    DatasetCodec::Dataset dataset;
    QString error;
    if (!DatasetCodec::decodeLine(line, &dataset, &error))
        qWarning("decoding failed: %s", qPrintable(error));
    return dataset.data;
}

} // namespace

class tst_DatasetCodec : public QObject
{
    Q_OBJECT

private slots:
    void knowsEveryType();
    void roundTripEveryFieldSet_data();
    void roundTripEveryFieldSet();
    void roundTripEveryOptionalAbsent_data();
    void roundTripEveryOptionalAbsent();
    void lineForm();
    void absentOptionalsAreOmitted();
    void nullVersusEmpty();
    void missingKeysKeepDefaultsAndUnknownKeysAreIgnored();
    void valueTypes_data();
    void valueTypes();
    void valuesReadBackAsWritten_data();
    void valuesReadBackAsWritten();
    void unwritableDateTimesAreRefused_data();
    void unwritableDateTimesAreRefused();
    void valueWithoutType_data();
    void valueWithoutType();
    void unsignedBoundary_data();
    void unsignedBoundary();
    void signedBoundary();
    void nonFiniteNumbers();
    void textsAndPath();
    void awkwardStrings();
    void timestamps_data();
    void timestamps();
    void unknownTypesAreWritten();
    void badLines_data();
    void badLines();
    void failureLeavesOutputUnchanged();
    void hostileLinesKeepMemoryBounded();
    void readmeExamplesDecode();
    void strictReaderReadsAsQt_data();
    void strictReaderReadsAsQt();
    void extraKeyReadsAsQt_data();
    void extraKeyReadsAsQt();
    void decodedNamesShareTheirText();
    void repeatedLineReadsAsItself();
};

void tst_DatasetCodec::knowsEveryType()
{
    QStringList expected = roundTrips().keys();
    expected.sort();
    QCOMPARE(DatasetCodec::typeNames(), expected);
}

void tst_DatasetCodec::roundTripEveryFieldSet_data()
{
    QTest::addColumn<QString>("type");
    const QStringList types = roundTrips().keys();
    for (const QString &type : types)
        QTest::newRow(qPrintable(type)) << type;
}

void tst_DatasetCodec::roundTripEveryFieldSet()
{
    QFETCH(QString, type);
    QCOMPARE(roundTrips().value(type).first(), QStringList());
}

void tst_DatasetCodec::roundTripEveryOptionalAbsent_data()
{
    roundTripEveryFieldSet_data();
}

void tst_DatasetCodec::roundTripEveryOptionalAbsent()
{
    QFETCH(QString, type);
    QCOMPARE(roundTrips().value(type).second(), QStringList());
}

void tst_DatasetCodec::lineForm()
{
    StateV1 state;
    state.state = 3;
    QCOMPARE(DatasetCodec::encodeLine(someTime, QStringLiteral("m1"), QStringLiteral("s"), QVariant::fromValue(state)),
        QByteArray(R"({"timestamp":"2021-03-01T08:00:00.250Z","machine":"m1","source":"s","type":"StateV1",)"
                   R"("data":{"state":3}})"));

    ConditionDatasV2 datas;
    datas.timestamp = someTime;
    ConditionDataV2 data;
    data.id = QStringLiteral("m1/State/Machine/Values/AxisOverride");
    data.value = QVariant(12u);
    datas.items.append(data);
    QCOMPARE(DatasetCodec::encodeLine(someTime, QStringLiteral("m1"), QStringLiteral("s"), QVariant::fromValue(datas)),
        QByteArray(R"({"timestamp":"2021-03-01T08:00:00.250Z","machine":"m1","source":"s",)"
                   R"("type":"ConditionDatasV2","data":{"timestamp":"2021-03-01T08:00:00.250Z","items":)"
                   R"([{"id":"m1/State/Machine/Values/AxisOverride","value":12,"valueType":"uint"}]}})"));
}

void tst_DatasetCodec::absentOptionalsAreOmitted()
{
    WwState state;
    state.MachineState = 1;
    QCOMPARE(dataOf(QVariant::fromValue(state)).keys(), QStringList({ "MachineState", "OperationMode" }));

    state.Flags = WwStateFlags();
    state.Flags->AirPresent = false;
    const QJsonObject flags = dataOf(QVariant::fromValue(state)).value(QLatin1String("Flags")).toObject();
    QCOMPARE(flags.size(), 9);
    QCOMPARE(flags.value(QLatin1String("AirPresent")), QJsonValue(false));
    QVERIFY(!flags.contains(QLatin1String("Hold")));
    QCOMPARE(flags.value(QLatin1String("MachineOn")), QJsonValue(false));

    WwIdentification identification;
    identification.MonthOfConstruction = 3;
    const QJsonObject object = dataOf(QVariant::fromValue(identification));
    QCOMPARE(object.value(QLatin1String("MonthOfConstruction")), QJsonValue(3));
    QVERIFY(!object.contains(QLatin1String("AssetId")));
    QVERIFY(!object.contains(QLatin1String("InitialOperationDate")));
    QCOMPARE(object.value(QLatin1String("SerialNumber")), QJsonValue(QJsonValue::Null));

    // null in an optional number or flag reads as absent; in an optional text it is a present null text.
    const WwIdentification back = qvariant_cast<WwIdentification>(
        decodeData(R"({"type":"WwIdentification","data":{"MonthOfConstruction":null,"AssetId":null,"Location":""}})"));
    QVERIFY(!back.MonthOfConstruction.has_value());
    QVERIFY(back.AssetId.has_value() && back.AssetId->isNull());
    QVERIFY(back.Location.has_value() && back.Location->isEmpty() && !back.Location->isNull());
}

void tst_DatasetCodec::nullVersusEmpty()
{
    ConditionDefinitionV2 definition {};
    const QJsonObject object = dataOf(QVariant::fromValue(definition));
    QCOMPARE(object.value(QLatin1String("id")), QJsonValue(QJsonValue::Null));
    QCOMPARE(object.value(QLatin1String("name")), QJsonValue(QString()));
    QVERIFY(object.value(QLatin1String("name")).isString());
    QCOMPARE(object.value(QLatin1String("text3")), QJsonValue(QJsonValue::Null));
    QVERIFY(object.value(QLatin1String("unitCode")).isString());

    const ConditionDefinitionV2 back = qvariant_cast<ConditionDefinitionV2>(
        decodeData(R"({"type":"ConditionDefinitionV2","data":{"id":"","name":null,"text3":"","unitCode":null}})"));
    QVERIFY(!back.id.isNull() && back.id.isEmpty());
    QVERIFY(back.name.isNull());
    QVERIFY(!back.text3.isNull());
    QVERIFY(back.unitCode.isNull());

    DatasetCodec::Dataset dataset;
    QVERIFY(DatasetCodec::decodeLine(R"({"machine":"","source":null,"type":"SwVerV1","data":{}})", &dataset));
    QVERIFY(!dataset.machine.isNull() && dataset.machine.isEmpty());
    QVERIFY(dataset.source.isNull());
    const QJsonObject envelope = DatasetCodec::encode(QDateTime(), QLatin1String(""), QString(), dataset.data);
    QVERIFY(envelope.value(QLatin1String("machine")).isString());
    QVERIFY(envelope.value(QLatin1String("source")).isNull());
    QVERIFY(envelope.value(QLatin1String("timestamp")).isNull());
}

void tst_DatasetCodec::missingKeysKeepDefaultsAndUnknownKeysAreIgnored()
{
    const ConditionDefinitionV2 definition = qvariant_cast<ConditionDefinitionV2>(
        decodeData(R"({"type":"ConditionDefinitionV2","data":{"id":"m1/x","colour":"red"},"extra":1})"));
    QCOMPARE(definition.id, QStringLiteral("m1/x"));
    QVERIFY(!definition.name.isNull());
    QVERIFY(definition.text3.isNull());
    QCOMPARE(definition.dataType, 0);
    QCOMPARE(definition.flag14, false);

    const WwState state = qvariant_cast<WwState>(decodeData(R"({"type":"WwState","data":{"Flags":{"Hold":true}}})"));
    QCOMPARE(state.MachineState, 0u);
    QVERIFY(state.Flags.has_value());
    QCOMPARE(state.Flags->MachineOn, false);
    QCOMPARE(state.Flags->Hold, std::optional<bool>(true));
    QVERIFY(!state.Flags->AirPresent.has_value());
    QVERIFY(!state.Values.has_value());

    DatasetCodec::Dataset dataset;
    QVERIFY(DatasetCodec::decodeLine(R"({"type":"StateV1","data":{}})", &dataset));
    QVERIFY(!dataset.timestamp.isValid());
    QVERIFY(dataset.machine.isNull());
    QCOMPARE(qvariant_cast<StateV1>(dataset.data).state, 0);
}

void tst_DatasetCodec::valueTypes_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("valueType");
    QTest::addColumn<QJsonValue>("json");
    QTest::newRow("bool") << QVariant(true) << "bool" << QJsonValue(true);
    QTest::newRow("int") << QVariant(-12) << "int" << QJsonValue(-12);
    QTest::newRow("int min") << QVariant(std::numeric_limits<int>::min()) << "int"
                             << QJsonValue(std::numeric_limits<int>::min());
    QTest::newRow("uint") << QVariant(4000000000u) << "uint" << QJsonValue(qint64(4000000000));
    QTest::newRow("qlonglong") << QVariant(qlonglong(-5)) << "qlonglong" << QJsonValue(-5);
    QTest::newRow("qulonglong") << QVariant(qulonglong(12)) << "qulonglong" << QJsonValue(12);
    QTest::newRow("double") << QVariant(2.5) << "double" << QJsonValue(2.5);
    QTest::newRow("whole double") << QVariant(3.0) << "double" << QJsonValue(3);
    QTest::newRow("QString") << QVariant(QStringLiteral("12")) << "QString" << QJsonValue(QStringLiteral("12"));
    QTest::newRow("empty QString") << QVariant(QLatin1String("")) << "QString" << QJsonValue(QString());
    QTest::newRow("null QString") << QVariant(QString()) << "QString" << QJsonValue(QJsonValue::Null);
    QTest::newRow("float") << QVariant(1.5f) << "float" << QJsonValue(1.5);
    QTest::newRow("QDateTime") << QVariant(someTime) << "QDateTime"
                               << QJsonValue(QStringLiteral("2021-03-01T08:00:00.250Z"));
}

void tst_DatasetCodec::valuesReadBackAsWritten_data()
{
    QTest::addColumn<QVariant>("value");
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float infinity = std::numeric_limits<float>::infinity();
    for (int c : { -128, -1, 0, 7, 55, 127 })
        QTest::addRow("char %d", c) << QVariant::fromValue(char(c));
    for (int c : { -128, 0, 127 })
        QTest::addRow("signed char %d", c) << QVariant::fromValue(static_cast<signed char>(c));
    for (int c : { 0, 55, 255 })
        QTest::addRow("uchar %d", c) << QVariant::fromValue(uchar(c));
    for (int c : { 0, 0x37, 0xe4, 0xd800, 0xffff })
        QTest::addRow("QChar %x", c) << QVariant::fromValue(QChar(c));
    QTest::newRow("float NaN") << QVariant::fromValue(nan);
    QTest::newRow("float Infinity") << QVariant::fromValue(infinity);
    QTest::newRow("float -Infinity") << QVariant::fromValue(-infinity);
    QTest::newRow("float lowest") << QVariant::fromValue(std::numeric_limits<float>::lowest());
    QTest::newRow("float smallest") << QVariant::fromValue(std::numeric_limits<float>::denorm_min());
    QTest::newRow("double NaN") << QVariant(std::numeric_limits<double>::quiet_NaN());
    QTest::newRow("double -Infinity") << QVariant(-std::numeric_limits<double>::infinity());
    QTest::newRow("bytes not UTF-8") << QVariant(QByteArray("\xff\xfe\0a\x80", 5));
    QTest::newRow("bytes empty") << QVariant(QByteArray(""));
    QTest::newRow("first year") << QVariant(QDateTime(QDate(1, 1, 1), QTime(0, 0), Qt::UTC));
    QTest::newRow("last year") << QVariant(QDateTime(QDate(9999, 12, 31), QTime(23, 59, 59, 999), Qt::UTC));
    QTest::newRow("offset with seconds") << QVariant(
        QDateTime(QDate(2021, 3, 1), QTime(10, 0), Qt::OffsetFromUTC, 3600 + 61));
}

void tst_DatasetCodec::valuesReadBackAsWritten()
{
    // decode(encode(x)) == x for every value the codec writes, edge values included.
    QFETCH(QVariant, value);
    ConditionDataV2 data;
    data.id = QStringLiteral("m1/x");
    data.value = value;
    QString error;
    const QByteArray line = DatasetCodec::encodeLine(
        someTime, QStringLiteral("m1"), QStringLiteral("s"), QVariant::fromValue(data), &error);
    QVERIFY2(!line.isEmpty(), qPrintable(error));
    const ConditionDataV2 back = qvariant_cast<ConditionDataV2>(decodeData(line));
    QCOMPARE(back.value.userType(), value.userType());
    if (value.userType() == QMetaType::Float && std::isnan(value.toFloat()))
        QVERIFY(std::isnan(back.value.toFloat()));
    else if (value.userType() == QMetaType::Double && std::isnan(value.toDouble()))
        QVERIFY(std::isnan(back.value.toDouble()));
    else
        QCOMPARE(back.value, value);
    // The line itself reads back as the same line: nothing depends on how it was made.
    DatasetCodec::Dataset dataset;
    QVERIFY(DatasetCodec::decodeLine(line, &dataset, &error));
    QCOMPARE(DatasetCodec::encodeLine(dataset.timestamp, dataset.machine, dataset.source, dataset.data), line);
}

void tst_DatasetCodec::unwritableDateTimesAreRefused_data()
{
    QTest::addColumn<QDateTime>("timestamp");
    QTest::addColumn<QVariant>("data");
    QTest::addColumn<QString>("error");
    OrderV1 order;
    order.time9 = QDateTime(QDate(10000, 1, 1), QTime(0, 0), Qt::UTC);
    ConditionDataV2 condition;
    condition.id = QStringLiteral("m1/x");
    condition.value = QDateTime(QDate(-5, 1, 1), QTime(0, 0), Qt::UTC);
    ConditionDatasV2 conditions;
    conditions.items = { condition };
    const QString outside = QStringLiteral("holds a date-time outside the years 1 to 9999");
    QTest::newRow("time stamp") << QDateTime(QDate(12000, 1, 1), QTime(0, 0), Qt::UTC)
                                << QVariant::fromValue(StateV1 { 1 }) << "field \"timestamp\" " + outside;
    QTest::newRow("field") << someTime << QVariant::fromValue(order) << "field \"time9\" " + outside;
    QTest::newRow("value in a list") << someTime << QVariant::fromValue(conditions) << "field \"value\" " + outside;
}

void tst_DatasetCodec::unwritableDateTimesAreRefused()
{
    QFETCH(QDateTime, timestamp);
    QFETCH(QVariant, data);
    QFETCH(QString, error);
    QString problem;
    QCOMPARE(
        DatasetCodec::encodeLine(timestamp, QStringLiteral("m1"), QStringLiteral("s"), data, &problem), QByteArray());
    QCOMPARE(problem, error);
}

void tst_DatasetCodec::valueTypes()
{
    QFETCH(QVariant, value);
    QFETCH(QString, valueType);
    QFETCH(QJsonValue, json);
    ConditionDataV2 data;
    data.id = QStringLiteral("m1/x");
    data.value = value;
    const QJsonObject object = dataOf(QVariant::fromValue(data));
    QCOMPARE(object.value(QLatin1String("valueType")).toString(), valueType);
    QCOMPARE(object.value(QLatin1String("value")), json);

    const QByteArray line
        = DatasetCodec::encodeLine(someTime, QStringLiteral("m1"), QStringLiteral("s"), QVariant::fromValue(data));
    const ConditionDataV2 back = qvariant_cast<ConditionDataV2>(decodeData(line));
    QCOMPARE(back.value.userType(), value.userType());
    QCOMPARE(back.value, value);
    if (value.userType() == QMetaType::QString)
        QCOMPARE(back.value.toString().isNull(), value.toString().isNull());
}

void tst_DatasetCodec::valueWithoutType_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QVariant>("expected");
    QTest::newRow("bool") << QByteArray("false") << QVariant(false);
    QTest::newRow("whole number") << QByteArray("12") << QVariant(qlonglong(12));
    QTest::newRow("negative whole number") << QByteArray("-3") << QVariant(qlonglong(-3));
    QTest::newRow("other number") << QByteArray("12.5") << QVariant(12.5);
    QTest::newRow("string") << QByteArray("\"12\"") << QVariant(QStringLiteral("12"));
    QTest::newRow("null") << QByteArray("null") << QVariant();
}

void tst_DatasetCodec::valueWithoutType()
{
    QFETCH(QByteArray, json);
    QFETCH(QVariant, expected);
    const ConditionDataV2 back = qvariant_cast<ConditionDataV2>(
        decodeData(R"({"type":"ConditionDataV2","data":{"id":"a","value":)" + json + "}}"));
    QCOMPARE(back.value.userType(), expected.userType());
    QCOMPARE(back.value, expected);
}

void tst_DatasetCodec::unsignedBoundary_data()
{
    QTest::addColumn<quint64>("value");
    QTest::addColumn<QJsonValue>("json");
    const quint64 limit = quint64(1) << 53;
    QTest::newRow("2^53 - 1") << limit - 1 << QJsonValue(qint64(limit - 1));
    QTest::newRow("2^53") << limit << QJsonValue(qint64(limit));
    QTest::newRow("2^53 + 1") << limit + 1 << QJsonValue(QStringLiteral("9007199254740993"));
    QTest::newRow("2^63") << (quint64(1) << 63) << QJsonValue(QStringLiteral("9223372036854775808"));
    QTest::newRow("2^64 - 1") << std::numeric_limits<quint64>::max()
                              << QJsonValue(QStringLiteral("18446744073709551615"));
}

void tst_DatasetCodec::unsignedBoundary()
{
    QFETCH(quint64, value);
    QFETCH(QJsonValue, json);

    GeneralV1 general;
    general.pieces = value;
    QCOMPARE(dataOf(QVariant::fromValue(general)).value(QLatin1String("pieces")), json);
    QCOMPARE(qvariant_cast<GeneralV1>(
                 decodeData(DatasetCodec::encodeLine(someTime, QString(), QString(), QVariant::fromValue(general))))
                 .pieces,
        value);

    WwState state;
    state.Values = WwStateValues();
    state.Values->AbsolutePiecesOut = value;
    const QByteArray stateLine = DatasetCodec::encodeLine(someTime, QString(), QString(), QVariant::fromValue(state));
    QCOMPARE(qvariant_cast<WwState>(decodeData(stateLine)).Values->AbsolutePiecesOut, std::optional<quint64>(value));

    ConditionDataV2 data;
    data.value = QVariant(qulonglong(value));
    QCOMPARE(dataOf(QVariant::fromValue(data)).value(QLatin1String("value")), json);
    const ConditionDataV2 back = qvariant_cast<ConditionDataV2>(
        decodeData(DatasetCodec::encodeLine(someTime, QString(), QString(), QVariant::fromValue(data))));
    QCOMPARE(back.value.userType(), int(QMetaType::ULongLong));
    QCOMPARE(back.value.toULongLong(), value);
}

void tst_DatasetCodec::signedBoundary()
{
    GeneralV1 general;
    general.counter5 = -(qint64(1) << 53);
    general.counter6 = std::numeric_limits<qint64>::min();
    const QJsonObject object = dataOf(QVariant::fromValue(general));
    QCOMPARE(object.value(QLatin1String("counter5")), QJsonValue(-(qint64(1) << 53)));
    QCOMPARE(object.value(QLatin1String("counter6")), QJsonValue(QStringLiteral("-9223372036854775808")));
    const GeneralV1 back = qvariant_cast<GeneralV1>(
        decodeData(DatasetCodec::encodeLine(someTime, QString(), QString(), QVariant::fromValue(general))));
    QCOMPARE(back.counter5, general.counter5);
    QCOMPARE(back.counter6, general.counter6);
}

void tst_DatasetCodec::nonFiniteNumbers()
{
    GeneralV1 general;
    general.powerOnHours = std::numeric_limits<double>::quiet_NaN();
    general.feedOnHours = std::numeric_limits<double>::infinity();
    general.length = -std::numeric_limits<double>::infinity();
    const QByteArray line = DatasetCodec::encodeLine(someTime, QString(), QString(), QVariant::fromValue(general));
    QVERIFY2(line.contains(R"("powerOnHours":"NaN","feedOnHours":"Infinity")"), line.constData());
    QVERIFY2(line.contains(R"("length":"-Infinity")"), line.constData());
    const GeneralV1 back = qvariant_cast<GeneralV1>(decodeData(line));
    QVERIFY(std::isnan(back.powerOnHours));
    QCOMPARE(back.feedOnHours, std::numeric_limits<double>::infinity());
    QCOMPARE(back.length, -std::numeric_limits<double>::infinity());
}

void tst_DatasetCodec::textsAndPath()
{
    WwBaseEventType event;
    event.Message = QStringLiteral("Door open");
    event.Id = QStringLiteral("4711");
    event.Category = 3;
    event.Texts.insert(QStringLiteral("en"), QStringLiteral("Door open"));
    event.Texts.insert(QStringLiteral("de"), QStringLiteral("Tür offen"));
    event.Path = QStringList { QStringLiteral("Unit1"), QString(), QStringLiteral("Spindle") };
    const QJsonObject object = dataOf(QVariant::fromValue(event));
    QCOMPARE(object.value(QLatin1String("Texts")).toObject().value(QLatin1String("de")).toString(),
        QStringLiteral("Tür offen"));
    QCOMPARE(object.value(QLatin1String("Path")).toArray().size(), 3);
    QCOMPARE(roundTripProblems(event), QStringList());
}

void tst_DatasetCodec::awkwardStrings()
{
    SwVerV1 version;
    version.version = QStringLiteral("a\"b\\c\nd\te\r\x01\x1f/ä€😀");
    QCOMPARE(roundTripProblems(version), QStringList());
    const QByteArray line = DatasetCodec::encodeLine(someTime, QString(), QString(), QVariant::fromValue(version));
    QVERIFY2(line.contains(R"("a\"b\\c\nd\te\r\u0001\u001f/)"), line.constData());
}

void tst_DatasetCodec::timestamps_data()
{
    QTest::addColumn<QDateTime>("timestamp");
    QTest::addColumn<QString>("text");
    QTest::newRow("UTC") << someTime << "2021-03-01T08:00:00.250Z";
    QTest::newRow("offset") << QDateTime(QDate(2021, 3, 1), QTime(10, 0), Qt::OffsetFromUTC, 7200)
                            << "2021-03-01T10:00:00.000+02:00";
    // Qt turns an offset of zero into UTC.
    QTest::newRow("offset zero") << someTime.toOffsetFromUtc(0) << "2021-03-01T08:00:00.250Z";
    QTest::newRow("negative offset") << someTime.toOffsetFromUtc(-(3 * 3600 + 30 * 60))
                                     << "2021-03-01T04:30:00.250-03:30";
    QTest::newRow("time zone") << someTime.toTimeZone(QTimeZone("America/New_York")) << "2021-03-01T03:00:00.250-05:00";
    QTest::newRow("before 1970") << QDateTime(QDate(1969, 12, 31), QTime(23, 59, 59, 999), Qt::UTC)
                                 << "1969-12-31T23:59:59.999Z";
    QTest::newRow("local")
        << someTime.toLocalTime()
        << someTime.toOffsetFromUtc(someTime.toLocalTime().offsetFromUtc()).toString(Qt::ISODateWithMs);
}

void tst_DatasetCodec::timestamps()
{
    QFETCH(QDateTime, timestamp);
    QFETCH(QString, text);
    const QJsonObject object = DatasetCodec::encode(timestamp, QString(), QString(), QVariant(QStringLiteral("x")));
    QCOMPARE(object.value(QLatin1String("timestamp")).toString(), text);
    if (timestamp.timeSpec() != Qt::LocalTime)
        QCOMPARE(text, timestamp.toString(Qt::ISODateWithMs));
    QVERIFY(
        text.endsWith(QLatin1Char('Z')) || text.contains(QLatin1Char('+')) || text.lastIndexOf(QLatin1Char('-')) > 10);
    DatasetCodec::Dataset dataset;
    QVERIFY(DatasetCodec::decode(object, &dataset));
    QCOMPARE(dataset.timestamp, timestamp);
    QCOMPARE(dataset.timestamp.offsetFromUtc(), timestamp.offsetFromUtc());
}

void tst_DatasetCodec::unknownTypesAreWritten()
{
    const QVariant unlisted = QVariant::fromValue(Unlisted());
    const QJsonObject object = DatasetCodec::encode(someTime, QStringLiteral("m1"), QStringLiteral("s"), unlisted);
    QCOMPARE(object.value(QLatin1String("type")).toString(), QStringLiteral("Unlisted"));
    QVERIFY(object.contains(QLatin1String("data")));
    DatasetCodec::Dataset dataset;
    QString error;
    QVERIFY(!DatasetCodec::decode(object, &dataset, &error));
    QCOMPARE(error, QStringLiteral("unknown dataset type \"Unlisted\""));

    // Qt's own value types come back as they were.
    const QByteArray text = DatasetCodec::encodeLine(someTime, QString(), QString(), QVariant(QStringLiteral("hello")));
    QVERIFY2(text.contains(R"("type":"QString","data":"hello")"), text.constData());
    QCOMPARE(decodeData(text), QVariant(QStringLiteral("hello")));
    const QVariant number = decodeData(DatasetCodec::encodeLine(someTime, QString(), QString(), QVariant(42u)));
    QCOMPARE(number.userType(), int(QMetaType::UInt));
    QCOMPARE(number.toUInt(), 42u);

    // An empty value is written with a null type and read back as an empty value.
    const QByteArray empty = DatasetCodec::encodeLine(someTime, QString(), QString(), QVariant());
    QVERIFY2(empty.contains(R"("type":null,"data":null)"), empty.constData());
    QVERIFY(DatasetCodec::decodeLine(empty, &dataset, &error));
    QVERIFY(!dataset.data.isValid());
}

void tst_DatasetCodec::badLines_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("error");
    QTest::newRow("empty") << QByteArray("  ") << "the line is empty";
    const auto invalid = [](const char *reason, int offset) {
        return QStringLiteral("the line is not valid JSON: %1 at offset %2").arg(QLatin1String(reason)).arg(offset);
    };
    QTest::newRow("not JSON") << QByteArray("state=3") << invalid("an unexpected character", 0);
    QTest::newRow("truncated") << QByteArray(R"({"type":"StateV1","data":{)") << invalid("an unexpected end", 26);
    // Text that is not JSON is refused, not repaired into other text; the offset is that of the first bad byte.
    QTest::newRow("invalid escape") << QByteArray(R"({"type":"SwVerV1","data":{"version":"a\qb"}})")
                                    << invalid("an invalid escape", 38);
    QTest::newRow("escaped non-ASCII") << QByteArray("{\"type\":\"SwVerV1\",\"data\":{\"version\":\"\\\xc3\xa4\"}}")
                                       << invalid("an invalid escape", 37);
    QTest::newRow("lone low surrogate") << QByteArray(R"({"type":"SwVerV1","data":{"version":"\udfab"}})")
                                        << invalid("a lone surrogate", 37);
    QTest::newRow("lone high surrogate") << QByteArray(R"({"type":"SwVerV1","data":{"version":"\ud800x"}})")
                                         << invalid("a lone surrogate", 37);
    QTest::newRow("high surrogate and no low one")
        << QByteArray(R"({"type":"SwVerV1","data":{"version":"\ud800\u0041"}})") << invalid("a lone surrogate", 37);
    QTest::newRow("raw NUL") << QByteArray("{\"type\":\"SwVerV1\",\"data\":{\"version\":\"a\0b\"}}", 43)
                             << invalid("a raw control character in a string", 38);
    QTest::newRow("raw line feed") << QByteArray("{\"type\":\"SwVerV1\",\"data\":{\"version\":\"a\nb\"}}")
                                   << invalid("a raw control character in a string", 38);
    QTest::newRow("invalid UTF-8") << QByteArray("{\"type\":\"SwVerV1\",\"data\":{\"version\":\"\xff\"}}")
                                   << invalid("invalid UTF-8", 37);
    QTest::newRow("overlong UTF-8") << QByteArray("{\"type\":\"SwVerV1\",\"data\":{\"version\":\"\xc0\xaf\"}}")
                                    << invalid("invalid UTF-8", 37);
    QTest::newRow("UTF-8 surrogate") << QByteArray("{\"type\":\"SwVerV1\",\"data\":{\"version\":\"\xed\xa0\x80\"}}")
                                     << invalid("invalid UTF-8", 37);
    QTest::newRow("trailing comma") << QByteArray(R"({"type":"StateV1","data":{"state":1,}})")
                                    << invalid("a key expected", 36);
    QTest::newRow("text after the value")
        << QByteArray(R"({"type":"StateV1","data":{}} x)") << invalid("text after the value", 29);
    QTest::newRow("duplicate key") << QByteArray(R"({"a":{"b":"x"},"a":{"b":"x"}})") << "duplicate key \"a\"";
    QTest::newRow("duplicate key deep") << QByteArray(R"({"type":"StateV1","data":{"state":1,"state":2}})")
                                        << "duplicate key \"state\"";
    // Objects of more than 64 keys are searched for a repeated key another way than small ones.
    QByteArray manyKeys = "{";
    for (int i = 0; i < 100; ++i)
        manyKeys += "\"k" + QByteArray::number(i) + "\":" + QByteArray::number(i) + ",";
    QTest::newRow("duplicate key among many") << manyKeys + R"("k7":1})"
                                              << "duplicate key \"k7\"";
    QTest::newRow("duplicate key below many") << manyKeys + R"("x":{"a":1,"a":2}})"
                                              << "duplicate key \"a\"";
    QTest::newRow("nested 65 deep") << QByteArray(32, '[') + QByteArray(R"({"a":)") + QByteArray(31, '[')
            + QByteArray("1") + QByteArray(31, ']') + QByteArray("}")
            + QByteArray(32, ']') << "the line nests deeper than 64 levels";
    QTest::newRow("array") << QByteArray("[1,2]") << "the line is not a JSON object";
    QTest::newRow("no type") << QByteArray(R"({"data":{}})") << "the dataset has no \"type\"";
    QTest::newRow("no data") << QByteArray(R"({"type":"StateV1"})") << "the dataset has no \"data\"";
    QTest::newRow("type not a string") << QByteArray(R"({"type":5,"data":{}})") << "\"type\" must be a string";
    QTest::newRow("unknown type") << QByteArray(R"({"type":"StateV9","data":{}})")
                                  << "unknown dataset type \"StateV9\"";
    QTest::newRow("data not an object") << QByteArray(R"({"type":"StateV1","data":3})")
                                        << "\"data\" of StateV1 must be an object";
    QTest::newRow("bad timestamp") << QByteArray(R"({"timestamp":"yesterday","type":"StateV1","data":{}})")
                                   << "\"timestamp\" must be an ISO 8601 date-time or null";
    QTest::newRow("machine not a string")
        << QByteArray(R"({"machine":1,"type":"StateV1","data":{}})") << "\"machine\" must be a string or null";
    QTest::newRow("number as text") << QByteArray(R"({"type":"StateV1","data":{"state":true}})")
                                    << "field \"state\" of StateV1 must be a number";
    QTest::newRow("fraction") << QByteArray(R"({"type":"StateV1","data":{"state":1.5}})")
                              << "field \"state\" of StateV1 must be a whole number from -2147483648 to 2147483647";
    QTest::newRow("out of range") << QByteArray(R"({"type":"StateV1","data":{"state":2147483648}})")
                                  << "field \"state\" of StateV1 must be a whole number from -2147483648 to 2147483647";
    QTest::newRow("negative unsigned") << QByteArray(R"({"type":"GeneralV1","data":{"pieces":-1}})")
                                       << "field \"pieces\" of GeneralV1 must be a whole number from 0 to "
                                          "18446744073709551615";
    QTest::newRow("bad decimal string") << QByteArray(R"({"type":"GeneralV1","data":{"pieces":"12x"}})")
                                        << "field \"pieces\" of GeneralV1 must be a whole number from 0 to "
                                           "18446744073709551615";
    QTest::newRow("double as text") << QByteArray(R"({"type":"GeneralV1","data":{"length":"12"}})")
                                    << "field \"length\" of GeneralV1 must be a number";
    QTest::newRow("string as number") << QByteArray(R"({"type":"NotificationsAddV1","data":{"id":5}})")
                                      << "field \"id\" of NotificationsAddV1 must be a string or null";
    QTest::newRow("bool as text") << QByteArray(R"({"type":"NotificationsAddV1","data":{"flag":"yes"}})")
                                  << "field \"flag\" of NotificationsAddV1 must be true or false";
    QTest::newRow("bad time") << QByteArray(R"({"type":"OrderV1","data":{"time9":"soon"}})")
                              << "field \"time9\" of OrderV1 must be an ISO 8601 date-time or null";
    QTest::newRow("items not an array") << QByteArray(R"({"type":"ConditionDatasV2","data":{"items":{}}})")
                                        << "field \"items\" of ConditionDatasV2 must be an array of ConditionDataV2 "
                                           "objects";
    QTest::newRow("bad item") << QByteArray(R"({"type":"ConditionDatasV2","data":{"items":[{"id":"a"},{"id":3}]}})")
                              << "in item 1 of field \"items\" of ConditionDatasV2: field \"id\" of ConditionDataV2 "
                                 "must be a string or null";
    QTest::newRow("item not an object") << QByteArray(R"({"type":"MaintenanceDatasV1","data":{"items":[1]}})")
                                        << "in item 0 of field \"items\" of MaintenanceDatasV1: MaintenanceDataV1 "
                                           "must be an object";
    QTest::newRow("bad flag") << QByteArray(R"({"type":"WwState","data":{"Flags":{"AirPresent":"on"}}})")
                              << "in field \"Flags\" of WwState: field \"AirPresent\" of WwStateFlags must be true or "
                                 "false";
    QTest::newRow("block not an object") << QByteArray(R"({"type":"WwState","data":{"Values":[]}})")
                                         << "field \"Values\" of WwState must be an object";
    QTest::newRow("bad month") << QByteArray(R"({"type":"WwIdentification","data":{"MonthOfConstruction":300}})")
                               << "field \"MonthOfConstruction\" of WwIdentification must be a whole number from 0 "
                                  "to 255";
    QTest::newRow("bad texts") << QByteArray(R"({"type":"WwBaseEventType","data":{"Texts":{"en":1}}})")
                               << "field \"Texts\" of WwBaseEventType must be an object of strings";
    QTest::newRow("bad path") << QByteArray(R"({"type":"WwBaseEventType","data":{"Path":"a/b"}})")
                              << "field \"Path\" of WwBaseEventType must be an array of strings";
    QTest::newRow("unknown valueType") << QByteArray(R"({"type":"ConditionDataV2","data":{"value":1,"valueType":"x"}})")
                                       << "field \"valueType\" of ConditionDataV2 names the unknown type \"x\"";
    QTest::newRow("valueType not a string")
        << QByteArray(R"({"type":"ConditionDataV2","data":{"value":1,"valueType":3}})")
        << "field \"valueType\" of ConditionDataV2 must be a string";
    QTest::newRow("value out of range")
        << QByteArray(R"({"type":"ConditionDataV2","data":{"value":-1,"valueType":"uint"}})")
        << "field \"value\" of ConditionDataV2 must be a whole number from 0 to 4294967295";
    QTest::newRow("value of wrong kind") << QByteArray(
        R"({"type":"ConditionDataV2","data":{"value":"1","valueType":"bool"}})")
                                         << "field \"value\" of ConditionDataV2 must be true or false";
    QTest::newRow("value object") << QByteArray(R"({"type":"ConditionDataV2","data":{"value":{}}})")
                                  << "field \"value\" of ConditionDataV2 must be true, false, a number, a string or "
                                     "null";
    QTest::newRow("data with null type") << QByteArray(R"({"type":null,"data":{}})")
                                         << "\"data\" must be null when \"type\" is null";
}

void tst_DatasetCodec::badLines()
{
    QFETCH(QByteArray, line);
    QFETCH(QString, error);
    DatasetCodec::Dataset dataset;
    QString actual;
    QVERIFY(!DatasetCodec::decodeLine(line, &dataset, &actual));
    QCOMPARE(actual, error);
    QVERIFY(!DatasetCodec::decodeLine(line, &dataset));
}

void tst_DatasetCodec::failureLeavesOutputUnchanged()
{
    DatasetCodec::Dataset dataset;
    dataset.machine = QStringLiteral("before");
    dataset.data = QVariant(7);
    QVERIFY(!DatasetCodec::decodeLine(
        R"({"machine":"after","type":"ConditionDatasV2","data":{"items":[{"id":"a"},{"id":3}]}})", &dataset));
    QCOMPARE(dataset.machine, QStringLiteral("before"));
    QCOMPARE(dataset.data, QVariant(7));
}

void tst_DatasetCodec::readmeExamplesDecode()
{
    // Every example line of the codec's README is read back and written again unchanged, so the document and the
    // codec cannot drift apart; and each known type has its example.
    QFile readme(QStringLiteral(ORVIX_SOURCE_DIR "/codec/README.md"));
    QVERIFY(readme.open(QIODevice::ReadOnly));
    QSet<QString> typesShown;
    while (!readme.atEnd()) {
        const QByteArray line = readme.readLine().trimmed();
        if (!line.startsWith("{\"timestamp\""))
            continue;
        DatasetCodec::Dataset dataset;
        QString error;
        QVERIFY2(DatasetCodec::decodeLine(line, &dataset, &error), qPrintable(error + QLatin1String(": ") + line));
        QCOMPARE(DatasetCodec::encodeLine(dataset.timestamp, dataset.machine, dataset.source, dataset.data), line);
        typesShown.insert(QLatin1String(dataset.data.typeName()));
    }
    for (const QString &type : DatasetCodec::typeNames())
        QVERIFY2(typesShown.contains(type), qPrintable(type));
}

void tst_DatasetCodec::hostileLinesKeepMemoryBounded()
{
    // Qt's own reader keeps the memory of a replaced duplicate key: 20,000 such lines once took hundreds of MB.
    const auto residentBytes = [] {
        QFile status(QStringLiteral("/proc/self/statm"));
        if (!status.open(QIODevice::ReadOnly))
            return qint64(-1);
        return status.readAll().split(' ').value(1).toLongLong() * 4096;
    };
    QByteArray hostile = R"({"type":"StateV1","data":{"state":1},"x":{"b":")" + QByteArray(2000, 'x') + R"("},"x":[)";
    hostile += QByteArray(2000, '1').replace(QByteArray("1"), QByteArray("1,")) + "1]}";
    DatasetCodec::Dataset dataset;
    QString error;
    QVERIFY(!DatasetCodec::decodeLine(hostile, &dataset, &error));
    QCOMPARE(error, QStringLiteral("duplicate key \"x\""));
    const qint64 before = residentBytes();
    for (int i = 0; i < 20000; ++i)
        DatasetCodec::decodeLine(hostile, &dataset, &error);
    const qint64 growth = residentBytes() - before;
#ifdef __SANITIZE_ADDRESS__
    // AddressSanitizer keeps freed memory in quarantine, so only a plain build shows what decoding holds.
    Q_UNUSED(growth)
#else
    QVERIFY2(growth < 5 * 1024 * 1024, qPrintable(QString::number(growth)));
#endif
}

void tst_DatasetCodec::strictReaderReadsAsQt_data()
{
    QTest::addColumn<QByteArray>("line");
    // Every record filled and empty, as the writer writes them.
    const QHash<int, QVariant> values {
        { 0, QVariant::fromValue(filledRecord<WwState>()) },
        { 1, QVariant::fromValue(WwState {}) },
        { 2, QVariant::fromValue(filledRecord<ConditionDatasV2>()) },
        { 3, QVariant::fromValue(filledRecord<ConditionDefinitionsV2>()) },
        { 4, QVariant::fromValue(filledRecord<MaintenanceDefinitionsV1>()) },
        { 5, QVariant::fromValue(filledRecord<OrderV1>()) },
        { 6, QVariant::fromValue(filledRecord<WwIdentification>()) },
        { 7, QVariant::fromValue(filledRecord<WwBaseEventType>()) },
        { 8, QVariant::fromValue(filledRecord<NotificationsAddV1>()) },
        { 9, QVariant::fromValue(filledRecord<GeneralV1>()) },
    };
    for (auto it = values.constBegin(); it != values.constEnd(); ++it) {
        QTest::addRow("record %s", it.value().typeName())
            << DatasetCodec::encodeLine(someTime, QStringLiteral("m1"), QString(), it.value());
    }
    // Numbers in every form, where Qt's reader decides between integer and double.
    const char *numbers[] = { "0", "-0", "0.0", "-0.0", "0e5", "1e-400", "5e-324", "1.0", "1e2", "-1E+2", "12.5", "-3",
        "1e300", "2.5e-3", "9007199254740993", "9223372036854775807", "-9223372036854775808", "9223372036854775808",
        "18446744073709551615", "4611686018427387904.0", "4611686018427387903", "9223372036854775807.0",
        "1.7976931348623157e308", "0.1", "123456789012345678901234567890" };
    for (const char *number : numbers) {
        const QByteArray n(number);
        QTest::addRow("value %s", number)
            << QByteArray(R"({"type":"ConditionDataV2","data":{"id":"a","value":)") + n + "}}";
        for (const char *type : { "int", "uint", "qlonglong", "qulonglong", "double", "float", "bool", "char",
                 "QString", "QVariantList" }) {
            QTest::addRow("value %s as %s", number, type)
                << QByteArray(R"({"type":"ConditionDataV2","data":{"id":"a","value":)") + n + R"(,"valueType":")" + type
                    + "\"}}";
        }
        QTest::addRow("state %s", number) << QByteArray(R"({"type":"StateV1","data":{"state":)") + n + "}}";
        QTest::addRow("pieces %s", number) << QByteArray(R"({"type":"GeneralV1","data":{"pieces":)") + n + "}}";
        QTest::addRow("length %s", number) << QByteArray(R"({"type":"GeneralV1","data":{"length":)") + n + "}}";
        QTest::addRow("flag %s", number) << QByteArray(R"({"type":"WwState","data":{"Flags":{"Hold":)") + n + "}}}";
        QTest::addRow("Qt type %s", number) << QByteArray(R"({"type":"double","data":)") + n + "}";
        QTest::addRow("timestamp %s", number) << QByteArray(R"({"timestamp":)") + n + R"(,"type":null,"data":null})";
    }
    // Texts, date-times and structures.
    QTest::newRow("escapes") << QByteArray(
        R"({"machine":"a\u0000b\"\\\/\b\f\n\r\t\ud83d\ude00\u00e4","source":"","type":"SwVerV1","data":{"version":""}})");
    QTest::newRow("raw UTF-8") << QByteArray(
        "{\"machine\":\"\xc3\xa4\xf0\x9f\x98\x80\xef\xbf\xbf\",\"type\":null,\"data\":null}");
    QTest::newRow("escaped keys") << QByteArray(R"({"\u0074ype":"StateV1","d\u0061ta":{"st\u0061te":3}})");
    QTest::newRow("keys in any order") << QByteArray(
        R"({"data":{"Values":{"FeedSpeed":1.5,"AxisOverride":3},"MachineState":2},"type":"WwState","source":null})");
    QTest::newRow("unknown keys") << QByteArray(R"({"type":"StateV1","data":{"x":[1,{"y":2}],"state":4},"z":null})");
    for (const char *time : { "2021-03-01T08:00:00.250Z", "2021-03-01T08:00:00Z", "2021-03-01T08:00:00.250+02:00",
             "2021-03-01T08:00:00.250-00:30", "2021-03-01T08:00:00.250", "2021-03-01T24:00:00.000Z",
             "2021-02-30T08:00:00.250Z", "0000-03-01T08:00:00.250Z", "9999-12-31T23:59:59.999Z",
             "2021-03-01T08:00:60.000Z", "2021-03-01T08:00:00,250Z", "2021-03-01T08:00:00.25Z",
             "2021/03/01T08:00:00.250Z", "2021-03-01 08:00:00.250Z", "2021-03-01", "2021-03-01T08:00:00.2500Z",
             "+021-03-01T08:00:00.250Z", "" }) {
        QTest::addRow("timestamp \"%s\"", time)
            << QByteArray(R"({"timestamp":")") + time + R"(","type":"OrderV1","data":{"time9":")" + time + R"("}})";
    }
    QTest::newRow("texts and path") << QByteArray(
        R"({"type":"WwBaseEventType","data":{"Texts":{"de":"T\u00fcr","en":"Door","":null},"Path":["a","",null]}})");
    QTest::newRow("texts not an object") << QByteArray(R"({"type":"WwBaseEventType","data":{"Texts":[]}})");
    QTest::newRow("path not an array") << QByteArray(R"({"type":"WwBaseEventType","data":{"Path":{}}})");
    QTest::newRow("list of records") << QByteArray(
        R"({"type":"MaintenanceDatasV1","data":{"timestamp":null,"items":[{"id":"a","value2":1},{"value3":-0.5}]}})");
    QTest::newRow("Qt list") << QByteArray(R"({"type":"QVariantList","data":[1,"a",null,true,{"b":[]}]})");
    QTest::newRow("Qt map") << QByteArray(R"({"type":"QVariantMap","data":{"b":1.5,"a":"x"}})");
    QTest::newRow("Qt string") << QByteArray(R"({"type":"QString","data":"text"})");
    QTest::newRow("top-level string") << QByteArray(R"("text")");
    QTest::newRow("top-level number") << QByteArray("42");
}

void tst_DatasetCodec::strictReaderReadsAsQt()
{
    // decodeLine reads the strict reader's parsed line; decode reads Qt's JSON object. Both must give the same
    // dataset, with the same exact value types, or the same refusal.
    QFETCH(QByteArray, line);
    DatasetCodec::Dataset strict;
    QString strictError;
    const bool strictOk = DatasetCodec::decodeLine(line, &strict, &strictError);

    QString checkError;
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(line, &parseError);
    if (!StrictJson::check(line, &checkError) || parseError.error != QJsonParseError::NoError || !document.isObject()) {
        QVERIFY2(!strictOk, qPrintable(strictError));
        return;
    }
    DatasetCodec::Dataset qt;
    QString qtError;
    const bool qtOk = DatasetCodec::decode(document.object(), &qt, &qtError);
    QCOMPARE(strictOk, qtOk);
    QCOMPARE(strictError, qtError);
    if (!qtOk)
        return;
    QCOMPARE(strict.timestamp, qt.timestamp);
    QCOMPARE(strict.timestamp.timeSpec(), qt.timestamp.timeSpec());
    QCOMPARE(strict.timestamp.offsetFromUtc(), qt.timestamp.offsetFromUtc());
    QCOMPARE(strict.machine, qt.machine);
    QCOMPARE(strict.machine.isNull(), qt.machine.isNull());
    QCOMPARE(strict.source.isNull(), qt.source.isNull());
    QCOMPARE(strict.data.userType(), qt.data.userType());
    // The writer shows every field, null texts and the exact types of condition values included (QVariant would
    // compare the records' bytes).
    QCOMPARE(DatasetCodec::encodeLine(strict.timestamp, strict.machine, strict.source, strict.data),
        DatasetCodec::encodeLine(qt.timestamp, qt.machine, qt.source, qt.data));
}

void tst_DatasetCodec::extraKeyReadsAsQt_data()
{
    QTest::addColumn<QByteArray>("line");
    const QByteArray dataset = R"("type":"StateV1","data":{"state":3})";
    for (const char *value : { "12", "12.5", "-0.0", "1e-400", "9223372036854775808", "\"12\"", "null", "true",
             "[1,{\"a\":2}]", "{\"b\":null}" }) {
        QTest::addRow("%s", value) << "{" + dataset + R"(,"delayMs":)" + value + "}";
    }
    QTest::newRow("absent") << "{" + dataset + "}";
}

void tst_DatasetCodec::extraKeyReadsAsQt()
{
    QFETCH(QByteArray, line);
    DatasetCodec::Dataset dataset;
    QString error;
    QJsonValue extra(QJsonValue::Undefined);
    const bool ok = DatasetCodec::decodeLine(line, &dataset, &error, QLatin1String("delayMs"), &extra);
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(line, &parseError);
    QCOMPARE(ok, parseError.error == QJsonParseError::NoError);
    if (!ok)
        return;
    const QJsonValue expected = document.object().value(QLatin1String("delayMs"));
    QCOMPARE(extra.type(), expected.type());
    QCOMPARE(extra, expected);
    QCOMPARE(extra.toVariant().userType(), expected.toVariant().userType());
}

void tst_DatasetCodec::decodedNamesShareTheirText()
{
    const auto decode = [](const QByteArray &machine, const QByteArray &source) {
        DatasetCodec::Dataset dataset;
        QString error;
        const bool ok = DatasetCodec::decodeLine(R"({"timestamp":null,"machine":)" + machine + R"(,"source":)" + source
                + R"(,"type":"StateV1","data":{"state":2}})",
            &dataset, &error);
        return ok ? dataset : DatasetCodec::Dataset { QDateTime(), QStringLiteral("failed: ") + error, {}, {} };
    };
    // A machine's datasets share one text for its name and one for its source, so that a name is made once.
    const DatasetCodec::Dataset first = decode(R"("m1")", R"("opcua")");
    const DatasetCodec::Dataset second = decode(R"("m1")", R"("opcua")");
    QCOMPARE(first.machine, QStringLiteral("m1"));
    QVERIFY(second.machine.isSharedWith(first.machine));
    QVERIFY(second.source.isSharedWith(first.source));
    const DatasetCodec::Dataset saw = decode(R"("S\u00e4ge \/ 1")", R"("s")");
    QCOMPARE(saw.machine, QString::fromUtf8("S\xc3\xa4ge / 1"));
    QVERIFY(decode(R"("S\u00e4ge \/ 1")", R"("s")").machine.isSharedWith(saw.machine));
    // Empty and null stay apart.
    const DatasetCodec::Dataset empty = decode(R"("")", "null");
    QVERIFY(empty.machine.isEmpty() && !empty.machine.isNull());
    QVERIFY(empty.source.isNull());
    // More names than the shared texts have room for: each still reads as itself, whatever it displaced.
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 6000; ++i) {
            const QByteArray name = "machine-" + QByteArray::number(i);
            QCOMPARE(decode('"' + name + '"', R"("s")").machine, QString::fromLatin1(name));
        }
    }
}

void tst_DatasetCodec::repeatedLineReadsAsItself()
{
    const auto line
        = [](const QByteArray &timestamp, const QByteArray &state, const QByteArray &extra = "") -> QByteArray {
        return R"({"timestamp":")" + timestamp + R"(","machine":"m1","source":"s","type":"StateV1","data":{"state":)"
            + state + "}" + extra + "}";
    };
    const auto stateOf
        = [](const DatasetCodec::Dataset &dataset) { return qvariant_cast<StateV1>(dataset.data).state; };
    DatasetCodec::Dataset dataset;
    QString error;
    QJsonValue delay;
    QVERIFY(DatasetCodec::decodeLine(
        line("2024-03-04T06:00:01.000Z", "2", R"(,"delayMs":5)"), &dataset, &error, QLatin1String("delayMs"), &delay));
    // A machine's line that repeats but for its time stamp reads as the same dataset with its own time stamp.
    QVERIFY(DatasetCodec::decodeLine(
        line("2024-03-04T06:00:02.500Z", "2", R"(,"delayMs":5)"), &dataset, &error, QLatin1String("delayMs"), &delay));
    QCOMPARE(dataset.timestamp, QDateTime(QDate(2024, 3, 4), QTime(6, 0, 2, 500), Qt::UTC));
    QCOMPARE(dataset.machine, QStringLiteral("m1"));
    QCOMPARE(stateOf(dataset), 2);
    QCOMPARE(delay, QJsonValue(5));
    // Asked for another extra key, the same line has none.
    QVERIFY(DatasetCodec::decodeLine(
        line("2024-03-04T06:00:03.000Z", "2", R"(,"delayMs":5)"), &dataset, &error, QLatin1String("pause"), &delay));
    QVERIFY(delay.isUndefined());
    // One byte more or different after the time stamp is another record.
    QVERIFY(DatasetCodec::decodeLine(line("2024-03-04T06:00:04.000Z", "3"), &dataset, &error));
    QCOMPARE(stateOf(dataset), 3);
    QVERIFY(DatasetCodec::decodeLine(line("2024-03-04T06:00:05.000Z", "33"), &dataset, &error));
    QCOMPARE(stateOf(dataset), 33);
    // A time stamp that is no date-time is refused as ever, repeated line or not.
    QVERIFY(!DatasetCodec::decodeLine(line("2024-13-04T06:00:06.000Z", "33"), &dataset, &error));
    QCOMPARE(error, QStringLiteral("\"timestamp\" must be an ISO 8601 date-time or null"));
    // A shorter time stamp whose line has a quote where the writer's form ends its time stamp: the line made of a
    // time stamp of the writer's length and the same bytes after it is no JSON, and is refused.
    const QByteArray shortStamp = R"({"timestamp":"2024-03-04T06:00:07Z","a":"","machine":"m2","source":"s",)"
                                  R"("type":"StateV1","data":{"state":2}})";
    QCOMPARE(shortStamp.at(38), '"');
    QVERIFY2(DatasetCodec::decodeLine(shortStamp, &dataset, &error), qPrintable(error));
    const QByteArray madeUp = shortStamp.left(14) + "2024-03-04T06:00:08.000Z" + shortStamp.mid(38);
    QVERIFY(!DatasetCodec::decodeLine(madeUp, &dataset, &error));
    QVERIFY2(error.startsWith(QStringLiteral("the line is not valid JSON")), qPrintable(error));
}

QTEST_GUILESS_MAIN(tst_DatasetCodec)

#include "tst_datasetcodec.moc"
