"""Changes: what is asked before, what is refused and why, and that nothing is done without a yes."""

import os
import re

from browser import Console, Keys
from client import Case, machine, mirror, until

MIRROR, STRIPE = re.compile(r"^RAID 1 \(mirror\)"), re.compile(r"^RAID 0 \(striping\)")
CREATE, CONSENT, PLAN = ("button", "Create an array..."), ("checkbox", "I have read this, and want it"), ("button", "Show the plan")


def disk(name):
    return "checkbox", re.compile(f"^{name} ")


class Changes(Case):
    def unchanged(self, page):
        self.assertEqual(page.daemon.get("/v1/operations")["operations"], [])

    def test_create(self):
        """An array of disks that nobody named; a disk that cannot be taken, without a reason; a creation without a yes."""
        with Console(machine("abcdef", ["ab"]), "--save") as page:
            page.click(*CREATE)
            dialog = ("dialog", "Create an array")
            page.find(*dialog)
            page.refuses("Choose a level first.", *PLAN)
            page.click("radio", STRIPE)
            taken = page.refuses(re.compile("md_d0"), *disk("sda"))
            taken.click()
            self.assertFalse(taken.is_selected())
            page.click(*disk("sdc"))
            page.refuses("Choose 1 more.", *PLAN)
            page.click(*disk("sdf"))
            page.click(*disk("sde"))
            page.choose("16 KiB", "combobox", "Stripe size")
            page.click(*PLAN)
            page.read("This will create a raid0 array of sdc, sdf, sde", *dialog)
            for one in page.daemon.get("/v1/disks")["disks"]:
                self.assertEqual(one["serial"] in page.text(*dialog), one["name"] in ("sdc", "sde", "sdf"), one["name"])
            page.read("What is on these disks is lost.", *dialog)
            page.refuses("Say first that you want it.", "button", "Create", dialog).click()
            self.unchanged(page)
            # Another level is another plan, with a yes of its own.
            page.click(*CONSENT)
            page.click("button", "Back")
            page.click("radio", STRIPE)
            page.click(*PLAN)
            self.assertFalse(page.find(*CONSENT).is_selected())
            self.unchanged(page)
            page.click(*CONSENT)
            page.click("button", "Create", dialog)
            page.read("done", "status", None, dialog)
            page.click("button", "Close", dialog)
            page.click("link", "md_d1", ("table", "Arrays"))
            page.settled(lambda: {row[0]: row[2] for row in page.rows("Members")} == {"sdc": "0", "sdf": "1", "sde": "2"}, "the slots as they were chosen")
            with page.machine() as saved:
                self.assertEqual([(array["level"], array["chunk"]) for array in saved["arrays"][1:]], [("raid0", 16)])

    def test_the_machine_moved_on(self):
        """A yes to a plan whose disks are somebody else's by now; a dialog in which that ends."""
        with Console(machine("abcd")) as page:
            page.click(*CREATE)
            page.click("radio", MIRROR)
            for name in ("sda", "sdb"):
                page.click(*disk(name))
            page.click(*PLAN)
            page.click(*CONSENT)
            page.daemon.carry_out("array.create", **mirror("sdb", "sdc"))
            page.click("button", "Create")
            page.read("Nothing was done", "alert", None, ("dialog", None))
            self.assertEqual(page.daemon.names(), ["md_d0"])
            page.click("button", "Make a new plan")
            page.read("sdb", "alert", None, ("dialog", None))
            page.click("button", "Back")
            page.refuses(re.compile("md_d0"), *disk("sdb"))
            page.click(*disk("sdd"))
            page.click(*PLAN)
            page.read("of sda, sdd", "dialog")

    def test_delete(self):
        """An array that goes while it is in use, or the wrong one, whose name was not read."""
        used = {"level": "raid1", "members": ["sda", "sdb"], "mount": "/srv/photos"}
        with Console(machine("abcd", [used, "cd"]), route="array/md_d0") as page:
            page.refuses(re.compile("/srv/photos"), "button", "Delete the array...").click()
            self.assertEqual(page.all("dialog"), [])
            page.open("array/" + page.daemon.get("/v1/arrays/md_d1")["uuid"])
            page.click("button", "Delete the array...")
            dialog, name = ("dialog", "Delete md_d1"), ("textbox", "Type md_d1 to confirm")
            for typed in ("", "md_d0", "md_d"):
                page.type(typed, *name)
                page.refuses("Type md_d1 first.", "button", "Delete", dialog)
                page.press(Keys.ENTER)
                page.click("button", "Delete", dialog)
            self.unchanged(page)
            page.type("md_d1", *name)
            page.click("button", "Delete", dialog)
            page.read("done", "status", None, dialog)
            self.assertEqual(page.daemon.names(), ["md_d0"])

    def test_by_keys_alone(self):
        """What only a mouse can do; a dialog that the keyboard leaves, or whose end loses the place."""
        with Console(machine("abcd", ["ab"])) as page:
            page.tab_to(*CREATE)
            page.press(Keys.ENTER)
            page.find("dialog", "Create an array")
            page.press(Keys.ESCAPE)
            page.gone("dialog")
            self.assertEqual(page.focus(), CREATE)
            page.press(Keys.SPACE)
            page.find("dialog", "Create an array")
            page.tab_to("radio", None)
            page.press(Keys.SPACE, Keys.ARROW_DOWN)
            page.settled(lambda: page.all("radio", MIRROR)[0].is_selected(), "the arrow chooses")
            for name in ("sdc", "sdd"):
                page.tab_to(*disk(name))
                page.press(Keys.SPACE)
            around = page.tab_around()
            self.assertNotIn(CREATE, around)
            self.assertNotIn(("link", "Overview"), around)
            page.tab_to(*PLAN)
            page.press(Keys.ENTER)
            page.find(*CONSENT)
            page.tab_to(*CONSENT)
            page.press(Keys.SPACE)
            page.tab_to("button", "Create")
            page.press(Keys.ENTER)
            page.read("done", "status", None, ("dialog", None))
            page.tab_to("button", "Close")
            page.press(Keys.ENTER)
            page.gone("dialog")
            self.assertEqual(page.focus(), CREATE)
            self.assertEqual(page.daemon.names(), ["md_d0", "md_d1"])

    def test_what_waits_is_withdrawn(self):
        """A change that runs unseen, or can be stopped by nobody."""
        with Console(machine("abcd"), "--plugin", os.environ["RVX_SLOW"]) as page:
            plans = [page.daemon.plan("array.create", **mirror(*disks)) for disks in (("sda", "sdb"), ("sdc", "sdd"))]
            page.daemon.slow.touch()
            for plan in plans:
                page.daemon.begin(plan)
            page.click("button", "Operations (2)")
            drawer = ("complementary", "Operations")
            page.read(re.compile("sdc, sdd.*queued.*sda, sdb.*queued", re.DOTALL | re.IGNORECASE), *drawer)
            page.click("button", "Withdraw", drawer)
            page.find("button", "Operations (1)")
            page.daemon.slow.unlink()
            page.find("button", "Operations")
            page.gone("button", "Withdraw")
            self.assertEqual([[member["name"] for member in array["members"]] for array in page.daemon.get("/v1/arrays")["arrays"]], [["sda", "sdb"]])

    def test_settings(self):
        """A setting that is lost, or overwrites what somebody else has set meanwhile."""
        with Console(machine("ab", ["ab"]), route="settings") as page:
            interval, spares = "Seconds between two looks", "Spares of md_d0"
            stored = lambda: page.daemon.get("/v1/settings")
            page.type("0", "textbox", interval)
            page.press(Keys.ENTER)
            page.read("A whole number from", "main")
            page.type("7", "textbox", interval)
            page.press(Keys.ENTER)
            page.read("Saved.", "status")
            self.assertEqual(stored()["pollInterval"], 7)
            page.type("1", "textbox", spares)
            page.daemon.ask("PUT", "/v1/settings", {"pollInterval": 9}, headers={"If-Match": "*"})
            page.press(Keys.ENTER)
            page.settled(lambda: page.find("textbox", interval).get_attribute("value") == "9", "what is set now is shown")
            self.assertEqual(stored()["spares"], {})
            page.press(Keys.ENTER)
            until(lambda: list(stored()["spares"].values()) == [1], "it is saved")
            self.assertEqual(stored()["pollInterval"], 9)
            page.click("button", "Send a test to journal")
            page.read("Delivered", "table", "Where alarms go")
