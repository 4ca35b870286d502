#include "stateflags.h"

#include <type_traits>

namespace TestSupport {

WwStateFlags withFlags(WwStateFlags flags, const QString &settings)
{
    const QStringList parts = settings.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    for (const QString &setting : parts) {
        const QString name = setting.section(QLatin1Char('='), 0, 0);
        const QString value = setting.section(QLatin1Char('='), 1);
        bool found = false;
        WwStateFlags::visitFields([&](const char *fieldName, auto member) {
            if (name != QLatin1String(fieldName))
                return;
            found = true;
            if constexpr (std::is_same_v<decltype(member), std::optional<bool> WwStateFlags::*>) {
                if (value == QLatin1String("-"))
                    flags.*member = std::nullopt;
                else
                    flags.*member = value == QLatin1String("1");
            } else {
                flags.*member = value == QLatin1String("1");
            }
        });
        if (!found)
            qFatal("Unknown flag %s in test data", qPrintable(name));
    }
    return flags;
}

} // namespace TestSupport
