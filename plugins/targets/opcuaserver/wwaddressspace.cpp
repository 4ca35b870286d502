#include "wwaddressspace.h"

#include "wwaddressspacenodes.h"
#include "wwmodel.h"

#include <type_traits>

namespace {

/** The severity of an event by its category: from barely worth noting to an error that needs a person. */
UA_UInt16 severityOf(qint32 category)
{
    switch (category) {
    case WwBaseEventType::Information:
        return 200;
    case WwBaseEventType::Warning:
        return 500;
    case WwBaseEventType::Alarm:
        return 800;
    case WwBaseEventType::Error:
        return 900;
    default:
        return 100;
    }
}

/** Where an identification field lives: its browse name's namespace and whether it is a localised text. */
enum class Home { Di, Machinery, Woodworking };

struct IdentificationField
{
    const char *name;
    Home home;
    bool localized;
};

const IdentificationField IdentificationFields[] = {
    { "ProductInstanceUri", Home::Di, false },
    { "Manufacturer", Home::Di, true },
    { "ManufacturerUri", Home::Di, false },
    { "Model", Home::Di, true },
    { "ProductCode", Home::Di, false },
    { "HardwareRevision", Home::Di, false },
    { "SoftwareRevision", Home::Di, false },
    { "DeviceClass", Home::Di, false },
    { "SerialNumber", Home::Di, false },
    { "YearOfConstruction", Home::Machinery, false },
    { "MonthOfConstruction", Home::Machinery, false },
    { "InitialOperationDate", Home::Machinery, false },
    { "AssetId", Home::Di, false },
    { "ComponentName", Home::Di, true },
    { "Location", Home::Machinery, false },
    { "LocationPlant", Home::Woodworking, false },
    { "LocationGPS", Home::Woodworking, false },
    { "CustomerCompanyName", Home::Woodworking, true },
};
static_assert(sizeof IdentificationFields / sizeof IdentificationFields[0] == WwModel::IdentificationFieldCount,
    "one entry per nameplate field");

} // namespace

/** The node ids of one machine's object and of the variables that change. */
struct WwAddressSpace::Machine
{
    QString locale;
    QByteArray localeBytes;
    UA_NodeId object = UA_NODEID_NULL;
    UA_NodeId identification = UA_NODEID_NULL;
    UA_NodeId flagsFolder = UA_NODEID_NULL;
    UA_NodeId valuesFolder = UA_NODEID_NULL;
    UA_NodeId currentState = UA_NODEID_NULL;
    UA_NodeId currentMode = UA_NODEID_NULL;
    UA_NodeId events = UA_NODEID_NULL;
    UA_NodeId lastProgramName = UA_NODEID_NULL;
    UA_NodeId identificationNodes[WwModel::IdentificationFieldCount];
    UA_NodeId flags[WwModel::FlagCount];
    UA_NodeId values[WwModel::ValueCount];
    bool hasState = false;
    WwState state;

    Machine()
    {
        for (UA_NodeId &id : identificationNodes)
            id = UA_NODEID_NULL;
        for (UA_NodeId &id : flags)
            id = UA_NODEID_NULL;
        for (UA_NodeId &id : values)
            id = UA_NODEID_NULL;
    }
    ~Machine()
    {
        for (UA_NodeId *id : { &object, &identification, &flagsFolder, &valuesFolder, &currentState, &currentMode,
                 &events, &lastProgramName })
            UA_NodeId_clear(id);
        for (UA_NodeId &id : identificationNodes)
            UA_NodeId_clear(&id);
        for (UA_NodeId &id : flags)
            UA_NodeId_clear(&id);
        for (UA_NodeId &id : values)
            UA_NodeId_clear(&id);
    }
    Machine(const Machine &) = delete;
    Machine &operator=(const Machine &) = delete;
};

WwAddressSpace::WwAddressSpace(UA_Server *server)
    : m_server(server)
    , m_enumTypes {}
{
}

WwAddressSpace::~WwAddressSpace() = default;

void WwAddressSpace::setLocale(const QString &machine, const QString &locale)
{
    m_locales.insert(machine, locale);
}

