#include "core.h"
#include "idatasource.h"
#include "iprocessor.h"
#include "itarget.h"
#include "logcategories.h"
#include "testsupport.h"

#include <QCoreApplication>
#include <QMetaMethod>
#include <QPointer>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

using namespace TestSupport;

namespace {

/** A processor with a configurable order number that re-emits, swallows or persists what it is told. */
class ProbeProcessor : public QObject, public IProcessor
{
    Q_OBJECT
    Q_INTERFACES(IProcessor)
public:
    ProbeProcessor(const QString &name, unsigned int order, bool forward = true)
        : m_name(name)
        , m_order(order)
        , m_forward(forward)
    {
    }
    ~ProbeProcessor() override
    {
        QStringList log = qApp->property("destroyed").toStringList();
        log.append(m_name);
        qApp->setProperty("destroyed", log);
    }

    bool init(const QVariantMap &, QVariantMap &) override
    {
        ++initCalls;
        QStringList inits = qApp->property("inits").toStringList();
        inits.append(QStringLiteral("%1:%2").arg(m_name,
            isSignalConnected(QMetaMethod::fromSignal(&ProbeProcessor::dataProcessed)) ? "connected" : "unconnected"));
        qApp->setProperty("inits", inits);
        emit writeConfig(QStringLiteral("probe/%1").arg(m_name), m_order);
        return false;
    }
    QString name() const override { return m_name; }
    unsigned int orderNumber() const override { return m_order; }

    int initCalls = 0;
    int seen = 0;

signals:
    void dataProcessed(QDateTime timestamp, QString machine, QString source, QVariant data);
    void writeConfig(QString key, QVariant value);

public slots:
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data)
    {
        ++seen;
        if (m_forward)
            emit dataProcessed(timestamp, machine, source, data);
    }

private:
    QString m_name;
    unsigned int m_order;
    bool m_forward;
};

} // namespace

class tst_Core : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void configurationMap_data();
    void configurationMap();
    void missingConfigurationFile();
    void defaultFilterRules();
    void filterRulesFromConfiguration();
    void filterRulesWrittenWithCommas();
    void unquotedSemicolonInFilterRulesWarns_data();
    void unquotedSemicolonInFilterRulesWarns();
    void startMessages_data();
    void startMessages();
    void processorChain();
    void processorSortIsStableAndUnsigned();
    void pluginDirectory();
    void loadsPluginsRecursively();
    void rejectsBadPluginFiles();
    void twoPluginsWithOneName();
    void skipsHiddenEntriesAndBrokenLinks();
    void oneLibraryUnderTwoNamesIsUsedOnce();
    void brokenPluginFixtures();
    void datasetFlowsThroughChain();
    void processorThatDropsStopsDataset();
    void withoutProcessorsEverySourceReachesEveryTarget();
    void connectingTwiceAddsNoConnection();
    void runTwiceChangesNothing();
    void initOrderAndSharedMap();
    void disabledTargetStaysConnected();
    void disabledPluginNamesAreCaseSensitive();
    void disabledDatasourceStillGetsRequests();
    void failingTargetIsRemovedAndDeleted();
    void failingDatasourceIsRemoved();
    void pluginWithoutOwnName();
    void machineRequestsReachDatasources();
    void writeConfigReachesFileAtOnce();
    void processorWriteConfigAndIgnoredInit();
    void finalWarnings();
    void shutdown();
    void shutdownMessageOnlyWithCoreInfo();
    void initOrderAfterEveryConnection();
    void writeConfigAndRequestKinds();

private:
    Core *makeCore(const QByteArray &ini, bool service = false);
    Core *runSourceAndTarget(const QByteArray &ini);
    QStringList log() const { return logLines(logPath()); }
    QString logPath() const { return m_dir->filePath(QStringLiteral("log/orvix.log")); }
    QString iniPath() const { return m_dir->filePath(QStringLiteral("etc/orvix.ini")); }
    QString pluginDir() const { return m_dir->filePath(QStringLiteral("plugins")); }
    void addPlugin(const QString &name, const QString &relativePath = QString())
    {
        const QString path = pluginDir() + QLatin1Char('/')
            + (relativePath.isEmpty() ? QStringLiteral("lib%1.so").arg(name) : relativePath);
        QVERIFY(copyTestPlugin(name, path));
    }
    static QObject *object(IDatasource *plugin) { return dynamic_cast<QObject *>(plugin); }
    static QObject *object(ITarget *plugin) { return dynamic_cast<QObject *>(plugin); }
    static void send(QObject *source, const QVariant &data)
    {
        QVERIFY(QMetaObject::invokeMethod(source, "send", Q_ARG(QDateTime, QDateTime::currentDateTime()),
            Q_ARG(QString, QStringLiteral("m1")), Q_ARG(QString, QStringLiteral("src")), Q_ARG(QVariant, data)));
    }
    static int received(ITarget *target) { return object(target)->property("received").toList().size(); }

    QScopedPointer<QTemporaryDir> m_dir;
    QPointer<Core> m_core;
};

