// The way to rvxd: the one module that knows Cockpit's channels.

/** There is no answer. `problem` is Cockpit's word for it (not-found, access-denied, disconnected ...), `told` what people read. */
export class LinkError extends Error {
    constructor(problem, told = `rvxd cannot be reached: ${problem}`) {
        super(told);
        this.problem = problem;
    }
}

const decoder = new TextDecoder();
const encoder = new TextEncoder();

/** After which a request has failed, as Cockpit never tells of an answer that breaks off. Longer than rvxd itself waits. Milliseconds. */
const DEADLINE = 90000;

const OPTIONS = { superuser: "try", binary: true };

/**
 * Requests and the event stream over rvxd's sockets. `socket` takes changes; the one beside it, which has "-ro" in its
 * name, does not, and is taken where the person's rights do not reach further.
 */
export class Transport {
    #cockpit;
    #sockets;
    #socket;

    constructor(cockpit, socket) {
        this.#cockpit = cockpit;
        this.#sockets = [socket, socket.replace(/(\.sock)?$/, "-ro$1")];
        this.#socket = socket;
    }

    /** Finds the socket that lets this person in, and returns what rvxd says of itself there. */
    async open() {
        for (const socket of this.#sockets) {
            this.#socket = socket;
            try {
                return await this.call("GET", "/");
            } catch (error) {
                if (error.problem !== "access-denied" || socket === this.#sockets.at(-1)) throw error;
            }
        }
    }

    /** {status, etag, data} of any answer; throws LinkError where there is none. */
    call(method, path, body, headers, deadline = DEADLINE) {
        const http = this.#cockpit.http({ unix: this.#socket, ...OPTIONS });
        const json = body === undefined ? {} : { "Content-Type": "application/json" };
        let head = {};
        let timer;
        return new Promise((resolve, reject) => {
            timer = setTimeout(() => reject(new LinkError("timeout")), deadline);
            http.request({
                method, path, headers: { ...json, ...headers }, body: body === undefined ? "" : encoder.encode(JSON.stringify(body)),
            }).response((status, fields) => {
                head = { status, fields };
            }).then(resolve, (error, data) => error.problem ? reject(new LinkError(error.problem)) : resolve(data));
        }).then((data) => {
            if (!head.status) throw new LinkError("protocol-error");
            const text = data?.length ? decoder.decode(data) : "";
            const etag = Object.entries(head.fields).find(([name]) => name.toLowerCase() === "etag")?.[1];
            return { status: head.status, etag, data: text ? JSON.parse(text) : null };
        }).finally(() => {
            clearTimeout(timer);
            http.close();
        });
    }

    /**
     * Opens the event stream behind the event `last`. `onBytes` is given what comes, `onEnd` once a problem or null;
     * the function that is returned ends it without a word. A raw channel: Cockpit's HTTP misses the server's end.
     */
    stream(last, onBytes, onEnd) {
        const channel = this.#cockpit.channel({ payload: "stream", unix: this.#socket, ...OPTIONS });
        channel.onmessage = (event, data) => onBytes(data);
        channel.onclose = (event, options) => onEnd(options.problem ?? null);
        // HTTP/1.0: an answer without chunks.
        channel.send(encoder.encode("GET /v1/events HTTP/1.0\r\nHost: localhost\r\nAccept: text/event-stream\r\n" +
            `Last-Event-ID: ${last}\r\n\r\n`));
        return () => {
            channel.onmessage = channel.onclose = null;
            channel.close();
        };
    }
}
