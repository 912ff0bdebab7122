// What the console knows, and how news change it: values that are never changed in place, and functions without a clock
// or a connection.

/** The most events that are kept and shown. */
export const EVENTS_LIMIT = 1000;

/**
 * What everything begins with.
 * - link: how rvxd is reached: {state: "connecting" | "up" | "away", readOnly, problem, heard: when it was heard last}
 * - machine: /v1/state; null before the first one
 * - events: oldest first, `cursor` behind the last one that the stream told; hasOlder: rvxd may have more
 * - operations: as /v1/operations lists them; settings: {etag, data}; channels: as /v1/notify lists them
 * - route: the words of the address; now: milliseconds, as `heard`
 * - onlyProblems, filter: what is chosen of lists; dialog: see DIALOG in actions.js; drawer: whether operations are shown
 * - drafts: what is typed into settings and not saved; notes: what came of the last try, by field
 */
export const INITIAL = {
    link: { state: "connecting", readOnly: false, problem: null, heard: null },
    machine: null,
    events: [],
    cursor: null,
    hasOlder: false,
    operations: [],
    settings: null,
    channels: null,
    route: [],
    now: 0,
    onlyProblems: false,
    filter: { severity: "information", object: "" },
    dialog: null,
    drawer: false,
    drafts: {},
    notes: {},
};

/** Holds the state and tells who wants to know that it is another one. */
export class Store {
    #state;
    #listeners = [];

    constructor(state = INITIAL) {
        this.#state = state;
    }

    get state() {
        return this.#state;
    }

    /** `change` has the fields that become others, or makes them of the state. */
    set(change) {
        this.#state = { ...this.#state, ...(typeof change === "function" ? change(this.#state) : change) };
        for (const listener of this.#listeners) listener(this.#state);
    }

    listen(listener) {
        this.#listeners.push(listener);
    }
}

/** The epoch and the number of an event's id. */
export function place(id) {
    const [epoch, number] = id.split("-");
    return { epoch, number: Number(number) };
}

/** Takes in events, of which some may be known already; those of another epoch than the newest go. */
export function withEvents(state, events) {
    if (!events.length) return {};
    const byId = new Map([...state.events, ...events].map((event) => [event.id, event]));
    const { epoch } = place(events.at(-1).id);
    const kept = [...byId.values()].filter((event) => place(event.id).epoch === epoch)
        .sort((one, other) => place(one.id).number - place(other.id).number);
    return { events: kept.slice(-EVENTS_LIMIT), hasOlder: state.hasOlder || kept.length > EVENTS_LIMIT };
}

/** Takes in an operation that is another one, or new. */
export function withOperation(state, operation) {
    const isKnown = state.operations.some((one) => one.id === operation.id);
    return {
        operations: isKnown ? state.operations.map((one) => one.id === operation.id ? operation : one)
            : [...state.operations, operation],
    };
}

const RANKS = { queued: 0, running: 1, done: 2, failed: 2, interrupted: 2 };

/** Takes in a whole list of operations, which may be older than what was told meanwhile: none goes back. */
export function withOperations(state, list) {
    // Where rvxd forgot its operations, their numbers begin anew.
    const known = new Map(state.operations.map((one) => [`${one.id} ${one.created}`, one]));
    const further = (one) => {
        const other = known.get(`${one.id} ${one.created}`);
        return other && RANKS[other.state] > RANKS[one.state] ? other : one;
    };
    return { operations: [...list.map(further), ...state.operations.filter((one) => list.every((listed) => listed.created < one.created))] };
}

/** Takes in a condition that began, was acknowledged or is over; the next state tells the headline that belongs to it. */
export function withCondition(state, condition) {
    if (!state.machine) return {};
    const others = state.machine.health.conditions.filter((one) => one.id !== condition.id);
    const conditions = condition.level === "ok" ? others
        : state.machine.health.conditions.some((one) => one.id === condition.id)
            ? state.machine.health.conditions.map((one) => one.id === condition.id ? condition : one)
            : [...others, condition];
    return { machine: { ...state.machine, health: { ...state.machine.health, conditions } } };
}

/** The array that has this name or UUID. */
export const arrayOf = (state, id) =>
    state.machine?.arrays.find((array) => array.uuid === id) ?? state.machine?.arrays.find((array) => array.name === id);

/** The disk that has this id or name. */
export const diskOf = (state, id) =>
    state.machine?.disks.find((disk) => disk.id === id) ?? state.machine?.disks.find((disk) => disk.name === id);

/** Whether two descriptions are of one disk. A kernel name in place of an id is the next disk's as well. */
export function isSame(one, other) {
    if (one.serial && other.serial) return one.serial === other.serial;
    return one.id !== null && one.id === other.id && one.id !== one.name;
}

/** What else than this array is on a disk: its partitions can be members of others, too. */
export function otherUsers(state, disk, array) {
    const arrays = state.machine.arrays.filter((one) => one.members.some((member) => member.whole === disk.id)).map((one) => one.name);
    return [...new Set([...disk.usedBy, ...arrays])].filter((user) => user !== array.name);
}

/** Why the disks of an array are left alone; null where they need not be. */
export const untouchable = (array) => array?.redundancy.canLose === null
    ? `${array.name} has failed: what is on its disks may be needed to bring it back.` : null;

/** The name of the array that has let go of this disk, because it failed there; null where none has. */
export function distrust(state, disk) {
    return state.machine?.health.conditions.find((one) => one.disks.some((lost) => lost.state === "gone" && isSame(lost, disk)))?.subject ?? null;
}

/** Disks that can be made a member or a spare now. */
export const readyDisks = (state) =>
    state.machine.disks.filter((disk) => disk.operations.some((offer) => offer.kind === "spare.add" && offer.allowed));

const LEVELS = ["ok", "warning", "critical"];

/** Conditions, those of one subject together, the worst first: [{subject, level, conditions}]. */
export function matters(state) {
    const bySubject = new Map();
    for (const condition of state.machine?.health.conditions ?? [])
        bySubject.set(condition.subject, [...(bySubject.get(condition.subject) ?? []), condition]);
    const worst = (conditions) => Math.max(...conditions.map((one) => LEVELS.indexOf(one.level)));
    return [...bySubject].map(([subject, conditions]) => ({ subject, conditions, level: LEVELS[worst(conditions)] }))
        .sort((one, other) => LEVELS.indexOf(other.level) - LEVELS.indexOf(one.level));
}

/** Why nothing can be changed now; null when it can. */
export function obstacle(state) {
    if (state.link.state !== "up") return "rvxd does not answer.";
    if (state.link.readOnly) return "You may look, but not change: turn on administrative access.";
    return null;
}

export const isPending = (operation) => operation.state === "queued" || operation.state === "running";
