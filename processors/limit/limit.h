#ifndef ORVIX_LIMIT_H
#define ORVIX_LIMIT_H

#include "iprocessor.h"

#include <QDateTime>
#include <QObject>
#include <QVariant>

/** Drops repeated datasets and rate-limits bulky ones. */
class Limit : public QObject, public IProcessor
{
    Q_OBJECT
    Q_INTERFACES(IProcessor)
public:
    explicit Limit(QObject *parent = nullptr);

    bool init(const QVariantMap &config, QVariantMap &shared) override;
    QString name() const override;
    unsigned int orderNumber() const override;

signals:
    void dataProcessed(QDateTime timestamp, QString machine, QString source, QVariant data);

public slots:
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data);
};

#endif
