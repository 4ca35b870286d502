#include "core.h"
#include "logcapture.h"
#include "mmdatasets.h"
#include "testsupport.h"
#include "xmloverwrite.h"
#include "xmloverwritelogging.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

using namespace TestSupport;

namespace {

const QDateTime When = QDateTime(QDate(2024, 5, 6), QTime(7, 8, 9), Qt::UTC);

const QString Category = QStringLiteral("xmlOverwrite");

QString debugLine(const QString &text)
{
    return LogCapture::line("DEBUG", Category, text);
}

QString warningLine(const QString &text)
{
    return LogCapture::line("WARNING", Category, text);
}

MaintenanceDefinitionV1 definition(const QString &id, const QString &comment = QStringLiteral("own"))
{
    MaintenanceDefinitionV1 item;
    item.id = id;
    item.timestamp = When.addSecs(60);
    item.text3 = QStringLiteral("text3");
    item.unitText = QStringLiteral("HOURS");
    item.unitCode = QStringLiteral("HUR");
    item.unitKey = QStringLiteral("key");
    item.value7 = 7;
    item.value8 = 8;
    item.flag12 = true;
    item.text16 = QStringLiteral("text16");
    item.comment = comment;
    item.text19 = QStringLiteral("text19");
    return item;
}

QVariant definitions(const QList<MaintenanceDefinitionV1> &items)
{
    MaintenanceDefinitionsV1 record;
    record.timestamp = When;
    record.items = items;
    return QVariant::fromValue(record);
}

QVariantMap xmlConfig(const QVariantMap &machines)
{
    return QVariantMap { { "xmlOverwrite", machines } };
}

QVariantMap machineFile(const QString &path)
{
    return QVariantMap { { "xml", path } };
}

/** The data the processor emits for one dataset of the machine; an invalid variant unless exactly one came out. */
QVariant processed(XmlOverwrite &overwrite, const QString &machine, const QVariant &data)
{
    QSignalSpy spy(&overwrite, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    overwrite.processData(When, machine, QStringLiteral("src"), data);
    if (spy.count() != 1)
        return QVariant();
    return spy.first().at(3);
}

QStringList commentsOf(const QVariant &data)
{
    QStringList comments;
    const MaintenanceDefinitionsV1 record = qvariant_cast<MaintenanceDefinitionsV1>(data);
    for (const MaintenanceDefinitionV1 &item : record.items)
        comments.append(item.comment);
    return comments;
}

} // namespace

class tst_XmlOverwrite : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void identity();
    void parsing_data();
    void parsing();
    void missingIdLineIsTheReadersLine();
    void configurationMessages_data();
    void configurationMessages();
    void noDebugMessagesWhenFiltered();
    void relativePathFromWorkingDirectory();
    void rewritesOnlyMaintenanceDefinitionLists();
    void passedDatasetsKeepTimestampMachineAndSource();
    void emptyCommentIsEmptyText();
    void readsAFileItMayNotWrite();
    void secondInitStartsAfresh();
    void readsFileNamedInIniFile();

private:
    QString filePath(const QString &name) const { return m_dir->filePath(name); }
    QString writeXml(const QString &name, const QByteArray &content)
    {
        const QString path = filePath(name);
        if (!writeFile(path, content))
            return QString();
        return path;
    }

    QScopedPointer<QTemporaryDir> m_dir;
    LogCapture m_log { Category };
};

void tst_XmlOverwrite::init()
{
    m_dir.reset(new QTemporaryDir);
    QVERIFY(m_dir->isValid());
    m_log.start(QStringLiteral("xmlOverwrite.debug=true"));
}

void tst_XmlOverwrite::cleanup()
{
    m_log.stop();
}

void tst_XmlOverwrite::identity()
{
    XmlOverwrite overwrite;
    QVariantMap shared;
    QVERIFY(overwrite.init(QVariantMap(), shared));
    QVERIFY(overwrite.init(xmlConfig(QVariantMap()), shared));
    QVERIFY(shared.isEmpty());
    QCOMPARE(overwrite.name(), QStringLiteral("Xml Overwrite"));
    QCOMPARE(overwrite.orderNumber(), 600u);
    QVERIFY(overwrite.qt_metacast("IProcessor"));
    QCOMPARE(QByteArray(lcXmlOverwrite().categoryName()), QByteArray("xmlOverwrite"));
    QVERIFY(m_log.ofComponent().isEmpty());
}

