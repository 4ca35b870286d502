#include "simulator.h"

#include "wwtypes.h"

#include <QLoggingCategory>
#include <QRandomGenerator>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <random>

Q_LOGGING_CATEGORY(lcSimulator, "simulator")

namespace {

const QString Group = QStringLiteral("simulator");
const QString Source = QStringLiteral("simulator");
const QString Withdrawal = QStringLiteral("{OFF}");
constexpr int MaxMachines = 1000;

// The stages of a machine's day. A machine stays in one for a number of ticks drawn from its rule below.
enum class Phase { Off, PoweringUp, Ready, Setup, Working, WaitLoad, WaitUnload, Error, EnergySaving, Offline };

struct Transition
{
    Phase to;
    int weight;
};

struct PhaseRule
{
    Phase phase;
    int minTicks;
    int maxTicks;
    QVector<Transition> next;
};

// Indexed by Phase. Working ends only between two pieces; its errors come by chance at any tick (ErrorChance).
// Offline has no successor: the machine comes back in the stage it was interrupted in.
const PhaseRule Rules[] = {
    { Phase::Off, 3, 6, { { Phase::PoweringUp, 1 } } },
    { Phase::PoweringUp, 2, 4, { { Phase::Ready, 1 } } },
    { Phase::Ready, 2, 6,
        { { Phase::Working, 65 }, { Phase::Setup, 15 }, { Phase::EnergySaving, 12 }, { Phase::Off, 8 } } },
    { Phase::Setup, 3, 8, { { Phase::Working, 1 } } },
    { Phase::Working, 15, 45, { { Phase::WaitLoad, 40 }, { Phase::WaitUnload, 30 }, { Phase::Ready, 30 } } },
    { Phase::WaitLoad, 2, 6, { { Phase::Working, 1 } } },
    { Phase::WaitUnload, 2, 6, { { Phase::Working, 1 } } },
    { Phase::Error, 4, 10, { { Phase::Ready, 1 } } },
    { Phase::EnergySaving, 5, 15, { { Phase::Ready, 70 }, { Phase::Off, 30 } } },
    { Phase::Offline, 3, 8, {} },
};

const PhaseRule &ruleOf(Phase phase)
{
    Q_ASSERT(Rules[int(phase)].phase == phase);
    return Rules[int(phase)];
}

constexpr double OfflineChance = 0.004;
constexpr double ErrorChance = 0.006;
constexpr double WarningChance = 0.004;
constexpr double PieceChance = 0.6;

// What a machine of one kind looks like: its nameplate, feed speed range (m/min) and piece lengths (mm).
struct Kind
{
    const char *deviceClass;
    const char *model;
    const char *software;
    double feedMin;
    double feedMax;
    int pieceMin;
    int pieceMax;
};

const Kind Kinds[] = {
    { "Edge banding machine", "Edge 300", "4.2.1", 15, 25, 400, 2800 },
    { "Machining centre", "Router 1500", "2.8.0", 2, 8, 300, 2400 },
    { "Panel dividing saw", "Cut 430", "7.1.3", 20, 60, 300, 4200 },
    { "Throughfeed drilling machine", "Drill 40", "3.0.5", 10, 30, 250, 2000 },
};

// A message of the machine: its id, English text and the place in the machine it comes from.
struct Message
{
    const char *id;
    const char *text;
    const char *path;
    qint32 category;
};

// An error event becomes an alarm notification, a warning event a warning.
const Message Alarms[] = {
    { "1203", "Feed motor overload", "Feed/Motor", WwBaseEventType::Error },
    { "3105", "Workpiece jammed in the infeed", "Infeed", WwBaseEventType::Error },
    { "4711", "Safety door opened during operation", "Safety/Door1", WwBaseEventType::Error },
    { "5020", "Spindle temperature too high", "Unit1/Spindle", WwBaseEventType::Error },
};

const Message Warnings[] = {
    { "6001", "Dust extraction airflow low", "Extraction", WwBaseEventType::Warning },
    { "6002", "Lubrication level low", "Lubrication", WwBaseEventType::Warning },
    { "6010", "Tool life nearly reached", "Unit1/Tool", WwBaseEventType::Warning },
};

quint64 below(std::mt19937_64 &random, quint64 bound)
{
    return random() % bound;
}

int between(std::mt19937_64 &random, int low, int high)
{
    return low + int(below(random, quint64(high - low + 1)));
}

// Taken from the engine's raw output, which the standard fixes, so a seed gives the same run with every library.
double unit(std::mt19937_64 &random)
{
    return double(random() >> 11) * (1.0 / 9007199254740992.0);
}

bool chance(std::mt19937_64 &random, double probability)
{
    return unit(random) < probability;
}

WwBaseEventType messageEvent(const Message &message, bool withdrawn)
{
    WwBaseEventType record;
    const QString text = QString::fromUtf8(message.text);
    record.Message = withdrawn ? Withdrawal : text;
    record.Id = QString::fromLatin1(message.id);
    record.Category = message.category;
    // One language only: the mapper takes whichever text its hash yields first.
    record.Texts.insert(QStringLiteral("en"), text);
    record.Path = QString::fromLatin1(message.path).split(QLatin1Char('/'));
    return record;
}

} // namespace

