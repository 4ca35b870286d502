#ifndef ORVIX_OPCUA_H
#define ORVIX_OPCUA_H

#include "idatasource.h"
#include "imetricsprovider.h"
#include "opcuaclient.h"
#include "settingstable.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QVariant>
#include <QVector>

class OpcUaConnection;

/**
 * A datasource that reads woodworking machines from OPC UA servers: one connection per sub-group of the INI group
 * opcua, each finding the machines of its server and sending their state, nameplate, last program and events as the
 * records of the woodworking model.
 */
class OpcUaDatasource : public QObject, public IDatasource, public IMetricsProvider
{
    Q_OBJECT
    Q_INTERFACES(IDatasource IMetricsProvider)
public:
    /** What a connection's group opcua/<connection> says: the client's options and what to read. */
    struct ConnectionOptions : OpcUaClient::Options
    {
        QStringList machines;
        /** browseName=name pairs. */
        QStringList rename;
        int publishingInterval = 1000;
    };

    /** Every key of a connection's group opcua/<connection>, in the order its sample.ini documents them. */
    static const SettingsTable<ConnectionOptions> &settings();

    explicit OpcUaDatasource(QObject *parent = nullptr);
    ~OpcUaDatasource() override;

    /** Opens every usable connection; false when there is none. Connecting goes on in the background. */
    bool init(const QVariantMap &config, QVariantMap &shared) override;
    /** "opcua". */
    QString name() const override;

    /** The first and the longest pause between two attempts to connect, for connections made by init afterwards. */
    void setBackoff(int first, int longest);
    /** The connections that init opened. */
    const QVector<OpcUaConnection *> &connections() const { return m_connections; }

    /** Each connection by its name in the configuration, for /metrics and /health. */
    QList<Connection> metricsConnections() const override;

signals:
    void dataReceived(QDateTime timestamp, QString machine, QString source, QVariant data);

private:
    void watch(OpcUaConnection *connection, const QString &name, int firstBackoff);

    /** What /metrics and /health say of a connection, kept from its client's signals. */
    struct Watched
    {
        QString name;
        bool up = false;
        quint64 connects = 0;
        qint64 downSince = 0;
        /** Its first attempt and the first pause after it. */
        int firstBackoff = 0;
    };

    QVector<OpcUaConnection *> m_connections;
    QVector<Watched> m_watched;
    QElapsedTimer m_clock;
    int m_firstBackoff = 1000;
    int m_longestBackoff = 60000;
};

#endif
