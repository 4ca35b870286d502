#ifndef ORVIX_OPCUA_H
#define ORVIX_OPCUA_H

#include "idatasource.h"
#include "settingsgroup.h"

#include <QDateTime>
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
class OpcUaDatasource : public QObject, public IDatasource
{
    Q_OBJECT
    Q_INTERFACES(IDatasource)
public:
    /** Every key of a connection's group opcua/<connection>, in the order its sample.ini documents them. */
    static const QVector<SettingKey> &settings();

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

signals:
    void dataReceived(QDateTime timestamp, QString machine, QString source, QVariant data);

private:
    QVector<OpcUaConnection *> m_connections;
    int m_firstBackoff = 1000;
    int m_longestBackoff = 60000;
};

#endif