/** One simulated machine: where it is in its day, its counters and its open messages. */
struct Simulator::Machine
{
    Machine(const QString &machineName, int index, quint64 seed);

    /** Moves the machine on by the given milliseconds; events raised or withdrawn on the way are appended. */
    void advance(quint64 milliseconds, QVector<WwBaseEventType> *events);
    WwState state() const;

    QString name;
    WwIdentification identification;
    bool identificationDue = true;
    bool started = false;

private:
    // Whole counters in milliseconds, pieces and runs; the length in millimetres is kept apart with its fraction.
    struct Counters
    {
        quint64 machineOff = 0;
        quint64 standby = 0;
        quint64 ready = 0;
        quint64 working = 0;
        quint64 error = 0;
        quint64 machineOn = 0;
        quint64 powerPresent = 0;
        quint64 production = 0;
        quint64 productionWithoutWorkpiece = 0;
        quint64 productionWaitWorkpiece = 0;
        quint64 runsGood = 0;
        quint64 runsTotal = 0;
        quint64 runsAborted = 0;
        quint64 piecesIn = 0;
        quint64 piecesOut = 0;
        double length = 0;
    };

    void enter(Phase next, QVector<WwBaseEventType> *events);
    Phase draw(Phase from);
    void work(quint64 milliseconds);
    void count(quint64 milliseconds);
    void abortPiece();
    bool machineOn() const;

    const Kind &m_kind;
    std::mt19937_64 m_random;
    Phase m_phase = Phase::Off;
    int m_ticksLeft = 0;
    Phase m_interrupted = Phase::Off;
    int m_interruptedTicks = 0;
    bool m_workpiece = false;
    double m_pieceLeft = 0;
    double m_feedSpeed = 0;
    const Message *m_alarm = nullptr;
    const Message *m_warning = nullptr;
    int m_warningTicks = 0;
    Counters m_counters;
    Counters m_start;
};

