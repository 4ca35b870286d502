#include "relayprocessor.h"

RelayProcessor::RelayProcessor(unsigned int orderNumber, QObject *parent)
    : QObject(parent)
    , m_orderNumber(orderNumber)
{
}

bool RelayProcessor::init(const QVariantMap &, QVariantMap &)
{
    return true;
}

QString RelayProcessor::name() const
{
    return QStringLiteral("Relay %1").arg(m_orderNumber);
}

unsigned int RelayProcessor::orderNumber() const
{
    return m_orderNumber;
}

void RelayProcessor::processData(QDateTime timestamp, QString machine, QString source, QVariant data)
{
    emit dataProcessed(timestamp, machine, source, data);
}
