// Numbers and times as people read them.

export const UNKNOWN = "not known";

const UNITS = ["B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"];

/** Bytes, in the unit in which they have at most four digits, as rvxctl shows them. */
export function size(bytes) {
    if (bytes == null) return UNKNOWN;
    let unit = 0;
    let value = bytes;
    // What rounds to 1024 is 1 of the next unit.
    while (value >= 1023.5 && unit < UNITS.length - 1) {
        value /= 1024;
        ++unit;
    }
    return `${unit > 0 && value < 99.95 ? value.toFixed(1) : Math.round(value)} ${UNITS[unit]}`;
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

/** What rvxd says of a reason, without the plug-in's number in front, which is for programs. */
export const reason = (text) => capital(text.replace(/^\d+ [A-Z][A-Z_]*: /, ""));
