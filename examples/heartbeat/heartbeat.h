#ifndef HEARTBEAT_H
#define HEARTBEAT_H

#include <idatasource.h>

#include <QDateTime>
#include <QObject>
#include <QTimer>
#include <QVariant>

/** A minimal orvix datasource: it reports one machine as working, once a second. */
class Heartbeat : public QObject, public IDatasource
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "IDatasource" FILE "heartbeat.json")
    Q_INTERFACES(IDatasource)
public:
    bool init(const QVariantMap &config, QVariantMap &shared) override;
    QString name() const override { return QStringLiteral("heartbeat"); }

signals:
    void dataReceived(QDateTime timestamp, QString machine, QString source, QVariant data);

private:
    QTimer m_timer;
    QString m_machine;
};

#endif
