"""Each page for whoever sees, hears or types it otherwise, and for many disks."""

import json
import os
import pathlib
import re
import subprocess
import tempfile

from browser import Console, Keys
from client import Case, machine, until

# Where everything is: an array that is used, synchronises and has a spare, one with a failed disk, and free disks.
ROOM = machine("abcdefg", [{"level": "raid1", "members": ["sda", "sdb"], "mount": "/srv/photos", "spares": ["sdg"], "resync": {"done": 1024}},
                           {"level": "raid1", "members": ["sdc", None], "faulty": ["sdd"]}], sync_speed=64)
ROUTES = ["", "array/md_d0", "array/md_d1", "disk/sda", "disk/sdf", "events", "settings", "replace/md_d1", "array/none", "disk/none"]
# What is wrong with how a page is put together; each a line.
FAULTS = """
const faults = [];
const say = (one, what) => faults.push(`${what}: ${one.outerHTML.slice(0, 200)}`);
const ids = [...document.querySelectorAll("[id]")].map((one) => one.id);
for (const one of document.querySelectorAll("[id]")) if (ids.filter((id) => id === one.id).length > 1) say(one, "two with this id");
for (const name of ["aria-describedby", "aria-labelledby", "aria-controls"])
    for (const one of document.querySelectorAll(`[${name}]`))
        if (!document.getElementById(one.getAttribute(name))) say(one, `${name} leads nowhere`);
for (const one of document.querySelectorAll("[aria-disabled=true]")) if (!one.hasAttribute("aria-describedby")) say(one, "disabled without a reason");
for (const one of document.querySelectorAll("[onclick], [style], [tabindex]:not([tabindex='-1'])")) say(one, "not in the markup");
if (document.querySelectorAll("main").length !== 1 || document.querySelectorAll("h1").length !== 1) say(document.body, "not one main and one h1");
return faults;
"""
# Texts that differ too little from what is behind them, and the ratio (WCAG 2.1).
PALE = """
const numbers = (color) => color.match(/[\\d.]+/g).map(Number);
const light = ([red, green, blue]) => [red, green, blue].map((part) => (part /= 255) <= 0.03928 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4)
    .reduce((sum, part, index) => sum + part * [0.2126, 0.7152, 0.0722][index], 0);
const behind = (one) => {
    for (; one; one = one.parentElement) {
        const color = numbers(getComputedStyle(one).backgroundColor);
        if (color[3] !== 0) return color;
    }
    return [255, 255, 255];
};
const pale = new Set();
for (const walk = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT); walk.nextNode();) {
    const one = walk.currentNode.parentElement;
    if (!walk.currentNode.data.trim() || !one.checkVisibility()) continue;
    const [front, back] = [light(numbers(getComputedStyle(one).color)), light(behind(one))];
    const ratio = (Math.max(front, back) + 0.05) / (Math.min(front, back) + 0.05);
    if (ratio < 4.5) pale.add(`${ratio.toFixed(1)} ${one.outerHTML.slice(0, 120)}`);
}
return [...pale];
"""


class Pages(Case):
    def each(self, page, routes=ROUTES):
        """On each page in turn, and in a dialog."""
        for route in routes:
            page.open(route)
            page.find("heading")
            yield route
        page.open()
        page.click("button", "Create an array...")
        page.click("radio")
        yield "dialog"
        page.press(Keys.ESCAPE)
        page.gone("dialog")

    def test_roles_and_names(self):
        """A button that is an unnamed picture to who hears the page; a reason that belongs to nothing."""
        with Console(ROOM) as page:
            for route in self.each(page):
                self.assertEqual(page.run(FAULTS), [], route)
                self.assertEqual(len(page.all("link", None, ("navigation", "RAID"))), 3 if route != "dialog" else 0, route)
                for role in ("button", "checkbox", "combobox", "link", "progressbar", "radio", "region", "table", "textbox"):
                    self.assertEqual([one.get_attribute("outerHTML") for one in page.all(role) if not one.accessible_name], [], (route, role))

    def test_narrow(self):
        """A telephone on which every line has to be pushed aside."""
        with Console(ROOM, width=320, height=600) as page:
            for route in self.each(page):
                self.assertLessEqual(page.run("return document.documentElement.scrollWidth"), 320, route)
            page.click("button", "Operations")
            page.find("complementary", "Operations")
            self.assertLessEqual(page.run("return document.documentElement.scrollWidth"), 320)

    def test_light_and_dark(self):
        """Grey on grey, in the one of the two that nobody looked at."""
        with Console(ROOM) as page:
            brightness = lambda: sum(map(int, re.findall(r"\d+", page.run("return getComputedStyle(document.body).backgroundColor"))[:3]))
            for dark in (False, True):
                page.dark(dark)
                for route in self.each(page):
                    self.assertEqual((page.run(PALE), brightness() < 384), ([], dark), route)
            # What Cockpit was told counts more than the system.
            page.run("localStorage.setItem('shell:style', 'light')")
            page.reload()
            page.find("heading")
            self.assertGreater(brightness(), 384)

    def test_what_a_disk_calls_itself_stays_text(self):
        """A disk with a name that runs in the browser of whoever looks."""
        bad = "<img src=x onerror=document.title='bad'>"
        one = machine("ab", ["ab"])
        one["disks"][0] |= {"model": bad, "vendor": "<b>", "serial": "<script>1</script>"}
        one["arrays"][0]["mount"] = f"/srv/{bad}"
        with Console(one) as page:
            told = page.daemon.get("/v1/disks")["disks"][0]
            self.assertIn("<img", told["model"])
            for _ in self.each(page, ["", "array/md_d0", f"disk/{told['id']}", f"disk/{bad}", f"replace/{bad}"]):
                self.assertEqual(page.run("return document.querySelectorAll('#page :is(img, b, script)').length"), 0)
            page.open("disk/sda")
            page.read(told["model"])
            self.assertNotEqual(page.driver.title, "bad")

    def test_200_disks(self):
        """A page that is slow where there is most to see."""
        with tempfile.TemporaryDirectory() as folder:
            file = pathlib.Path(folder) / "machine.json"
            subprocess.run([os.environ["RVXCTL"], f"--simulate={file}", "playground", "200"], check=True, stdout=subprocess.DEVNULL)
            many = json.loads(file.read_text())
        with Console(many) as page:
            page.driver.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument", {"source": """
                new PerformanceObserver((list) => {
                    if (list.getEntriesByName("rvx:painted").length) requestAnimationFrame(() => setTimeout(() => performance.mark("seen")));
                }).observe({ type: "mark" });
            """})
            taken = []
            for _ in range(3):
                page.reload()
                until(lambda: page.run("return performance.getEntriesByName('seen').length"), "it is seen")
                taken.append(page.run("return performance.getEntriesByName('seen')[0].startTime - performance.getEntriesByName('rvx:state')[0].startTime"))
                self.assertEqual(len(page.rows("Disks")), len(many["disks"]))
            self.assertTrue(0 < min(taken) < 1000, taken)
