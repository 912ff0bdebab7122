// Keeps the store like rvxd: first the whole state, then the stream from exactly there, and anew whenever it breaks.

import { LinkError } from "./transport.js";
import { StreamParser } from "./parser.js";
import { EVENTS_LIMIT, place, withCondition, withEvents, withOperation, withOperations } from "./store.js";

/** rvxd beats every 5 seconds; a stream that is silent for so long is dead. Milliseconds. */
const SILENCE = 30000;
const SILENT = "nothing was heard for 30 seconds";
/** Between one try and the next. */
const PAUSE = 1000;

/** The browser keeps each mark for ever: only the last one is of use. */
export function mark(name) {
    performance.clearMarks(name);
    performance.mark(name);
}

/** What comes from outside, so that a test can be there instead. */
const WORLD = {
    now: () => Date.now(),
    after: (milliseconds, what) => setTimeout(what, milliseconds),
    cancel: (timer) => clearTimeout(timer),
    mark,
};

export class Session {
    #transport;
    #store;
    #world;
    #end = null;         // of the stream that is open
    #timer = null;       // of the next try, or of the silence
    #turn = 0;           // tries so far: what an earlier one still answers counts no more
    #etag;
    #reading = null;     // the state that is being read; "again": and is another one by now
    #hasHistory = false;

    constructor(transport, store, world = WORLD) {
        this.#transport = transport;
        this.#store = store;
        this.#world = world;
    }

    /** Connects, or connects anew: with other rights, say. Never throws; the store tells what came of it. */
    async connect() {
        const turn = ++this.#turn;
        this.#stop();
        this.#reading = null;
        this.#timer = this.#world.after(SILENCE, () => this.#lose(turn, new LinkError(SILENT)));
        try {
            const root = await this.#transport.open();
            if (turn !== this.#turn) return;
            this.#etag = undefined;
            const machine = await this.#read("/v1/state");
            const [settings, channels] = await Promise.all(["/v1/settings", "/v1/notify"].map((path) => this.#read(path)));
            if (turn !== this.#turn) return;
            this.#etag = machine.etag;
            this.#world.mark("rvx:state");
            this.#store.set((state) => ({
                machine: machine.data,
                settings: { etag: settings.etag, data: settings.data },
                channels: channels.data.channels,
                cursor: state.cursor ?? machine.data.cursor,
                link: { state: "up", readOnly: root.data.readOnly, problem: null, heard: this.#world.now() },
            }));
            this.#follow(turn);
            if (!this.#hasHistory) await this.#readHistory(turn);
        } catch (error) {
            if (turn === this.#turn) this.#lose(turn, error);
        }
    }

    /** Reads the channels anew: what they delivered is told by no stream. */
    async readChannels() {
        const { data } = await this.#read("/v1/notify");
        this.#store.set({ channels: data.channels });
    }

    async readSettings() {
        const { etag, data } = await this.#read("/v1/settings");
        this.#store.set({ settings: { etag, data } });
    }

    async #read(path, headers) {
        const answer = await this.#transport.call("GET", path, undefined, headers);
        if (answer.status >= 400) throw new LinkError("status", answer.data?.detail ?? `rvxd answered with status ${answer.status}`);
        return answer;
    }

    /** The last events from before the stream, page by page; the stream may tell some of them too. */
    async #readHistory(turn) {
        const { epoch, number } = place(this.#store.state.cursor);
        const first = Math.max(0, number - EVENTS_LIMIT);
        let since = `${epoch}-${first}`;
        this.#store.set({ hasOlder: first > 0 });
        for (let more = true; more;) {
            const { data } = await this.#read(`/v1/events?limit=1000&since=${encodeURIComponent(since)}`);
            if (turn !== this.#turn) return;
            this.#store.set((state) => ({ ...withEvents(state, data.events), hasOlder: state.hasOlder && !data.reset }));
            more = data.more && data.cursor !== since;
            since = data.cursor;
        }
        this.#hasHistory = true;
    }

    #follow(turn) {
        const parser = new StreamParser();
        const current = (what) => (...words) => {
            if (turn !== this.#turn) return;
            try {
                what(...words);
            } catch (error) {
                this.#lose(turn, error);
            }
        };
        this.#end = this.#transport.stream(this.#store.state.cursor, current((bytes) => {
            this.#listen(turn);
            for (const frame of parser.feed(bytes)) this.#take(turn, frame);
        }), current((problem) => {
            throw new LinkError(problem ?? "the stream has ended");
        }));
        this.#listen(turn);
    }

    /** Something was heard: the silence begins anew. */
    #listen(turn) {
        this.#world.cancel(this.#timer);
        this.#timer = this.#world.after(SILENCE, () => this.#lose(turn, new LinkError(SILENT)));
        this.#store.set((state) => ({ link: { ...state.link, heard: this.#world.now() } }));
    }

    #take(turn, { status, beat, event, id, data }) {
        if (status !== undefined) {
            if (status !== 200) throw new LinkError(`status ${status}`);
            this.#catchUp(turn).catch((error) => this.#lose(turn, error));
        }
        if (beat) this.#readHealth(turn).catch((error) => this.#lose(turn, error));
        if (id) this.#store.set({ cursor: id });
        switch (event) {
            case "event":
                this.#store.set((state) => withEvents(state, [data]));
                break;
            case "operation":
                this.#store.set((state) => withOperation(state, data));
                break;
            case "condition":
                this.#store.set((state) => withCondition(state, data));
                if (data.kind === "notify-failing") this.readChannels().catch(() => null);
                this.#readState(turn);
                break;
            case "state":
                this.#readState(turn);
                break;
            case "reset":
                // Whatever was counted counts no more.
                this.#store.set({ events: [], operations: [], cursor: data.cursor });
                this.#hasHistory = false;
                Promise.all([this.#catchUp(turn), this.#readHistory(turn)]).catch((error) => this.#lose(turn, error));
                break;
        }
    }

    /** Only events are kept for who was not there: what else changed before the stream began is read once it has. */
    async #catchUp(turn) {
        this.#readState(turn);
        const { data } = await this.#read("/v1/operations");
        if (turn === this.#turn) this.#store.set((state) => withOperations(state, data.operations));
    }

    /** The state tells how the machine was at the last look; this, also that nobody has looked for long. */
    async #readHealth(turn) {
        const { machine } = this.#store.state;
        const { data: health } = await this.#read("/v1/health");
        // What came meanwhile is newer.
        if (turn === this.#turn && this.#store.state.machine === machine) this.#store.set({ machine: { ...machine, health } });
    }

    /** One reading at a time; news that come meanwhile lead to one more. */
    async #readState(turn) {
        if (this.#reading) {
            this.#reading = "again";
            return;
        }
        try {
            do {
                this.#reading = "once";
                const { status, etag, data } = await this.#read("/v1/state", this.#etag ? { "If-None-Match": this.#etag } : {});
                if (turn !== this.#turn) break;
                if (status === 304) continue;
                this.#etag = etag;
                this.#world.mark("rvx:state");
                this.#store.set({ machine: data });
            } while (this.#reading === "again");
        } catch (error) {
            this.#lose(turn, error);
        }
        if (turn === this.#turn) this.#reading = null;
    }

    #stop() {
        this.#world.cancel(this.#timer);
        this.#end?.();
        this.#end = this.#timer = null;
    }

    #lose(turn, error) {
        if (turn !== this.#turn) return;
        ++this.#turn;
        this.#stop();
        this.#store.set((state) => ({ link: { ...state.link, state: "away", problem: error.message } }));
        this.#timer = this.#world.after(PAUSE, () => this.connect());
    }
}
