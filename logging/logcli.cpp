#include "logcli.h"

#include "messagehandler.h"

#include <QTime>

LogCli::LogCli(FILE *out, QObject *parent)
    : QObject(parent)
    , m_out(out)
{
}

void LogCli::write(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const QString line = QTime::currentTime().toString(QStringLiteral("HH:mm:ss"))
        + MessageHandler::levelWord(type).rightJustified(9, QLatin1Char(' '))
        + QString::fromUtf8(context.category ? context.category : "").rightJustified(20, QLatin1Char(' '))
        + QLatin1Char(' ') + message + QLatin1Char('\n');
    const QByteArray bytes = line.toUtf8();
    fwrite(bytes.constData(), 1, size_t(bytes.size()), m_out);
    fflush(m_out);
}
