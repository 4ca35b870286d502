#ifndef ORVIX_LOGFILE_H
#define ORVIX_LOGFILE_H

#include <QObject>
#include <QString>
#include <QVariantMap>

class QFile;

/** The log file sink: one line per message, the previous file moved aside at start. */
class LogFile : public QObject
{
    Q_OBJECT
public:
    explicit LogFile(const QString &defaultFileName = QStringLiteral("/var/log/orvix/orvix.log"),
        const QString &defaultOldCopy = QStringLiteral("/var/log/orvix/orvix.lastlog"), QObject *parent = nullptr);
    ~LogFile() override;

    /** Reads the logfile group of the configuration and opens the file, moving an existing one aside. */
    void configure(const QVariantMap &config);

    void write(QtMsgType type, const QMessageLogContext &context, const QString &message);

private:
    void openAndRotate();

    QString m_defaultFileName;
    QString m_defaultOldCopy;
    QString m_fileName;
    QString m_oldCopy;
    static constexpr quint64 DefaultMaxSize = 52428800;
    /** Limits below this many characters are warned about at start: most messages are longer. */
    static constexpr quint64 TinyMaxSize = 1024;

    quint64 m_maxSize = DefaultMaxSize;
    quint64 m_written = 0;
    QFile *m_file = nullptr;
};

#endif
