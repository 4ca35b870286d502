#ifndef ORVIX_IDATASOURCE_H
#define ORVIX_IDATASOURCE_H

#include <QString>
#include <QVariantMap>
#include <QtPlugin>

/**
 * The interface of a datasource plugin: it collects machine data and hands each dataset to the service
 * through the signal dataReceived(QDateTime,QString,QString,QVariant) of its QObject.
 * Optional on that QObject: the signal writeConfig(QString,QVariant) and the slot machineRequest(QString,QVariant).
 */
class IDatasource
{
public:
    virtual ~IDatasource() = default;

    /** Called once after loading and wiring; false means the plugin cannot work and is discarded. */
    virtual bool init(const QVariantMap &config, QVariantMap &shared) = 0;

    /** The plugin's name, shown in log lines and matched against core/disabledPlugins. */
    virtual QString name() const
    {
        return QStringLiteral("IDatasource: The compiler doesn't support virtual inlines :(");
    }
};

Q_DECLARE_INTERFACE(IDatasource, "IDatasource")

#endif
