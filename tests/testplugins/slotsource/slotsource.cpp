#include "idatasource.h"

#include <QDateTime>
#include <QObject>
#include <QVariant>

/**
 * A datasource whose writeConfig is a slot and whose machineRequest is a signal: neither counts, since a datasource
 * writes the configuration through a signal and receives requests through a slot.
 */
class SlotSource : public QObject, public IDatasource
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "IDatasource" FILE "slotsource.json")
    Q_INTERFACES(IDatasource)
public:
    bool init(const QVariantMap &, QVariantMap &) override { return true; }
    QString name() const override { return QStringLiteral("slotsource"); }

signals:
    void dataReceived(QDateTime timestamp, QString machine, QString source, QVariant data);
    void machineRequest(QString machine, QVariant request);

public slots:
    void writeConfig(QString, QVariant) { }
};

#include "slotsource.moc"
