// One array: what it is, what it is made of, what runs on it, and what can be done.

import { element } from "../element.js";
import { listed, size } from "../format.js";
import { activityName, address, arrayId, arrayMark, button, diskLink, facts, hasRedundancy, link, named, offers, running, stateMark, table } from "../parts.js";
import { arrayOf, diskOf, distrust, obstacle, readyDisks, untouchable } from "../store.js";

export function array(state, actions, id) {
    const one = arrayOf(state, id);
    if (!one) return element("h1", null, `There is no array ${id} any more`);
    const isHurt = one.redundancy.missing > 0 || one.members.some((member) => member.state === "failed");
    return [
        element("p", { class: "crumbs" }, link("#/", "Overview")),
        element("h1", null, one.name, " ", arrayMark(state, one)),
        isHurt && one.redundancy.canLose !== null && element("p", { key: "repair" },
            element("a", { class: "button primary", href: address("replace", arrayId(one)) }, "Replace the disk...")),
        facts([
            ["Level", one.level],
            ["Size", size(one.size)],
            ["Members that work", `${one.redundancy.active} of ${one.redundancy.required}`],
            ["May fail before data is lost", one.redundancy.canLose === null ? "it has failed" : String(one.redundancy.canLose)],
            ["Spares", listed(one.spares) + (one.sparesWanted === null ? "" : `; wanted: ${one.sparesWanted}`)],
            ["Used at", listed(one.mounts)],
            ["Device", one.device],
            ["UUID", one.uuid],
            ["Metadata", one.metadata],
        ]),
        activity(one),
        members(state, one),
        element("h2", null, "What can be done"),
        element("ul", { class: "offers", key: "spare" }, element("li", null, addSpare(state, actions, one))),
        offers(state, actions, one, {
            "array.delete": { title: `Delete ${one.name}`, request: { kind: "array.delete", array: arrayId(one) }, mustType: one.name, mounts: one.mounts },
            "rebuild.start": { request: { kind: "rebuild.start", array: arrayId(one) } },
            "rebuild.cancel": { request: { kind: "rebuild.cancel", array: arrayId(one) } },
        }),
    ];
}

function activity(one) {
    return one.activity.kind !== "none" && element("section", { "aria-label": "What runs", key: "activity" },
        element("h2", null, activityName(one.activity)), running(one));
}

function members(state, one) {
    return table("Members", [
        ["Name", (member) => {
            const disk = diskOf(state, member.whole);
            return disk ? diskLink(disk, member.name) : member.name;
        }],
        ["State", (member) => stateMark(member.state)],
        ["Slot", (member) => member.slot === null ? "none" : String(member.slot)],
        ["Serial number", (member) => diskOf(state, member.whole)?.serial],
        ["Path", (member) => diskOf(state, member.whole)?.path],
    ], [...one.members].sort((first, second) => (first.slot ?? Infinity) - (second.slot ?? Infinity) || first.name.localeCompare(second.name)), { empty: "md knows no member of it.", key: (member) => `${member.name} ${member.state}` });
}

const suspicion = (state, disk) => distrust(state, disk) && `; ${distrust(state, disk)} has let go of it`;

function addSpare(state, actions, one) {
    const ready = readyDisks(state);
    const why = obstacle(state) ?? untouchable(one) ?? (!hasRedundancy(one) ? `A ${one.level} has no redundancy, so a spare is of no use.`
        : ready.length === 0 ? "No disk is ready." : null);
    return button("add-spare", "Add a spare...", () => actions.open({
        title: `Add a spare to ${one.name}`,
        base: { kind: "spare.add", array: arrayId(one) },
        choice: { label: "Disk", field: "disk", options: ready.map((disk) => ({ value: disk.id, text: [named(disk), suspicion(state, disk)] })) },
    }), { why });
}