void tst_XmlOverwrite::parsing_data()
{
    QTest::addColumn<QByteArray>("xml");
    QTest::addColumn<QStringList>("ids");
    QTest::addColumn<QStringList>("comments");
    // Lines after the "Parsing xmloverwrite" one.
    QTest::addColumn<QStringList>("messages");

    QTest::newRow("one component") << QByteArray("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                                 "<MaintenanceComponents>\n"
                                                 "  <MaintenanceComponent ID=\"42\">\n"
                                                 "    <Comment>Check the belt tension</Comment>\n"
                                                 "  </MaintenanceComponent>\n"
                                                 "</MaintenanceComponents>\n")
                                   << QStringList { "42", "43" } << QStringList { "Check the belt tension", "own" }
                                   << QStringList { debugLine("Overwrite comment for Maintenance 42") };
    QTest::newRow("several components in list order")
        << QByteArray("<MaintenanceComponents>"
                      "<MaintenanceComponent ID=\"b\"><Comment>second</Comment></MaintenanceComponent>"
                      "<MaintenanceComponent ID=\"a\"><Comment>first</Comment></MaintenanceComponent>"
                      "</MaintenanceComponents>")
        << QStringList { "a", "x", "b" } << QStringList { "first", "own", "second" }
        << QStringList { debugLine("Overwrite comment for Maintenance b"),
               debugLine("Overwrite comment for Maintenance a") };
    QTest::newRow("root without the final s gives nothing")
        << QByteArray("<MaintenanceComponent ID=\"42\"><Comment>text</Comment></MaintenanceComponent>")
        << QStringList { "42" } << QStringList { "own" } << QStringList();
    QTest::newRow("other root gives nothing")
        << QByteArray("<Components><MaintenanceComponents><MaintenanceComponent ID=\"42\"><Comment>text</Comment>"
                      "</MaintenanceComponent></MaintenanceComponents></Components>")
        << QStringList { "42" } << QStringList { "own" } << QStringList();
    QTest::newRow("root name is case-sensitive")
        << QByteArray("<maintenanceComponents><MaintenanceComponent ID=\"42\"><Comment>text</Comment>"
                      "</MaintenanceComponent></maintenanceComponents>")
        << QStringList { "42" } << QStringList { "own" } << QStringList();
    QTest::newRow("later component with the same ID wins")
        << QByteArray("<MaintenanceComponents>"
                      "<MaintenanceComponent ID=\"42\"><Comment>early</Comment></MaintenanceComponent>"
                      "<MaintenanceComponent ID=\"42\"><Comment>late</Comment></MaintenanceComponent>"
                      "</MaintenanceComponents>")
        << QStringList { "42" } << QStringList { "late" }
        << QStringList { debugLine("Overwrite comment for Maintenance 42"),
               debugLine("Overwrite comment for Maintenance 42") };
    QTest::newRow("later comment of one component wins")
        << QByteArray("<MaintenanceComponents><MaintenanceComponent ID=\"42\">"
                      "<Comment>early</Comment><Comment>late</Comment>"
                      "</MaintenanceComponent></MaintenanceComponents>")
        << QStringList { "42" } << QStringList { "late" }
        << QStringList { debugLine("Overwrite comment for Maintenance 42"),
               debugLine("Overwrite comment for Maintenance 42") };
    QTest::newRow("missing ID is warned with its line, the next components are read")
        << QByteArray("<?xml version=\"1.0\"?>\n"
                      "<MaintenanceComponents>\n"
                      "  <MaintenanceComponent>\n"
                      "    <Comment>lost</Comment>\n"
                      "  </MaintenanceComponent>\n"
                      "  <MaintenanceComponent ID=\"7\">\n"
                      "    <Comment>seven</Comment>\n"
                      "  </MaintenanceComponent>\n"
                      "</MaintenanceComponents>\n")
        << QStringList { "", "7" } << QStringList { "own", "seven" }
        << QStringList { warningLine("ID missing at Line 3."), debugLine("Overwrite comment for Maintenance 7") };
    QTest::newRow("attribute names are case-sensitive")
        << QByteArray("<MaintenanceComponents>\n<MaintenanceComponent id=\"5\"><Comment>five</Comment>"
                      "</MaintenanceComponent>\n</MaintenanceComponents>")
        << QStringList { "5" } << QStringList { "own" } << QStringList { warningLine("ID missing at Line 2.") };
    QTest::newRow("empty ID is accepted")
        << QByteArray("<MaintenanceComponents><MaintenanceComponent ID=\"\"><Comment>no id</Comment>"
                      "</MaintenanceComponent></MaintenanceComponents>")
        << QStringList { "", "x" } << QStringList { "no id", "own" }
        << QStringList { debugLine("Overwrite comment for Maintenance ") };
    QTest::newRow("IDs are compared exactly")
        << QByteArray("<MaintenanceComponents><MaintenanceComponent ID=\"abc\"><Comment>lower</Comment>"
                      "</MaintenanceComponent></MaintenanceComponents>")
        << QStringList { "ABC", "abc", "abc " } << QStringList { "own", "lower", "own" }
        << QStringList { debugLine("Overwrite comment for Maintenance abc") };
    QTest::newRow("empty comments") << QByteArray(
        "<MaintenanceComponents>"
        "<MaintenanceComponent ID=\"1\"><Comment/></MaintenanceComponent>"
        "<MaintenanceComponent ID=\"2\"><Comment></Comment></MaintenanceComponent>"
        "</MaintenanceComponents>") << QStringList { "1", "2" }
                                    << QStringList { "", "" }
                                    << QStringList { debugLine("Overwrite comment for Maintenance 1"),
                                           debugLine("Overwrite comment for Maintenance 2") };
    QTest::newRow("component without comment changes nothing")
        << QByteArray("<MaintenanceComponents><MaintenanceComponent ID=\"1\"/>"
                      "<MaintenanceComponent ID=\"2\"><Name>two</Name></MaintenanceComponent>"
                      "</MaintenanceComponents>")
        << QStringList { "1", "2" } << QStringList { "own", "own" } << QStringList();
    QTest::newRow("other elements are passed over")
        << QByteArray("<MaintenanceComponents>"
                      "<Info><MaintenanceInfo>x</MaintenanceInfo></Info>"
                      "<Comment>outside any component</Comment>"
                      "<MaintenanceComponent ID=\"1\"><Name>one</Name><Comment>first</Comment><Unit>h</Unit>"
                      "</MaintenanceComponent>"
                      "<Info/>"
                      "<MaintenanceComponent ID=\"2\"><Comment>second</Comment></MaintenanceComponent>"
                      "</MaintenanceComponents>")
        << QStringList { "1", "2" } << QStringList { "first", "second" }
        << QStringList { debugLine("Overwrite comment for Maintenance 1"),
               debugLine("Overwrite comment for Maintenance 2") };
    QTest::newRow("comment inside a nested element")
        << QByteArray("<MaintenanceComponents>"
                      "<MaintenanceComponent ID=\"7\"><Details><Text><Comment>nested</Comment></Text></Details>"
                      "</MaintenanceComponent>"
                      "<MaintenanceComponent ID=\"8\"><Comment>after</Comment></MaintenanceComponent>"
                      "</MaintenanceComponents>")
        << QStringList { "7", "8" } << QStringList { "nested", "after" }
        << QStringList { debugLine("Overwrite comment for Maintenance 7"),
               debugLine("Overwrite comment for Maintenance 8") };
    // Files written on Windows: their line ends read as one line feed each.
    QTest::newRow("CR LF line ends") << QByteArray(
        "<MaintenanceComponents>\r\n<MaintenanceComponent ID=\"1\">\r\n"
        "<Comment>Check the belt\r\nonce a week</Comment>\r\n</MaintenanceComponent>\r\n"
        "</MaintenanceComponents>\r\n")
                                     << QStringList { "1" } << QStringList { "Check the belt\nonce a week" }
                                     << QStringList { debugLine("Overwrite comment for Maintenance 1") };
    QTest::newRow("text is kept as written, entities resolved")
        << QByteArray("<MaintenanceComponents><MaintenanceComponent ID=\"1\">"
                      "<Comment>  Belt &amp; chain &lt;both&gt;  </Comment></MaintenanceComponent>"
                      "<MaintenanceComponent ID=\"2\"><Comment><![CDATA[a < b]]></Comment></MaintenanceComponent>"
                      "</MaintenanceComponents>")
        << QStringList { "1", "2" } << QStringList { "  Belt & chain <both>  ", "a < b" }
        << QStringList { debugLine("Overwrite comment for Maintenance 1"),
               debugLine("Overwrite comment for Maintenance 2") };
    QTest::newRow("UTF-8 text") << QByteArray(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?><MaintenanceComponents>"
        "<MaintenanceComponent ID=\"\xc3\x96l\"><Comment>\xc3\x96l wechseln</Comment>"
        "</MaintenanceComponent></MaintenanceComponents>")
                                << QStringList { QString::fromUtf8("\xc3\x96l") }
                                << QStringList { QString::fromUtf8("\xc3\x96l wechseln") }
                                << QStringList { debugLine(
                                       QString::fromUtf8("Overwrite comment for Maintenance \xc3\x96l")) };
    QTest::newRow("XML error ends reading and keeps what was read")
        << QByteArray("<MaintenanceComponents>"
                      "<MaintenanceComponent ID=\"1\"><Comment>one</Comment></MaintenanceComponent>"
                      "<MaintenanceComponent ID=\"2\"><Comment>two</Comment></Wrong>"
                      "<MaintenanceComponent ID=\"3\"><Comment>three</Comment></MaintenanceComponent>"
                      "</MaintenanceComponents>")
        << QStringList { "1", "2", "3" } << QStringList { "one", "two", "own" }
        << QStringList { debugLine("Overwrite comment for Maintenance 1"),
               debugLine("Overwrite comment for Maintenance 2") };
    QTest::newRow("error between components")
        << QByteArray("<MaintenanceComponents>"
                      "<MaintenanceComponent ID=\"1\"><Comment>one</Comment></MaintenanceComponent>"
                      "<MaintenanceComponent ID=\"2\" ID=\"3\"><Comment>two</Comment></MaintenanceComponent>"
                      "</MaintenanceComponents>")
        << QStringList { "1", "2", "3" } << QStringList { "one", "own", "own" }
        << QStringList { debugLine("Overwrite comment for Maintenance 1") };
    QTest::newRow("file cut off inside a comment keeps the earlier ones only")
        << QByteArray("<MaintenanceComponents>"
                      "<MaintenanceComponent ID=\"1\"><Comment>one</Comment></MaintenanceComponent>"
                      "<MaintenanceComponent ID=\"2\"><Comment>half a sent")
        << QStringList { "1", "2" } << QStringList { "one", "own" }
        << QStringList { debugLine("Overwrite comment for Maintenance 1"),
               debugLine("Overwrite comment for Maintenance 2") };
    QTest::newRow("file cut off after a component")
        << QByteArray("<MaintenanceComponents>"
                      "<MaintenanceComponent ID=\"1\"><Comment>one</Comment></MaintenanceComponent>")
        << QStringList { "1" } << QStringList { "one" }
        << QStringList { debugLine("Overwrite comment for Maintenance 1") };
    QTest::newRow("empty file") << QByteArray() << QStringList { "1" } << QStringList { "own" } << QStringList();
    QTest::newRow("no XML") << QByteArray("ID=1 Comment=text\n") << QStringList { "1" } << QStringList { "own" }
                            << QStringList();
}

