// A change from its form to its end: what it would do to which disks, the person's yes, and what came of it.

import { element } from "../element.js";
import { listed, size } from "../format.js";
import { activityBar, button, left, named, outcome, reasons, stateMark } from "../parts.js";
import { arrayOf, diskOf, isPending, obstacle } from "../store.js";
import { creation } from "./create.js";
import { pullText } from "./replace.js";

export function dialog(state, actions) {
    const { dialog: open } = state;
    if (!open) return null;
    const operation = state.operations.find((one) => one.id === open.operation);
    return element("div", { class: "veil", key: "veil" },
        element("div", {
            id: "dialog", role: "dialog", "aria-modal": "true", "aria-labelledby": "dialog-title", tabindex: "-1",
            onkeydown: (event) => {
                if (event.key === "Escape") actions.close();
            },
        },
        element("h2", { id: "dialog-title" }, open.title),
        operation ? ended(state, actions, operation) : [
            open.form && !open.plan && creation(state, actions),
            open.choice && choice(actions, open, open.isBusy && open.plan),
            open.isBusy && !open.plan && element("p", { role: "status" }, "Asking what it would do..."),
            open.plan ? planned(state, actions, open) : [problem(open), !open.form && element("div", { class: "tools", key: "end" },
                open.problem && button("again", "Ask again", () => actions.plan(), { kind: "primary" }), cancel(actions))],
        ]));
}

const cancel = (actions) => button("cancel", "Cancel", () => actions.close());

function choice(actions, { choice: { label, options, field }, request }, isFixed) {
    return element("label", { class: "choice", key: "choice" }, label, element("select", {
        value: request?.[field] ?? "", disabled: Boolean(isFixed), onchange: (event) => actions.choose(event.target.value),
    }, element("option", { value: "" }, "Choose..."), options.map(({ value, text }) => element("option", { value }, text))));
}

export const problem = ({ problem: what }) => what && element("div", { class: "problem", role: "alert", key: "problem" },
    element("p", null, what.text), element("ul", null, reasons(what.reasons.filter((one) => one.text !== what.text))),
    what.isUnknown && element("p", null, "Whether it was begun is not known. Ask again: it is done once all the same."),
    what.isStale && element("p", null, "Nothing was done. Look at a new plan."));

/** The plan as rvxd tells it, and what the person has to do before it is carried out. */
function planned(state, actions, open) {
    const { plan, mustType, mounts } = open;
    const asking = open.isBusy ? "It is being asked for." : null;
    const back = open.form && button("back", "Back", () => actions.back(), { why: asking, isQuiet: true });
    if (!plan.allowed)
        return [
            mounts.length > 0 && element("p", { key: "mounts" }, `It is used at ${listed(mounts)}. Unmount it first.`),
            element("div", { class: "problem", role: "alert", key: "forbidden" }, element("p", null, "This is not possible now:"),
                element("ul", null, plan.reasons.length ? reasons(plan.reasons) : element("li", null, plan.error.message))),
            element("div", { class: "tools", key: "end" }, back, cancel(actions)),
        ];
    const isConfirmed = mustType ? open.typed === mustType : plan.questions.length === 0 || open.agreed;
    const why = obstacle(state) ?? (isConfirmed ? null : mustType ? `Type ${mustType} first.` : "Say first that you want it.");
    const { isUnknown, isStale } = open.problem ?? {};
    return [
        element("p", { class: "lead", key: "title" }, `This will ${plan.title}.`),
        element("ul", { class: "consequences", key: "consequences" }, plan.consequences.map((one) => element("li", null, one))),
        plan.disks.length > 0 && element("ul", { class: "identities", key: "disks" }, plan.disks.map((one) => element("li", { key: one.id },
            planDisk(state, one), one.state && [" ", stateMark(one.state)],
            element("div", null, one.contents.length ? `holds: ${one.contents.join(", ")}` : "nothing known on it")))),
        plan.questions.map((one) => element("p", { class: "question" }, one)),
        mustType ? element("label", { class: "choice", key: "confirm" }, `Type ${mustType} to confirm`, element("input", {
            type: "text", autocomplete: "off", spellcheck: "false", value: open.typed, oninput: (event) => actions.type(event.target.value),
        })) : plan.questions.length > 0 && element("label", { key: "confirm" }, element("input", {
            type: "checkbox", checked: open.agreed, onchange: (event) => actions.agree(event.target.checked),
        }), "I have read this, and want it"),
        problem(open),
        element("div", { class: "tools", key: "end" }, back,
            isStale ? button("again", "Make a new plan", () => actions.plan(), { kind: "primary" })
                : button("carry-out", open.isBusy ? "Asking..." : isUnknown ? "Ask again" : WORDS[plan.kind], () => actions.carryOut(),
                    { why: asking ?? why, kind: plan.questions.length ? "danger" : "primary" }),
            cancel(actions)),
    ];
}

/** A disk of a plan, with the place that it has now; an array has neither number nor place. */
const planDisk = (state, one) => one.state === null ? [element("strong", null, one.device.replace("/dev/", "")), one.size !== null && ` ${size(one.size)}`]
    : named({ ...one, path: diskOf(state, one.id)?.path });

const WORDS = {
    "array.create": "Create", "array.delete": "Delete", "spare.add": "Add", "spare.release": "Release",
    "rebuild.start": "Start", "rebuild.cancel": "Cancel the rebuild", rescan: "Look",
};

function ended(state, actions, operation) {
    const array = arrayOf(state, state.dialog.request.array);
    const [disk] = operation.kind === "spare.release" && operation.state === "done" ? state.dialog.plan?.disks ?? [] : [];
    const now = disk?.state === "failed" && diskOf(state, disk.id);
    return [
        now && now.usedBy.length === 0 && element("p", { class: "lead", key: "pull" }, pullText(now)),
        element("p", { role: "status", key: "outcome" }, stateMark(operation.state), " ", outcome(operation)),
        left(operation),
        operation.kind === "spare.add" && array?.activity.progress != null &&
            activityBar(array),
        isPending(operation) && element("p", { key: "goes-on" }, "It goes on also when this is closed: see Operations."),
        element("div", { class: "tools", key: "end" }, button("done", "Close", () => actions.close(), { kind: "primary" })),
    ];
}