void tst_Core::init()
{
    m_dir.reset(new QTemporaryDir);
    QVERIFY(m_dir->isValid());
    QDir().mkpath(pluginDir());
    qputenv("ORVIX_PLUGINPATH", pluginDir().toUtf8());
    qApp->setProperty("destroyed", QVariant());
    qApp->setProperty("inits", QVariant());
}

void tst_Core::cleanup()
{
    delete m_core;
    qunsetenv("ORVIX_PLUGINPATH");
}

Core *tst_Core::makeCore(const QByteArray &ini, bool service)
{
    if (!ini.isNull())
        writeFile(iniPath(), ini);
    m_core = new Core(service, nullptr, iniPath(), logPath(), m_dir->filePath(QStringLiteral("log/orvix.lastlog")));
    return m_core;
}

// The test source and the test target in the plugin folder, run by a Core with configuration ini.
Core *tst_Core::runSourceAndTarget(const QByteArray &ini)
{
    addPlugin("testsource");
    addPlugin("testtarget");
    Core *core = makeCore(ini);
    core->run();
    return core;
}

void tst_Core::configurationMap_data()
{
    QTest::addColumn<QByteArray>("ini");
    QTest::addColumn<QVariantMap>("expected");

    QTest::newRow("empty") << QByteArray("") << QVariantMap();
    QTest::newRow("group and key") << QByteArray("[limit]\nwaitTime=5000\n")
                                   << QVariantMap { { "limit", QVariantMap { { "waitTime", "5000" } } } };
    QTest::newRow("nested groups")
        << QByteArray("[unitOverwrite]\nm1\\condition\\x\\factor=2\nm1\\condition\\x\\unitText=mm\n")
        << QVariantMap { { "unitOverwrite",
               QVariantMap { { "m1",
                   QVariantMap { { "condition",
                       QVariantMap { { "x", QVariantMap { { "factor", "2" }, { "unitText", "mm" } } } } } } } } } };
    QTest::newRow("key replaces group of the same name")
        << QByteArray("[g]\nsub\\inner=1\nsub=plain\n") << QVariantMap { { "g", QVariantMap { { "sub", "plain" } } } };
    QTest::newRow("keys outside any group")
        << QByteArray("top=1\n[g]\nk=v\n") << QVariantMap { { "top", "1" }, { "g", QVariantMap { { "k", "v" } } } };
    QTest::newRow("list value") << QByteArray("[core]\ndisabledPlugins=a, b\n")
                                << QVariantMap { { "core",
                                       QVariantMap { { "disabledPlugins", QStringList { "a", "b" } } } } };
    QTest::newRow("utf-8") << QByteArray("[g]\nk=Gr\xc3\xbc\xc3\x9f"
                                         "e\n")
                           << QVariantMap { { "g",
                                  QVariantMap { { "k",
                                      QString::fromUtf8("Gr\xc3\xbc\xc3\x9f"
                                                        "e") } } } };
}

void tst_Core::configurationMap()
{
    QFETCH(QByteArray, ini);
    QFETCH(QVariantMap, expected);
    Core *core = makeCore(ini);
    QCOMPARE(core->config(), expected);
}

void tst_Core::missingConfigurationFile()
{
    Core *core = makeCore(QByteArray());
    QVERIFY(core->config().isEmpty());
    QVERIFY(log().contains(QStringLiteral("INFO core: \"starting orvix dev as normal process\"")));
}

void tst_Core::defaultFilterRules()
{
    makeCore("[other]\nk=v\n");
    QVERIFY(!lcCore().isDebugEnabled());
    QVERIFY(!lcDataset().isDebugEnabled());
    QVERIFY(lcCore().isInfoEnabled());
    const QStringList lines = log();
    QVERIFY(!lines.join(QLatin1Char('\n')).contains(QStringLiteral("DEBUG")));
}

