import assert from "node:assert/strict";
import { test } from "node:test";

import { StreamParser } from "../../console/parser.js";

const HEAD = "HTTP/1.0 200 OK\r\nContent-Type: text/event-stream\r\n\r\n";
const STREAM = `${HEAD}: beat\n\nevent: event\nid: e-1\ndata: {"text":"Größe: 1"}\n\nevent: state\ndata: {"revision":2}\n\n`;
const FRAMES = [{ status: 200 }, { beat: true }, { event: "event", id: "e-1", data: { text: "Größe: 1" } }, { event: "state", id: null, data: { revision: 2 } }];

const bytes = (text) => new TextEncoder().encode(text);

test("however the bytes are cut, the frames are the same", () => {
    const whole = bytes(STREAM);
    for (let length = 1; length <= whole.length; ++length) {
        const parser = new StreamParser();
        const found = [];
        for (let at = 0; at < whole.length; at += length) found.push(...parser.feed(whole.subarray(at, at + length)));
        assert.deepEqual(found, FRAMES, `in pieces of ${length}`);
    }
});

test("what is no stream of rvxd's is refused and not waited for", () => {
    for (const [text, message] of [["SSH-2.0-x\r\n\r\n", /no HTTP/], [`${HEAD}event: event\ndata: {"te\n\n`, /JSON/], [HEAD + "x".repeat(5 << 20), /too long/]])
        assert.throws(() => new StreamParser().feed(bytes(text)), message);
    assert.throws(() => new StreamParser().feed(Uint8Array.of(0xff, 0xfe)), TypeError);
});
