#include "logcapture.h"

LogCapture::LogCapture(const QString &category)
    : m_category(category)
{
}

LogCapture::~LogCapture()
{
    stop();
}

void LogCapture::start(const QString &filterRules)
{
    captured().clear();
    m_filtered = !filterRules.isEmpty();
    if (m_filtered)
        QLoggingCategory::setFilterRules(filterRules);
    m_previous = qInstallMessageHandler(handler);
    m_started = true;
}

void LogCapture::stop()
{
    if (!m_started)
        return;
    qInstallMessageHandler(m_previous);
    if (m_filtered)
        QLoggingCategory::setFilterRules(QString());
    m_started = false;
}

void LogCapture::reinstall()
{
    qInstallMessageHandler(handler);
}

const QStringList &LogCapture::lines() const
{
    return captured();
}

void LogCapture::clear()
{
    captured().clear();
}

QStringList LogCapture::startingWith(const QString &prefix) const
{
    QStringList found;
    for (const QString &line : captured()) {
        if (line.startsWith(prefix))
            found.append(line);
    }
    return found;
}

QStringList LogCapture::ofComponent(const char *level) const
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

QStringList LogCapture::warnings() const
{
    QStringList found;
    for (const QString &line : captured()) {
        if (!line.startsWith(QLatin1String("DEBUG")) && !line.startsWith(QLatin1String("INFO")))
            found.append(line);
    }
    return found;
}

bool LogCapture::waitFor(const QString &line, int timeoutMs) const
{
    QElapsedTimer clock;
    clock.start();
    while (!captured().contains(line) && clock.elapsed() < timeoutMs)
        QTest::qWait(10);
    return captured().contains(line);
}

QString LogCapture::line(const char *level, const QString &category, const QString &message)
{
    QString escaped = message;
    escaped.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    escaped.replace(QLatin1Char('"'), QLatin1String("\\\""));
    return QStringLiteral("%1 %2: \"%3\"").arg(QLatin1String(level), category, escaped);
}

QStringList &LogCapture::captured()
{
    static QStringList lines;
    return lines;
}

void LogCapture::handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    static const QHash<QtMsgType, QString> levels { { QtDebugMsg, "DEBUG" }, { QtInfoMsg, "INFO" },
        { QtWarningMsg, "WARNING" }, { QtCriticalMsg, "CRITICAL" }, { QtFatalMsg, "FATAL" } };
    captured().append(
        QStringLiteral("%1 %2: %3").arg(levels.value(type), QString::fromUtf8(context.category), message));
}
