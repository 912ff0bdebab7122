// The form of a new array: the level by what it survives, and the disks that are free.

import { element } from "../element.js";
import { count, size } from "../format.js";
import { button, named } from "../parts.js";
import { distrust, obstacle } from "../store.js";
import { problem } from "./dialog.js";

/** What people ask of a level: what it survives, and what room it leaves of `least` on each of `number` disks. */
const LEVELS = {
    raid1: { survives: "Survives one failing disk.", room: (number, least) => least },
    raid0: { survives: "Survives no failing disk. Fast; all room of the disks.", room: (number, least) => number * least },
    linear: { survives: "Survives no failing disk. One disk behind the other; all their room.", room: (number, least, all) => all },
};

/** Why a disk cannot be taken; null when it can. */
function unusable(disk) {
    if (disk.state === "ready" && disk.usedBy.length === 0) return null;
    if (disk.array) return `${disk.stateText}, in ${disk.array}`;
    return disk.usedBy.length ? `${disk.stateText}, used by ${disk.usedBy.join(", ")}` : disk.stateText;
}

export function creation(state, actions) {
    const { levels, disks } = state.machine;
    const { form, isBusy } = state.dialog;
    const level = levels.find((one) => one.level === form.level);
    // In the order in which they were chosen, which is that of their slots; one that is gone is not asked for.
    const chosen = form.disks.map((id) => disks.find((disk) => disk.id === id)).filter((disk) => disk && !unusable(disk));
    const why = obstacle(state) ?? missing(level, chosen.length) ?? (isBusy ? "It is being asked for." : null);
    return [
        element("fieldset", { class: "levels", role: "radiogroup", "aria-label": "Level", key: "levels" }, element("legend", null, "Level"),
            levels.map((one) => element("label", { class: "level", key: one.level }, element("input", {
                type: "radio", name: "level", value: one.level, checked: form.level === one.level,
                onchange: () => actions.fill({ level: one.level, stripe: one.defaultStripe }),
            }), element("span", null, element("strong", null, one.text), element("span", null, LEVELS[one.level]?.survives ?? ""),
                element("small", null, one.minimumDisks === one.maximumDisks ? `Exactly ${count(one.minimumDisks, "disk")}.` : `From ${count(one.minimumDisks, "disk")}.`))))),
        element("fieldset", { class: "disks", key: "disks" }, element("legend", null, "Disks"),
            disks.length === 0 && element("p", { class: "empty" }, "There is no disk on a controller that is supported."),
            disks.map((disk) => diskBox(state, actions, disk))),
        level && level.stripes.length > 1 && element("label", { class: "choice", key: "stripe" }, "Stripe size", element("select", {
            value: String(form.stripe), onchange: (event) => actions.fill({ stripe: Number(event.target.value) }),
        }, level.stripes.map((bytes) => element("option", { value: String(bytes) }, size(bytes))))),
        level && chosen.length > 0 && element("p", { key: "room" }, room(level, chosen)),
        problem(state.dialog),
        element("div", { class: "tools", key: "end" },
            button("show-plan", "Show the plan", () => actions.plan({
                kind: "array.create", level: level.level, disks: chosen.map((disk) => disk.id), ...(form.stripe && { stripe: form.stripe }),
            }), { why, kind: "primary" }),
            button("cancel", "Cancel", () => actions.close())),
    ];
}

function missing(level, number) {
    if (!level) return "Choose a level first.";
    const { minimumDisks: least, maximumDisks: most } = level;
    if (number < least) return `Choose ${least - number} more.`;
    return number > most ? `Choose ${number - most} fewer.` : null;
}

function room(level, chosen) {
    const sizes = chosen.map((disk) => disk.usableSize ?? 0);
    const bytes = LEVELS[level.level]?.room(sizes.length, Math.min(...sizes), sizes.reduce((sum, one) => sum + one, 0));
    return `Slots in this order: ${chosen.map((disk) => disk.name).join(", ")}. ` +
        (bytes === undefined || sizes.length < level.minimumDisks ? "" : `Room: about ${size(bytes)}.`);
}

function diskBox(state, actions, disk) {
    const { form } = state.dialog;
    const why = unusable(disk);
    const former = distrust(state, disk);
    const isChosen = form.disks.includes(disk.id);
    const reasonId = `why-${disk.identifier}`;
    return element("div", { class: why ? "disk off" : "disk", key: disk.identifier }, element("label", null, element("input", {
        type: "checkbox", checked: isChosen && !why, "aria-disabled": why ? "true" : null, "aria-describedby": why ? reasonId : null,
        // One that cannot be taken stays where the keyboard finds it, and its reason with it.
        onclick: why ? (event) => event.preventDefault() : null,
        onchange: why ? null : (event) => actions.fill({ disks: event.target.checked ? [...form.disks, disk.id] : form.disks.filter((id) => id !== disk.id) }),
    }), element("span", null, named(disk), former && `; ${former} has let go of it`)), why && element("span", { id: reasonId, class: "why" }, why));
}
