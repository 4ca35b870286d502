// A one-shot node-opcua client of orvix's opcuaServer target: it finds the machines in the Machinery Machines folder
// and prints, as one JSON line, each machine's CurrentState and CurrentMode, then ends. A connection that fails
// prints {"error": ...} and ends with status 2.
//
// Usage: node machinestates.js <endpointUrl>
"use strict";

const { OPCUAClient, AttributeIds, MessageSecurityMode, SecurityPolicy } = require("node-opcua");

const say = (object) => process.stdout.write(JSON.stringify(object) + "\n");

async function main() {
    const client = OPCUAClient.create({
        applicationName: "orvix test client",
        endpointMustExist: false,
        securityMode: MessageSecurityMode.None,
        securityPolicy: SecurityPolicy.None,
        connectionStrategy: { maxRetry: 0, initialDelay: 100, maxDelay: 200 },
    });
    await client.connect(process.argv[2]);
    const session = await client.createSession();
    const namespaces = await session.readNamespaceArray();
    const machinery = namespaces.indexOf("http://opcfoundation.org/UA/Machinery/");
    const objects = await session.browse("ns=0;i=85");
    const folder = objects.references.find((r) => r.browseName.name === "Machines"
        && r.browseName.namespaceIndex === machinery);
    const machines = (await session.browse(folder.nodeId)).references;
    const states = {};
    for (const machine of machines) {
        const paths = ["State", "Machine", "Overview"];
        let node = machine.nodeId;
        for (const name of paths) {
            const children = (await session.browse(node)).references;
            node = children.find((r) => r.browseName.name === name).nodeId;
        }
        const overview = (await session.browse(node)).references;
        const read = async (name) => {
            const variable = overview.find((r) => r.browseName.name === name);
            return (await session.read({ nodeId: variable.nodeId, attributeId: AttributeIds.Value })).value.value;
        };
        states[machine.browseName.name] = { CurrentState: await read("CurrentState"), CurrentMode: await read("CurrentMode") };
    }
    say({ states });
    await session.close();
    await client.disconnect();
}

main().catch((error) => {
    say({ error: String(error.message || error) });
    process.exit(2);
});
