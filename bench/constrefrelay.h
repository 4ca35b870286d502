#ifndef ORVIX_CONSTREFRELAY_H
#define ORVIX_CONSTREFRELAY_H

#include "iprocessor.h"

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QVariant>

/**
 * The relay processor with its signal and slot taking const references. The normalised signatures are the same as
 * with values, so Core connects it the same way; six of them show what the floor would be without the copies.
 */
class ConstRefRelay : public QObject, public IProcessor
{
    Q_OBJECT
    Q_INTERFACES(IProcessor)
public:
    explicit ConstRefRelay(unsigned int orderNumber, QObject *parent = nullptr);

    bool init(const QVariantMap &config, QVariantMap &shared) override;
    QString name() const override;
    unsigned int orderNumber() const override;

signals:
    void dataProcessed(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

public slots:
    void processData(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

private:
    unsigned int m_orderNumber;
};

#endif
