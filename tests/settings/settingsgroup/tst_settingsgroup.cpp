#include "logcapture.h"
#include "settingsgroup.h"

#include <QLoggingCategory>
#include <QTest>

Q_LOGGING_CATEGORY(lcComponent, "component")

namespace {

const QVector<SettingKey> &table()
{
    static const QVector<SettingKey> keys {
        SettingKey::string("name", "sim", "A name."),
        SettingKey::path("file", "/tmp/out", "A file."),
        SettingKey::list("topics", "a,b", "Topics."),
        SettingKey::boolean("loop", "false", "Whether to loop."),
        SettingKey::whole("count", "2", 1, 10, "How many."),
        SettingKey::duration("interval", "1000", 1, 60000, "How often."),
        SettingKey::real("factor", "1", 0, 100, "How much."),
        SettingKey::whole("seed", "", 0, SettingKey::Unbounded, "Which seed."),
    };
    return keys;
}

} // namespace

class tst_SettingsGroup : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void missingKeysTakeTheDefaults();
    void writtenValuesWin();
    void listFromQSettings();
    void invalidValuesWarnAndTakeTheDefault_data();
    void invalidValuesWarnAndTakeTheDefault();
    void optionalNumber();
    void strictReadersNameTheProblem();
    void strictEmptyFlagIsTheDefault();

private:
    LogCapture m_log { QStringLiteral("component") };
};

void tst_SettingsGroup::init()
{
    m_log.start();
}

void tst_SettingsGroup::cleanup()
{
    m_log.stop();
}

void tst_SettingsGroup::missingKeysTakeTheDefaults()
{
    const SettingsGroup group(QVariantMap(), table(), lcComponent());
    QCOMPARE(group.text("name"), QStringLiteral("sim"));
    QCOMPARE(group.text("file"), QStringLiteral("/tmp/out"));
    QCOMPARE(group.list("topics"), (QStringList { "a", "b" }));
    QCOMPARE(group.flag("loop"), false);
    QCOMPARE(group.number("count"), quint64(2));
    QCOMPARE(group.number("interval"), quint64(1000));
    QCOMPARE(group.real("factor"), 1.0);
    QCOMPARE(group.rawText("seed"), QString());
    QCOMPARE(m_log.lines(), QStringList());
}

void tst_SettingsGroup::writtenValuesWin()
{
    const SettingsGroup group(QVariantMap { { "name", " press " }, { "file", " /x " }, { "topics", "c" },
                                  { "loop", "Yes" }, { "count", "10" }, { "interval", "5" }, { "factor", "2.5" } },
        table(), lcComponent());
    QCOMPARE(group.text("name"), QStringLiteral(" press "));
    QCOMPARE(group.text("file"), QStringLiteral("/x"));
    QCOMPARE(group.list("topics"), QStringList { "c" });
    QCOMPARE(group.flag("loop"), true);
    QCOMPARE(group.number("count"), quint64(10));
    QCOMPARE(group.number("interval"), quint64(5));
    QCOMPARE(group.real("factor"), 2.5);
    QCOMPARE(m_log.lines(), QStringList());
}

void tst_SettingsGroup::listFromQSettings()
{
    // QSettings hands an unquoted value with a comma over as a list.
    const SettingsGroup group(
        QVariantMap { { "topics", QStringList { "x", " y" } }, { "name", QStringList { "a", "b" } } }, table(),
        lcComponent());
    QCOMPARE(group.list("topics"), (QStringList { "x", "y" }));
    QCOMPARE(group.text("name"), QStringLiteral("a,b"));
}

void tst_SettingsGroup::invalidValuesWarnAndTakeTheDefault_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QVariant>("expected");
    QTest::addColumn<QString>("message");
    QTest::newRow("bool") << "loop"
                          << "maybe" << QVariant(false) << "Value maybe of loop is not valid, using false";
    QTest::newRow("below") << "count"
                           << "0" << QVariant(quint64(2)) << "Value 0 of count is not valid, using 2";
    QTest::newRow("above") << "count"
                           << " 11 " << QVariant(quint64(2)) << "Value 11 of count is not valid, using 2";
    QTest::newRow("text") << "interval"
                          << "soon" << QVariant(quint64(1000)) << "Value soon of interval is not valid, using 1000";
    QTest::newRow("double") << "factor"
                            << "-1" << QVariant(1.0) << "Value -1 of factor is not valid, using 1";
}

void tst_SettingsGroup::invalidValuesWarnAndTakeTheDefault()
{
    QFETCH(QString, key);
    QFETCH(QString, value);
    QFETCH(QVariant, expected);
    QFETCH(QString, message);
    const SettingsGroup group(QVariantMap { { key, value } }, table(), lcComponent());
    const QByteArray name = key.toLatin1();
    QVariant read;
    if (key == QLatin1String("loop"))
        read = group.flag(name.constData());
    else if (key == QLatin1String("factor"))
        read = group.real(name.constData());
    else
        read = group.number(name.constData());
    QCOMPARE(read, expected);
    QCOMPARE(m_log.lines(), QStringList { m_log.warning(message) });
}

void tst_SettingsGroup::optionalNumber()
{
    quint64 seed = 5;
    QVERIFY(!SettingsGroup(QVariantMap(), table(), lcComponent()).optionalNumber("seed", "a new one", &seed));
    QVERIFY(!SettingsGroup(QVariantMap { { "seed", " " } }, table(), lcComponent())
                 .optionalNumber("seed", "a new one", &seed));
    QCOMPARE(m_log.lines(), QStringList());
    QVERIFY(SettingsGroup(QVariantMap { { "seed", "7" } }, table(), lcComponent())
                .optionalNumber("seed", "a new one", &seed));
    QCOMPARE(seed, quint64(7));
    QVERIFY(!SettingsGroup(QVariantMap { { "seed", "-3" } }, table(), lcComponent())
                 .optionalNumber("seed", "a new one", &seed));
    QCOMPARE(seed, quint64(7));
    QCOMPARE(m_log.lines(), QStringList { m_log.warning("Value -3 of seed is not valid, using a new one") });
}

void tst_SettingsGroup::strictReadersNameTheProblem()
{
    const SettingsGroup group(QVariantMap { { "loop", "maybe" }, { "count", " 0 " } }, table(), lcComponent());
    bool flag = true;
    quint64 number = 9;
    QString error;
    QVERIFY(!group.flag("loop", &flag, &error));
    QCOMPARE(error, QStringLiteral("loop must be true or false, not \"maybe\""));
    QVERIFY(!group.number("count", &number, &error));
    QCOMPARE(error, QStringLiteral("count must be a whole number from 1 to 10, not \"0\""));
    QCOMPARE(flag, true);
    QCOMPARE(number, quint64(9));
    QVERIFY(group.number("interval", &number, &error));
    QCOMPARE(number, quint64(1000));
    // The strict readers report; they don't warn.
    QCOMPARE(m_log.lines(), QStringList());
}

void tst_SettingsGroup::strictEmptyFlagIsTheDefault()
{
    const SettingsGroup group(QVariantMap { { "loop", " " } }, table(), lcComponent());
    bool flag = true;
    QString error;
    QVERIFY(group.flag("loop", &flag, &error));
    QCOMPARE(flag, false);
    QCOMPARE(error, QString());
    QCOMPARE(m_log.lines(), QStringList());
}

QTEST_GUILESS_MAIN(tst_SettingsGroup)
#include "tst_settingsgroup.moc"
