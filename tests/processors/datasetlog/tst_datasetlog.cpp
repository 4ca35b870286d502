#include "datasetlog.h"
#include "logcategories.h"

#include <QSignalSpy>
#include <QtTest>

namespace {

QStringList s_captured;

void capture(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (type == QtDebugMsg)
        s_captured.append(QString::fromUtf8(context.category) + QLatin1Char(' ') + message);
}

} // namespace

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
    QtMessageHandler m_previous = nullptr;
};

void tst_DatasetLog::init()
{
    s_captured.clear();
    m_previous = qInstallMessageHandler(capture);
}

void tst_DatasetLog::cleanup()
{
    qInstallMessageHandler(m_previous);
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
    QVERIFY(s_captured.isEmpty());
}

void tst_DatasetLog::logsWhenDebugIsOn()
{
    QLoggingCategory::setFilterRules("dataset.debug=true");
    DatasetLog log;
    QSignalSpy spy(&log, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    log.processData(QDateTime(), "m1", "s1", QVariant(1.5));
    QCOMPARE(s_captured, QStringList { "dataset \"Source: s1 Maschine: m1 Dataset: double\"" });
    QCOMPARE(spy.count(), 1);
}

void tst_DatasetLog::invalidVariantHasEmptyType()
{
    QLoggingCategory::setFilterRules("dataset.debug=true");
    DatasetLog log;
    QSignalSpy spy(&log, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)));
    log.processData(QDateTime(), "m1", "s1", QVariant());
    QCOMPARE(s_captured, QStringList { "dataset \"Source: s1 Maschine: m1 Dataset: \"" });
    QCOMPARE(spy.count(), 1);
    QVERIFY(!spy.first().at(3).isValid());
}

QTEST_GUILESS_MAIN(tst_DatasetLog)
#include "tst_datasetlog.moc"
