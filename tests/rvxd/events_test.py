"""What happened: pages, the stream, the journal behind them, and the conditions that last."""

import os

from client import Case, ids, machine, mirror, until


def churn(daemon):
    """Makes and deletes a mirror: events of several kinds and objects, the last of which the plug-in tells later."""
    cursor = daemon.get("/v1/events?since=now")["cursor"]
    daemon.carry_out("array.create", **mirror("sda", "sdb"))
    daemon.carry_out("array.delete", array="md_d0")
    until(lambda: "array-gone" in [one["key"] for one in daemon.events(f"&since={cursor}")])


def numbers(every):
    return [int(one["id"].split("-")[1]) for one in every]


class Events(Case):
    def test_pages(self):
        """A page that leaves an event out, repeats one, or takes a filter for another."""
        daemon = self.daemon(machine("abdef", [{"name": "md_d3", "level": "raid1", "members": ["sdd", None]}]))
        churn(daemon)
        every = daemon.events()
        self.assertEqual(numbers(every), list(range(numbers(every)[0], numbers(every)[0] + len(every))))
        paged, page = [], {"cursor": every[0]["id"], "more": True}
        while page["more"]:
            page = daemon.get(f"/v1/events?limit=2&since={page['cursor']}")
            paged += page["events"]
        self.assertEqual(numbers(paged)[:len(every) - 1], numbers(every)[1:])
        for query, test in (("object=md_d3", lambda one: one["objectName"] == "md_d3"),
                            ("severity=error", lambda one: one["severityKey"] == "error"),
                            ("severity=warning", lambda one: one["severity"] >= 3),
                            ("object=md_d3&severity=error", lambda one: one["objectName"] == "md_d3" and one["severity"] == 4)):
            found = [number for number in numbers(daemon.events("&" + query)) if number <= numbers(every)[-1]]
            self.assertEqual(found, numbers(filter(test, every)), query)
            self.assertNotIn(found, ([], numbers(every)), query)
        for query in ("limit=0&since=now", "limit=0", "since=now"):
            page = daemon.get(f"/v1/events?{query}")
            self.assertEqual((page["events"], page["reset"]), ([], False))
        for since in ("x", "0-0", every[-1]["id"] + "000", "-", "other-3", "%20"):
            page = daemon.get(f"/v1/events?since={since}")
            self.assertEqual((page["reset"], page["events"][0]), (True, every[0]), since)

    def test_list_then_follow(self):
        """An event between the list and the stream that nobody sees; a change that is told in another order."""
        daemon = self.daemon(machine())
        cursor = daemon.get("/v1/state")["cursor"]
        daemon.carry_out("array.create", **mirror("sda", "sdb"))
        with daemon.stream(last=cursor) as stream:
            self.assertEqual(stream.next().event, "beat")
            found = stream.until(lambda frame: frame.event == "event" and frame.data["key"] == "array-found")
            every = [one["id"] for one in daemon.events(f"&since={cursor}")]
            self.assertEqual(ids(found), every[:len(ids(found))])
            name = daemon.carry_out("array.delete", array="md_d0")["id"]
            told = [frame.data["state"] for frame in stream.until(lambda frame: frame.event == "operation" and frame.data["ended"])
                    if frame.event == "operation" and frame.data["id"] == name]
            self.assertEqual(list(dict.fromkeys(told)), ["queued", "running", "done"])
            daemon.carry_out("array.create", **mirror("sdd", "sde"))
            stream.until(lambda frame: frame.event == "state" and {"sdd", "md_d0"} <= set(frame.data["changed"]))
        with daemon.stream(query="?since=now") as stream:
            last = daemon.events()[-1]["id"]
            daemon.carry_out("rescan")
            self.assertEqual(ids(stream.until(lambda frame: frame.event == "event")),
                             [one["id"] for one in daemon.events(f"&since={last}")][:1])

    def test_a_restart_loses_nothing(self):
        """An id that is given twice, an event that is lost with the process, a client that has to begin anew."""
        daemon = self.daemon(machine())
        churn(daemon)
        before, epoch = daemon.events(), daemon.get("/")["epoch"]
        for end in (daemon.stop, daemon.kill):
            end()
            daemon.start()
            churn(daemon)
            self.assertEqual(daemon.get("/")["epoch"], epoch)
            now = daemon.events()
            self.assertEqual(now[:len(before)], before)
            self.assertEqual(numbers(now), sorted(set(numbers(now))))
            with daemon.stream(last=before[2]["id"]) as stream:
                frames = stream.until(lambda frame: ids([frame]) == [now[-1]["id"]])
            self.assertEqual(ids(frames), [one["id"] for one in now[3:]])
            before = now

    def test_a_journal_that_was_hurt(self):
        """A client that is not told that events are gone; a journal whose last line keeps rvxd from starting."""
        daemon = self.daemon(machine())
        epoch, journal = daemon.get("/")["epoch"], daemon.state / "events.jsonl"
        for hurt in (lambda: journal.write_bytes(journal.read_bytes()[:-5]), journal.unlink):
            churn(daemon)
            last = daemon.events()[-1]["id"]
            daemon.kill()
            hurt()
            daemon.start()
            self.assertTrue(daemon.get(f"/v1/events?since={last}")["reset"])
            with daemon.stream(last=last) as stream:
                cursor = stream.until(lambda frame: frame.event == "reset")[-1].data["cursor"]
            self.assertFalse(daemon.get(f"/v1/events?since={cursor}")["reset"])
        self.assertNotEqual(daemon.get("/")["epoch"], epoch)

    def test_a_journal_that_somebody_wrote_into(self):
        """A line that takes all others with it, or that keeps every later event from being told."""
        daemon = self.daemon(machine())
        churn(daemon)
        journal, before = daemon.state / "events.jsonl", daemon.events()
        daemon.stop()
        lines = journal.read_text().splitlines()
        place = next(place for place, line in enumerate(lines) if before[1]["id"] in line)
        lines[place] = lines[place].replace('"count":1', '"count":"x"')
        journal.write_text("\n".join(["[" * 100000, '{"skipped":-1}', *lines, ""]))
        daemon.start()
        churn(daemon)
        self.assertEqual(daemon.events()[:len(before) - 1], before[:1] + before[2:])

    def test_what_repeats_is_told_once(self):
        """A message with each pass for a failed member that md still holds; none where it fails again, since that was told."""
        again = {"at": 25000, "fail_member": {"array": "md_d0", "disk": "sdb"}}
        daemon = self.daemon(machine("abc", [{"level": "raid1", "members": ["sda", None], "faulty": ["sdb"]}], script=[again], rehearsed=False))
        held = lambda: [one for one in daemon.events() if one["key"] == "failed-disk-held"]
        until(lambda: held() and held()[0]["count"] >= 3)
        self.assertEqual([one["objectName"] for one in held()], ["sdb"])
        self.assertGreater(held()[0]["last"], held()[0]["time"])
        daemon.carry_out("spare.release", disk="sdb")
        daemon.carry_out("spare.add", disk="sdb", array="md_d0")
        until(lambda: [one["objectName"] for one in held()] == ["sdb", "sdb"], "the second failure", 60)

    def test_conditions_last_as_long_as_what_they_tell(self):
        """An alarm that nobody is told of, that stays after the repair, that a restart forgets or raises anew."""
        fails = {"at": 6000, "fail_member": {"array": "md_d0", "disk": "sdb"}}
        lasting = {"level": "raid1", "members": ["sdd", None]}
        daemon = self.daemon(machine("abcd", ["ab", lasting], script=[fails], rehearsed=False))
        listed = lambda: {one["id"]: one for one in daemon.get("/v1/conditions")["conditions"]}
        first, second = "array-degraded:md_d0", "array-degraded:md_d1"
        with daemon.stream(query="?since=now") as stream:
            told = lambda level: stream.until(lambda frame: frame.event == "condition" and
                                              (frame.data["id"], frame.data["level"]) == (first, level))[-1].data
            self.assertEqual(told("critical"), listed()[first])
            self.assertEqual(daemon.get("/v1/health")["conditions"], list(listed().values()))
            daemon.carry_out("spare.add", disk="sdc", array="md_d0")
            told("ok")
        self.assertNotIn(first, listed())
        before = listed()[second]
        seen = daemon.ask("POST", f"/v1/conditions/{second}/acknowledge").data
        self.assertEqual((seen["acknowledged"]["uid"], {**seen, "acknowledged": None}), (os.getuid(), before))
        daemon.ask("POST", "/v1/conditions/array-failed:md_d0/acknowledge", expect=404)
        daemon.kill()
        daemon.start()
        self.assertEqual(listed()[second], seen)
