// Where the replacement of a disk stands: told by the machine alone, so that anybody goes on where somebody stopped.

import { diskOf } from "./store.js";

export const STEPS = ["release", "pull", "insert", "add", "rebuild", "whole"];

/**
 * {step, failed, gone, fitting, small}: the step that is next; members that md still holds though they failed; disks that the
 * array had and that md has let go of, `isThere` as long as they are plugged in; disks that can take their place, and those
 * that are ready but too small.
 */
export function replacement(state, array) {
    const failed = array.members.filter((member) => member.state === "failed");
    const gone = (state.machine.health.conditions.find((one) => one.kind === "array-degraded" && one.object === array.name)?.disks ?? [])
        .filter((disk) => disk.state === "gone")
        .map((disk) => ({ ...disk, isThere: state.machine.disks.some((one) => one.id === disk.id && one.serial === disk.serial) }));
    const ready = state.machine.disks.filter((disk) => !gone.some((one) => one.id === disk.id) &&
        disk.operations.some((offer) => offer.kind === "spare.add" && offer.allowed));
    // Of a mirror each member is larger than the array; of other levels the plan tells whether a disk is too small.
    const isSmall = (disk) => array.level === "raid1" && disk.size <= array.size;
    const isRebuilding = array.activity.kind === "rebuild" || array.members.some((member) => member.state === "rebuilding");
    const fitting = ready.filter((disk) => !isSmall(disk));
    const step = failed.length ? "release"
        : array.redundancy.missing === 0 ? "whole"
            : isRebuilding ? "rebuild"
                : gone.some((disk) => disk.isThere) ? "pull"
                    : fitting.length ? "add" : "insert";
    return { step, failed, gone, fitting, small: ready.filter(isSmall) };
}

/** The disk that a failed member is, or is a partition of. */
export const diskOfMember = (state, member) => diskOf(state, member.whole ?? member.disk);
