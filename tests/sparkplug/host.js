// A Sparkplug host application for the tests of orvix's sparkplug target, on the mqtt client and Eclipse Tahu's
// Sparkplug B payload codec, driven over standard input and output.
//
// Usage: node host.js <port>
// It subscribes to spBv1.0/# on the broker at 127.0.0.1:<port> and prints {"ready":true}; then one JSON object a line
// for every message it receives: {"message":{topic, type, group, node, device, timestamp, seq, metrics}} with each
// metric's name, alias, type, value, timestamp, isHistorical and isNull as the codec decoded them (STATE messages as
// their JSON). Commands, one JSON object a line, each answered with {"ok":true}:
//   {"rebirth": "<group>/<node>"}         publishes an NCMD with Node Control/Rebirth = true
//   {"command": "<topic>", "raw": "<text>"} publishes text as it stands
//   {"state": "<hostId>", "online": b, "timestamp": n}  publishes the retained STATE of a host application
"use strict";

const mqtt = require("mqtt");
const sparkplug = require("sparkplug-payload").get("spBv1.0");
const { Payload } = require("sparkplug-payload/lib/sparkplugPayloadProto").org.eclipse.tahu.protobuf;
const readline = require("readline");

const [port] = process.argv.slice(2);
const say = (object) => process.stdout.write(JSON.stringify(object) + "\n");

// Data messages name their metrics by alias only and leave the type out, as Sparkplug asks; like any host, this one
// takes both from the births of the edge node, per alias, before the codec decodes the values.
const typesByNode = new Map();

function decode(node, type, payload) {
    const raw = Payload.decode(payload);
    if (!typesByNode.has(node))
        typesByNode.set(node, new Map());
    const types = typesByNode.get(node);
    const shape = raw.metrics.map((metric) => ({
        hasName: metric.hasOwnProperty("name"),
        hasDatatype: metric.hasOwnProperty("datatype"),
        isNull: metric.isNull === true,
    }));
    for (const metric of raw.metrics) {
        const alias = metric.hasOwnProperty("alias") ? plain(metric.alias) : undefined;
        if (type.endsWith("BIRTH") && alias !== undefined)
            types.set(alias, metric.datatype);
        else if (!metric.hasOwnProperty("datatype") && types.has(alias))
            metric.datatype = types.get(alias);
    }
    return { decoded: sparkplug.decodePayload(Payload.encode(raw).finish()), shape };
}

// The codec gives 64-bit values as Long objects; every value of the tests fits a double.
function plain(value) {
    if (value === null || value === undefined)
        return value;
    if (typeof value === "object" && typeof value.toNumber === "function")
        return value.toNumber();
    if (Array.isArray(value))
        return value.map(plain);
    if (typeof value === "object") {
        const result = {};
        for (const key of Object.keys(value))
            result[key] = plain(value[key]);
        return result;
    }
    return value;
}

const client = mqtt.connect(`mqtt://127.0.0.1:${port}`, {
    clientId: "sparkplug-test-host",
    clean: true,
    reconnectPeriod: 200,
});
client.on("error", (error) => say({ error: String(error) }));
client.on("connect", () => {
    client.subscribe("spBv1.0/#", { qos: 1 }, (error) => {
        if (error)
            say({ error: String(error) });
        else
            say({ ready: true });
    });
});
client.on("message", (topic, payload, packet) => {
    const levels = topic.split("/");
    // Commands are this host's own.
    if (levels[2] === "NCMD" || levels[2] === "DCMD")
        return;
    if (levels[1] === "STATE") {
        say({ message: { topic, type: "STATE", retain: packet.retain, state: JSON.parse(payload.toString()) } });
        return;
    }
    let decoded;
    let shape;
    try {
        ({ decoded, shape } = decode(levels[1] + "/" + levels[3], levels[2], payload));
    } catch (error) {
        say({ message: { topic, type: levels[2], error: String(error) } });
        return;
    }
    const metrics = (decoded.metrics || []).map((metric, i) => ({
        hasName: shape[i].hasName,
        hasDatatype: shape[i].hasDatatype,
        name: metric.name,
        alias: plain(metric.alias),
        type: metric.type,
        value: plain(metric.value),
        timestamp: plain(metric.timestamp),
        isHistorical: metric.isHistorical === true,
        isNull: shape[i].isNull,
    }));
    say({
        message: {
            topic,
            type: levels[2],
            group: levels[1],
            node: levels[3],
            device: levels[4],
            retain: packet.retain,
            qos: packet.qos,
            timestamp: plain(decoded.timestamp),
            seq: decoded.seq === undefined || decoded.seq === null ? null : plain(decoded.seq),
            metrics,
        },
    });
});

readline.createInterface({ input: process.stdin }).on("line", (line) => {
    const command = JSON.parse(line);
    const done = (error) => say(error ? { error: String(error) } : { ok: true });
    if (command.rebirth) {
        const [group, node] = command.rebirth.split("/");
        const payload = sparkplug.encodePayload({
            timestamp: Date.now(),
            metrics: [{ name: "Node Control/Rebirth", type: "Boolean", value: true }],
        });
        client.publish(`spBv1.0/${group}/NCMD/${node}`, payload, { qos: 0 }, done);
    } else if (command.command) {
        client.publish(command.command, Buffer.from(command.raw), { qos: 0 }, done);
    } else if (command.state) {
        const state = JSON.stringify({ online: command.online, timestamp: command.timestamp });
        client.publish(`spBv1.0/STATE/${command.state}`, state, { qos: 1, retain: true }, done);
    }
}).on("close", () => client.end(false, () => process.exit(0)));
