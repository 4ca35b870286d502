#include "tst_mmtoopcuamapper.h"

std::unique_ptr<MmToOpcUaMapper> tst_MmToOpcUaMapper::makeMapper(const QVariantMap &config)
{
    auto mapper = std::make_unique<MmToOpcUaMapper>();
    mapper->setElapsedClock([this] { return m_now; });
    mapper->setDateTimeClock([] { return s_wallTime; });
    if (!config.isEmpty()) {
        QVariantMap shared;
        mapper->init(config, shared);
    }
    m_log.clear();
    return mapper;
}

// Inits a mapper with machine m1 of fullMachine(), key set to value or taken out where value is invalid, and returns
// the data of everything emitted.
QList<QVariant> tst_MmToOpcUaMapper::initWith(const QString &key, const QVariant &value)
{
    QVariantMap machine = fullMachine();
    if (value.isValid())
        machine.insert(key, value);
    else
        machine.remove(key);
    auto mapper = makeMapper();
    QSignalSpy spy(mapper.get(), SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    QVariantMap shared;
    mapper->init(configWith({ { "m1", machine } }), shared);
    QList<QVariant> emitted;
    for (const QList<QVariant> &arguments : qAsConst(spy))
        emitted.append(arguments.at(3));
    return emitted;
}

// Feeds one dataset and returns the data of everything emitted for it, the passed-on dataset first.
QList<QVariant> tst_MmToOpcUaMapper::feed(MmToOpcUaMapper &mapper, const QVariant &data, const QString &machine)
{
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    mapper.processData(s_when, machine, s_source, data);
    QList<QVariant> emitted;
    for (const QList<QVariant> &arguments : qAsConst(spy)) {
        if (arguments.at(0).toDateTime() != s_when || arguments.at(1).toString() != machine
            || arguments.at(2).toString() != s_source)
            qWarning("dataset emitted with other time stamp, machine or source");
        emitted.append(arguments.at(3));
    }
    return emitted;
}

QList<QVariant> tst_MmToOpcUaMapper::announce(MmToOpcUaMapper &mapper, quint32 mask, const QString &machine)
{
    return feed(mapper, capabilities(mask), machine);
}

// Feeds one dataset that must yield exactly one WwState after the passed-on dataset, and returns it.
WwState tst_MmToOpcUaMapper::lastState(MmToOpcUaMapper &mapper, const QVariant &data, const QString &machine)
{
    const QList<QVariant> emitted = feed(mapper, data, machine);
    if (emitted.size() != 2 || emitted.at(1).userType() != qMetaTypeId<WwState>()) {
        qWarning("expected one WwState, got %d datasets", int(emitted.size()));
        return WwState();
    }
    return emitted.at(1).value<WwState>();
}

void tst_MmToOpcUaMapper::initTestCase()
{
    // QVariant compares records of its own types by their bytes unless a comparator is known.
    QMetaType::registerEqualsComparator<StateV1>();
    QMetaType::registerEqualsComparator<GeneralV1>();
    QMetaType::registerEqualsComparator<NotificationsAddV1>();
    QMetaType::registerEqualsComparator<NotificationsRemoveV1>();
    QMetaType::registerEqualsComparator<NotificationsRemoveAllV1>();
    QMetaType::registerEqualsComparator<ConditionDatasV2>();
    QMetaType::registerEqualsComparator<SwVerV1>();
    QMetaType::registerEqualsComparator<OrderV1>();
    QMetaType::registerEqualsComparator<WwState>();
    QMetaType::registerEqualsComparator<WwIdentification>();
    QMetaType::registerEqualsComparator<WwBaseEventType>();
    QMetaType::registerEqualsComparator<WwCapabilities>();
    QMetaType::registerEqualsComparator<WwManufacturerSpecific>();
    QVERIFY((QMetaType::registerConverter<CapabilityCarrier, WwCapabilities>(&CapabilityCarrier::toCapabilities)));
}

void tst_MmToOpcUaMapper::init()
{
    m_now = 0;
    m_log.start(QStringLiteral("mmtoopcuamapper.debug=true"));
}

void tst_MmToOpcUaMapper::cleanup()
{
    m_log.stop();
}

void tst_MmToOpcUaMapper::identity()
{
    MmToOpcUaMapper mapper;
    QCOMPARE(mapper.name(), QStringLiteral("mmtoopcuamapper"));
    QCOMPARE(mapper.orderNumber(), 50u);
    QVERIFY(mapper.qt_metacast("IProcessor"));
    QVERIFY(qobject_cast<IProcessor *>(&mapper));
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    QVERIFY(spy.isValid());
    QVERIFY(QMetaObject::checkConnectArgs(SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)),
        SLOT(processData(QDateTime, QString, QString, QVariant))));
    QVERIFY(mapper.metaObject()->indexOfSlot("processData(QDateTime,QString,QString,QVariant)") >= 0);
    QVariantMap shared;
    QVERIFY(mapper.init(QVariantMap { { "core", QVariantMap() } }, shared));
    QCOMPARE(m_log.ofComponent(), QStringList { InitLine });
}

