#include "tst_limit.h"

void tst_Limit::init()
{
    m_log.start(QStringLiteral("*.debug=false\nlimit.debug=true"));
}

void tst_Limit::cleanup()
{
    m_log.stop();
}

void tst_Limit::configure(Limit &limit, quint32 waitTime, quint32 keepAliveTime)
{
    QVariantMap shared;
    QVERIFY(limit.init(limitConfig(QString::number(waitTime), QString::number(keepAliveTime)), shared));
    QCOMPARE(limit.waitTime(), waitTime);
    QCOMPARE(limit.keepAliveTime(), keepAliveTime);
}

void tst_Limit::send(Limit &limit, const QVariant &data, const QString &machine)
{
    limit.processData(When, machine, QStringLiteral("s1"), data);
}

void tst_Limit::checkDropLine(const QString &line, Kind kind, quint32 waitTime)
{
    static const QStringList texts {
        "Dropping Condition Definitions since last send was at %1, our current time is %2 and we should wait %3ms.",
        "Dropping Condition Values since last send was at %1 our current time is %2 and we should wait %3ms.",
        "Dropping Maintenace Definitions since last send was at %1, our current time is %2 and we should wait %3ms.",
        "Dropping Maintenace Values since last send was at %1, our current time is %2 and we should wait %3ms.",
    };
    QString pattern = QRegularExpression::escape(QStringLiteral("DEBUG limit: \"") + texts.at(kind) + "\"");
    // escape() has put a backslash before every per cent sign.
    pattern.replace(QStringLiteral("\\%1"), QStringLiteral("(.+)"))
        .replace(QStringLiteral("\\%2"), QStringLiteral("(.+)"))
        .replace(QStringLiteral("\\%3"), QString::number(waitTime));
    const QRegularExpressionMatch match = QRegularExpression(QLatin1Char('^') + pattern + QLatin1Char('$')).match(line);
    QVERIFY2(match.hasMatch(), qPrintable(line));
    // Both times in the default text form: they read back, and the current one is not before the last sending.
    const QDateTime last = QDateTime::fromString(match.captured(1));
    const QDateTime now = QDateTime::fromString(match.captured(2));
    QVERIFY2(last.isValid() && now.isValid(), qPrintable(line));
    QVERIFY(last <= now);
    QVERIFY(qAbs(now.secsTo(QDateTime::currentDateTime())) <= 2);
}

void tst_Limit::identity()
{
    Limit limit;
    QVariantMap shared;
    QVERIFY(limit.init(limitConfig("10", "20"), shared));
    QVERIFY(shared.isEmpty());
    QCOMPARE(limit.name(), QStringLiteral("Limit"));
    QCOMPARE(limit.orderNumber(), 1000u);
    QVERIFY(limit.qt_metacast("IProcessor"));
    QCOMPARE(QString::fromLatin1(lcLimit().categoryName()), QStringLiteral("limit"));
    QVERIFY(m_log.lines().isEmpty());
}

void tst_Limit::slotOrder()
{
    const QMetaObject &meta = Limit::staticMetaObject;
    const QStringList signatures { "processData(QDateTime,QString,QString,QVariant)", "doConditionDefinitions()",
        "doConditionValues()", "doMaintenanceDefinitions()", "doMaintenanceValues()", "doOperatingData()" };
    int previous = -1;
    for (const QString &signature : signatures) {
        const int index = meta.indexOfSlot(signature.toLatin1().constData());
        QVERIFY2(index > previous, qPrintable(signature));
        QCOMPARE(meta.method(index).access(), QMetaMethod::Public);
        previous = index;
    }
    QCOMPARE(previous - meta.indexOfSlot("processData(QDateTime,QString,QString,QVariant)"), 5);
}

void tst_Limit::settings_data()
{
    QTest::addColumn<QVariantMap>("config");
    QTest::addColumn<quint32>("waitTime");
    QTest::addColumn<quint32>("keepAliveTime");
    QTest::addColumn<QStringList>("log");

    QTest::newRow("no group") << QVariantMap() << 0u << 0u << QStringList { WaitWarning, KeepAliveWarning };
    QTest::newRow("empty group") << limitConfig(QVariant(), QVariant()) << 0u << 0u
                                 << QStringList { WaitWarning, KeepAliveWarning };
    QTest::newRow("group not a map") << QVariantMap { { "limit", "5" } } << 0u << 0u
                                     << QStringList { WaitWarning, KeepAliveWarning };
    QTest::newRow("texts") << limitConfig("5000", "60000") << 5000u << 60000u << QStringList();
    QTest::newRow("numbers") << limitConfig(250, 30u) << 250u << 30u << QStringList();
    QTest::newRow("zero") << limitConfig("0", "0") << 0u << 0u << QStringList();
    QTest::newRow("largest") << limitConfig("4294967295", "1") << 4294967295u << 1u << QStringList();
    QTest::newRow("keep-alive missing") << limitConfig("100", QVariant()) << 100u << 0u
                                        << QStringList { KeepAliveWarning };
    QTest::newRow("wait missing") << limitConfig(QVariant(), "100") << 0u << 100u << QStringList { WaitWarning };
    QTest::newRow("not numbers") << limitConfig("soon", "1.5") << 0u << 0u
                                 << QStringList { WaitWarning, KeepAliveWarning };
    QTest::newRow("negative number") << limitConfig(-5, 7) << 0u << 7u << QStringList { WaitWarning };
    QTest::newRow("just too large") << limitConfig("4294967297", "1") << 0u << 1u << QStringList { WaitWarning };
    QTest::newRow("negative") << limitConfig("-5", "7") << 0u << 7u << QStringList { WaitWarning };
    QTest::newRow("too large") << limitConfig("4294967296", "") << 0u << 0u
                               << QStringList { WaitWarning, KeepAliveWarning };
    QTest::newRow("list") << limitConfig(QStringList { "1", "5" }, "3") << 0u << 3u << QStringList { WaitWarning };
}

