// Pieces that several pages are made of.

import { element } from "./element.js";
import { UNKNOWN, capital, duration, percent, reason, size, speed } from "./format.js";
import { arrayOf, isPending, obstacle } from "./store.js";

/** A word in its colour; the word alone says it too. */
export const mark = (level, text) => element("span", { class: `mark ${level}` }, text);

const STATE_LEVELS = {
    "in-order": "ok", "in-use": "ok", active: "ok", spare: "ok", ready: "ok", done: "ok", journal: "ok", replacement: "ok",
    rebuilding: "busy", running: "busy", queued: "busy",
    degraded: "warning", missing: "warning", offline: "warning", interrupted: "warning", gone: "warning",
    failed: "critical",
};

/** The state of a disk, member or operation; `text` where it is called something else. */
export const stateMark = (state, text = state.replace("-", " ")) => mark(STATE_LEVELS[state] ?? "unknown", text);

/** What is wrong with an array; the plug-in's word only where nothing is: it may call one in order that has lost much. */
export function arrayMark(state, array) {
    const worst = state.machine.health.conditions.find((one) => one.object === array.name && one.kind.startsWith("array-"));
    return worst ? mark(worst.kind === "array-rebuilding" ? "busy" : worst.level, worst.kind.slice("array-".length).replaceAll("-", " "))
        : stateMark(array.state, array.stateText);
}

/** Whether a spare is of use to it. */
export const hasRedundancy = (array) => !["raid0", "linear"].includes(array.level);

/** An array as it is asked for: a name may be another one's after a reboot. */
export const arrayId = (array) => array.uuid ?? array.name;

/** A disk in a line, as whoever has to find it needs it. */
export const named = (disk) => [
    element("strong", null, disk.name ?? disk.device.replace("/dev/", "")), disk.size != null && ` ${size(disk.size)}`,
    `, serial ${disk.serial ?? UNKNOWN}`, disk.path && `, at ${disk.path}`, disk.model && `, ${disk.model}`,
];

/** The parts of a name that leads somewhere in an address. */
export const address = (...words) => `#/${words.map(encodeURIComponent).join("/")}`;

export const link = (target, text) => element("a", { href: target }, text);
export const arrayLink = (array, text = array.name) => link(address("array", arrayId(array)), text);
/** What uses a disk: its array as a link. */
export function userLink(state, disk, user) {
    const array = user === disk.array && arrayOf(state, user);
    return array ? arrayLink(array) : user;
}
export const diskLink = (disk, text = disk.name) => link(address("disk", disk.id), text);

/**
 * A button. One that cannot be used says why, beside it and to who only hears it; it keeps its place among those that the
 * tab key reaches. `name` is unique on the page; `label` is said where several buttons have the same text.
 */
export function button(name, text, onclick, { why = null, kind = "", isQuiet = false, label = null } = {}) {
    // Names of channels and arrays are anybody's; a list of identifiers is split at spaces.
    const id = name.replace(/[^\w-]/g, (one) => `_${one.codePointAt(0).toString(16)}`);
    const reasonId = `${id}-why`;
    return [
        element("button", {
            id, key: id, type: "button", "aria-label": label, class: kind, onclick: why ? null : onclick,
            "aria-disabled": why ? "true" : null, "aria-describedby": why ? reasonId : null,
        }, text),
        // Where many buttons have the same reason, it is read, and shown once elsewhere.
        why && element("span", { id: reasonId, key: reasonId, class: isQuiet ? "why hidden" : "why" }, why),
    ];
}

/**
 * A table that lays its rows out as cards where there is little room: `columns` are [heading, cell of a row], the first
 * names the row. Where a heading above says what it is, the title is not shown. The roles are said because a table that is
 * laid out otherwise loses them.
 */
export function table(caption, columns, rows, { empty, key, isTitled = true }) {
    const kind = isTitled ? null : "hidden";
    if (!rows.length) return element("section", { class: "table" }, element("h2", { class: kind }, caption), element("p", { class: "empty" }, empty));
    return element("table", { role: "table", class: "table" },
        element("caption", { class: kind }, caption),
        element("thead", { role: "rowgroup" }, element("tr", { role: "row" },
            columns.map(([heading]) => element("th", { role: "columnheader", scope: "col" }, heading)))),
        element("tbody", { role: "rowgroup" }, rows.map((row) => element("tr", { role: "row", key: key(row) },
            columns.map(([heading, cell], index) => index
                ? element("td", { role: "cell", "data-label": heading }, cell(row))
                : element("th", { role: "rowheader", scope: "row" }, cell(row)))))));
}

