#ifndef ORVIX_VALIDATOR_H
#define ORVIX_VALIDATOR_H

#include "iprocessor.h"

#include <QDateTime>
#include <QObject>
#include <QVariant>

/** Drops invalid MM datasets and repairs the ones it can. */
class Validator : public QObject, public IProcessor
{
    Q_OBJECT
    Q_INTERFACES(IProcessor)
public:
    explicit Validator(QObject *parent = nullptr);

    bool init(const QVariantMap &config, QVariantMap &shared) override;
    QString name() const override;
    unsigned int orderNumber() const override;

signals:
    void dataProcessed(QDateTime timestamp, QString machine, QString source, QVariant data);

public slots:
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data);
};

#endif
