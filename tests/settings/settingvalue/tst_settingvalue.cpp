#include "logcapture.h"
#include "settingvalue.h"

#include <QLoggingCategory>
#include <QTest>

Q_LOGGING_CATEGORY(lcCaller, "caller")

class tst_SettingValue : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void text_data();
    void text();
    void booleans_data();
    void booleans();
    void notBooleans_data();
    void notBooleans();
    void missingTakesDefault();
    void warnInvalid();

private:
    LogCapture m_log { QStringLiteral("caller") };
};

void tst_SettingValue::init()
{
    m_log.start();
}

void tst_SettingValue::cleanup()
{
    m_log.stop();
}

void tst_SettingValue::text_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("expected");
    QTest::newRow("text") << QVariant("a b") << "a b";
    QTest::newRow("list") << QVariant(QStringList { "a", " b" }) << "a, b";
    QTest::newRow("number") << QVariant(5) << "5";
    QTest::newRow("missing") << QVariant() << "";
}

void tst_SettingValue::text()
{
    QFETCH(QVariant, value);
    QFETCH(QString, expected);
    QCOMPARE(SettingValue::text(value), expected);
}

void tst_SettingValue::booleans_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<bool>("expected");
    for (const char *word : { "true", "TRUE", "True", "yes", "Yes", "on", "ON", "1", "  true ", "\tyes" })
        QTest::newRow(word) << QVariant(QString::fromLatin1(word)) << true;
    for (const char *word : { "false", "FALSE", "no", "No", "off", "Off", "0", " off  " })
        QTest::newRow(word) << QVariant(QString::fromLatin1(word)) << false;
    QTest::newRow("bool true") << QVariant(true) << true;
    QTest::newRow("bool false") << QVariant(false) << false;
    QTest::newRow("number 1") << QVariant(1) << true;
    QTest::newRow("number 0") << QVariant(0) << false;
}

void tst_SettingValue::booleans()
{
    QFETCH(QVariant, value);
    QFETCH(bool, expected);
    bool parsed = !expected;
    QVERIFY(SettingValue::parseBool(value, &parsed));
    QCOMPARE(parsed, expected);
    // Either default: a valid value wins over it, without a word in the log.
    QCOMPARE(SettingValue::toBool(value, "flag", true, lcCaller()), expected);
    QCOMPARE(SettingValue::toBool(value, "flag", false, lcCaller()), expected);
    QCOMPARE(m_log.lines(), QStringList());
}

void tst_SettingValue::notBooleans_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<bool>("defaultValue");
    QTest::addColumn<QString>("message");
    QTest::newRow("maybe") << QVariant("maybe") << false << "Value maybe of flag is not valid, using false";
    QTest::newRow("trimmed") << QVariant(" maybe ") << true << "Value maybe of flag is not valid, using true";
    QTest::newRow("empty") << QVariant("") << true << "Value  of flag is not valid, using true";
    QTest::newRow("two") << QVariant("2") << false << "Value 2 of flag is not valid, using false";
    QTest::newRow("y") << QVariant("y") << false << "Value y of flag is not valid, using false";
    QTest::newRow("truth") << QVariant("truth") << false << "Value truth of flag is not valid, using false";
    QTest::newRow("list") << QVariant(QStringList { "yes", "no" }) << true
                          << "Value yes,no of flag is not valid, using true";
}

void tst_SettingValue::notBooleans()
{
    QFETCH(QVariant, value);
    QFETCH(bool, defaultValue);
    QFETCH(QString, message);
    bool parsed = true;
    QVERIFY(!SettingValue::parseBool(value, &parsed));
    QCOMPARE(parsed, true);
    QCOMPARE(SettingValue::toBool(value, "flag", defaultValue, lcCaller()), defaultValue);
    QCOMPARE(m_log.lines(), QStringList { m_log.warning(message) });
}

void tst_SettingValue::missingTakesDefault()
{
    QCOMPARE(SettingValue::toBool(QVariant(), "flag", true, lcCaller()), true);
    QCOMPARE(SettingValue::toBool(QVariant(), "flag", false, lcCaller()), false);
    QCOMPARE(m_log.lines(), QStringList());
}

void tst_SettingValue::warnInvalid()
{
    SettingValue::warnInvalid(lcCaller(), QStringLiteral("soon"), "interval", QStringLiteral("0"));
    QCOMPARE(m_log.lines(), QStringList { m_log.warning("Value soon of interval is not valid, using 0") });
}

QTEST_GUILESS_MAIN(tst_SettingValue)
#include "tst_settingvalue.moc"