void tst_Core::filterRulesFromConfiguration()
{
    // Unquoted, the INI format would take everything after ";" for a comment.
    makeCore("[core]\nlog=\"*.debug=true;core.debug=false\"\n");
    QVERIFY(lcDataset().isDebugEnabled());
    QVERIFY(lcLogFile().isDebugEnabled());
    QVERIFY(!lcCore().isDebugEnabled());
    QVERIFY(!log().join(QLatin1Char('\n')).contains(QStringLiteral("read configfile:")));
}

void tst_Core::filterRulesWrittenWithCommas()
{
    // Unquoted, a comma makes the value a list; each element is one rule.
    makeCore("[core]\nlog=*.debug=false, core.debug=true\n");
    QVERIFY(!lcDataset().isDebugEnabled());
    QVERIFY(!lcLogFile().isDebugEnabled());
    QVERIFY(lcCore().isDebugEnabled());
}

void tst_Core::unquotedSemicolonInFilterRulesWarns_data()
{
    QTest::addColumn<QByteArray>("ini");
    QTest::addColumn<QString>("warning");
    QTest::newRow("unquoted")
        << QByteArray("[core]\nlog=*.debug=true;core.debug=false\n")
        << "WARNING core: \"core/log holds an unquoted \\\";\\\", so the rules after it are "
           "ignored: core.debug=false. Write it quoted: log=\\\"*.debug=true;core.debug=false\\\"\"";
    QTest::newRow("quoted") << QByteArray("[core]\nlog=\"*.debug=true;core.debug=false\"\n") << QString();
    QTest::newRow("other group") << QByteArray("[other]\nlog=a;b\n") << QString();
    QTest::newRow("comment line") << QByteArray("[core]\n;log=a;b\n") << QString();
}

void tst_Core::unquotedSemicolonInFilterRulesWarns()
{
    QFETCH(QByteArray, ini);
    QFETCH(QString, warning);
    makeCore(ini);
    QStringList warnings;
    for (const QString &line : log()) {
        if (line.startsWith(QStringLiteral("WARNING")))
            warnings.append(line);
    }
    QCOMPARE(warnings, warning.isEmpty() ? QStringList() : QStringList { warning });
}

void tst_Core::startMessages_data()
{
    QTest::addColumn<bool>("service");
    QTest::addColumn<QString>("how");
    QTest::newRow("process") << false << "as normal process";
    QTest::newRow("service") << true << "as service";
}

void tst_Core::startMessages()
{
    QFETCH(bool, service);
    QFETCH(QString, how);
    makeCore("[core]\nlog=*.debug=true\n", service);
    const QStringList lines = log();
    QVERIFY(lines.size() >= 3);
    // The configuration file is announced before the file sink is open, so only the console shows it.
    QVERIFY(!lines.join(QLatin1Char('\n')).contains(QStringLiteral("Using configfile")));
    QCOMPARE(lines.at(0), QStringLiteral("INFO core: \"starting orvix dev %1\"").arg(how));
    QVERIFY(lines.at(1).startsWith(QStringLiteral("INFO core: \"")));
    QCOMPARE(lines.at(2),
        QStringLiteral("DEBUG core: read configfile: QMap((\"core\", QVariant(QVariantMap, "
                       "QMap((\"log\", QVariant(QString, \"*.debug=true\"))))))"));
}

void tst_Core::processorChain()
{
    Core *core = makeCore("");
    QStringList names;
    QList<unsigned int> orders;
    for (IProcessor *processor : core->processors()) {
        names.append(processor->name());
        orders.append(processor->orderNumber());
        QVERIFY(dynamic_cast<QObject *>(processor)->inherits("IProcessor")
            || dynamic_cast<QObject *>(processor)->qt_metacast("IProcessor"));
    }
    QCOMPARE(names,
        (QStringList { "OpcUaToMMMapper", "Unit Overwrite", "Xml Overwrite", "Validator", "Limit", "Dataset Log" }));
    QCOMPARE(orders, (QList<unsigned int> { 50, 500, 600, 900, 1000, 9999 }));
}

void tst_Core::processorSortIsStableAndUnsigned()
{
    Core *core = makeCore("");
    core->setProcessors({ new ProbeProcessor("high", 0x80000000u), new ProbeProcessor("first", 7),
        new ProbeProcessor("second", 7), new ProbeProcessor("low", 1) });
    QStringList names;
    for (IProcessor *processor : core->processors())
        names.append(processor->name());
    QCOMPARE(names, (QStringList { "low", "first", "second", "high" }));
}

