#ifndef ORVIX_MESSAGEHANDLER_H
#define ORVIX_MESSAGEHANDLER_H

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QtGlobal>

class LogCli;
class LogFile;

/** The process-wide message handler: every message the category filters let through goes to both sinks. */
namespace MessageHandler {

/** Makes the two sinks the receivers of every message and installs the handler. */
void install(LogFile *file, LogCli *cli);

/** Restores Qt's default handler; the sinks receive nothing after this. */
void restore();

/** The word both sinks print for a message level, empty for an unknown level. */
QString levelWord(QtMsgType type);

/** How many warnings the handler passed on since the process started, by logging category. */
QHash<QByteArray, quint64> warningCounts();

} // namespace MessageHandler

#endif
