// One array: what it is, what it is made of, what runs on it, and what can be done.

import { element } from "../element.js";
import { duration, listed, percent, size, speed } from "../format.js";
import { address, button, facts, link, offers, progress, stateMark, table } from "../parts.js";
import { arrayOf, diskOf, obstacle } from "../store.js";

export function array(state, actions, id) {
    const one = arrayOf(state, id);
    if (!one) return element("h1", null, `There is no array ${id} any more`);
    const isHurt = one.redundancy.missing > 0 || one.members.some((member) => member.state === "failed");
    return [
        element("p", { class: "crumbs" }, link("#/", "Overview")),
        element("h1", null, one.name, " ", stateMark(one.state, one.stateText)),
        isHurt && one.redundancy.canLose !== null && element("p", { key: "repair" },
            element("a", { class: "button primary", href: address("replace", one.uuid ?? one.name) }, "Replace the disk...")),
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
            "array.delete": { title: `Delete ${one.name}`, request: { kind: "array.delete", array: one.name }, mustType: one.name, mounts: one.mounts },
            "rebuild.start": { request: { kind: "rebuild.start", array: one.name } },
            "rebuild.cancel": { request: { kind: "rebuild.cancel", array: one.name } },
        }),
    ];
}

function activity({ name, activity: now }) {
    if (now.kind === "none") return null;
    return element("section", { "aria-label": "What runs", key: "activity", class: "running" },
        element("h2", null, now.firstSync ? "First synchronisation" : now.text),
        now.waiting ? element("p", null, `It waits: ${now.waiting}`) : [
            progress(`${now.text} of ${name}`, now.progress),
            element("p", null, `${percent(now.progress)}, ${speed(now.speed)}, ${duration(now.remaining)} left`),
        ]);
}

function members(state, one) {
    return table("Members", [
        ["Name", (member) => {
            const disk = diskOf(state, member.whole);
            return disk ? link(address("disk", disk.id), member.name) : member.name;
        }],
        ["State", (member) => stateMark(member.state)],
        ["Slot", (member) => member.slot === null ? "none" : String(member.slot)],
        ["Serial number", (member) => diskOf(state, member.whole)?.serial],
        ["Path", (member) => diskOf(state, member.whole)?.path],
    ], [...one.members].sort((first, second) => (first.slot ?? Infinity) - (second.slot ?? Infinity) || first.name.localeCompare(second.name)), { empty: "md knows no member of it.", key: (member) => `${member.name} ${member.state}` });
}

function addSpare(state, actions, one) {
    const ready = state.machine.disks.filter((disk) => disk.operations.some((offer) => offer.kind === "spare.add" && offer.allowed));
    const why = obstacle(state) ?? (["raid0", "linear"].includes(one.level) ? `A ${one.level} has no redundancy, so a spare is of no use.`
        : ready.length === 0 ? "No disk is ready." : null);
    return button("add-spare", "Add a spare...", () => actions.open({
        title: `Add a spare to ${one.name}`,
        base: { kind: "spare.add", array: one.name },
        choice: { label: "Disk", field: "disk", options: ready.map((disk) => ({ value: disk.id, text: `${disk.name}, serial ${disk.serial}, ${size(disk.size)}` })) },
    }), { why });
}