void tst_Core::pluginDirectory()
{
    qputenv("ORVIX_PLUGINPATH", "/some/where");
    QCOMPARE(Core::pluginDirectory(), QStringLiteral("/some/where"));
    qputenv("ORVIX_PLUGINPATH", "");
    QVERIFY(Core::pluginDirectory().endsWith(QStringLiteral("/lib/orvix/plugins")));
    qunsetenv("ORVIX_PLUGINPATH");
    QVERIFY(Core::pluginDirectory().endsWith(QStringLiteral("/lib/orvix/plugins")));
}

void tst_Core::loadsPluginsRecursively()
{
    addPlugin("testsource");
    addPlugin("testtarget", "deeper/still/libtesttarget.SO");
    Core *core = makeCore("[core]\nlog=*.debug=true\n");
    core->run();
    QCOMPARE(core->datasources().size(), 1);
    QCOMPARE(core->targets().size(), 1);
    QCOMPARE(core->datasources().first()->name(), QStringLiteral("testsource"));
    QCOMPARE(core->targets().first()->name(), QStringLiteral("testtarget"));

    const QStringList lines = log();
    const QString target = pluginDir() + QStringLiteral("/deeper/still/libtesttarget.SO");
    QVERIFY(lines.contains(QStringLiteral("DEBUG core: \"Loading plugins from %1\"").arg(pluginDir())));
    QVERIFY(lines.contains(QStringLiteral("DEBUG core: \"Trying to load plugin: %1\"").arg(target)));
    QVERIFY(lines.contains(QStringLiteral("DEBUG core: \"Successfully loaded: %1\"").arg(target)));
}

void tst_Core::rejectsBadPluginFiles()
{
    addPlugin("wrongtype");
    writeFile(pluginDir() + QStringLiteral("/also"), "not a library");
    writeFile(pluginDir() + QStringLiteral("/broken.so"), "not a library either");
    addPlugin("testsource", "libtestsource.so.1");
    Core *core = makeCore("[core]\nlog=*.debug=true\n");
    core->run();
    QVERIFY(core->datasources().isEmpty());

    const QStringList lines = log();
    QVERIFY(lines.contains(QStringLiteral("WARNING core: \"PluginType \\\"datasource\\\" not valid for %1\"")
                               .arg(pluginDir() + QStringLiteral("/libwrongtype.so"))));
    QVERIFY(lines.contains(QStringLiteral("WARNING core: \"PluginType \\\"\\\" not valid for %1\"")
                               .arg(pluginDir() + QStringLiteral("/also"))));
    QVERIFY(lines.contains(QStringLiteral("WARNING core: \"PluginType \\\"\\\" not valid for %1\"")
                               .arg(pluginDir() + QStringLiteral("/broken.so"))));
    // A versioned name does not end in "so", so it is not even tried.
    QVERIFY(!lines.join(QLatin1Char('\n')).contains(QStringLiteral("libtestsource.so.1")));
}

void tst_Core::twoPluginsWithOneName()
{
    addPlugin("testsource");
    addPlugin("testtarget", "a/libtesttarget.so");
    addPlugin("testtarget", "b/libtesttarget.so");
    Core *core = makeCore("");
    core->run();
    QCOMPARE(core->targets().size(), 2);
    QVERIFY(core->targets().at(0) != core->targets().at(1));
    send(object(core->datasources().first()), QStringLiteral("payload"));
    QCOMPARE(received(core->targets().at(0)), 1);
    QCOMPARE(received(core->targets().at(1)), 1);
}

void tst_Core::skipsHiddenEntriesAndBrokenLinks()
{
    addPlugin("testsource");
    addPlugin("testtarget", ".trash/libtesttarget.so");
    addPlugin("testtarget", ".libhidden.so");
    QVERIFY(
        QFile::link(pluginDir() + QStringLiteral("/gone/libgone.so"), pluginDir() + QStringLiteral("/libdangling.so")));
    Core *core = makeCore("[core]\nlog=*.debug=true\n");
    core->run();
    QCOMPARE(core->datasources().size(), 1);
    QVERIFY(core->targets().isEmpty());
    const QString lines = log().join(QLatin1Char('\n'));
    QVERIFY(!lines.contains(QStringLiteral(".trash")));
    QVERIFY(!lines.contains(QStringLiteral(".libhidden.so")));
    QVERIFY(!lines.contains(QStringLiteral("libdangling.so")));
}

