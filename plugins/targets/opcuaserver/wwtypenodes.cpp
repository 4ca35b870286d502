#include "wwaddressspace.h"

#include "wwaddressspacenodes.h"
#include "wwmodel.h"

#include <vector>

const char WwAddressSpace::MachinesUri[] = "urn:orvix:opcuaServer:machines";

namespace {

const char *const StateNames[] = { "OFFLINE", "STANDBY", "READY", "WORKING", "ERROR" };
const char *const ModeNames[] = { "OTHER", "AUTOMATIC", "SEMIAUTOMATIC", "MANUAL", "SETUP", "SLEEP" };
const char *const CategoryNames[] = { "OTHER", "DIAGNOSTIC", "INFORMATION", "WARNING", "ALARM", "ERROR" };

} // namespace

bool WwAddressSpace::build(QString *error)
{
    m_ww = UA_Server_addNamespace(m_server, WwModel::WoodworkingUri);
    m_di = UA_Server_addNamespace(m_server, WwModel::DiUri);
    m_machinery = UA_Server_addNamespace(m_server, WwModel::MachineryUri);
    m_ns = UA_Server_addNamespace(m_server, MachinesUri);

    const UA_UInt32 enumIds[]
        = { WwModel::WwUnitStateEnumeration, WwModel::WwUnitModeEnumeration, WwModel::WwEventCategoryEnumeration };
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
              status |= UA_Server_addVariableNode(m_server, node, UA_NODEID_NUMERIC(m_ww, WwModel::WwBaseEventType),
                  ns0(UA_NS0ID_HASPROPERTY), qualified(m_ww, browseName), ns0(UA_NS0ID_PROPERTYTYPE), attributes,
                  nullptr, nullptr);
              status |= UA_Server_addReference(m_server, node, ns0(UA_NS0ID_HASMODELLINGRULE),
                  UA_EXPANDEDNODEID_NUMERIC(
                      0, mandatory ? UA_NS0ID_MODELLINGRULE_MANDATORY : UA_NS0ID_MODELLINGRULE_OPTIONAL),
                  true);
          };

    objectType(m_di, WwModel::DiFunctionalGroupType, ns0(UA_NS0ID_FOLDERTYPE), "FunctionalGroupType", false);
    objectType(m_machinery, WwModel::MachineryItemIdentificationType,
        UA_NODEID_NUMERIC(m_di, WwModel::DiFunctionalGroupType), "MachineryItemIdentificationType", true);
    objectType(m_machinery, WwModel::MachineryMachineIdentificationType,
        UA_NODEID_NUMERIC(m_machinery, WwModel::MachineryItemIdentificationType), "MachineIdentificationType", false);
    enumeration(
        WwModel::WwUnitModeEnumeration, WwModel::WwUnitModeEnumerationValues, "WwUnitModeEnumeration", ModeNames, 6);
    enumeration(WwModel::WwUnitStateEnumeration, WwModel::WwUnitStateEnumerationValues, "WwUnitStateEnumeration",
        StateNames, 5);
    enumeration(WwModel::WwEventCategoryEnumeration, WwModel::WwEventCategoryEnumerationValues,
        "WwEventCategoryEnumeration", CategoryNames, 6);
    objectType(m_ww, WwModel::WwMachineType, ns0(UA_NS0ID_BASEOBJECTTYPE), "WwMachineType", false);
    objectType(m_ww, WwModel::WwEventsDispatcherType, ns0(UA_NS0ID_BASEOBJECTTYPE), "WwEventsDispatcherType", false);
    for (const auto &interface : { std::make_pair(WwModel::IWwUnitFlagsType, "IWwUnitFlagsType"),
             std::make_pair(WwModel::IWwUnitOverviewType, "IWwUnitOverviewType"),
             std::make_pair(WwModel::IWwBaseStateType, "IWwBaseStateType"),
             std::make_pair(WwModel::IWwSubUnitsType, "IWwSubUnitsType"),
             std::make_pair(WwModel::IWwStateType, "IWwStateType"),
             std::make_pair(WwModel::IWwEventMessageType, "IWwEventMessageType"),
             std::make_pair(WwModel::IWwUnitValuesType, "IWwUnitValuesType") })
        objectType(m_ww, interface.first, ns0(UA_NS0ID_BASEINTERFACETYPE), interface.second, true);
    objectType(m_ww, WwModel::WwBaseEventType, ns0(UA_NS0ID_BASEEVENTTYPE), "WwBaseEventType", false);
    eventProperty(WwModel::WwBaseEventTypeMessageId, "MessageId", ns0(UA_NS0ID_STRING), false, true);
    eventProperty(WwModel::WwBaseEventTypeMessageName, "MessageName", ns0(UA_NS0ID_STRING), false, false);
    eventProperty(WwModel::WwBaseEventTypePathParts, "PathParts", ns0(UA_NS0ID_STRING), true, true);
    eventProperty(WwModel::WwBaseEventTypeGroup, "Group", ns0(UA_NS0ID_STRING), false, false);
    eventProperty(
        WwModel::WwBaseEventTypeLocalizedMessages, "LocalizedMessages", ns0(UA_NS0ID_LOCALIZEDTEXT), true, false);
    eventProperty(WwModel::WwBaseEventTypeEventCategory, "EventCategory",
        UA_NODEID_NUMERIC(m_ww, WwModel::WwEventCategoryEnumeration), false, true);

    UA_ObjectAttributes folder = UA_ObjectAttributes_default;
    folder.displayName = UA_LOCALIZEDTEXT(const_cast<char *>(""), const_cast<char *>(WwModel::MachinesName));
    folder.eventNotifier = UA_EVENTNOTIFIER_SUBSCRIBE_TO_EVENT;
    status |= UA_Server_addObjectNode(m_server, UA_NODEID_NUMERIC(m_machinery, WwModel::MachineryMachines),
        ns0(UA_NS0ID_OBJECTSFOLDER), ns0(UA_NS0ID_ORGANIZES), qualified(m_machinery, WwModel::MachinesName),
        ns0(UA_NS0ID_FOLDERTYPE), folder, nullptr, nullptr);
    if (status != UA_STATUSCODE_GOOD) {
        *error = QStringLiteral("the woodworking types could not be added (%1)")
                     .arg(QString::fromLatin1(UA_StatusCode_name(status)));
        return false;
    }
    return true;
}
