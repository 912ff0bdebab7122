import assert from "node:assert/strict";
import { test } from "node:test";

import { array } from "../../console/pages/array.js";
import { dialog } from "../../console/pages/dialog.js";
import { disk as diskPage } from "../../console/pages/disk.js";
import { events } from "../../console/pages/events.js";
import { operations } from "../../console/pages/operations.js";
import { overview } from "../../console/pages/overview.js";
import { replace } from "../../console/pages/replace.js";
import { settings } from "../../console/pages/settings.js";
import { banner } from "../../console/parts.js";
import { replacement } from "../../console/replacement.js";
import { condition, disk, event, failed, gone, machine, member, mirror, stateOf, used } from "./samples.mjs";
import * as samples from "./samples.mjs";
import { all, button, text } from "./tree.mjs";

/** Notes which action was asked for. */
const recorder = () => {
    const asked = [];
    return [new Proxy({}, { get: (_, name) => (...words) => asked.push([name, ...words]) }), asked];
};
const [nobody] = recorder();
const rows = (tree, caption) => all(all(tree, (node) => node.tag === "table" && text(node).startsWith(caption)), (node) => node.tag === "tr" && node.attributes.key).map(text);

const HURT = machine([used("sda"), failed("sdb"), disk("sdc")], [mirror([member("sda"), member("sdb", "failed", null)])],
    [condition({ disks: [{ ...gone("sdb"), state: "failed" }] }), condition({ id: "disk-failed:sdb", kind: "disk-failed", object: "sdb", text: "still held by md_d0" })]);

test("the overview says what is wrong once for each array, and where it is mended", () => {
    const tree = overview(stateOf(HURT), nobody);
    assert.match(text(all(tree, "h1")), /Critical +1 array degraded/);
    const cards = all(tree, "article");
    assert.equal(cards.length, 1);
    for (const part of ["1 of 2 members works", "sdb: still held by md_d0", "serial S-sdb", "1:0:0:0"]) assert.ok(text(cards).includes(part), part);
    assert.deepEqual(all(cards, "a").map((node) => node.attributes.href), ["#/replace/1%3A2"]);
    assert.deepEqual(rows(overview(stateOf(HURT, { onlyProblems: true }), nobody), "Disks").length, 1);
    assert.match(text(overview(stateOf(machine([]), { onlyProblems: false }), nobody)), /There is no array yet/);
});

test("a button that cannot be used says why, everywhere", () => {
    const away = { link: { state: "away", readOnly: false, problem: "not-found", heard: 1000 }, now: 43000 };
    const reader = { link: { state: "up", readOnly: true } };
    for (const [more, why] of [[away, "rvxd does not answer."], [reader, "You may look, but not change: turn on administrative access."]]) {
        const state = stateOf({ ...HURT, levels: [] }, { ...more, drawer: true, channels: [{ channel: "mail", state: "ok" }], operations: [{ id: "op-1", state: "queued", steps: [], title: "t" }] });
        const buttons = [[overview(state, nobody), "Create an array..."], [overview(state, nobody), "Acknowledge"], [array(state, nobody, "md_d0"), "Delete the array..."],
            [replace(state, nobody, "md_d0"), "Release sdb..."], [diskPage(state, nobody, "sdb"), "Release it from md_d0..."], [array(state, nobody, "md_d0"), "Add a spare..."], [dialog({ ...state, dialog: { ...open({ plan: PLAN, agreed: true }).dialog } }, nobody), "Delete"], [settings(state, nobody), "Send a test"], [operations(state, nobody), "Withdraw"]];
        for (const [tree, name] of buttons) assert.equal(button(tree, name).why, why, name);
    }
    const [said, shown] = all(banner(stateOf(HURT, away)), "p");
    assert.deepEqual([said.attributes.role, text(said), text(shown)], ["alert", "rvxd does not answer.", "What you see is 42 s old."], "what is said does not change each second");
    const state = stateOf(HURT);
    assert.equal(button(diskPage(state, nobody, "sdc"), "spare.release...").why, "No spare.release", "the plug-in's number is not for people");
});

const RUNS = { activity: { kind: "rebuild", text: "Rebuild", waiting: null, progress: 0.5, speed: 1 << 20, remaining: 60 } };
const LONE = mirror([member("sda")]);
const LOST = [condition({ disks: [gone("sdb")] })];

