#include "messagehandler.h"

#include "logcli.h"
#include "logfile.h"

namespace {

LogFile *s_file = nullptr;
LogCli *s_cli = nullptr;

void handleMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (s_file)
        s_file->write(type, context, message);
    if (s_cli)
        s_cli->write(type, context, message);
}

} // namespace

namespace MessageHandler {

void install(LogFile *file, LogCli *cli)
{
    s_file = file;
    s_cli = cli;
    qInstallMessageHandler(handleMessage);
}

void restore()
{
    qInstallMessageHandler(nullptr);
}

QString levelWord(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return QStringLiteral("DEBUG");
    case QtWarningMsg:
        return QStringLiteral("WARNING");
    case QtCriticalMsg:
        return QStringLiteral("CRITICAL");
    case QtFatalMsg:
        return QStringLiteral("FATAL");
    case QtInfoMsg:
        return QStringLiteral("INFO");
    }
    return QString();
}

} // namespace MessageHandler
