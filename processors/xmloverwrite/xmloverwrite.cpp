#include "xmloverwrite.h"

XmlOverwrite::XmlOverwrite(QObject *parent)
    : QObject(parent)
{
}

bool XmlOverwrite::init(const QVariantMap &, QVariantMap &)
{
    return true;
}

QString XmlOverwrite::name() const
{
    return QStringLiteral("Xml Overwrite");
}

unsigned int XmlOverwrite::orderNumber() const
{
    return 600;
}

void XmlOverwrite::processData(QDateTime timestamp, QString machine, QString source, QVariant data)
{
    emit dataProcessed(timestamp, machine, source, data);
}
