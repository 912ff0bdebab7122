// One disk: which it is and where, for who stands before the rack.

import { element } from "../element.js";
import { UNKNOWN, duration, percent, size } from "../format.js";
import { arrayId, facts, hasRedundancy, link, offers, stateMark, userLink } from "../parts.js";
import { diskOf, distrust, untouchable } from "../store.js";

export function disk(state, actions, id) {
    const one = diskOf(state, id);
    if (!one) return element("h1", null, `There is no disk ${id} any more`);
    const home = state.machine.arrays.find((array) => array.name === one.array);
    const slot = home?.members.find((member) => member.whole === one.id)?.slot;
    const redundant = state.machine.arrays.filter(hasRedundancy);
    const former = distrust(state, one);
    return [
        element("p", { class: "crumbs" }, link("#/", "Overview")),
        element("h1", null, one.name, " ", stateMark(one.state, one.stateText)),
        former && element("p", { class: "problem", key: "former" }, `${former} has let go of it, as it failed there.`),
        element("section", { class: "identity", "aria-label": "Which disk it is" },
            facts([["Serial number", one.serial ?? UNKNOWN], ["Path (host:channel:target:lun)", one.path ?? UNKNOWN],
                ["Slot", slot != null && `${slot} of ${home.name}`],
                ["By-id", one.byId.length ? one.byId.map((name) => element("div", null, name)) : "none"]])),
        facts([
            ["Model", [one.vendor, one.model].filter(Boolean).join(" ") || null],
            ["Size", size(one.size)],
            ["An array can take", size(one.usableSize)],
            ["Medium", `${one.medium === "rotating" ? "rotating" : "solid state"}, ${one.attachment.toUpperCase()}`],
            ["WWN", one.wwn],
            ["Used by", one.usedBy.length ? one.usedBy.map((user, index) => [index > 0 && ", ", userLink(state, one, user)]) : "none"],
        ]),
        smart(one.smart),
        element("h2", null, "What can be done"),
        offers(state, actions, one, {
            "spare.add": {
                title: `Make ${one.name} a hot spare`,
                base: { kind: "spare.add", disk: one.id },
                choice: { label: "Array", field: "array", options: redundant.map((array) => ({ value: arrayId(array), text: `${array.name}, ${array.level}, ${array.stateText}` })) },
            },
            "spare.release": {
                title: `Release ${one.name}`, label: one.state === "failed" ? `Release it from ${one.array}` : undefined, forbidden: untouchable(home),
                request: { kind: "spare.release", disk: one.id },
            },
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
