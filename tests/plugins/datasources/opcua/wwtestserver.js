// A test OPC UA server of woodworking machines, laid out as the companion specification OPC 40550-1 (Woodworking)
// describes them, written with node-opcua for the tests of orvix's OPC UA client datasource.
//
// Usage: NODE_PATH=<tests/nodeopcua/node_modules> node wwtestserver.js --port N [--pki DIR] [--secure]
//            [--machines COUNT] [--rate HZ] [--no-woodworking] [--bare] [--limits] [--max-items N]
//            [--placement machines|plant|objects|none] [--clash] [--hang-browse MACHINE] [--slow-namespaces MS]
//
// It loads the standard, DI, IA, Machinery, ISA-95 job control, Machinery Jobs and Woodworking NodeSets of
// node-opcua-nodesets and puts objects of WwMachineType into the Machinery Machines folder: "Saw1" (every
// optional flag and value) and "Edge2" (the mandatory flags and a few values), or "M001"... (each like Saw1)
// with --machines.
//   --limits             the small limits of an embedded PLC server: MaxNodesPerBrowse 5, MaxNodesPerRead 10,
//                        MaxMonitoredItemsPerCall 20, one subscription per session
//   --max-items N        MaxMonitoredItemsPerSubscription N: the items beyond it are refused (BadTooManyMonitoredItems)
//   --placement P        where the machines are: machines (the Machinery Machines folder, the default), plant
//                        (a folder Objects/Plant/Hall2/Machines that is not the Machinery one), objects (directly
//                        below Objects) or none (nowhere: a Woodworking server without machines)
//   --clash              a third machine below Objects also called Saw1
//   --hang-browse M      browse requests of machine M's object are never answered
//   --slow-namespaces MS reads of the namespace array are answered after MS milliseconds
// It reads one JSON object a line on standard input and answers each with one JSON line on standard output:
//   {"set": {"machine": "Saw1", "path": "State/Machine/Flags/Alarm", "value": true}}    -> {"ok": "set"}
//   {"setMany": [{"machine": ..., "path": ..., "value": ...}, ...]}                      -> {"ok": "setMany"}
//   {"setVariant": {"machine": ..., "path": ..., "dataType": "String", "value": ...}}   -> {"ok": "setVariant"}
//     (the value as a variant of that type, whatever the variable's own type)
//   {"event": {"machine": "Saw1", "messageId": "4711", "message": "Spindle hot", "category": 3,
//              "pathParts": ["Unit1"], "texts": {"en": "..."}, "group": "G1", "messageName": "X",
//              "severity": 500}}                                                         -> {"ok": "event"}
//     (also "notifier": "events" (default), "machine" or "server" for where the event is raised, and
//      "messageIdType": "LocalizedText", "Int32" or "ByteString" for a MessageId of another type)
//   {"trustRejected": true}                                     -> {"ok": "trustRejected", "count": N}
//   {"channels": true}                  -> {"ok": "channels", "count": N} secure channels clients asked for so far
//   {"quit": true}                                              -> {"ok": "quit"}, shuts down, exits 0
// The end of standard input shuts down too.
// Failures answer {"error": "..."}. Once it listens it prints {"ready": "<endpointUrl>", "namespaces": [...]}.
// Nothing else goes to standard output: node-opcua's log goes to standard error.
"use strict";

const util = require("util");
const toStderr = (...args) => process.stderr.write(util.format(...args) + "\n");
console.log = toStderr;
console.info = toStderr;
console.debug = toStderr;
console.warn = toStderr;

const fs = require("fs");
const os = require("os");
const path = require("path");
const readline = require("readline");
const {
    OPCUAServer,
    OPCUACertificateManager,
    MessageSecurityMode,
    SecurityPolicy,
    DataType,
    Variant,
    VariantArrayType,
    StatusCodes,
    LocalizedText,
    NodeClass,
    BrowseDirection,
} = require("node-opcua");
const { nodesets } = require("node-opcua-nodesets");

const say = (object) => process.stdout.write(JSON.stringify(object) + "\n");

const NS_DI = "http://opcfoundation.org/UA/DI/";
const NS_MACHINERY = "http://opcfoundation.org/UA/Machinery/";
const NS_WOODWORKING = "http://opcfoundation.org/UA/Woodworking/";
const OWN_URI = "urn:orvix:test:wwtestserver";

