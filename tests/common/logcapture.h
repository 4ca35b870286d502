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
    explicit LogCapture(const QString &category)
        : m_category(category)
    {
    }
    ~LogCapture() { stop(); }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    /** Forgets what was captured and installs the handler; filterRules, when given, choose what is logged meanwhile. */
    void start(const QString &filterRules = QString())
    {
        captured().clear();
        m_filtered = !filterRules.isEmpty();
        if (m_filtered)
            QLoggingCategory::setFilterRules(filterRules);
        m_previous = qInstallMessageHandler(handler);
        m_started = true;
    }

    /** Puts back the handler that start() replaced, and the default filter rules if start() set others. */
    void stop()
    {
        if (!m_started)
            return;
        qInstallMessageHandler(m_previous);
        if (m_filtered)
            QLoggingCategory::setFilterRules(QString());
        m_started = false;
    }

    /**
     * Installs the handler again where other code, such as a Core, has put in its own since start(); stop() still puts
     * back the handler that start() replaced. The filter rules stay as they are.
     */
    void reinstall() { qInstallMessageHandler(handler); }

    /** The lines captured since start() or clear(), oldest first. */
    const QStringList &lines() const { return captured(); }
    /** Forgets the lines captured so far, so that a test looks only at what follows. */
    void clear() { captured().clear(); }

    /** The captured lines that start with prefix. */
    QStringList startingWith(const QString &prefix) const
    {
        QStringList found;
        for (const QString &line : captured()) {
            if (line.startsWith(prefix))
                found.append(line);
        }
        return found;
    }

    /** The captured lines of the category under test: of every level, or of level ("DEBUG", "WARNING" ...) only. */
    QStringList ofComponent(const char *level = nullptr) const
    {
        const QString own = m_category + QLatin1String(": ");
        QStringList found;
        for (const QString &line : captured()) {
            const int space = line.indexOf(QLatin1Char(' '));
            if (line.midRef(space + 1).startsWith(own) && (!level || line.leftRef(space) == QLatin1String(level)))
                found.append(line);
        }
        return found;
    }

    /** The captured warnings and worse: every line but the debug and info ones. */
    QStringList warnings() const
    {
        QStringList found;
        for (const QString &line : captured()) {
            if (!line.startsWith(QLatin1String("DEBUG")) && !line.startsWith(QLatin1String("INFO")))
                found.append(line);
        }
        return found;
    }

    /** Turns the event loop until line has been captured, for at most timeoutMs; whether it was. */
    bool waitFor(const QString &line, int timeoutMs) const
    {
        QElapsedTimer clock;
        clock.start();
        while (!captured().contains(line) && clock.elapsed() < timeoutMs)
            QTest::qWait(10);
        return captured().contains(line);
    }

    /** The line of message logged at that level in the category of the component under test. */
    QString debug(const QString &message) const { return line("DEBUG", m_category, message); }
    QString info(const QString &message) const { return line("INFO", m_category, message); }
    QString warning(const QString &message) const { return line("WARNING", m_category, message); }

    /**
     * The line that streaming message as a QString at level into category leaves: QDebug quotes the message and
     * escapes the backslashes and double quotes in it.
     */
    static QString line(const char *level, const QString &category, const QString &message)
    {
        QString escaped = message;
        escaped.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
        escaped.replace(QLatin1Char('"'), QLatin1String("\\\""));
        return QStringLiteral("%1 %2: \"%3\"").arg(QLatin1String(level), category, escaped);
    }

private:
    static QStringList &captured()
    {
        static QStringList lines;
        return lines;
    }

    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
    {
        static const QHash<QtMsgType, QString> levels { { QtDebugMsg, "DEBUG" }, { QtInfoMsg, "INFO" },
            { QtWarningMsg, "WARNING" }, { QtCriticalMsg, "CRITICAL" }, { QtFatalMsg, "FATAL" } };
        captured().append(
            QStringLiteral("%1 %2: %3").arg(levels.value(type), QString::fromUtf8(context.category), message));
    }

    QString m_category;
    QtMessageHandler m_previous = nullptr;
    bool m_started = false;
    bool m_filtered = false;
};

#endif
