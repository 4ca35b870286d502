#include "tst_opcuatommmapper.h"

void tst_OpcUaToMMMapper::initTestCase()
{
    QVERIFY((QMetaType::registerConverter<FailingStateCarrier, WwState>(&FailingStateCarrier::toState)));
    QVERIFY((QMetaType::registerConverter<NameplateCarrier, WwIdentification>(&NameplateCarrier::toIdentification)));
    QVERIFY((QMetaType::registerConverter<AnyCarrier, WwState>(&AnyCarrier::toState)));
    QVERIFY((QMetaType::registerConverter<AnyCarrier, WwIdentification>(&AnyCarrier::toIdentification)));
    QVERIFY((QMetaType::registerConverter<AnyCarrier, WwBaseEventType>(&AnyCarrier::toEvent)));
    QVERIFY((QMetaType::registerConverter<NameplateOrEventCarrier, WwIdentification>(
        &NameplateOrEventCarrier::toIdentification)));
    QVERIFY(
        (QMetaType::registerConverter<NameplateOrEventCarrier, WwBaseEventType>(&NameplateOrEventCarrier::toEvent)));
}

void tst_OpcUaToMMMapper::init()
{
    m_log.start(QStringLiteral("*.debug=false"));
}

void tst_OpcUaToMMMapper::cleanup()
{
    m_log.stop();
}

void tst_OpcUaToMMMapper::identity()
{
    OpcUaToMMMapper mapper;
    QCOMPARE(mapper.name(), QStringLiteral("OpcUaToMMMapper"));
    QCOMPARE(mapper.orderNumber(), 50u);
    QVERIFY(mapper.qt_metacast("IProcessor"));

    QObject parent;
    auto *child = new OpcUaToMMMapper(&parent);
    QCOMPARE(child->parent(), &parent);
}

void tst_OpcUaToMMMapper::initLogsAndReadsNoConfiguration()
{
    OpcUaToMMMapper mapper;
    QVariantMap shared;
    const QVariantMap config { { QStringLiteral("opcuatommmapper"), QVariantMap { { "x", 1 } } } };
    QVERIFY(mapper.init(config, shared));
    QVERIFY(shared.isEmpty());
    QCOMPARE(m_log.ofComponent("INFO"), QStringList { m_log.info("OpcUaToMMMapper::init") });
    QCOMPARE(m_log.lines().size(), 1);
}

void tst_OpcUaToMMMapper::debugLineOnlyWhenEnabled()
{
    OpcUaToMMMapper mapper;
    mapper.processData(s_when, "m1", "s1", QVariant(42));
    QVERIFY(m_log.ofComponent("DEBUG").isEmpty());

    QLoggingCategory::setFilterRules(QStringLiteral("opcuatommmapper.debug=true"));
    mapper.processData(s_when, "m1", "s1", QVariant(42));
    mapper.processData(s_when, "m1", "s1", QVariant::fromValue(makeState(0, 0, allFlagsFalse(), std::nullopt)));
    const QStringList lines = m_log.ofComponent("DEBUG");
    QCOMPARE(lines.size(), 2);
    // One line with the four arguments in order.
    QVERIFY(lines.first().contains(QLatin1String("\"m1\" \"s1\" QVariant(int, 42)")));
    QVERIFY(lines.first().startsWith(QLatin1String("DEBUG opcuatommmapper: QDateTime(2021-03-01 08:00:00.123 UTC")));
}

QTEST_GUILESS_MAIN(tst_OpcUaToMMMapper)