Simulator::Machine::Machine(const QString &machineName, int index, quint64 seed)
    : name(machineName)
    , m_kind(Kinds[index % int(std::size(Kinds))])
    // A generator per machine: a machine's day does not depend on how many others are simulated.
    , m_random(seed + 0x9e3779b97f4a7c15ULL * quint64(index + 1))
{
    const int year = between(m_random, 2008, 2023);
    const int month = between(m_random, 1, 12);
    identification.Name = name;
    identification.ProductInstanceUri = QStringLiteral("urn:orvix:simulator:%1").arg(name);
    identification.Manufacturer = QStringLiteral("Orvix Simulator");
    identification.ManufacturerUri = QStringLiteral("urn:orvix:simulator");
    identification.Model = QString::fromLatin1(m_kind.model);
    identification.SoftwareRevision = QString::fromLatin1(m_kind.software);
    identification.DeviceClass = QString::fromLatin1(m_kind.deviceClass);
    identification.SerialNumber = QStringLiteral("SIM-%1").arg(between(m_random, 100000, 999999));
    identification.YearOfConstruction = quint16(year);
    identification.MonthOfConstruction = quint8(month);
    identification.InitialOperationDate = QDateTime(QDate(year, month, 1).addMonths(2), QTime(8, 0), Qt::UTC);
    identification.Location = QStringLiteral("Hall %1").arg(index % 3 + 1);

    // A machine that has worked for years: its counters split its power-on time the way a shop floor does.
    Counters &c = m_counters;
    c.powerPresent = quint64(between(m_random, 1000, 20000)) * 3600000;
    c.machineOff = c.powerPresent * 15 / 100;
    c.machineOn = c.powerPresent - c.machineOff;
    c.standby = c.machineOn * 18 / 100;
    c.ready = c.machineOn * 24 / 100;
    c.error = c.machineOn * 5 / 100;
    c.working = c.machineOn - c.standby - c.ready - c.error;
    c.production = c.working * 85 / 100;
    c.productionWithoutWorkpiece = c.working - c.production;
    c.productionWaitWorkpiece = c.ready * 20 / 100;
    c.length = std::floor(double(c.production) * (m_kind.feedMin + m_kind.feedMax) / 2 / 60);
    c.piecesOut = quint64(c.length) / quint64((m_kind.pieceMin + m_kind.pieceMax) / 2);
    c.runsGood = c.piecesOut;
    c.runsAborted = c.piecesOut / 400;
    c.runsTotal = c.runsGood + c.runsAborted;
    c.piecesIn = c.piecesOut + c.runsAborted;
    m_start = c;

    m_ticksLeft = between(m_random, ruleOf(Phase::Off).minTicks, ruleOf(Phase::Off).maxTicks);
}

bool Simulator::Machine::machineOn() const
{
    return m_phase != Phase::Off && m_phase != Phase::Offline;
}

Phase Simulator::Machine::draw(Phase from)
{
    const QVector<Transition> &next = ruleOf(from).next;
    int total = 0;
    for (const Transition &transition : next)
        total += transition.weight;
    int pick = int(below(m_random, quint64(total)));
    for (const Transition &transition : next) {
        if (pick < transition.weight)
            return transition.to;
        pick -= transition.weight;
    }
    return next.last().to;
}

void Simulator::Machine::abortPiece()
{
    if (!m_workpiece)
        return;
    m_workpiece = false;
    ++m_counters.runsAborted;
    ++m_counters.runsTotal;
}

void Simulator::Machine::enter(Phase next, QVector<WwBaseEventType> *events)
{
    if (m_phase == Phase::Error && m_alarm) {
        events->append(messageEvent(*m_alarm, true));
        m_alarm = nullptr;
    }
    m_phase = next;
    const PhaseRule &rule = ruleOf(next);
    m_ticksLeft = between(m_random, rule.minTicks, rule.maxTicks);
    switch (next) {
    case Phase::Error:
        abortPiece();
        m_alarm = &Alarms[below(m_random, std::size(Alarms))];
        events->append(messageEvent(*m_alarm, false));
        break;
    case Phase::Working:
        m_feedSpeed = std::round((m_kind.feedMin + unit(m_random) * (m_kind.feedMax - m_kind.feedMin)) * 10) / 10;
        break;
    case Phase::Off:
        if (m_warning) {
            events->append(messageEvent(*m_warning, true));
            m_warning = nullptr;
        }
        break;
    default:
        break;
    }
}