// ---- command line -------------------------------------------------------------------------------------------------

function parseArguments(argv) {
    const options = {
        port: 0, pki: "", secure: false, machines: 0, rate: 0, woodworking: true, bare: false, limits: false,
        maxItems: 0, placement: "machines", clash: false, hangBrowse: "", slowNamespaces: 0,
    };
    for (let i = 0; i < argv.length; ++i) {
        const argument = argv[i];
        const next = () => {
            if (i + 1 >= argv.length) {
                throw new Error(`${argument} needs a value`);
            }
            return argv[++i];
        };
        switch (argument) {
            case "--port": options.port = Number(next()); break;
            case "--pki": options.pki = next(); break;
            case "--secure": options.secure = true; break;
            case "--machines": options.machines = Number(next()); break;
            case "--rate": options.rate = Number(next()); break;
            case "--no-woodworking": options.woodworking = false; break;
            case "--bare": options.bare = true; break;
            case "--limits": options.limits = true; break;
            case "--max-items": options.maxItems = Number(next()); break;
            case "--placement": options.placement = next(); break;
            case "--clash": options.clash = true; break;
            case "--hang-browse": options.hangBrowse = next(); break;
            case "--slow-namespaces": options.slowNamespaces = Number(next()); break;
            default: throw new Error(`unknown argument ${argument}`);
        }
    }
    if (!Number.isInteger(options.port) || options.port <= 0 || options.port > 65535) {
        throw new Error("--port N is required (1 to 65535)");
    }
    if (!Number.isInteger(options.machines) || options.machines < 0) {
        throw new Error("--machines needs a count");
    }
    if (!Number.isFinite(options.rate) || options.rate < 0) {
        throw new Error("--rate needs a frequency in Hz");
    }
    if (!["machines", "plant", "objects", "none"].includes(options.placement)) {
        throw new Error("--placement needs machines, plant, objects or none");
    }
    return options;
}

// ---- the machines -------------------------------------------------------------------------------------------------

const en = (text) => ({ locale: "en", text });

// Identification: every property the type has (Saw1 and the benchmark machines) or the mandatory ones and a few.
function identificationOf(name, index) {
    if (name === "Edge2") {
        return {
            Manufacturer: en("Brennick Maschinenbau"),
            Model: en("EdgeMaster 500"),
            SerialNumber: "EM-0002",
            ProductInstanceUri: "urn:test:edge2",
            YearOfConstruction: 2019,
            DeviceClass: "Edge banding machine",
            SoftwareRevision: "1.4.0",
        };
    }
    const lower = name.toLowerCase();
    const identification = {
        Manufacturer: en("Brennick Maschinenbau"),
        ManufacturerUri: "http://www.brennick-maschinenbau.example/",
        Model: en("SawLine 3000"),
        ProductCode: "SL3000-A2",
        SerialNumber: name === "Saw1" ? "SL-0001" : `SL-${name}`,
        ProductInstanceUri: `urn:test:${lower}`,
        YearOfConstruction: 2021,
        MonthOfConstruction: 3,
        InitialOperationDate: new Date(Date.UTC(2021, 5, 15, 8, 0, 0)),
        DeviceClass: "Panel saw",
        SoftwareRevision: "3.2.1",
        HardwareRevision: "B",
        AssetId: `A-${1000 + index + 1}`,
        ComponentName: en(`Panel saw ${name}`),
        Location: "Hall 2 / Line 1",
        LocationPlant: "Rosenheim plant",
        LocationGPS: "47.8561, 12.1289",
        CustomerCompanyName: en("Holzwerk Sued GmbH"),
    };
    return identification;
}

// the flags a full machine starts with set; the others start false
const FLAGS_ON = new Set([
    "MachineOn", "PowerPresent", "MachineInitialized", "Calibrated", "RecipeInRun", "AirPresent", "DustChipSuction",
    "FeedRuns", "Moving", "Safety", "WorkpiecePresent", "LoadingEnabled",
]);
const EDGE2_FLAGS_ON = new Set(["MachineOn", "PowerPresent", "MachineInitialized", "Calibrated"]);
const EDGE2_VALUES = ["AbsoluteWorkingTime", "AbsoluteRunsGood", "FeedSpeed"];

