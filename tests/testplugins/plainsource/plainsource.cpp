#include "idatasource.h"

#include <QDateTime>
#include <QObject>
#include <QVariant>

/** A datasource with nothing optional: no own name, no request slot, no configuration writes. */
class PlainSource : public QObject, public IDatasource
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "IDatasource" FILE "plainsource.json")
    Q_INTERFACES(IDatasource)
public:
    bool init(const QVariantMap &, QVariantMap &) override { return true; }

    Q_INVOKABLE void send(
        const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
    {
        emit dataReceived(timestamp, machine, source, data);
    }

signals:
    void dataReceived(QDateTime timestamp, QString machine, QString source, QVariant data);
};

#include "plainsource.moc"
