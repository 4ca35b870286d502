#include "licencenotices.h"

#include <iostream>

namespace LicenceNotices {

const QList<Entry> &entries()
{
    static const QList<Entry> list;
    return list;
}

QString text()
{
    QString buffer = QStringLiteral("This orvix may use the following libs with their corresponding licenses:\n");
    for (const Entry &entry : entries())
        buffer += QLatin1Char('\n') + entry.library + QStringLiteral(" licensed under ") + entry.licenceName
            + QStringLiteral(":\n") + entry.text + QStringLiteral("\n\n");
    return buffer;
}

void print()
{
    std::cout << text().toStdString() << std::endl;
}

} // namespace LicenceNotices
