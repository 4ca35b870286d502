#include "unitoverwrite.h"

UnitOverwrite::UnitOverwrite(QObject *parent)
    : QObject(parent)
{
}

bool UnitOverwrite::init(const QVariantMap &, QVariantMap &)
{
    return true;
}

QString UnitOverwrite::name() const
{
    return QStringLiteral("Unit Overwrite");
}

unsigned int UnitOverwrite::orderNumber() const
{
    return 500;
}

void UnitOverwrite::processData(QDateTime timestamp, QString machine, QString source, QVariant data)
{
    emit dataProcessed(timestamp, machine, source, data);
}
