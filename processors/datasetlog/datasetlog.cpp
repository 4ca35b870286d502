#include "datasetlog.h"

#include "logcategories.h"

DatasetLog::DatasetLog(QObject *parent)
    : QObject(parent)
{
}

bool DatasetLog::init(const QVariantMap &, QVariantMap &)
{
    return true;
}

QString DatasetLog::name() const
{
    return QStringLiteral("Dataset Log");
}

unsigned int DatasetLog::orderNumber() const
{
    return 9999;
}

void DatasetLog::processData(
    const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    // qCDebug only evaluates its arguments when the category's debug output is on.
    qCDebug(lcDataset) << QStringLiteral("Source: %1 Maschine: %2 Dataset: %3")
                              .arg(source, machine, QString::fromLatin1(data.typeName()));
    emit dataProcessed(timestamp, machine, source, data);
}