test("a replacement's step is told by the machine alone", () => {
    const small = disk("sdd", { size: 1 << 20 });
    const other = { ...condition({ id: "array-degraded:md_d1", object: "md_d1", subject: "md_d1", uuid: "3:4" }), disks: [gone("sdc")] };
    const bare = (name, more) => disk(name, { id: name, serial: null, ...more });
    const bareLost = [condition({ disks: [{ ...gone("sdb"), id: "sdb", serial: null }] })];
    const table = [
        // what, disks, array, conditions; the step, what is to be released, what can be pulled, what can be added
        ["held", [used("sda"), failed("sdb"), disk("sdc")], mirror([member("sda"), member("sdb", "failed", null)]), [], ["release", "sdb", "", "sdc"]],
        ["held, while a spare is rebuilt onto", [used("sda"), failed("sdb"), used("sdc")], mirror([member("sda"), member("sdb", "failed"), member("sdc", "rebuilding")], RUNS), [], ["release", "sdb", "", ""]],
        ["held, and whole with a spare", [used("sda"), failed("sdb"), used("sdc")], mirror([member("sda"), member("sdc"), member("sdb", "failed")]), [], ["release", "sdb", "", ""]],
        ["held, and pulled", [used("sda"), disk("sdc")], mirror([member("sda"), member("sdb", "failed")]), [], ["add", "", "", "sdc"]],
        ["a partition of it", [used("sda"), failed("sdb"), disk("sdc")], mirror([member("sda"), { ...member("sdb1", "failed"), disk: null, whole: "ata-sdb" }]), [], ["release", "sdb1", "", ""]],
        ["released", [used("sda"), disk("sdb"), disk("sdc")], LONE, LOST, ["pull", "", "sdb", "sdc"]],
        ["released, with another name and place", [used("sda"), disk("sdx", { id: "wwn-1", serial: "S-sdb" })], LONE, LOST, ["pull", "", "sdb", ""]],
        ["released, and used elsewhere", [used("sda"), used("sdb", "md_d2"), disk("sdc")], LONE, LOST, ["add", "", "", "sdc"]],
        ["pulled", [used("sda"), small], LONE, LOST, ["insert", "", "", ""]],
        ["another disk in its place, by the same name", [used("sda"), disk("sdb", { serial: "S-new" })], LONE, LOST, ["add", "", "", "sdb"]],
        ["no serial numbers: nobody can tell", [used("sda"), bare("sdb")], LONE, bareLost, ["pull", "", "sdb", "sdb"]],
        ["two disks of one serial number", [used("sda"), disk("sdc", { serial: "S-sdb", path: "9:0:0:0" }), disk("sdb")], LONE, LOST, ["pull", "", "sdb", ""]],
        ["a partition of it works elsewhere", [used("sda"), disk("sdb")], LONE, LOST, ["insert", "", "", ""], mirror([{ ...member("sdb2"), disk: null, whole: "ata-sdb" }], { name: "md_d1", uuid: "3:4" })],
        ["the failed disk of another array", [used("sda"), disk("sdc"), disk("sde")], LONE, [...LOST, other], ["add", "", "", "sde"]],
        ["rebuilding", [used("sda"), used("sdc")], mirror([member("sda"), member("sdc", "rebuilding", 1)]), LOST, ["rebuild", "", "", ""]],
        ["rebuilding, and still plugged in", [used("sda"), used("sdc"), disk("sdb")], mirror([member("sda"), member("sdc", "active", 1)], { ...RUNS, redundancy: LONE.redundancy }), LOST, ["rebuild", "", "sdb", ""]],
        ["a spare that md does not take, since it holds another", [used("sda"), disk("sdc")], mirror([member("sda"), member("sdb", "missing")], { spares: ["sde"] }), [], ["add", "", "", "sdc"]],
        ["a spare that md has not taken yet", [used("sda"), disk("sdc")], mirror([member("sda")], { spares: ["sde"] }), [], ["rebuild", "", "", "sdc"]],
        ["whole", [used("sda"), used("sdc"), disk("sdd")], mirror([member("sda"), member("sdc", "active", 1)]), [], ["whole", "", "", "sdd"]],
        ["failed", [failed("sda"), disk("sdc")], mirror([member("sda", "failed")]), [], [null, "sda", "", "sdc"]],
    ];
    for (const [what, disks, one, conditions, expected, ...more] of table) {
        const { step, failed: held, pull, fitting } = replacement(stateOf(machine(disks, [one, ...more], conditions)), one);
        assert.deepEqual([step, ...[held.map(({ member: { name } }) => name), pull.map(({ name }) => name), fitting.map(({ name }) => name)].map(String)], expected, what);
    }
});

