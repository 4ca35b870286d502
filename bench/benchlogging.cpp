#include "benchlogging.h"

#include <QLoggingCategory>
#include <QString>
#include <QtGlobal>

#include <atomic>

namespace {

std::atomic<int> s_warnings { 0 };

void quietHandler(QtMsgType type, const QMessageLogContext &, const QString &)
{
    if (type != QtDebugMsg && type != QtInfoMsg)
        ++s_warnings;
}

} // namespace

namespace BenchLogging {

void filterDebugAndInfo()
{
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false\n*.info=false"));
}

void silence()
{
    qInstallMessageHandler(quietHandler);
}

int warnings()
{
    return s_warnings.load();
}

} // namespace BenchLogging
