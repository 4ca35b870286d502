#ifndef ORVIX_LOGCLI_H
#define ORVIX_LOGCLI_H

#include <QObject>
#include <cstdio>

/** The console sink: every message as one short, column-aligned line on standard output, flushed at once. */
class LogCli : public QObject
{
    Q_OBJECT
public:
    explicit LogCli(FILE *out = stdout, QObject *parent = nullptr);

    void write(QtMsgType type, const QMessageLogContext &context, const QString &message);

private:
    FILE *m_out;
};

#endif
