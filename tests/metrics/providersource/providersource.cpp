#include "idatasource.h"
#include "imetricsprovider.h"

#include <QObject>
#include <QVariant>

/** A datasource that reports one connection and one value, in the states its configuration group names. */
class ProviderSource : public QObject, public IDatasource, public IMetricsProvider
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "IDatasource" FILE "providersource.json")
    Q_INTERFACES(IDatasource IMetricsProvider)
public:
    bool init(const QVariantMap &config, QVariantMap &) override
    {
        m_group = config.value(QStringLiteral("providersource")).toMap();
        return true;
    }

    QString name() const override { return QStringLiteral("providersource"); }

    QList<Connection> metricsConnections() const override
    {
        Connection connection;
        connection.name = QStringLiteral("tcp://broker:1883");
        connection.up = m_group.value(QStringLiteral("up"), true).toBool();
        connection.starting = m_group.value(QStringLiteral("starting"), false).toBool();
        connection.reconnects = 3;
        return { connection };
    }

    QList<Value> metricsValues() const override
    {
        Value spool;
        spool.name = "orvix_providersource_spool_records";
        spool.help = "Records waiting in the spool.";
        spool.value = 42;
        spool.labels = { { "connection", QStringLiteral("tcp://broker:1883") } };
        return { spool };
    }

signals:
    void dataReceived(QDateTime timestamp, QString machine, QString source, QVariant data);

private:
    QVariantMap m_group;
};

#include "providersource.moc"
