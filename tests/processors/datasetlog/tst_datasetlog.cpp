#include "datasetlog.h"
#include "logcapture.h"
#include "logcategories.h"

#include <QSignalSpy>
#include <QtTest>

class tst_DatasetLog : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void identity();
    void passesOnUnchangedWithoutLogging();
    void logsWhenDebugIsOn();
    void invalidVariantHasEmptyType();

private:
    LogCapture m_log { QStringLiteral("dataset") };
};

void tst_DatasetLog::init()
{
    m_log.start();
}

void tst_DatasetLog::cleanup()
{
    m_log.stop();
    QLoggingCategory::setFilterRules(QString());
}

void tst_DatasetLog::identity()
{
    DatasetLog log;
    QVariantMap shared;
    QVERIFY(log.init(QVariantMap(), shared));
    QCOMPARE(log.name(), QStringLiteral("Dataset Log"));
    QCOMPARE(log.orderNumber(), 9999u);
    QVERIFY(log.qt_metacast("IProcessor"));
}

void tst_DatasetLog::passesOnUnchangedWithoutLogging()
{
    QLoggingCategory::setFilterRules("*.debug=false");
    DatasetLog log;
    QSignalSpy spy(&log, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    const QDateTime when = QDateTime::fromMSecsSinceEpoch(1000);
    log.processData(when, "m1", "s1", QVariant(42));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.first(), (QVariantList { when, "m1", "s1", 42 }));
    QVERIFY(m_log.startingWith("DEBUG ").isEmpty());
}

void tst_DatasetLog::logsWhenDebugIsOn()
{
    QLoggingCategory::setFilterRules("dataset.debug=true");
    DatasetLog log;
    QSignalSpy spy(&log, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    log.processData(QDateTime(), "m1", "s1", QVariant(1.5));
    QCOMPARE(m_log.startingWith("DEBUG "), QStringList { m_log.debug("Source: s1 Maschine: m1 Dataset: double") });
    QCOMPARE(spy.count(), 1);
}

void tst_DatasetLog::invalidVariantHasEmptyType()
{
    QLoggingCategory::setFilterRules("dataset.debug=true");
    DatasetLog log;
    QSignalSpy spy(&log, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    log.processData(QDateTime(), "m1", "s1", QVariant());
    QCOMPARE(m_log.startingWith("DEBUG "), QStringList { m_log.debug("Source: s1 Maschine: m1 Dataset: ") });
    QCOMPARE(spy.count(), 1);
    QVERIFY(!spy.first().at(3).isValid());
}

QTEST_GUILESS_MAIN(tst_DatasetLog)
#include "tst_datasetlog.moc"