void tst_Core::oneLibraryUnderTwoNamesIsUsedOnce()
{
    addPlugin("testtarget");
    addPlugin("testsource", "libtestsource.so.1");
    const QString versioned = pluginDir() + QStringLiteral("/libtestsource.so.1");
    QVERIFY(QFile::link(versioned, pluginDir() + QStringLiteral("/libtestsource.so")));
    QVERIFY(QDir().mkpath(pluginDir() + QStringLiteral("/sub")));
    const QByteArray hardLink = QFile::encodeName(pluginDir() + QStringLiteral("/sub/libsource.so"));
    QCOMPARE(::link(QFile::encodeName(versioned).constData(), hardLink.constData()), 0);
    Core *core = makeCore("");
    core->run();
    QCOMPARE(core->datasources().size(), 1);
    send(object(core->datasources().first()), QStringLiteral("payload"));
    QCOMPARE(received(core->targets().first()), 1);
    QCOMPARE(object(core->datasources().first())->property("initCalls").toInt(), 1);

    QStringList infos;
    for (const QString &line : log()) {
        if (line.contains(QStringLiteral("is the same plugin as")))
            infos.append(line);
    }
    QCOMPARE(infos.size(), 1);
    QVERIFY2(infos.first().startsWith(QStringLiteral("INFO core: \"")), qPrintable(infos.first()));
    QVERIFY2(infos.first().endsWith(QStringLiteral(" and is used once\"")), qPrintable(infos.first()));
}

void tst_Core::brokenPluginFixtures()
{
    addPlugin("noinstance");
    addPlugin("mistyped");
    addPlugin("testsource", "libtruncated.so");
    QFile truncated(pluginDir() + QStringLiteral("/libtruncated.so"));
    QVERIFY(truncated.resize(4096));
    Core *core = makeCore("");
    core->run();
    QVERIFY(core->datasources().isEmpty());
    QVERIFY(core->targets().isEmpty());

    const QStringList lines = log();
    const QString noInstance = pluginDir() + QStringLiteral("/libnoinstance.so");
    QStringList cannotInstantiate;
    for (const QString &line : lines) {
        if (line.startsWith(QStringLiteral("WARNING core: \"Can't get instance of %1. Error: ").arg(noInstance)))
            cannotInstantiate.append(line);
    }
    QCOMPARE(cannotInstantiate.size(), 1);
    QVERIFY2(cannotInstantiate.first().contains(QStringLiteral("orvix_symbol_that_no_library_defines")),
        qPrintable(cannotInstantiate.first()));
    QVERIFY(lines.contains(QStringLiteral("WARNING core: \"%1 is no ITarget and is not used\"")
                               .arg(pluginDir() + QStringLiteral("/libmistyped.so"))));
    QVERIFY(lines.contains(QStringLiteral("WARNING core: \"PluginType \\\"\\\" not valid for %1\"")
                               .arg(pluginDir() + QStringLiteral("/libtruncated.so"))));
}

void tst_Core::datasetFlowsThroughChain()
{
    Core *core = runSourceAndTarget("[core]\nlog=*.debug=true\n");

    const QDateTime when = QDateTime::fromMSecsSinceEpoch(1700000000123);
    QVERIFY(QMetaObject::invokeMethod(object(core->datasources().first()), "send", Q_ARG(QDateTime, when),
        Q_ARG(QString, "m1"), Q_ARG(QString, "src"), Q_ARG(QVariant, QVariant(QStringLiteral("payload")))));
    const QVariantList received = object(core->targets().first())->property("received").toList();
    QCOMPARE(received.size(), 1);
    QCOMPARE(received.first().toList(), (QVariantList { when, "m1", "src", "payload" }));

    const QStringList lines = log();
    const QStringList expected {
        "DEBUG core: \"Connect testsource to OpcUaToMMMapper\"",
        "DEBUG core: \"Connect OpcUaToMMMapper to Unit Overwrite\"",
        "DEBUG core: \"Connect Unit Overwrite to Xml Overwrite\"",
        "DEBUG core: \"Connect Xml Overwrite to Validator\"",
        "DEBUG core: \"Connect Validator to Limit\"",
        "DEBUG core: \"Connect Limit to Dataset Log\"",
        "DEBUG core: \"Connect Dataset Log to testtarget\"",
    };
    const int first = lines.indexOf(expected.first());
    QVERIFY(first >= 0);
    QCOMPARE(lines.mid(first, expected.size()), expected);
    QVERIFY(lines.contains("DEBUG dataset: \"Source: src Maschine: m1 Dataset: QString\""));
}

