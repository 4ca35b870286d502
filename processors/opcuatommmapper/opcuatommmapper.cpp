#include "opcuatommmapper.h"

#include "conditiondatasv2.h"
#include "conditiondefinitionsv2.h"
#include "generalv1.h"
#include "listhandover.h"
#include "notificationsaddv1.h"
#include "notificationsremovev1.h"
#include "opcuatommmapperlogging.h"
#include "statev1.h"
#include "wwbaseeventtype.h"
#include "wwidentification.h"
#include "wwstate.h"

#include <QVector>

#include <cstring>
#include <type_traits>

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
// before the wait flags. An absent flag is neither true nor false.
qint32 stateCode(const WwState &state)
{
    if (state.MachineState == WwState::Offline)
        return StateV1::Offline;
    if (state.MachineState == WwState::Error)
        return StateV1::Error;
    if (state.MachineState == WwState::Standby)
        return StateV1::Standby;
    if (state.OperationMode == WwState::Setup)
        return StateV1::Setup;
    if (isTrue(state, &WwStateFlags::WaitUnload) || isTrue(state, &WwStateFlags::WaitLoad))
        return StateV1::Waiting;
    if (state.MachineState == WwState::Working)
        return isFalse(state, &WwStateFlags::WorkpiecePresent) ? StateV1::WorkingWithoutWorkpiece : StateV1::Producing;
    // Ready, and every code the model does not define: an absent WorkpiecePresent counts as work present here.
    if ((isTrue(state, &WwStateFlags::Moving) || isTrue(state, &WwStateFlags::FeedRuns))
        && isFalse(state, &WwStateFlags::WorkpiecePresent))
        return StateV1::WorkingWithoutWorkpiece;
    return StateV1::Standby;
}

/** One flag, value or field that becomes a condition: its bare name, what follows the machine in its id, its type. */
struct ConditionItem
{
    QString name;
    QString idSuffix;
    qint32 dataType;
};

template <typename Record, typename Field> Field fieldType(Field Record::*);

/** Whether a record field becomes a condition: all but the name under which the datasource knows the machine. */
template <typename Member> bool isCondition([[maybe_unused]] Member member)
{
    if constexpr (std::is_same_v<Member, QString WwIdentification::*>)
        return member != &WwIdentification::Name;
    else
        return true;
}

template <typename T> const T *presentValue(const T &value)
{
    return &value;
}

template <typename T> const T *presentValue(const std::optional<T> &value)
{
    return value ? &*value : nullptr;
}

/** Calls visit(index, value) for each flag and value of a state in the order of their conditions; nullptr: absent. */
template <typename Visit> void visitStateItems(const WwState &state, Visit &&visit)
{
    if (state.Flags) {
        const WwStateFlags &flags = *state.Flags;
        int index = 0;
        WwStateFlags::visitFields([&](const char *, auto member) { visit(index++, presentValue(flags.*member)); });
    }
    if (state.Values) {
        const WwStateValues &values = *state.Values;
        int index = WwModel::FlagCount;
        WwStateValues::visitFields([&](const char *, auto member) { visit(index++, presentValue(values.*member)); });
    }
}

// Bit for bit, so that a value that compares equal but is not the same (-0.0 after 0.0) still goes out as it came.
template <typename T> bool sameBits(const T &a, const T &b)
{
    static_assert(std::is_trivially_copyable_v<T>, "compared as plain memory");
    return std::memcmp(&a, &b, sizeof(T)) == 0;
}

/** The bits of a flag or value, widened to 64 and compared as they are: the same bits mean the same value. */
template <typename T> quint64 valueBits(const T &value)
{
    static_assert(std::is_trivially_copyable_v<T> && sizeof(T) <= sizeof(quint64), "kept as plain memory");
    quint64 bits = 0;
    std::memcpy(&bits, &value, sizeof(T));
    return bits;
}

bool sameOperatingData(const GeneralV1 &a, const GeneralV1 &b)
{
    bool same = true;
    GeneralV1::visitFields([&](const char *, auto member) { same = same && sameBits(a.*member, b.*member); });
    return same;
}

template <typename Record> void appendItems(QVector<ConditionItem> &items, QLatin1String idPart)
{
    Record::visitFields([&](const char *name, auto member) {
        if (!isCondition(member))
            return;
        const QString bareName = QString::fromLatin1(name);
        items.append({ bareName, idPart + bareName, orvix::conditionTypeOf<decltype(fieldType(member))>() });
    });
}