bool WwAddressSpace::checked(const UA_NodeId &id, Action action, UA_StatusCode status)
{
    if (status == UA_STATUSCODE_GOOD)
        return true;
    // Once per node and action: a node that can't be written fails again at every update of its machine.
    const QString node = id.identifierType == UA_NODEIDTYPE_STRING
        ? QString::fromUtf8(reinterpret_cast<const char *>(id.identifier.string.data), int(id.identifier.string.length))
        : QString::number(id.identifier.numeric);
    const QString key = QString::number(int(action)) + node;
    if (m_refused.contains(key))
        return false;
    m_refused.insert(key);
    const QString reason = QString::fromLatin1(UA_StatusCode_name(status));
    switch (action) {
    case Action::Add:
        qCWarning(lcOpcUaServer) << QStringLiteral(
            "Could not add the node %1 to the address space (%2); its data is not served")
                                        .arg(node, reason);
        break;
    case Action::Reference:
        qCWarning(lcOpcUaServer) << QStringLiteral("Could not add a reference from the node %1 (%2)").arg(node, reason);
        break;
    case Action::Write:
        qCWarning(lcOpcUaServer)
            << QStringLiteral("Could not write the node %1 (%2); clients see its last value").arg(node, reason);
        break;
    }
    return false;
}

bool WwAddressSpace::addObject(const UA_NodeId &id, const UA_NodeId &parent, const UA_NodeId &reference, UA_UInt16 ns,
    const char *browseName, const UA_NodeId &type, UA_Byte eventNotifier)
{
    UA_ObjectAttributes attributes = UA_ObjectAttributes_default;
    attributes.displayName = UA_LOCALIZEDTEXT(const_cast<char *>(""), const_cast<char *>(browseName));
    attributes.eventNotifier = eventNotifier;
    return checked(id, Action::Add,
        UA_Server_addObjectNode(
            m_server, id, parent, reference, qualified(ns, browseName), type, attributes, nullptr, nullptr));
}

bool WwAddressSpace::addVariable(const UA_NodeId &id, const UA_NodeId &parent, const UA_NodeId &reference, UA_UInt16 ns,
    const char *browseName, const UA_NodeId &dataType, const UA_NodeId &type, const UA_Variant &value)
{
    UA_VariableAttributes attributes = UA_VariableAttributes_default;
    attributes.displayName = UA_LOCALIZEDTEXT(const_cast<char *>(""), const_cast<char *>(browseName));
    attributes.dataType = dataType;
    attributes.valueRank = UA_VALUERANK_SCALAR;
    attributes.accessLevel = UA_ACCESSLEVELMASK_READ;
    attributes.value = value;
    return checked(id, Action::Add,
        UA_Server_addVariableNode(
            m_server, id, parent, reference, qualified(ns, browseName), type, attributes, nullptr, nullptr));
}

void WwAddressSpace::writeValue(const UA_NodeId &id, const UA_Variant &value)
{
    checked(id, Action::Write, UA_Server_writeValue(m_server, id, value));
}

void WwAddressSpace::writeMissing(const UA_NodeId &id)
{
    UA_DataValue missing;
    UA_DataValue_init(&missing);
    missing.hasStatus = true;
    missing.status = UA_STATUSCODE_BADNODATA;
    checked(id, Action::Write, UA_Server_writeDataValue(m_server, id, missing));
}

UA_NodeId WwAddressSpace::nodeId(const QString &path) const
{
    const QByteArray bytes = path.toUtf8();
    return UA_NODEID_STRING_ALLOC(m_ns, bytes.constData());
}

