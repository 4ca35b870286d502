#include "itarget.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QLoggingCategory>
#include <QObject>
#include <QVariant>

Q_LOGGING_CATEGORY(lcTestTarget, "testtarget")

/** A target that records what it receives and can send requests and configuration writes when told. */
class TestTarget : public QObject, public ITarget
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "ITarget" FILE "testtarget.json")
    Q_INTERFACES(ITarget)
    Q_PROPERTY(int initCalls MEMBER m_initCalls)
    Q_PROPERTY(QVariantList received MEMBER m_received)
    Q_PROPERTY(bool sharedSeen MEMBER m_sharedSeen)
public:
    ~TestTarget() override
    {
        QStringList log = qApp->property("destroyed").toStringList();
        log.append(name());
        qApp->setProperty("destroyed", log);
    }

    bool init(const QVariantMap &config, QVariantMap &shared) override
    {
        ++m_initCalls;
        QStringList inits = qApp->property("inits").toStringList();
        inits.append(QStringLiteral("testtarget"));
        qApp->setProperty("inits", inits);
        m_sharedSeen = shared.contains(QStringLiteral("testsource"));
        const QVariantMap group = config.value(QStringLiteral("testtarget")).toMap();
        m_logReceived = group.value(QStringLiteral("logReceived"), false).toBool();
        if (group.contains(QStringLiteral("requestOnInit")))
            emit machineRequest(QStringLiteral("m1"), group.value(QStringLiteral("requestOnInit")));
        return group.value(QStringLiteral("init"), true).toBool();
    }

    QString name() const override { return QStringLiteral("testtarget"); }

    Q_INVOKABLE void request(const QString &machine, const QVariant &request) { emit machineRequest(machine, request); }
    Q_INVOKABLE void write(const QString &key, const QVariant &value) { emit writeConfig(key, value); }

signals:
    void machineRequest(QString machine, QVariant request);
    void writeConfig(QString key, QVariant value);

public slots:
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data)
    {
        m_received.append(QVariant(QVariantList { timestamp, machine, source, data }));
        if (m_logReceived)
            qCInfo(lcTestTarget) << QStringLiteral("received %1 %2 %3").arg(machine, source, data.toString());
    }

private:
    bool m_logReceived = false;
    int m_initCalls = 0;
    bool m_sharedSeen = false;
    QVariantList m_received;
};

#include "testtarget.moc"
