#include "fleetserver.h"

#include "machinefleet.h"
#include "opcuaserver.h"
#include "testsupport.h"
#include "wwtypes.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSocketNotifier>
#include <QTimer>

#include <unistd.h>

#include <cstdio>
#include <type_traits>
#include <vector>

const char FleetServer::ServeArgument[] = "--serve-fleet";

namespace {

const QString Source = QStringLiteral("bench");
// As fast as it can: this many updates between two turns of the event loop, in which the server answers its clients.
constexpr int Batch = 200;

void report(const QJsonObject &line)
{
    std::fputs(QJsonDocument(line).toJson(QJsonDocument::Compact).append('\n').constData(), stdout);
    std::fflush(stdout);
}

/** Every flag turned over and every value moved on, so that each of the 61 items is a change. */
void changeEverything(WwState &state)
{
    WwStateFlags &flags = *state.Flags;
    WwStateFlags::visitFields([&](const char *, auto member) {
        auto &flag = flags.*member;
        if constexpr (std::is_same_v<std::decay_t<decltype(flag)>, bool>)
            flag = !flag;
        else
            flag = !flag.value_or(false);
    });
    WwStateValues &values = *state.Values;
    WwStateValues::visitFields([&](const char *, auto member) {
        auto &value = values.*member;
        using T = typename std::decay_t<decltype(value)>::value_type;
        value = T(value.value_or(T()) + 1);
    });
}

} // namespace

int FleetServer::serve(int argc, char **argv)
{
    const int machines = argc > 2 ? std::atoi(argv[2]) : 1000;
    const int rate = argc > 3 ? std::atoi(argv[3]) : 1;
    QTemporaryDir pki;
    const quint16 port = TestSupport::freePort();
    OpcUaServer target;
    QVariantMap shared;
    const QVariantMap config { { "opcuaServerTarget",
        QVariantMap { { "port", QString::number(port) }, { "securityPolicies", "None" }, { "pki", pki.path() } } } };
    if (!target.init(config, shared)) {
        report({ { "error", "the opcuaServer target could not start" } });
        return 1;
    }
    MachineFleet fleet(machines, Source);
    std::vector<WwState> states;
    states.reserve(size_t(machines));
    const WwCapabilities capabilities { WwCapabilities::OwnState };
    for (int i = 0; i < machines; ++i) {
        QDateTime timestamp;
        const QVariant first = fleet.next(i, false, timestamp);
        states.push_back(qvariant_cast<WwState>(first));
        target.processData(timestamp, fleet.machineName(i), Source, QVariant::fromValue(capabilities));
        target.processData(timestamp, fleet.machineName(i), Source, first);
    }

    qint64 updates = 0;
    int next = 0;
    const auto update = [&] {
        const int machine = next++ % machines;
        changeEverything(states[size_t(machine)]);
        target.processData(QDateTime::currentDateTimeUtc(), fleet.machineName(machine), Source,
            QVariant::fromValue(states[size_t(machine)]));
        ++updates;
    };
    // Until the reader has every machine, at 1 Hz also when asked for more: a server busy with changes answers slowly.
    bool unleashed = false;
    qint64 evenFrom = 0;
    QElapsedTimer clock;
    QTimer feeder;
    feeder.setTimerType(Qt::PreciseTimer);
    feeder.setInterval(1);
    QObject::connect(&feeder, &QTimer::timeout, [&] {
        if (unleashed && rate == 0) {
            for (int i = 0; i < Batch; ++i)
                update();
            return;
        }
        // The updates spread evenly over each second: machine i at i / machines of it.
        const qint64 due = evenFrom + clock.elapsed() * machines * (unleashed ? rate : 1) / 1000;
        while (updates < due)
            update();
    });
    QTimer reporter;
    reporter.setInterval(250);
    QObject::connect(&reporter, &QTimer::timeout, [&] { report({ { "updates", double(updates) } }); });
    // A line on standard input: the reader has every machine, so the rate asked for begins; its end: the reader's.
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        char byte;
        if (::read(STDIN_FILENO, &byte, 1) <= 0) {
            QCoreApplication::quit();
        } else if (byte == '\n' && !unleashed) {
            unleashed = true;
            evenFrom = updates;
            feeder.setInterval(rate == 0 ? 0 : 1);
            clock.restart();
        }
    });
    report({ { "ready", true }, { "port", port } });
    clock.start();
    feeder.start();
    reporter.start();
    return QCoreApplication::exec();
}

bool FleetServer::start(int machines, int rate)
{
    m_process.setStandardErrorFile(m_folder.filePath(QStringLiteral("server.log")));
    m_process.start(QCoreApplication::applicationFilePath(),
        { QString::fromLatin1(ServeArgument), QString::number(machines), QString::number(rate) });
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 60000 && m_process.state() != QProcess::NotRunning) {
        while (m_process.canReadLine()) {
            const QJsonObject line = QJsonDocument::fromJson(m_process.readLine()).object();
            if (line.contains(QStringLiteral("ready"))) {
                m_port = quint16(line.value(QStringLiteral("port")).toInt());
                return true;
            }
            if (line.contains(QStringLiteral("error"))) {
                m_error = line.value(QStringLiteral("error")).toString();
                return false;
            }
        }
        m_process.waitForReadyRead(100);
    }
    m_error = QStringLiteral("the server did not start; its log: ") + m_folder.filePath(QStringLiteral("server.log"));
    m_folder.setAutoRemove(false);
    return false;
}

void FleetServer::unleash()
{
    m_process.write("\n");
}

void FleetServer::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.closeWriteChannel();
    if (!m_process.waitForFinished(10000))
        m_process.kill();
    m_process.waitForFinished(1000);
}

qint64 FleetServer::cpuNs() const
{
    return processCpuNs(m_process.processId());
}

qint64 FleetServer::updates()
{
    while (m_process.canReadLine()) {
        const QJsonObject line = QJsonDocument::fromJson(m_process.readLine()).object();
        if (line.contains(QStringLiteral("updates")))
            m_updates = qint64(line.value(QStringLiteral("updates")).toDouble());
    }
    return m_updates;
}

qint64 processCpuNs(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray text = stat.readAll();
    // After the command's name in parentheses: state is field 3, utime field 14 and stime field 15.
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 13)
        return 0;
    const qint64 ticks = fields.at(11).toLongLong() + fields.at(12).toLongLong();
    return ticks * 1000000000 / sysconf(_SC_CLK_TCK);
}