function initialValue(name, dataType, index) {
    switch (name) {
        case "FeedSpeed": return 25.5;
        case "ActualCycle": return 12.5;
        case "AxisOverride": return 100;
        case "SpindleOverride": return 100;
        default: break;
    }
    if (dataType === DataType.Double) {
        return 1.5;
    }
    // counters and times: distinct, plausible numbers
    return (name.startsWith("Absolute") ? 100000 : 1000) + index * 10;
}

// ---- values -------------------------------------------------------------------------------------------------------

function toUInt64(value) {
    let big;
    if (typeof value === "bigint") {
        big = value;
    } else if (typeof value === "number" && Number.isInteger(value)) {
        big = BigInt(value);
    } else if (typeof value === "string" && /^[0-9]+$/.test(value.trim())) {
        big = BigInt(value.trim());
    } else if (Array.isArray(value) && value.length === 2) {
        return value;
    } else {
        throw new Error(`expecting an unsigned 64-bit integer, got ${JSON.stringify(value)}`);
    }
    if (big < 0n || big > 0xffffffffffffffffn) {
        throw new Error(`out of range for UInt64: ${value}`);
    }
    return [Number(big >> 32n), Number(big & 0xffffffffn)];
}

function toInteger(value, min, max, typeName) {
    const number = typeof value === "string" && value.trim() !== "" ? Number(value) : value;
    if (typeof number !== "number" || !Number.isInteger(number) || number < min || number > max) {
        throw new Error(`expecting ${typeName}, got ${JSON.stringify(value)}`);
    }
    return number;
}

// a JSON value as a Variant of the variable's data type
function makeVariant(variable, value) {
    const addressSpace = variable.addressSpace;
    const dataTypeNode = addressSpace.findDataType(variable.dataType);
    if (!dataTypeNode) {
        throw new Error(`unknown data type ${variable.dataType.toString()}`);
    }
    const basic = addressSpace.findCorrespondingBasicDataType(dataTypeNode);
    const isEnumeration = dataTypeNode.isSubtypeOf(addressSpace.findDataType("Enumeration"));
    if (variable.valueRank > 0 || Array.isArray(value) && basic !== DataType.UInt64) {
        if (!Array.isArray(value)) {
            throw new Error("expecting an array");
        }
        const elements = value.map((element) => convertScalar(basic, element, isEnumeration, dataTypeNode, variable));
        return new Variant({ dataType: basic, arrayType: VariantArrayType.Array, value: elements });
    }
    return new Variant({
        dataType: basic,
        arrayType: VariantArrayType.Scalar,
        value: convertScalar(basic, value, isEnumeration, dataTypeNode, variable),
    });
}

