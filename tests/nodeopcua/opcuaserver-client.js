// A node-opcua client of orvix's opcuaServer target, driven by tst_opcuaserver over standard input and output.
//
// Usage: node opcuaserver-client.js <endpointUrl> <pkiFolder> [<user> <password>]
// With a user it connects with Basic256Sha256 and SignAndEncrypt, otherwise without security. It prints one JSON
// object a line: what it found, then "subscribed"; after that each data change of the machine m1's MachineOn flag,
// each event of its Events object and each event that the Server object reports, until standard input closes. A refused connection prints "refused" and
// exits with status 2.
"use strict";

const {
    OPCUAClient,
    OPCUACertificateManager,
    AttributeIds,
    MessageSecurityMode,
    SecurityPolicy,
    UserTokenType,
    TimestampsToReturn,
    EventFilter,
    SimpleAttributeOperand,
    QualifiedName,
    resolveNodeId,
} = require("node-opcua");

const [url, pki, user, password] = process.argv.slice(2);
const say = (object) => process.stdout.write(JSON.stringify(object) + "\n");

function field(typeId, namespaceIndex, name) {
    return new SimpleAttributeOperand({
        typeDefinitionId: typeId,
        browsePath: [new QualifiedName({ namespaceIndex, name })],
        attributeId: AttributeIds.Value,
    });
}

async function main() {
    const certificateManager = new OPCUACertificateManager({
        rootFolder: pki,
        automaticallyAcceptUnknownCertificate: true,
    });
    const client = OPCUAClient.create({
        applicationName: "orvix test client",
        applicationUri: "urn:orvix:test:nodeopcua",
        clientCertificateManager: certificateManager,
        endpointMustExist: false,
        securityMode: user ? MessageSecurityMode.SignAndEncrypt : MessageSecurityMode.None,
        securityPolicy: user ? SecurityPolicy.Basic256Sha256 : SecurityPolicy.None,
        connectionStrategy: { maxRetry: 0, initialDelay: 100, maxDelay: 200 },
    });
    let session;
    try {
        await client.connect(url);
        session = await client.createSession(
            user ? { type: UserTokenType.UserName, userName: user, password } : { type: UserTokenType.Anonymous });
    } catch (error) {
        say({ refused: String(error.message).split("\n")[0] });
        await client.disconnect().catch(() => {});
        process.exit(2);
    }

    const namespaces = await session.readNamespaceArray();
    const ww = namespaces.indexOf("http://opcfoundation.org/UA/Woodworking/");
    const machinery = namespaces.indexOf("http://opcfoundation.org/UA/Machinery/");
    const own = namespaces.indexOf("urn:orvix:opcuaServer:machines");

    const objects = await session.browse("ns=0;i=85");
    const folder = objects.references.find((r) => r.browseName.name === "Machines"
        && r.browseName.namespaceIndex === machinery);
    const machines = await session.browse(folder.nodeId);
    const names = machines.references.map((r) => r.browseName.name).sort();
    const typeOf = machines.references.map((r) => r.typeDefinition.toString());
    say({ machines: names, types: [...new Set(typeOf)], wwMachineType: `ns=${ww};i=2` });

    const m1 = machines.references.find((r) => r.browseName.name === "m1").nodeId;
    const children = await session.browse(m1);
    say({ children: children.references.map((r) => r.browseName.name).sort() });

    const id = (path) => `ns=${own};s=m1/${path}`;
    const paths = ["Identification/Manufacturer", "Identification/SerialNumber", "Identification/YearOfConstruction",
        "State/Machine/Overview/CurrentState", "State/Machine/Overview/CurrentMode", "State/Machine/Flags/MachineOn"];
    const values = await session.read(paths.map((path) => ({ nodeId: id(path), attributeId: AttributeIds.Value })));
    const read = {};
    paths.forEach((path, i) => {
        const value = values[i].value.value;
        read[path] = value && value.text !== undefined ? value.text : value;
    });
    say({ read });
    const stateType = await session.read({ nodeId: id("State/Machine/Overview/CurrentState"),
        attributeId: AttributeIds.DataType });
    say({ currentStateDataType: stateType.value.value.toString() });

    const subscription = await session.createSubscription2({
        requestedPublishingInterval: 50,
        requestedMaxKeepAliveCount: 20,
        requestedLifetimeCount: 200,
        maxNotificationsPerPublish: 0,
        publishingEnabled: true,
        priority: 1,
    });
    const flag = await subscription.monitor({ nodeId: id("State/Machine/Flags/MachineOn"),
        attributeId: AttributeIds.Value }, { samplingInterval: 0, queueSize: 10, discardOldest: true },
    TimestampsToReturn.Both);
    flag.on("changed", (dataValue) => say({ MachineOn: dataValue.value.value }));

    const baseEvent = resolveNodeId("ns=0;i=2041");
    const wwEvent = resolveNodeId(`ns=${ww};i=13`);
    const filter = new EventFilter({
        selectClauses: [
            field(baseEvent, 0, "Message"),
            field(baseEvent, 0, "Severity"),
            field(baseEvent, 0, "EventType"),
            field(wwEvent, ww, "MessageId"),
            field(wwEvent, ww, "EventCategory"),
            field(wwEvent, ww, "PathParts"),
            field(wwEvent, ww, "LocalizedMessages"),
        ],
    });
    const events = await subscription.monitor({ nodeId: `ns=${own};s=m1/Events`,
        attributeId: AttributeIds.EventNotifier }, { queueSize: 100, filter, discardOldest: true },
    TimestampsToReturn.Neither);
    events.on("changed", (fields) => say({ event: {
        Message: fields[0].value.text,
        Severity: fields[1].value,
        EventType: fields[2].value.toString(),
        MessageId: fields[3].value,
        EventCategory: fields[4].value,
        PathParts: fields[5].value,
        LocalizedMessages: (fields[6].value || []).map((t) => `${t.locale}:${t.text}`),
    } }));
    const serverEvents = await subscription.monitor({ nodeId: "ns=0;i=2253", attributeId: AttributeIds.EventNotifier },
        { queueSize: 100, filter, discardOldest: true }, TimestampsToReturn.Neither);
    serverEvents.on("changed", (fields) => say({ serverEvent: { MessageId: fields[3].value } }));
    say({ subscribed: true, wwBaseEventType: wwEvent.toString() });

    process.stdin.resume();
    await new Promise((resolve) => process.stdin.on("end", resolve));
    await subscription.terminate();
    await session.close();
    await client.disconnect();
}

main().catch((error) => {
    say({ error: String(error.stack || error) });
    process.exit(1);
});
