#ifndef ORVIX_UNITOVERWRITE_H
#define ORVIX_UNITOVERWRITE_H

#include "iprocessor.h"

#include <QDateTime>
#include <QObject>
#include <QVariant>

/** Replaces units and scales values of condition and maintenance datasets as the configuration says. */
class UnitOverwrite : public QObject, public IProcessor
{
    Q_OBJECT
    Q_INTERFACES(IProcessor)
public:
    explicit UnitOverwrite(QObject *parent = nullptr);

    bool init(const QVariantMap &config, QVariantMap &shared) override;
    QString name() const override;
    unsigned int orderNumber() const override;

signals:
    void dataProcessed(QDateTime timestamp, QString machine, QString source, QVariant data);

public slots:
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data);
};

#endif
