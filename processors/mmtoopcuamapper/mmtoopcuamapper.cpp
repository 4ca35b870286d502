#include "mmtoopcuamapper.h"

#include "generalv1.h"
#include "identificationconfig.h"
#include "mmtoopcuamapperlogging.h"
#include "notificationsremoveallv1.h"
#include "notificationsremovev1.h"
#include "orderv1.h"
#include "settingvalue.h"
#include "statev1.h"
#include "swverv1.h"
#include "wwbaseeventtype.h"
#include "wwcapabilities.h"
#include "wwmanufacturerspecific.h"

#include <cmath>
#include <iterator>
#include <limits>

namespace {

const char *const IniSource = "orvix.ini";
const char *const FallbackLocale = "en";
const char *const OnPrefix = "{ON }";
const char *const OffPrefix = "{OFF}";

constexpr double MillisecondsPerHour = 3600000.0;
constexpr double MillimetresPerMetre = 1000.0;

// The Relative value that each duration timer adds to, in the order of MmToOpcUaMapper::Duration.
std::optional<quint64> WwStateValues::*const DurationValues[] = {
    &WwStateValues::RelativeStandbyTime,
    &WwStateValues::RelativeWorkingTime,
    &WwStateValues::RelativeProductionTime,
    &WwStateValues::RelativeProductionWithoutWorkpieceTime,
    &WwStateValues::RelativeErrorTime,
};

quint64 toUnsigned64(double value)
{
    constexpr double TwoTo63 = 9223372036854775808.0;
    if (std::isnan(value))
        return 0;
    if (value >= 2 * TwoTo63)
        return std::numeric_limits<quint64>::max();
    if (value >= TwoTo63)
        return quint64(qint64(value - TwoTo63)) + (quint64(1) << 63);
    if (value <= -TwoTo63)
        return quint64(1) << 63;
    return quint64(qint64(value));
}

qint32 categoryOf(qint32 level)
{
    switch (level) {
    case NotificationsAddV1::Information:
        return WwBaseEventType::Information;
    case NotificationsAddV1::Warning:
        return WwBaseEventType::Warning;
    case NotificationsAddV1::Alarm:
        return WwBaseEventType::Error;
    default:
        return WwBaseEventType::Other;
    }
}

QStringList pathOf(const QString &id)
{
    const int last = id.lastIndexOf(QLatin1Char('/'));
    if (last <= 0)
        return QStringList();
    return id.left(last).split(QLatin1Char('/'), Qt::KeepEmptyParts);
}

WwStateFlags &flagsOf(WwState &state)
{
    if (!state.Flags)
        state.Flags = WwStateFlags();
    return *state.Flags;
}

WwStateValues &valuesOf(WwState &state)
{
    if (!state.Values)
        state.Values = WwStateValues();
    return *state.Values;
}

// A flag of a StateV1 row: set on, set off, or left as it was.
enum RowFlag : qint8 { Keep = -1, Off = 0, On = 1 };
constexpr qint64 KeepMode = -1;

// The optional flags that StateV1 rows set, in the order of a row's flags.
std::optional<bool> WwStateFlags::*const RowFlags[] = { &WwStateFlags::WorkpiecePresent, &WwStateFlags::Moving,
    &WwStateFlags::RecipeInRun, &WwStateFlags::RecipeInSetup, &WwStateFlags::FeedRuns, &WwStateFlags::EnergySaving };

// The flags that every running StateV1 row sets.
void setRunning(WwStateFlags &flags)
{
    flags.MachineOn = true;
    flags.MachineInitialized = true;
    flags.PowerPresent = true;
    flags.Calibrated = true;
}

} // namespace

MmToOpcUaMapper::MmToOpcUaMapper(QObject *parent)
    : QObject(parent)
    , m_offlineTimer(this)
{
    m_monotonic.start();
    connect(&m_offlineTimer, &QTimer::timeout, this, &MmToOpcUaMapper::markSilentMachinesOffline);
    m_offlineTimer.start(DefaultOfflineTimeout);
}

MmToOpcUaMapper::~MmToOpcUaMapper() = default;

