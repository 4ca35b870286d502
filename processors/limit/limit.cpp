#include "limit.h"

Limit::Limit(QObject *parent)
    : QObject(parent)
{
}

bool Limit::init(const QVariantMap &, QVariantMap &)
{
    return true;
}

QString Limit::name() const
{
    return QStringLiteral("Limit");
}

unsigned int Limit::orderNumber() const
{
    return 1000;
}

void Limit::processData(QDateTime timestamp, QString machine, QString source, QVariant data)
{
    emit dataProcessed(timestamp, machine, source, data);
}
