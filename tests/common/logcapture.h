#ifndef ORVIX_LOGCAPTURE_H
#define ORVIX_LOGCAPTURE_H

#include <QElapsedTimer>
#include <QHash>
#include <QLoggingCategory>
#include <QString>
#include <QStringList>
#include <QTest>

/**
 * The log messages of a test, captured through an installed message handler as lines "LEVEL category: message", so
 * that tests compare exact log lines. A test's init() starts the capture and its cleanup() stops it.
 */
class LogCapture
{
public:
    /** A capture whose debug(), info() and warning() build the lines of category, the component under test. */
    explicit LogCapture(const QString &category);
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    /** Forgets what was captured and installs the handler; filterRules, when given, choose what is logged meanwhile. */
    void start(const QString &filterRules = QString());

    /** Puts back the handler that start() replaced, and the default filter rules if start() set others. */
    void stop();

    /**
     * Installs the handler again where other code, such as a Core, has put in its own since start(); stop() still puts
     * back the handler that start() replaced. The filter rules stay as they are.
     */
    void reinstall();

    /** The lines captured since start() or clear(), oldest first. */
    const QStringList &lines() const;
    /** Forgets the lines captured so far, so that a test looks only at what follows. */
    void clear();

    /** The captured lines that start with prefix. */
    QStringList startingWith(const QString &prefix) const;

    /** The captured lines of the category under test: of every level, or of level ("DEBUG", "WARNING" ...) only. */
    QStringList ofComponent(const char *level = nullptr) const;

    /** The captured warnings and worse: every line but the debug and info ones. */
    QStringList warnings() const;

    /** Turns the event loop until line has been captured, for at most timeoutMs; whether it was. */
    bool waitFor(const QString &line, int timeoutMs) const;

    /** The line of message logged at that level in the category of the component under test. */
    QString debug(const QString &message) const { return line("DEBUG", m_category, message); }
    QString info(const QString &message) const { return line("INFO", m_category, message); }
    QString warning(const QString &message) const { return line("WARNING", m_category, message); }

    /**
     * The line that streaming message as a QString at level into category leaves: QDebug quotes the message and
     * escapes the backslashes and double quotes in it.
     */
    static QString line(const char *level, const QString &category, const QString &message);

private:
    static QStringList &captured();
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &message);

    QString m_category;
    QtMessageHandler m_previous = nullptr;
    bool m_started = false;
    bool m_filtered = false;
};

#endif
