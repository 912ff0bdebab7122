// Where the replacement of a disk stands: told by the machine alone, so that anybody goes on where somebody stopped.

import { diskOf, distrust, isSame, otherUsers, readyDisks } from "./store.js";

export const STEPS = ["release", "pull", "insert", "add", "rebuild", "whole"];

/** The disk that an array lost, where it is plugged in; of several that tell its serial number, the one of its id. */
function find(state, lost) {
    const found = state.machine.disks.filter((disk) => isSame(lost, disk));
    if (found.length) return found.length === 1 ? found[0] : found.find((disk) => disk.id === lost.id);
    // Without a serial number nobody can tell it from another one that took its place: both are said.
    return state.machine.disks.find((disk) => !disk.serial && !lost.serial && disk.name === lost.name && disk.path === lost.path);
}

/**
 * Of this array:
 * - step: the one that is next; null of an array that has failed, which no new disk brings back
 * - isOfPartitions: members are partitions, which are neither made nor added here
 * - failed: members that have failed and can be released: {member, disk, offer, others}
 * - held: members that md holds though they do not work, and that cannot be released here
 * - lost: disks that the array had and that md has let go of; `now` is the disk where it is plugged in, `others` what is on it
 * - pull: those of them that can be pulled; fitting, small: disks that are ready, and large enough or not
 */
export function replacement(state, array) {
    const broken = array.members.filter((member) => ["failed", "missing", "offline"].includes(member.state)).map((member) => {
        const disk = diskOf(state, member.whole ?? member.disk);
        return { member, disk, offer: disk?.operations.find((one) => one.kind === "spare.release"), others: disk ? otherUsers(state, disk, array) : [] };
    });
    const failed = broken.filter(({ member, offer }) => member.state === "failed" && offer);
    const told = state.machine.health.conditions.filter((one) => one.object === array.name).find((one) => one.disks.length)?.disks ?? [];
    const lost = told.filter((one) => one.state === "gone").map((one) => {
        const now = find(state, one);
        return { ...one, now, others: now ? otherUsers(state, now, array) : [] };
    });
    const pull = lost.filter((one) => one.now && one.others.length === 0);
    // Of a mirror each member is larger than the array; of other levels the plan tells whether a disk is too small.
    const isSmall = (disk) => array.level === "raid1" && disk.size <= array.size;
    const ready = readyDisks(state).filter((disk) => distrust(state, disk) === null);
    // Partitions are made and added elsewhere.
    const isOfPartitions = array.members.some((member) => member.whole !== null && member.disk !== member.whole);
    const fitting = isOfPartitions ? [] : ready.filter((disk) => !isSmall(disk));
    const held = broken.filter((one) => !failed.includes(one));
    // A spare that md has is as good as added, unless md takes a member that does not work for one that does.
    const isRebuilding = array.activity.kind === "rebuild" || (array.spares.length > 0 && held.length === 0) || array.members.some((member) => member.state === "rebuilding");
    const step = array.redundancy.canLose === null ? null
        : failed.length ? "release"
            : array.redundancy.missing === 0 ? "whole"
                : isRebuilding ? "rebuild"
                    : pull.length ? "pull"
                        : fitting.length ? "add" : "insert";
    return { step, isOfPartitions, failed, held, lost, pull, fitting, small: ready.filter(isSmall) };
}