/** The flags, then the values, in the order in which their conditions are sent. */
const QVector<ConditionItem> &stateItems()
{
    static const QVector<ConditionItem> items = [] {
        QVector<ConditionItem> list;
        appendItems<WwStateFlags>(list, QLatin1String(WwModel::FlagsPath));
        Q_ASSERT(list.size() == WwModel::FlagCount);
        appendItems<WwStateValues>(list, QLatin1String(WwModel::ValuesPath));
        Q_ASSERT(list.size() == WwModel::FlagCount + WwModel::ValueCount);
        return list;
    }();
    return items;
}

/** The nameplate fields, in the order in which their conditions are sent. */
const QVector<ConditionItem> &identificationItems()
{
    static const QVector<ConditionItem> items = [] {
        QVector<ConditionItem> list;
        appendItems<WwIdentification>(list, QLatin1String(WwModel::IdentificationPath));
        Q_ASSERT(list.size() == WwModel::IdentificationFieldCount);
        return list;
    }();
    return items;
}

QString conditionId(const QString &machine, const ConditionItem &item)
{
    // Sized exactly: the ids are kept for the life of the process for every machine, and a concatenation
    // (QString r(a); r += b) leaves room for up to twice their length.
    QString id;
    id.reserve(machine.size() + item.idSuffix.size());
    id.append(machine);
    id.append(item.idSuffix);
    return id;
}

ConditionDefinitionV2 conditionDefinition(const QString &id, const ConditionItem &item)
{
    ConditionDefinitionV2 definition;
    definition.id = id;
    definition.name = item.name;
    definition.dataType = item.dataType;
    return definition;
}

QVariant identificationValue(const QString &value)
{
    return value;
}

QVariant identificationValue(quint16 value)
{
    return qint32(value);
}

QVariant identificationValue(quint8 value)
{
    return qint32(value);
}

QVariant identificationValue(const QDateTime &value)
{
    return value.toString(Qt::ISODate);
}

/**
 * The text a qCWarning of the mapper's category hands the message handler for a text streamed into it: in double
 * quotes, as QDebug writes a string of printable characters.
 */
QString quoted(const char *text)
{
    return QLatin1Char('"') + QLatin1String(text) + QLatin1Char('"');
}

/**
 * Logs what qCWarning(lcOpcUaToMMMapper) << text logs, given the text already quoted: a machine that does not report
 * the counters of its operating data is warned about on every update, and formatting the same text each time through
 * QDebug costs more than the rest of the update.
 */
void warnQuoted(const QMessageLogContext &context, const QString &quotedText)
{
    if (lcOpcUaToMMMapper().isWarningEnabled())
        qt_message_output(QtWarningMsg, context, quotedText);
}

// The call site, as qCWarning records it.
#define ORVIX_MAPPER_LOG_CONTEXT                                                                                       \
    QMessageLogContext(QT_MESSAGELOG_FILE, QT_MESSAGELOG_LINE, QT_MESSAGELOG_FUNC, lcOpcUaToMMMapper().categoryName())

