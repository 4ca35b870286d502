#include "simulatedmachine.h"

#include <algorithm>
#include <cmath>
#include <limits>

using namespace WorkingDay;

SimulatedMachine::SimulatedMachine(const QString &machineName, int index, quint64 seed)
    : name(machineName)
    , m_kind(kindOf(index))
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

bool SimulatedMachine::machineOn() const
{
    return m_phase != Phase::Off && m_phase != Phase::Offline;
}

Phase SimulatedMachine::draw(Phase from)
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

void SimulatedMachine::abortPiece()
{
    if (!m_workpiece)
        return;
    m_workpiece = false;
    ++m_counters.runsAborted;
    ++m_counters.runsTotal;
}

void SimulatedMachine::enter(Phase next, QVector<WwBaseEventType> *events)
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
        m_alarm = &drawAlarm(m_random);
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

void SimulatedMachine::advance(quint64 milliseconds, QVector<WwBaseEventType> *events)
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
        m_warning = &drawWarning(m_random);
        m_warningTicks = between(m_random, 5, 20);
        events->append(messageEvent(*m_warning, false));
    }

    work(milliseconds);
    count(milliseconds);
}

void SimulatedMachine::work(quint64 milliseconds)
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

void SimulatedMachine::count(quint64 milliseconds)
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

WwState SimulatedMachine::state() const
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
