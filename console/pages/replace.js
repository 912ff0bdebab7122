// The one guided way: from a disk that failed to an array that is whole again.

import { element } from "../element.js";
import { duration, percent, reason, size, speed } from "../format.js";
import { arrayLink, button, facts, link, progress, stateMark } from "../parts.js";
import { STEPS, diskOfMember, replacement } from "../replacement.js";
import { arrayOf, obstacle } from "../store.js";

const TITLES = {
    release: "Release the failed disk", pull: "Pull the disk", insert: "Put in the new disk", add: "Add it", rebuild: "Rebuild",
};

export function replace(state, actions, id) {
    const array = arrayOf(state, id);
    if (!array) return element("h1", null, `There is no array ${id} any more`);
    const now = replacement(state, array);
    const at = STEPS.indexOf(now.step);
    return [
        element("p", { class: "crumbs" }, link("#/", "Overview"), " / ", arrayLink(array)),
        element("h1", null, `Replace a disk of ${array.name} `, stateMark(array.state, array.stateText)),
        array.redundancy.canLose === null && element("p", { class: "problem", role: "alert", key: "lost" },
            `${array.name} has failed: more members are gone than its level can lose. A new disk does not bring them back; see the guide before you change anything.`),
        now.step === "whole" && element("p", { class: "whole", role: "status", key: "whole" }, `${array.name} is whole. `, link("#/", "Back to the overview")),
        element("p", { key: "leave" }, now.step === "whole" ? null : "You can leave this page and come back: where it stands is read from the machine."),
        element("ol", { class: "steps", key: "steps" }, Object.entries(TITLES).map(([step, title], index) => element("li", {
            key: step, "aria-current": step === now.step ? "step" : null, class: index < at ? "past" : step === now.step ? "current" : "ahead",
        }, element("h2", null, title, index < at && element("span", { class: "past-word" }, " (nothing left to do)")),
        step === now.step && CONTENTS[step](state, actions, array, now)))),
    ];
}

const identity = (disk) => element("section", { class: "identity", "aria-label": `Which disk ${disk.name} is` }, facts([
    ["Serial number", disk.serial ?? "not known"], ["Path (host:channel:target:lun)", disk.path ?? "not known"], ["Model", disk.model], ["By-id", disk.id],
]));

const CONTENTS = {
    release: (state, actions, array, { failed }) => [
        element("p", null, "md still holds it. Released, it can be pulled; the array goes on with the others."),
        rebuildState(array),
        failed.map((member) => {
            const disk = diskOfMember(state, member);
            const offer = disk?.operations.find((one) => one.kind === "spare.release");
            const why = obstacle(state) ?? (!offer ? "It is no managed disk: mdadm can release it." : offer.allowed ? null : offer.reasons.map((one) => reason(one)).join(" "));
            return element("div", { key: member.name }, disk && identity(disk),
                button(`release-${member.name}`, `Release ${member.name}...`, () => actions.open({
                    title: `Release ${member.name}`, request: { kind: "spare.release", disk: disk.id },
                }), { why, kind: "primary" }));
        }),
    ],
    pull: (state, actions, array, { gone, fitting }) => [
        gone.filter((disk) => disk.isThere).map((disk) => element("div", { key: disk.id ?? disk.name },
            element("p", { class: "lead" }, `Pull the disk with serial number ${disk.serial ?? "not known"}${disk.path ? ` at ${disk.path}` : ""}. Compare the number on its label first.`),
            identity(disk))),
        element("p", { role: "status" }, "This goes on by itself as soon as it is out."),
        fitting.length > 0 && [element("p", null, "Or rebuild at once onto a disk that is there already:"), candidates(state, actions, array, fitting)],
    ],
    insert: (state, actions, array, { gone, small }) => [
        element("p", { role: "status" }, `Waiting for a disk of at least ${array.level === "raid1" ? size(array.size) : "the size of the other members"}. This goes on by itself as soon as it is there.`),
        gone.map((disk) => element("p", { key: disk.id ?? disk.name }, `It takes the place of serial number ${disk.serial ?? "not known"}${disk.path ? `, which was at ${disk.path}` : ""}.`)),
        small.length > 0 && element("p", null, `Too small: ${small.map((disk) => `${disk.name}, ${size(disk.size)}`).join("; ")}.`),
        button("rescan", "Look now...", () => actions.open({ title: "Look for new disks", request: { kind: "rescan" } }), { why: obstacle(state) }),
    ],
    add: (state, actions, array, { fitting }) => [
        element("p", null, "Which of the disks that are ready is it?"), candidates(state, actions, array, fitting),
    ],
    rebuild: (state, actions, array) => rebuildState(array),
};

function candidates(state, actions, array, disks) {
    return element("ul", { class: "identities candidates" }, disks.map((disk) => element("li", { key: disk.identifier },
        element("span", null, element("strong", null, disk.name), ` ${size(disk.size)}, serial ${disk.serial ?? "not known"}`, disk.path && `, at ${disk.path}`, disk.model && `, ${disk.model}`),
        element("span", null, button(`add-${disk.identifier}`, `Add ${disk.name}...`, () => actions.open({
            title: `Add ${disk.name} to ${array.name}`, request: { kind: "spare.add", disk: disk.id, array: array.name },
        }), { why: obstacle(state), kind: "primary" })))));
}

function rebuildState({ name, activity }) {
    if (activity.kind === "none") return null;
    return element("div", { key: "rebuild" }, progress(`${activity.text} of ${name}`, activity.progress),
        element("p", null, activity.waiting ? `It waits: ${activity.waiting}` : `${activity.text}: ${percent(activity.progress)}, ${speed(activity.speed)}, ${duration(activity.remaining)} left`));
}
