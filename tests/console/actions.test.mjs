import assert from "node:assert/strict";
import { webcrypto } from "node:crypto";
import { test } from "node:test";

import { Actions } from "../../console/actions.js";
import { Store } from "../../console/store.js";
import { LinkError } from "../../console/transport.js";
import { machine, stateOf } from "./samples.mjs";

// Node 18 has what browsers have under this name alone.
globalThis.crypto ??= webcrypto;

const PLAN = { plan: "p-1", kind: "rescan", allowed: true, questions: [] };

/** Actions on an rvxd that answers what it is told to, one after the other. */
function given(...answers) {
    const asked = [];
    const store = new Store(stateOf(machine([])));
    const call = async (method, path, body, headers) => {
        asked.push({ path, body, headers });
        const answer = await answers.shift();
        if (answer instanceof Error) throw answer;
        return answer;
    };
    const session = { readSettings: async () => asked.push("settings"), readChannels: async () => {} };
    return { store, asked, actions: new Actions(store, { call }, session) };
}

test("a change whose answer got lost is asked for again under the same key, a new plan under another", async () => {
    const planned = () => ({ status: 200, data: { ...PLAN } });
    const { store, asked, actions } = given(planned(), new LinkError("disconnected"), { status: 202, data: { id: "op-1", state: "queued" } }, planned(), { status: 412, data: { detail: "stale", reasons: [] } });
    await actions.open({ request: { kind: "rescan" } });
    await actions.carryOut();
    assert.equal(store.state.dialog.problem.isUnknown, true);
    await actions.carryOut();
    assert.deepEqual([store.state.dialog.operation, store.state.operations.length], ["op-1", 1]);
    await actions.plan();
    await actions.carryOut();
    assert.deepEqual([store.state.dialog.problem.isStale, store.state.dialog.problem.text], [true, "stale"]);
    const keys = asked.filter((one) => one.path === "/v1/operations").map((one) => one.headers["Idempotency-Key"]);
    assert.deepEqual(asked[1].body, { plan: "p-1", confirm: true });
    assert.match(keys[0], /^[0-9a-f]{32}$/);
    assert.deepEqual([keys[1] === keys[0], keys[2] === keys[0]], [true, false]);
});

test("a yes is to the plan that was seen; a form that changes, or a refusal, leaves no plan", async () => {
    const { store, asked, actions } = given({ status: 200, data: PLAN }, { status: 200, data: PLAN }, { status: 422, data: { detail: "wrong" } });
    const left = () => [store.state.dialog.plan?.plan, store.state.dialog.agreed, store.state.dialog.typed];
    await actions.open({ base: { kind: "spare.add", array: "md_d0" }, choice: { field: "disk" }, form: {} });
    await actions.choose("sdb");
    assert.deepEqual(asked[0].body, { kind: "spare.add", array: "md_d0", disk: "sdb" });
    actions.agree(true);
    actions.type("md_d0");
    await actions.choose("sdc");
    assert.deepEqual(left(), ["p-1", false, ""]);
    actions.agree(true);
    await actions.plan();
    assert.deepEqual([...left(), store.state.dialog.problem.text], [undefined, false, "", "wrong"]);
    let answer;
    const late = given(new Promise((resolve) => answer = resolve));
    const first = late.actions.open({ form: { level: "raid1", disks: ["sda"] }, request: { kind: "array.create" } });
    late.actions.fill({ disks: ["sdb"] });
    answer({ status: 200, data: PLAN });
    await first;
    assert.deepEqual([late.store.state.dialog.plan, late.store.state.dialog.isBusy, late.store.state.dialog.form], [null, false, { level: "raid1", disks: ["sdb"] }]);
});

test("an answer to a dialog that was left changes nothing in another", async () => {
    let answer;
    const { store, actions } = given(new Promise((resolve) => answer = resolve));
    const first = actions.open({ request: { kind: "array.delete", array: "md_d0" } });
    actions.close();
    actions.open({ form: { level: null, disks: [] } });
    answer({ status: 200, data: PLAN });
    await first;
    assert.equal(store.state.dialog.plan, null);
});

test("nothing is asked for while rvxd is away or may only be read", async () => {
    const { store, asked, actions } = given({ status: 200, data: PLAN });
    await actions.open({ request: { kind: "rescan" } });
    for (const link of [{ state: "away" }, { state: "up", readOnly: true }]) {
        store.set({ link });
        await actions.carryOut();
    }
    assert.equal(asked.length, 1);
});

test("settings that somebody else changed meanwhile are read anew, and what was typed stays", async () => {
    const { store, asked, actions } = given({ status: 412, data: { detail: "They are others by now." } });
    actions.draft({ interval: "7" });
    await actions.save("interval", { pollInterval: 7 });
    assert.deepEqual([asked[0].headers["If-Match"], asked[1], store.state.drafts.interval, store.state.notes.interval], ['"1"', "settings", "7", "They are others by now."]);
});
