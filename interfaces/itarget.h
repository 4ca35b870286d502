#ifndef ORVIX_ITARGET_H
#define ORVIX_ITARGET_H

#include <QString>
#include <QVariantMap>
#include <QtPlugin>

/**
 * The interface of a target plugin: it receives every dataset that leaves the processor chain through the slot
 * processData(QDateTime,QString,QString,QVariant) of its QObject and delivers it onward.
 * Optional on that QObject: the signals writeConfig(QString,QVariant) and machineRequest(QString,QVariant).
 */
class ITarget
{
public:
    virtual ~ITarget() = default;

    /** Called once after loading and wiring; false means the plugin cannot work and is discarded. */
    virtual bool init(const QVariantMap &config, QVariantMap &shared) = 0;

    /** The plugin's name, shown in log lines and matched against core/disabledPlugins. */
    virtual QString name() const { return QStringLiteral("ITarget: The compiler doesn't support virtual inlines :("); }
};

Q_DECLARE_INTERFACE(ITarget, "ITarget")

#endif