function convertScalar(basic, value, isEnumeration, dataTypeNode, variable) {
    if (isEnumeration && typeof value === "string" && !/^-?[0-9]+$/.test(value.trim())) {
        // an enumeration value by its name, "WORKING"
        const definition = dataTypeNode.getDefinition();
        const match = definition && definition.fields ? definition.fields.find((f) => f.name === value.trim()) : null;
        if (!match) {
            throw new Error(`${value} is not a value of ${dataTypeNode.browseName.name}`);
        }
        const number = match.value; // an Int64, [high, low]
        return Array.isArray(number)
            ? Number(BigInt.asIntN(64, (BigInt(number[0] >>> 0) << 32n) | BigInt(number[1] >>> 0)))
            : Number(number);
    }
    switch (basic) {
        case DataType.Boolean:
            if (typeof value === "boolean") return value;
            if (value === 0 || value === 1) return value === 1;
            if (value === "true" || value === "false") return value === "true";
            throw new Error(`expecting a Boolean, got ${JSON.stringify(value)}`);
        case DataType.SByte: return toInteger(value, -128, 127, "an SByte");
        case DataType.Byte: return toInteger(value, 0, 255, "a Byte");
        case DataType.Int16: return toInteger(value, -32768, 32767, "an Int16");
        case DataType.UInt16: return toInteger(value, 0, 65535, "a UInt16");
        case DataType.Int32:
            return toInteger(value, -2147483648, 2147483647, isEnumeration ? "an enumeration value" : "an Int32");
        case DataType.UInt32: return toInteger(value, 0, 4294967295, "a UInt32");
        case DataType.UInt64: return toUInt64(value);
        case DataType.Int64: {
            const big = BigInt(typeof value === "number" ? Math.trunc(value) : String(value));
            const u = BigInt.asUintN(64, big);
            return [Number(u >> 32n), Number(u & 0xffffffffn)];
        }
        case DataType.Float:
        case DataType.Double: {
            const number = typeof value === "string" ? Number(value) : value;
            if (typeof number !== "number" || Number.isNaN(number) && value !== "NaN") {
                throw new Error(`expecting a number, got ${JSON.stringify(value)}`);
            }
            return number;
        }
        case DataType.String:
            if (typeof value !== "string") throw new Error(`expecting a String, got ${JSON.stringify(value)}`);
            return value;
        case DataType.LocalizedText: {
            if (typeof value === "string") {
                const current = variable.readValue().value.value;
                const locale = current && current.locale ? current.locale : "en";
                return new LocalizedText({ locale, text: value });
            }
            if (value && typeof value === "object" && typeof value.text === "string") {
                return new LocalizedText({ locale: value.locale || null, text: value.text });
            }
            throw new Error(`expecting a LocalizedText (text or {"locale", "text"}), got ${JSON.stringify(value)}`);
        }
        case DataType.DateTime: {
            const date = value instanceof Date ? value
                : typeof value === "number" || typeof value === "string" ? new Date(value) : null;
            if (!date || Number.isNaN(date.getTime())) {
                throw new Error(`expecting a DateTime as ISO 8601 text, got ${JSON.stringify(value)}`);
            }
            return date;
        }
        default:
            throw new Error(`cannot write a value of data type ${DataType[basic]}`);
    }
}

function setValue(variable, value, timestamp) {
    variable.setValueFromSource(makeVariant(variable, value), StatusCodes.Good, timestamp || new Date());
}

// ---- the address space --------------------------------------------------------------------------------------------

// the forward hierarchical children of a node
function children(node) {
    const addressSpace = node.addressSpace;
    return node.findReferencesEx("HierarchicalReferences", BrowseDirection.Forward)
        .map((reference) => addressSpace.findNode(reference.nodeId))
        .filter((child) => !!child);
}

// every node below a node by its path of browse names (without namespace), "State/Machine/Flags/Alarm"
function indexPaths(root, prefix, map) {
    for (const child of children(root)) {
        const childPath = prefix ? `${prefix}/${child.browseName.name}` : child.browseName.name;
        if (!map.has(childPath)) {
            map.set(childPath, child);
            indexPaths(child, childPath, map);
        }
    }
    return map;
}

// the names and modelling rules of the children of an instance declaration of a type
function declarations(typeNode, browsePath) {
    let node = typeNode;
    for (const name of browsePath) {
        node = children(node).find((child) => child.browseName.name === name);
        if (!node) {
            throw new Error(`the type ${typeNode.browseName.toString()} has no ${browsePath.join("/")}`);
        }
    }
    return children(node)
        .filter((child) => child.nodeClass === NodeClass.Variable)
        .map((child) => ({ name: child.browseName.name, mandatory: child.modellingRule === "Mandatory" }));
}

