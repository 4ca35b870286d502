#include "machinefleet.h"

#include "benchsource.h"

namespace {

// A datasource polls its machines once a second.
constexpr qint64 PollInterval = 1000;
// Every fifth second a piece leaves the machine.
constexpr quint64 PieceEvery = 5;
constexpr quint64 PieceLength = 2400;
// 2024-03-04 06:00:00 UTC, the start of a shift.
constexpr qint64 ShiftStart = Q_INT64_C(1709532000000);

} // namespace

MachineFleet::MachineFleet(int machines, const QString &source)
    : m_source(source)
{
    m_machines.reserve(machines);
    for (int i = 0; i < machines; ++i) {
        Machine machine;
        machine.name = QStringLiteral("edgebander-%1").arg(i, 5, 10, QLatin1Char('0'));
        machine.state = initialState(i);
        // Machines are not polled in step: each one's clock starts a little later than the one before.
        machine.clock = ShiftStart + i;
        m_machines.append(machine);
    }
}

WwState MachineFleet::initialState(int index)
{
    // A running machine in automatic mode, feeding a workpiece: every flag and value is reported.
    const quint64 age = quint64(index % 97 + 3) * Q_UINT64_C(3600000) * 1000;
    WwState state;
    state.MachineState = 2;
    state.OperationMode = 2;

    WwStateFlags flags;
    flags.MachineOn = true;
    flags.MachineInitialized = true;
    flags.PowerPresent = true;
    flags.AirPresent = true;
    flags.DustChipSuction = true;
    flags.Emergency = false;
    flags.Safety = true;
    flags.Calibrated = true;
    flags.Remote = false;
    flags.WorkpiecePresent = true;
    flags.Moving = true;
    flags.LoadingEnabled = true;
    flags.Alarm = false;
    flags.Warning = false;
    flags.Error = false;
    flags.Hold = false;
    flags.RecipeInRun = true;
    flags.RecipeInSetup = false;
    flags.RecipeInHold = false;
    flags.ManualActivityRequired = false;
    flags.WaitUnload = false;
    flags.WaitLoad = false;
    flags.EnergySaving = false;
    flags.ExternalEmergency = false;
    flags.MaintenanceRequired = false;
    flags.FeedRuns = true;
    state.Flags = flags;

    WwStateValues values;
    values.AxisOverride = 100;
    values.SpindleOverride = 100;
    values.FeedSpeed = 18.0;
    values.ActualCycle = 42.5;
    values.AbsoluteMachineOffTime = age / 4;
    values.AbsoluteStandbyTime = age / 10;
    values.RelativeStandbyTime = 0;
    values.AbsoluteReadyTime = age / 8;
    values.RelativeReadyTime = 0;
    values.AbsoluteWorkingTime = age / 2;
    values.RelativeWorkingTime = 0;
    values.AbsoluteErrorTime = age / 50;
    values.RelativeErrorTime = 0;
    values.AbsoluteMachineOnTime = age;
    values.RelativeMachineOnTime = 0;
    values.AbsolutePowerPresentTime = age + age / 20;
    values.RelativePowerPresentTime = 0;
    values.AbsoluteProductionTime = age / 2;
    values.RelativeProductionTime = 0;
    values.AbsoluteProductionWithoutWorkpieceTime = age / 30;
    values.RelativeProductionWithoutWorkpieceTime = 0;
    values.AbsoluteProductionWaitWorkpieceTime = age / 40;
    values.RelativeProductionWaitWorkpieceTime = 0;
    values.AbsoluteRunsGood = age / 20000;
    values.RelativeRunsGood = 0;
    values.AbsoluteRunsTotal = age / 19000;
    values.RelativeRunsTotal = 0;
    values.AbsoluteRunsAborted = age / 400000;
    values.RelativeRunsAborted = 0;
    values.AbsoluteLength = age / 20000 * PieceLength;
    values.RelativeLength = 0;
    values.AbsolutePiecesIn = age / 19000;
    values.RelativePiecesIn = 0;
    values.AbsolutePiecesOut = age / 20000;
    values.RelativePiecesOut = 0;
    state.Values = values;
    return state;
}

int MachineFleet::advance(WwState &state, quint64 update)
{
    WwStateValues &values = *state.Values;
    // Each second: the feed speed wavers, and the working, production and power counters run on.
    values.FeedSpeed = 18.0 + double(update % 7) * 0.25;
    *values.AbsoluteWorkingTime += PollInterval;
    *values.RelativeWorkingTime += PollInterval;
    *values.AbsoluteProductionTime += PollInterval;
    *values.AbsolutePowerPresentTime += PollInterval;
    int changed = 5;
    if (update % PieceEvery == 0) {
        // A piece is done: the counters of pieces and length move, and the workpiece leaves or the next one comes in.
        WwStateFlags &flags = *state.Flags;
        flags.WorkpiecePresent = !*flags.WorkpiecePresent;
        *values.AbsolutePiecesOut += 1;
        *values.RelativePiecesOut += 1;
        *values.AbsoluteRunsGood += 1;
        *values.AbsoluteRunsTotal += 1;
        *values.AbsoluteLength += PieceLength;
        changed += 6;
    }
    return changed;
}

QVariant MachineFleet::next(int index, bool changed, QDateTime &timestamp)
{
    Machine &machine = m_machines[index];
    ++machine.updates;
    machine.clock += PollInterval;
    if (changed) {
        m_changedItems += quint64(advance(machine.state, machine.updates));
        ++m_changingUpdates;
    }
    timestamp = QDateTime::fromMSecsSinceEpoch(machine.clock, Qt::UTC);
    return QVariant::fromValue(machine.state);
}

void MachineFleet::send(BenchSource &source, int index, bool changed)
{
    QDateTime timestamp;
    const QVariant data = next(index, changed, timestamp);
    emit source.dataReceived(timestamp, m_machines.at(index).name, m_source, data);
}

double MachineFleet::changedItemsPerUpdate() const
{
    return m_changingUpdates == 0 ? 0.0 : double(m_changedItems) / double(m_changingUpdates);
}
