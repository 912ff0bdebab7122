"""python/rvx.py, as a program uses it."""

import concurrent.futures
import http.client
import sys
import time
from unittest import mock

from client import PATIENCE, ROOT, Case, machine, mirror

sys.path.insert(0, str(ROOT / "python"))
import rvx  # noqa: E402: where it is not installed


class Module(Case):
    def refused(self, change, *arguments, **wanted):
        with self.assertRaises(rvx.Problem) as raised:
            change(*arguments, **wanted)
        return raised.exception

    def test_reading(self):
        """A state that is taken for unchanged, or read again in vain; a socket of others that hides one's own."""
        daemon, connect = self.daemon(machine(arrays=["ab"])), rvx._Connection.connect
        client = rvx.Client(str(daemon.path))
        state = client.state()
        self.assertEqual((state, client.read_only), (daemon.get("/v1/state"), False))
        self.assertIs(client.state(), state)
        daemon.carry_out("array.delete", array="md_d0")
        self.assertEqual((client.state()["arrays"], len(state["arrays"])), ([], 1))

        def not_by_the_first(connection):
            if connection._path == rvx.SOCKETS[0]:
                raise PermissionError(13, "not you")
            connect(connection)

        with mock.patch.object(rvx, "SOCKETS", (str(daemon.path), str(daemon.reader.path))), \
                mock.patch.object(rvx._Connection, "connect", not_by_the_first):
            self.assertTrue(rvx.Client().read_only)
            problem = self.refused(rvx.Client().plan, "rescan")
        self.assertEqual((problem.type, problem.status), ("read-only", 403))
        with self.assertRaises(FileNotFoundError):
            rvx.Client("/nowhere").state()

    def test_changes(self):
        """A change that nobody agreed to, or that is done twice; a refusal without its rule."""
        daemon, getresponse, asked, lost = self.daemon(machine(arrays=["ab"])), rvx._Connection.getresponse, [], []
        client, agree = rvx.Client(str(daemon.path)), lambda plan: True
        for answer in (None, lambda plan: asked.append(plan["questions"])):
            with self.assertRaises(rvx.Declined):
                client.change("array.delete", answer, array="md_d0")
        self.assertEqual((len(asked[0]), daemon.names(), daemon.get("/v1/operations")["operations"]), (1, ["md_d0"], []))
        problem = self.refused(client.change, "array.create", agree, **mirror("sda", "sdc"))
        self.assertEqual((problem.type, problem.rules, "sda" in problem.detail), ("forbidden-by-rule", ["disk-in-array"], True))

        def lose_the_first(connection):
            response = getresponse(connection)
            if response.status == 202 and not lost:
                lost.append(response.headers["Location"])
                raise http.client.RemoteDisconnected
            return response

        with mock.patch.object(rvx._Connection, "getresponse", lose_the_first):
            operation = client.change("array.create", agree, **mirror("sdc", "sdd"))
        self.assertEqual((operation["state"], f"/v1/operations/{operation['id']}"), ("done", *lost))
        self.assertEqual(len(daemon.get("/v1/operations")["operations"]), 1)
        plan = client.plan("array.create", **mirror("sde", "sdf"))
        client.change("array.create", agree, **mirror("sdf", "sde"))
        problem = self.refused(lambda: client.ended(client.begin(plan)))
        self.assertEqual((problem.type, problem.rules), ("stale", ["disk-in-array"]))

    def test_following(self):
        """An event that is lost, or told twice, over a restart; a gap that nobody hears of."""
        daemon, told, lost = self.daemon(machine()), [], []
        stream, end = rvx.Client(str(daemon.path)).follow("other-3"), time.monotonic() + 120 * PATIENCE
        self.assertEqual([next(stream).kind for _ in range(2)], ["open", "beat"])
        cursor = next(frame for frame in stream if frame.kind == "reset").data["cursor"]

        def work():
            daemon.carry_out("array.create", **mirror("sda", "sdb"))
            daemon.kill()
            daemon.start()
            daemon.carry_out("array.create", **mirror("sda", "sdb"))  # of a machine that does not outlive rvxd

        with concurrent.futures.ThreadPoolExecutor() as pool:
            worked = pool.submit(work)
            for frame in stream:
                self.assertLess(time.monotonic(), end, told)
                told += [frame.data] if frame.kind == "event" else []
                lost += [frame] if frame.kind == "lost" else []
                if [one["key"] for one in told].count("array-found") == 2:
                    break
            worked.result()
        self.assertEqual([one["id"] for one in told], [one["id"] for one in daemon.events(f"&since={cursor}")][:len(told)])
        self.assertTrue(lost, "a restart ends a stream")
