// The event stream's text, taken apart as it comes.

/** Of a field of rvxd's: more than this is no frame of its. Characters. */
const LIMIT = 1 << 22;

/**
 * Frames of an answer to HTTP/1.0, which has no chunks and ends with the connection: `feed` takes bytes, however they are
 * cut, and returns what is complete: {status} once for the head, {beat: true} for a comment, {event, id, data} for a
 * frame, its `data` parsed. Throws where the stream is none of rvxd's; then the connection is of no more use.
 */
export class StreamParser {
    #decoder = new TextDecoder("utf-8", { fatal: true });
    #text = "";
    #isHead = true;

    feed(bytes) {
        this.#text += this.#decoder.decode(bytes, { stream: true });
        const found = [];
        for (;;) {
            const mark = this.#isHead ? "\r\n\r\n" : "\n\n";
            const end = this.#text.indexOf(mark);
            // What has no end yet has it here at the soonest: so it is the same however the bytes are cut.
            if ((end < 0 ? this.#text.length - mark.length + 1 : end) > LIMIT) throw new Error("A frame of the event stream is too long");
            if (end < 0) return found;
            const part = this.#text.slice(0, end);
            this.#text = this.#text.slice(end + mark.length);
            found.push(this.#isHead ? head(part) : frame(part));
            this.#isHead = false;
        }
    }
}

function head(text) {
    const status = /^HTTP\/1\.[01] ([1-5][0-9]{2})\b/.exec(text);
    if (!status) throw new Error("What answers is no HTTP server");
    return { status: Number(status[1]) };
}

function frame(text) {
    const fields = { event: "message", id: null, data: [] };
    let isComment = true;
    for (const line of text.split("\n")) {
        if (line.startsWith(":") || line === "") continue;
        isComment = false;
        const [, name, value] = /^([^:]*):? ?(.*)$/s.exec(line);
        if (name === "data") fields.data.push(value);
        else if (name === "event" || name === "id") fields[name] = value;
    }
    return isComment ? { beat: true } : { ...fields, data: JSON.parse(fields.data.join("\n")) };
}
