#include "idatasource.h"

#include <QDateTime>
#include <QObject>
#include <QVariant>

// Defined nowhere: the dynamic linker refuses the library when it is loaded, after its metadata has been read.
extern int orvix_symbol_that_no_library_defines;

/** A datasource with valid metadata whose library cannot be loaded, so no root object can be created. */
class NoInstance : public QObject, public IDatasource
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "IDatasource" FILE "noinstance.json")
    Q_INTERFACES(IDatasource)
public:
    bool init(const QVariantMap &, QVariantMap &) override { return orvix_symbol_that_no_library_defines != 0; }
    QString name() const override { return QStringLiteral("noinstance"); }

signals:
    void dataReceived(QDateTime timestamp, QString machine, QString source, QVariant data);
};

#include "noinstance.moc"