void tst_XmlOverwrite::parsing()
{
    QFETCH(QByteArray, xml);
    QFETCH(QStringList, ids);
    QFETCH(QStringList, comments);
    QFETCH(QStringList, messages);

    const QString path = writeXml(QStringLiteral("m1.xml"), xml);
    QVERIFY(!path.isEmpty());
    XmlOverwrite overwrite;
    QVariantMap shared;
    QVERIFY(overwrite.init(xmlConfig({ { "m1", machineFile(path) } }), shared));
    QCOMPARE(m_log.ofComponent(),
        QStringList { debugLine(QStringLiteral("Parsing xmloverwrite %1 for machine m1").arg(path)) } + messages);

    QList<MaintenanceDefinitionV1> items;
    for (const QString &id : qAsConst(ids))
        items.append(definition(id));
    QCOMPARE(commentsOf(processed(overwrite, "m1", definitions(items))), comments);
    QCOMPARE(m_log.ofComponent().size(), messages.size() + 1);
}

void tst_XmlOverwrite::missingIdLineIsTheReadersLine()
{
    // The reader stands at the end of the start tag, so a tag over two lines is reported with its last line.
    const QString path = writeXml(QStringLiteral("m1.xml"),
        "<MaintenanceComponents>\n"
        "\n"
        "<MaintenanceComponent\n"
        "   name=\"x\"><Comment>x</Comment></MaintenanceComponent>\n"
        "<MaintenanceComponent/>\n"
        "</MaintenanceComponents>\n");
    XmlOverwrite overwrite;
    QVariantMap shared;
    overwrite.init(xmlConfig({ { "m1", machineFile(path) } }), shared);
    QCOMPARE(m_log.ofComponent().mid(1),
        (QStringList { warningLine("ID missing at Line 4."), warningLine("ID missing at Line 5.") }));
}

