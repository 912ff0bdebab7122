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
            [replace(state, nobody, "md_d0"), "Release sdb..."], [diskPage(state, nobody, "sdb"), "spare.release..."], [settings(state, nobody), "Send a test"], [operations(state, nobody), "Withdraw"]];
        for (const [tree, name] of buttons) assert.equal(button(tree, name).why, why, name);
    }
    assert.match(text(banner(stateOf(HURT, away))), /What you see is 42 seconds old/);
    const state = stateOf(HURT);
    assert.equal(button(diskPage(state, nobody, "sdc"), "spare.release...").why, "No spare.release", "the plug-in's number is not for people");
});

test("a replacement's step is told by the machine alone", () => {
    const missing = mirror([member("sda")]);
    const told = [condition({ disks: [gone("sdb")] })];
    const rebuilding = mirror([member("sda"), member("sdc", "rebuilding", 1)], { activity: { kind: "rebuild", text: "Rebuild", waiting: null, progress: 0.5, speed: 1 << 20, remaining: 60 } });
    const steps = [
        ["Release the failed disk", HURT, /serial number|S-sdb/i],
        ["Pull the disk", machine([used("sda"), disk("sdb"), disk("sdc")], [missing], told), /serial number S-sdb at 1:0:0:0.*Or rebuild at once.*sdc/],
        ["Put in the new disk", machine([used("sda"), disk("sdd", { size: 1 << 20 })], [missing], told), /at least 63 MiB.*S-sdb.*Too small: sdd, 1 MiB/],
        ["Add it", machine([used("sda"), disk("sdc")], [missing], told), /sdc/],
        ["Add it", machine([used("sda"), disk("sdb", { serial: "S-new" })], [missing], [condition()]), /S-new/],
        ["Rebuild", machine([used("sda"), used("sdc")], [rebuilding], told), /50.0 %, 1 MiB\/s, 1 min left/],
    ];
    for (const [title, what, content] of steps) {
        const current = all(replace(stateOf(what), nobody, "1:2"), (node) => node.attributes["aria-current"] === "step");
        assert.equal(current.length, 1, title);
        assert.ok(text(current).startsWith(title), `${title}: ${text(current)}`);
        assert.match(text(current).replaceAll(/\s+/g, " "), content);
    }
    const whole = replace(stateOf(machine([used("sda"), used("sdc")], [mirror([member("sda"), member("sdc", "active", 1)])])), nobody, "1:2");
    assert.match(text(whole), /md_d0 is whole/);
    assert.equal(all(whole, "button").length, 0);
});

test("a disk that nobody may add to a mirror twice: the old one is not offered", () => {
    const what = machine([used("sda"), disk("sdb"), disk("sdc")], [mirror([member("sda")])], [condition({ disks: [gone("sdb")] })]);
    assert.deepEqual(all(replace(stateOf(what), nobody, "1:2"), "button").map(text), ["Add sdc..."]);
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
