// What happened, the newest first.

import { element } from "../element.js";
import { moment } from "../format.js";
import { mark, table } from "../parts.js";

const SEVERITIES = { information: "All", warning: "Warnings and errors", error: "Errors" };
const LEVELS = { information: "unknown", warning: "warning", error: "critical" };

export function events(state, actions) {
    const { severity, object } = state.filter;
    const order = Object.keys(SEVERITIES);
    const chosen = state.events.filter((event) => order.indexOf(event.severityKey) >= order.indexOf(severity) &&
        (object === "" || [event.objectName, event.sourceName, ...event.failedMembers].some((name) => name?.includes(object))));
    return [
        element("h1", null, "Events"),
        element("div", { class: "tools" },
            element("label", null, "Severity", element("select", { value: severity, onchange: (event) => actions.filter({ severity: event.target.value }) },
                order.map((word) => element("option", { value: word }, SEVERITIES[word])))),
            element("label", null, "Object", element("input", {
                type: "search", value: object, placeholder: "sda, md_d0", oninput: (event) => actions.filter({ object: event.target.value.trim() }),
            }))),
        table("Events", [
            ["Time", (event) => moment(event.time)],
            ["Severity", (event) => mark(LEVELS[event.severityKey], event.severityKey)],
            ["Object", (event) => event.objectName],
            ["What happened", (event) => event.count > 1 ? `${event.text} (${event.count} times, last ${moment(event.last)})` : event.text],
        ], [...chosen].reverse(), {
            empty: state.events.length ? "No event is like this." : "Nothing has happened yet.", key: (event) => event.id, isTitled: false,
        }),
        state.hasOlder && state.events.length > 0 && element("p", { class: "empty" },
            `The list begins at ${moment(state.events[0].time)}. "rvxctl events" shows all that are kept.`),
    ];
}
