#include "logcapture.h"
#include "settingstable.h"

#include <QLoggingCategory>
#include <QTest>

Q_LOGGING_CATEGORY(lcComponent, "component")

namespace {

struct Connection
{
    QString host;
    quint16 port = 0;
    bool tls = false;
};

struct Options : Connection
{
    QString name;
    QString word;
    QString file;
    QStringList topics;
    bool loop = false;
    int count = 0;
    qint64 interval = 0;
    double factor = 0;
    std::optional<quint64> seed;
};

const SettingsTable<Options> &table()
{
    static const SettingsTable<Options> keys {
        SettingKey::string("name", &Options::name, "sim", "A name."),
        SettingKey::trimmed("word", &Options::word, "w", "A word."),
        SettingKey::path("file", &Options::file, "/tmp/out", "A file."),
        SettingKey::list("topics", &Options::topics, "a,b", "Topics."),
        SettingKey::boolean("loop", &Options::loop, "false", "Whether to loop."),
        SettingKey::whole("count", &Options::count, "2", 1, 10, "How many."),
        SettingKey::duration("interval", &Options::interval, "1000", 1, 60000, "How often."),
        SettingKey::real("factor", &Options::factor, "1", 0, 100, "How much."),
        SettingKey::whole("seed", &Options::seed, "", 0, SettingKey::Unbounded, "Which seed.").emptyMeans("a new one"),
    };
    return keys;
}

const SettingsTable<Connection> &connectionTable()
{
    static const SettingsTable<Connection> keys {
        SettingKey::trimmed("host", &Connection::host, "localhost", "Host.").required(),
        SettingKey::whole("port", &Connection::port, "1883", 1, 65535, "Port.").strict(),
        SettingKey::boolean("tls", &Connection::tls, "false", "TLS.").strict(),
    };
    return keys;
}

struct Login
{
    std::optional<bool> anonymous;
};

const SettingsTable<Login> &loginTable()
{
    static const SettingsTable<Login> keys {
        SettingKey::boolean("anonymous", &Login::anonymous, "", "Anonymous.").strict(),
    };
    return keys;
}

} // namespace

class tst_SettingsTable : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void keysInTheTablesOrder();
    void missingKeysTakeTheDefaults();
    void writtenValuesFillTheirFields();
    void listFromQSettings();
    void invalidValuesWarnAndTakeTheDefault_data();
    void invalidValuesWarnAndTakeTheDefault();
    void optionalKeyLeftEmptyHasNoValue();
    void strictKeyNamesTheProblem_data();
    void strictKeyNamesTheProblem();
    void strictEmptyFlagIsTheDefault();
    void strictOptionalFlag();
    void requiredKeyMustBeWritten_data();
    void requiredKeyMustBeWritten();
    void baseRowsComeFirst();
    void rowOfABaseAmongTheOthers();

private:
    LogCapture m_log { QStringLiteral("component") };
};

void tst_SettingsTable::init()
{
    m_log.start();
}

void tst_SettingsTable::cleanup()
{
    m_log.stop();
}

void tst_SettingsTable::keysInTheTablesOrder()
{
    QStringList names;
    QStringList types;
    for (const SettingKey &key : table().keys()) {
        names << QString::fromLatin1(key.name);
        types << key.typeText();
    }
    QCOMPARE(names, (QStringList { "name", "word", "file", "topics", "loop", "count", "interval", "factor", "seed" }));
    QCOMPARE(types,
        (QStringList { "string", "string", "path", "list", "bool", "unsigned, 1 to 10", "duration (ms), 1 to 60000",
            "double, 0 to 100", "unsigned, 0 to 18446744073709551615" }));
}

void tst_SettingsTable::missingKeysTakeTheDefaults()
{
    Options options;
    options.seed = 5;
    QVERIFY(table().read(QVariantMap(), lcComponent(), &options));
    QCOMPARE(options.name, QStringLiteral("sim"));
    QCOMPARE(options.word, QStringLiteral("w"));
    QCOMPARE(options.file, QStringLiteral("/tmp/out"));
    QCOMPARE(options.topics, (QStringList { "a", "b" }));
    QCOMPARE(options.loop, false);
    QCOMPARE(options.count, 2);
    QCOMPARE(options.interval, qint64(1000));
    QCOMPARE(options.factor, 1.0);
    QVERIFY(!options.seed);
    QCOMPARE(m_log.lines(), QStringList());
}

