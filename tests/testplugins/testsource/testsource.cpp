#include "idatasource.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QLoggingCategory>
#include <QMetaMethod>
#include <QObject>
#include <QTimer>
#include <QVariant>

Q_LOGGING_CATEGORY(lcTestSource, "testsource")

/** A datasource driven by the test: it sends what it is told and records requests and its own life. */
class TestSource : public QObject, public IDatasource
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "IDatasource" FILE "testsource.json")
    Q_INTERFACES(IDatasource)
    Q_PROPERTY(int initCalls MEMBER m_initCalls)
    Q_PROPERTY(QVariantList requests MEMBER m_requests)
public:
    ~TestSource() override
    {
        // Core restores Qt's own message handler before it deletes plugins: this line must not reach orvix's log.
        qCWarning(lcTestSource) << "testsource deleted";
        QStringList log = qApp->property("destroyed").toStringList();
        log.append(name());
        qApp->setProperty("destroyed", log);
    }

    bool init(const QVariantMap &config, QVariantMap &shared) override
    {
        ++m_initCalls;
        recordInit(QStringLiteral("testsource:%1")
                       .arg(isSignalConnected(QMetaMethod::fromSignal(&TestSource::dataReceived)) ? "connected"
                                                                                                  : "unconnected"));
        shared.insert(QStringLiteral("testsource"), true);
        const QVariantMap group = config.value(QStringLiteral("testsource")).toMap();
        // Lets a test of the real binary see a dataset flow without driving the plugin from outside.
        if (group.contains(QStringLiteral("sendOnInit"))) {
            const QVariant payload = group.value(QStringLiteral("sendOnInit"));
            QTimer::singleShot(0, this, [this, payload] {
                send(QDateTime::currentDateTime(), QStringLiteral("m1"), QStringLiteral("src"), payload);
            });
        }
        if (group.contains(QStringLiteral("writeOnInit")))
            emit writeConfig(QStringLiteral("testsource/written"), group.value(QStringLiteral("writeOnInit")));
        return group.value(QStringLiteral("init"), true).toBool();
    }

    QString name() const override { return QStringLiteral("testsource"); }

    Q_INVOKABLE void send(
        const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
    {
        emit dataReceived(timestamp, machine, source, data);
    }

signals:
    void dataReceived(QDateTime timestamp, QString machine, QString source, QVariant data);
    void writeConfig(QString key, QVariant value);

public slots:
    void machineRequest(QString machine, QVariant request)
    {
        m_requests.append(QVariant(QVariantList { machine, request }));
    }

private:
    static void recordInit(const QString &entry)
    {
        QStringList inits = qApp->property("inits").toStringList();
        inits.append(entry);
        qApp->setProperty("inits", inits);
    }

    int m_initCalls = 0;
    QVariantList m_requests;
};

#include "testsource.moc"