void tst_Limit::settings()
{
    QFETCH(QVariantMap, config);
    QFETCH(quint32, waitTime);
    QFETCH(quint32, keepAliveTime);
    QFETCH(QStringList, log);

    Limit limit;
    QVariantMap shared;
    QVERIFY(limit.init(config, shared));
    QCOMPARE(limit.waitTime(), waitTime);
    QCOMPARE(limit.keepAliveTime(), keepAliveTime);
    QCOMPARE(m_log.lines(), log);

    QTimer *timer = limit.findChild<QTimer *>();
    QVERIFY(timer);
    QCOMPARE(timer->isActive(), waitTime != 0);
    if (waitTime != 0 && waitTime <= quint32(std::numeric_limits<int>::max()))
        QCOMPARE(timer->interval(), int(waitTime));
}

void tst_Limit::settingsFromIniFile_data()
{
    QTest::addColumn<QByteArray>("ini");
    QTest::addColumn<quint32>("waitTime");
    QTest::addColumn<quint32>("keepAliveTime");
    QTest::addColumn<QStringList>("warnings");

    QTest::newRow("both") << QByteArray("[limit]\nwaitTime=40\nkeepAliveTime=60000\n") << 40u << 60000u
                          << QStringList();
    QTest::newRow("no group") << QByteArray("[other]\nwaitTime=40\n") << 0u << 0u
                              << QStringList { WaitWarning, KeepAliveWarning };
    QTest::newRow("quoted number") << QByteArray("[limit]\nwaitTime=\"40\"\nkeepAliveTime=x\n") << 40u << 0u
                                   << QStringList { KeepAliveWarning };
    QTest::newRow("comma makes a list") << QByteArray("[limit]\nwaitTime=4,0\nkeepAliveTime=\"1,5\"\n") << 0u << 0u
                                        << QStringList { WaitWarning, KeepAliveWarning };
}

void tst_Limit::settingsFromIniFile()
{
    QFETCH(QByteArray, ini);
    QFETCH(quint32, waitTime);
    QFETCH(quint32, keepAliveTime);
    QFETCH(QStringList, warnings);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString iniPath = dir.filePath(QStringLiteral("etc/orvix.ini"));
    const QString logPath = dir.filePath(QStringLiteral("log/orvix.log"));
    QVERIFY(writeFile(iniPath, ini));
    QDir().mkpath(dir.filePath(QStringLiteral("plugins")));
    qputenv("ORVIX_PLUGINPATH", dir.filePath(QStringLiteral("plugins")).toUtf8());

    Limit *limit = nullptr;
    {
        Core core(false, nullptr, iniPath, logPath, dir.filePath(QStringLiteral("log/orvix.lastlog")));
        core.run();
        for (IProcessor *processor : core.processors()) {
            if (processor->name() == QLatin1String("Limit"))
                limit = dynamic_cast<Limit *>(processor);
        }
        QVERIFY(limit);
        QCOMPARE(limit->waitTime(), waitTime);
        QCOMPARE(limit->keepAliveTime(), keepAliveTime);
        QTimer *timer = limit->findChild<QTimer *>();
        QCOMPARE(timer->isActive(), waitTime != 0);

        if (waitTime != 0) {
            QSignalSpy spy(limit, Processed);
            send(*limit, QVariant::fromValue(general(3)));
            QCOMPARE(spy.count(), 0);
            QTRY_COMPARE_WITH_TIMEOUT(spy.count(), 1, 2000);
            QCOMPARE(spy.first().at(2).toString(), QStringLiteral("Limiter"));
        }
    }
    qunsetenv("ORVIX_PLUGINPATH");

    QStringList limitLines;
    for (const QString &line : logLines(logPath)) {
        if (line.contains(QLatin1String(" limit: ")))
            limitLines.append(line);
    }
    QCOMPARE(limitLines, warnings);
}

void tst_Limit::listKinds()
{
    QTest::addColumn<Kind>("kind");
    QTest::addColumn<QString>("listType");

    QTest::newRow("condition definitions") << ConditionDefinitions << "ConditionDefinitionsV2";
    QTest::newRow("condition values") << ConditionValues << "ConditionDatasV2";
    QTest::newRow("maintenance definitions") << MaintenanceDefinitions << "MaintenanceDefinitionsV1";
    QTest::newRow("maintenance values") << MaintenanceValues << "MaintenanceDatasV1";
}

QTEST_GUILESS_MAIN(tst_Limit)