WwAddressSpace::Machine &WwAddressSpace::machine(const QString &name)
{
    auto found = m_machines.find(name);
    if (found != m_machines.end())
        return *found.value();
    auto record = std::make_shared<Machine>();
    m_machines.insert(name, record);
    Machine &m = *record;
    m.locale = m_locales.value(name, QStringLiteral("en"));
    m.localeBytes = m.locale.toUtf8();
    const QByteArray browseName = name.toUtf8();
    m.object = nodeId(name);
    addObject(m.object, UA_NODEID_NUMERIC(m_machinery, WwModel::MachineryMachines), ns0(UA_NS0ID_ORGANIZES), m_ns,
        browseName.constData(), UA_NODEID_NUMERIC(m_ww, WwModel::WwMachineType), UA_EVENTNOTIFIER_SUBSCRIBE_TO_EVENT);
    m.identification = nodeId(name + QStringLiteral("/Identification"));
    addObject(m.identification, m.object, ns0(UA_NS0ID_HASADDIN), m_di, WwModel::IdentificationName,
        UA_NODEID_NUMERIC(m_machinery, WwModel::MachineryMachineIdentificationType));

    UA_NodeId state = nodeId(name + QStringLiteral("/State"));
    addObject(state, m.object, ns0(UA_NS0ID_HASCOMPONENT), m_ww, WwModel::StateName, ns0(UA_NS0ID_BASEOBJECTTYPE));
    UA_NodeId unit = nodeId(name + QStringLiteral("/State/Machine"));
    addObject(unit, state, ns0(UA_NS0ID_HASCOMPONENT), m_ww, WwModel::MachineName, ns0(UA_NS0ID_BASEOBJECTTYPE));
    UA_NodeId overview = nodeId(name + QStringLiteral("/State/Machine/Overview"));
    addObject(overview, unit, ns0(UA_NS0ID_HASCOMPONENT), m_ww, WwModel::OverviewName, ns0(UA_NS0ID_BASEOBJECTTYPE));
    m.flagsFolder = nodeId(name + QStringLiteral("/State/Machine/Flags"));
    addObject(m.flagsFolder, unit, ns0(UA_NS0ID_HASCOMPONENT), m_ww, WwModel::FlagsName, ns0(UA_NS0ID_BASEOBJECTTYPE));
    m.valuesFolder = nodeId(name + QStringLiteral("/State/Machine/Values"));
    addObject(
        m.valuesFolder, unit, ns0(UA_NS0ID_HASCOMPONENT), m_ww, WwModel::ValuesName, ns0(UA_NS0ID_BASEOBJECTTYPE));
    const auto addInterface = [this](const UA_NodeId &node, UA_UInt32 interface) {
        checked(node, Action::Reference,
            UA_Server_addReference(
                m_server, node, ns0(UA_NS0ID_HASINTERFACE), UA_EXPANDEDNODEID_NUMERIC(m_ww, interface), true));
    };
    addInterface(state, WwModel::IWwStateType);
    addInterface(unit, WwModel::IWwBaseStateType);
    addInterface(overview, WwModel::IWwUnitOverviewType);
    addInterface(m.flagsFolder, WwModel::IWwUnitFlagsType);
    addInterface(m.valuesFolder, WwModel::IWwUnitValuesType);

    UA_Int32 zero = 0;
    UA_Variant value;
    UA_Variant_setScalar(&value, &zero, &m_enumTypes[0]);
    m.currentState = nodeId(name + QStringLiteral("/State/Machine/Overview/CurrentState"));
    addVariable(m.currentState, overview, ns0(UA_NS0ID_HASCOMPONENT), m_ww, WwModel::CurrentStateName,
        UA_NODEID_NUMERIC(m_ww, WwModel::WwUnitStateEnumeration), ns0(UA_NS0ID_BASEDATAVARIABLETYPE), value);
    UA_Variant_setScalar(&value, &zero, &m_enumTypes[1]);
    m.currentMode = nodeId(name + QStringLiteral("/State/Machine/Overview/CurrentMode"));
    addVariable(m.currentMode, overview, ns0(UA_NS0ID_HASCOMPONENT), m_ww, WwModel::CurrentModeName,
        UA_NODEID_NUMERIC(m_ww, WwModel::WwUnitModeEnumeration), ns0(UA_NS0ID_BASEDATAVARIABLETYPE), value);
    UA_NodeId_clear(&state);
    UA_NodeId_clear(&unit);
    UA_NodeId_clear(&overview);

    m.events = nodeId(name + QStringLiteral("/Events"));
    addObject(m.events, m.object, ns0(UA_NS0ID_HASCOMPONENT), m_ww, WwModel::EventsName,
        UA_NODEID_NUMERIC(m_ww, WwModel::WwEventsDispatcherType), UA_EVENTNOTIFIER_SUBSCRIBE_TO_EVENT);

    updateIdentification(name, WwIdentification());
    return m;
}

