// How often rvxd looks, how many spares arrays are to have, and where alarms go.

import { element } from "../element.js";
import { moment } from "../format.js";
import { arrayId, button, hasRedundancy, mark, table } from "../parts.js";
import { obstacle } from "../store.js";

export function settings(state, actions) {
    const { pollInterval, spares, limits } = state.settings.data;
    const redundant = state.machine.arrays.filter(hasRedundancy);
    return [
        element("h1", null, "Settings"),
        field(state, actions, "interval", "Seconds between two looks", pollInterval, limits.pollInterval, (value) => ({ pollInterval: value })),
        element("section", { key: "spares" }, element("h2", null, "Wanted spares"),
            element("p", null, "An array that has fewer is a warning. Empty: it may have any number."),
            redundant.length === 0 && element("p", { class: "empty" }, "No array has redundancy."),
            redundant.map((array) => {
                const id = arrayId(array);
                return field(state, actions, `spares-${array.name}`, `Spares of ${array.name}`, spares[id] ?? "", limits.spares,
                    (value) => ({ spares: { [id]: value } }), true);
            })),
        channels(state, actions),
    ];
}

/** A number with its own button; `change` makes the setting of it, of null where the field may be empty, and is. */
function field(state, actions, id, label, value, { least, most }, change, mayBeEmpty = false) {
    const text = state.drafts[id] ?? String(value);
    const number = text.trim() === "" ? null : Number(text);
    const isWrong = number === null ? !mayBeEmpty : !Number.isInteger(number) || number < least || number > most;
    const why = obstacle(state) ?? (text === String(value) ? "Nothing to save." : isWrong ? `A whole number from ${least} to ${most}.` : null);
    return element("form", { class: "tools", key: id, onsubmit: (event) => {
        event.preventDefault();
        if (!why) actions.save(id, change(number));
    } },
    element("label", null, label, element("input", {
        type: "text", inputmode: "numeric", size: "4", value: text, "aria-invalid": isWrong ? "true" : null,
        oninput: (event) => actions.draft({ [id]: event.target.value }),
    })),
    button(`save-${id}`, "Save", () => actions.save(id, change(number)), { why, isQuiet: !isWrong || obstacle(state) !== null, label: `Save ${label}` }),
    state.notes[id] && element("span", { class: "note", role: "status" }, state.notes[id]));
}

const CHANNEL_LEVELS = { ok: "ok", failing: "warning", refused: "critical" };

function channels(state, actions) {
    return table("Where alarms go", [
        ["Channel", (one) => one.channel],
        ["Kind", (one) => one.type],
        ["Target", (one) => one.target],
        ["From", (one) => one.severity],
        ["State", (one) => [mark(CHANNEL_LEVELS[one.state], one.state), one.text && ` ${one.text}`]],
        ["Delivered last", (one) => one.delivered ? moment(one.delivered) : "never"],
        ["Test", (one) => [
            button(`test-${one.channel}`, "Send a test", () => actions.testChannel(one.channel), { why: obstacle(state), isQuiet: true, label: `Send a test to ${one.channel}` }),
            state.notes[`channel:${one.channel}`] && element("span", { class: "note", role: "status" }, state.notes[`channel:${one.channel}`]),
        ]],
    ], state.channels, { empty: "No channel is set up: see /etc/rvx/notify.d.", key: (one) => one.channel });
}
