"""An rvxd of one's own on a simulated machine, and a client that holds every answer to docs/openapi.yaml."""

import collections
import contextlib
import http.client
import json
import os
import pathlib
import re
import socket
import subprocess
import tempfile
import time
import unittest
import urllib.parse

import jsonschema
import yaml

ROOT = pathlib.Path(__file__).resolve().parents[2]
# A sanitizer takes its time, and with it the plug-in loses each race for its locks.
PATIENCE = 10 if re.search("/[at]san/", os.environ["RVXD"]) else 1
API = yaml.safe_load((ROOT / "docs/openapi.yaml").read_text())
Answer = collections.namedtuple("Answer", "status headers data")
Frame = collections.namedtuple("Frame", "event id data")


def until(question, what="it happens", seconds=30):
    """Asks until the answer is true, which it returns."""
    end = time.monotonic() + seconds * PATIENCE
    while not (answer := question()):
        if time.monotonic() > end:
            raise AssertionError(f"waited {seconds} s in vain until {what}")
        time.sleep(0.02)
    return answer


def machine(disks="abcdef", arrays=(), **more):
    """Disks sda, sdb ... of 64 MiB on one controller; `arrays` are mirrors of two letters, or descriptions."""
    arrays = [one if isinstance(one, dict) else {"level": "raid1", "members": [f"sd{letter}" for letter in one]} for one in arrays]
    return {"controllers": [{"name": "sas", "pci": "0000:03:00.0", "vendor": "0x1000", "driver": "mpt2sas"}],
            "disks": [{"name": f"sd{letter}", "controller": "sas", "size": 65536} for letter in disks],
            "arrays": [{"name": f"md_d{i}", "chunk": 64, **one} for i, one in enumerate(arrays)], **more}


def mirror(*disks):
    return {"level": "raid1", "disks": list(disks)}


def series(text):
    return {name: float(value) for name, value in (line.rsplit(" ", 1) for line in text.splitlines() if line[0] != "#")}


def free_port():
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


def ids(frames):
    return [frame.id for frame in frames if frame.event == "event"]


def _strict(node):
    """As JSON Schema has it. Clients are told to expect more fields; the tests want what is new to be written down."""
    if not isinstance(node, (dict, list)):
        return node
    if isinstance(node, list):
        return [_strict(one) for one in node]
    node = {key: _strict(value) for key, value in node.items()}
    if node.get("type") == "object" and "properties" in node:
        node.setdefault("additionalProperties", False)
    return {"anyOf": [node, {"type": "null"}]} if node.pop("nullable", False) else node


RESOLVER = jsonschema.RefResolver("", _strict(API))


def follow(node):
    """What a reference stands for, as it is written."""
    return follow(jsonschema.RefResolver("", API).resolve(node["$ref"])[1]) if "$ref" in node else node


def check(schema, data, what):
    if errors := list(jsonschema.Draft202012Validator(_strict(schema), resolver=RESOLVER).iter_errors(data)):
        worst = jsonschema.exceptions.best_match(errors)
        raise AssertionError(f"{what}: {worst.json_path} {worst.message[:500]}")


def check_answer(method, target, body, answer):
    """Route, status, headers and content must be documented; so must what was asked, where that succeeded."""
    url, what = urllib.parse.urlsplit(target), f"{method} {target} {answer.status}"
    item = next(item for path, item in API["paths"].items() if re.fullmatch(re.sub(r"\{\w+\}", "[^/]+", path), url.path))
    operation = item["get" if method == "HEAD" else method.lower()]
    check({"enum": list(operation["responses"])}, str(answer.status), f"{what} is not documented: {answer.data}")
    response = follow(operation["responses"][str(answer.status)])
    for name, header in response.get("headers", {}).items():
        check(follow(header)["schema"], answer.headers.get(name), f"{what} {name}")
    if answer.status < 400:
        known = {follow(one)["name"] for one in item.get("parameters", []) + operation.get("parameters", [])}
        check({"items": {"enum": list(known)}}, [name for name, _ in urllib.parse.parse_qsl(url.query)], what)
        if body is not None:
            check(operation["requestBody"]["content"]["application/json"]["schema"], body, f"{what} request")
    if method == "HEAD" or "content" not in response:
        return check({"enum": ["None", "b''", ""]}, str(answer.data), f"{what} body")
    media = answer.headers["Content-Type"].split(";")[0]
    check({"enum": list(response["content"])}, media, f"{what} Content-Type")
    if media != "text/event-stream":
        check(response["content"][media]["schema"], answer.data, what)
    if media == "application/problem+json":
        check({"const": answer.status}, answer.data["status"], what)


