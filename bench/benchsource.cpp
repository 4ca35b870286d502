#include "benchsource.h"

BenchSource::BenchSource(QObject *parent)
    : QObject(parent)
{
}

void BenchSource::connectTo(QObject *receiver)
{
    QObject::connect(this, SIGNAL(dataReceived(QDateTime, QString, QString, QVariant)), receiver,
        SLOT(processData(QDateTime, QString, QString, QVariant)), Qt::UniqueConnection);
}