bool MmToOpcUaMapper::init(const QVariantMap &config, QVariantMap &)
{
    qCInfo(lcMmToOpcUaMapper) << QStringLiteral("MmToOpcUaMapper::init");
    const auto server = config.constFind(QStringLiteral("opcuaserver"));
    if (server != config.cend())
        m_eventPrefix = SettingValue::toBool(server->toMap().value(QStringLiteral("enableWwBaseEventPrefix")),
            "enableWwBaseEventPrefix", false, lcMmToOpcUaMapper());
    readIdentification(config);
    return true;
}

QString MmToOpcUaMapper::name() const
{
    return QStringLiteral("mmtoopcuamapper");
}

unsigned int MmToOpcUaMapper::orderNumber() const
{
    return 50;
}

void MmToOpcUaMapper::setElapsedClock(std::function<qint64()> clock)
{
    m_elapsedClock = std::move(clock);
}

void MmToOpcUaMapper::setDateTimeClock(std::function<QDateTime()> clock)
{
    m_dateTimeClock = std::move(clock);
}

void MmToOpcUaMapper::setCapabilityTimeout(qint64 msecs)
{
    m_capabilityTimeout = msecs;
}

void MmToOpcUaMapper::setOfflineTimeout(int msecs)
{
    m_offlineTimeout = msecs;
    m_offlineTimer.start(msecs);
}

qint64 MmToOpcUaMapper::elapsedNow() const
{
    return m_elapsedClock ? m_elapsedClock() : m_monotonic.elapsed();
}

QDateTime MmToOpcUaMapper::currentDateTime() const
{
    return m_dateTimeClock ? m_dateTimeClock() : QDateTime::currentDateTime();
}

void MmToOpcUaMapper::readIdentification(const QVariantMap &config)
{
    if (config.isEmpty()) {
        qCWarning(lcMmToOpcUaMapper) << QStringLiteral("No settings were provided");
        return;
    }
    const QVariantMap machines = config.value(QStringLiteral("opcuawwcsidentification")).toMap();
    for (auto it = machines.cbegin(); it != machines.cend(); ++it)
        publishMachine(it.key(), it.value().toMap());
}

void MmToOpcUaMapper::publishMachine(const QString &machine, const QVariantMap &keys)
{
    const IdentificationConfig configured = IdentificationConfig::read(keys);
    const WwIdentification &identification = configured.identification;

    WwState state;
    WwStateFlags &flags = flagsOf(state);
    flags.WorkpiecePresent = false;
    flags.RecipeInRun = false;
    flags.RecipeInSetup = false;
    flags.EnergySaving = false;
    // Machining centres and presses move; other machines, such as edge banders, feed their workpieces.
    if (identification.DeviceClass == QLatin1String("MachiningCenter")
        || identification.DeviceClass == QLatin1String("Press"))
        flags.Moving = false;
    else
        flags.FeedRuns = false;

    Machine &record = m_machines[machine];
    record.hasIdentification = true;
    record.locale = configured.locale;
    record.identification = identification;
    record.state = state;

    const QString source = QLatin1String(IniSource);
    emit dataProcessed(currentDateTime(), machine, source, QVariant::fromValue(identification));
    emit dataProcessed(currentDateTime(), machine, source, QVariant::fromValue(state));
}

void MmToOpcUaMapper::processData(
    const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    emit dataProcessed(timestamp, machine, source, data);

    const qint64 now = elapsedNow();
    Machine &record = m_machines[machine];
    if (!record.firstSeen.running)
        record.firstSeen.start(now);
    record.lastSeen.start(now);
    record.lastSource = source;

    const int type = data.userType();
    // A datasource may hand in a type of its own that converts; a failed conversion yields the mask 0.
    if (data.canConvert<WwCapabilities>())
        record.capabilities = qvariant_cast<WwCapabilities>(data).Mask;
    if (!record.capabilities && record.firstSeen.elapsed(now) >= m_capabilityTimeout)
        record.capabilities = 0;
    if (!record.capabilities)
        return;

    if (type == qMetaTypeId<WwIdentification>())
        mapIdentification(record, machine, data);
    else if (type == qMetaTypeId<SwVerV1>())
        mapSoftwareVersion(record, timestamp, machine, source, data);
    else if (type == qMetaTypeId<GeneralV1>())
        mapGeneral(record, timestamp, machine, source, data);
    else if (type == qMetaTypeId<OrderV1>())
        mapOrder(timestamp, machine, source, data);
    else if (type == qMetaTypeId<NotificationsAddV1>())
        mapNotificationAdd(record, timestamp, machine, source, data);
    else if (type == qMetaTypeId<NotificationsRemoveV1>())
        mapNotificationRemove(record, timestamp, machine, source, data);
    else if (type == qMetaTypeId<NotificationsRemoveAllV1>())
        mapNotificationRemoveAll(record, timestamp, machine, source);
    else if (type == qMetaTypeId<StateV1>())
        mapState(record, now, timestamp, machine, source, data);
}