/** Facts as pairs of a name and what it is; those that are null are left out. */
export const facts = (pairs) => element("dl", { class: "facts" }, pairs.filter(([, value]) => value != null && value !== false)
    .map(([name, value]) => element("div", { key: name }, element("dt", null, name), element("dd", null, value))));

export const progress = (name, ratio) => element("progress", { "aria-label": name, max: "1", value: String(ratio ?? 0) });

/** Why rvxd forbids something, a line each. */
export const reasons = (list) => list.map((one) => element("li", null, reason(one)));

/** Why rvxd does not allow it now; null where it does. */
export const whyNot = (offer) => offer.allowed ? null : offer.reasons.map(reason).join(" ");

/** What runs on an array, without the percentage that rvxd's own words end with. */
export const activityName = ({ kind, firstSync }) => firstSync ? "First sync" : capital(kind);

export const activityBar = ({ name, activity }) => progress(`${activityName(activity)} of ${name}`, activity.progress);

/** What runs on an array: how far it is, how fast, how long still. */
export function running(array) {
    const { waiting, progress: ratio, speed: rate, remaining } = array.activity;
    const name = activityName(array.activity);
    return [activityBar(array), element("p", null, waiting ? `${name} waits: ${waiting}` : `${name}: ${percent(ratio)}, ${speed(rate)}, ${duration(remaining)} left`)];
}

/** What an object offers, each change with the reason that forbids it now; `requests` are by their kinds. */
export function offers(state, actions, object, requests) {
    return element("ul", { class: "offers" }, object.operations.filter((offer) => requests[offer.kind]).map((offer) => {
        const { label = offer.text, forbidden = null, ...dialog } = requests[offer.kind];
        const why = obstacle(state) ?? forbidden ?? whyNot(offer);
        const id = `offer-${offer.kind.replace(".", "-")}`;
        return element("li", { key: id }, button(id, `${label}...`, () => actions.open({ title: label, ...dialog }), { why }));
    }));
}

/** Where it says that rvxd is away, or that this person may only look. */
export function banner(state) {
    const { link: { state: up, problem, heard, readOnly } } = state;
    // Said once: the age, which grows, is for who looks.
    const away = (told, ...more) => element("div", { class: "banner critical" }, element("p", { role: "alert" }, told), more, element("small", null, problem));
    if (up === "up")
        return readOnly && element("p", { class: "banner", role: "note" }, "You may look, but not change. Turn on administrative access for that.");
    if (up === "connecting" || heard === null)
        return problem && away("Nothing is known of this machine yet: rvxd does not answer, or has not looked. \"systemctl status rvxd\" tells.");
    return away("rvxd does not answer.", element("p", { role: "note" }, `What you see is ${duration(Math.max(0, state.now - heard) / 1000)} old.`));
}

const PLACES = [["", "Overview"], ["events", "Events"], ["settings", "Settings"]];

export function navigation(state, actions) {
    const pending = state.operations.filter(isPending).length;
    return element("header", null,
        element("nav", { "aria-label": "RAID" }, PLACES.map(([word, text]) => element("a", {
            href: `#/${word}`, "aria-current": (state.route[0] ?? "") === word ? "page" : null,
        }, text))),
        element("button", {
            id: "operations", type: "button", "aria-expanded": String(state.drawer), "aria-controls": state.drawer ? "drawer" : null,
            onclick: () => actions.showOperations(!state.drawer),
        }, pending ? `Operations (${pending})` : "Operations"));
}

/** What became of an operation, in a line: its error, its result, or how far it is. */
export function outcome(operation) {
    if (operation.error) return operation.error.detail;
    if (operation.state === "interrupted") return "rvxd ended in the middle of it. Look at what came of it before you try again.";
    return operation.result?.text ?? operation.steps.at(-1)?.text ?? "It waits for its turn.";
}

/** What of a change was not done, and what was otherwise than its plan said. */
export const left = (operation) => {
    const lines = [...(operation.left ?? []).map((one) => `${one.array}: ${one.why}`), ...(operation.error?.reasons ?? []).map(reason)];
    return lines.length > 0 && element("ul", null, lines.map((line) => element("li", null, line)));
};