void WwAddressSpace::updateIdentification(const QString &name, const WwIdentification &identification)
{
    Machine &m = machine(name);
    int index = 0;
    WwIdentification::visitFields([&](const char *field, auto member) {
        using T = std::decay_t<decltype(identification.*member)>;
        if (qstrcmp(field, "Name") == 0)
            return;
        const IdentificationField &info = IdentificationFields[index];
        UA_NodeId &node = m.identificationNodes[index];
        ++index;
        const auto &fieldValue = identification.*member;
        UA_Variant value;
        UA_Variant_init(&value);
        QByteArray text;
        UA_String string;
        UA_LocalizedText localized;
        UA_UInt16 year = 0;
        UA_Byte month = 0;
        UA_DateTime date = 0;
        bool present = true;
        const auto setText = [&](const QString &content) {
            text = content.toUtf8();
            string = uaString(text);
            if (info.localized) {
                localized.locale = uaString(m.localeBytes);
                localized.text = string;
                UA_Variant_setScalar(&value, &localized, &UA_TYPES[UA_TYPES_LOCALIZEDTEXT]);
            } else {
                UA_Variant_setScalar(&value, &string, &UA_TYPES[UA_TYPES_STRING]);
            }
        };
        UA_NodeId dataType = info.localized ? ns0(UA_NS0ID_LOCALIZEDTEXT) : ns0(UA_NS0ID_STRING);
        if constexpr (std::is_same_v<T, QString>) {
            setText(fieldValue);
        } else if constexpr (std::is_same_v<T, std::optional<QString>>) {
            present = fieldValue.has_value();
            if (present)
                setText(*fieldValue);
        } else if constexpr (std::is_same_v<T, quint16>) {
            year = fieldValue;
            UA_Variant_setScalar(&value, &year, &UA_TYPES[UA_TYPES_UINT16]);
            dataType = ns0(UA_NS0ID_UINT16);
        } else if constexpr (std::is_same_v<T, std::optional<quint8>>) {
            present = fieldValue.has_value();
            month = present ? *fieldValue : 0;
            UA_Variant_setScalar(&value, &month, &UA_TYPES[UA_TYPES_BYTE]);
            dataType = ns0(UA_NS0ID_BYTE);
        } else if constexpr (std::is_same_v<T, std::optional<QDateTime>>) {
            present = fieldValue.has_value();
            date = present ? uaTime(*fieldValue) : 0;
            UA_Variant_setScalar(&value, &date, &UA_TYPES[UA_TYPES_DATETIME]);
            dataType = ns0(UA_NS0ID_DATETIME);
        }
        if (UA_NodeId_isNull(&node)) {
            if (!present)
                return;
            const UA_UInt16 ns = info.home == Home::Di ? m_di : info.home == Home::Machinery ? m_machinery : m_ww;
            node = nodeId(name + QLatin1String(WwModel::IdentificationPath) + QLatin1String(field));
            // A node the library refused is tried again at the next update.
            if (!addVariable(node, m.identification, ns0(UA_NS0ID_HASPROPERTY), ns, field, dataType,
                    ns0(UA_NS0ID_PROPERTYTYPE), value))
                UA_NodeId_clear(&node);
        } else if (present) {
            writeValue(node, value);
        } else {
            writeMissing(node);
        }
    });
}

