#include "tst_opcuatommmapper.h"
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

namespace {

WwBaseEventType makeEvent(const QString &message, const QString &id, qint32 category, const QStringList &path)
{
    WwBaseEventType event;
    event.Message = message;
    event.Id = id;
    event.Category = category;
    event.Texts.insert("en", "Spindle overheated");
    event.Path = path;
    return event;
}

} // namespace

void tst_OpcUaToMMMapper::notificationLevel_data()
{
    QTest::addColumn<int>("category");
    QTest::addColumn<int>("level");
    QTest::newRow("0") << int(WwBaseEventType::Other) << int(NotificationsAddV1::Other);
    QTest::newRow("1") << int(WwBaseEventType::Diagnostic) << int(NotificationsAddV1::Other);
    QTest::newRow("2") << int(WwBaseEventType::Information) << int(NotificationsAddV1::Information);
    QTest::newRow("3") << int(WwBaseEventType::Warning) << int(NotificationsAddV1::Warning);
    QTest::newRow("4") << int(WwBaseEventType::Alarm) << int(NotificationsAddV1::Other);
    QTest::newRow("5") << int(WwBaseEventType::Error) << int(NotificationsAddV1::Alarm);
    QTest::newRow("6") << 6 << int(NotificationsAddV1::Other);
    QTest::newRow("-1") << -1 << int(NotificationsAddV1::Other);
    QTest::newRow("1000") << 1000 << int(NotificationsAddV1::Other);
}

void tst_OpcUaToMMMapper::notificationLevel()
{
    QFETCH(int, category);
    QFETCH(int, level);
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(makeEvent("Overheat", "4711", category, { "U" })));
    QCOMPARE(typeNames(spy), QStringList { "NotificationsAddV1" });
    QCOMPARE(qvariant_cast<NotificationsAddV1>(spy.first().at(3)).level, level);
}

void tst_OpcUaToMMMapper::withdrawal_data()
{
    QTest::addColumn<QString>("message");
    QTest::addColumn<bool>("withdraws");
    QTest::newRow("{OFF}") << "{OFF}" << true;
    QTest::newRow("{OFF") << "{OFF" << true;
    QTest::newRow("{OFF} with text") << "{OFF} Spindle overheated" << true;
    QTest::newRow("{OFFline") << "{OFFline" << true;
    QTest::newRow("{off}") << "{off}" << false;
    QTest::newRow("{Off}") << "{Off}" << false;
    QTest::newRow("leading space") << " {OFF}" << false;
    QTest::newRow("inside") << "Spindle {OFF}" << false;
    QTest::newRow("{OF") << "{OF" << false;
    QTest::newRow("OFF") << "OFF" << false;
    QTest::newRow("empty") << "" << false;
    QTest::newRow("null") << QString() << false;
}

void tst_OpcUaToMMMapper::withdrawal()
{
    QFETCH(QString, message);
    QFETCH(bool, withdraws);
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(makeEvent(message, "4711", 3, { "Unit1" })));
    QCOMPARE(typeNames(spy), QStringList { withdraws ? "NotificationsRemoveV1" : "NotificationsAddV1" });
    QVERIFY(m_log.lines().isEmpty());
}

void tst_OpcUaToMMMapper::announcementFields()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    WwBaseEventType event = makeEvent("Overheat", "4711", 5, { "Unit1", "Spindle" });
    event.Text5 = "five";
    event.Text6 = "six";
    event.Text7 = "seven";
    mapper.processData(s_when, "machine 1", "source 1", QVariant::fromValue(event));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.first().at(0).toDateTime(), s_when);
    QCOMPARE(spy.first().at(1).toString(), QStringLiteral("machine 1"));
    QCOMPARE(spy.first().at(2).toString(), QStringLiteral("source 1"));
    const NotificationsAddV1 add = qvariant_cast<NotificationsAddV1>(spy.first().at(3));
    QCOMPARE(add.id, QStringLiteral("Unit1/Spindle/4711"));
    QCOMPARE(add.timestamp, s_when);
    QCOMPARE(add.flag, false);
    QCOMPARE(add.level, 3);
    QCOMPARE(add.message, QStringLiteral("Spindle overheated"));
    QCOMPARE(add.messageCode, QStringLiteral("4711"));
    QVERIFY(add.text7.isEmpty());
    QVERIFY(add.text8.isEmpty());
}

