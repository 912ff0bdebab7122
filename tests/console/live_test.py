"""What a person sees without doing anything: failures, and rvxd that goes and comes."""

import re
import time

from browser import Console
from client import Case, machine, mirror, until


def fails(at):
    return machine("abc", ["ab"], script=[{"at": at, "fail_member": {"array": "md_d0", "disk": "sdb"}}], rehearsed=False)


class Live(Case):
    def same_events(self, page):
        """The page shows exactly rvxd's events, in their order."""
        told = lambda: [event["text"] for event in reversed(page.daemon.events())]
        shown = lambda: [re.sub(r" \(\d+ times, last .*\)$", "", row[-1]) for row in page.rows("Events")]
        page.settled(lambda: shown() == told(), f"the same events are shown: {told()}")

    def test_a_failure(self):
        """A page of yesterday; a card without the disk that has to be pulled; a failure that nobody can put aside."""
        with Console(fails(8000)) as page, page.daemon.stream(query="?since=now") as stream:
            page.read("In order", "heading", re.compile("^In order"))
            self.assertEqual(page.all("region", "What needs you"), [])
            page.run("""
                new MutationObserver(() => {
                    if (["Replace the disk...", "1 array degraded"].every((words) => document.body.innerText.includes(words)))
                        window.shown ??= Date.now();
                }).observe(document.body, { childList: true, characterData: true, subtree: true });
            """)
            stream.until(lambda frame: frame.event == "condition" and frame.data["id"] == "array-degraded:md_d0")
            told = time.time()
            shown = until(lambda: page.run("return window.shown"), "the failure is shown")
            self.assertLess(shown / 1000 - told, 2)

            card = ("article", "md_d0", ("region", "What needs you"))
            disk = next(one for one in page.daemon.get("/v1/disks")["disks"] if one["name"] == "sdb")
            for words in ("sdb", disk["serial"], disk["path"]):
                page.read(words, *card)
            page.read("1 array degraded", "heading", re.compile("^Critical"))
            page.click("button", "Acknowledge md_d0", card)
            page.read("Acknowledged", *card)
            self.assertTrue(all(one["acknowledged"] for one in page.daemon.get("/v1/conditions")["conditions"]))
            page.click("checkbox", "Only what needs me")
            page.settled(lambda: [row[0] for row in page.rows("Disks")] == ["sdb"], "only what failed is shown")
            page.click("link", "Events")
            self.same_events(page)

    def test_rvxd_is_restarted(self):
        """Buttons for a machine that is no longer so; events that are lost or told twice; a page that has to be loaded anew."""
        with Console(machine("abcd", ["ab"]), route="events") as page:
            page.daemon.carry_out("array.create", **mirror("sdc", "sdd"))
            self.same_events(page)
            with page.machine() as now:
                age = lambda: int(page.read(re.compile(r"What you see is (\d+) s old\."), "note")[1])
                first = age()
                until(lambda: age() > first, "what is shown grows old")
                page.click("link", "Overview")
                page.refuses("rvxd does not answer.", "button", "Create an array...").click()
                self.assertEqual(page.all("dialog"), [])
                # What rvxd finds at its start is told before the page is there.
                now["arrays"][0]["members"] = ["sda", None]
            page.gone("alert")
            self.assertIsNone(page.reason(page.find("button", "Create an array...")))
            page.daemon.carry_out("array.create", **mirror("sdc", "sdd"))
            page.find("link", "md_d1", ("table", "Arrays"))
            page.click("link", "Events")
            self.same_events(page)
            page.read("Array md_d0 is degraded", "table", "Events")

    def test_rvxd_begins_later(self):
        """An empty page, or one that says that all is in order, where nothing is known."""
        with Console(machine("ab", ["ab"])) as page:
            page.daemon.stop()
            page.reload()
            page.read("Nothing is known of this machine", "alert")
            self.assertEqual(page.all("table"), [])
            page.daemon.start()
            page.find("link", "md_d0", ("table", "Arrays"))
            page.gone("alert")

    def test_the_journal_is_another_one(self):
        """Events of a past that rvxd knows nothing of; new ones whose numbers are lower, and are dropped for it."""
        with Console(machine("abcd", ["ab"]), route="events") as page:
            page.daemon.carry_out("array.create", **mirror("sdc", "sdd"))
            page.daemon.carry_out("array.delete", array="md_d1")
            self.same_events(page)
            page.daemon.stop()
            for journal in page.daemon.state.glob("events*.jsonl"):
                journal.unlink()
            page.daemon.start()
            page.gone("alert")
            self.same_events(page)
            page.daemon.carry_out("array.create", **mirror("sdc", "sdd"))
            self.same_events(page)

    def test_who_may_only_look(self):
        """A button that ends in "not permitted"; a page that is dead for whoever has no rights."""
        with Console(fails(6000), as_nobody=True) as page:
            page.read("You may look, but not change", "note")
            page.find("region", "What needs you")
            for name in ("Acknowledge md_d0", "Create an array..."):
                page.refuses(re.compile("^You may look, but not change"), "button", name).click()
            self.assertEqual(page.all("dialog"), [])
            page.click("link", "md_d0", ("table", "Arrays"))
            page.find("button", "Delete the array...")
            allowed = [one.text for one in page.all("button") if one.accessible_name.endswith("...") and page.reason(one) is None]
            self.assertEqual(allowed, [])
            self.assertEqual(page.daemon.reader.get("/v1/operations")["operations"], [])

    def test_the_badge_in_the_menu(self):
        """A failure that is seen only by who opens the page; a badge that stays after the repair."""
        with Console(machine("abc", [{"level": "raid1", "members": ["sda", None]}]), shell=True) as page:
            page.find("region", "What needs you")
            self.assertEqual(page.badge(), "error")
            page.elsewhere()
            until(lambda: page.badge() == "error", "the badge without the page")
            page.daemon.carry_out("spare.add", disk="sdb", array="md_d0")
            until(lambda: page.badge() is None, "the badge goes", 60)
