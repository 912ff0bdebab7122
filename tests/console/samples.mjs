// Documents as rvxd gives them, cut down to what the console reads.

import { INITIAL } from "../../console/store.js";

const offers = (allowed, ...kinds) => ["spare.add", "spare.release"].map((kind) => ({
    kind, code: 1, text: kind, allowed: kinds.includes(kind) || allowed, reasons: kinds.includes(kind) || allowed ? [] : [{ text: `20005 ERR_X: no ${kind}` }],
}));

export const disk = (name, more) => ({
    id: `ata-${name}`, device: `/dev/${name}`, name, identifier: `0x${name}`, serial: `S-${name}`, wwn: null, byId: [], model: "M", vendor: null,
    size: 64 << 20, usableSize: 63 << 20, medium: "rotating", attachment: "ata", path: "1:0:0:0", state: "ready", stateText: "Ready", array: null,
    smart: { wear: null, reserve: null, written: null, powerOn: null, remainingLife: null }, usedBy: [], operations: offers(false, "spare.add"), ...more,
});

export const member = (name, state = "active", slot = 0) => ({ disk: `ata-${name}`, whole: `ata-${name}`, name, slot, state });

export const used = (name, array = "md_d0") => disk(name, { state: "in-use", stateText: "In use", array, usedBy: [array], operations: offers(false) });

export const failed = (name) => disk(name, { state: "failed", stateText: "Failed", array: "md_d0", usedBy: ["md_d0"], operations: offers(false, "spare.release") });

export const mirror = (members, more) => {
    const active = members.filter((one) => one.state === "active").length;
    return {
        uuid: "1:2", name: "md_d0", device: "/dev/md_d0", level: "raid1", size: 63 << 20, metadata: "1.0", state: active === 2 ? "in-order" : "degraded",
        stateText: active === 2 ? "In order" : "Degraded", redundancy: { required: 2, active, missing: 2 - active, canLose: active ? active - 1 : null },
        activity: { kind: "none", text: "None", firstSync: false, waiting: null, progress: null, speed: null, remaining: null },
        members, spares: [], sparesWanted: null, mounts: [], operations: [{ kind: "array.delete", text: "Delete the array", allowed: true, reasons: [] }], ...more,
    };
};

export const condition = (more) => ({
    id: "array-degraded:md_d0", kind: "array-degraded", object: "md_d0", subject: "md_d0", uuid: "1:2", level: "critical", text: "1 of 2 members works",
    next: "do it", disks: [], canLose: 0, since: "2026-01-01T00:00:00.000Z", acknowledged: null, ...more,
});

export const gone = (name) => ({ id: `ata-${name}`, name, serial: `S-${name}`, model: "M", path: "1:0:0:0", state: "gone" });

export const event = (number, more) => ({
    id: `e-${number}`, time: "2026-01-01T00:00:00.000Z", severityKey: "information", objectName: "sda", sourceName: null, failedMembers: [], text: `event ${number}`,
    count: 1, last: "2026-01-01T00:00:00.000Z", ...more,
});

export const machine = (disks, arrays = [], conditions = []) => ({
    revision: 1, cursor: "e-0", disks, arrays, controllers: [],
    levels: [{ level: "raid1", text: "RAID 1 (mirror)", minimumDisks: 2, maximumDisks: 2, stripes: [], defaultStripe: null },
        { level: "raid0", text: "RAID 0 (striping)", minimumDisks: 2, maximumDisks: 8, stripes: [4096, 65536], defaultStripe: 65536 }],
    health: { level: conditions.length ? "critical" : "ok", headline: conditions.length ? "1 array degraded" : "all in order", notes: [], conditions },
});

export const settings = { etag: '"1"', data: { pollInterval: 10, spares: {}, limits: { pollInterval: { least: 2, most: 255 }, spares: { least: 0, most: 32 } } } };

export const stateOf = (what, more) => ({
    ...INITIAL, machine: what, settings, channels: [], link: { state: "up", readOnly: false, problem: null, heard: 1000 }, now: 1000, ...more,
});
