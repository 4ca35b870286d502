#ifndef ORVIX_XMLOVERWRITE_H
#define ORVIX_XMLOVERWRITE_H

#include "iprocessor.h"

#include <QDateTime>
#include <QObject>
#include <QVariant>

/** Replaces maintenance comments from each machine's XML comment file. */
class XmlOverwrite : public QObject, public IProcessor
{
    Q_OBJECT
    Q_INTERFACES(IProcessor)
public:
    explicit XmlOverwrite(QObject *parent = nullptr);

    bool init(const QVariantMap &config, QVariantMap &shared) override;
    QString name() const override;
    unsigned int orderNumber() const override;

signals:
    void dataProcessed(QDateTime timestamp, QString machine, QString source, QVariant data);

public slots:
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data);
};

#endif
