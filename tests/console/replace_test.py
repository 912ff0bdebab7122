"""The guided way from a failed disk to an array that is whole again."""

from browser import Console
from client import Case, machine


class Replace(Case):
    def step(self, page, title):
        """The one step that is marked as the current one; None: none is."""
        marked = lambda: page.run("return [...document.querySelectorAll('ol > [aria-current=step] > h2')].map((one) => one.innerText)")
        page.settled(lambda: marked() == ([title] if title else []), f"the step is {title}", 60)

    def carry_out(self, page, word, title):
        """Not without a yes, then with it."""
        dialog, begun = ("dialog", title), page.daemon.get("/v1/operations")
        page.refuses("Say first that you want it.", "button", word, dialog).click()
        self.assertEqual(page.daemon.get("/v1/operations"), begun)
        page.click("checkbox", "I have read this, and want it")
        page.click("button", word, dialog)
        page.read("done", "status", None, dialog)
        page.click("button", "Close", dialog)

    def test_from_the_failure_to_a_whole_array(self):
        """A way that is lost with its page, that pulls the wrong disk, or that adds one without a yes."""
        fails = {"at": 2000, "fail_member": {"array": "md_d0", "disk": "sdb"}}
        with Console(machine("ab", ["ab"], script=[fails], rehearsed=False), "--save") as page:
            failed = page.daemon.get("/v1/disks/sdb")
            page.click("link", "Replace the disk...")
            self.step(page, "Release the failed disk")
            page.read(failed["serial"])
            page.click("button", "Release sdb...")
            self.carry_out(page, "Release", "Release sdb")

            self.step(page, "Pull the disk")
            page.read(f"Pull the disk with serial number {failed['serial']} at {failed['path']}")
            page.reload()
            self.step(page, "Pull the disk")
            page.read(f"Pull the disk with serial number {failed['serial']} at {failed['path']}")
            with page.machine() as now:
                now["disks"] = [disk for disk in now["disks"] if disk["name"] != "sdb"]
                new = {**now["disks"][0], "name": "sdc", "data": []}
                for field in ("serial", "wwn", "instance", "device", "target", "host"):
                    new.pop(field, None)
                now["script"] = [{"at": 5000, "add_disk": {**new, "serial": "NEW1", "target": 7}}]
                now["arrays"][0]["speed"] = 1024

            self.step(page, "Put in the new disk")
            page.read(failed["serial"])
            self.step(page, "Add it")
            page.read("serial NEW1")
            page.click("button", "Add sdc...")
            page.read("NEW1", "dialog")
            self.carry_out(page, "Add", "Add sdc to md_d0")

            self.step(page, "Rebuild")
            done = lambda: float(page.find("progressbar").get_attribute("value"))
            first = page.settled(done, "the rebuild has begun")
            page.settled(lambda: done() > first, "it goes on")
            with page.machine() as now:
                now["arrays"][0]["speed"] = 65536
            page.read("md_d0 is whole", "status")
            self.step(page, None)
            array = page.daemon.get("/v1/arrays/md_d0")
            self.assertEqual((array["state"], [member["name"] for member in array["members"]]), ("in-order", ["sda", "sdc"]))