void tst_OpcUaToMMMapper::withdrawalFields()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(
        s_when, "machine 1", "source 1", QVariant::fromValue(makeEvent("{OFF}", "4711", 5, { "Unit1", "Spindle" })));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.first().at(0).toDateTime(), s_when);
    QCOMPARE(spy.first().at(1).toString(), QStringLiteral("machine 1"));
    QCOMPARE(spy.first().at(2).toString(), QStringLiteral("source 1"));
    const NotificationsRemoveV1 remove = qvariant_cast<NotificationsRemoveV1>(spy.first().at(3));
    QCOMPARE(remove.id, QStringLiteral("4711"));
    QCOMPARE(remove.timestamp, s_when);
}

void tst_OpcUaToMMMapper::notificationIdFromPath_data()
{
    QTest::addColumn<QStringList>("path");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("expected");
    QTest::newRow("two elements") << QStringList { "Unit1", "Spindle" } << "4711"
                                  << "Unit1/Spindle/4711";
    QTest::newRow("one element") << QStringList { "Unit1" } << "4711"
                                 << "Unit1/4711";
    QTest::newRow("empty path") << QStringList() << "4711"
                                << "/4711";
    QTest::newRow("empty element") << QStringList { "" } << "4711"
                                   << "/4711";
    QTest::newRow("empty id") << QStringList { "Unit1" } << ""
                              << "Unit1/";
    QTest::newRow("placeholders stay") << QStringList { "%2", "%1" } << "%1"
                                       << "%2/%1/%1";
}

void tst_OpcUaToMMMapper::notificationIdFromPath()
{
    QFETCH(QStringList, path);
    QFETCH(QString, id);
    QFETCH(QString, expected);
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(makeEvent("Overheat", id, 3, path)));
    const NotificationsAddV1 add = qvariant_cast<NotificationsAddV1>(onlyDataset(spy, "NotificationsAddV1"));
    QCOMPARE(add.id, expected);
    QCOMPARE(add.messageCode, id);
}

void tst_OpcUaToMMMapper::notificationText()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    WwBaseEventType event = makeEvent("Overheat", "1", 3, { "U" });

    // Whichever text the hash yields first, not a preferred language.
    event.Texts = { { "de", "Spindel zu heiss" }, { "en", "Spindle overheated" }, { "fr", "Broche surchauffee" },
        { "it", "Mandrino surriscaldato" } };
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(event));
    QCOMPARE(qvariant_cast<NotificationsAddV1>(spy.last().at(3)).message, event.Texts.constBegin().value());

    event.Texts.clear();
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(event));
    QVERIFY(qvariant_cast<NotificationsAddV1>(spy.last().at(3)).message.isEmpty());
    QCOMPARE(spy.count(), 2);
}

void tst_OpcUaToMMMapper::repeatedEventsRepeat()
{
    OpcUaToMMMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    const QVariant add = QVariant::fromValue(makeEvent("Overheat", "4711", 3, { "U" }));
    const QVariant remove = QVariant::fromValue(makeEvent("{OFF}", "4711", 3, { "U" }));
    mapper.processData(s_when, "m1", "s1", add);
    mapper.processData(s_when, "m1", "s1", add);
    mapper.processData(s_when, "m1", "s1", remove);
    mapper.processData(s_when, "m1", "s1", remove);
    QCOMPARE(typeNames(spy),
        (QStringList { "NotificationsAddV1", "NotificationsAddV1", "NotificationsRemoveV1", "NotificationsRemoveV1" }));
    QCOMPARE(qvariant_cast<NotificationsAddV1>(spy.at(0).at(3)), qvariant_cast<NotificationsAddV1>(spy.at(1).at(3)));
    QCOMPARE(
        qvariant_cast<NotificationsRemoveV1>(spy.at(2).at(3)), qvariant_cast<NotificationsRemoveV1>(spy.at(3).at(3)));
}
