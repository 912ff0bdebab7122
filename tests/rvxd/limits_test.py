"""What is too much, too wrong or not this socket's: refused, and rvxd goes on."""

import contextlib
import os
import re

from client import API, ROOT, Case, check, connected, machine, until

METHODS = {"GET", "HEAD", "PUT", "POST", "DELETE", "PATCH", "TRACE"}


class Limits(Case):
    def setUp(self):
        self.rvxd = self.daemon(machine())

    def refused(self, client, method, target, status, word, body=None):
        answer = client.raw(method, target, body)
        self.assertEqual(answer.status, status, (method, target, answer.data))
        if method != "HEAD":
            check({"$ref": "#/components/schemas/Problem"}, answer.data, f"{method} {target}")
            self.assertEqual(answer.data["type"].rsplit("/", 1)[1], word)
        return answer

    def test_routes_and_methods(self):
        """A change through the socket for everybody; a method that is taken for another; a path that matches too much."""
        for path, item in API["paths"].items():
            target = path.replace("{name}", "status").replace("{id}", "op-1")
            allowed = {one.upper() for one in item} & METHODS
            allowed |= {"HEAD"} if "GET" in allowed else set()
            for method in METHODS - allowed:
                answer = self.refused(self.rvxd, method, target, 405, "method-not-allowed")
                self.assertEqual(set(re.split(", *", answer.headers["Allow"])), allowed)
            for method in allowed - {"GET", "HEAD"}:
                self.refused(self.rvxd.reader, method, target, 403, "read-only", "{}")
        for target in ("/v1", "/v2/state", "/v1/state/", "/v1/statex", "/v1/disks/sda/x", "/v1/views/x", "/%00", "/v1/../v1/state"):
            self.refused(self.rvxd, "GET", target, 404, "not-found")

    def test_bodies_and_queries(self):
        """A body that is cut at the limit, is kept in memory beyond it, or is guessed at; a number that is."""
        body = '{"kind":"rescan"}'
        self.assertEqual(self.rvxd.raw("POST", "/v1/plans", body.ljust(65536)).status, 200)
        for large in (65537, 5 << 20):
            self.refused(self.rvxd, "POST", "/v1/plans", 413, "too-large", body.ljust(large))
        for wrong in ("", "{", "{'kind': 1}", body + "}", b'{"kind":"\xff"}', "[" * 60000, "[]", '{"kind":"rescan\0"}'):
            self.refused(self.rvxd, "POST", "/v1/plans", 400, "usage", wrong)
        for query in ("limit=x", "limit=-1", "limit=1001", "limit=99999999999999999999", "severity=loud"):
            self.refused(self.rvxd, "GET", f"/v1/events?{query}", 422, "usage")
        self.rvxd.carry_out("rescan")
        for wait in ("61", "-1", "x"):
            self.refused(self.rvxd, "GET", f"/v1/operations/op-1?wait={wait}", 422, "usage")

    def test_what_is_no_http(self):
        """Memory for a header without an end; junk that ends rvxd, or is taken for a request."""
        get = b"GET / HTTP/1.1\r\nHost: a\r\n"
        for text, told in ((get + b"\r\n", b" 200 "), (get + b"X: " + b"x" * 40000 + b"\r\n\r\n", b" 431 "),
                           (b"\0\1\2\r\n\r\n", None), (b"GET\r\n\r\n", None),
                           (b"POST /v1/plans HTTP/1.1\r\nHost: a\r\nContent-Length: -5\r\n\r\n", None)):
            with connected(self.rvxd.path, 20) as one:
                try:
                    one.sendall(text)
                    answer = one.recv(100)
                except ConnectionError:
                    answer = b""
            self.assertIn(told or b"", answer)
            self.assertEqual(b" 200 " in answer, told == b" 200 ", text)
        self.rvxd.get("/")

    def test_connections(self):
        """A flood on the socket for everybody that keeps the administrator out, or that lasts when it is over."""
        streams = [self.rvxd.reader.stream() for _ in range(64)]
        for _ in range(20):
            with self.assertRaises(OSError):
                self.rvxd.reader.raw("GET", "/")
        self.rvxd.carry_out("rescan")
        for stream in streams:
            stream.close()
        until(self.rvxd.reader.answers, "there is room again")
        self.rvxd.reader.raw("POST", "/v1/made-up")
        log = self.rvxd.log.read_text()
        self.assertEqual((log.count("connection limit"), log.count("made-up")), (1, 0), "everybody can fill the log")

    def test_connections_of_one_user(self):
        """A user who takes up all connections for reading, so that monitoring sees nothing."""
        if os.geteuid() != 0:
            self.skipTest("root alone can be somebody else")
        self.rvxd.path.parent.chmod(0o711)
        os.seteuid(65534)
        try:
            for _ in range(64):
                one = self.enterContext(connected(self.rvxd.reader.path))
                with contextlib.suppress(OSError):
                    one.sendall(b"GET /v1/events HTTP/1.1\r\nHost: a\r\nAccept: text/event-stream\r\n\r\n")
        finally:
            os.seteuid(0)
        until(self.rvxd.reader.answers, "others find room")

    def test_settings(self):
        """One administrator's setting that another overwrites unseen; one out of range; one that is gone tomorrow."""
        tag = self.rvxd.ask("GET", "/v1/settings").headers["ETag"]
        for wanted, match, status in ((5, None, 428), (5, '"other"', 412), *((one, tag, 422) for one in (1, 256, "5", 5.5, None)),
                                      (5, tag, 200), (7, tag, 412), (3, "*", 200)):
            self.rvxd.ask("PUT", "/v1/settings", {"pollInterval": wanted}, status, {"If-Match": match} if match else ())
        self.rvxd.ask("PUT", "/v1/settings", {}, 422, {"If-Match": "*"})
        self.rvxd.stop()
        self.rvxd.start()
        self.assertEqual(self.rvxd.get("/v1/settings")["pollInterval"], 3)
        self.assertEqual(self.rvxd.get("/v1/health")["lastPass"]["interval"], 3)

    def test_every_rule_is_documented(self):
        """A word that programs are told and that no page lists, or one that is listed and never told."""
        told = re.findall(r'(?:Forbidden\(|return \{)\s*"([a-z0-9-]+)"', (ROOT / "host/Rules.cpp").read_text())
        self.assertEqual({*told, "plugin-check"}, set(API["components"]["schemas"]["Rule"]["enum"]))