qint32 notificationLevel(qint32 category)
{
    switch (category) {
    case WwBaseEventType::Information:
        return NotificationsAddV1::Information;
    case WwBaseEventType::Warning:
        return NotificationsAddV1::Warning;
    case WwBaseEventType::Error:
        return NotificationsAddV1::Alarm;
    default:
        return NotificationsAddV1::Other;
    }
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

void OpcUaToMMMapper::processData(
    const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data)
{
    qCDebug(lcOpcUaToMMMapper) << timestamp << machine << source << data;

    // qvariant_cast copies a WwState straight out of the variant and otherwise runs the registered conversion,
    // which yields a default record when it fails.
    if (data.canConvert<WwState>()) {
        const WwState state = qvariant_cast<WwState>(data);
        mapState(timestamp, machine, source, state);
        // An offline machine yields nothing more, and nothing is kept for it.
        if (state.MachineState == WwState::Offline)
            return;
        KnownMachine &known = knownMachine(source, machine);
        mapOperatingData(timestamp, machine, source, state, known);
        mapStateConditions(timestamp, machine, source, state, known);
        return;
    }
    if (data.canConvert<WwIdentification>()) {
        mapIdentification(timestamp, machine, source, qvariant_cast<WwIdentification>(data));
        return;
    }
    if (data.canConvert<WwBaseEventType>()) {
        mapEvent(timestamp, machine, source, qvariant_cast<WwBaseEventType>(data));
        return;
    }
    emit dataProcessed(timestamp, machine, source, data);
}

OpcUaToMMMapper::KnownMachine &OpcUaToMMMapper::knownMachine(const QString &source, const QString &machine)
{
    return m_knownMachines[source][machine];
}

void OpcUaToMMMapper::mapState(
    const QDateTime &timestamp, const QString &machine, const QString &source, const WwState &state)
{
    if (!isComplete(state))
        qCWarning(lcOpcUaToMMMapper) << QStringLiteral("Missing some flags, the state might be incomplete");
    StateV1 result;
    result.state = stateCode(state);
    // Made afresh, unlike the other two: a StateV1 lives inside the variant itself, so keeping one would save nothing
    // (a copy of it costs what making one costs).
    emit dataProcessed(timestamp, machine, source, QVariant::fromValue(result));
}

void OpcUaToMMMapper::mapOperatingData(const QDateTime &timestamp, const QString &machine, const QString &source,
    const WwState &state, KnownMachine &known)
{
    Q_ASSERT(state.MachineState != 0);
    static const QString noValues = quoted("Values are not availabe, unable to calculate GeneralV1");
    static const QString noPowerPresentTime = quoted("AbsolutePowerPresentTime is not set");
    static const QString noFeedOnHours = quoted("Missing values for FeedOnHours");
    static const QString noPiecesOut = quoted("AbsolutePiecesOut is not set");
    static const QString noLength = quoted("AbsoluteLength is not set");
    if (!state.Values) {
        warnQuoted(ORVIX_MAPPER_LOG_CONTEXT, noValues);
        return;
    }
    const WwStateValues &values = *state.Values;
    constexpr double millisecondsPerHour = 3600000.0;
    GeneralV1 general;
    if (values.AbsolutePowerPresentTime)
        general.powerOnHours = double(*values.AbsolutePowerPresentTime) / millisecondsPerHour;
    else
        warnQuoted(ORVIX_MAPPER_LOG_CONTEXT, noPowerPresentTime);
    // The time spent waiting for a workpiece is not feed time. The sum wraps like the machine's own counters.
    if (values.AbsoluteProductionTime && values.AbsoluteProductionWithoutWorkpieceTime)
        general.feedOnHours
            = double(quint64(*values.AbsoluteProductionTime + *values.AbsoluteProductionWithoutWorkpieceTime))
            / millisecondsPerHour;
    else
        warnQuoted(ORVIX_MAPPER_LOG_CONTEXT, noFeedOnHours);
    if (values.AbsolutePiecesOut)
        general.pieces = *values.AbsolutePiecesOut;
    else
        warnQuoted(ORVIX_MAPPER_LOG_CONTEXT, noPiecesOut);
    // Whole metres only: 1999 mm are 1 m.
    if (values.AbsoluteLength)
        general.length = double(*values.AbsoluteLength / 1000u);
    else
        warnQuoted(ORVIX_MAPPER_LOG_CONTEXT, noLength);

    // The variant of the last one is sent again while the counters stand still, and otherwise overwritten in place
    // unless a receiver still holds it (QVariant::data() copies it then).
    if (!known.operatingData.isValid())
        known.operatingData = QVariant::fromValue(general);
    else if (!sameOperatingData(*static_cast<const GeneralV1 *>(known.operatingData.constData()), general))
        *static_cast<GeneralV1 *>(known.operatingData.data()) = general;
    // Receivers get a copy of the kept variant (a reference count): a nested dataset may move or rewrite the kept one.
    const QVariant data = known.operatingData;
    emit dataProcessed(timestamp, machine, source, data);
}

void OpcUaToMMMapper::mapStateConditions(const QDateTime &timestamp, const QString &machine, const QString &source,
    const WwState &state, KnownMachine &known)
{
    Q_ASSERT(state.MachineState != 0);
    std::bitset<StateItemCount> present;
    visitStateItems(state, [&](int i, const auto *value) {
        if (value)
            present.set(i);
    });
    if (present.none())
        return;

    const std::bitset<StateItemCount> undefined = present & ~known.stateDefined;
    if (undefined.any()) {
        // An id is built with its definition, once per source and machine, and only for items that come.
        const QVector<ConditionItem> &items = stateItems();
        ConditionDefinitionsV2 definitions;
        definitions.timestamp = timestamp;
        definitions.items.reserve(int(undefined.count()));
        for (int i = 0; i < StateItemCount; ++i) {
            if (!undefined.test(i))
                continue;
            known.stateIds[i] = conditionId(machine, items.at(i));
            definitions.items.append(conditionDefinition(known.stateIds[i], items.at(i)));
        }
        known.stateDefined |= present;
        emit dataProcessed(timestamp, machine, source, QVariant::fromValue(definitions));
    }

    // The last list sent is kept and brought up to date, and an update that changes nothing sends the same list again.
    // QVariant::data() and the non-const QList::operator[] copy what is shared, so a dataset that went out never
    // changes.
    if (!known.stateDatas.isValid())
        known.stateDatas = QVariant::fromValue(ConditionDatasV2());
    auto &datas = *static_cast<ConditionDatasV2 *>(known.stateDatas.data());
    datas.timestamp = timestamp;
    if (present == known.stateInDatas) {
        bool changed = false;
        visitStateItems(state,
            [&](int i, const auto *value) { changed = changed || (value && valueBits(*value) != known.stateBits[i]); });
        if (changed) {
            // The receivers keep the last list until the next one comes (Limit's entries point into it), so a change
            // is written into the list before it, which they have let go of by then (listhandover.h): no item is
            // copied or freed. When that one is still held, the last list is copied instead and kept as the one to
            // write next time.
            QList<ConditionDataV2> &items = datas.items;
            if (known.spareInDatas == present && ListHandover::writableAgain(known.spareItems)) {
                std::swap(items, known.spareItems);
                std::swap(known.stateBits, known.spareBits);
            } else {
                known.spareItems = items;
                known.spareBits = known.stateBits;
                known.spareInDatas = present;
            }
            int position = 0;
            visitStateItems(state, [&](int i, const auto *value) {
                if (!value)
                    return;
                const int at = position++;
                const quint64 bits = valueBits(*value);
                if (bits != known.stateBits[i]) {
                    items[at].value = QVariant::fromValue(*value);
                    known.stateBits[i] = bits;
                }
            });
        }
    } else {
        // An item came or went: rare, so the list is made anew.
        QList<ConditionDataV2> list;
        list.reserve(int(present.count()));
        visitStateItems(state, [&](int i, const auto *value) {
            if (!value)
                return;
            ConditionDataV2 data;
            data.id = known.stateIds[i];
            data.value = QVariant::fromValue(*value);
            list.append(data);
            known.stateBits[i] = valueBits(*value);
        });
        datas.items = list;
        known.stateInDatas = present;
        known.spareItems.clear();
        known.spareInDatas.reset();
    }
    const QVariant data = known.stateDatas;
    emit dataProcessed(timestamp, machine, source, data);
}

void OpcUaToMMMapper::mapIdentification(
    const QDateTime &timestamp, const QString &machine, const QString &source, const WwIdentification &identification)
{
    const QVector<ConditionItem> &items = identificationItems();
    KnownMachine &known = knownMachine(source, machine);

    ConditionDefinitionsV2 definitions;
    definitions.timestamp = timestamp;
    ConditionDatasV2 datas;
    datas.timestamp = timestamp;
    int index = 0;
    WwIdentification::visitFields([&](const char *, auto member) {
        if (!isCondition(member))
            return;
        const int i = index++;
        const auto *value = presentValue(identification.*member);
        if (!value)
            return;
        QString &id = known.identificationIds[i];
        if (!known.identificationDefined.test(i)) {
            known.identificationDefined.set(i);
            id = conditionId(machine, items.at(i));
            definitions.items.append(conditionDefinition(id, items.at(i)));
        }
        ConditionDataV2 data;
        data.id = id;
        data.value = identificationValue(*value);
        datas.items.append(data);
    });

    if (!definitions.items.isEmpty())
        emit dataProcessed(timestamp, machine, source, QVariant::fromValue(definitions));
    // Never empty: the mandatory fields are always there.
    emit dataProcessed(timestamp, machine, source, QVariant::fromValue(datas));
}

void OpcUaToMMMapper::mapEvent(
    const QDateTime &timestamp, const QString &machine, const QString &source, const WwBaseEventType &event)
{
    // A withdrawal names the bare message id, while an announcement's id carries the path in front of it.
    if (event.Message.startsWith(QLatin1String("{OFF"), Qt::CaseSensitive)) {
        NotificationsRemoveV1 remove;
        remove.id = event.Id;
        remove.timestamp = timestamp;
        emit dataProcessed(timestamp, machine, source, QVariant::fromValue(remove));
        return;
    }
    NotificationsAddV1 add;
    add.id = QStringLiteral("%1/%2").arg(event.Path.join(QLatin1Char('/')), event.Id);
    add.timestamp = timestamp;
    add.level = notificationLevel(event.Category);
    if (!event.Texts.isEmpty())
        add.message = event.Texts.constBegin().value();
    add.messageCode = event.Id;
    emit dataProcessed(timestamp, machine, source, QVariant::fromValue(add));
}