function buildMachines(server, options) {
    const addressSpace = server.engine.addressSpace;
    const own = addressSpace.getOwnNamespace();
    const machineryIndex = addressSpace.getNamespaceIndex(NS_MACHINERY);
    const machinesFolder = addressSpace.findNode(`ns=${machineryIndex};i=1001`);
    if (!machinesFolder) {
        throw new Error("the Machinery nodeset has no Machines folder");
    }
    const machines = new Map();
    if (!options.woodworking) {
        own.addObject({ browseName: "Plain1", nodeId: `ns=${own.index};s=Plain1`, organizedBy: machinesFolder });
        return machines;
    }

    const woodworkingIndex = addressSpace.getNamespaceIndex(NS_WOODWORKING);
    const machineType = addressSpace.findObjectType("WwMachineType", woodworkingIndex);
    const eventType = addressSpace.findEventType("WwBaseEventType", woodworkingIndex);
    if (!machineType || !eventType) {
        throw new Error("the Woodworking nodeset has no WwMachineType or WwBaseEventType");
    }
    const flags = declarations(machineType, ["State", "Machine", "Flags"]);
    const values = declarations(machineType, ["State", "Machine", "Values"]);
    const identification = declarations(machineType, ["Identification"]);

    const names = options.placement === "none" ? []
        : options.machines > 0 ? Array.from({ length: options.machines },
            (_, i) => "M" + String(i + 1).padStart(3, "0"))
        : ["Saw1", "Edge2"];
    let parent = machinesFolder;
    if (options.placement === "plant") {
        const plant = own.addFolder(addressSpace.rootFolder.objects, { browseName: "Plant" });
        const hall = own.addFolder(plant, { browseName: "Hall2" });
        parent = own.addFolder(hall, { browseName: "Machines" });
    } else if (options.placement === "objects") {
        parent = addressSpace.rootFolder.objects;
    }
    const placed = names.map((name) => ({ name, parent, key: name, nodeName: name }));
    if (options.clash) {
        placed.push({ name: "Saw1", parent: addressSpace.rootFolder.objects, key: "Saw1b", nodeName: "Saw1b" });
    }

    placed.forEach(({ name, parent: organizer, key, nodeName }, index) => {
        const edge = name === "Edge2";
        const bare = options.bare && name === "Saw1";
        const ident = identificationOf(name, index);
        const optionals = ["Events", "ManufacturerSpecific", "ManufacturerSpecific.LastProgramName"];
        for (const property of identification) {
            if (!property.mandatory && ident[property.name] !== undefined) {
                optionals.push(`Identification.${property.name}`);
            }
        }
        let machineFlags = [];
        let machineValues = [];
        if (!bare) {
            machineFlags = edge ? flags.filter((flag) => flag.mandatory) : flags;
            machineValues = edge ? values.filter((value) => EDGE2_VALUES.includes(value.name)) : values;
            optionals.push("State.Machine.Flags", "State.Machine.Values");
            for (const flag of machineFlags) {
                if (!flag.mandatory) optionals.push(`State.Machine.Flags.${flag.name}`);
            }
            for (const value of machineValues) {
                if (!value.mandatory) optionals.push(`State.Machine.Values.${value.name}`);
            }
        }
        const machine = machineType.instantiate({
            browseName: { name, namespaceIndex: own.index },
            nodeId: `ns=${own.index};s=${nodeName}`,
            organizedBy: organizer,
            eventNotifier: 1,
            optionals,
        });
        const paths = indexPaths(machine, "", new Map());
        const events = paths.get("Events");
        events.setEventNotifier(1);
        // an event raised at Events reaches the machine through this and the Server object anyway
        machine.addReference({ referenceType: "HasNotifier", nodeId: events.nodeId });

        const now = new Date();
        const set = (p, value) => setValue(paths.get(p), value, now);
        for (const [property, value] of Object.entries(ident)) {
            set(`Identification/${property}`, value);
        }
        set("State/Machine/Overview/CurrentState", edge ? 2 : 3);
        set("State/Machine/Overview/CurrentMode", edge ? 3 : 1);
        set("ManufacturerSpecific/LastProgramName", edge ? "Edge_standard.prg" : "Cabinet_side_left.mpr");
        const flagNodes = [];
        const valueNodes = [];
        for (const flag of machineFlags) {
            const p = `State/Machine/Flags/${flag.name}`;
            set(p, (edge ? EDGE2_FLAGS_ON : FLAGS_ON).has(flag.name));
            flagNodes.push(paths.get(p));
        }
        machineValues.forEach((value, i) => {
            const p = `State/Machine/Values/${value.name}`;
            const variable = paths.get(p);
            set(p, initialValue(value.name, addressSpace.findCorrespondingBasicDataType(variable.dataType), i));
            valueNodes.push(variable);
        });
        for (const [p, node] of paths) {
            if (node.nodeClass === NodeClass.Variable && node.readValue().value.dataType === DataType.Null) {
                console.warn(`wwtestserver: ${name}/${p} has no value`);
            }
        }
        machines.set(key, { machine, events, paths, flagNodes, valueNodes });
    });
    return machines;
}

// ---- commands -----------------------------------------------------------------------------------------------------