void tst_SettingsTable::writtenValuesFillTheirFields()
{
    Options options;
    QVERIFY(table().read(
        QVariantMap { { "name", " press " }, { "word", " up " }, { "file", " /x " }, { "topics", "c" },
            { "loop", "Yes" }, { "count", "10" }, { "interval", "5" }, { "factor", "2.5" }, { "seed", " 7 " } },
        lcComponent(), &options));
    QCOMPARE(options.name, QStringLiteral(" press "));
    QCOMPARE(options.word, QStringLiteral("up"));
    QCOMPARE(options.file, QStringLiteral("/x"));
    QCOMPARE(options.topics, QStringList { "c" });
    QCOMPARE(options.loop, true);
    QCOMPARE(options.count, 10);
    QCOMPARE(options.interval, qint64(5));
    QCOMPARE(options.factor, 2.5);
    QCOMPARE(options.seed, std::optional<quint64>(7));
    QCOMPARE(m_log.lines(), QStringList());
}

void tst_SettingsTable::listFromQSettings()
{
    // QSettings hands an unquoted value with a comma over as a list.
    Options options;
    QVERIFY(table().read(QVariantMap { { "topics", QStringList { "x", " y" } }, { "name", QStringList { "a", "b" } } },
        lcComponent(), &options));
    QCOMPARE(options.topics, (QStringList { "x", "y" }));
    QCOMPARE(options.name, QStringLiteral("a,b"));
}

void tst_SettingsTable::invalidValuesWarnAndTakeTheDefault_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("message");
    QTest::newRow("bool") << "loop"
                          << "maybe"
                          << "Value maybe of loop is not valid, using false";
    QTest::newRow("empty bool") << "loop"
                                << " "
                                << "Value  of loop is not valid, using false";
    QTest::newRow("below") << "count"
                           << "0"
                           << "Value 0 of count is not valid, using 2";
    QTest::newRow("above") << "count"
                           << " 11 "
                           << "Value 11 of count is not valid, using 2";
    QTest::newRow("text") << "interval"
                          << "soon"
                          << "Value soon of interval is not valid, using 1000";
    QTest::newRow("double") << "factor"
                            << "-1"
                            << "Value -1 of factor is not valid, using 1";
    QTest::newRow("optional") << "seed"
                              << "-3"
                              << "Value -3 of seed is not valid, using a new one";
}

void tst_SettingsTable::invalidValuesWarnAndTakeTheDefault()
{
    QFETCH(QString, key);
    QFETCH(QString, value);
    QFETCH(QString, message);
    Options written;
    written.loop = true;
    written.count = 9;
    written.interval = 9;
    written.factor = 9;
    written.seed = 9;
    QVERIFY(table().read(QVariantMap { { key, value } }, lcComponent(), &written));
    Options defaults;
    QVERIFY(table().read(QVariantMap(), lcComponent(), &defaults));
    QCOMPARE(written.loop, defaults.loop);
    QCOMPARE(written.count, defaults.count);
    QCOMPARE(written.interval, defaults.interval);
    QCOMPARE(written.factor, defaults.factor);
    QCOMPARE(written.seed, defaults.seed);
    QCOMPARE(m_log.lines(), QStringList { m_log.warning(message) });
}

void tst_SettingsTable::optionalKeyLeftEmptyHasNoValue()
{
    Options options;
    options.seed = 5;
    QVERIFY(table().read(QVariantMap { { "seed", " " } }, lcComponent(), &options));
    QVERIFY(!options.seed);
    QCOMPARE(m_log.lines(), QStringList());
}

void tst_SettingsTable::strictKeyNamesTheProblem_data()
{
    QTest::addColumn<QVariantMap>("group");
    QTest::addColumn<QString>("error");
    QTest::newRow("below") << QVariantMap { { "port", " 0 " } }
                           << "port must be a whole number from 1 to 65535, not \"0\"";
    QTest::newRow("not a number") << QVariantMap { { "port", "x" } }
                                  << "port must be a whole number from 1 to 65535, not \"x\"";
    QTest::newRow("flag") << QVariantMap { { "tls", "maybe" } } << "tls must be true or false, not \"maybe\"";
    QTest::newRow("the first in the table's order") << QVariantMap { { "tls", "maybe" }, { "port", "0" } }
                                                    << "port must be a whole number from 1 to 65535, not \"0\"";
}

