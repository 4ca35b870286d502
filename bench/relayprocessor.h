#ifndef ORVIX_RELAYPROCESSOR_H
#define ORVIX_RELAYPROCESSOR_H

#include "iprocessor.h"

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QVariant>

/**
 * A processor that only re-emits what it receives. Six of them in a chain are the floor: what passing a dataset
 * through six processors costs before any of them does work.
 */
class RelayProcessor : public QObject, public IProcessor
{
    Q_OBJECT
    Q_INTERFACES(IProcessor)
public:
    explicit RelayProcessor(unsigned int orderNumber, QObject *parent = nullptr);

    bool init(const QVariantMap &config, QVariantMap &shared) override;
    QString name() const override;
    unsigned int orderNumber() const override;

signals:
    void dataProcessed(QDateTime timestamp, QString machine, QString source, QVariant data);

public slots:
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data);

private:
    unsigned int m_orderNumber;
};

#endif
