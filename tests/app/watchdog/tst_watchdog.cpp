#include "core.h"
#include "servicestart.h"
#include "testsupport.h"
#include "watchdog.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QMutex>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <QtTest>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace {

/** What systemd's notification socket receives: each datagram with the time it arrived. */
class NotifySocket
{
public:
    explicit NotifySocket(const QString &path)
    {
        m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address {};
        address.sun_family = AF_UNIX;
        const QByteArray bytes = path.toUtf8();
        qstrncpy(address.sun_path, bytes.constData(), sizeof(address.sun_path));
        m_bound = m_fd >= 0 && bind(m_fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
        timeval timeout { 0, 50000 };
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
        m_clock.start();
        m_reader = std::thread([this] { read(); });
    }
    ~NotifySocket()
    {
        m_stop = true;
        m_reader.join();
        close(m_fd);
    }
    bool bound() const { return m_bound; }
    qint64 now() const { return m_clock.elapsed(); }

    struct Message
    {
        QByteArray text;
        qint64 at;
    };
    QList<Message> messages() const
    {
        QMutexLocker locker(&m_mutex);
        return m_messages;
    }
    QList<qint64> arrivals(const QByteArray &text) const
    {
        QList<qint64> times;
        for (const Message &message : messages()) {
            if (message.text == text)
                times.append(message.at);
        }
        return times;
    }

private:
    void read()
    {
        char buffer[256];
        while (!m_stop) {
            const ssize_t size = recv(m_fd, buffer, sizeof(buffer), 0);
            if (size <= 0)
                continue;
            QMutexLocker locker(&m_mutex);
            m_messages.append({ QByteArray(buffer, static_cast<int>(size)).trimmed(), m_clock.elapsed() });
        }
    }

    int m_fd = -1;
    bool m_bound = false;
    QElapsedTimer m_clock;
    std::atomic<bool> m_stop { false };
    mutable QMutex m_mutex;
    QList<Message> m_messages;
    std::thread m_reader;
};

} // namespace

class tst_Watchdog : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void withoutSystemdNothingIsSent();
    void pingsAtHalfTheWatchdogTime();
    void aBlockedLoopSendsNoPings();
    void readyFollowsTheWiredPipeline();

private:
    QTemporaryDir m_dir;
};

void tst_Watchdog::init()
{
    QVERIFY(m_dir.isValid());
    qputenv("NOTIFY_SOCKET", m_dir.filePath(QStringLiteral("notify")).toUtf8());
    qunsetenv("WATCHDOG_PID");
    qputenv("WATCHDOG_USEC", "200000");
}

void tst_Watchdog::cleanup()
{
    qunsetenv("NOTIFY_SOCKET");
    qunsetenv("WATCHDOG_USEC");
    QFile::remove(m_dir.filePath(QStringLiteral("notify")));
}

void tst_Watchdog::withoutSystemdNothingIsSent()
{
    qunsetenv("NOTIFY_SOCKET");
    qunsetenv("WATCHDOG_USEC");
    Watchdog watchdog;
    QCOMPARE(watchdog.interval(), 0);
    watchdog.ready();
}

void tst_Watchdog::pingsAtHalfTheWatchdogTime()
{
    NotifySocket socket(m_dir.filePath(QStringLiteral("notify")));
    QVERIFY(socket.bound());
    {
        Watchdog watchdog;
        QCOMPARE(watchdog.interval(), 100);
        QTest::qWait(250);
        QVERIFY2(socket.messages().isEmpty(), "nothing before the service is ready");

        watchdog.ready();
        QTRY_VERIFY(socket.arrivals("WATCHDOG=1").size() >= 5);
        const QList<QByteArray> first = { socket.messages().at(0).text, socket.messages().at(1).text };
        QCOMPARE(first, (QList<QByteArray> { "READY=1", "WATCHDOG=1" }));
        const QList<qint64> pings = socket.arrivals("WATCHDOG=1");
        for (int i = 1; i < pings.size(); ++i)
            QVERIFY2(pings.at(i) - pings.at(i - 1) < 180, "a ping within the watchdog time");
    }
    QTRY_COMPARE(socket.messages().last().text, QByteArray("STOPPING=1"));
}

void tst_Watchdog::aBlockedLoopSendsNoPings()
{
    NotifySocket socket(m_dir.filePath(QStringLiteral("notify")));
    QVERIFY(socket.bound());
    Watchdog watchdog;
    watchdog.ready();
    QTRY_VERIFY(socket.arrivals("WATCHDOG=1").size() >= 2);

    // The loop is busy for twice the watchdog time: systemd would see no ping and restart the service.
    qint64 blockedFrom = 0;
    qint64 blockedUntil = 0;
    QTimer::singleShot(0, this, [&] {
        blockedFrom = socket.now();
        QThread::msleep(400);
        blockedUntil = socket.now();
    });
    QTRY_VERIFY(blockedUntil > 0);
    for (const qint64 at : socket.arrivals("WATCHDOG=1"))
        QVERIFY2(at < blockedFrom + 20 || at >= blockedUntil, "no ping while the loop is blocked");

    // Once the loop turns again, the pings come back.
    const int before = socket.arrivals("WATCHDOG=1").size();
    QTRY_VERIFY(socket.arrivals("WATCHDOG=1").size() >= before + 2);
}

void tst_Watchdog::readyFollowsTheWiredPipeline()
{
    NotifySocket socket(m_dir.filePath(QStringLiteral("notify")));
    QVERIFY(socket.bound());
    const QString plugins = m_dir.filePath(QStringLiteral("plugins"));
    QVERIFY(TestSupport::copyTestPlugin(QStringLiteral("testsource"), plugins + QStringLiteral("/libtestsource.so")));
    QVERIFY(TestSupport::copyTestPlugin(QStringLiteral("testtarget"), plugins + QStringLiteral("/libtesttarget.so")));
    qputenv("ORVIX_PLUGINPATH", plugins.toUtf8());
    QVERIFY(TestSupport::writeFile(m_dir.filePath(QStringLiteral("orvix.ini")), "[metrics]\nlisten=\n"));
    const QString logFile = m_dir.filePath(QStringLiteral("orvix.log"));
    Core *core = ServiceStart::createCore(
        *qApp, m_dir.filePath(QStringLiteral("orvix.ini")), logFile, m_dir.filePath(QStringLiteral("orvix.lastlog")));

    QTRY_VERIFY(!socket.arrivals("READY=1").isEmpty());
    // By the time systemd hears of it, run() has loaded, wired and initialised the plugins.
    QVERIFY(!core->datasources().isEmpty());
    QVERIFY(!core->targets().isEmpty());
    QTRY_VERIFY(!socket.arrivals("WATCHDOG=1").isEmpty());
    delete core;
    qunsetenv("ORVIX_PLUGINPATH");
    QTRY_COMPARE(socket.messages().last().text, QByteArray("STOPPING=1"));
}

QTEST_GUILESS_MAIN(tst_Watchdog)
#include "tst_watchdog.moc"
