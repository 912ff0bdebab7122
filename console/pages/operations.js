// The drawer of operations: what was carried out, runs or waits.

import { element } from "../element.js";
import { moment } from "../format.js";
import { button, left, outcome, stateMark } from "../parts.js";
import { obstacle } from "../store.js";

export function operations(state, actions) {
    if (!state.drawer) return null;
    return element("aside", { id: "drawer", "aria-label": "Operations", key: "drawer" },
        element("h2", null, "Operations"),
        button("close-operations", "Close", () => actions.showOperations(false), { kind: "close" }),
        state.operations.length === 0 && element("p", { class: "empty" }, "Nothing was changed since rvxd keeps account."),
        element("ol", { class: "operations" }, [...state.operations].reverse().map((one) => element("li", { key: one.id },
            element("h3", null, one.title, " ", stateMark(one.state)),
            element("p", null, outcome(one)),
            left(one),
            element("small", null, moment(one.ended ?? one.started ?? one.created)),
            one.state === "queued" && button(`withdraw-${one.id}`, "Withdraw", () => actions.withdraw(one.id), { why: obstacle(state) }),
            state.notes[`operation:${one.id}`] && element("p", { class: "note", role: "status" }, state.notes[`operation:${one.id}`])))));
}
