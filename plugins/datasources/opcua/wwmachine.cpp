#include "wwmachine.h"

#include "wwmodel.h"

#include <limits>
#include <type_traits>
#include <utility>

namespace {

template <typename Record> QStringList fieldNames()
{
    QStringList names;
    Record::visitFields([&](const char *name, auto) { names << QString::fromLatin1(name); });
    return names;
}

template <typename T> struct IsOptional : std::false_type
{
};
template <typename T> struct IsOptional<std::optional<T>> : std::true_type
{
};

/** For each field of a record in order, whether it is always there; the fields that skip names are left out. */
template <typename Record> QVector<bool> mandatoryFields(const char *skip = nullptr)
{
    QVector<bool> mandatory;
    Record::visitFields([&](const char *name, auto member) {
        if (skip && qstrcmp(name, skip) == 0)
            return;
        mandatory << !IsOptional<std::decay_t<decltype(std::declval<Record>().*member)>>::value;
    });
    return mandatory;
}

/**
 * A definition, as the mapping makes it (id, bare name, type, the rest default), for each field of a record that the
 * machine's records will hold: those every machine has, and the optional ones whose node was found.
 */
template <typename Record>
void appendDefinitions(QList<ConditionDefinitionV2> &items, const QString &machine, const char *path,
    const QVector<OpcUa::NodeId> &nodes, const char *skip = nullptr)
{
    int index = 0;
    Record::visitFields([&](const char *name, auto member) {
        if (skip && qstrcmp(name, skip) == 0)
            return;
        using Field = std::decay_t<decltype(std::declval<Record>().*member)>;
        const bool present = !IsOptional<Field>::value || !nodes.value(index).isNull();
        ++index;
        if (!present)
            return;
        items.append(orvix::fieldDefinition<Field>(machine, path, name));
    });
}

bool isScalarOf(const UA_Variant &value, int typeIndex)
{
    return UA_Variant_hasScalarType(&value, &UA_TYPES[typeIndex]);
}

/** Any integer type of the library, as long as it is not negative and not above maximum. */
bool toUnsigned(const UA_Variant &value, quint64 maximum, quint64 *result)
{
    if (!UA_Variant_isScalar(&value))
        return false;
    const void *data = value.data;
    qint64 signedValue = 0;
    quint64 unsignedValue = 0;
    bool isSigned = true;
    switch (value.type->typeKind) {
    case UA_DATATYPEKIND_SBYTE:
        signedValue = *static_cast<const UA_SByte *>(data);
        break;
    case UA_DATATYPEKIND_INT16:
        signedValue = *static_cast<const UA_Int16 *>(data);
        break;
    case UA_DATATYPEKIND_INT32:
    case UA_DATATYPEKIND_ENUM:
        signedValue = *static_cast<const UA_Int32 *>(data);
        break;
    case UA_DATATYPEKIND_INT64:
        signedValue = *static_cast<const UA_Int64 *>(data);
        break;
    case UA_DATATYPEKIND_BYTE:
        isSigned = false;
        unsignedValue = *static_cast<const UA_Byte *>(data);
        break;
    case UA_DATATYPEKIND_UINT16:
        isSigned = false;
        unsignedValue = *static_cast<const UA_UInt16 *>(data);
        break;
    case UA_DATATYPEKIND_UINT32:
        isSigned = false;
        unsignedValue = *static_cast<const UA_UInt32 *>(data);
        break;
    case UA_DATATYPEKIND_UINT64:
        isSigned = false;
        unsignedValue = *static_cast<const UA_UInt64 *>(data);
        break;
    default:
        return false;
    }
    if (isSigned) {
        if (signedValue < 0)
            return false;
        unsignedValue = quint64(signedValue);
    }
    if (unsignedValue > maximum)
        return false;
    *result = unsignedValue;
    return true;
}

bool convert(const UA_Variant &value, bool *result)
{
    if (!isScalarOf(value, UA_TYPES_BOOLEAN))
        return false;
    *result = *static_cast<const UA_Boolean *>(value.data);
    return true;
}

template <typename Integer> bool convertInteger(const UA_Variant &value, Integer *result)
{
    quint64 number = 0;
    if (!toUnsigned(value, std::numeric_limits<Integer>::max(), &number))
        return false;
    *result = Integer(number);
    return true;
}

bool convert(const UA_Variant &value, quint8 *result)
{
    return convertInteger(value, result);
}

bool convert(const UA_Variant &value, quint16 *result)
{
    return convertInteger(value, result);
}

bool convert(const UA_Variant &value, quint32 *result)
{
    return convertInteger(value, result);
}

bool convert(const UA_Variant &value, quint64 *result)
{
    return convertInteger(value, result);
}

bool convert(const UA_Variant &value, double *result)
{
    if (isScalarOf(value, UA_TYPES_DOUBLE)) {
        *result = *static_cast<const UA_Double *>(value.data);
        return true;
    }
    if (isScalarOf(value, UA_TYPES_FLOAT)) {
        *result = double(*static_cast<const UA_Float *>(value.data));
        return true;
    }
    quint64 number = 0;
    if (!toUnsigned(value, std::numeric_limits<quint64>::max(), &number))
        return false;
    *result = double(number);
    return true;
}

/** Texts come as String or, for the names a person reads, as LocalizedText; the text counts, not its locale. */
bool convert(const UA_Variant &value, QString *result)
{
    if (isScalarOf(value, UA_TYPES_STRING)) {
        *result = WwMachine::boundedText(*static_cast<const UA_String *>(value.data));
        return true;
    }
    if (isScalarOf(value, UA_TYPES_LOCALIZEDTEXT)) {
        *result = WwMachine::boundedText(static_cast<const UA_LocalizedText *>(value.data)->text);
        return true;
    }
    return false;
}

bool convert(const UA_Variant &value, QDateTime *result)
{
    if (!isScalarOf(value, UA_TYPES_DATETIME))
        return false;
    *result = WwMachine::toDateTime(*static_cast<const UA_DateTime *>(value.data));
    return true;
}

/** A field that is always there keeps its value while the server has none. */
template <typename T> bool assign(T &field, const UA_Variant &value)
{
    if (UA_Variant_isEmpty(&value))
        return true;
    return convert(value, &field);
}

template <typename T> bool assign(std::optional<T> &field, const UA_Variant &value)
{
    if (UA_Variant_isEmpty(&value)) {
        field.reset();
        return true;
    }
    T converted {};
    if (!convert(value, &converted))
        return false;
    field = converted;
    return true;
}

/** Sets the field at index of record's field list, skipping the fields that skip names. */
template <typename Record> bool assignAt(Record &record, int index, const UA_Variant &value, const char *skip = nullptr)
{
    bool fits = true;
    int position = 0;
    Record::visitFields([&](const char *name, auto member) {
        if (skip && qstrcmp(name, skip) == 0)
            return;
        if (position++ == index)
            fits = assign(record.*member, value);
    });
    return fits;
}

} // namespace