void tst_Core::processorThatDropsStopsDataset()
{
    addPlugin("testsource");
    addPlugin("testtarget");
    Core *core = makeCore("");
    auto *dropper = new ProbeProcessor("dropper", 2, false);
    auto *last = new ProbeProcessor("last", 3);
    core->setProcessors({ last, dropper });
    core->run();
    send(object(core->datasources().first()), 1);
    QCOMPARE(dropper->seen, 1);
    QCOMPARE(last->seen, 0);
    QCOMPARE(received(core->targets().first()), 0);
}

void tst_Core::withoutProcessorsEverySourceReachesEveryTarget()
{
    addPlugin("testsource");
    addPlugin("plainsource");
    addPlugin("testtarget");
    addPlugin("plaintarget");
    Core *core = makeCore("[core]\nlog=*.debug=true\n");
    core->setProcessors({});
    core->run();
    QCOMPARE(core->datasources().size(), 2);
    QCOMPARE(core->targets().size(), 2);
    for (IDatasource *datasource : core->datasources())
        send(object(datasource), 1);
    for (ITarget *target : core->targets())
        QCOMPARE(received(target), 2);
    // The target is named first in this message.
    QVERIFY(log().contains("DEBUG core: \"Connect testtarget to testsource\""));
}

void tst_Core::connectingTwiceAddsNoConnection()
{
    Core *core = runSourceAndTarget("");
    core->connectPipeline();
    send(object(core->datasources().first()), 1);
    QCOMPARE(received(core->targets().first()), 1);

    // The old chain goes with its processors; the direct path is made once however often it is connected.
    core->setProcessors({});
    core->connectPipeline();
    core->connectPipeline();
    send(object(core->datasources().first()), 2);
    QCOMPARE(received(core->targets().first()), 2);
}

void tst_Core::runTwiceChangesNothing()
{
    Core *core = runSourceAndTarget("");
    core->run();
    QCOMPARE(core->datasources().size(), 1);
    QCOMPARE(core->targets().size(), 1);
    QCOMPARE(object(core->targets().first())->property("initCalls").toInt(), 1);
    send(object(core->datasources().first()), 1);
    QCOMPARE(received(core->targets().first()), 1);
}

void tst_Core::initOrderAndSharedMap()
{
    Core *core = runSourceAndTarget("[core]\nlog=*.debug=true\n");
    // Targets are initialised before datasources, so the target cannot see what the source put into the map.
    QCOMPARE(object(core->targets().first())->property("sharedSeen").toBool(), false);
    const QStringList lines = log();
    const int target = lines.indexOf("DEBUG core: \"Initializing target testtarget\"");
    const int source = lines.indexOf("DEBUG core: \"Initializing datasource testsource\"");
    QVERIFY(target >= 0);
    QVERIFY(source > target);
    QVERIFY(lines.contains("DEBUG core: \"testtarget provides writeConfig\""));
    QVERIFY(lines.contains("DEBUG core: \"testsource provides writeConfig\""));
}

void tst_Core::disabledTargetStaysConnected()
{
    Core *core = runSourceAndTarget("[core]\nlog=*.debug=true\ndisabledPlugins=testtarget\n");
    QCOMPARE(core->targets().size(), 1);
    QObject *target = object(core->targets().first());
    QCOMPARE(target->property("initCalls").toInt(), 0);
    send(object(core->datasources().first()), 1);
    QCOMPARE(received(core->targets().first()), 1);

    // No request connection was made for it.
    QVERIFY(QMetaObject::invokeMethod(target, "request", Q_ARG(QString, "m1"), Q_ARG(QVariant, 5)));
    QVERIFY(object(core->datasources().first())->property("requests").toList().isEmpty());

    const QStringList lines = log();
    QVERIFY(lines.contains("INFO core: \"Ignoring target testtarget, because it's disabled in the config.\""));
    QVERIFY(!lines.contains("DEBUG core: \"Initializing target testtarget\""));
    QVERIFY(!lines.contains("DEBUG core: \"testtarget provides writeConfig\""));
}

