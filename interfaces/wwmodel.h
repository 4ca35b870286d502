#ifndef ORVIX_WWMODEL_H
#define ORVIX_WWMODEL_H

#include <QtGlobal>

/**
 * The facts of the OPC UA model of woodworking machines (and of the Machinery and DI models it builds on) that the
 * code reading machines, the code serving them and both mappers share, so that each is written down once. Plain
 * numbers and texts only: the mappers use them without the OPC UA library.
 */
namespace WwModel {

// Namespace URIs of the companion models.
constexpr char WoodworkingUri[] = "http://opcfoundation.org/UA/Woodworking/";
constexpr char DiUri[] = "http://opcfoundation.org/UA/DI/";
constexpr char MachineryUri[] = "http://opcfoundation.org/UA/Machinery/";

/** Numeric node ids, as the models' NodeSets give them; each lives in the namespace of the model that names it. */
enum NodeId : quint32 {
    // Machinery
    MachineryMachines = 1001,
    MachineryItemIdentificationType = 1004,
    MachineryMachineIdentificationType = 1012,
    // DI
    DiFunctionalGroupType = 1005,
    // Woodworking
    WwMachineType = 2,
    IWwUnitFlagsType = 4,
    IWwUnitOverviewType = 5,
    IWwBaseStateType = 6,
    IWwSubUnitsType = 7,
    IWwStateType = 8,
    WwBaseEventType = 13,
    WwEventsDispatcherType = 15,
    WwUnitModeEnumeration = 20,
    WwUnitStateEnumeration = 21,
    WwUnitModeEnumerationValues = 123,
    WwUnitStateEnumerationValues = 128,
    WwBaseEventTypeMessageId = 256,
    WwBaseEventTypeMessageName = 257,
    WwBaseEventTypePathParts = 258,
    WwBaseEventTypeGroup = 259,
    WwBaseEventTypeLocalizedMessages = 260,
    IWwEventMessageType = 1002,
    IWwUnitValuesType = 1006,
    WwEventCategoryEnumeration = 3004,
    WwBaseEventTypeEventCategory = 6056,
    WwEventCategoryEnumerationValues = 6103,
};

// Browse names on the way from the Machines folder (Machinery) to a machine's flags, values, nameplate and events.
constexpr char MachinesName[] = "Machines";
constexpr char IdentificationName[] = "Identification";
constexpr char StateName[] = "State";
constexpr char MachineName[] = "Machine";
constexpr char OverviewName[] = "Overview";
constexpr char FlagsName[] = "Flags";
constexpr char ValuesName[] = "Values";
constexpr char EventsName[] = "Events";
constexpr char CurrentStateName[] = "CurrentState";
constexpr char CurrentModeName[] = "CurrentMode";
constexpr char ManufacturerSpecificName[] = "ManufacturerSpecific";
constexpr char LastProgramNameName[] = "LastProgramName";

// What follows the machine's name in the id of a flag's, a value's and a nameplate field's condition.
constexpr char FlagsPath[] = "/State/Machine/Flags/";
constexpr char ValuesPath[] = "/State/Machine/Values/";
constexpr char IdentificationPath[] = "/Identification/";

/** Flags of a machine's state (the fields of WwStateFlags). */
constexpr int FlagCount = 26;
/** Values of a machine's state (the fields of WwStateValues). */
constexpr int ValueCount = 35;
/** Nameplate fields (those of WwIdentification after its leading Name). */
constexpr int IdentificationFieldCount = 18;

} // namespace WwModel

#endif
