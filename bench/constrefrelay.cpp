#include "constrefrelay.h"

ConstRefRelay::ConstRefRelay(unsigned int orderNumber, QObject *parent)
    : QObject(parent)
    , m_orderNumber(orderNumber)
{
}

bool ConstRefRelay::init(const QVariantMap &, QVariantMap &)
{
    return true;
}

QString ConstRefRelay::name() const
{
    return QStringLiteral("Const reference relay %1").arg(m_orderNumber);
}

unsigned int ConstRefRelay::orderNumber() const
{
    return m_orderNumber;
}

void ConstRefRelay::processData(
    const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    emit dataProcessed(timestamp, machine, source, data);
}
