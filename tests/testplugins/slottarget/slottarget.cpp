#include "itarget.h"

#include <QDateTime>
#include <QObject>
#include <QVariant>

/** A target whose writeConfig is a plain invokable method, which is enough for a target. */
class SlotTarget : public QObject, public ITarget
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "ITarget" FILE "slottarget.json")
    Q_INTERFACES(ITarget)
public:
    bool init(const QVariantMap &, QVariantMap &) override { return true; }
    QString name() const override { return QStringLiteral("slottarget"); }

    Q_INVOKABLE void writeConfig(QString, QVariant) { }

public slots:
    void processData(QDateTime, QString, QString, QVariant) { }
};

#include "slottarget.moc"
