#include "benchsink.h"

BenchSink::BenchSink(QObject *parent)
    : QObject(parent)
{
}

void BenchSink::connectFrom(QObject *sender)
{
    QObject::connect(sender, SIGNAL(dataProcessed(QDateTime, QString, QString, QVariant)), this,
        SLOT(processData(QDateTime, QString, QString, QVariant)), Qt::UniqueConnection);
}

void BenchSink::processData(QDateTime, QString, QString, QVariant)
{
    ++m_count;
}
