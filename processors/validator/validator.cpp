#include "validator.h"

Validator::Validator(QObject *parent)
    : QObject(parent)
{
}

bool Validator::init(const QVariantMap &, QVariantMap &)
{
    return true;
}

QString Validator::name() const
{
    return QStringLiteral("Validator");
}

unsigned int Validator::orderNumber() const
{
    return 900;
}

void Validator::processData(QDateTime timestamp, QString machine, QString source, QVariant data)
{
    emit dataProcessed(timestamp, machine, source, data);
}
