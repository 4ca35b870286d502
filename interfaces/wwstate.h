#ifndef ORVIX_WWSTATE_H
#define ORVIX_WWSTATE_H

#include "recordsupport.h"

#include <QMetaType>

#include <optional>

/** The flags block of a WwState: plain flags are always set, optional ones carry their own present mark. */
struct WwStateFlags
{
    bool MachineOn = false;
    bool MachineInitialized = false;
    bool PowerPresent = false;
    std::optional<bool> AirPresent;
    std::optional<bool> DustChipSuction;
    bool Emergency = false;
    std::optional<bool> Safety;
    bool Calibrated = false;
    std::optional<bool> Remote;
    std::optional<bool> WorkpiecePresent;
    std::optional<bool> Moving;
    std::optional<bool> LoadingEnabled;
    bool Alarm = false;
    bool Warning = false;
    bool Error = false;
    std::optional<bool> Hold;
    std::optional<bool> RecipeInRun;
    std::optional<bool> RecipeInSetup;
    std::optional<bool> RecipeInHold;
    std::optional<bool> ManualActivityRequired;
    std::optional<bool> WaitUnload;
    std::optional<bool> WaitLoad;
    std::optional<bool> EnergySaving;
    std::optional<bool> ExternalEmergency;
    std::optional<bool> MaintenanceRequired;
    std::optional<bool> FeedRuns;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("MachineOn", &WwStateFlags::MachineOn);
        visit("MachineInitialized", &WwStateFlags::MachineInitialized);
        visit("PowerPresent", &WwStateFlags::PowerPresent);
        visit("AirPresent", &WwStateFlags::AirPresent);
        visit("DustChipSuction", &WwStateFlags::DustChipSuction);
        visit("Emergency", &WwStateFlags::Emergency);
        visit("Safety", &WwStateFlags::Safety);
        visit("Calibrated", &WwStateFlags::Calibrated);
        visit("Remote", &WwStateFlags::Remote);
        visit("WorkpiecePresent", &WwStateFlags::WorkpiecePresent);
        visit("Moving", &WwStateFlags::Moving);
        visit("LoadingEnabled", &WwStateFlags::LoadingEnabled);
        visit("Alarm", &WwStateFlags::Alarm);
        visit("Warning", &WwStateFlags::Warning);
        visit("Error", &WwStateFlags::Error);
        visit("Hold", &WwStateFlags::Hold);
        visit("RecipeInRun", &WwStateFlags::RecipeInRun);
        visit("RecipeInSetup", &WwStateFlags::RecipeInSetup);
        visit("RecipeInHold", &WwStateFlags::RecipeInHold);
        visit("ManualActivityRequired", &WwStateFlags::ManualActivityRequired);
        visit("WaitUnload", &WwStateFlags::WaitUnload);
        visit("WaitLoad", &WwStateFlags::WaitLoad);
        visit("EnergySaving", &WwStateFlags::EnergySaving);
        visit("ExternalEmergency", &WwStateFlags::ExternalEmergency);
        visit("MaintenanceRequired", &WwStateFlags::MaintenanceRequired);
        visit("FeedRuns", &WwStateFlags::FeedRuns);
    }
};

inline bool operator==(const WwStateFlags &a, const WwStateFlags &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const WwStateFlags &a, const WwStateFlags &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const WwStateFlags &record)
{
    return orvix::debugRecord(debug, record, "WwStateFlags");
}

/** The values block of a WwState; every value is optional by itself. Times are in milliseconds, lengths in millimetres.
 */
