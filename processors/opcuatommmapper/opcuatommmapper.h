#ifndef ORVIX_OPCUATOMMMAPPER_H
#define ORVIX_OPCUATOMMMAPPER_H

#include "iprocessor.h"

#include <QDateTime>
#include <QObject>
#include <QVariant>

struct WwState;

/** Turns a machine's OPC UA woodworking data into MM datasets; passes every other dataset on. */
class OpcUaToMMMapper : public QObject, public IProcessor
{
    Q_OBJECT
    Q_INTERFACES(IProcessor)
public:
    explicit OpcUaToMMMapper(QObject *parent = nullptr);

    bool init(const QVariantMap &config, QVariantMap &shared) override;
    QString name() const override;
    unsigned int orderNumber() const override;

signals:
    void dataProcessed(QDateTime timestamp, QString machine, QString source, QVariant data);

public slots:
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data);

private:
    void mapState(const QDateTime &timestamp, const QString &machine, const QString &source, const WwState &state);
    void mapOperatingData(const QDateTime &timestamp, const QString &machine, const QString &source,
                          const WwState &state);
};

#endif
