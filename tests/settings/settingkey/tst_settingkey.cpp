#include "settingkey.h"

#include <QTest>

Q_DECLARE_METATYPE(SettingKey)

namespace {

struct Fields
{
    QString text;
    QStringList list;
    bool flag = false;
    quint64 number = 0;
    double real = 0;
};

} // namespace

class tst_SettingKey : public QObject
{
    Q_OBJECT

private slots:
    void parses_data();
    void parses();
    void rejects_data();
    void rejects();
    void describesItself_data();
    void describesItself();
};

void tst_SettingKey::parses_data()
{
    QTest::addColumn<SettingKey>("key");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QVariant>("expected");
    const SettingKey count = SettingKey::whole("count", &Fields::number, "1", 1, 10, "").key;
    QTest::newRow("string as written") << SettingKey::string("s", &Fields::text, "", "").key << " a b "
                                       << QVariant(" a b ");
    QTest::newRow("trimmed") << SettingKey::trimmed("t", &Fields::text, "", "").key << " a b " << QVariant("a b");
    QTest::newRow("path trimmed") << SettingKey::path("p", &Fields::text, "", "").key << " /tmp/x "
                                  << QVariant("/tmp/x");
    QTest::newRow("list") << SettingKey::list("l", &Fields::list, "", "").key << " a, ,b ,c"
                          << QVariant(QStringList { "a", "b", "c" });
    QTest::newRow("empty list") << SettingKey::list("l", &Fields::list, "", "").key << "" << QVariant(QStringList());
    QTest::newRow("bool") << SettingKey::boolean("b", &Fields::flag, "false", "").key << " On " << QVariant(true);
    QTest::newRow("lowest") << count << "1" << QVariant(quint64(1));
    QTest::newRow("highest, spaces") << count << " 10 " << QVariant(quint64(10));
    QTest::newRow("largest unsigned") << SettingKey::whole("u", &Fields::number, "0", 0, SettingKey::Unbounded, "").key
                                      << "18446744073709551615" << QVariant(quint64(18446744073709551615ull));
    QTest::newRow("duration") << SettingKey::duration("d", &Fields::number, "0", 0, 1000, "").key << "250"
                              << QVariant(quint64(250));
    QTest::newRow("double") << SettingKey::real("r", &Fields::real, "0", 0, 2, "").key << "1.5" << QVariant(1.5);
}

void tst_SettingKey::parses()
{
    QFETCH(SettingKey, key);
    QFETCH(QString, text);
    QFETCH(QVariant, expected);
    QVariant value;
    QVERIFY(key.parse(text, &value));
    QCOMPARE(value, expected);
}

void tst_SettingKey::rejects_data()
{
    QTest::addColumn<SettingKey>("key");
    QTest::addColumn<QString>("text");
    const SettingKey count = SettingKey::whole("count", &Fields::number, "1", 1, 10, "").key;
    QTest::newRow("below") << count << "0";
    QTest::newRow("above") << count << "11";
    QTest::newRow("negative") << count << "-1";
    QTest::newRow("text") << count << "soon";
    QTest::newRow("empty number") << count << "";
    QTest::newRow("fraction") << count << "1.5";
    QTest::newRow("too large") << SettingKey::whole("u", &Fields::number, "0", 0, SettingKey::Unbounded, "").key
                               << "18446744073709551616";
    QTest::newRow("duration above") << SettingKey::duration("d", &Fields::number, "0", 0, 1000, "").key << "1001";
    QTest::newRow("double above") << SettingKey::real("r", &Fields::real, "0", 0, 2, "").key << "2.5";
    QTest::newRow("double not finite") << SettingKey::real("r", &Fields::real, "0", 0, 2, "").key << "nan";
    QTest::newRow("bool") << SettingKey::boolean("b", &Fields::flag, "false", "").key << "maybe";
    QTest::newRow("empty bool") << SettingKey::boolean("b", &Fields::flag, "false", "").key << "";
}

void tst_SettingKey::rejects()
{
    QFETCH(SettingKey, key);
    QFETCH(QString, text);
    QVariant value(42);
    QVERIFY(!key.parse(text, &value));
    QCOMPARE(value, QVariant(42));
}

void tst_SettingKey::describesItself_data()
{
    QTest::addColumn<SettingKey>("key");
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("requirement");
    QTest::newRow("string") << SettingKey::string("s", &Fields::text, "", "").key << "string"
                            << "text";
    QTest::newRow("trimmed") << SettingKey::trimmed("t", &Fields::text, "", "").key << "string"
                             << "text";
    QTest::newRow("path") << SettingKey::path("p", &Fields::text, "", "").key << "path"
                          << "text";
    QTest::newRow("list") << SettingKey::list("l", &Fields::list, "", "").key << "list"
                          << "text";
    QTest::newRow("bool") << SettingKey::boolean("b", &Fields::flag, "false", "").key << "bool"
                          << "true or false";
    QTest::newRow("unsigned") << SettingKey::whole("u", &Fields::number, "1", 1, 65535, "").key
                              << "unsigned, 1 to 65535"
                              << "a whole number from 1 to 65535";
    QTest::newRow("duration") << SettingKey::duration("d", &Fields::number, "0", 0, 10, "").key
                              << "duration (ms), 0 to 10"
                              << "a whole number of milliseconds from 0 to 10";
    QTest::newRow("double") << SettingKey::real("r", &Fields::real, "0", 0, 2, "").key << "double, 0 to 2"
                            << "a number from 0 to 2";
}

void tst_SettingKey::describesItself()
{
    QFETCH(SettingKey, key);
    QFETCH(QString, type);
    QFETCH(QString, requirement);
    QCOMPARE(key.typeText(), type);
    QCOMPARE(key.requirement(), requirement);
}

QTEST_GUILESS_MAIN(tst_SettingKey)
#include "tst_settingkey.moc"
