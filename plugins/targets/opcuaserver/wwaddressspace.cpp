#include "wwaddressspace.h"

#include <open62541/nodeids.h>

#include <type_traits>

const char WwAddressSpace::WoodworkingUri[] = "http://opcfoundation.org/UA/Woodworking/";
const char WwAddressSpace::DiUri[] = "http://opcfoundation.org/UA/DI/";
const char WwAddressSpace::MachineryUri[] = "http://opcfoundation.org/UA/Machinery/";
const char WwAddressSpace::MachinesUri[] = "urn:orvix:opcuaServer:machines";

namespace {

// Node ids of the companion specifications, as their NodeSets give them.
enum : UA_UInt32 {
    IdWwMachineType = 2,
    IdIWwUnitFlagsType = 4,
    IdIWwUnitOverviewType = 5,
    IdIWwBaseStateType = 6,
    IdIWwSubUnitsType = 7,
    IdIWwStateType = 8,
    IdWwBaseEventType = 13,
    IdWwEventsDispatcherType = 15,
    IdWwUnitModeEnumeration = 20,
    IdWwUnitStateEnumeration = 21,
    IdWwUnitModeEnumerationValues = 123,
    IdWwUnitStateEnumerationValues = 128,
    IdWwBaseEventTypeMessageId = 256,
    IdWwBaseEventTypeMessageName = 257,
    IdWwBaseEventTypePathParts = 258,
    IdWwBaseEventTypeGroup = 259,
    IdWwBaseEventTypeLocalizedMessages = 260,
    IdIWwEventMessageType = 1002,
    IdIWwUnitValuesType = 1006,
    IdWwEventCategoryEnumeration = 3004,
    IdWwBaseEventTypeEventCategory = 6056,
    IdWwEventCategoryEnumerationValues = 6103,
    IdDiFunctionalGroupType = 1005,
    IdMachineryItemIdentificationType = 1004,
    IdMachineryMachineIdentificationType = 1012,
    IdMachineryMachines = 1001,
};

const char *const StateNames[] = { "OFFLINE", "STANDBY", "READY", "WORKING", "ERROR" };
const char *const ModeNames[] = { "OTHER", "AUTOMATIC", "SEMIAUTOMATIC", "MANUAL", "SETUP", "SLEEP" };
const char *const CategoryNames[] = { "OTHER", "DIAGNOSTIC", "INFORMATION", "WARNING", "ALARM", "ERROR" };
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

constexpr int FlagCount = 26;
constexpr int ValueCount = 35;

UA_NodeId ns0(UA_UInt32 id)
{
    return UA_NODEID_NUMERIC(0, id);
}

UA_QualifiedName qualified(UA_UInt16 ns, const char *text)
{
    return UA_QUALIFIEDNAME(ns, const_cast<char *>(text));
}

UA_String uaString(const QByteArray &bytes)
{
    UA_String text;
    text.length = size_t(bytes.size());
    text.data = reinterpret_cast<UA_Byte *>(const_cast<char *>(bytes.constData()));
    return text;
}

UA_DateTime uaTime(const QDateTime &time)
{
    return UA_DATETIME_UNIX_EPOCH + time.toMSecsSinceEpoch() * UA_DATETIME_MSEC;
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
constexpr int IdentificationCount = int(sizeof IdentificationFields / sizeof IdentificationFields[0]);

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
    UA_NodeId identificationNodes[IdentificationCount];
    UA_NodeId flags[FlagCount];
    UA_NodeId values[ValueCount];
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

bool WwAddressSpace::build(QString *error)
{
    m_ww = UA_Server_addNamespace(m_server, WoodworkingUri);
    m_di = UA_Server_addNamespace(m_server, DiUri);
    m_machinery = UA_Server_addNamespace(m_server, MachineryUri);
    m_ns = UA_Server_addNamespace(m_server, MachinesUri);

    const UA_UInt32 enumIds[] = { IdWwUnitStateEnumeration, IdWwUnitModeEnumeration, IdWwEventCategoryEnumeration };
    for (int i = 0; i < 3; ++i) {
        m_enumTypes[i] = UA_TYPES[UA_TYPES_INT32];
        m_enumTypes[i].typeId = UA_NODEID_NUMERIC(m_ww, enumIds[i]);
        m_enumTypes[i].binaryEncodingId = UA_NODEID_NULL;
        m_enumTypes[i].typeKind = UA_DATATYPEKIND_ENUM;
    }
    UA_ServerConfig *config = UA_Server_getConfig(m_server);
    m_customTypes.reset(new UA_DataTypeArray { config->customDataTypes, 3, m_enumTypes, false });
    config->customDataTypes = m_customTypes.get();

    UA_StatusCode status = UA_STATUSCODE_GOOD;
    const auto objectType = [&](UA_UInt16 ns, UA_UInt32 id, UA_NodeId parent, const char *browseName, bool isAbstract) {
        UA_ObjectTypeAttributes attributes = UA_ObjectTypeAttributes_default;
        attributes.displayName = UA_LOCALIZEDTEXT(const_cast<char *>(""), const_cast<char *>(browseName));
        attributes.isAbstract = isAbstract;
        status |= UA_Server_addObjectTypeNode(m_server, UA_NODEID_NUMERIC(ns, id), parent, ns0(UA_NS0ID_HASSUBTYPE),
            qualified(ns, browseName), attributes, nullptr, nullptr);
    };
    const auto enumeration = [&](UA_UInt32 id, UA_UInt32 valuesId, const char *browseName, const char *const *names,
                                 int count) {
        UA_DataTypeAttributes attributes = UA_DataTypeAttributes_default;
        attributes.displayName = UA_LOCALIZEDTEXT(const_cast<char *>(""), const_cast<char *>(browseName));
        status |= UA_Server_addDataTypeNode(m_server, UA_NODEID_NUMERIC(m_ww, id), ns0(UA_NS0ID_ENUMERATION),
            ns0(UA_NS0ID_HASSUBTYPE), qualified(m_ww, browseName), attributes, nullptr, nullptr);
        std::vector<UA_EnumValueType> enumValues(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) {
            UA_EnumValueType_init(&enumValues[size_t(i)]);
            enumValues[size_t(i)].value = i;
            enumValues[size_t(i)].displayName = UA_LOCALIZEDTEXT(const_cast<char *>(""), const_cast<char *>(names[i]));
        }
        UA_VariableAttributes property = UA_VariableAttributes_default;
        property.displayName = UA_LOCALIZEDTEXT(const_cast<char *>(""), const_cast<char *>("EnumValues"));
        property.dataType = ns0(UA_NS0ID_ENUMVALUETYPE);
        property.valueRank = UA_VALUERANK_ONE_DIMENSION;
        UA_UInt32 length = UA_UInt32(count);
        property.arrayDimensionsSize = 1;
        property.arrayDimensions = &length;
        UA_Variant_setArray(&property.value, enumValues.data(), enumValues.size(), &UA_TYPES[UA_TYPES_ENUMVALUETYPE]);
        status |= UA_Server_addVariableNode(m_server, UA_NODEID_NUMERIC(m_ww, valuesId), UA_NODEID_NUMERIC(m_ww, id),
            ns0(UA_NS0ID_HASPROPERTY), qualified(0, "EnumValues"), ns0(UA_NS0ID_PROPERTYTYPE), property, nullptr,
            nullptr);
    };
    const auto eventProperty
        = [&](UA_UInt32 id, const char *browseName, UA_NodeId dataType, bool array, bool mandatory) {
              UA_VariableAttributes attributes = UA_VariableAttributes_default;
              attributes.displayName = UA_LOCALIZEDTEXT(const_cast<char *>(""), const_cast<char *>(browseName));
              attributes.dataType = dataType;
              attributes.valueRank = array ? UA_VALUERANK_ONE_DIMENSION : UA_VALUERANK_SCALAR;
              UA_UInt32 anyLength = 0;
              if (array) {
                  attributes.arrayDimensionsSize = 1;
                  attributes.arrayDimensions = &anyLength;
              }
              // An enumeration of the companion specification has no data type of the library, so no default of its
              // own.
              UA_Int32 firstEnumValue = 0;
              if (dataType.namespaceIndex != 0)
                  UA_Variant_setScalar(&attributes.value, &firstEnumValue, &m_enumTypes[2]);
              const UA_NodeId node = UA_NODEID_NUMERIC(m_ww, id);
              status |= UA_Server_addVariableNode(m_server, node, UA_NODEID_NUMERIC(m_ww, IdWwBaseEventType),
                  ns0(UA_NS0ID_HASPROPERTY), qualified(m_ww, browseName), ns0(UA_NS0ID_PROPERTYTYPE), attributes,
                  nullptr, nullptr);
              status |= UA_Server_addReference(m_server, node, ns0(UA_NS0ID_HASMODELLINGRULE),
                  UA_EXPANDEDNODEID_NUMERIC(
                      0, mandatory ? UA_NS0ID_MODELLINGRULE_MANDATORY : UA_NS0ID_MODELLINGRULE_OPTIONAL),
                  true);
          };

    objectType(m_di, IdDiFunctionalGroupType, ns0(UA_NS0ID_FOLDERTYPE), "FunctionalGroupType", false);
    objectType(m_machinery, IdMachineryItemIdentificationType, UA_NODEID_NUMERIC(m_di, IdDiFunctionalGroupType),
        "MachineryItemIdentificationType", true);
    objectType(m_machinery, IdMachineryMachineIdentificationType,
        UA_NODEID_NUMERIC(m_machinery, IdMachineryItemIdentificationType), "MachineIdentificationType", false);
    enumeration(IdWwUnitModeEnumeration, IdWwUnitModeEnumerationValues, "WwUnitModeEnumeration", ModeNames, 6);
    enumeration(IdWwUnitStateEnumeration, IdWwUnitStateEnumerationValues, "WwUnitStateEnumeration", StateNames, 5);
    enumeration(IdWwEventCategoryEnumeration, IdWwEventCategoryEnumerationValues, "WwEventCategoryEnumeration",
        CategoryNames, 6);
    objectType(m_ww, IdWwMachineType, ns0(UA_NS0ID_BASEOBJECTTYPE), "WwMachineType", false);
    objectType(m_ww, IdWwEventsDispatcherType, ns0(UA_NS0ID_BASEOBJECTTYPE), "WwEventsDispatcherType", false);
    for (const auto &interface : { std::make_pair(IdIWwUnitFlagsType, "IWwUnitFlagsType"),
             std::make_pair(IdIWwUnitOverviewType, "IWwUnitOverviewType"),
             std::make_pair(IdIWwBaseStateType, "IWwBaseStateType"),
             std::make_pair(IdIWwSubUnitsType, "IWwSubUnitsType"), std::make_pair(IdIWwStateType, "IWwStateType"),
             std::make_pair(IdIWwEventMessageType, "IWwEventMessageType"),
             std::make_pair(IdIWwUnitValuesType, "IWwUnitValuesType") })
        objectType(m_ww, interface.first, ns0(UA_NS0ID_BASEINTERFACETYPE), interface.second, true);
    objectType(m_ww, IdWwBaseEventType, ns0(UA_NS0ID_BASEEVENTTYPE), "WwBaseEventType", false);
    eventProperty(IdWwBaseEventTypeMessageId, "MessageId", ns0(UA_NS0ID_STRING), false, true);
    eventProperty(IdWwBaseEventTypeMessageName, "MessageName", ns0(UA_NS0ID_STRING), false, false);
    eventProperty(IdWwBaseEventTypePathParts, "PathParts", ns0(UA_NS0ID_STRING), true, true);
    eventProperty(IdWwBaseEventTypeGroup, "Group", ns0(UA_NS0ID_STRING), false, false);
    eventProperty(IdWwBaseEventTypeLocalizedMessages, "LocalizedMessages", ns0(UA_NS0ID_LOCALIZEDTEXT), true, false);
    eventProperty(IdWwBaseEventTypeEventCategory, "EventCategory",
        UA_NODEID_NUMERIC(m_ww, IdWwEventCategoryEnumeration), false, true);

    UA_ObjectAttributes folder = UA_ObjectAttributes_default;
    folder.displayName = UA_LOCALIZEDTEXT(const_cast<char *>(""), const_cast<char *>("Machines"));
    folder.eventNotifier = UA_EVENTNOTIFIER_SUBSCRIBE_TO_EVENT;
    status |= UA_Server_addObjectNode(m_server, UA_NODEID_NUMERIC(m_machinery, IdMachineryMachines),
        ns0(UA_NS0ID_OBJECTSFOLDER), ns0(UA_NS0ID_ORGANIZES), qualified(m_machinery, "Machines"),
        ns0(UA_NS0ID_FOLDERTYPE), folder, nullptr, nullptr);
    if (status != UA_STATUSCODE_GOOD) {
        *error = QStringLiteral("the woodworking types could not be added (%1)")
                     .arg(QString::fromLatin1(UA_StatusCode_name(status)));
        return false;
    }
    return true;
}

void WwAddressSpace::setLocale(const QString &machine, const QString &locale)
{
    m_locales.insert(machine, locale);
}

void WwAddressSpace::addObject(const UA_NodeId &id, const UA_NodeId &parent, const UA_NodeId &reference, UA_UInt16 ns,
    const char *browseName, const UA_NodeId &type, UA_Byte eventNotifier)
{
    UA_ObjectAttributes attributes = UA_ObjectAttributes_default;
    attributes.displayName = UA_LOCALIZEDTEXT(const_cast<char *>(""), const_cast<char *>(browseName));
    attributes.eventNotifier = eventNotifier;
    UA_Server_addObjectNode(
        m_server, id, parent, reference, qualified(ns, browseName), type, attributes, nullptr, nullptr);
}

void WwAddressSpace::addVariable(const UA_NodeId &id, const UA_NodeId &parent, const UA_NodeId &reference, UA_UInt16 ns,
    const char *browseName, const UA_NodeId &dataType, const UA_NodeId &type, const UA_Variant &value)
{
    UA_VariableAttributes attributes = UA_VariableAttributes_default;
    attributes.displayName = UA_LOCALIZEDTEXT(const_cast<char *>(""), const_cast<char *>(browseName));
    attributes.dataType = dataType;
    attributes.valueRank = UA_VALUERANK_SCALAR;
    attributes.accessLevel = UA_ACCESSLEVELMASK_READ;
    attributes.value = value;
    UA_Server_addVariableNode(
        m_server, id, parent, reference, qualified(ns, browseName), type, attributes, nullptr, nullptr);
}

void WwAddressSpace::writeValue(const UA_NodeId &id, const UA_Variant &value)
{
    UA_Server_writeValue(m_server, id, value);
}

void WwAddressSpace::writeMissing(const UA_NodeId &id)
{
    UA_DataValue missing;
    UA_DataValue_init(&missing);
    missing.hasStatus = true;
    missing.status = UA_STATUSCODE_BADNODATA;
    UA_Server_writeDataValue(m_server, id, missing);
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
    addObject(m.object, UA_NODEID_NUMERIC(m_machinery, IdMachineryMachines), ns0(UA_NS0ID_ORGANIZES), m_ns,
        browseName.constData(), UA_NODEID_NUMERIC(m_ww, IdWwMachineType), UA_EVENTNOTIFIER_SUBSCRIBE_TO_EVENT);
    m.identification = nodeId(name + QStringLiteral("/Identification"));
    addObject(m.identification, m.object, ns0(UA_NS0ID_HASADDIN), m_di, "Identification",
        UA_NODEID_NUMERIC(m_machinery, IdMachineryMachineIdentificationType));

    UA_NodeId state = nodeId(name + QStringLiteral("/State"));
    addObject(state, m.object, ns0(UA_NS0ID_HASCOMPONENT), m_ww, "State", ns0(UA_NS0ID_BASEOBJECTTYPE));
    UA_NodeId unit = nodeId(name + QStringLiteral("/State/Machine"));
    addObject(unit, state, ns0(UA_NS0ID_HASCOMPONENT), m_ww, "Machine", ns0(UA_NS0ID_BASEOBJECTTYPE));
    UA_NodeId overview = nodeId(name + QStringLiteral("/State/Machine/Overview"));
    addObject(overview, unit, ns0(UA_NS0ID_HASCOMPONENT), m_ww, "Overview", ns0(UA_NS0ID_BASEOBJECTTYPE));
    m.flagsFolder = nodeId(name + QStringLiteral("/State/Machine/Flags"));
    addObject(m.flagsFolder, unit, ns0(UA_NS0ID_HASCOMPONENT), m_ww, "Flags", ns0(UA_NS0ID_BASEOBJECTTYPE));
    m.valuesFolder = nodeId(name + QStringLiteral("/State/Machine/Values"));
    addObject(m.valuesFolder, unit, ns0(UA_NS0ID_HASCOMPONENT), m_ww, "Values", ns0(UA_NS0ID_BASEOBJECTTYPE));
    const auto addInterface = [this](const UA_NodeId &node, UA_UInt32 interface) {
        UA_Server_addReference(
            m_server, node, ns0(UA_NS0ID_HASINTERFACE), UA_EXPANDEDNODEID_NUMERIC(m_ww, interface), true);
    };
    addInterface(state, IdIWwStateType);
    addInterface(unit, IdIWwBaseStateType);
    addInterface(overview, IdIWwUnitOverviewType);
    addInterface(m.flagsFolder, IdIWwUnitFlagsType);
    addInterface(m.valuesFolder, IdIWwUnitValuesType);

    UA_Int32 zero = 0;
    UA_Variant value;
    UA_Variant_setScalar(&value, &zero, &m_enumTypes[0]);
    m.currentState = nodeId(name + QStringLiteral("/State/Machine/Overview/CurrentState"));
    addVariable(m.currentState, overview, ns0(UA_NS0ID_HASCOMPONENT), m_ww, "CurrentState",
        UA_NODEID_NUMERIC(m_ww, IdWwUnitStateEnumeration), ns0(UA_NS0ID_BASEDATAVARIABLETYPE), value);
    UA_Variant_setScalar(&value, &zero, &m_enumTypes[1]);
    m.currentMode = nodeId(name + QStringLiteral("/State/Machine/Overview/CurrentMode"));
    addVariable(m.currentMode, overview, ns0(UA_NS0ID_HASCOMPONENT), m_ww, "CurrentMode",
        UA_NODEID_NUMERIC(m_ww, IdWwUnitModeEnumeration), ns0(UA_NS0ID_BASEDATAVARIABLETYPE), value);
    UA_NodeId_clear(&state);
    UA_NodeId_clear(&unit);
    UA_NodeId_clear(&overview);

    m.events = nodeId(name + QStringLiteral("/Events"));
    addObject(m.events, m.object, ns0(UA_NS0ID_HASCOMPONENT), m_ww, "Events",
        UA_NODEID_NUMERIC(m_ww, IdWwEventsDispatcherType), UA_EVENTNOTIFIER_SUBSCRIBE_TO_EVENT);

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
            node = nodeId(name + QStringLiteral("/Identification/") + QLatin1String(field));
            addVariable(node, m.identification, ns0(UA_NS0ID_HASPROPERTY), ns, field, dataType,
                ns0(UA_NS0ID_PROPERTYTYPE), value);
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
            node = nodeId(name + QStringLiteral("/State/Machine/Flags/") + QLatin1String(field));
            addVariable(node, m.flagsFolder, ns0(UA_NS0ID_HASCOMPONENT), m_ww, field, ns0(UA_NS0ID_BOOLEAN),
                ns0(UA_NS0ID_BASEDATAVARIABLETYPE), value);
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
            node = nodeId(name + QStringLiteral("/State/Machine/Values/") + QLatin1String(field));
            addVariable(node, m.valuesFolder, ns0(UA_NS0ID_HASCOMPONENT), m_ww, field, dataType,
                ns0(UA_NS0ID_BASEANALOGTYPE), value);
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
    addObject(folder, m.object, ns0(UA_NS0ID_HASCOMPONENT), m_ww, "ManufacturerSpecific", ns0(UA_NS0ID_FOLDERTYPE));
    m.lastProgramName = nodeId(name + QStringLiteral("/ManufacturerSpecific/LastProgramName"));
    addVariable(m.lastProgramName, folder, ns0(UA_NS0ID_HASCOMPONENT), m_ww, "LastProgramName", ns0(UA_NS0ID_STRING),
        ns0(UA_NS0ID_BASEDATAVARIABLETYPE), value);
    UA_NodeId_clear(&folder);
}

bool WwAddressSpace::raiseEvent(const QString &name, const QDateTime &time, const WwBaseEventType &event)
{
    Machine &m = machine(name);
    UA_NodeId node;
    UA_StatusCode status = UA_Server_createEvent(m_server, UA_NODEID_NUMERIC(m_ww, IdWwBaseEventType), &node);
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
