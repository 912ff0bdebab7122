// What may come in the place of the event stream: streams of rvxd's, and those with bytes that are others, twice there or
// missing. Whatever comes is refused with an error that a person can read, or taken apart as it would be in any other
// pieces; and no more of it is kept than a frame may have.
//
//   node tests/console/parser.fuzz.mjs SECONDS [SEED]
//
// The seed of a failure is said; with it the same inputs come again.

import { deepStrictEqual } from "node:assert/strict";

import { StreamParser } from "../../console/parser.js";
import { condition, event, machine, disk } from "./samples.mjs";

const LIMIT = 1 << 22;
const HEAD = "HTTP/1.0 200 OK\r\nContent-Type: text/event-stream\r\n\r\n";
const frame = (name, id, data) => `event: ${name}\n${id ? `id: ${id}\n` : ""}data: ${JSON.stringify(data)}\n\n`;
const FRAMES = [": beat\n\n", frame("event", "e-1", event(1, { text: "Größe \u{1F4BE}" })), frame("condition", "e-1", condition({})),
    frame("state", "", { revision: 2, changed: ["sda"] }), frame("reset", "e-9", { cursor: "e-9" }), frame("x", "", machine([disk("sda")]))];
const WORDS = ["\n", "\n\n", "\r\n\r\n", "data:", "data: ", "id", ":", "event: ", "\0", "\uFEFF", "\u2028", "é", "{", "[".repeat(50000), "x".repeat(LIMIT)];

const [seconds, given] = process.argv.slice(2).map(Number);
const seed = given || (Date.now() & 0x7fffffff);
let state = seed;
/** A number below the limit. */
function random(limit) {
    state = (Math.imul(state, 1664525) + 1013904223) >>> 0;
    return Math.floor(state / 2 ** 32 * limit);
}
const oneOf = (list) => list[random(list.length)];
const joined = (...parts) => Buffer.concat(parts);

function input() {
    let bytes = Buffer.from(HEAD + Array.from({ length: random(6) }, () => oneOf(FRAMES)).join(""));
    for (let changes = random(4); changes > 0; --changes) {
        const at = random(bytes.length), end = at + random(20);
        // What is long takes its time: now and then is enough.
        const word = Buffer.from(oneOf(random(50) ? WORDS.slice(0, -2) : WORDS));
        bytes = oneOf([() => joined(bytes.subarray(0, at), word, bytes.subarray(at)), () => joined(bytes.subarray(0, at), bytes.subarray(end)),
            () => joined(bytes.subarray(0, end), bytes.subarray(at)), () => joined(bytes.subarray(0, at), Buffer.from([random(256)]), bytes.subarray(at + 1))])();
    }
    return bytes;
}

/** What a parser makes of pieces that end where `next` says: its frames, and whether it refused the rest. */
function taken(bytes, next) {
    const parser = new StreamParser(), found = [];
    try {
        for (let at = 0, end; at < bytes.length; at = end) {
            end = Math.min(bytes.length, next(at));
            found.push(...parser.feed(bytes.subarray(at, end)));
        }
    } catch (error) {
        if (!(error instanceof SyntaxError || error.code === "ERR_ENCODING_INVALID_ENCODED_DATA" || /^(What answers is|A frame of)/.test(error.message))) throw error;
        return { refused: true };
    }
    return { found };
}

let inputs = 0;
for (const end = Date.now() + seconds * 1000; Date.now() < end; ++inputs) {
    const bytes = input();
    try {
        const whole = taken(bytes, () => bytes.length);
        const cut = taken(bytes, (at) => at + 1 + random(bytes.length > 10000 ? 100000 : 40));
        deepStrictEqual(cut.refused, whole.refused);
        deepStrictEqual(cut.found, whole.found);
        for (const one of whole.found ?? []) if (!("status" in one || "beat" in one || "data" in one)) throw new Error(`a frame of no kind: ${JSON.stringify(one)}`);
    } catch (error) {
        console.error(`NOT SO: ${error.message}\nof ${JSON.stringify(bytes.toString("latin1")).slice(0, 2000)}\nrepeat it with: node tests/console/parser.fuzz.mjs 600 ${seed}`);
        process.exit(1);
    }
}
const parser = new StreamParser();
parser.feed(Buffer.from(HEAD));
let kept = 0;
try {
    for (; kept < 3 * LIMIT; kept += 1 << 16) parser.feed(Buffer.alloc(1 << 16, "x"));
} catch {
    // as it should
}
if (kept > LIMIT) throw new Error(`NOT SO: ${kept} bytes without an end are kept`);
console.error(`stat::number_of_executed_units: ${inputs}`);
