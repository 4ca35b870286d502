#ifndef ORVIX_DATASETLOG_H
#define ORVIX_DATASETLOG_H

#include "iprocessor.h"

#include <QDateTime>
#include <QObject>
#include <QVariant>

/** The last processor of the chain: traces every dataset that reaches the targets and passes it on unchanged. */
class DatasetLog : public QObject, public IProcessor
{
    Q_OBJECT
    Q_INTERFACES(IProcessor)
public:
    explicit DatasetLog(QObject *parent = nullptr);

    bool init(const QVariantMap &config, QVariantMap &shared) override;
    QString name() const override;
    unsigned int orderNumber() const override;

signals:
    void dataProcessed(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

public slots:
    void processData(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);
};

#endif
