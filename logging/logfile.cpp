#include "logfile.h"

#include "logcategories.h"
#include "messagehandler.h"

#include <QDate>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTextStream>

LogFile::LogFile(const QString &defaultFileName, const QString &defaultOldCopy, QObject *parent)
    : QObject(parent)
    , m_defaultFileName(defaultFileName)
    , m_defaultOldCopy(defaultOldCopy)
    , m_fileName(defaultFileName)
    , m_oldCopy(defaultOldCopy)
{
}

LogFile::~LogFile()
{
    delete m_file;
}

void LogFile::configure(const QVariantMap &config)
{
    const QVariantMap group = config.value(QStringLiteral("logfile")).toMap();
    m_fileName = group.value(QStringLiteral("filename"), m_defaultFileName).toString();
    m_oldCopy = group.value(QStringLiteral("oldcopy"), m_defaultOldCopy).toString();
    m_maxSize = DefaultMaxSize;
    if (group.contains(QStringLiteral("maxSize"))) {
        // A limit of 0 from a typo would rotate at every message and keep only the last one.
        bool ok = false;
        const quint64 maxSize = group.value(QStringLiteral("maxSize")).toULongLong(&ok);
        if (ok)
            m_maxSize = maxSize;
        else
            qCWarning(lcLogFile) << QStringLiteral("maxSize \"%1\" is not a number, using %2")
                                        .arg(group.value(QStringLiteral("maxSize")).toString())
                                        .arg(DefaultMaxSize);
    }
    openAndRotate();
    // Kept as configured, but said once: a limit this small starts a new file, and drops the previous copy, at almost
    // every message.
    if (m_maxSize < TinyMaxSize)
        qCWarning(lcLogFile) << QStringLiteral("maxSize %1 is smaller than most messages: each longer message starts a "
                                               "new log file and only the last of them is kept as the old copy")
                                    .arg(m_maxSize);
}

void LogFile::openAndRotate()
{
    if (m_file) {
        m_file->close();
        delete m_file;
        m_file = nullptr;
    }

    if (QFile::exists(m_fileName)) {
        QString oldName = m_oldCopy;
        oldName.replace(QStringLiteral("[date]"), QDate::currentDate().toString(QStringLiteral("yyyy-MM-dd")));
        if (QFile::exists(oldName))
            QFile::remove(oldName);
        QFile::rename(m_fileName, oldName);
    }

    m_file = new QFile(m_fileName);
    const QString dirPath = QFileInfo(m_fileName).absolutePath();
    if (!QDir(dirPath).exists() && !QDir().mkpath(dirPath))
        qCWarning(lcLogFile) << "Creating" << dirPath << "failed.";

    // An unopenable file only costs the file's lines; the console keeps working.
    // Append on top of truncating: every write goes to the file's end, so after logrotate's copytruncate the next
    // line starts the emptied file instead of leaving a hole of NUL bytes up to the old offset.
    m_file->open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Append | QIODevice::Text);
    m_written = 0;
}

void LogFile::write(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (!m_file || !m_file->isOpen())
        return;

    // The counter is never advanced by writing, so only a single message longer than the limit rotates.
    if (quint64(message.length()) + m_written > m_maxSize)
        openAndRotate();
    if (!m_file->isOpen())
        return;

    QTextStream stream(m_file);
    stream.setCodec("UTF-8");
    stream << QStringLiteral("%1 %2 %3: %4\n")
                  .arg(QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")),
                      MessageHandler::levelWord(type), QString::fromUtf8(context.category ? context.category : ""),
                      message);
}
