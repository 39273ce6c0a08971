// Polls one-word holding registers and writes the values to files. Runs until it is killed.
//     node poll.js MODULES PORT RANGES LIMIT PERIOD_MS FOLDER values|changes
// values: one write of all values to FOLDER/values after each refresh, not forced to the disk.
// changes: the service's changes instead, on its org and data files in FOLDER: the values of a read when they differ,
// then the records, each file forced to the disk; without locks, which node does not offer, and with both files kept open.
"use strict";
const fs = require("fs");
const path = require("path");

const [modules, port, ranges, limit, period, folder, mode] = process.argv.slice(2);
const ModbusRTU = require(path.join(modules, "modbus-serial"));
const Count = Number(ranges);
const Limit = Number(limit);

const HeaderBytes = 12, RecordBytes = 56, StampAt = 24, StateAt = 36;

function writeValues(values) {
    fs.writeFileSync(path.join(folder, "values"), values);
}

class ServiceFiles {
    constructor() {
        this.records = fs.readFileSync(path.join(folder, "org"));
        this.org = fs.openSync(path.join(folder, "org"), "r+");
        this.data = fs.openSync(path.join(folder, "data"), "r+");
    }

    store(first, values) {
        const now = Date.now(), count = values.length / 2;
        const present = Buffer.alloc(values.length);
        fs.readSync(this.data, present, 0, present.length, 2 * first);
        if (!present.equals(values)) {
            fs.writeSync(this.data, values, 0, values.length, 2 * first);
            fs.fsyncSync(this.data);
        }
        const start = HeaderBytes + RecordBytes * first;
        for (let at = start; at < start + RecordBytes * count; at += RecordBytes) {
            this.records.writeInt32LE(Math.floor(now / 1000), at + StampAt);
            this.records.writeInt32LE(now % 1000 * 1000, at + StampAt + 4);
            this.records[at + StateAt] = 1;
        }
        fs.writeSync(this.org, this.records, start, RecordBytes * count, start);
        fs.fsyncSync(this.org);
    }
}

async function main() {
    const client = new ModbusRTU();
    await client.connectTCP("127.0.0.1", { port: Number(port) });
    client.setID(1);
    client.setTimeout(1000);
    const files = mode === "changes" ? new ServiceFiles() : null;
    for (;;) {
        const next = Date.now() + Number(period);
        const all = [];
        for (let first = 0; first < Count; first += Limit) {
            const { buffer } = await client.readHoldingRegisters(first, Math.min(Limit, Count - first));
            if (files !== null) files.store(first, buffer);
            else all.push(buffer);
        }
        if (files === null) writeValues(Buffer.concat(all));
        const early = next - Date.now();
        if (early > 0) await new Promise((resolve) => setTimeout(resolve, early));
    }
}

main().catch((error) => {
    console.error(error);
    process.exit(1);
});
