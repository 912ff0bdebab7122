// The one guided way: from a disk that failed to an array that is whole again.

import { element } from "../element.js";
import { UNKNOWN, listed, size } from "../format.js";
import { arrayId, arrayLink, arrayMark, button, facts, link, named, running, whyNot } from "../parts.js";
import { STEPS, replacement } from "../replacement.js";
import { arrayOf, obstacle, untouchable } from "../store.js";

const TITLES = {
    release: "Release the failed disk", pull: "Pull the disk", insert: "Put in the new disk", add: "Add it", rebuild: "Rebuild",
};

export function replace(state, actions, id) {
    const array = arrayOf(state, id);
    if (!array) return element("h1", null, `There is no array ${id} any more`);
    const now = replacement(state, array);
    return [
        element("p", { class: "crumbs" }, link("#/", "Overview"), " / ", arrayLink(array)),
        element("h1", null, `Replace a disk of ${array.name} `, arrayMark(state, array)),
        now.step === null && element("p", { class: "problem", role: "alert", key: "lost" },
            `${array.name} has failed: it lacks more members than it can do without. A new disk does not bring its data back, and releasing or adding one may ` +
            "destroy what is left. Leave all disks as they are, and bring the missing ones back if they can be brought back."),
        now.step === "whole" && element("p", { class: "whole", role: "status", key: "whole" }, `${array.name} is whole. `, link("#/", "Back to the overview")),
        // It is there from the beginning, so that it is heard when it changes.
        element("p", { role: "status", key: "where" }, now.step in TITLES && `Step ${STEPS.indexOf(now.step) + 1} of ${STEPS.length - 1}: ${TITLES[now.step]}.`),
        now.step in TITLES && element("p", { key: "leave" }, "You can leave this page and come back: where it stands is read from the machine."),
        notes(state, array, now),
        now.step in TITLES && steps(state, actions, array, now),
    ];
}

/** What is beside the way: members that only md can release, and disks of old that have another use by now. */
function notes(state, array, { held, lost, isOfPartitions }) {
    const { next, disks = [] } = state.machine.health.conditions.find((one) => one.object === array.name && one.next) ?? {};
    const advice = next && `What rvxd advises: ${next}`;
    if (untouchable(array)) return null;
    return [
        held.map(({ member }) => element("p", { class: "problem", key: `held ${member.name}` },
            "md still holds ", named(disks.find((disk) => disk.name === member.name) ?? member), ` (${member.state}), which cannot be released here. `, advice)),
        isOfPartitions && held.length === 0 && element("p", { class: "problem", key: "partitions" },
            "Its members are partitions: none is made or added here. ", advice),
        lost.filter((one) => one.others.length).map((one) => element("p", { class: "problem", key: `others ${one.name}` },
            `Serial number ${one.serial ?? UNKNOWN}, which ${array.name} had, is in use for ${listed(one.others)} now. Do not pull it.`)),
    ];
}

function steps(state, actions, array, now) {
    const at = STEPS.indexOf(now.step);
    // It can be pulled while another one is rebuilt onto, too.
    const isOver = (step, index) => index < at && !(step === "pull" && now.pull.length);
    return element("ol", { class: "steps", key: "steps" }, Object.entries(TITLES).map(([step, title], index) => element("li", {
        key: step, "aria-current": step === now.step ? "step" : null, class: step === now.step ? "current" : isOver(step, index) ? "past" : "ahead",
    }, element("h2", null, title, isOver(step, index) && " (nothing left to do)"),
    step === now.step && CONTENTS[step](state, actions, array, now))));
}

const identity = (disk) => element("section", { class: "identity", "aria-label": `Which disk ${disk.name} is` }, facts([
    ["Serial number", disk.serial ?? UNKNOWN], ["Path (host:channel:target:lun)", disk.path ?? UNKNOWN], ["Model", disk.model], ["By-id", disk.id],
]));

/** How somebody before the rack knows that it is this one. */
export const pullText = ({ name, serial, path }) => serial
    ? `Pull the disk with serial number ${serial}${path ? ` at ${path}` : ""}. Compare the number on its label first.`
    : `Pull ${name}${path ? ` at ${path}` : ""}. It tells no serial number: "rvxctl disk locate ${name} on" shows it by its light, where there is one.`;

const pulling = (pull) => pull.map((disk) => element("div", { key: disk.id ?? disk.name },
    element("p", { class: "lead" }, pullText(disk)), identity(disk)));

const CONTENTS = {
    release: (state, actions, array, { failed }) => [
        element("p", null, "md still holds it. Releasing it wipes its superblock, so that no array takes it for a member again; then it can be pulled. The array goes on with the others."),
        array.activity.kind !== "none" && running(array),
        failed.map(({ member, disk, offer, others }) => {
            const why = obstacle(state) ?? whyNot(offer);
            return element("div", { key: member.name }, identity(disk),
                others.length > 0 && element("p", { class: "problem" }, `It is in use for ${listed(others)}, too: do not pull it before that does without it.`),
                button(`release-${member.name}`, `Release ${member.name}...`, () => actions.open({
                    title: `Release ${member.name}`, request: { kind: "spare.release", disk: disk.id },
                }), { why, kind: "primary" }));
        }),
    ],
    pull: (state, actions, array, { pull, fitting }) => [
        pulling(pull),
        element("p", null, "This goes on by itself as soon as it is out."),
        fitting.length > 0 && [element("p", null, "Or rebuild at once onto a disk that is there already:"), candidates(state, actions, array, fitting)],
    ],
    insert: (state, actions, array, { lost, small, isOfPartitions }) => [
        !isOfPartitions && element("p", null, `Waiting for a disk ${array.level === "raid1" ? `of more than ${size(array.size)}` : "as large as the other members"}. This goes on by itself as soon as it is there.`),
        lost.filter((disk) => !disk.now).map((disk) => element("p", { key: disk.id ?? disk.name },
            `It takes the place of serial number ${disk.serial ?? UNKNOWN}${disk.path ? `, which was at ${disk.path}` : ""}.`)),
        small.length > 0 && element("p", null, `Too small: ${small.map((disk) => `${disk.name}, ${size(disk.size)} (${disk.size} bytes)`).join("; ")}; it takes more than ${array.size} bytes.`),
        button("rescan", "Look now...", () => actions.open({ title: "Look for new disks", request: { kind: "rescan" } }), { why: obstacle(state) }),
    ],
    add: (state, actions, array, { fitting }) => [
        element("p", null, "Which of the disks that are ready is it?"), candidates(state, actions, array, fitting),
    ],
    rebuild: (state, actions, array, { pull }) => [
        array.activity.kind === "rebuild" ? running(array)
            : element("p", null, `${listed(array.spares)} ${array.spares.length > 1 ? "are spares" : "is a spare"} of it; md has not begun to rebuild onto it yet.`),
        pull.length > 0 && [element("p", null, "The failed disk is still plugged in, and can be pulled now:"), pulling(pull)],
    ],
};

function candidates(state, actions, array, disks) {
    return element("ul", { class: "identities candidates" }, disks.map((disk) => element("li", { key: disk.identifier },
        element("span", null, named(disk), !disk.serial && "; without a serial number nobody can tell whether it is the one that failed"),
        element("span", null, button(`add-${disk.identifier}`, `Add ${disk.name}...`, () => actions.open({
            title: `Add ${disk.name} to ${array.name}`, request: { kind: "spare.add", disk: disk.id, array: arrayId(array) },
        }), { why: obstacle(state), kind: "primary" })))));
}
