#include "messagehandler.h"

#include "logcli.h"
#include "logfile.h"

#include <QMutex>

namespace {

LogFile *s_file = nullptr;
LogCli *s_cli = nullptr;

// Warnings are rare next to datasets, and any thread may log one: a lock is cheap enough here.
QMutex s_warningsMutex;
QHash<QByteArray, quint64> s_warnings;

void countWarning(const char *category)
{
    const QByteArray name = QByteArray::fromRawData(category ? category : "default", category ? qstrlen(category) : 7);
    QMutexLocker locker(&s_warningsMutex);
    auto it = s_warnings.find(name);
    if (it == s_warnings.end())
        it = s_warnings.insert(QByteArray(name.constData(), name.size()), 0);
    ++*it;
}

void handleMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (type == QtWarningMsg)
        countWarning(context.category);
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

QHash<QByteArray, quint64> warningCounts()
{
    QMutexLocker locker(&s_warningsMutex);
    return s_warnings;
}

} // namespace MessageHandler