void tst_XmlOverwrite::configurationMessages_data()
{
    QTest::addColumn<QVariantMap>("machines");
    QTest::addColumn<QStringList>("messages");

    QTest::newRow("xml key missing") << QVariantMap { { "m2", QVariantMap { { "file", "x.xml" } } } }
                                     << QStringList { warningLine("xml parameter is missing for machine m2") };
    QTest::newRow("xml key empty") << QVariantMap { { "m2", machineFile("") } }
                                   << QStringList { warningLine("xml parameter is missing for machine m2") };
    QTest::newRow("machine key without sub-keys")
        << QVariantMap { { "m2", "m2.xml" } } << QStringList { warningLine("xml parameter is missing for machine m2") };
    QTest::newRow("file missing") << QVariantMap { { "m3", machineFile("/nonexistent/orvix/m3.xml") } }
                                  << QStringList { debugLine(
                                                       "Parsing xmloverwrite /nonexistent/orvix/m3.xml for machine m3"),
                                         warningLine("Couldn't open file /nonexistent/orvix/m3.xml") };
    QTest::newRow("machines in key order") << QVariantMap { { "m3", machineFile("/nonexistent/c.xml") },
        { "m1", machineFile("") }, { "m2", machineFile("/nonexistent/b.xml") } }
                                           << QStringList { warningLine("xml parameter is missing for machine m1"),
                                                  debugLine("Parsing xmloverwrite /nonexistent/b.xml for machine m2"),
                                                  warningLine("Couldn't open file /nonexistent/b.xml"),
                                                  debugLine("Parsing xmloverwrite /nonexistent/c.xml for machine m3"),
                                                  warningLine("Couldn't open file /nonexistent/c.xml") };
}