function findVariable(machines, request) {
    if (!request || typeof request !== "object") {
        throw new Error("expecting {machine, path, value}");
    }
    const entry = machines.get(request.machine);
    if (!entry) {
        throw new Error(`no machine ${JSON.stringify(request.machine)}`);
    }
    const node = entry.paths.get(String(request.path || "").replace(/^\/+|\/+$/g, ""));
    if (!node) {
        throw new Error(`${request.machine} has no ${JSON.stringify(request.path)}`);
    }
    if (node.nodeClass !== NodeClass.Variable) {
        throw new Error(`${request.machine}/${request.path} is not a variable`);
    }
    if (request.value === undefined) {
        throw new Error("no value");
    }
    return node;
}

function raiseEvent(addressSpace, machines, request) {
    const entry = machines.get(request && request.machine);
    if (!entry) {
        throw new Error(`no machine ${JSON.stringify(request && request.machine)}`);
    }
    const woodworkingIndex = addressSpace.getNamespaceIndex(NS_WOODWORKING);
    const eventType = addressSpace.findEventType("WwBaseEventType", woodworkingIndex);
    const texts = request.texts && typeof request.texts === "object" ? request.texts : {};
    const message = request.message !== undefined ? String(request.message) : texts.en || "";
    const messageIdTypes = {
        String: (text) => ({ dataType: DataType.String, value: text }),
        LocalizedText: (text) => ({ dataType: DataType.LocalizedText, value: new LocalizedText({ locale: "en", text }) }),
        Int32: (text) => ({ dataType: DataType.Int32, value: Number(text) }),
        ByteString: (text) => ({ dataType: DataType.ByteString, value: Buffer.from(text) }),
    };
    const messageIdOf = messageIdTypes[request.messageIdType || "String"];
    if (!messageIdOf) {
        throw new Error(`messageIdType must be one of ${Object.keys(messageIdTypes).join(", ")}`);
    }
    const data = {
        sourceNode: { dataType: DataType.NodeId, value: entry.machine.nodeId },
        sourceName: { dataType: DataType.String, value: entry.machine.browseName.name },
        message: { dataType: DataType.LocalizedText, value: new LocalizedText({ locale: "en", text: message }) },
        severity: {
            dataType: DataType.UInt16,
            value: toInteger(request.severity ?? 500, 1, 1000, "a severity 1 to 1000"),
        },
        messageId: messageIdOf(String(request.messageId ?? "")),
        eventCategory: {
            dataType: DataType.Int32, // WwEventCategoryEnumeration
            value: toInteger(request.category ?? 0, 0, 2147483647, "a category"),
        },
        pathParts: {
            dataType: DataType.String,
            arrayType: VariantArrayType.Array,
            value: (Array.isArray(request.pathParts) ? request.pathParts : []).map(String),
        },
    };
    if (Object.keys(texts).length > 0) {
        data.localizedMessages = {
            dataType: DataType.LocalizedText,
            arrayType: VariantArrayType.Array,
            value: Object.entries(texts).map(([locale, text]) => new LocalizedText({ locale, text: String(text) })),
        };
    }
    if (request.group !== undefined) {
        data.group = { dataType: DataType.String, value: String(request.group) };
    }
    if (request.messageName !== undefined) {
        data.messageName = { dataType: DataType.String, value: String(request.messageName) };
    }
    const notifiers = {
        events: entry.events,
        machine: entry.machine,
        server: addressSpace.rootFolder.objects.server,
    };
    const notifier = notifiers[request.notifier || "events"];
    if (!notifier) {
        throw new Error("notifier must be events, machine or server");
    }
    notifier.raiseEvent(eventType, data);
}

async function trustRejected(certificateManager) {
    const rejected = certificateManager.rejectedFolder;
    const trusted = certificateManager.trustedFolder;
    await fs.promises.mkdir(trusted, { recursive: true });
    let count = 0;
    for (const file of await fs.promises.readdir(rejected).catch(() => [])) {
        if (!/\.(pem|der)$/i.test(file)) continue;
        await fs.promises.rename(path.join(rejected, file), path.join(trusted, file));
        ++count;
    }
    await certificateManager.reloadCertificates();
    return count;
}

// ---- main ---------------------------------------------------------------------------------------------------------

