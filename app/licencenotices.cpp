#include "licencenotices.h"

#include "licencetexts.h"

#include <cstring>
#include <iostream>

namespace LicenceNotices {

namespace {

// Built during static initialisation from constant arrays, so the list is complete before main runs and
// does not depend on the initialisation order of other translation units.
const QList<Entry> s_entries = {
    { QStringLiteral("Qt"), QStringLiteral("LGPLv3"), QString::fromUtf8(LicenceTexts::lgpl_3) },
    { QStringLiteral("MinGW"), QStringLiteral("MinGW license"), QString::fromUtf8(LicenceTexts::mingw_w64_runtime) },
    { QStringLiteral("tl_optional"), QStringLiteral("Creative Commons Legal Code"),
        QString::fromUtf8(LicenceTexts::cc0_1_0) },
    { QStringLiteral("snap7"), QStringLiteral("LGPLv3"), QString::fromUtf8(LicenceTexts::lgpl_3) },
    { QStringLiteral("curl"), QStringLiteral("Curl license"), QString::fromUtf8(LicenceTexts::curl) },
    { QStringLiteral("openssl"), QStringLiteral("OpenSSL license"), QString::fromUtf8(LicenceTexts::openssl) },
    { QStringLiteral("qtcurl"), QStringLiteral("Unlicense"), QString::fromUtf8(LicenceTexts::unlicense) },
};

} // namespace

const QList<Entry> &entries()
{
    return s_entries;
}

bool requested(int argc, char **argv)
{
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "-l") == 0)
            return true;
    }
    return false;
}

QString text()
{
    QString buffer = QStringLiteral("This orvix may use the following libs with their corresponding licenses:\n");
    for (const Entry &entry : s_entries)
        buffer += QLatin1Char('\n') + entry.library + QStringLiteral(" licensed under ") + entry.licenceName
            + QStringLiteral(":\n") + entry.text + QStringLiteral("\n\n");
    return buffer;
}

void print()
{
    // std::endl supplies the closing line end and the flush.
    std::cout << text().toStdString() << std::endl;
}

} // namespace LicenceNotices
