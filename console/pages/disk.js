// One disk: which it is and where, for who stands before the rack.

import { element } from "../element.js";
import { duration, listed, percent, size } from "../format.js";
import { address, facts, link, offers, stateMark } from "../parts.js";
import { diskOf } from "../store.js";

export function disk(state, actions, id) {
    const one = diskOf(state, id);
    if (!one) return element("h1", null, `There is no disk ${id} any more`);
    const home = state.machine.arrays.find((array) => array.name === one.array);
    const slot = home?.members.find((member) => member.whole === one.id)?.slot;
    const redundant = state.machine.arrays.filter((array) => !["raid0", "linear"].includes(array.level));
    return [
        element("p", { class: "crumbs" }, link("#/", "Overview")),
        element("h1", null, one.name, " ", stateMark(one.state, one.stateText)),
        element("section", { class: "identity", "aria-label": "Which disk it is" },
            facts([["Serial number", one.serial ?? "not known"], ["Path (host:channel:target:lun)", one.path ?? "not known"],
                ["Slot", slot != null && `${slot} of ${home.name}`],
                ["By-id", one.byId.length ? one.byId.map((name) => element("div", null, name)) : "none"]])),
        facts([
            ["Model", [one.vendor, one.model].filter(Boolean).join(" ") || null],
            ["Size", size(one.size)],
            ["An array can take", size(one.usableSize)],
            ["Medium", `${one.medium === "rotating" ? "rotating" : "solid state"}, ${one.attachment.toUpperCase()}`],
            ["WWN", one.wwn],
            ["Array", one.array && link(address("array", one.array), one.array)],
            ["Used by", listed(one.usedBy)],
        ]),
        smart(one.smart),
        element("h2", null, "What can be done"),
        offers(state, actions, one, {
            "spare.add": {
                title: `Make ${one.name} a hot spare`,
                base: { kind: "spare.add", disk: one.id },
                choice: { label: "Array", field: "array", options: redundant.map((array) => ({ value: array.name, text: `${array.name}, ${array.level}, ${array.stateText}` })) },
            },
            "spare.release": { title: `Release ${one.name}`, request: { kind: "spare.release", disk: one.id } },
        }),
    ];
}

function smart({ wear, reserve, written, powerOn, remainingLife }) {
    const known = [
        ["Life used", wear, percent], ["Spare blocks left", reserve, percent], ["Written", written, size],
        ["Switched on for", powerOn, duration], ["Life left, as far as can be told", remainingLife, duration],
    ].filter(([, value]) => value !== null);
    return [
        element("h2", null, "What the disk says of itself"),
        known.length ? facts(known.map(([name, value, text]) => [name, text(value)]))
            : element("p", { class: "empty" }, "It tells nothing of wear and age."),
    ];
}