test("the guide names the disk, its place and what is on it, and offers nothing where it would harm", () => {
    const [actions, asked] = recorder();
    const shown = (disks, one, conditions, more) => replace(stateOf(machine(disks, [one], conditions), more), actions, "1:2");
    const words = (...what) => text(shown(...what)).replaceAll(/\s+/g, " ");
    assert.match(words([used("sda"), disk("sdb"), disk("sdc")], LONE, LOST), /Pull the disk with serial number S-sdb at 1:0:0:0\. Compare.*Or rebuild at once.*sdc.*serial S-sdc , at 1:0:0:0/);
    assert.match(words([used("sda"), disk("sdd", { size: 1 << 20 })], LONE, LOST), /more than 63 MiB.*S-sdb, which was at 1:0:0:0.*Too small: sdd, 1 MiB/);
    assert.match(words([used("sda"), used("sdb", "md_d2")], LONE, LOST), /Serial number S-sdb, which md_d0 had, is in use for md_d2 now\. Do not pull it/);
    assert.match(words([used("sda"), { ...failed("sdb"), usedBy: ["md_d0", "md_d1"] }], mirror([member("sda"), member("sdb", "failed")])), /It is in use for md_d1, too: do not pull it/);
    assert.match(words([used("sda")], mirror([member("sda"), member("sdb", "failed")]), [condition({ disks: [{ ...gone("sdb"), state: "failed" }] })]), /md still holds sdb , serial S-sdb , at 1:0:0:0.*What rvxd advises: do it/);
    assert.match(words([used("sda"), used("sdc")], mirror([member("sda"), member("sdc", "rebuilding")], RUNS), LOST), /50.0 %, 1 MiB\/s, 1 min left/);
    const broken = shown([failed("sda"), disk("sdc")], mirror([member("sda", "failed")]), LOST);
    assert.deepEqual([all(broken, "button"), all(broken, "ol")], [[], []]);
    assert.match(text(broken), /Leave all disks as they are/);
    assert.match(words([used("sda"), used("sdc")], mirror([member("sda"), member("sdc", "active", 1)])), /md_d0 is whole/);
    const tree = shown([used("sda"), disk("sdc"), disk("sde")], LONE);
    button(tree, "Add sde...").press();
    button(shown([used("sda"), failed("sdb")], mirror([member("sda"), member("sdb", "failed")])), "Release sdb...").press();
    assert.deepEqual(asked.map(([, { request }]) => request), [{ kind: "spare.add", disk: "ata-sde", array: "1:2" }, { kind: "spare.release", disk: "ata-sdb" }]);
});

test("what a page asks for is about its own object", () => {
    const [actions, asked] = recorder();
    const offers = ["array.delete", "rebuild.start", "rebuild.cancel"].map((kind) => ({ kind, text: kind, allowed: true, reasons: [] }));
    const state = stateOf(machine([used("sda"), disk("sdc")], [{ ...LONE, operations: offers }]));
    for (const name of ["array.delete...", "rebuild.start...", "rebuild.cancel...", "Add a spare..."]) button(array(state, actions, "md_d0"), name).press();
    button(overview(stateOf(HURT), actions), "Acknowledge").press();
    const told = asked.map(([name, what]) => typeof what === "string" ? [name, what] : [what.request ?? what.base, what.mustType]);
    assert.deepEqual(told, [[{ kind: "array.delete", array: "1:2" }, "md_d0"], [{ kind: "rebuild.start", array: "1:2" }, undefined], [{ kind: "rebuild.cancel", array: "1:2" }, undefined],
        [{ kind: "spare.add", array: "1:2" }, undefined], ["acknowledge", "array-degraded:md_d0"]]);
    const page = text(diskPage(stateOf(machine([disk("sdc", { wwn: "0x5", byId: ["/dev/disk/by-id/x"] })])), nobody, "sdc")).replaceAll(/\s+/g, " ");
    for (const fact of ["Serial number S-sdc", "Path (host:channel:target:lun) 1:0:0:0", "By-id /dev/disk/by-id/x", "WWN 0x5"]) assert.ok(page.includes(fact), fact);
});

