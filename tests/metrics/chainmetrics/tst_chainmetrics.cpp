#include "chainmetrics.h"
#include "core.h"
#include "idatasource.h"
#include "iprocessor.h"
#include "statev1.h"
#include "testsupport.h"
#include "wwstate.h"

#include <QTemporaryDir>
#include <QtTest>

#include <memory>

class tst_ChainMetrics : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void countsDatasetsIntoAndOutOfTheChain();
    void countsWhatEachProcessorDropped();
    void keepsEachMachinesStateAndLastDataset();
    void splitDatasetsAreNoDrop();

private:
    void send(const QString &machine, const QVariant &data);
    const ChainMetrics::Processor &processor(const QString &name) const;
    static quint64 countOf(const std::vector<ChainMetrics::TypeCount> &counts, const char *type);

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<Core> m_core;
    ChainMetrics *m_metrics = nullptr;
};

void tst_ChainMetrics::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    const QString plugins = m_dir->filePath(QStringLiteral("plugins"));
    QVERIFY(TestSupport::copyTestPlugin(QStringLiteral("testsource"), plugins + QStringLiteral("/libtestsource.so")));
    QVERIFY(TestSupport::copyTestPlugin(QStringLiteral("testtarget"), plugins + QStringLiteral("/libtesttarget.so")));
    qputenv("ORVIX_PLUGINPATH", plugins.toUtf8());
    QVERIFY(TestSupport::writeFile(
        m_dir->filePath(QStringLiteral("orvix.ini")), "[limit]\nwaitTime=60000\nkeepAliveTime=600000\n"));
    m_core = std::make_unique<Core>(false, nullptr, m_dir->filePath(QStringLiteral("orvix.ini")),
        m_dir->filePath(QStringLiteral("orvix.log")), m_dir->filePath(QStringLiteral("orvix.lastlog")));
    m_metrics = new ChainMetrics(m_core.get());
    m_metrics->attachProcessors(m_core->processors());
    m_core->run();
    m_metrics->attachPipeline(m_core->datasources());
    QCOMPARE(m_core->datasources().size(), 1);
}

void tst_ChainMetrics::cleanup()
{
    m_core.reset();
    m_dir.reset();
    qunsetenv("ORVIX_PLUGINPATH");
}

void tst_ChainMetrics::send(const QString &machine, const QVariant &data)
{
    auto *source = dynamic_cast<QObject *>(m_core->datasources().first());
    QVERIFY(QMetaObject::invokeMethod(source, "send", Q_ARG(QDateTime, QDateTime::currentDateTimeUtc()),
        Q_ARG(QString, machine), Q_ARG(QString, QStringLiteral("src")), Q_ARG(QVariant, data)));
}

const ChainMetrics::Processor &tst_ChainMetrics::processor(const QString &name) const
{
    for (const ChainMetrics::Processor &entry : m_metrics->processors()) {
        if (entry.name == name)
            return entry;
    }
    qFatal("no processor %s", qPrintable(name));
}

quint64 tst_ChainMetrics::countOf(const std::vector<ChainMetrics::TypeCount> &counts, const char *type)
{
    for (const ChainMetrics::TypeCount &entry : counts) {
        if (qstrcmp(QMetaType::typeName(entry.type), type) == 0)
            return entry.count;
    }
    return 0;
}

void tst_ChainMetrics::countsDatasetsIntoAndOutOfTheChain()
{
    send(QStringLiteral("m1"), QVariant::fromValue(StateV1 { StateV1::Producing }));
    send(QStringLiteral("m2"), QVariant::fromValue(StateV1 { StateV1::Standby }));
    QCOMPARE(countOf(m_metrics->input(), "StateV1"), 2u);
    QCOMPARE(countOf(m_metrics->output(), "StateV1"), 2u);
    QCOMPARE(m_metrics->processors().size(), m_core->processors().size());
    for (const ChainMetrics::Processor &entry : m_metrics->processors()) {
        QCOMPARE(entry.received, 2u);
        QCOMPARE(entry.emitted, 2u);
        QCOMPARE(entry.dropped, 0u);
    }
}

void tst_ChainMetrics::countsWhatEachProcessorDropped()
{
    // The repeat stops at Limit, the state out of range at Validator: each is one drop of that processor only.
    send(QStringLiteral("m1"), QVariant::fromValue(StateV1 { StateV1::Producing }));
    send(QStringLiteral("m1"), QVariant::fromValue(StateV1 { StateV1::Producing }));
    send(QStringLiteral("m1"), QVariant::fromValue(StateV1 { 99 }));
    QCOMPARE(countOf(m_metrics->input(), "StateV1"), 3u);
    QCOMPARE(countOf(m_metrics->output(), "StateV1"), 1u);
    QCOMPARE(processor(QStringLiteral("Validator")).received, 3u);
    QCOMPARE(processor(QStringLiteral("Validator")).dropped, 1u);
    QCOMPARE(processor(QStringLiteral("Limit")).received, 2u);
    QCOMPARE(processor(QStringLiteral("Limit")).dropped, 1u);
    QCOMPARE(processor(QStringLiteral("Dataset Log")).received, 1u);
    QCOMPARE(processor(QStringLiteral("Dataset Log")).dropped, 0u);
    QCOMPARE(processor(QStringLiteral("OpcUaToMMMapper")).dropped, 0u);
}

void tst_ChainMetrics::keepsEachMachinesStateAndLastDataset()
{
    send(QStringLiteral("m1"), QVariant::fromValue(StateV1 { StateV1::Producing }));
    QTest::qWait(120);
    send(QStringLiteral("m2"), QVariant::fromValue(StateV1 { StateV1::Error }));
    // Dropped by Validator: it counts as the machine's dataset, but the state stays the last one that left.
    send(QStringLiteral("m2"), QVariant::fromValue(StateV1 { 99 }));
    const QHash<QString, ChainMetrics::Machine> &machines = m_metrics->machines();
    QCOMPARE(machines.size(), 2);
    QCOMPARE(machines.value(QStringLiteral("m1")).state, StateV1::Producing);
    QCOMPARE(machines.value(QStringLiteral("m2")).state, StateV1::Error);
    QCOMPARE(machines.value(QStringLiteral("m1")).datasets, 1u);
    QCOMPARE(machines.value(QStringLiteral("m2")).datasets, 2u);
    const qint64 now = m_metrics->clock().elapsed();
    QVERIFY(now - machines.value(QStringLiteral("m1")).lastDataset >= 100);
    QVERIFY(now - machines.value(QStringLiteral("m2")).lastDataset < 100);
}

void tst_ChainMetrics::splitDatasetsAreNoDrop()
{
    // The mapper turns one machine update into several MM datasets: one received, several emitted, nothing dropped.
    WwState update;
    update.MachineState = WwState::Working;
    update.Flags = WwStateFlags();
    send(QStringLiteral("m1"), QVariant::fromValue(update));
    const ChainMetrics::Processor &mapper = processor(QStringLiteral("OpcUaToMMMapper"));
    QCOMPARE(mapper.received, 1u);
    QVERIFY(mapper.emitted >= 2);
    QCOMPARE(mapper.dropped, 0u);
    QCOMPARE(processor(QStringLiteral("Unit Overwrite")).received, mapper.emitted);
    QCOMPARE(processor(QStringLiteral("Unit Overwrite")).dropped, 0u);
    QCOMPARE(countOf(m_metrics->input(), "WwState"), 1u);
    QCOMPARE(countOf(m_metrics->input(), "StateV1"), 0u);
}

QTEST_GUILESS_MAIN(tst_ChainMetrics)
#include "tst_chainmetrics.moc"
