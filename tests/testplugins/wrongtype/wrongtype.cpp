#include "idatasource.h"

#include <QDateTime>
#include <QObject>
#include <QVariant>

/** A datasource whose metadata spells its TYPE in lower case, which the loader must reject. */
class WrongType : public QObject, public IDatasource
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "IDatasource" FILE "wrongtype.json")
    Q_INTERFACES(IDatasource)
public:
    bool init(const QVariantMap &, QVariantMap &) override { return true; }
    QString name() const override { return QStringLiteral("wrongtype"); }

signals:
    void dataReceived(QDateTime timestamp, QString machine, QString source, QVariant data);
};

#include "wrongtype.moc"