void tst_XmlOverwrite::configurationMessages()
{
    QFETCH(QVariantMap, machines);
    QFETCH(QStringList, messages);

    XmlOverwrite overwrite;
    QVariantMap shared;
    QVERIFY(overwrite.init(xmlConfig(machines), shared));
    QCOMPARE(m_log.ofComponent(), messages);

    const QVariant data = definitions({ definition("42") });
    for (const QString &machine : machines.keys())
        QCOMPARE(commentsOf(processed(overwrite, machine, data)), QStringList { "own" });
}

void tst_XmlOverwrite::noDebugMessagesWhenFiltered()
{
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false"));
    const QString path = writeXml(QStringLiteral("m1.xml"),
        "<MaintenanceComponents><MaintenanceComponent><Comment>x</Comment>"
        "</MaintenanceComponent><MaintenanceComponent ID=\"1\"><Comment>one</Comment>"
        "</MaintenanceComponent></MaintenanceComponents>");
    XmlOverwrite overwrite;
    QVariantMap shared;
    overwrite.init(xmlConfig({ { "m1", machineFile(path) }, { "m2", QVariantMap() } }), shared);
    QCOMPARE(m_log.ofComponent(),
        (QStringList { warningLine("ID missing at Line 1."), warningLine("xml parameter is missing for machine m2") }));
    QCOMPARE(commentsOf(processed(overwrite, "m1", definitions({ definition("1") }))), QStringList { "one" });
}

void tst_XmlOverwrite::relativePathFromWorkingDirectory()
{
    writeXml(QStringLiteral("sub/m1.xml"),
        "<MaintenanceComponents><MaintenanceComponent ID=\"1\"><Comment>one</Comment>"
        "</MaintenanceComponent></MaintenanceComponents>");
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(m_dir->path()));
    XmlOverwrite overwrite;
    QVariantMap shared;
    overwrite.init(xmlConfig({ { "m1", machineFile("sub/m1.xml") } }), shared);
    QDir::setCurrent(previous);
    QCOMPARE(commentsOf(processed(overwrite, "m1", definitions({ definition("1") }))), QStringList { "one" });
}