void tst_SettingsTable::strictKeyNamesTheProblem()
{
    QFETCH(QVariantMap, group);
    QFETCH(QString, error);
    group.insert("host", "broker");
    Connection connection;
    connection.tls = true;
    QString sentence;
    QVERIFY(!connectionTable().read(group, lcComponent(), &connection, &sentence));
    QCOMPARE(sentence, error);
    // Reading stops there: a key after the one that failed keeps its field.
    QCOMPARE(connection.tls, true);
    // A strict key reports; it doesn't warn.
    QCOMPARE(m_log.lines(), QStringList());
}

void tst_SettingsTable::strictEmptyFlagIsTheDefault()
{
    Connection connection;
    connection.tls = true;
    QString error;
    QVERIFY(connectionTable().read(
        QVariantMap { { "host", "broker" }, { "tls", " " } }, lcComponent(), &connection, &error));
    QCOMPARE(connection.tls, false);
    QCOMPARE(connection.port, quint16(1883));
    QCOMPARE(error, QString());
    QCOMPARE(m_log.lines(), QStringList());
}

void tst_SettingsTable::strictOptionalFlag()
{
    Login login;
    QString error;
    QVERIFY(loginTable().read(QVariantMap { { "anonymous", "" } }, lcComponent(), &login, &error));
    QVERIFY(!login.anonymous);
    QVERIFY(loginTable().read(QVariantMap { { "anonymous", "off" } }, lcComponent(), &login, &error));
    QCOMPARE(login.anonymous, std::optional<bool>(false));
    QVERIFY(!loginTable().read(QVariantMap { { "anonymous", "perhaps" } }, lcComponent(), &login, &error));
    QCOMPARE(error, QStringLiteral("anonymous must be true or false, not \"perhaps\""));
    QCOMPARE(m_log.lines(), QStringList());
}

void tst_SettingsTable::requiredKeyMustBeWritten_data()
{
    QTest::addColumn<QVariantMap>("group");
    QTest::addColumn<bool>("read");
    QTest::newRow("missing, though it has a default") << QVariantMap() << false;
    QTest::newRow("empty") << QVariantMap { { "host", "" } } << false;
    QTest::newRow("spaces only") << QVariantMap { { "host", "  " } } << false;
    QTest::newRow("written") << QVariantMap { { "host", " broker " } } << true;
}

void tst_SettingsTable::requiredKeyMustBeWritten()
{
    QFETCH(QVariantMap, group);
    QFETCH(bool, read);
    Connection connection;
    QString error;
    QCOMPARE(connectionTable().read(group, lcComponent(), &connection, &error), read);
    QCOMPARE(error, read ? QString() : QStringLiteral("it has no host"));
    QCOMPARE(connection.host, read ? QStringLiteral("broker") : QString());
}

void tst_SettingsTable::baseRowsComeFirst()
{
    const SettingsTable<Options> joined(connectionTable(),
        { SettingKey::whole("count", &Options::count, "2", 1, 10, "How many."),
            SettingKey::list("topics", &Options::topics, "a", "Topics.") });
    QStringList names;
    for (const SettingKey &key : joined.keys())
        names << QString::fromLatin1(key.name);
    QCOMPARE(names, (QStringList { "host", "port", "tls", "count", "topics" }));
    Options options;
    QString error;
    QVERIFY(joined.read(QVariantMap { { "host", "broker" }, { "port", "8883" }, { "tls", "true" }, { "count", "3" } },
        lcComponent(), &options, &error));
    QCOMPARE(options.host, QStringLiteral("broker"));
    QCOMPARE(options.port, quint16(8883));
    QCOMPARE(options.tls, true);
    QCOMPARE(options.count, 3);
    QCOMPARE(options.topics, QStringList { "a" });
}

void tst_SettingsTable::rowOfABaseAmongTheOthers()
{
    // &Options::host points into Connection, which Options derives from.
    const SettingsTable<Options> mixed {
        SettingKey::whole("count", &Options::count, "2", 1, 10, "How many."),
        SettingKey::trimmed("host", &Options::host, "localhost", "Host."),
    };
    Options options;
    QVERIFY(mixed.read(QVariantMap { { "host", " broker " } }, lcComponent(), &options));
    QCOMPARE(options.count, 2);
    QCOMPARE(options.host, QStringLiteral("broker"));
}

QTEST_GUILESS_MAIN(tst_SettingsTable)
#include "tst_settingstable.moc"