void WwAddressSpace::updateState(const QString &name, const WwState &state)
{
    Machine &m = machine(name);
    if (!m.hasState || m.state.MachineState != state.MachineState) {
        UA_Int32 code = UA_Int32(state.MachineState);
        UA_Variant value;
        UA_Variant_setScalar(&value, &code, &m_enumTypes[0]);
        writeValue(m.currentState, value);
    }
    if (!m.hasState || m.state.OperationMode != state.OperationMode) {
        UA_Int32 code = UA_Int32(state.OperationMode);
        UA_Variant value;
        UA_Variant_setScalar(&value, &code, &m_enumTypes[1]);
        writeValue(m.currentMode, value);
    }

    int index = 0;
    const WwStateFlags noFlags;
    const WwStateFlags &flags = state.Flags ? *state.Flags : noFlags;
    const WwStateFlags *previousFlags = m.hasState && m.state.Flags ? &*m.state.Flags : nullptr;
    WwStateFlags::visitFields([&](const char *field, auto member) {
        using T = std::decay_t<decltype(flags.*member)>;
        UA_NodeId &node = m.flags[index++];
        bool present = state.Flags.has_value();
        UA_Boolean flag = false;
        if constexpr (std::is_same_v<T, bool>) {
            flag = flags.*member;
        } else {
            present = present && (flags.*member).has_value();
            flag = present && *(flags.*member);
        }
        const bool unchanged = previousFlags && previousFlags->*member == flags.*member;
        if (!UA_NodeId_isNull(&node) && unchanged)
            return;
        UA_Variant value;
        UA_Variant_setScalar(&value, &flag, &UA_TYPES[UA_TYPES_BOOLEAN]);
        if (UA_NodeId_isNull(&node)) {
            if (!present)
                return;
            node = nodeId(name + QLatin1String(WwModel::FlagsPath) + QLatin1String(field));
            if (!addVariable(node, m.flagsFolder, ns0(UA_NS0ID_HASCOMPONENT), m_ww, field, ns0(UA_NS0ID_BOOLEAN),
                    ns0(UA_NS0ID_BASEDATAVARIABLETYPE), value))
                UA_NodeId_clear(&node);
        } else if (present) {
            writeValue(node, value);
        } else {
            writeMissing(node);
        }
    });

    index = 0;
    const WwStateValues noValues;
    const WwStateValues &values = state.Values ? *state.Values : noValues;
    const WwStateValues *previousValues = m.hasState && m.state.Values ? &*m.state.Values : nullptr;
    WwStateValues::visitFields([&](const char *field, auto member) {
        using T = typename std::decay_t<decltype(values.*member)>::value_type;
        UA_NodeId &node = m.values[index++];
        const auto &number = values.*member;
        const bool unchanged = previousValues && previousValues->*member == number;
        if (!UA_NodeId_isNull(&node) && unchanged)
            return;
        T raw = number.value_or(T());
        UA_Variant value;
        UA_NodeId dataType;
        if constexpr (std::is_same_v<T, double>) {
            UA_Variant_setScalar(&value, &raw, &UA_TYPES[UA_TYPES_DOUBLE]);
            dataType = ns0(UA_NS0ID_DOUBLE);
        } else if constexpr (std::is_same_v<T, quint32>) {
            UA_Variant_setScalar(&value, &raw, &UA_TYPES[UA_TYPES_UINT32]);
            dataType = ns0(UA_NS0ID_UINT32);
        } else {
            UA_Variant_setScalar(&value, &raw, &UA_TYPES[UA_TYPES_UINT64]);
            dataType = ns0(UA_NS0ID_UINT64);
        }
        if (UA_NodeId_isNull(&node)) {
            if (!number)
                return;
            node = nodeId(name + QLatin1String(WwModel::ValuesPath) + QLatin1String(field));
            if (!addVariable(node, m.valuesFolder, ns0(UA_NS0ID_HASCOMPONENT), m_ww, field, dataType,
                    ns0(UA_NS0ID_BASEANALOGTYPE), value))
                UA_NodeId_clear(&node);
        } else if (number) {
            writeValue(node, value);
        } else {
            writeMissing(node);
        }
    });
    m.state = state;
    m.hasState = true;
}

void WwAddressSpace::updateManufacturerSpecific(const QString &name, const WwManufacturerSpecific &record)
{
    Machine &m = machine(name);
    const QByteArray text = record.LastProgramName.toUtf8();
    UA_String program = uaString(text);
    UA_Variant value;
    UA_Variant_setScalar(&value, &program, &UA_TYPES[UA_TYPES_STRING]);
    if (!UA_NodeId_isNull(&m.lastProgramName)) {
        writeValue(m.lastProgramName, value);
        return;
    }
    UA_NodeId folder = nodeId(name + QStringLiteral("/ManufacturerSpecific"));
    addObject(folder, m.object, ns0(UA_NS0ID_HASCOMPONENT), m_ww, WwModel::ManufacturerSpecificName,
        ns0(UA_NS0ID_FOLDERTYPE));
    m.lastProgramName = nodeId(name + QStringLiteral("/ManufacturerSpecific/LastProgramName"));
    if (!addVariable(m.lastProgramName, folder, ns0(UA_NS0ID_HASCOMPONENT), m_ww, WwModel::LastProgramNameName,
            ns0(UA_NS0ID_STRING), ns0(UA_NS0ID_BASEDATAVARIABLETYPE), value))
        UA_NodeId_clear(&m.lastProgramName);
    UA_NodeId_clear(&folder);
}