void tst_MmToOpcUaMapper::offlineTimerDefaults()
{
    QCOMPARE(MmToOpcUaMapper::DefaultOfflineTimeout, 600000);
    QCOMPARE(MmToOpcUaMapper::DefaultCapabilityTimeout, qint64(30000));
    MmToOpcUaMapper mapper;
    const QList<QTimer *> timers = mapper.findChildren<QTimer *>();
    QCOMPARE(timers.size(), 1);
    QVERIFY(timers.first()->isActive());
    QVERIFY(!timers.first()->isSingleShot());
    QCOMPARE(timers.first()->interval(), 600000);
    mapper.setOfflineTimeout(25);
    QCOMPARE(timers.first()->interval(), 25);
    QVERIFY(timers.first()->isActive());
}

void tst_MmToOpcUaMapper::initWithoutSettings()
{
    MmToOpcUaMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    QVariantMap shared;
    QVERIFY(mapper.init(QVariantMap(), shared));
    QCOMPARE(spy.count(), 0);
    QCOMPARE(m_log.ofComponent(), (QStringList { InitLine, warning(QStringLiteral("No settings were provided")) }));
}

void tst_MmToOpcUaMapper::initWithoutIdentificationGroup()
{
    MmToOpcUaMapper mapper;
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    QVariantMap shared;
    QVERIFY(
        mapper.init(QVariantMap { { "opcuaserver", QVariantMap { { "enableWwBaseEventPrefix", true } } } }, shared));
    QCOMPARE(spy.count(), 0);
    QCOMPARE(m_log.ofComponent(), QStringList { InitLine });
}

// Feeds OPC UA data through OpcUaToMMMapper into the mapper and returns what the mapper made of it: the records it
// emitted after the MM datasets, which it passes on, are left out.
QList<QVariant> tst_MmToOpcUaMapper::roundTrip(MmToOpcUaMapper &mapper, const QVariant &data)
{
    OpcUaToMMMapper forward;
    QObject::connect(&forward, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)), &mapper,
        SLOT(processData(QDateTime, QString, QString, QVariant)));
    QSignalSpy intermediate(&forward, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    QSignalSpy spy(&mapper, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    forward.processData(s_when, QStringLiteral("m1"), s_source, data);
    QSet<int> intermediateTypes;
    for (const QList<QVariant> &arguments : qAsConst(intermediate))
        intermediateTypes.insert(arguments.at(3).userType());
    QList<QVariant> made;
    for (const QList<QVariant> &arguments : qAsConst(spy)) {
        if (arguments.at(0).toDateTime() != s_when || arguments.at(1).toString() != QLatin1String("m1")
            || arguments.at(2).toString() != s_source)
            qWarning("dataset emitted with other time stamp, machine or source");
        if (!intermediateTypes.contains(arguments.at(3).userType()))
            made.append(arguments.at(3));
    }
    return made;
}

QTEST_GUILESS_MAIN(tst_MmToOpcUaMapper)
