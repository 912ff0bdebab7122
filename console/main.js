// The page comes together: connection, store, screen, address and the badge in Cockpit's menu.

import { Actions } from "./actions.js";
import { element, show } from "./element.js";
import { banner, navigation } from "./parts.js";
import { array } from "./pages/array.js";
import { dialog } from "./pages/dialog.js";
import { disk } from "./pages/disk.js";
import { events } from "./pages/events.js";
import { operations } from "./pages/operations.js";
import { overview } from "./pages/overview.js";
import { replace } from "./pages/replace.js";
import { settings } from "./pages/settings.js";
import { Session, mark } from "./session.js";
import { Store } from "./store.js";
import { Transport } from "./transport.js";

const PAGES = { array, disk, events, replace, settings };

const { cockpit } = window;
const store = new Store();
const transport = new Transport(cockpit, cockpit.manifests.rvx.config.socket);
const session = new Session(transport, store);
const actions = new Actions(store, transport, session);
const root = document.getElementById("page");

/** Everything, as a tree of what is known. */
function page(state) {
    const [first, id] = state.route;
    const content = Object.hasOwn(PAGES, first ?? "") ? PAGES[first] : overview;
    return element("div", { class: "frame", key: "frame" },
        element("div", { inert: state.dialog !== null, key: "behind" },
            navigation(state, actions), banner(state),
            element("div", { class: "columns" },
                element("main", { tabindex: "-1", key: state.route.join("/") }, state.machine ? content(state, actions, id)
                    : element("p", { class: "waiting" }, "Asking rvxd...")),
                operations(state, actions))),
        dialog(state, actions));
}

let isDrawn = true;
let opener = null;    // what had the focus before the dialog
let drawn = null;     // the address that is shown

function draw() {
    isDrawn = true;
    const { state } = store;
    const hadDialog = document.getElementById("dialog") !== null;
    if (state.dialog && !hadDialog) opener = document.activeElement?.id;
    try {
        show(root, page(state));
    } catch (error) {
        // A page that stands still looks as if all went on.
        show(root, element("p", { class: "banner critical", role: "alert" }, `This page cannot be shown: ${error.message}. `, element("a", { href: "#/" }, "Overview")));
        console.error(error);
    }
    // There is none, though it is open, where the page could not be shown.
    const shown = document.getElementById("dialog");
    if (!state.dialog && hadDialog) (document.getElementById(opener) ?? document.querySelector("main"))?.focus({ preventScroll: true });
    // What was pressed may be gone with its step: the keyboard goes on in the dialog.
    if (shown && !shown.contains(document.activeElement)) shown.focus();
    if (drawn !== null && drawn !== state.route) {
        document.querySelector("main")?.focus({ preventScroll: true });
        scrollTo(0, 0);
    }
    drawn = state.route;
    document.title = `${document.querySelector("h1")?.textContent ?? ""} - RAID`;
    if (state.machine) mark("rvx:painted");
    tell(state);
}

store.listen(() => {
    // A burst of news is drawn once; a page that is not looked at is drawn too, for the menu's badge.
    if (isDrawn) {
        isDrawn = false;
        setTimeout(draw, 0);
    }
});

// Whoever types and presses at once means the page as it is now, with what was typed.
for (const type of ["keydown", "click", "change", "submit"]) window.addEventListener(type, () => isDrawn || draw(), true);

const BADGES = { warning: "warning", critical: "error", unknown: "error" };
let told;

/** The badge beside "RAID" in Cockpit's menu, also while another page is looked at. */
function tell({ machine, link }) {
    // What was critical is no better for being out of sight.
    const type = BADGES[machine?.health.level] ?? (link.state === "away" ? "warning" : null);
    const title = link.state === "away" ? "rvxd does not answer" : machine?.health.headline;
    const status = JSON.stringify([type, title]);
    if (status === told) return;
    told = status;
    cockpit.transport.wait(() => cockpit.transport.control("notify", { page_status: type && { type, title } }));
}

/** Cockpit's choice of light and dark; "auto" is the browser's. */
function dress() {
    const style = localStorage.getItem("shell:style") ?? "auto";
    const isDark = style === "dark" || (style === "auto" && matchMedia("(prefers-color-scheme: dark)").matches);
    document.documentElement.classList.toggle("dark", isDark);
}

window.addEventListener("storage", dress);
window.addEventListener("cockpit-style", dress);
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", dress);
dress();

// A dialog belongs to the page that it was opened on.
function travel() {
    let route = [];
    try {
        route = cockpit.location.path;
    } catch {
        // Somebody wrote an address that is none.
    }
    store.set({ route, dialog: null });
    // No stream tells of these.
    if (route[0] === "settings" && store.state.link.state === "up")
        Promise.all([session.readSettings(), session.readChannels()]).catch(() => null);
}
cockpit.addEventListener("locationchanged", travel);
travel();

// Other rights are another socket. The first word about them is no change.
const permission = cockpit.permission({ admin: true });
let { allowed } = permission;
permission.addEventListener("changed", () => {
    if (allowed !== null && allowed !== permission.allowed) session.connect();
    ({ allowed } = permission);
});

// The age of what is shown grows while rvxd is away.
setInterval(() => {
    if (store.state.link.state === "away") store.set({ now: Date.now() });
}, 1000);

session.connect();
