"""Plans, and operations that carry them out."""

import concurrent.futures
import json
import os
import signal
import time

from client import Case, machine, mirror, until


def rules(problem):
    return {(reason["rule"], reason["object"]) for reason in problem["reasons"]}


def word(problem):
    return problem.get("type", "").rsplit("/", 1)[-1]


class Changes(Case):
    def test_each_kind_from_its_plan_to_its_end(self):
        """A change whose end is told before it can be seen, or that is another one than was asked for."""
        daemon = self.daemon(machine())
        striped = {"level": "raid0", "disks": ["sdd", "sdc"], "stripe": 131072}
        for kind, request, arrays, told in (
                ("array.create", mirror("sda", "sdb"), ["md_d0"], "Created md_d0: 63 MiB."),
                ("spare.add", {"disk": "sdc", "array": "md_d0"}, ["md_d0"], "sdc is a hot spare of md_d0."),
                ("spare.release", {"disk": "sdc"}, ["md_d0"], "sdc is released."),
                ("array.create", striped, ["md_d0", "md_d1"], "Created md_d1: 127 MiB."),
                ("array.create", {**striped, "disks": ["sde", "sdf"], "level": "linear"}, ["md_d0", "md_d1", "md_d2"], "Created md_d2"),
                ("rescan", {}, ["md_d0", "md_d1", "md_d2"], "Rescanned: 6 disks, 3 arrays."),
                ("array.delete", {"array": "md_d0"}, ["md_d1", "md_d2"], "Deleted md_d0."),
                ("array.delete", {"last": True}, ["md_d1"], "Deleted md_d2."),
                ("array.delete", {"all": True}, [], "Deleted md_d1.")):
            with self.subTest(told):
                plan = daemon.plan(kind, **request)
                self.assertEqual((plan["allowed"], plan["kind"], plan["reasons"]), (True, kind, []))
                operation = daemon.ended(daemon.begin(plan)["id"])
                self.assertEqual((operation["state"], operation["kind"], operation["error"]), ("done", kind, None))
                self.assertTrue(operation["result"]["text"].startswith(told), operation["result"])
                self.assertEqual(daemon.names(), arrays, "who has the answer sees the change")
                self.assertEqual((operation["by"]["uid"], operation["by"]["pid"]), (os.getuid(), os.getpid()))
                self.assertTrue(operation["created"] <= operation["started"] <= operation["ended"], operation)
                if request is striped:
                    members = daemon.get("/v1/arrays/md_d1")["members"]
                    self.assertEqual({one["slot"]: one["name"] for one in members}, {0: "sdd", 1: "sdc"})
        listed = [one["id"] for one in daemon.get("/v1/operations")["operations"]]
        self.assertEqual(listed, [f"op-{i}" for i in range(1, 10)])

    def test_what_a_rule_forbids(self):
        """A refusal without its rule or its object, or one that can be carried out all the same."""
        daemon = self.daemon("rules")
        for kind, key, names in (
                ("array.create", None, {"sdk": "disk-in-use", "sdl": "disk-held", "sdm": "disk-not-ready",
                                        "sdn": "disk-too-small", "sdd": "disk-in-array"}),
                ("array.delete", "array", {"md_d3": "array-in-use", "md_d4": "metadata-unknown", "md_d5": "member-is-partition"}),
                ("spare.add", "array", {"md_d0": "level-without-redundancy"}), ("spare.release", "disk", {"sdd": "member-works"}),
                ("rebuild.start", "array", {"md_d2": "rebuild-not-startable"}), ("rebuild.cancel", "array", {"md_d2": "plugin-check"})):
            for name, rule in names.items():
                with self.subTest(rule):
                    request = {key: name} if key else mirror("sda", name)
                    plan = daemon.plan(kind, **request, **({"disk": "sda"} if kind == "spare.add" else {}))
                    self.assertEqual((plan["allowed"], plan["plan"], rules(plan)), (False, None, {(rule, name)}))
        self.assertTrue(daemon.plan("array.delete", array="md_d5", forcePartitionMembers=True)["allowed"])
        offered = daemon.get("/v1/arrays/md_d3")["operations"]
        self.assertIn("array-in-use", {reason["rule"] for one in offered for reason in one["reasons"]})

    def test_what_cannot_be_meant(self):
        """A request that is read as another one: a disk named twice, a field of another type, no consent."""
        daemon = self.daemon(machine())
        create, delete = {"kind": "array.create", **mirror("sda", "sdb")}, {"kind": "array.delete"}
        wrong = [{**create, **more} for more in (
            {"kind": "array.mend"}, {"kind": None}, {"level": "raid7"}, {"disks": []}, {"disks": ["sda"]},
            {"disks": ["sda", "sda"]}, {"disks": "sda"}, {"disks": [1, 2]}, {"stripe": 3}, {"stripe": "x"})]
        wrong += [delete, {**delete, "last": True, "all": True}, {"kind": "spare.add", "disk": "sda"}]
        plan = daemon.plan("rescan")["plan"]
        for target, status, request in (
                *(("plans", 422, one) for one in wrong), ("plans", 404, {**create, "disks": ["sda", "sdz"]}),
                ("plans", 404, {**delete, "array": "md_d9"}), ("operations", 422, {"plan": plan}),
                ("operations", 422, {"plan": plan, "confirm": False}), ("operations", 422, {"plan": plan, "confirm": "true"}),
                ("operations", 422, {"confirm": True}),
                ("operations", 404, {"plan": "p-0", "confirm": True}), ("operations", 202, {"plan": plan, "confirm": True}),
                ("operations", 409, {"plan": plan, "confirm": True})):
            with self.subTest(request):
                daemon.ask("POST", f"/v1/{target}", request, status)

    def test_a_machine_that_moved_on(self):
        """A plan whose disks are somebody else's by now; one that is not carried out though nothing of it changed."""
        daemon = self.daemon(machine("abcdefgh", script=[{"at": 8000, "hold_disk": "sdh"}]))
        other, taken, same = (daemon.plan("array.create", **mirror(*disks)) for disks in
                              (("sda", "sdb"), ("sdg", "sdh"), ("sdd", "sde")))
        daemon.carry_out("array.create", **mirror("sdb", "sdc"))
        for plan, rule in ((other, ("disk-in-array", "sdb")), (taken, ("disk-held", "sdh"))):
            until(lambda: daemon.get(f"/v1/disks/{rule[1]}")["state"] == "in-use")
            problem = daemon.begin(plan, expect=412)
            self.assertEqual((word(problem), rules(problem)), ("stale", {rule}))
        self.assertEqual(daemon.names(), ["md_d0"])
        self.assertEqual(daemon.ended(daemon.begin(same)["id"])["state"], "done")

    def test_a_plan_expires(self):
        """A yes to a plan of long ago."""
        daemon = self.daemon(machine(), "--plan-seconds", "1")
        plan = daemon.plan("array.create", **mirror("sda", "sdb"))
        until(lambda: time.strftime("%FT%T", time.gmtime(time.time() - 1)) > plan["expires"])
        daemon.begin(plan, expect=404)
        self.assertEqual(daemon.names(), [])

    def test_a_request_that_is_sent_again_is_done_once(self):
        """A second array for an answer that got lost; another plan's operation for a key that is used again."""
        daemon = self.daemon(machine())
        first, second = (daemon.plan("array.create", **mirror(*disks)) for disks in (("sda", "sdb"), ("sdc", "sdd")))
        operation = daemon.ended(daemon.begin(first, key="one")["id"])
        self.assertEqual(daemon.begin(first, key="one")["id"], operation["id"])
        daemon.begin(second, key="one", expect=422)
        self.assertEqual((len(daemon.get("/v1/operations")["operations"]), daemon.names()), (1, ["md_d0"]))

    def test_of_32_at_once_one_gets_the_disks(self):
        """Two arrays on one disk; a refusal that does not tell why."""
        daemon = self.daemon(machine())

        def carry_out(plan):
            while word(answer := daemon.begin(plan, expect=(202, 412, 429), key=plan["plan"])) == "queue-full":
                time.sleep(0.05)
            return daemon.ended(answer["id"])["error"] if "state" in answer else answer

        plans = [daemon.plan("array.create", **mirror("sda", "sdb")) for _ in range(32)]
        with concurrent.futures.ThreadPoolExecutor(32) as pool:
            refused = list(filter(None, pool.map(carry_out, plans)))
        self.assertEqual([(word(one), rules(one)) for one in refused], [("stale", {("disk-in-array", "sda")})] * 31)
        self.assertEqual(daemon.names(), ["md_d0"])

    def test_a_full_queue_and_an_end_in_the_middle(self):
        """A queue without a limit; a change that is carried out though it was withdrawn, or after a crash; one forgotten."""
        daemon = self.daemon(machine())
        listed = lambda: {one["id"]: one for one in daemon.get("/v1/operations")["operations"]}
        plans, kept = [daemon.plan("rescan") for _ in range(40)], daemon.state / "operations.json"

        def stopped_in_the_middle():
            daemon.process.send_signal(signal.SIGSTOP)
            return '"running"' in kept.read_text() or daemon.process.send_signal(signal.SIGCONT)

        with concurrent.futures.ThreadPoolExecutor(40) as pool:
            answers = [pool.submit(daemon.begin, plan, expect=(202, 409, 429)) for plan in plans]
            until(lambda: "queue-full" in [word(one.result()) for one in answers if one.done()])
            last = [name for name, one in listed().items() if one["state"] == "queued"][-1]
            daemon.ask("DELETE", f"/v1/operations/{last}", expect=204)
            self.assertEqual((listed()[last]["state"], word(listed()[last]["error"])), ("failed", "withdrawn"))
            until(stopped_in_the_middle)
            daemon.kill()
        before = {one["id"]: one["state"] for one in json.loads(kept.read_text())["operations"]}
        self.assertLessEqual({"running", "queued", "failed"}, set(before.values()))
        daemon.start()
        now = listed()
        for name, state in before.items():
            ended = {"running": "interrupted", "queued": "interrupted"}.get(state, state)
            hint = {"running": "rvxctl status", "queued": "nothing was done"}.get(state, "")
            self.assertEqual((now[name]["state"], hint in str(now[name]["error"])), (ended, True), now[name])
        again = daemon.carry_out("rescan")["id"]
        self.assertEqual({name: one for name, one in listed().items() if name != again}, now, "nothing of before goes on")
        daemon.ask("DELETE", f"/v1/operations/{again}", expect=409)
        daemon.ask("DELETE", "/v1/operations/op-999", expect=404)