void tst_XmlOverwrite::rewritesOnlyMaintenanceDefinitionLists()
{
    const QString path = writeXml(QStringLiteral("m1.xml"),
        "<MaintenanceComponents><MaintenanceComponent ID=\"42\"><Comment>Belt</Comment>"
        "</MaintenanceComponent></MaintenanceComponents>");
    XmlOverwrite overwrite;
    QVariantMap shared;
    overwrite.init(xmlConfig({ { "m1", machineFile(path) } }), shared);

    // Only the comment of the item with an entry changes; every other field and item stays as it came.
    QSignalSpy spy(&overwrite, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    overwrite.processData(When.addDays(1), "m1", "source 1", definitions({ definition("41"), definition("42") }));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.first().at(0).toDateTime(), When.addDays(1));
    QCOMPARE(spy.first().at(1).toString(), QStringLiteral("m1"));
    QCOMPARE(spy.first().at(2).toString(), QStringLiteral("source 1"));
    QCOMPARE(QByteArray(spy.first().at(3).typeName()), QByteArray("MaintenanceDefinitionsV1"));
    MaintenanceDefinitionsV1 expected;
    expected.timestamp = When;
    expected.items = { definition("41"), definition("42", "Belt") };
    QCOMPARE(qvariant_cast<MaintenanceDefinitionsV1>(spy.first().at(3)), expected);

    const QVariant single = QVariant::fromValue(definition("42"));
    QCOMPARE(qvariant_cast<MaintenanceDefinitionV1>(processed(overwrite, "m1", single)), definition("42"));

    const QVariant otherMachine = definitions({ definition("42") });
    QCOMPARE(commentsOf(processed(overwrite, "m2", otherMachine)), QStringList { "own" });

    MaintenanceDatasV1 datas;
    MaintenanceDataV1 data;
    data.id = QStringLiteral("42");
    data.value2 = 1;
    data.value3 = 2;
    datas.items = { data };
    QCOMPARE(qvariant_cast<MaintenanceDatasV1>(processed(overwrite, "m1", QVariant::fromValue(datas))), datas);
    QCOMPARE(qvariant_cast<StateV1>(processed(overwrite, "m1", QVariant::fromValue(StateV1 { 4 }))), StateV1 { 4 });
    QCOMPARE(processed(overwrite, "m1", QVariant(QStringLiteral("42"))), QVariant(QStringLiteral("42")));

    const QVariant empty = definitions({});
    QCOMPARE(qvariant_cast<MaintenanceDefinitionsV1>(processed(overwrite, "m1", empty)).items.size(), 0);
}

void tst_XmlOverwrite::passedDatasetsKeepTimestampMachineAndSource()
{
    const QString path = writeXml(QStringLiteral("m1.xml"),
        "<MaintenanceComponents><MaintenanceComponent ID=\"42\"><Comment>Belt</Comment>"
        "</MaintenanceComponent></MaintenanceComponents>");
    XmlOverwrite overwrite;
    QVariantMap shared;
    overwrite.init(xmlConfig({ { "m1", machineFile(path) } }), shared);

    QSignalSpy spy(&overwrite, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    overwrite.processData(When.addDays(1), "m1", "source 1", QVariant::fromValue(StateV1 { 4 }));
    overwrite.processData(When.addDays(2), "m2", "source 2", definitions({ definition("42") }));
    overwrite.processData(When.addDays(3), "m1", "source 3", definitions({ definition("41") }));

    QCOMPARE(spy.count(), 3);
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(spy.at(i).at(0).toDateTime(), When.addDays(i + 1));
        QCOMPARE(spy.at(i).at(1).toString(), i == 1 ? QStringLiteral("m2") : QStringLiteral("m1"));
        QCOMPARE(spy.at(i).at(2).toString(), QStringLiteral("source %1").arg(i + 1));
    }
    QCOMPARE(qvariant_cast<StateV1>(spy.at(0).at(3)), StateV1 { 4 });
    QCOMPARE(commentsOf(spy.at(1).at(3)), QStringList { "own" });
    QCOMPARE(commentsOf(spy.at(2).at(3)), QStringList { "own" });
}

void tst_XmlOverwrite::emptyCommentIsEmptyText()
{
    const QString path = writeXml(QStringLiteral("m1.xml"),
        "<MaintenanceComponents><MaintenanceComponent ID=\"1\"><Comment/>"
        "</MaintenanceComponent></MaintenanceComponents>");
    XmlOverwrite overwrite;
    QVariantMap shared;
    overwrite.init(xmlConfig({ { "m1", machineFile(path) } }), shared);
    const MaintenanceDefinitionsV1 record
        = qvariant_cast<MaintenanceDefinitionsV1>(processed(overwrite, "m1", definitions({ definition("1") })));
    QCOMPARE(record.items.size(), 1);
    QVERIFY(record.items.first().comment.isEmpty());
    QVERIFY(!record.items.first().comment.isNull());
}