void Simulator::Machine::advance(quint64 milliseconds, QVector<WwBaseEventType> *events)
{
    if (m_phase == Phase::Offline) {
        // Nothing is known of an unreachable machine, so its counters stand still until it is back.
        if (--m_ticksLeft > 0)
            return;
        m_phase = m_interrupted;
        m_ticksLeft = m_interruptedTicks;
        identificationDue = true;
    } else if (chance(m_random, OfflineChance)) {
        m_interrupted = m_phase;
        m_interruptedTicks = m_ticksLeft;
        m_phase = Phase::Offline;
        m_ticksLeft = between(m_random, ruleOf(Phase::Offline).minTicks, ruleOf(Phase::Offline).maxTicks);
        return;
    } else if (m_phase == Phase::Working && chance(m_random, ErrorChance)) {
        enter(Phase::Error, events);
    } else if (--m_ticksLeft <= 0 && !(m_phase == Phase::Working && m_workpiece)) {
        enter(draw(m_phase), events);
    }

    if (m_warning && --m_warningTicks <= 0) {
        events->append(messageEvent(*m_warning, true));
        m_warning = nullptr;
    } else if (!m_warning && machineOn() && chance(m_random, WarningChance)) {
        m_warning = &Warnings[below(m_random, std::size(Warnings))];
        m_warningTicks = between(m_random, 5, 20);
        events->append(messageEvent(*m_warning, false));
    }

    work(milliseconds);
    count(milliseconds);
}

void Simulator::Machine::work(quint64 milliseconds)
{
    if (m_phase != Phase::Working)
        return;
    // No new piece once the stage is over: the machine finishes the one inside and moves on.
    if (!m_workpiece && m_ticksLeft > 0 && chance(m_random, PieceChance)) {
        m_workpiece = true;
        m_pieceLeft = between(m_random, m_kind.pieceMin, m_kind.pieceMax);
        ++m_counters.piecesIn;
    }
    if (!m_workpiece) {
        m_counters.productionWithoutWorkpiece += milliseconds;
        return;
    }
    m_counters.production += milliseconds;
    // The feed speed in m/min moves the piece by speed / 60 millimetres a millisecond.
    const double moved = std::min(m_pieceLeft, m_feedSpeed * double(milliseconds) / 60);
    m_pieceLeft -= moved;
    m_counters.length += moved;
    if (m_pieceLeft <= 0) {
        m_workpiece = false;
        ++m_counters.piecesOut;
        ++m_counters.runsGood;
        ++m_counters.runsTotal;
    }
}

void Simulator::Machine::count(quint64 milliseconds)
{
    Counters &c = m_counters;
    c.powerPresent += milliseconds;
    if (!machineOn()) {
        c.machineOff += milliseconds;
        return;
    }
    c.machineOn += milliseconds;
    switch (m_phase) {
    case Phase::PoweringUp:
    case Phase::EnergySaving:
        c.standby += milliseconds;
        break;
    case Phase::WaitLoad:
        c.productionWaitWorkpiece += milliseconds;
        c.ready += milliseconds;
        break;
    case Phase::Ready:
    case Phase::Setup:
    case Phase::WaitUnload:
        c.ready += milliseconds;
        break;
    case Phase::Working:
        c.working += milliseconds;
        break;
    case Phase::Error:
        c.error += milliseconds;
        break;
    default:
        break;
    }
}

