"""rvx_array, as Ansible runs it, against an rvxd on a simulated machine."""

import http.server
import json
import socketserver
import threading

from client import machine
from run import AnsibleCase


class Between(socketserver.ThreadingMixIn, socketserver.UnixStreamServer):
    """Stands before rvxd. Each operation that is asked for meets the next of `faults`: a status that it is answered with,
    "lost", when it is carried out and not answered, or None."""

    daemon_threads = True

    def __init__(self, folder, daemon, faults):
        self.path, self.daemon, self.faults, self.seen = str(folder / "between.sock"), daemon, list(faults), []
        super().__init__(self.path, Handler)
        threading.Thread(target=self.serve_forever, args=(0.05,), daemon=True).start()

    def __exit__(self, *_):
        self.shutdown()
        self.server_close()


class Handler(http.server.BaseHTTPRequestHandler):
    def answer(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        begins = (self.command, self.path) == ("POST", "/v1/operations")
        self.server.seen.append((self.command, self.path, self.headers.get("Idempotency-Key")))
        fault = self.server.faults.pop(0) if begins and self.server.faults else None
        status, told = fault, {"detail": f"answered with {fault}", "reasons": []}
        if fault in (None, "lost"):
            headers = {name: self.headers[name] for name in ("Idempotency-Key",) if name in self.headers}
            status, _, told = self.server.daemon.raw(self.command, self.path, body, headers)
        if fault == "lost":
            return
        text = json.dumps(told).encode()
        self.send_response(status)
        self.send_header("Retry-After", "1")
        self.send_header("Content-Length", str(len(text)))
        self.end_headers()
        self.wfile.write(text)

    do_GET = do_POST = answer

    def log_message(self, *_):
        pass


class Module(AnsibleCase):
    def test_an_array_comes_once_and_goes(self):
        """A check that writes, or does not tell the disks; an array that is made twice, or not as asked for."""
        daemon = self.daemon(machine("abcdef"))
        disks = {one["name"]: one for one in daemon.get("/v1/disks")["disks"]}
        wanted = {"level": "raid1", "disks": [disks["sdb"]["serial"], disks["sda"]["byId"][0]], "spares": ["/dev/sdc"]}
        planned = self.module(daemon.path, "--check", "--diff", **wanted)
        self.assertEqual((planned["changed"], planned["array"]), (True, None))
        for letter in "abc":
            self.assertIn(disks[f"sd{letter}"]["serial"], planned["shown"])
        self.assertEqual((daemon.names(), daemon.get("/v1/operations")["operations"]), ([], []))

        made = self.module(daemon.path, **wanted)
        array = daemon.get("/v1/arrays/md_d0")
        self.assertEqual((made.get("msg"), made["changed"], made["array"]["device"], made["array"]["uuid"]), (None, True, "/dev/md_d0", array["uuid"]))
        self.assertEqual([(one["kind"], one["state"], len(one["steps"]) > 0) for one in made["operations"]],
                         [("array.create", "done", True), ("spare.add", "done", True)])
        self.assertEqual({(one["name"], one["slot"]) for one in array["members"]}, {("sdb", 0), ("sda", 1), ("sdc", None)})
        for same in (wanted, {**wanted, "disks": ["sda", "sdb"]}, {**wanted, "spares": []}):
            again = self.module(daemon.path, "--diff", **same)
            self.assertEqual((again["changed"], again["operations"], again["shown"], again["array"]["uuid"]), (False, [], "", array["uuid"]))
        self.module(daemon.path, **{**wanted, "spares": ["sdc", "sdd"]})
        self.assertEqual(daemon.get("/v1/arrays/md_d0")["spares"], ["sdc", "sdd"])

        uuid = {"state": "absent", "uuid": array["uuid"].upper()}
        planned = self.module(daemon.path, "--check", "--diff", **uuid)
        self.assertEqual((planned["changed"], disks["sda"]["serial"] in planned["shown"], daemon.names()), (True, True, ["md_d0"]))
        gone = self.module(daemon.path, **uuid)
        self.assertEqual((gone.get("msg"), gone["changed"], daemon.names()), (None, True, []))
        self.assertEqual(self.module(daemon.path, **uuid)["changed"], False)

    def test_arrays_that_are_as_asked_for(self):
        """An array that is refused since a member failed; one on partitions that is taken for one of whole disks."""
        daemon = self.daemon("rules")
        taken_over = self.daemon(machine("abcd", [{"level": "raid1", "members": ["sdb", "sdc"], "faulty": ["sda"]}]))
        for where, disks, spares, told in (
                (daemon, "fg", "h", None), (daemon, "ij", "", None), (daemon, "tx", "", "disk-in-array"), (daemon, "dj", "", "disk-in-array"),
                (taken_over, "ab", "c", None), (taken_over, "ab", "", "disk-in-array"), (taken_over, "ab", "d", "disk-in-array")):
            with self.subTest(disks=disks, spares=spares):
                result = self.module(where.path, "--check", level="raid1", disks=[f"sd{one}" for one in disks], spares=[f"sd{one}" for one in spares])
                self.assertIn(told or "", result.get("msg", ""))
                self.assertEqual(("msg" in result, result["changed"]), (told is not None, False))

    def test_what_is_refused(self):
        """A disk that is taken away from somebody, an array that is deleted by a name, a failure that does not tell why."""
        described = machine("abcdefg", ["ab"])
        described["disks"][2]["partitions"], described["disks"][6]["size"] = [{"size": 1024}], 65535
        daemon = self.daemon(described)
        before = daemon.get("/v1/arrays")["arrays"]
        pair = {"level": "raid1", "disks": ["sde", "sdf"]}
        for parameters, told in (
                ({**pair, "disks": ["sda", "sdd"]}, "sda is a member of md_d0"), ({**pair, "level": "raid0", "disks": ["sda", "sdb"]}, "disk-in-array"),
                ({**pair, "disks": ["sda", "sdb", "sdd"]}, "exactly 2 disks"), ({**pair, "disks": ["sda"]}, "raid1"),
                ({**pair, "disks": ["sdc", "sdd"]}, "/dev/sdc, serial number RVX00003, is not empty: partition sdc1"),
                ({**pair, "disks": ["sdd", "sdz"]}, "no disk sdz"), ({**pair, "disks": ["sdd", "sdd"]}, "twice"),
                ({**pair, "spares": ["sda"]}, "sda cannot be a spare"), ({**pair, "spares": ["sdd", "sdd"]}, "nor two spares"),
                ({**pair, "spares": ["sdd", "sdc"]}, "/dev/sdc, serial number RVX00003, is not empty: partition sdc1"),
                ({**pair, "spares": ["sdg"]}, "sdg cannot be a spare: it is smaller"), ({**pair, "disks": [], "spares": ["sdd"]}, "1 is named"),
                ({**pair, "spares": ["sde"]}, "sde cannot be a member and its spare"),
                ({**pair, "level": "raid0", "spares": ["sda"]}, "no use for spares"), ({"level": "raid1"}, "disks"), ({**pair, "level": "raid7"}, "raid7"),
                ({**pair, "uuid": before[0]["uuid"]}, "state absent"), ({"state": "absent"}, "no name"), ({"state": "absent", "uuid": "md_d0"}, "no name")):
            for options in ([], ["--check"]) if "spares" in parameters else ([],):
                with self.subTest(told, options=options):
                    result = self.module(daemon.path, *options, **parameters)
                    self.assertIn(told, result["msg"])
                    self.assertEqual(result["changed"] if "changed" in result else False, False)
        refused = self.module(daemon.path, "--check", **{**pair, "disks": ["sda", "sdd"]})
        self.assertEqual([(one["rule"], one["object"]) for one in refused["reasons"]], [("disk-in-array", "sda")])
        self.assertEqual(daemon.get("/v1/operations")["operations"], [])
        self.assertTrue(self.module(daemon.path, **{**pair, "disks": ["sdc", "sdd"]}, overwrite=True)["changed"])
        without_link = self.daemon(machine("ab", [{"level": "raid1", "members": ["sda", "sdb"], "metadata": "0.90"}]))
        self.assertIn("md_d0 has no UUID yet", self.module(without_link.path, state="absent", uuid=before[0]["uuid"])["msg"])

    def test_nobody_there(self):
        """A traceback, or a task that waits for what does not come."""
        for parameters in ({"level": "raid1", "disks": ["sda", "sdb"]}, {"state": "absent", "uuid": "0:0:0:0".replace("0", "0" * 8)}):
            self.assertRegex(self.module("/nowhere/rvxd.sock", **parameters)["msg"], "^rvxd does not answer at /nowhere/rvxd.sock: .*No such file")

    def test_answers_that_come_late_or_never(self):
        """A second array for an answer that got lost; a plan of before that is taken for one of now; a task without an end."""
        for faults, failure, plans, made in (
                ([429, 503, "lost"], None, 1, 1), ([412], None, 2, 1), ([404], None, 2, 1), ([412, 412], "answered with 412", 2, 0),
                ([409], "answered with 409", 1, 0), ([503] * 9, "answered with 503", 1, 0)):
            with self.subTest(faults):
                daemon = self.daemon(machine())
                between = self.enterContext(Between(self.folder, daemon, faults))
                result = self.module(between.path, level="raid1", disks=["sda", "sdb"], timeout=4 if failure else 60)
                self.assertEqual((result.get("msg"), result["changed"], len(result["plans"])), (failure, not failure, 1))
                self.assertEqual([len(daemon.names()), len(daemon.get("/v1/operations")["operations"])], [made, made])
                self.assertEqual(sum(target == "/v1/plans" for _, target, _ in between.seen), plans)
                keys = [key for _, target, key in between.seen if target == "/v1/operations"]
                self.assertEqual((len(set(keys)), None in keys), (plans, False))
                (self.folder / "between.sock").unlink()
