import assert from "node:assert/strict";
import { test } from "node:test";

import { EVENTS_LIMIT, INITIAL, matters, withCondition, withEvents, withOperation } from "../../console/store.js";
import { condition, event, machine, stateOf } from "./samples.mjs";

const numbers = (state) => state.events.map((one) => one.id);
const taken = (state, ...events) => ({ ...state, ...withEvents(state, events) });

test("events are known once, in their order by number, and the oldest go", () => {
    // The history comes beside the stream; as texts, 10 would come before 9.
    let state = taken(taken(INITIAL, event(10), event(11)), event(9), event(10));
    assert.deepEqual(numbers(state), ["e-9", "e-10", "e-11"]);
    state = taken(state, ...Array.from({ length: EVENTS_LIMIT }, (_, index) => event(20 + index)));
    assert.deepEqual([state.events.length, state.events[0].id], [EVENTS_LIMIT, "e-20"]);
    assert.deepEqual(numbers(taken(state, event(1, { id: "f-1" }))), ["f-1"], "another journal");
});

test("an operation and a condition that change keep their place", () => {
    let state = { ...INITIAL, operations: [{ id: "op-1", state: "running" }, { id: "op-2", state: "queued" }] };
    state = { ...state, ...withOperation(state, { id: "op-1", state: "done" }) };
    assert.deepEqual(state.operations.map((one) => `${one.id} ${one.state}`), ["op-1 done", "op-2 queued"]);
    const told = (level) => withCondition(stateOf(machine([], [], [condition(), condition({ id: "x:y", level: "warning" })])), condition({ level })).machine.health.conditions;
    assert.deepEqual(told("warning").map((one) => `${one.id} ${one.level}`), ["array-degraded:md_d0 warning", "x:y warning"]);
    assert.deepEqual(told("ok").map((one) => one.id), ["x:y"]);
});

test("what is wrong with one array is one matter, and the worst comes first", () => {
    const list = [condition({ id: "spare-missing:md_d1", subject: "md_d1", level: "warning" }), condition(), condition({ id: "disk-failed:sdb", object: "sdb", level: "warning" })];
    assert.deepEqual(matters(stateOf(machine([], [], list))).map((one) => [one.subject, one.level, one.conditions.length]), [["md_d0", "critical", 2], ["md_d1", "warning", 1]]);
});