test("an array that has failed, or that the plug-in calls in order all the same, is called what it is", () => {
    const state = stateOf(machine([], [mirror([], { state: "in-order", stateText: "In order" })], [condition({ id: "array-failed:md_d0", kind: "array-failed" })]));
    for (const page of [overview, (...what) => array(...what, "md_d0"), (...what) => replace(...what, "md_d0")]) {
        assert.ok(all(page(state, nobody), (node) => node.attributes.class === "mark critical").some((node) => text(node) === "failed"));
        assert.deepEqual(all(page(state, nobody), (node) => node.attributes.href?.includes("replace")), []);
    }
    const broken = stateOf(machine([failed("sdb")], [mirror([member("sdb", "failed")])]));
    for (const [tree, name] of [[diskPage(broken, nobody, "sdb"), "Release it from md_d0..."], [array(broken, nobody, "md_d0"), "Add a spare..."]])
        assert.equal(button(tree, name).why, "md_d0 has failed: what is on its disks may be needed to bring it back.");
});

const PLAN = { plan: "p-1", kind: "array.delete", allowed: true, title: "delete md_d0", consequences: ["What is stored on it is lost."], disks: [{ id: "ata-sda", device: "/dev/sda", serial: "S-sda", size: 1024, contents: ["ext4"], state: "in-use" }], reasons: [], questions: ["Delete this array?"] };
const open = (more) => stateOf(HURT, { dialog: { title: "t", mounts: [], request: { array: "md_d0" }, typed: "", ...more } });

test("a plan is shown whole, and carried out only as it was agreed to", () => {
    const [actions, asked] = recorder();
    const plain = dialog(open({ plan: PLAN }), actions);
    for (const part of ["This will delete md_d0.", "What is stored on it is lost.", "sda", "serial S-sda", "holds: ext4", "Delete this array?"]) assert.ok(text(plain).includes(part), part);
    assert.equal(button(plain, "Delete").why, "Say first that you want it.");
    for (const typed of ["", "md_d", "MD_D0"]) assert.equal(button(dialog(open({ plan: PLAN, mustType: "md_d0", typed }), actions), "Delete").why, "Type md_d0 first.");
    for (const agreed of [open({ plan: PLAN, agreed: true }), open({ plan: PLAN, mustType: "md_d0", typed: "md_d0" }), open({ plan: { ...PLAN, questions: [] } })])
        button(dialog(agreed, actions), "Delete").press();
    assert.deepEqual(asked, [["carryOut"], ["carryOut"], ["carryOut"]]);
    const forbidden = dialog(open({ plan: { ...PLAN, allowed: false, reasons: [{ text: "/mnt is mounted" }] }, mounts: ["/mnt"] }), actions);
    assert.match(text(forbidden), /It is used at \/mnt.*not possible now:.*\/mnt is mounted/s);
    assert.deepEqual(all(forbidden, "button").map(text), ["Cancel"]);
});

test("while it is asked for nothing else can be, and afterwards it says which disk to pull", () => {
    const busy = dialog(open({ plan: PLAN, form: {}, agreed: true, isBusy: true }), nobody);
    assert.deepEqual(["Asking...", "Back"].map((name) => button(busy, name).why), ["It is being asked for.", "It is being asked for."]);
    const operation = { id: "op-1", kind: "spare.release", state: "done", steps: [], result: { text: "sdb is released." }, error: null, left: null };
    const after = (usedBy) => ({ ...open({ plan: { ...PLAN, disks: [{ id: "ata-sdb", state: "failed" }] }, operation: "op-1" }), machine: machine([disk("sdb", { usedBy })]), operations: [operation] });
    assert.match(text(dialog(after([]), nobody)), /Pull the disk with serial number S-sdb at 1:0:0:0/);
    assert.doesNotMatch(text(dialog(after(["md_d1"]), nobody)), /Pull/);
});