void MmToOpcUaMapper::mapIdentification(Machine &record, const QString &machine, const QVariant &data)
{
    if (!(*record.capabilities & WwCapabilities::OwnIdentification)) {
        qCWarning(lcMmToOpcUaMapper)
            << "Machine" << machine
            << "did sent WwCsIdentification information without having announced the capability";
        return;
    }
    record.identification = qvariant_cast<WwIdentification>(data);
    record.hasIdentification = true;
}

void MmToOpcUaMapper::mapSoftwareVersion(
    Machine &record, const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    if (!record.hasIdentification) {
        qCWarning(lcMmToOpcUaMapper) << "got a SwVerv1 struct for unknown machine:" << machine;
        return;
    }
    const QString version = qvariant_cast<SwVerV1>(data).version;
    qCInfo(lcMmToOpcUaMapper) << "Updating WWIdentification - Setting SoftwareRevision to" << version;
    record.identification.SoftwareRevision = version;
    emit dataProcessed(timestamp, machine, source, QVariant::fromValue(record.identification));
}

void MmToOpcUaMapper::mapGeneral(
    Machine &record, const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    if (*record.capabilities & WwCapabilities::OwnState)
        return;
    const GeneralV1 general = qvariant_cast<GeneralV1>(data);
    const quint64 onTime = toUnsigned64(general.powerOnHours * MillisecondsPerHour);
    const quint64 pieces = general.pieces;
    const quint64 length = toUnsigned64(general.length * MillimetresPerMetre);

    if (!record.firstMachineOnTime)
        record.firstMachineOnTime = onTime;
    if (!record.firstPowerPresentTime)
        record.firstPowerPresentTime = onTime;
    if (!record.firstPieces)
        record.firstPieces = pieces;
    if (!record.firstLength)
        record.firstLength = length;

    flagsOf(record.state);
    WwStateValues &values = valuesOf(record.state);
    values.AbsoluteMachineOnTime = onTime;
    values.RelativeMachineOnTime = onTime - *record.firstMachineOnTime;
    values.AbsolutePowerPresentTime = onTime;
    values.RelativePowerPresentTime = onTime - *record.firstPowerPresentTime;
    values.AbsolutePiecesOut = pieces;
    values.RelativePiecesOut = pieces - *record.firstPieces;
    values.AbsoluteLength = length;
    values.RelativeLength = length - *record.firstLength;

    emit dataProcessed(timestamp, machine, source, QVariant::fromValue(record.state));
}

void MmToOpcUaMapper::mapOrder(
    const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    WwManufacturerSpecific specific;
    specific.LastProgramName = qvariant_cast<OrderV1>(data).programName;
    qCInfo(lcMmToOpcUaMapper) << "Updating WwManufacturerSpecific - Setting LastProgramName to"
                              << specific.LastProgramName;
    emit dataProcessed(timestamp, machine, source, QVariant::fromValue(specific));
}

WwBaseEventType MmToOpcUaMapper::eventFor(
    const Machine &record, const QString &machine, const NotificationsAddV1 &notification, bool raised) const
{
    QString locale = record.locale;
    if (!record.hasIdentification || locale.isEmpty()) {
        qCWarning(lcMmToOpcUaMapper) << "Machine" << machine << "is missing locale information; falling back to 'en'";
        locale = QLatin1String(FallbackLocale);
    }

    WwBaseEventType event;
    const QString prefix = m_eventPrefix ? QLatin1String(raised ? OnPrefix : OffPrefix) : QString();
    event.Message = QStringLiteral("%1%2").arg(prefix, notification.message);
    event.Id = notification.id;
    event.Category = categoryOf(notification.level);
    event.Texts.insert(locale, notification.message);
    event.Text5 = notification.messageCode;
    event.Text6 = notification.text7;
    event.Text7 = notification.text8;
    event.Path = pathOf(notification.id);
    return event;
}

