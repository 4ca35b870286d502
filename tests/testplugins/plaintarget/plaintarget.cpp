#include "itarget.h"

#include <QDateTime>
#include <QObject>
#include <QVariant>

/** A target with nothing optional: no own name, no requests, no configuration writes. */
class PlainTarget : public QObject, public ITarget
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "ITarget" FILE "plaintarget.json")
    Q_INTERFACES(ITarget)
    Q_PROPERTY(QVariantList received MEMBER m_received)
public:
    bool init(const QVariantMap &, QVariantMap &) override { return true; }

public slots:
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data)
    {
        m_received.append(QVariant(QVariantList { timestamp, machine, source, data }));
    }

private:
    QVariantList m_received;
};

#include "plaintarget.moc"