void tst_XmlOverwrite::readsAFileItMayNotWrite()
{
    // The file is only read: an operator may hand orvix a file it has no right to change.
    if (geteuid() == 0)
        QSKIP("root may write any file; this needs an ordinary user");
    const QString path = writeXml(QStringLiteral("m1.xml"),
        "<MaintenanceComponents><MaintenanceComponent ID=\"1\"><Comment>read only</Comment></MaintenanceComponent>"
        "</MaintenanceComponents>");
    QVERIFY(QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther));
    XmlOverwrite overwrite;
    QVariantMap shared;
    QVERIFY(overwrite.init(xmlConfig({ { "m1", machineFile(path) } }), shared));
    QCOMPARE(commentsOf(processed(overwrite, "m1", definitions({ definition("1") }))), QStringList { "read only" });
}

void tst_XmlOverwrite::secondInitStartsAfresh()
{
    const QString first = writeXml(QStringLiteral("a.xml"),
        "<MaintenanceComponents><MaintenanceComponent ID=\"1\"><Comment>a</Comment>"
        "</MaintenanceComponent></MaintenanceComponents>");
    const QString second = writeXml(QStringLiteral("b.xml"),
        "<MaintenanceComponents><MaintenanceComponent ID=\"2\"><Comment>b</Comment>"
        "</MaintenanceComponent></MaintenanceComponents>");
    XmlOverwrite overwrite;
    QVariantMap shared;
    overwrite.init(xmlConfig({ { "m1", machineFile(first) } }), shared);
    overwrite.init(xmlConfig({ { "m1", machineFile(second) } }), shared);
    QCOMPARE(commentsOf(processed(overwrite, "m1", definitions({ definition("1"), definition("2") }))),
        (QStringList { "own", "b" }));
}

void tst_XmlOverwrite::readsFileNamedInIniFile()
{
    m_log.stop();
    const QString xml = writeXml(QStringLiteral("comments/m1.xml"),
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<MaintenanceComponents>\n"
        "  <MaintenanceComponent ID=\"42\">\n"
        "    <Comment>Check the belt tension</Comment>\n"
        "  </MaintenanceComponent>\n"
        "</MaintenanceComponents>\n");
    QDir().mkpath(filePath("plugins"));
    qputenv("ORVIX_PLUGINPATH", filePath("plugins").toUtf8());
    QVERIFY(writeFile(filePath("orvix.ini"),
        "[core]\n"
        "log=\"*.debug=false;xmlOverwrite.debug=true\"\n"
        "[xmlOverwrite]\n"
        "m1/xml="
            + xml.toUtf8()
            + "\n"
              "m2/xml=\n"));
    Core core(false, nullptr, filePath("orvix.ini"), filePath("log/orvix.log"), filePath("log/orvix.lastlog"));
    core.run();
    qunsetenv("ORVIX_PLUGINPATH");

    const QStringList lines = logLines(filePath("log/orvix.log"));
    const QStringList ours = lines.filter(QStringLiteral(" xmlOverwrite: "));
    QCOMPARE(ours,
        (QStringList { debugLine(QStringLiteral("Parsing xmloverwrite %1 for machine m1").arg(xml)),
            debugLine("Overwrite comment for Maintenance 42"),
            warningLine("xml parameter is missing for machine m2") }));

    XmlOverwrite *overwrite = nullptr;
    for (IProcessor *processor : core.processors()) {
        if (auto *candidate = dynamic_cast<XmlOverwrite *>(processor))
            overwrite = candidate;
    }
    QVERIFY(overwrite);
    // Only this processor's output is of interest here, not what the rest of the chain makes of it.
    QObject::disconnect(overwrite, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)), nullptr, nullptr);
    QCOMPARE(commentsOf(processed(*overwrite, "m1", definitions({ definition("42"), definition("43") }))),
        (QStringList { "Check the belt tension", "own" }));
}

QTEST_GUILESS_MAIN(tst_XmlOverwrite)
#include "tst_xmloverwrite.moc"