WwState Simulator::Machine::state() const
{
    const Phase phase = m_phase;
    const bool on = machineOn();
    const bool initialized = on && phase != Phase::PoweringUp;
    const bool working = phase == Phase::Working;
    const bool waiting = phase == Phase::WaitLoad || phase == Phase::WaitUnload;

    WwState record;
    switch (phase) {
    case Phase::Offline:
        break;
    case Phase::Off:
        record.MachineState = WwState::Standby;
        break;
    case Phase::PoweringUp:
        record.MachineState = WwState::Standby;
        record.OperationMode = WwState::Automatic;
        break;
    case Phase::EnergySaving:
        record.MachineState = WwState::Standby;
        record.OperationMode = WwState::Sleep;
        break;
    case Phase::Setup:
        record.MachineState = WwState::Ready;
        record.OperationMode = WwState::Setup;
        break;
    case Phase::Ready:
    case Phase::WaitLoad:
    case Phase::WaitUnload:
        record.MachineState = WwState::Ready;
        record.OperationMode = WwState::Automatic;
        break;
    case Phase::Working:
        record.MachineState = WwState::Working;
        record.OperationMode = WwState::Automatic;
        break;
    case Phase::Error:
        record.MachineState = WwState::Error;
        record.OperationMode = WwState::Automatic;
        break;
    }

    // Every flag is sent, the optional ones too: an offline machine reports them all false.
    WwStateFlags flags;
    flags.MachineOn = on;
    flags.MachineInitialized = initialized;
    flags.PowerPresent = phase != Phase::Offline;
    flags.AirPresent = on;
    flags.DustChipSuction = working;
    flags.Emergency = false;
    flags.Safety = on;
    flags.Calibrated = initialized;
    flags.Remote = false;
    flags.WorkpiecePresent = (working && m_workpiece) || phase == Phase::WaitUnload;
    flags.Moving = working;
    flags.LoadingEnabled = phase == Phase::Ready || working || phase == Phase::WaitLoad;
    flags.Alarm = phase == Phase::Error;
    flags.Warning = on && m_warning != nullptr;
    flags.Error = phase == Phase::Error;
    flags.Hold = false;
    flags.RecipeInRun = working || waiting;
    flags.RecipeInSetup = phase == Phase::Setup;
    flags.RecipeInHold = false;
    flags.ManualActivityRequired = waiting || phase == Phase::Error;
    flags.WaitUnload = phase == Phase::WaitUnload;
    flags.WaitLoad = phase == Phase::WaitLoad;
    flags.EnergySaving = phase == Phase::EnergySaving;
    flags.ExternalEmergency = false;
    flags.MaintenanceRequired = false;
    flags.FeedRuns = working;
    record.Flags = flags;

    // Relative counters count from the start of the simulation.
    const Counters &c = m_counters;
    const Counters &s = m_start;
    WwStateValues values;
    values.AxisOverride = on ? 100u : 0u;
    values.SpindleOverride = on ? 100u : 0u;
    values.FeedSpeed = working ? m_feedSpeed : 0.0;
    values.AbsoluteMachineOffTime = c.machineOff;
    values.AbsoluteStandbyTime = c.standby;
    values.RelativeStandbyTime = c.standby - s.standby;
    values.AbsoluteReadyTime = c.ready;
    values.RelativeReadyTime = c.ready - s.ready;
    values.AbsoluteWorkingTime = c.working;
    values.RelativeWorkingTime = c.working - s.working;
    values.AbsoluteErrorTime = c.error;
    values.RelativeErrorTime = c.error - s.error;
    values.AbsoluteMachineOnTime = c.machineOn;
    values.RelativeMachineOnTime = c.machineOn - s.machineOn;
    values.AbsolutePowerPresentTime = c.powerPresent;
    values.RelativePowerPresentTime = c.powerPresent - s.powerPresent;
    values.AbsoluteProductionTime = c.production;
    values.RelativeProductionTime = c.production - s.production;
    values.AbsoluteProductionWithoutWorkpieceTime = c.productionWithoutWorkpiece;
    values.RelativeProductionWithoutWorkpieceTime = c.productionWithoutWorkpiece - s.productionWithoutWorkpiece;
    values.AbsoluteProductionWaitWorkpieceTime = c.productionWaitWorkpiece;
    values.RelativeProductionWaitWorkpieceTime = c.productionWaitWorkpiece - s.productionWaitWorkpiece;
    values.AbsoluteRunsGood = c.runsGood;
    values.RelativeRunsGood = c.runsGood - s.runsGood;
    values.AbsoluteRunsTotal = c.runsTotal;
    values.RelativeRunsTotal = c.runsTotal - s.runsTotal;
    values.AbsoluteRunsAborted = c.runsAborted;
    values.RelativeRunsAborted = c.runsAborted - s.runsAborted;
    values.AbsoluteLength = quint64(c.length);
    values.RelativeLength = quint64(c.length) - quint64(s.length);
    values.AbsolutePiecesIn = c.piecesIn;
    values.RelativePiecesIn = c.piecesIn - s.piecesIn;
    values.AbsolutePiecesOut = c.piecesOut;
    values.RelativePiecesOut = c.piecesOut - s.piecesOut;
    record.Values = values;
    return record;
}

