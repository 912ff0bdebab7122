// Numbers and times as people read them.

export const UNKNOWN = "not known";

/** Bytes, as rvxctl shows them: whole units below a gibibyte, tenths above. */
export function size(bytes) {
    if (bytes == null) return UNKNOWN;
    if (bytes < 1024) return `${bytes} B`;
    if (bytes < 2 ** 20) return `${Math.floor(bytes / 1024)} KiB`;
    const mebibytes = Math.floor(bytes / 2 ** 20);
    if (mebibytes < 1024) return `${mebibytes} MiB`;
    const gibibytes = mebibytes / 1024;
    return gibibytes < 1023.95 ? `${gibibytes.toFixed(1)} GiB` : `${(gibibytes / 1024).toFixed(1)} TiB`;
}

/** Bytes per second. */
export const speed = (bytes) => bytes == null ? UNKNOWN : `${size(bytes)}/s`;

/** A ratio from 0 to 1; what has not ended is not 100 %. */
export const percent = (ratio) =>
    ratio == null ? UNKNOWN : `${ratio >= 1 ? "100" : (Math.floor(ratio * 1000) / 10).toFixed(1)} %`;

const SPANS = [["y", 365 * 86400], ["d", 86400], ["h", 3600], ["min", 60], ["s", 1]];

/** Seconds, in the two largest units that they have. */
export function duration(seconds) {
    if (seconds == null) return UNKNOWN;
    let rest = Math.round(seconds);
    const first = SPANS.findIndex(([, length]) => rest >= length);
    if (first < 0) return "0 s";
    return SPANS.slice(first, first + 2).map(([unit, length]) => {
        const count = Math.floor(rest / length);
        rest %= length;
        return count ? `${count} ${unit}` : null;
    }).filter(Boolean).join(" ");
}

const two = (number) => String(number).padStart(2, "0");

/** A time of rvxd's, in the browser's time zone. */
export function moment(text) {
    if (text == null) return UNKNOWN;
    const time = new Date(text);
    return `${time.getFullYear()}-${two(time.getMonth() + 1)}-${two(time.getDate())} ` +
        `${two(time.getHours())}:${two(time.getMinutes())}:${two(time.getSeconds())}`;
}

/** "1 disk", "2 disks". */
export const count = (number, one, more = `${one}s`) => `${number} ${number === 1 ? one : more}`;

export const listed = (texts) => texts.length ? texts.join(", ") : "none";

export const capital = (text) => text.slice(0, 1).toUpperCase() + text.slice(1);

/** What rvxd says of a reason, without the plug-in's number in front, which is for programs. Names stay as they are. */
export function reason({ text, object }) {
    const words = text.replace(/^\d+ [A-Z][A-Z_]*: /, "");
    return words.startsWith(object) ? words : capital(words);
}