void MmToOpcUaMapper::mapNotificationAdd(
    Machine &record, const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    const NotificationsAddV1 notification = qvariant_cast<NotificationsAddV1>(data);
    const WwBaseEventType event = eventFor(record, machine, notification, true);
    record.notifications.insert(notification.id, notification);

    bool flagSet = false;
    if (!(*record.capabilities & WwCapabilities::OwnState)) {
        if (notification.level == NotificationsAddV1::Warning) {
            flagsOf(record.state).Warning = true;
            flagSet = true;
        } else if (notification.level == NotificationsAddV1::Alarm && record.state.MachineState != WwState::Error) {
            flagsOf(record.state).Alarm = true;
            flagSet = true;
        }
    }
    const WwState state = record.state;

    emit dataProcessed(timestamp, machine, source, QVariant::fromValue(event));
    if (flagSet)
        emit dataProcessed(timestamp, machine, source, QVariant::fromValue(state));
}

void MmToOpcUaMapper::mapNotificationRemove(
    Machine &record, const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    const QString id = qvariant_cast<NotificationsRemoveV1>(data).id;
    qCDebug(lcMmToOpcUaMapper).nospace() << "NotificationsRemoveV1: removing " << id;
    const auto found = record.notifications.find(id);
    if (found == record.notifications.end()) {
        qCDebug(lcMmToOpcUaMapper).nospace() << "NotificationsRemoveV1 for an unknown notification " << id;
        return;
    }
    const WwBaseEventType event = eventFor(record, machine, *found, false);
    record.notifications.erase(found);
    const bool cleared = clearWithdrawnFlags(record);
    const WwState state = record.state;

    emit dataProcessed(timestamp, machine, source, QVariant::fromValue(event));
    if (cleared)
        emit dataProcessed(timestamp, machine, source, QVariant::fromValue(state));
}

void MmToOpcUaMapper::mapNotificationRemoveAll(
    Machine &record, const QDateTime &timestamp, const QString &machine, const QString &source)
{
    QList<WwBaseEventType> events;
    events.reserve(record.notifications.size());
    for (const NotificationsAddV1 &notification : qAsConst(record.notifications))
        events.append(eventFor(record, machine, notification, false));
    record.notifications.clear();
    const bool cleared = clearWithdrawnFlags(record);
    const WwState state = record.state;

    for (const WwBaseEventType &event : qAsConst(events))
        emit dataProcessed(timestamp, machine, source, QVariant::fromValue(event));
    if (cleared)
        emit dataProcessed(timestamp, machine, source, QVariant::fromValue(state));
}

bool MmToOpcUaMapper::clearWithdrawnFlags(Machine &record)
{
    if (*record.capabilities & WwCapabilities::OwnState || !record.state.Flags)
        return false;
    bool warning = false;
    bool alarm = false;
    for (const NotificationsAddV1 &notification : qAsConst(record.notifications)) {
        warning = warning || notification.level == NotificationsAddV1::Warning;
        alarm = alarm || notification.level == NotificationsAddV1::Alarm;
    }
    WwStateFlags &flags = *record.state.Flags;
    bool cleared = false;
    if (flags.Warning && !warning) {
        flags.Warning = false;
        cleared = true;
    }
    if (flags.Alarm && !alarm) {
        flags.Alarm = false;
        cleared = true;
    }
    return cleared;
}

void MmToOpcUaMapper::restartDuration(Machine &record, Duration duration, qint64 now)
{
    Stopwatch &timer = record.durations[duration];
    if (timer.running) {
        std::optional<quint64> &relative = valuesOf(record.state).*DurationValues[duration];
        relative = relative.value_or(0) + quint64(timer.elapsed(now));
    }
    timer.start(now);
}