const QVector<SettingKey> &Simulator::settings()
{
    static const QVector<SettingKey> table {
        SettingKey::whole("machines", "2", 1, MaxMachines, "Number of simulated machines, from 1 to 1000."),
        SettingKey::string("prefix", "sim", "Machine names: this prefix followed by 1, 2, 3 ..."),
        SettingKey::duration("interval", "1000", 1, std::numeric_limits<int>::max(),
            "Milliseconds between two state records of a machine; each moves its day on by as much."),
        SettingKey::whole("seed", "", 0, SettingKey::Unbounded,
            "A whole number makes every run the same; empty draws a new seed at each start and logs it."),
    };
    return table;
}

Simulator::Simulator(QObject *parent)
    : QObject(parent)
    , m_clock([] { return QDateTime::currentDateTimeUtc(); })
{
    connect(&m_timer, &QTimer::timeout, this, &Simulator::tick);
}

Simulator::~Simulator() = default;

bool Simulator::init(const QVariantMap &config, QVariantMap &)
{
    const SettingsGroup settings(config.value(Group).toMap(), Simulator::settings(), lcSimulator());
    const int machines = int(settings.number("machines"));
    const QString prefix = settings.text("prefix");
    m_interval = int(settings.number("interval"));
    if (!settings.optionalNumber("seed", QStringLiteral("a new one"), &m_seed))
        m_seed = QRandomGenerator::global()->generate64();

    m_machines.clear();
    for (int index = 0; index < machines; ++index)
        m_machines.push_back(std::make_unique<Machine>(prefix + QString::number(index + 1), index, m_seed));

    QStringList names;
    for (const std::unique_ptr<Machine> &machine : m_machines)
        names.append(machine->name);
    qCInfo(lcSimulator) << QStringLiteral("Simulating %1 every %2 ms with seed %3")
                               .arg(names.size() <= 3 ? names.join(QStringLiteral(", "))
                                                      : QStringLiteral("%1 to %2").arg(names.first(), names.last()))
                               .arg(m_interval)
                               .arg(m_seed);
    m_timer.start(m_interval);
    return true;
}

QString Simulator::name() const
{
    return QStringLiteral("simulator");
}

void Simulator::setClock(std::function<QDateTime()> clock)
{
    m_clock = std::move(clock);
}

void Simulator::tick()
{
    const QDateTime now = m_clock();
    QVector<WwBaseEventType> events;
    for (const std::unique_ptr<Machine> &machine : m_machines) {
        events.clear();
        // The first round shows each machine as it is found; from then on each round moves it on.
        if (machine->started)
            machine->advance(quint64(m_interval), &events);
        machine->started = true;
        if (machine->identificationDue) {
            emit dataReceived(now, machine->name, Source, QVariant::fromValue(machine->identification));
            machine->identificationDue = false;
        }
        // Events first: the state that follows them shows their alarm and warning flags already.
        for (const WwBaseEventType &record : qAsConst(events))
            emit dataReceived(now, machine->name, Source, QVariant::fromValue(record));
        emit dataReceived(now, machine->name, Source, QVariant::fromValue(machine->state()));
    }
}
