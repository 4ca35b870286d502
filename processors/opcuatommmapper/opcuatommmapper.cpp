#include "opcuatommmapper.h"

#include "generalv1.h"
#include "opcuatommmapperlogging.h"
#include "statev1.h"
#include "wwstate.h"

namespace {

bool isTrue(const WwState &state, std::optional<bool> WwStateFlags::*flag)
{
    return state.Flags && (*state.Flags).*flag == true;
}

bool isFalse(const WwState &state, std::optional<bool> WwStateFlags::*flag)
{
    return state.Flags && (*state.Flags).*flag == false;
}

bool isComplete(const WwState &state)
{
    if (!state.Flags)
        return false;
    const WwStateFlags &flags = *state.Flags;
    return flags.WaitLoad && flags.EnergySaving && flags.Moving && flags.WaitUnload && flags.WorkpiecePresent
        && flags.FeedRuns && flags.RecipeInRun;
}

// The first matching rule wins: the machine state codes 0, 4 and 1 before the operation mode, the operation mode
// before the wait flags.
qint32 stateCode(const WwState &state)
{
    if (state.MachineState == 0)
        return 1;
    if (state.MachineState == 4)
        return 7;
    if (state.MachineState == 1)
        return 4;
    if (state.OperationMode == 4)
        return 3;
    if (isTrue(state, &WwStateFlags::WaitUnload) || isTrue(state, &WwStateFlags::WaitLoad))
        return 6;
    if (state.MachineState == 3)
        return isFalse(state, &WwStateFlags::WorkpiecePresent) ? 5 : 2;
    if ((isTrue(state, &WwStateFlags::Moving) || isTrue(state, &WwStateFlags::FeedRuns))
        && isFalse(state, &WwStateFlags::WorkpiecePresent))
        return 5;
    return 4;
}

} // namespace

OpcUaToMMMapper::OpcUaToMMMapper(QObject *parent)
    : QObject(parent)
{
}

bool OpcUaToMMMapper::init(const QVariantMap &, QVariantMap &)
{
    qCInfo(lcOpcUaToMMMapper) << QStringLiteral("OpcUaToMMMapper::init");
    return true;
}

QString OpcUaToMMMapper::name() const
{
    return QStringLiteral("OpcUaToMMMapper");
}

unsigned int OpcUaToMMMapper::orderNumber() const
{
    return 50;
}

void OpcUaToMMMapper::processData(QDateTime timestamp, QString machine, QString source, QVariant data)
{
    qCDebug(lcOpcUaToMMMapper) << timestamp << machine << source << data;

    // qvariant_cast copies a WwState straight out of the variant and otherwise runs the registered conversion,
    // which yields a default record when it fails.
    if (data.canConvert<WwState>()) {
        const WwState state = qvariant_cast<WwState>(data);
        mapState(timestamp, machine, source, state);
        mapOperatingData(timestamp, machine, source, state);
        return;
    }
    emit dataProcessed(timestamp, machine, source, data);
}

void OpcUaToMMMapper::mapState(const QDateTime &timestamp, const QString &machine, const QString &source,
                               const WwState &state)
{
    if (!isComplete(state))
        qCWarning(lcOpcUaToMMMapper) << QStringLiteral("Missing some flags, the state might be incomplete");
    StateV1 result;
    result.state = stateCode(state);
    emit dataProcessed(timestamp, machine, source, QVariant::fromValue(result));
}

void OpcUaToMMMapper::mapOperatingData(const QDateTime &timestamp, const QString &machine, const QString &source,
                                       const WwState &state)
{
    if (state.MachineState == 0)
        return;
    if (!state.Values) {
        qCWarning(lcOpcUaToMMMapper) << QStringLiteral("Values are not availabe, unable to calculate GeneralV1");
        return;
    }
    const WwStateValues &values = *state.Values;
    constexpr double millisecondsPerHour = 3600000.0;
    GeneralV1 general;
    if (values.AbsolutePowerPresentTime)
        general.powerOnHours = double(*values.AbsolutePowerPresentTime) / millisecondsPerHour;
    else
        qCWarning(lcOpcUaToMMMapper) << QStringLiteral("AbsolutePowerPresentTime is not set");
    // The time spent waiting for a workpiece is not feed time. The sum wraps like the machine's own counters.
    if (values.AbsoluteProductionTime && values.AbsoluteProductionWithoutWorkpieceTime)
        general.feedOnHours =
            double(quint64(*values.AbsoluteProductionTime + *values.AbsoluteProductionWithoutWorkpieceTime))
            / millisecondsPerHour;
    else
        qCWarning(lcOpcUaToMMMapper) << QStringLiteral("Missing values for FeedOnHours");
    if (values.AbsolutePiecesOut)
        general.pieces = *values.AbsolutePiecesOut;
    else
        qCWarning(lcOpcUaToMMMapper) << QStringLiteral("AbsolutePiecesOut is not set");
    // Whole metres only: 1999 mm are 1 m.
    if (values.AbsoluteLength)
        general.length = double(*values.AbsoluteLength / 1000u);
    else
        qCWarning(lcOpcUaToMMMapper) << QStringLiteral("AbsoluteLength is not set");
    emit dataProcessed(timestamp, machine, source, QVariant::fromValue(general));
}