/**
 * What a running StateV1 code makes of the machine: its state, its operation mode (KeepMode: as it was), the Error
 * flag and the flags of RowFlags, and the duration timers it restarts (DurationCount: none). Each row also sets the
 * flags of setRunning.
 */
struct MmToOpcUaMapper::StateRow
{
    qint32 code;
    quint32 machineState;
    qint64 operationMode;
    RowFlag error;
    RowFlag flags[std::size(RowFlags)];
    Duration restarts[2];
};

// clang-format off
const MmToOpcUaMapper::StateRow MmToOpcUaMapper::StateRows[] = {
    // code, machine state, operation mode, Error,
    //     WorkpiecePresent, Moving, RecipeInRun, RecipeInSetup, FeedRuns, EnergySaving, restarted durations
    { StateV1::Producing, WwState::Working, WwState::Automatic, Off,
        { On, On, On, Keep, On, Off }, { Production, Working } },
    { StateV1::Setup, WwState::Working, WwState::Setup, Off,
        { Keep, Keep, On, On, Keep, Off }, { DurationCount, DurationCount } },
    { StateV1::Standby, WwState::Working, WwState::Sleep, Off,
        { Keep, Off, Off, Off, Off, On }, { Standby, DurationCount } },
    { StateV1::WorkingWithoutWorkpiece, WwState::Ready, WwState::Automatic, Off,
        { Off, Off, Off, Off, On, Off }, { ProductionWithoutWorkpiece, Working } },
    { StateV1::Waiting, WwState::Error, KeepMode, Keep,
        { Keep, Off, Off, Off, Off, Keep }, { DurationCount, DurationCount } },
    { StateV1::Error, WwState::Error, KeepMode, On,
        { Keep, Off, Off, Off, Off, Keep }, { Error, DurationCount } },
};
// clang-format on

void MmToOpcUaMapper::mapState(Machine &record, qint64 now, const QDateTime &timestamp, const QString &machine,
    const QString &source, const QVariant &data)
{
    if (*record.capabilities & WwCapabilities::OwnState)
        return;
    const qint32 code = qvariant_cast<StateV1>(data).state;
    WwState &state = record.state;
    switch (code) {
    case 0:
        qCWarning(lcMmToOpcUaMapper) << QStringLiteral("StateV1/EvMachineStateUndefined unhandled");
        break;
    case StateV1::Offline:
        state.MachineState = WwState::Offline;
        state.OperationMode = WwState::Other;
        state.Flags = WwStateFlags();
        break;
    default:
        for (const StateRow &row : StateRows) {
            if (row.code != code)
                continue;
            state.MachineState = row.machineState;
            if (row.operationMode != KeepMode)
                state.OperationMode = quint32(row.operationMode);
            WwStateFlags &flags = flagsOf(state);
            setRunning(flags);
            if (row.error != Keep)
                flags.Error = row.error == On;
            for (size_t column = 0; column < std::size(RowFlags); ++column) {
                if (row.flags[column] != Keep)
                    flags.*RowFlags[column] = row.flags[column] == On;
            }
            for (const Duration duration : row.restarts) {
                if (duration != DurationCount)
                    restartDuration(record, duration, now);
            }
        }
        break;
    }
    emit dataProcessed(timestamp, machine, source, QVariant::fromValue(state));
}

void MmToOpcUaMapper::markSilentMachinesOffline()
{
    const qint64 now = elapsedNow();
    QStringList silent;
    for (auto it = m_machines.cbegin(); it != m_machines.cend(); ++it) {
        if (it->lastSeen.running && it->lastSeen.elapsed(now) >= m_offlineTimeout)
            silent.append(it.key());
    }
    silent.sort();

    StateV1 offline;
    offline.state = StateV1::Offline;
    const QVariant data = QVariant::fromValue(offline);
    for (const QString &machine : qAsConst(silent)) {
        qCDebug(lcMmToOpcUaMapper).nospace() << "Timeout: marking " << machine << " as OFFLINE";
        // A copy of the source: the machine's record lives in a hash that a nested dataset may rehash.
        const QString source = m_machines.constFind(machine)->lastSource;
        processData(currentDateTime(), machine, source, data);
    }
}