bool WwAddressSpace::raiseEvent(const QString &name, const QDateTime &time, const WwBaseEventType &event)
{
    Machine &m = machine(name);
    UA_NodeId node;
    UA_StatusCode status = UA_Server_createEvent(m_server, UA_NODEID_NUMERIC(m_ww, WwModel::WwBaseEventType), &node);
    if (status != UA_STATUSCODE_GOOD)
        return false;

    const auto property = [&](UA_UInt16 ns, const char *field, const void *data, const UA_DataType *type) {
        UA_Variant value;
        UA_Variant_setScalar(&value, const_cast<void *>(data), type);
        status |= UA_Server_writeObjectProperty(m_server, node, qualified(ns, field), value);
    };
    const QByteArray locale = event.Texts.isEmpty() ? m.localeBytes : event.Texts.constBegin().key().toUtf8();
    const QByteArray message = event.Message.toUtf8();
    const UA_LocalizedText messageText { uaString(locale), uaString(message) };
    property(0, "Message", &messageText, &UA_TYPES[UA_TYPES_LOCALIZEDTEXT]);
    const UA_UInt16 severity = severityOf(event.Category);
    property(0, "Severity", &severity, &UA_TYPES[UA_TYPES_UINT16]);
    const QByteArray source = name.toUtf8();
    const UA_String sourceName = uaString(source);
    property(0, "SourceName", &sourceName, &UA_TYPES[UA_TYPES_STRING]);
    const UA_DateTime when = uaTime(time.isValid() ? time : QDateTime::currentDateTimeUtc());
    property(0, "Time", &when, &UA_TYPES[UA_TYPES_DATETIME]);
    const QByteArray id = event.Id.toUtf8();
    const UA_String messageId = uaString(id);
    property(m_ww, "MessageId", &messageId, &UA_TYPES[UA_TYPES_STRING]);
    const UA_Int32 category = event.Category;
    property(m_ww, "EventCategory", &category, &m_enumTypes[2]);

    QList<QByteArray> parts;
    std::vector<UA_String> pathParts;
    for (const QString &part : event.Path)
        parts.append(part.toUtf8());
    for (const QByteArray &part : parts)
        pathParts.push_back(uaString(part));
    UA_Variant path;
    UA_Variant_setArray(&path, pathParts.data(), pathParts.size(), &UA_TYPES[UA_TYPES_STRING]);
    status |= UA_Server_writeObjectProperty(m_server, node, qualified(m_ww, "PathParts"), path);

    QList<QByteArray> texts;
    std::vector<UA_LocalizedText> localized;
    for (auto text = event.Texts.constBegin(); text != event.Texts.constEnd(); ++text)
        texts << text.key().toUtf8() << text.value().toUtf8();
    for (int i = 0; i + 1 < texts.size(); i += 2)
        localized.push_back(UA_LocalizedText { uaString(texts.at(i)), uaString(texts.at(i + 1)) });
    UA_VariableAttributes attributes = UA_VariableAttributes_default;
    attributes.displayName = UA_LOCALIZEDTEXT(const_cast<char *>(""), const_cast<char *>("LocalizedMessages"));
    attributes.dataType = ns0(UA_NS0ID_LOCALIZEDTEXT);
    attributes.valueRank = UA_VALUERANK_ONE_DIMENSION;
    UA_UInt32 anyLength = 0;
    attributes.arrayDimensionsSize = 1;
    attributes.arrayDimensions = &anyLength;
    UA_Variant_setArray(&attributes.value, localized.data(), localized.size(), &UA_TYPES[UA_TYPES_LOCALIZEDTEXT]);
    status |= UA_Server_addVariableNode(m_server, UA_NODEID_NUMERIC(m_ns, 0), node, ns0(UA_NS0ID_HASPROPERTY),
        qualified(m_ww, "LocalizedMessages"), ns0(UA_NS0ID_PROPERTYTYPE), attributes, nullptr, nullptr);

    if (status == UA_STATUSCODE_GOOD)
        status = UA_Server_triggerEvent(m_server, node, m.events, nullptr, true);
    else
        UA_Server_deleteNode(m_server, node, true);
    UA_NodeId_clear(&node);
    return status == UA_STATUSCODE_GOOD;
}
