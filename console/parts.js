// Pieces that several pages are made of.

import { element } from "./element.js";
import { reason } from "./format.js";
import { isPending, obstacle } from "./store.js";

/** A word in its colour; the word alone says it too. */
export const mark = (level, text) => element("span", { class: `mark ${level}` }, text);

const STATE_LEVELS = {
    "in-order": "ok", "in-use": "ok", active: "ok", spare: "ok", ready: "ok", done: "ok", journal: "ok", replacement: "ok",
    rebuilding: "busy", running: "busy", queued: "busy",
    degraded: "warning", missing: "warning", offline: "warning", interrupted: "warning", gone: "warning",
    failed: "critical",
};

/** The state of an array, disk, member or operation; `text` where it is called something else. */
export const stateMark = (state, text = state.replace("-", " ")) => mark(STATE_LEVELS[state] ?? "unknown", text);

/** The parts of a name that leads somewhere in an address. */
export const address = (...words) => `#/${words.map(encodeURIComponent).join("/")}`;

export const link = (target, text) => element("a", { href: target }, text);
export const arrayLink = (array) => link(address("array", array.name), array.name);
export const diskLink = (disk) => link(address("disk", disk.id), disk.name);

/**
 * A button. One that cannot be used says why, beside it and to who only hears it; it keeps its place among those that the
 * tab key reaches. `id` is unique on the page.
 */
export function button(id, text, onclick, { why = null, kind = "", isQuiet = false } = {}) {
    const reasonId = `${id}-why`;
    return [
        element("button", {
            id, key: id, type: "button", class: kind, onclick: why ? null : onclick,
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

/** What an object offers, each change with the reason that forbids it now; `requests` are by their kinds. */
export function offers(state, actions, object, requests) {
    return element("ul", { class: "offers" }, object.operations.filter((offer) => requests[offer.kind]).map((offer) => {
        const why = obstacle(state) ?? (offer.allowed ? null : offer.reasons.map((one) => reason(one)).join(" "));
        const id = `offer-${offer.kind.replace(".", "-")}`;
        return element("li", { key: id }, button(id, `${offer.text}...`,
            () => actions.open({ title: offer.text, ...requests[offer.kind] }), { why: why || null }));
    }));
}

/** Where it says that rvxd is away, or that this person may only look. */
export function banner(state) {
    const { link: { state: up, problem, heard, readOnly } } = state;
    if (up === "up")
        return readOnly && element("p", { class: "banner", role: "note" }, "You may look, but not change. Turn on administrative access for that.");
    if (up === "connecting" || heard === null)
        return problem && element("div", { class: "banner critical", role: "alert" },
            "rvxd does not answer, and nothing is known of this machine. Is it running? \"systemctl status rvxd\" tells.",
            element("small", null, problem));
    return element("div", { class: "banner critical", role: "alert" },
        `rvxd does not answer. What you see is ${Math.max(0, Math.round((state.now - heard) / 1000))} seconds old.`,
        element("small", null, problem));
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

/** What of a change was not done. */
export const left = (operation) => operation.left?.length > 0 &&
    element("ul", null, operation.left.map((one) => element("li", null, `${one.array}: ${one.why}`)));