async function main() {
    const options = parseArguments(process.argv.slice(2));
    let pki = options.pki;
    if (!pki) {
        // a fresh folder when secure (its trust decisions are the test's), otherwise one kept between runs: the
        // server's key and certificate are made once
        pki = options.secure
            ? fs.mkdtempSync(path.join(os.tmpdir(), "wwtestserver-pki-"))
            : path.join(os.tmpdir(), `wwtestserver-pki-${os.userInfo().uid}`);
    }
    const certificateManager = new OPCUACertificateManager({
        rootFolder: pki,
        automaticallyAcceptUnknownCertificate: !options.secure,
    });
    const nodesetFiles = [nodesets.standard, nodesets.di, nodesets.ia, nodesets.machinery];
    if (options.woodworking) {
        nodesetFiles.push(nodesets.isa95JobControl, nodesets.machineryJobs, nodesets.woodWorking);
    }
    const serverCapabilities = {};
    if (options.limits) {
        serverCapabilities.maxSubscriptionsPerSession = 1;
        serverCapabilities.operationLimits = { maxNodesPerBrowse: 5, maxNodesPerRead: 10, maxMonitoredItemsPerCall: 20 };
    }
    if (options.maxItems > 0) {
        serverCapabilities.maxMonitoredItemsPerSubscription = options.maxItems;
    }
    const server = new OPCUAServer({
        serverCapabilities,
        port: options.port,
        host: "127.0.0.1",
        hostname: "127.0.0.1",
        alternateHostname: ["127.0.0.1"],
        nodeset_filename: nodesetFiles,
        serverCertificateManager: certificateManager,
        userCertificateManager: certificateManager, // X509 user tokens: the same trust list, no second folder
        serverInfo: {
            applicationUri: OWN_URI,
            productUri: "urn:orvix:test:wwtestserver",
            applicationName: { locale: "en", text: "orvix woodworking test server" },
        },
        buildInfo: { productName: "wwtestserver", manufacturerName: "orvix tests", softwareVersion: "1.0" },
        securityPolicies: options.secure ? [SecurityPolicy.Basic256Sha256] : [SecurityPolicy.None],
        securityModes: options.secure ? [MessageSecurityMode.SignAndEncrypt] : [MessageSecurityMode.None],
        allowAnonymous: !options.secure,
        userManager: {
            isValidUser: (userName, password) => userName === "operator" && password === "secret",
        },
    });
    await server.initialize();
    const addressSpace = server.engine.addressSpace;
    if (options.woodworking && addressSpace.getNamespaceIndex(NS_WOODWORKING) < 0) {
        throw new Error("the Woodworking nodeset did not load");
    }
    if (addressSpace.getNamespaceIndex(NS_DI) < 0 || addressSpace.getNamespaceIndex(NS_MACHINERY) < 0) {
        throw new Error("the DI or Machinery nodeset did not load");
    }
    const machines = buildMachines(server, options);
    if (options.hangBrowse) {
        const hung = machines.get(options.hangBrowse);
        if (!hung) throw new Error(`--hang-browse: no machine ${options.hangBrowse}`);
        const browse = server._on_BrowseRequest.bind(server);
        server._on_BrowseRequest = (message, channel) => {
            const nodes = message.request.nodesToBrowse || [];
            if (nodes.some((description) => description.nodeId.toString() === hung.machine.nodeId.toString())) {
                return; // never answered
            }
            browse(message, channel);
        };
    }
    if (options.slowNamespaces > 0) {
        const read = server._on_ReadRequest.bind(server);
        server._on_ReadRequest = (message, channel) => {
            const nodes = message.request.nodesToRead || [];
            if (nodes.some((toRead) => toRead.nodeId.toString() === "ns=0;i=2255")) {
                setTimeout(() => read(message, channel), options.slowNamespaces);
                return;
            }
            read(message, channel);
        };
    }
    let channels = 0;
    await server.start();
    for (const endpoint of server.endpoints) {
        endpoint.on("newChannel", () => ++channels);
        endpoint.on("openSecureChannelFailure", () => ++channels);
    }

    let timer = null;
    if (options.rate > 0) {
        timer = setInterval(() => {
            const now = new Date();
            for (const entry of machines.values()) {
                for (const flag of entry.flagNodes) {
                    const variant = flag.readValue().value;
                    flag.setValueFromSource(new Variant({ dataType: DataType.Boolean, value: !variant.value }),
                        StatusCodes.Good, now);
                }
                for (const variable of entry.valueNodes) {
                    const variant = variable.readValue().value;
                    let value;
                    if (variant.dataType === DataType.UInt64) {
                        const [high, low] = variant.value;
                        const next = ((BigInt(high) << 32n) + BigInt(low) + 1n) & 0xffffffffffffffffn;
                        value = [Number(next >> 32n), Number(next & 0xffffffffn)];
                    } else if (variant.dataType === DataType.UInt32) {
                        value = (variant.value + 1) >>> 0;
                    } else {
                        value = variant.value + 0.5;
                    }
                    variable.setValueFromSource(
                        new Variant({ dataType: variant.dataType, arrayType: VariantArrayType.Scalar, value }),
                        StatusCodes.Good, now);
                }
            }
        }, 1000 / options.rate);
    }

    let stopping = false;
    const stop = async () => {
        if (stopping) return;
        stopping = true;
        if (timer) clearInterval(timer);
        setTimeout(() => process.exit(0), 3000).unref();
        try {
            await server.shutdown(0);
        } catch (error) {
            console.warn("wwtestserver: shutdown:", error);
        }
        process.exit(0);
    };

    const handle = async (command) => {
        if (command.set !== undefined) {
            setValue(findVariable(machines, command.set), command.set.value);
            return { ok: "set" };
        }
        if (command.setMany !== undefined) {
            if (!Array.isArray(command.setMany)) throw new Error("setMany expects an array");
            // all or nothing: every value converted before any is written, one source timestamp for all
            const writes = command.setMany.map((request) => {
                const variable = findVariable(machines, request);
                return [variable, makeVariant(variable, request.value)];
            });
            const now = new Date();
            for (const [variable, variant] of writes) {
                variable.setValueFromSource(variant, StatusCodes.Good, now);
            }
            return { ok: "setMany" };
        }
        if (command.setVariant !== undefined) {
            // a value of whatever type the command names, as a server with a wrong type would send it
            const variable = findVariable(machines, command.setVariant);
            // node-opcua checks a value against the variable's data type; this variable is to break that rule
            variable.verifyVariantCompatibility = () => {};
            const variant = new Variant({ dataType: DataType[command.setVariant.dataType], value: command.setVariant.value });
            variable.setValueFromSource(variant, StatusCodes.Good, new Date());
            return { ok: "setVariant" };
        }
        if (command.event !== undefined) {
            if (!options.woodworking) throw new Error("no Woodworking namespace (--no-woodworking)");
            raiseEvent(addressSpace, machines, command.event);
            return { ok: "event" };
        }
        if (command.trustRejected !== undefined) {
            return { ok: "trustRejected", count: await trustRejected(certificateManager) };
        }
        if (command.channels !== undefined) {
            return { ok: "channels", count: channels };
        }
        if (command.quit !== undefined) {
            say({ ok: "quit" });
            await stop();
            return null;
        }
        throw new Error(`unknown command ${JSON.stringify(Object.keys(command))}`);
    };

    let queue = Promise.resolve();
    const lines = readline.createInterface({ input: process.stdin, terminal: false });
    lines.on("line", (line) => {
        if (!line.trim()) return;
        queue = queue.then(async () => {
            let answer;
            try {
                const command = JSON.parse(line);
                if (!command || typeof command !== "object" || Array.isArray(command)) {
                    throw new Error("expecting a JSON object");
                }
                answer = await handle(command);
            } catch (error) {
                answer = { error: error && error.message ? error.message : String(error) };
            }
            if (answer) say(answer);
        });
    });
    lines.on("close", () => {
        queue = queue.then(stop);
    });

    say({ ready: server.getEndpointUrl(), namespaces: addressSpace.getNamespaceArray().map((ns) => ns.namespaceUri) });
    console.warn(`wwtestserver: ready ${Math.round(process.uptime() * 1000)} ms after start, ` +
        `${machines.size} machine(s), pki ${pki}`);
}

main().catch((error) => {
    say({ error: error && error.message ? error.message : String(error) });
    console.warn("wwtestserver:", error);
    process.exit(1);
});
