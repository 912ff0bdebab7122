"""What can be read: every route, by every name, in the units that are promised."""

import urllib.parse

from client import API, Case, Daemon, machine, mirror, until


def everything():
    """A mirror half-way through a resync that stands still, a degraded one, a striped one, an SSD."""
    striped = {"level": "raid0", "members": ["sde", "sdf"]}
    described = machine("bcdefg", ["bc", {"level": "raid1", "members": ["sdd", None]}, striped], sync_speed=0)
    described["controllers"].append({"name": "sata", "pci": "0000:00:1f.2", "driver": "ahci"})
    figures = [{"id": 9, "raw": 8760}, {"id": 232, "value": 99}, {"id": 233, "value": 93}, {"id": 241, "raw": 655360}]
    described["disks"].insert(0, {"name": "sda", "controller": "sata", "size": 65536, "medium": "solid-state",
                                  "model": "INTEL SSDSC2BB480G4", "serial": "S 1", "wwn": "0x5000c500a1b2c3d4",
                                  "smart": {"attributes": figures}})
    described["arrays"][0]["resync"] = {"done": 32000}
    return described


class Resources(Case):
    def test_every_documented_route_answers_on_both_sockets(self):
        """A field that is missing, misnamed or null in some state of a disk or array; a route that is not served."""
        for name in ("rules", "arrays", "lost", "recovering", "worn", "empty", everything()):
            with self.subTest(name), Daemon(name) as daemon:
                daemon.carry_out("rescan")
                state = daemon.get("/v1/state")
                ids = {"/v1/arrays/{id}": [one["name"] for one in state["arrays"]],
                       "/v1/disks/{id}": [one["id"] for one in state["disks"]], "/v1/operations/{id}": ["op-1"],
                       "/v1/views/{name}": ["status", "disks", "arrays", "topology", "levels", "check"]}
                for path, item in API["paths"].items():
                    for one in ids.get(path, [""]) if "get" in item else []:
                        target = path.partition("{")[0] + one
                        first, second = daemon.get(target), daemon.reader.get(target)
                        self.assertEqual(*(one.keys() if isinstance(one, dict) else type(one) for one in (first, second)))
                        daemon.ask("HEAD", target)
                self.assertEqual([one.get("/")["readOnly"] for one in (daemon, daemon.reader)], [False, True])
                plain = daemon.ask("GET", "/v1/views/status", headers={"Accept": "text/plain"}).data
                self.assertEqual(daemon.get("/v1/views/status?form=text")["text"], plain)
                for part in ("arrays", "disks", "controllers", "levels"):  # a rebuild goes on between two requests
                    until(lambda: daemon.get(f"/v1/{part}")[part] == daemon.get("/v1/state")[part], f"{part} are those of the state")

    def test_names(self):
        """A disk or array that is found by one of its names only, or another one than was named."""
        daemon, twins = self.daemon(everything()), self.daemon("rules")
        for kind, keys in (("arrays", ("uuid", "name")), ("disks", ("id", "name", "serial", "wwn"))):
            for one in daemon.get(f"/v1/{kind}")[kind]:
                for name in filter(None, (one[key] for key in keys)):
                    self.assertEqual(daemon.get(f"/v1/{kind}/{urllib.parse.quote(name)}"), one)
        for where, target in ((daemon, "arrays/md_d9"), (daemon, "arrays/sda"), (daemon, "disks/md_d0"),
                              (daemon, "disks/sd"), (twins, "disks/twin")):
            with self.subTest(target):
                self.assertIn(target.split("/")[1], where.get(f"/v1/{target}", expect=404)["detail"])

    def test_units_and_states(self):
        """KiB for bytes, percent for a ratio, hours for seconds; a redundancy, a slot or a state that is not so."""
        daemon = self.daemon(everything())
        daemon.carry_out("spare.add", disk="sdg", array="md_d0")
        state = daemon.get("/v1/state")
        disks, arrays, levels = ({one[key]: one for one in state[kind]} for kind, key in
                                 (("disks", "name"), ("arrays", "name"), ("levels", "level")))
        ssd, first = disks["sda"], arrays["md_d0"]
        for got, wanted in (
                (ssd["size"], 64 << 20), (ssd["smart"]["written"], 655360 * (32 << 20)), (ssd["smart"]["wear"], 0.07),
                (ssd["smart"]["reserve"], 0.99), (ssd["smart"]["powerOn"], 8760 * 3600), (ssd["medium"], "solid-state"),
                ([disks[f"sd{letter}"]["state"] for letter in "abg"], ["ready", "in-use", "spare"]),
                ([disks[f"sd{letter}"]["array"] for letter in "abg"], [None, "md_d0", "md_d0"]),
                (levels["raid0"]["defaultStripe"], 65536), (levels["raid0"]["stripes"][-1], 131072),
                (first["size"] >> 20, 63), (first["activity"]["kind"], "resync"), (first["activity"]["firstSync"], False),
                (round(first["activity"]["progress"], 1), 0.5), (first["spares"], ["sdg"]),
                ([(one["disk"], one["slot"], one["state"]) for one in first["members"]],
                 [(disks["sdb"]["id"], 0, "active"), (disks["sdc"]["id"], 1, "active"), (disks["sdg"]["id"], None, "spare")]),
                ([arrays[f"md_d{i}"]["state"] for i in range(3)], ["in-order", "degraded", "in-order"]),
                ([list(arrays[f"md_d{i}"]["redundancy"].values()) for i in range(3)],
                 [[2, 2, 0, 1], [2, 1, 1, 0], [2, 2, 0, 0]]),  # required, active, missing, canLose
                (self.daemon("lost").get("/v1/arrays/md_d0")["redundancy"]["canLose"], None),
                (state["health"]["level"], "critical"),
                (self.daemon("recovering").get("/v1/arrays/md_d0")["activity"]["kind"], "rebuild")):
            with self.subTest(wanted):
                self.assertEqual(got, wanted)
        self.assertAlmostEqual(ssd["smart"]["remainingLife"], 8760 * 3600 * 93 / 7, delta=2 * 86400)

    def test_a_disk_that_arrays_share(self):
        """Somebody who pulls a failed disk with a working member of another array, or what is mounted, on it."""
        fails = {"at": 2500, "fail_member": {"array": "md_d1", "disk": "sdb2"}}
        shared = machine("ab", [{"level": "raid1", "members": [f"sd{disk}{part}" for disk in "ab"]} for part in "12"], script=[fails], rehearsed=False)
        for disk in shared["disks"]:
            disk.update(size=262144, partitions=[{"size": 65536}, {"size": 65536}, {"size": 65536}])
        shared["disks"][1]["partitions"][2]["mount"] = "/home"
        daemon = self.daemon(shared)
        self.assertEqual(daemon.get("/v1/disks/sdb")["usedBy"], ["md_d0", "md_d1", "/home"])
        told = lambda: {one["id"]: (one["text"], one["next"]) for one in daemon.get("/v1/conditions")["conditions"]}
        until(lambda: "disk-failed:sdb" in told(), "the failure is told")
        self.assertEqual(told()["disk-failed:sdb"], ("still held by md_d1; sdb1 of md_d0 works", "do not pull it before other disks stand in for sdb1 of md_d0"))

    def test_what_is_known_is_not_sent_again(self):
        """An ETag that stays when the machine changes, or changes when it does not."""
        daemon = self.daemon(machine())
        tags = {path: daemon.ask("GET", path).headers["ETag"] for path, item in API["paths"].items()
                if "304" in item.get("get", {}).get("responses", {}) and "{" not in path}
        for path, tag in tags.items():
            for known in (tag, f'"other", {tag}'):
                self.assertEqual(daemon.ask("GET", path, None, 304, {"If-None-Match": known}).headers["ETag"], tag)
            daemon.ask("GET", path, headers={"If-None-Match": '"other"'})
        daemon.carry_out("array.create", **mirror("sda", "sdb"))
        for path in ("/v1/state", "/v1/arrays", "/v1/disks", "/v1/disks/sda"):
            daemon.ask("GET", path, headers={"If-None-Match": tags.get(path, tags["/v1/disks"])})