void tst_Core::disabledPluginNamesAreCaseSensitive()
{
    Core *core = runSourceAndTarget("[core]\ndisabledPlugins=TestTarget, TESTSOURCE\n");
    QCOMPARE(object(core->targets().first())->property("initCalls").toInt(), 1);
    QCOMPARE(object(core->datasources().first())->property("initCalls").toInt(), 1);
}

void tst_Core::disabledDatasourceStillGetsRequests()
{
    Core *core = runSourceAndTarget("[core]\nlog=*.debug=true\ndisabledPlugins=testsource\n");
    QObject *source = object(core->datasources().first());
    QCOMPARE(source->property("initCalls").toInt(), 0);
    QVERIFY(QMetaObject::invokeMethod(
        object(core->targets().first()), "request", Q_ARG(QString, "m1"), Q_ARG(QVariant, 7)));
    QCOMPARE(source->property("requests").toList(), (QVariantList { QVariantList { "m1", 7 } }));
    const QStringList lines = log();
    QVERIFY(lines.contains("INFO core: \"Ignoring datasource testsource, because it's disabled in the config.\""));
    QVERIFY(!lines.contains("DEBUG core: \"testsource provides writeConfig\""));
}

void tst_Core::failingTargetIsRemovedAndDeleted()
{
    Core *core = runSourceAndTarget("[testtarget]\ninit=false\nrequestOnInit=early\n");
    QVERIFY(core->targets().isEmpty());
    QObject *source = object(core->datasources().first());
    // Its request during init reached the datasource, which was not yet initialised.
    QCOMPARE(source->property("requests").toList(), (QVariantList { QVariantList { "m1", "early" } }));
    QCOMPARE(source->property("initCalls").toInt(), 1);
    QTRY_VERIFY(qApp->property("destroyed").toStringList().contains("testtarget"));
    QVERIFY(log().contains("WARNING core: \"Disabling target testtarget\""));
    QVERIFY(log().contains("WARNING core: \"At least one target plugin has to be used.\""));
}

void tst_Core::failingDatasourceIsRemoved()
{
    Core *core = runSourceAndTarget("[testsource]\ninit=false\n");
    QVERIFY(core->datasources().isEmpty());
    QTRY_VERIFY(qApp->property("destroyed").toStringList().contains("testsource"));
    // Gone with its connections: a request from the target reaches nobody and harms nothing.
    QVERIFY(QMetaObject::invokeMethod(
        object(core->targets().first()), "request", Q_ARG(QString, "m1"), Q_ARG(QVariant, 1)));
    const QStringList lines = log();
    QVERIFY(lines.contains("WARNING core: \"Disabling datasource testsource\""));
    QVERIFY(lines.contains("WARNING core: \"At least one datasource plugin has to be used.\""));
}

void tst_Core::pluginWithoutOwnName()
{
    addPlugin("plainsource");
    addPlugin("plaintarget");
    addPlugin("testtarget");
    Core *core = makeCore("[core]\nlog=*.debug=true\n"
                          "disabledPlugins=\"ITarget: The compiler doesn't support virtual inlines :(\"\n");
    core->run();
    const QStringList lines = log();
    QVERIFY(lines.contains("DEBUG core: \"Initializing datasource IDatasource: The compiler doesn't support "
                           "virtual inlines :(\""));
    QVERIFY(lines.contains("INFO core: \"Ignoring target ITarget: The compiler doesn't support virtual inlines :(, "
                           "because it's disabled in the config.\""));
    // No request slot on the plain source: not connected, and not an error.
    QVERIFY(!lines.join('\n').contains("machineRequest to"));
    QVERIFY(!lines.join('\n').contains("WARNING core"));
}

void tst_Core::machineRequestsReachDatasources()
{
    addPlugin("testsource");
    addPlugin("testsource", "copy/libtestsource.so");
    addPlugin("plainsource");
    addPlugin("testtarget");
    Core *core = makeCore("[core]\nlog=*.debug=true\n");
    core->run();
    QVERIFY(QMetaObject::invokeMethod(
        object(core->targets().first()), "request", Q_ARG(QString, "m2"), Q_ARG(QVariant, "stop")));
    int reached = 0;
    for (IDatasource *datasource : core->datasources()) {
        if (datasource->name() != "testsource")
            continue;
        QCOMPARE(object(datasource)->property("requests").toList(), (QVariantList { QVariantList { "m2", "stop" } }));
        ++reached;
    }
    QCOMPARE(reached, 2);
    QCOMPARE(log().count("DEBUG core: \"Connect testtarget machineRequest to testsource\""), 2);
}

