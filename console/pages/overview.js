// How the machine is: what needs a hand first, then everything.

import { element } from "../element.js";
import { capital, count, moment, percent, size } from "../format.js";
import { activityBar, activityName, address, arrayId, arrayLink, arrayMark, button, diskLink, mark, named, stateMark, table, userLink } from "../parts.js";
import { arrayOf, diskOf, matters, obstacle } from "../store.js";

const LEVEL_TEXTS = { ok: "In order", warning: "Warning", critical: "Critical", unknown: "Not known" };

export function overview(state, actions) {
    const { health, arrays, disks } = state.machine;
    const concerned = matters(state);
    const names = new Set(concerned.flatMap((matter) => [matter.subject, ...matter.conditions.flatMap((one) =>
        [one.object, ...one.disks.map((disk) => disk.name)])]));
    const shown = (list, isInOrder) => state.onlyProblems ? list.filter((one) => !isInOrder(one) || names.has(one.name)) : list;
    return [
        element("h1", null, mark(health.level, LEVEL_TEXTS[health.level]), " ",
            capital(health.headline)),
        health.notes.map((note) => element("p", null, note)),
        concerned.length > 0 && element("section", { "aria-labelledby": "needs", key: "needs" },
            element("h2", { id: "needs" }, "What needs you"), concerned.map((matter) => card(state, actions, matter))),
        element("div", { class: "tools", key: "tools" },
            element("label", null, element("input", {
                type: "checkbox", checked: state.onlyProblems, onchange: (event) => actions.showOnlyProblems(event.target.checked),
            }), "Only what needs me"),
            element("span", null, button("create", "Create an array...", () => actions.open({
                title: "Create an array", form: { level: null, disks: [], stripe: null },
            }), { why: obstacle(state), isQuiet: true })),
            element("span", null, button("rescan", "Look for disks...", () => actions.open({
                title: "Look for disks", request: { kind: "rescan" },
            }), { why: obstacle(state), isQuiet: true }))),
        arrayTable(state, shown(arrays, (one) => one.state === "in-order")),
        diskTable(state, shown(disks, (one) => one.state !== "failed" && one.state !== "missing")),
    ];
}

/** All that is wrong with one subject, and the step that is next. */
function card(state, actions, { subject, level, conditions }) {
    const known = new Map(conditions.flatMap((one) => one.disks).map((disk) => [`${disk.id} ${disk.name}`, disk]));
    const [first] = conditions;
    // One that is new among them is not acknowledged with the others.
    const seen = conditions.every((one) => one.acknowledged) && first.acknowledged;
    return element("article", { class: `card ${level}`, key: subject, "aria-label": subject },
        element("h3", null, mark(level, LEVEL_TEXTS[level]), " ", subject),
        conditions.map((one) => element("p", { key: one.id }, one.object === subject ? one.text : `${one.object}: ${one.text}`)),
        known.size > 0 && element("ul", { class: "identities" }, [...known.values()].map((disk) => element("li", null,
            stateMark(disk.state), " ", named(disk)))),
        element("small", null, `Since ${moment(since(conditions))}. `, seen && `Acknowledged ${moment(seen.time)} by user ${seen.uid}.`),
        element("div", { class: "tools" }, step(state, subject, conditions),
            !seen && button(`acknowledge-${subject}`, "Acknowledge", () => actions.acknowledge(first.id),
                { why: obstacle(state), isQuiet: true, label: `Acknowledge ${subject}` })),
        state.notes[`condition:${first.id}`] && element("p", { class: "note", role: "status" }, state.notes[`condition:${first.id}`]));
}

const since = (conditions) => conditions.map((one) => one.since).sort()[0];

/** The one step that is next: a page where it is done, else in rvxd's words. */
function step(state, subject, conditions) {
    const kinds = new Set(conditions.map((one) => one.kind));
    const array = arrayOf(state, conditions[0].uuid ?? subject);
    const go = (target, text) => element("a", { class: "button primary", href: target }, text);
    // One that has failed is not mended by another disk.
    if (array && array.redundancy.canLose !== null && ["array-degraded", "array-rebuilding", "disk-failed"].some((kind) => kinds.has(kind)))
        return go(address("replace", arrayId(array)), array.activity.kind === "rebuild" ? "Watch the rebuild" : "Replace the disk...");
    if (kinds.has("notify-failing")) return go("#/settings", "Look at the channels");
    const next = conditions.find((one) => one.next)?.next;
    const disk = diskOf(state, subject);
    return [
        next && element("span", null, next),
        array && arrayLink(array, `Look at ${array.name}`),
        disk && diskLink(disk, `Look at ${disk.name}`),
    ];
}

function arrayTable(state, arrays) {
    return table("Arrays", [
        ["Name", (one) => arrayLink(one)],
        ["State", (one) => [arrayMark(state, one), one.activity.kind !== "none" && element("span", { class: "activity" },
            activityName(one.activity), one.activity.progress !== null && [` ${percent(one.activity.progress)}`, activityBar(one)])]],
        ["Level", (one) => one.level],
        ["Size", (one) => size(one.size)],
        ["Disks", (one) => `${one.redundancy.active} of ${one.redundancy.required}${one.spares.length ? `, ${count(one.spares.length, "spare")}` : ""}`],
        ["Used at", (one) => one.mounts.join(", ")],
    ], arrays, { empty: state.onlyProblems ? "No array needs you." : "There is no array yet.", key: arrayId });
}

function diskTable(state, disks) {
    return table("Disks", [
        ["Name", (one) => diskLink(one)],
        ["State", (one) => stateMark(one.state, one.stateText)],
        ["Serial number", (one) => one.serial],
        ["Model", (one) => [one.vendor, one.model].filter(Boolean).join(" ")],
        ["Size", (one) => size(one.size)],
        ["Path", (one) => one.path],
        ["Used by", (one) => one.usedBy.map((user, index) => [index > 0 && ", ", userLink(state, one, user)])],
    ], disks, {
        empty: state.onlyProblems ? "No disk needs you." : "There is no disk on a controller that is supported.",
        key: (one) => one.identifier,
    });
}
