// What a person can do: each asks rvxd, and the store tells what came of it.

import { obstacle, withCondition, withOperation } from "./store.js";

/** A dialog as it opens; `changes` make it one of a kind. */
const DIALOG = {
    title: "",
    form: null,        // of a creation: {level, disks, stripe}
    choice: null,      // what is chosen before the plan: {label, field, options: [{value, text}]}
    base: null,        // the request that the choice completes
    request: null,     // what the plan is asked for
    mustType: null,    // the name that is typed in place of a tick
    mounts: [],
    plan: null,
    problem: null,     // why there is no plan, or why it was not carried out: {text, reasons, isUnknown, isStale}
    agreed: false,
    typed: "",
    isBusy: false,
    operation: null,   // its id, once it was begun
    key: null,
};

/** A channel has 300 seconds at most, by its own setting. Milliseconds. */
const TEST_DEADLINE = 330000;

/** A problem as rvxd tells it, or as the way there does. */
function problemOf(answer) {
    return { text: answer.data?.detail ?? `rvxd answered with status ${answer.status}`, reasons: answer.data?.reasons ?? [] };
}

/** 128 bits; crypto.randomUUID is missing where Cockpit is reached without TLS. */
function randomKey() {
    return [...crypto.getRandomValues(new Uint8Array(16))].map((byte) => byte.toString(16).padStart(2, "0")).join("");
}

export class Actions {
    #store;
    #transport;
    #session;

    constructor(store, transport, session) {
        this.#store = store;
        this.#transport = transport;
        this.#session = session;
    }

    showOnlyProblems(onlyProblems) {
        this.#store.set({ onlyProblems });
    }

    filter(change) {
        this.#store.set(({ filter }) => ({ filter: { ...filter, ...change } }));
    }

    showOperations(drawer) {
        this.#store.set({ drawer });
    }

    /** A change from its plan to its end; see DIALOG. Without a form or a choice the plan is asked for at once. */
    open(changes) {
        this.#store.set({ dialog: { ...DIALOG, ...changes } });
        if (this.#store.state.dialog.request) return this.plan();
    }

    close() {
        this.#store.set({ dialog: null });
    }

    agree(agreed) {
        this.#dialog({ agreed });
    }

    type(typed) {
        this.#dialog({ typed });
    }

    /** Another form: what was planned of the former one, or is asked for it, counts no more. */
    fill(change) {
        const { form } = this.#store.state.dialog;
        this.back();
        this.#dialog({ form: { ...form, ...change } });
    }

    choose(value) {
        const { choice, base } = this.#store.state.dialog;
        this.back();
        if (value) return this.plan({ ...base, [choice.field]: value });
    }

    /** Back to the form, with all that is in it; what is asked for still, is for nobody. */
    back() {
        this.#dialog({ request: null, plan: null, problem: null, agreed: false, typed: "", isBusy: false });
    }

    /** Asks what the change would do. Nothing is changed. */
    async plan(request = this.#store.state.dialog.request) {
        this.#dialog({ request, plan: null, problem: null, agreed: false, typed: "", isBusy: true, operation: null });
        await this.#answered("POST", "/v1/plans", request, {}, (answer) =>
            answer.status === 200 ? { plan: answer.data, key: randomKey() } : { problem: problemOf(answer) }, {});
    }

    /** Carries out the plan that is shown. Asked again after a lost answer, it is done once all the same. */
    async carryOut() {
        const { plan, key } = this.#store.state.dialog;
        if (obstacle(this.#store.state)) return;
        this.#dialog({ isBusy: true, problem: null });
        await this.#answered("POST", "/v1/operations", { plan: plan.plan, confirm: true }, { "Idempotency-Key": key }, (answer) => {
            // The plan is used up, too old, or not how the machine is; else the same plan may be tried again.
            if (answer.status !== 202) return { problem: { ...problemOf(answer), isStale: [404, 409, 412].includes(answer.status) } };
            // The stream may have told a newer one already.
            if (!this.#store.state.operations.some((one) => one.id === answer.data.id))
                this.#store.set((state) => withOperation(state, answer.data));
            return { operation: answer.data.id };
        }, { isUnknown: true });
    }

    async acknowledge(id) {
        const answer = await this.#noted(`condition:${id}`, "POST", `/v1/conditions/${encodeURIComponent(id)}/acknowledge`, {});
        if (answer) this.#store.set((state) => withCondition(state, answer.data));
    }

    withdraw(id) {
        return this.#noted(`operation:${id}`, "DELETE", `/v1/operations/${id}`);
    }

    draft(change) {
        const [field] = Object.keys(change);
        this.#store.set(({ drafts, notes }) => ({ drafts: { ...drafts, ...change }, notes: { ...notes, [field]: null } }));
    }

    /** Changes settings; `field` is the draft that is saved with it. */
    async save(field, change) {
        const { etag } = this.#store.state.settings;
        const answer = await this.#noted(field, "PUT", "/v1/settings", change, { "If-Match": etag }, "Saved.");
        // Somebody else may have changed them: the next try rests on what they are.
        if (!answer) return this.#session.readSettings().catch(() => null);
        this.#store.set(({ drafts }) => {
            const { [field]: saved, ...others } = drafts;
            return { settings: { etag: answer.etag, data: answer.data }, drafts: others };
        });
    }

    async testChannel(channel) {
        const field = `channel:${channel}`;
        this.#note(field, "Sending...");
        const answer = await this.#noted(field, "POST", "/v1/notify/test", { channel }, {}, null, TEST_DEADLINE);
        if (!answer) return;
        const [result] = answer.data.results;
        this.#note(field, `${result.delivered ? "Delivered" : "Not delivered"}${result.text ? `: ${result.text}` : "."}`);
        await this.#session.readChannels().catch(() => null);  // the session finds out by itself
    }

    #dialog(change) {
        this.#store.set(({ dialog }) => ({ dialog: dialog && { ...dialog, ...change } }));
    }

    #note(field, text) {
        this.#store.set(({ notes }) => ({ notes: { ...notes, [field]: text } }));
    }

    /** Asks for the dialog that is open; where that is another one when the answer comes, the answer is dropped. */
    async #answered(method, path, body, headers, changes, lost) {
        const { plan, request } = this.#store.state.dialog;
        const isSame = () => this.#store.state.dialog?.plan === plan && this.#store.state.dialog.request === request;
        let change;
        try {
            change = changes(await this.#transport.call(method, path, body, headers));
        } catch (error) {
            change = { problem: { text: error.message, reasons: [], ...lost } };
        }
        if (isSame()) this.#dialog({ ...change, isBusy: false });
    }

    /** Asks, and notes beside the field why it did not work; the answer where it did. */
    async #noted(field, method, path, body, headers, done = null, deadline = undefined) {
        let answer;
        try {
            answer = await this.#transport.call(method, path, body, headers, deadline);
        } catch (error) {
            this.#note(field, error.message);
            return null;
        }
        const isDone = answer.status < 400;
        this.#note(field, isDone ? done : problemOf(answer).text);
        return isDone ? answer : null;
    }
}