const QStringList &WwMachine::flagNames()
{
    static const QStringList names = fieldNames<WwStateFlags>();
    return names;
}

const QStringList &WwMachine::valueNames()
{
    static const QStringList names = fieldNames<WwStateValues>();
    return names;
}

const QStringList &WwMachine::identificationNames()
{
    static const QStringList names = [] {
        QStringList fields = fieldNames<WwIdentification>();
        fields.removeAll(QStringLiteral("Name"));
        return fields;
    }();
    return names;
}

bool WwMachine::isMandatoryFlag(int index)
{
    static const QVector<bool> mandatory = mandatoryFields<WwStateFlags>();
    return mandatory.value(index);
}

bool WwMachine::isMandatoryIdentification(int index)
{
    static const QVector<bool> mandatory = mandatoryFields<WwIdentification>("Name");
    return mandatory.value(index);
}

QString WwMachine::boundedText(const UA_String &text)
{
    return QString::fromUtf8(reinterpret_cast<const char *>(text.data), int(qMin<size_t>(text.length, MaxTextBytes)));
}

QDateTime WwMachine::toDateTime(UA_DateTime time)
{
    return QDateTime::fromMSecsSinceEpoch((time - UA_DATETIME_UNIX_EPOCH) / UA_DATETIME_MSEC, Qt::UTC);
}

bool WwMachine::isNewEvent(const QByteArray &eventId)
{
    if (eventIds.contains(eventId))
        return false;
    if (eventOrder.size() >= RememberedEvents)
        eventIds.remove(eventOrder.dequeue());
    eventOrder.enqueue(eventId);
    eventIds.insert(eventId);
    return true;
}

ConditionDefinitionsV2 WwMachine::definitions(const QDateTime &timestamp) const
{
    ConditionDefinitionsV2 list;
    list.timestamp = timestamp;
    appendDefinitions<WwIdentification>(list.items, name, WwModel::IdentificationPath, identificationNodes, "Name");
    if (hasFlags)
        appendDefinitions<WwStateFlags>(list.items, name, WwModel::FlagsPath, flags);
    if (hasValues)
        appendDefinitions<WwStateValues>(list.items, name, WwModel::ValuesPath, values);
    return list;
}

void WwMachine::clearNodes()
{
    events = OpcUa::NodeId();
    currentState = OpcUa::NodeId();
    currentMode = OpcUa::NodeId();
    lastProgramName = OpcUa::NodeId();
    hasFlags = false;
    hasValues = false;
    flags.fill(OpcUa::NodeId());
    values.fill(OpcUa::NodeId());
    identificationNodes.fill(OpcUa::NodeId());
}

bool WwMachine::set(Field field, int index, const UA_Variant &value)
{
    switch (field) {
    case Field::CurrentState:
        return assign(state.MachineState, value);
    case Field::CurrentMode:
        return assign(state.OperationMode, value);
    case Field::Flag:
        if (!state.Flags)
            state.Flags.emplace();
        return assignAt(*state.Flags, index, value);
    case Field::Value:
        if (!state.Values)
            state.Values.emplace();
        return assignAt(*state.Values, index, value);
    case Field::Identification:
        return assignAt(identification, index, value, "Name");
    case Field::LastProgramName:
        return assign(manufacturerSpecific.LastProgramName, value);
    case Field::Events:
        break;
    }
    return false;
}