def connected(path, timeout=90):
    one = socket.socket(socket.AF_UNIX)
    one.settimeout(timeout)
    try:
        one.connect(str(path))
    except OSError:
        one.close()
        raise
    return one


class Client:
    """Requests over one of the sockets, each in a connection of its own."""

    def __init__(self, path):
        self.path = path

    def raw(self, method, target, body=None, headers=()):
        """Any request, whose answer is only taken apart."""
        connection = http.client.HTTPConnection("localhost")
        with connected(self.path) as connection.sock:
            connection.request(method, target, body, dict(headers))
            response = connection.getresponse()
            text, media = response.read(), response.headers.get("Content-Type", "").split(";")[0]
        data = json.loads(text) if text and media.endswith("json") else text.decode() if media == "text/plain" else text
        return Answer(response.status, response.headers, data)

    def ask(self, method, target, body=None, expect=200, headers=()):
        """A documented request; `expect` is the status that the answer must have, or several."""
        answer = self.raw(method, target, None if body is None else json.dumps(body), headers)
        check_answer(method, target, body, answer)
        wanted = expect if isinstance(expect, tuple) else (expect,)
        check({"enum": wanted}, answer.status, f"{method} {target} {body}: {answer.data}")
        return answer

    def answers(self):
        with contextlib.suppress(OSError):  # it does not listen yet, or has no room
            return self.ask("GET", "/v1/health", expect=(200, 503)).status == 200

    def get(self, target, **more):
        return self.ask("GET", target, **more).data

    def plan(self, kind, **more):
        return self.ask("POST", "/v1/plans", {"kind": kind, **more}).data

    def begin(self, plan, expect=202, key=None):
        headers = {"Idempotency-Key": key} if key else {}
        return self.ask("POST", "/v1/operations", {"plan": plan["plan"], "confirm": True}, expect, headers).data

    def ended(self, name):
        """The operation as it has ended, whatever came of it."""
        # Each of those before it waits for the disk that its end is written to, which others may use as well.
        return until(lambda: (now := self.get(f"/v1/operations/{name}?wait=10"))["ended"] and now, f"{name} has ended", 120)

    def carry_out(self, kind, **more):
        """A change from its plan to its end, which must be a success."""
        operation = self.ended(self.begin(self.plan(kind, **more))["id"])
        check({"const": "done"}, operation["state"], str(operation))
        return operation

    def names(self):
        return sorted(array["name"] for array in self.get("/v1/arrays")["arrays"])

    def events(self, query=""):
        return self.get(f"/v1/events?limit=1000{query}")["events"]

    def series(self):
        """The metrics: each series as it is written, and its value."""
        return series(self.get("/metrics"))

    def stream(self, **more):
        return Stream(self.path, **more)