void tst_Core::writeConfigReachesFileAtOnce()
{
    Core *core = runSourceAndTarget("[testsource]\nwriteOnInit=hello\n");
    QVERIFY(QMetaObject::invokeMethod(
        object(core->targets().first()), "write", Q_ARG(QString, "group/key"), Q_ARG(QVariant, 42)));
    QSettings file(iniPath(), QSettings::IniFormat);
    QCOMPARE(file.value("testsource/written").toString(), QStringLiteral("hello"));
    QCOMPARE(file.value("group/key").toInt(), 42);
    // The map read at start does not change.
    QVERIFY(!core->config().contains("group"));
}

void tst_Core::processorWriteConfigAndIgnoredInit()
{
    Core *core = makeCore("[core]\nlog=*.debug=true\n");
    auto *probe = new ProbeProcessor("probe", 1);
    core->setProcessors({ probe });
    core->run();
    QCOMPARE(probe->initCalls, 1);
    QCOMPARE(core->processors().size(), 1);
    QVERIFY(log().contains("DEBUG core: \"probe provides writeConfig\""));
    QCOMPARE(QSettings(iniPath(), QSettings::IniFormat).value("probe/probe").toInt(), 1);
}

void tst_Core::finalWarnings()
{
    makeCore("")->run();
    const QStringList lines = log();
    QCOMPARE(lines.mid(lines.size() - 2),
        (QStringList { "WARNING core: \"At least one datasource plugin has to be used.\"",
            "WARNING core: \"At least one target plugin has to be used.\"" }));
}

void tst_Core::shutdown()
{
    addPlugin("testsource");
    addPlugin("testtarget");
    Core *core = makeCore("");
    core->setProcessors({ new ProbeProcessor("p1", 1), new ProbeProcessor("p2", 2) });
    core->run();
    delete core;
    QCOMPARE(qApp->property("destroyed").toStringList(), (QStringList { "testsource", "testtarget", "p1", "p2" }));
    QCOMPARE(log().last(), QStringLiteral("INFO core: Shutting down"));

    // The handler was restored before the plugins were deleted: their last words do not reach the file.
    QVERIFY(!log().join('\n').contains("testsource deleted"));
    // The default handler is back: nothing reaches the file any more.
    qCWarning(lcCore) << "after shutdown";
    QVERIFY(!log().join('\n').contains("after shutdown"));
}

void tst_Core::shutdownMessageOnlyWithCoreInfo()
{
    Core *core = makeCore("[core]\nlog=core.info=false\n");
    qCWarning(lcCore) << "still running";
    delete core;
    const QStringList lines = log();
    QVERIFY(lines.contains(QStringLiteral("WARNING core: still running")));
    QVERIFY(!lines.join('\n').contains(QStringLiteral("Shutting down")));
}

void tst_Core::initOrderAfterEveryConnection()
{
    addPlugin("testsource");
    addPlugin("testtarget");
    Core *core = makeCore("");
    core->setProcessors({ new ProbeProcessor("p1", 1), new ProbeProcessor("p2", 2) });
    core->run();
    // Processors first, then targets, then datasources; each already wired when its init runs.
    QCOMPARE(qApp->property("inits").toStringList(),
        (QStringList { "p1:connected", "p2:connected", "testtarget", "testsource:connected" }));
}

void tst_Core::writeConfigAndRequestKinds()
{
    addPlugin("slotsource");
    addPlugin("slottarget");
    Core *core = makeCore("[core]\nlog=*.debug=true\n");
    core->run();
    QCOMPARE(core->datasources().size(), 1);
    QCOMPARE(core->targets().size(), 1);
    const QStringList lines = log();
    // A datasource's writeConfig counts only as a signal, a target's as any method.
    QVERIFY(!lines.contains(QStringLiteral("DEBUG core: \"slotsource provides writeConfig\"")));
    QVERIFY(lines.contains(QStringLiteral("DEBUG core: \"slottarget provides writeConfig\"")));
    // A datasource's machineRequest must be a slot to receive the targets' requests.
    QVERIFY(!lines.join('\n').contains(QStringLiteral("machineRequest to slotsource")));
}

QTEST_GUILESS_MAIN(tst_Core)
#include "tst_core.moc"
