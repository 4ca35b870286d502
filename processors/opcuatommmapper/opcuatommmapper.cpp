#include "opcuatommmapper.h"

OpcUaToMMMapper::OpcUaToMMMapper(QObject *parent)
    : QObject(parent)
{
}

bool OpcUaToMMMapper::init(const QVariantMap &, QVariantMap &)
{
    return true;
}

QString OpcUaToMMMapper::name() const
{
    return QStringLiteral("OpcUaToMMMapper");
}

unsigned int OpcUaToMMMapper::orderNumber() const
{
    return 50;
}

void OpcUaToMMMapper::processData(QDateTime timestamp, QString machine, QString source, QVariant data)
{
    emit dataProcessed(timestamp, machine, source, data);
}