class Stream(contextlib.ExitStack):
    """The frames of the event stream."""

    SCHEMAS = API["paths"]["/v1/events"]["get"]["responses"]["200"]["content"]["text/event-stream"]["x-frames"]

    def __init__(self, path, last="", query="", version="HTTP/1.1"):
        super().__init__()
        self.socket, self._last = self.enter_context(connected(path)), 0
        self.socket.sendall(f"GET /v1/events{query} {version}\r\nHost: localhost\r\nAccept: text/event-stream\r\n"
                            f"Last-Event-ID: {last}\r\n\r\n".encode())
        self.response = self.enter_context(http.client.HTTPResponse(self.socket))
        self.response.begin()
        check_answer("GET", f"/v1/events{query}", None, Answer(self.response.status, self.response.headers, None))

    def next(self):
        """The next frame, "beat" of a comment; None: the stream has ended, if in the middle of a frame."""
        text = b""
        while not text.endswith(b"\n\n"):
            with contextlib.suppress(http.client.HTTPException, ConnectionError):
                text += (line := self.response.readline())
                if line:
                    continue
            return None
        if text.startswith(b":"):
            return Frame("beat", None, text)
        fields = dict(line.split(": ", 1) for line in text.decode().splitlines()[:-1])
        frame = Frame(fields["event"], fields.get("id"), json.loads(fields["data"]))
        check(self.SCHEMAS[frame.event], frame.data, f"frame {frame.event}")
        check({"const": frame.event == "state"}, frame.id is None, f"no id: {frame}")
        if frame.id:  # whoever goes on behind the last id must not be told again what came before it
            number = int(frame.id.split("-")[1])
            check({"minimum": self._last + (frame.event == "event")}, number, f"ids rise: {frame}")
            self._last = number
        return frame

    def until(self, question, seconds=30):
        """The frames up to the first of which the question is true."""
        frames, end = [], time.monotonic() + seconds * PATIENCE
        while time.monotonic() < end and (frame := self.next()):
            frames.append(frame)
            if question(frame):
                return frames
        raise AssertionError(f"not in the stream: {frames[-50:]}")


class Daemon(Client):
    """rvxd on a machine: a description, or the name of one of tests/host/machines. It looks every 2 seconds."""

    def __init__(self, described, *options):
        self._folder = tempfile.TemporaryDirectory(prefix="rvxd")
        folder = pathlib.Path(self._folder.name)
        super().__init__(folder / "rvxd.sock")
        self.reader, self.state, self.log = Client(folder / "rvxd-ro.sock"), folder / "state", folder / "log"
        if isinstance(described, str):
            described = json.loads((ROOT / f"tests/host/machines/{described}.json").read_text())
        (folder / "machine.json").write_text(json.dumps(described))
        (folder / "piRVX.ini").write_text("PollInterval=2\n")
        self.slow = folder / "slow"  # as long as it is there, a plug-in that is RVX_SLOW hangs
        # A stop leaves the plug-in's poller behind, which looks up every three seconds alone.
        sanitizer = os.environ.get("TSAN_OPTIONS", "") + ":report_thread_leaks=0"
        self._words = ["env", f"TSAN_OPTIONS={sanitizer}", f"ZQ_CONFIG_DIR={folder}", f"RVX_TEST_SLOW={self.slow}", os.environ["RVXD"], f"--simulate={folder}/machine.json",
                       "--socket", self.path, "--state", self.state, *options]
        self.process = None

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, kind, *_):
        if self.process.poll() is None:
            self.stop() if kind is None else self.kill()
        self._folder.cleanup()

    def spawn(self):
        """A process on the same machine and state, which may refuse to start."""
        with open(self.log, "ab") as log:
            return subprocess.Popen(self._words, stdout=subprocess.PIPE, stderr=log)

    def start(self):
        self.process = self.spawn()
        with contextlib.ExitStack() as failed:
            failed.callback(self.kill)
            until(lambda: self.process.poll() is not None or self.answers(), "rvxd is ready")
            check({"const": None}, self.process.poll(), f"rvxd has ended: {self.log.read_text()}")
            failed.pop_all()

    def stop(self):
        """Ends it as a service manager does; returns the seconds that it took."""
        begin = time.monotonic()
        self.process.terminate()
        out, _ = self.process.communicate(timeout=30)
        check({"const": [0, "b''"]}, [self.process.returncode, str(out)], f"the end of rvxd: {self.log.read_text()}")
        return time.monotonic() - begin

    def kill(self):
        self.process.kill()
        self.process.communicate()


class Case(unittest.TestCase):
    def daemon(self, described, *options):
        """One that ends with the test."""
        return self.enterContext(Daemon(described, *options))
