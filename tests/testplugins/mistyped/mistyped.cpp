#include "idatasource.h"

#include <QDateTime>
#include <QObject>
#include <QVariant>

/** A datasource whose metadata calls it a target, which the loader must not use as one. */
class Mistyped : public QObject, public IDatasource
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "IDatasource" FILE "mistyped.json")
    Q_INTERFACES(IDatasource)
public:
    bool init(const QVariantMap &, QVariantMap &) override { return true; }
    QString name() const override { return QStringLiteral("mistyped"); }

signals:
    void dataReceived(QDateTime timestamp, QString machine, QString source, QVariant data);
};

#include "mistyped.moc"