struct WwStateValues
{
    std::optional<quint32> AxisOverride;
    std::optional<quint32> SpindleOverride;
    std::optional<double> FeedSpeed;
    std::optional<double> ActualCycle;
    std::optional<quint64> AbsoluteMachineOffTime;
    std::optional<quint64> AbsoluteStandbyTime;
    std::optional<quint64> RelativeStandbyTime;
    std::optional<quint64> AbsoluteReadyTime;
    std::optional<quint64> RelativeReadyTime;
    std::optional<quint64> AbsoluteWorkingTime;
    std::optional<quint64> RelativeWorkingTime;
    std::optional<quint64> AbsoluteErrorTime;
    std::optional<quint64> RelativeErrorTime;
    std::optional<quint64> AbsoluteMachineOnTime;
    std::optional<quint64> RelativeMachineOnTime;
    std::optional<quint64> AbsolutePowerPresentTime;
    std::optional<quint64> RelativePowerPresentTime;
    std::optional<quint64> AbsoluteProductionTime;
    std::optional<quint64> RelativeProductionTime;
    std::optional<quint64> AbsoluteProductionWithoutWorkpieceTime;
    std::optional<quint64> RelativeProductionWithoutWorkpieceTime;
    std::optional<quint64> AbsoluteProductionWaitWorkpieceTime;
    std::optional<quint64> RelativeProductionWaitWorkpieceTime;
    std::optional<quint64> AbsoluteRunsGood;
    std::optional<quint64> RelativeRunsGood;
    std::optional<quint64> AbsoluteRunsTotal;
    std::optional<quint64> RelativeRunsTotal;
    std::optional<quint64> AbsoluteRunsAborted;
    std::optional<quint64> RelativeRunsAborted;
    std::optional<quint64> AbsoluteLength;
    std::optional<quint64> RelativeLength;
    std::optional<quint64> AbsolutePiecesIn;
    std::optional<quint64> RelativePiecesIn;
    std::optional<quint64> AbsolutePiecesOut;
    std::optional<quint64> RelativePiecesOut;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("AxisOverride", &WwStateValues::AxisOverride);
        visit("SpindleOverride", &WwStateValues::SpindleOverride);
        visit("FeedSpeed", &WwStateValues::FeedSpeed);
        visit("ActualCycle", &WwStateValues::ActualCycle);
        visit("AbsoluteMachineOffTime", &WwStateValues::AbsoluteMachineOffTime);
        visit("AbsoluteStandbyTime", &WwStateValues::AbsoluteStandbyTime);
        visit("RelativeStandbyTime", &WwStateValues::RelativeStandbyTime);
        visit("AbsoluteReadyTime", &WwStateValues::AbsoluteReadyTime);
        visit("RelativeReadyTime", &WwStateValues::RelativeReadyTime);
        visit("AbsoluteWorkingTime", &WwStateValues::AbsoluteWorkingTime);
        visit("RelativeWorkingTime", &WwStateValues::RelativeWorkingTime);
        visit("AbsoluteErrorTime", &WwStateValues::AbsoluteErrorTime);
        visit("RelativeErrorTime", &WwStateValues::RelativeErrorTime);
        visit("AbsoluteMachineOnTime", &WwStateValues::AbsoluteMachineOnTime);
        visit("RelativeMachineOnTime", &WwStateValues::RelativeMachineOnTime);
        visit("AbsolutePowerPresentTime", &WwStateValues::AbsolutePowerPresentTime);
        visit("RelativePowerPresentTime", &WwStateValues::RelativePowerPresentTime);
        visit("AbsoluteProductionTime", &WwStateValues::AbsoluteProductionTime);
        visit("RelativeProductionTime", &WwStateValues::RelativeProductionTime);
        visit("AbsoluteProductionWithoutWorkpieceTime", &WwStateValues::AbsoluteProductionWithoutWorkpieceTime);
        visit("RelativeProductionWithoutWorkpieceTime", &WwStateValues::RelativeProductionWithoutWorkpieceTime);
        visit("AbsoluteProductionWaitWorkpieceTime", &WwStateValues::AbsoluteProductionWaitWorkpieceTime);
        visit("RelativeProductionWaitWorkpieceTime", &WwStateValues::RelativeProductionWaitWorkpieceTime);
        visit("AbsoluteRunsGood", &WwStateValues::AbsoluteRunsGood);
        visit("RelativeRunsGood", &WwStateValues::RelativeRunsGood);
        visit("AbsoluteRunsTotal", &WwStateValues::AbsoluteRunsTotal);
        visit("RelativeRunsTotal", &WwStateValues::RelativeRunsTotal);
        visit("AbsoluteRunsAborted", &WwStateValues::AbsoluteRunsAborted);
        visit("RelativeRunsAborted", &WwStateValues::RelativeRunsAborted);
        visit("AbsoluteLength", &WwStateValues::AbsoluteLength);
        visit("RelativeLength", &WwStateValues::RelativeLength);
        visit("AbsolutePiecesIn", &WwStateValues::AbsolutePiecesIn);
        visit("RelativePiecesIn", &WwStateValues::RelativePiecesIn);
        visit("AbsolutePiecesOut", &WwStateValues::AbsolutePiecesOut);
        visit("RelativePiecesOut", &WwStateValues::RelativePiecesOut);
    }
};

inline bool operator==(const WwStateValues &a, const WwStateValues &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const WwStateValues &a, const WwStateValues &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const WwStateValues &record)
{
    return orvix::debugRecord(debug, record, "WwStateValues");
}

/** A woodworking machine's state record: its state and operation mode codes and optional blocks of flags and values. */
struct WwState
{
    /** The machine state codes of the woodworking model (its WwUnitStateEnumeration). */
    enum MachineStateCode : quint32 {
        Offline = 0, ///< switched off or not reachable
        Standby = 1, ///< switched on, not ready to work
        Ready = 2, ///< ready to work, not working
        Working = 3, ///< working
        Error = 4, ///< in error
    };

    /** The operation mode codes of the woodworking model (its WwUnitModeEnumeration). */
    enum OperationModeCode : quint32 {
        Other = 0, ///< none of the modes below, or unknown
        Automatic = 1, ///< running a program on its own
        SemiAutomatic = 2, ///< running with an operator's help
        Manual = 3, ///< driven by the operator
        Setup = 4, ///< being set up
        Sleep = 5, ///< asleep, saving energy
    };

    /** The machine state code, one of MachineStateCode. */
    quint32 MachineState = Offline;
    /** The operation mode code, one of OperationModeCode. */
    quint32 OperationMode = Other;
    /** The flags, present or absent as a whole. */
    std::optional<WwStateFlags> Flags;
    /** The values, present or absent as a whole. */
    std::optional<WwStateValues> Values;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("MachineState", &WwState::MachineState);
        visit("OperationMode", &WwState::OperationMode);
        visit("Flags", &WwState::Flags);
        visit("Values", &WwState::Values);
    }
};

inline bool operator==(const WwState &a, const WwState &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const WwState &a, const WwState &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const WwState &record)
{
    return orvix::debugRecord(debug, record, "WwState");
}

Q_DECLARE_METATYPE(WwState)

#endif