test("an answer that got lost is asked for again, a stale plan is made anew", () => {
    const [actions, asked] = recorder();
    const after = (problem) => dialog(open({ plan: PLAN, agreed: true, problem: { text: "p", reasons: [], ...problem } }), actions);
    button(after({ isUnknown: true }), "Ask again").press();
    button(after({ isStale: true }), "Make a new plan").press();
    assert.deepEqual(asked, [["carryOut"], ["plan"]]);
});

test("a new array takes what is free, as many as its level has, in the order of the choice", () => {
    const what = machine([used("sda"), disk("sdb"), disk("sdc"), disk("sdd", { usedBy: ["/mnt"] })]);
    const form = (form) => stateOf(what, { dialog: { title: "Create an array", form: { level: null, disks: [], stripe: null, ...form } } });
    const [actions, asked] = recorder();
    const labels = all(dialog(form({}), actions), (node) => /^disk( off)?$/.test(node.attributes.class)).map((node) => text(node).replaceAll(/\s+/g, " ").trim());
    assert.match(labels[0], /In use, in md_d0$/);
    assert.match(labels[3], /Ready, used by \/mnt$/);
    for (const [given, why] of [[{}, "Choose a level first."], [{ level: "raid1", disks: ["ata-sdc"] }, "Choose 1 more."], [{ level: "raid1", disks: ["ata-sdc", "ata-sda", "ata-none"] }, "Choose 1 more."]])
        assert.equal(button(dialog(form(given), actions), "Show the plan").why, why);
    button(dialog(form({ level: "raid0", disks: ["ata-sdc", "ata-sdb"], stripe: 65536 }), actions), "Show the plan").press();
    assert.deepEqual(asked, [["plan", { kind: "array.create", level: "raid0", disks: ["ata-sdc", "ata-sdb"], stripe: 65536 }]]);
    assert.match(text(dialog(form({ level: "raid0", disks: ["ata-sdc", "ata-sdb"] }), actions)), /about 126 MiB/);
});

test("events are chosen by severity and object, the newest first", () => {
    const list = [event(1), event(2, { severityKey: "warning", objectName: "md_d0" }), event(3, { severityKey: "error", objectName: "sdb", count: 3 })];
    const shown = (filter) => rows(events(stateOf(HURT, { events: list, filter }), nobody), "Events").map((row) => /event \d/.exec(row)[0]);
    assert.deepEqual(shown({ severity: "information", object: "" }), ["event 3", "event 2", "event 1"]);
    assert.deepEqual(shown({ severity: "warning", object: "" }), ["event 3", "event 2"]);
    assert.deepEqual(shown({ severity: "information", object: "md" }), ["event 2"]);
});

test("settings save what is a number in its limits; an empty one is no wanted number", () => {
    const [actions, asked] = recorder();
    const saving = (drafts) => all(settings(stateOf({ ...HURT }, { drafts }), actions), "form").map((node) => ({ submit: () => node.attributes.onsubmit({ preventDefault() {} }), why: button(node, "Save").why }));
    assert.deepEqual(saving({ interval: "1", "spares-md_d0": "x" }).map((one) => one.why), ["A whole number from 2 to 255.", "A whole number from 0 to 32."]);
    assert.deepEqual(saving({ interval: "", "spares-md_d0": "33" }).map((one) => one.why), ["A whole number from 2 to 255.", "A whole number from 0 to 32."]);
    saving({ interval: "5" })[0].submit();
    saving({ "spares-md_d0": "0" })[1].submit();
    saving({ interval: "1" })[0].submit();
    const wanted = { etag: "", data: { ...samples.settings.data, spares: { "1:2": 10 } } };
    all(settings(stateOf(HURT, { drafts: { "spares-md_d0": " " }, settings: wanted }), actions), "form")[1].attributes.onsubmit({ preventDefault() {} });
    assert.deepEqual(asked, [["save", "interval", { pollInterval: 5 }], ["save", "spares-md_d0", { spares: { "1:2": 0 } }], ["save", "spares-md_d0", { spares: { "1:2": null } }]]);
});
