// W9 on the streaming engine peer: the same rows and the same W2 update
// stream as the library's run, read from the file the peers program writes.
//
//   node w9.mjs DATA load-flat|load-group|flat|group
//
// Prints one line: seconds items check. Rows are keyed by their number
// (1..n): the benchmark's 63-bit keys do not fit a JavaScript number, and
// the row number stands for its key one to one.

import perspective from "@finos/perspective";
import fs from "node:fs";

const [file, mode] = process.argv.slice(2);
const bytes = fs.readFileSync(file);
const data = bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.byteLength);
const head = new Int32Array(data, 0, 4);
const n = head[0];
const m = head[1];
let at = 16;
const take = (Type, count) => {
    const array = new Type(data, at, count);
    at += count * Type.BYTES_PER_ELEMENT;
    return array;
};
const price = take(Float64Array, n);
const ts = take(Float64Array, n);
const updatePrice = take(Float64Array, m);
const qty = take(Int32Array, n);
const updateRow = take(Int32Array, m);
const symbolBytes = new Uint8Array(data, at, n * 12);

const symbols = new Array(n);
const pool = new Map();
const decoder = new TextDecoder("latin1");
for (let i = 0; i < n; ++i) {
    const raw = symbolBytes.subarray(i * 12, i * 12 + 12);
    const text = decoder.decode(raw);
    if (!pool.has(text))
        pool.set(text, text);
    symbols[i] = pool.get(text);
}

const table = await perspective.table(
    { id: "integer", price: "float", qty: "integer", symbol: "string", ts: "datetime" },
    { index: "id" }
);
await table.update({
    id: Array.from({ length: n }, (_, i) => i + 1),
    price: Array.from(price),
    qty: Array.from(qty),
    symbol: symbols,
    ts: Array.from(ts),
});

const grouped = mode === "group" || mode === "load-group";
const config = grouped
    ? {
          group_by: ["symbol"],
          columns: ["qty", "price", "price_avg", "trades"],
          expressions: { price_avg: '"price"', trades: '"id"' },
          aggregates: { qty: "sum", price: "last", price_avg: "avg", trades: "count" },
      }
    : { sort: [["price", "asc"]] };
const read = async (view) => {
    if (grouped)
        return (await view.to_columns())["qty"].length;
    return (await view.to_json({ start_row: 0, end_row: 100 })).length;
};

const now = () => Number(process.hrtime.bigint()) / 1e9;
let start = now();
const view = await table.view(config);
let shown = await read(view);
if (mode.startsWith("load-")) {
    console.log(`${now() - start} ${n} ${await view.num_rows()} rows`);
    process.exit(0);
}

const perBatch = Math.min(1000, n);
const batches = Math.min(100, Math.floor(n / perBatch));
const times = [];
let total = 0;
for (let b = 0; b < batches; ++b) {
    const ids = new Array(perBatch);
    const prices = new Array(perBatch);
    for (let k = 0; k < perBatch; ++k) {
        ids[k] = updateRow[b * perBatch + k] + 1;
        prices[k] = updatePrice[b * perBatch + k];
    }
    start = now();
    await table.update({ id: ids, price: prices });
    shown = await read(view);
    const seconds = now() - start;
    times.push(seconds);
    total += seconds;
}
times.sort((a, b) => a - b);
const median = times[Math.floor(times.length / 2)] * 1e3;
// p99 by nearest rank (the 99th of 100 batches); the slowest apart.
const p99 = times[Math.ceil((times.length * 99) / 100) - 1] * 1e3;
const max = times[times.length - 1] * 1e3;
console.log(
    `${total} ${batches * perBatch} ${await view.num_rows()} rows, batch median ${median.toFixed(2)} ms, p99 ${p99.toFixed(2)} ms, max ${max.toFixed(2)} ms`
);
process.exit(0);
