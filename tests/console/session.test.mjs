import assert from "node:assert/strict";
import { test } from "node:test";

import { Session } from "../../console/session.js";
import { Store } from "../../console/store.js";
import { LinkError } from "../../console/transport.js";
import { event, machine, settings } from "./samples.mjs";

const bytes = (text) => new TextEncoder().encode(text);
const frame = (name, data, id) => `event: ${name}\n${id ? `id: ${id}\n` : ""}data: ${JSON.stringify(data)}\n\n`;
const settled = () => new Promise((resolve) => setImmediate(resolve));

/** rvxd and the clock, by hand. */
class World {
    time = 0;
    timers = [];
    streams = [];
    calls = [];
    history = [];
    state = machine([]);
    health = null;
    isAway = false;
    held = null;
    operations = [];

    now = () => this.time;
    after = (milliseconds, what) => {
        this.timers.push({ at: this.time + milliseconds, what });
        return this.timers.at(-1);
    };
    cancel = (timer) => this.timers = this.timers.filter((one) => one !== timer);
    mark = () => {};

    async pass(milliseconds) {
        this.time += milliseconds;
        const due = this.timers.filter((one) => one.at <= this.time);
        this.timers = this.timers.filter((one) => one.at > this.time);
        for (const { what } of due) what();
        await settled();
    }

    open = () => this.call("GET", "/");
    call = async (method, path, body, headers) => {
        this.calls.push(path);
        if (this.isAway) throw new LinkError("not-found");
        if (path === "/v1/state" && this.held) await this.held;
        if (path === "/v1/state" && headers?.["If-None-Match"] === `"${this.state.revision}"`) return { status: 304 };
        const data = { "/": { readOnly: false }, "/v1/state": this.state, "/v1/health": this.health ?? this.state.health, "/v1/operations": { operations: this.operations }, "/v1/settings": settings.data, "/v1/notify": { channels: [] } }[path]
            ?? { events: this.history, more: false, cursor: "e-0" };
        return { status: 200, etag: `"${data.revision}"`, data: structuredClone(data) };
    };
    stream = (last, onBytes, onEnd) => {
        const stream = { last, end: onEnd, isClosed: false, tell: (text) => onBytes(bytes(text)) };
        this.streams.push(stream);
        return () => stream.isClosed = true;
    };

    async connected() {
        this.store = new Store();
        new Session(this, this.store, this).connect();
        await settled();
        this.streams.at(-1).tell("HTTP/1.0 200 OK\r\n\r\n");
        await settled();
    }
}

test("it goes on behind the last event, and knows each once", async () => {
    const world = new World();
    world.history = [event(1), event(2)];
    world.state = { ...world.state, cursor: "e-2" };
    await world.connected();
    world.streams[0].tell(frame("event", event(2), "e-2") + frame("event", event(3), "e-3"));
    assert.deepEqual(world.store.state.events.map((one) => one.id), ["e-1", "e-2", "e-3"]);
    world.isAway = true;
    world.streams[0].end(null);
    assert.equal(world.store.state.link.state, "away");
    await world.pass(1000);
    assert.equal(world.store.state.link.state, "away", "it is tried, and is away still");
    world.isAway = false;
    world.state = { ...world.state, cursor: "e-9" };
    await world.pass(1000);
    assert.deepEqual([world.store.state.link.state, world.streams[1].last], ["up", "e-3"], "what happened meanwhile is told by the stream");
    world.streams[0].tell(frame("event", event(4), "e-4"));
    assert.equal(world.store.state.events.length, 3, "a stream that was given up counts no more");
});

test("what changed between the first reading and the stream's first word is not missed, and nothing goes back", async () => {
    const world = new World();
    world.stream = ((stream) => (...words) => {
        world.state = { ...world.state, revision: 2 };
        world.operations = [{ id: "op-9", state: "queued" }, { id: "op-10", state: "queued" }];
        return stream(...words);
    })(world.stream);
    await world.connected();
    world.streams[0].tell(frame("operation", { id: "op-10", state: "running" }) + frame("operation", { id: "op-11", state: "queued" }));
    await settled();
    const { operations, machine: { revision } } = world.store.state;
    assert.deepEqual([revision, ...operations.map((one) => `${one.id} ${one.state}`)], [2, "op-9 queued", "op-10 running", "op-11 queued"]);
});

test("silence is an end, and a beat is none", async () => {
    const world = new World();
    await world.connected();
    await world.pass(29000);
    world.streams[0].tell(": beat\n\n");
    await world.pass(29000);
    assert.equal(world.store.state.link.state, "up");
    await world.pass(2000);
    assert.deepEqual([world.store.state.link.state, world.streams[0].isClosed], ["away", true]);
});

test("a reset forgets events and reads everything anew", async () => {
    const world = new World();
    await world.connected();
    world.streams[0].tell(frame("event", event(7), "e-7"));
    world.history = [event(1, { id: "f-1" })];
    world.state = { ...world.state, revision: 2 };
    world.operations = [{ id: "op-1", state: "done" }];
    world.store.set({ operations: [{ id: "op-7", state: "running" }] });
    world.streams[0].tell(frame("reset", { cursor: "f-1" }, "f-1"));
    await settled();
    const { events, operations, cursor, machine: { revision } } = world.store.state;
    assert.deepEqual([events.map((one) => one.id), operations, cursor, revision], [["f-1"], world.operations, "f-1", 2]);
});

test("a beat tells that nobody has looked for long, though the state is as it was", async () => {
    const world = new World();
    await world.connected();
    world.health = { ...world.state.health, level: "unknown", headline: "nobody has looked since then" };
    world.streams[0].tell(": beat\n\n");
    await settled();
    assert.equal(world.store.state.machine.health.level, "unknown");
});

test("a burst of news is one reading, and one more when it was not the last", async () => {
    const world = new World();
    await world.connected();
    const readings = () => world.calls.filter((path) => path === "/v1/state").length;
    const before = readings();
    let release;
    world.held = new Promise((resolve) => release = resolve);
    for (let revision = 2; revision < 9; ++revision) {
        world.state = { ...world.state, revision };
        world.streams[0].tell(frame("state", { revision, changed: [] }));
    }
    world.held = null;
    release();
    await settled();
    assert.deepEqual([readings() - before, world.store.state.machine.revision], [2, 8]);
});
