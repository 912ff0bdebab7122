"""What rvxd knows of the machine's arrays and disks, for programs in Python.

    import rvx

    machine = rvx.Client()
    print(machine.state()["health"]["headline"])
    machine.change("spare.add", disk="sdc", array="md_d0", agree=ask)   # ask(plan) shows it to a person

    for frame in machine.follow():
        if frame.kind == "event":
            print(frame.data["time"], frame.data["text"])

Documents are dictionaries as rvxd sends them: its openapi.yaml names every field. Sizes are bytes, durations seconds, ratios
0 to 1, times RFC 3339 in UTC; None is "not known" or "there is none", never 0. Expect more fields and words than you know.

Three things go wrong: nobody answers (OSError), rvxd refuses (Problem), or a person does (Declined).

The standard library is enough, and a Client may be used by several threads at once.
"""

from __future__ import annotations

import contextlib
import http.client
import json
import socket
import time
import uuid
from collections.abc import Callable, Iterator
from typing import Any, NamedTuple

__all__ = ["Client", "Declined", "Frame", "Problem", "SOCKETS"]

SOCKETS = ("/run/rvx/rvxd.sock", "/run/rvx/rvxd-ro.sock")
"""rvxd's own: the first takes every request, of those whom it lets in; the second lets everybody in and changes nothing."""

Document = dict[str, Any]

SILENCE = 30  # seconds; a stream beats every 5
PAUSE = 1  # seconds between two tries


class Problem(Exception):
    """rvxd's answer was no. str() of it is a sentence for people.

    type         a word: "read-only", "not-found", "forbidden-by-rule", "stale", "queue-full", "blind", "usage", ...
    detail       the sentence
    status       HTTP's; 0 of an operation that has ended, and of a plan that is not allowed
    reasons      what speaks against it: each has `rule`, `object`, `text`, and `overridable`
    rules        the words of these rules, such as "disk-in-use"
    code, name   the plug-in's answer, such as 20020 and "ERR_BUSY"; None when it was not asked
    left         of a change that was done in part: what was not done
    retry_after  seconds after which another try is worth it, or None
    document     all that rvxd said
    """

    def __init__(self, document: Document, retry_after: float | None = None):
        super().__init__(document.get("detail", "rvxd refuses and says no more"))
        self.document, self.retry_after = document, retry_after
        self.type: str = document.get("type", "").rsplit("/", 1)[-1]
        self.detail: str = str(self)
        self.status: int = document.get("status", 0)
        self.reasons: list[Document] = document.get("reasons", [])
        self.rules: list[str] = [reason["rule"] for reason in self.reasons]
        self.code: int | None = document.get("code")
        self.name: str | None = document.get("name")
        self.left: list[Document] | None = document.get("left")


class Declined(Exception):
    """A change asks a person something, and nobody said yes: nothing was done. `plan` is what was to be asked about."""

    def __init__(self, plan: Document):
        super().__init__("nobody agreed to this: " + " ".join(plan["questions"] or [str(plan["title"])]))
        self.plan = plan


class Frame(NamedTuple):
    """Something that a stream tells. See Client.follow for the kinds."""

    kind: str
    id: str | None
    data: Document | None


class _Connection(http.client.HTTPConnection):
    def __init__(self, path: str, timeout: float):
        super().__init__("localhost", timeout=timeout)
        self._path = path

    def connect(self) -> None:
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(self.timeout)
        try:
            self.sock.connect(self._path)
        except OSError as error:
            self.sock.close()
            raise type(error)(error.errno, f"rvxd does not answer: {error.strerror}", self._path) from None


class Client:
    """rvxd at a socket; without `path` the first of SOCKETS that lets this process in. `timeout` is in seconds, for one
    answer. Nothing is connected before it is needed, and each request has a connection of its own."""

    def __init__(self, path: str | None = None, timeout: float = 90):
        self._paths, self._timeout = (path,) if path else SOCKETS, timeout
        self._known: tuple[str | None, Document] = (None, {})

    def get(self, target: str) -> Document:
        """The document at a path, such as "/v1/disks/sda" or "/v1/events?since=now". Problem: "not-found" and others."""
        return self._ask("GET", target)[1]

    @property
    def read_only(self) -> bool:
        """Whether this process can only look."""
        return self.get("/")["readOnly"]

    def state(self) -> Document:
        """The whole machine, at one moment. As long as nothing has changed it is the same object as the last time, so
        `state is before` tells; do not write into it. Problem "starting" before the first look at the machine."""
        tag, before = self._known
        response, state = self._ask("GET", "/v1/state", headers={"If-None-Match": tag} if tag else {})
        if response.status == 304:
            return before
        self._known = (response.headers["ETag"], state)
        return state

    def plan(self, kind: str, **wanted: Any) -> Document:
        """What a change would do, and whether it is `allowed`; nothing is done. Kinds, and what each wants:

        array.create   level="raid1", disks=["sda", "sdb"], and stripe=bytes or nothing
        array.delete   array="md_d0", or last=True, or all=True; forcePartitionMembers=True
        spare.add      disk="sdc", array="md_d0"
        spare.release  disk="sdc"
        rebuild.start, rebuild.cancel   array="md_d0"
        rescan

        Arrays are named by UUID or name, disks by `id`, kernel name, serial number or WWN. Show a person the plan's `title`,
        `consequences` and `disks`, and ask its `questions`. Problem: "usage", "not-found", "read-only"."""
        return self._ask("POST", "/v1/plans", {"kind": kind, **wanted})[1]

    def begin(self, plan: Document) -> Document:
        """Has a plan carried out; the operation, which goes on when this process does not. Where the answer gets lost, the
        same is asked once more under the same key, and done once. Problem: "forbidden-by-rule" of a plan that is not
        allowed; "stale" where the machine is not as the plan shows it, and nothing was done; "queue-full"; "not-found"
        of a plan that is older than 15 minutes."""
        if not plan["allowed"]:
            detail = (plan["error"] or {}).get("message", "the plan is not allowed")
            raise Problem({"type": "forbidden-by-rule", "detail": detail, "reasons": plan["reasons"]})
        ask = {"plan": plan["plan"], "confirm": True}, {"Idempotency-Key": str(uuid.uuid4())}
        try:
            return self._ask("POST", "/v1/operations", *ask)[1]
        except (http.client.HTTPException, TimeoutError, ConnectionError):
            time.sleep(PAUSE)
        return self._ask("POST", "/v1/operations", *ask)[1]

    def ended(self, operation: Document) -> Document:
        """Waits until an operation has ended, however long that takes. Problem: what it failed with (`left` may say what
        was not done), or "interrupted" where rvxd ended in the middle of it and nobody knows what came of it. OSError:
        nobody answers any more; ask again when somebody does."""
        while not operation["ended"]:
            operation = self.get(f"/v1/operations/{operation['id']}?wait=30")
        if operation["state"] != "done":
            error = operation["error"] or {"detail": f"{operation['title']}: {operation['state']}"}
            raise Problem({"left": operation["left"], **error})
        return operation

    def change(self, kind: str, agree: Callable[[Document], bool] | None = None, **wanted: Any) -> Document:
        """Plans a change, carries it out, and waits for its end: the operation, whose `result` has a `text`. Where
        something would be lost, `agree` is called with the plan; without a yes it is Declined. Problem: as of plan, begin
        and ended."""
        plan = self.plan(kind, **wanted)
        if plan["allowed"] and plan["questions"] and not (agree and agree(plan)):
            raise Declined(plan)
        return self.ended(self.begin(plan))

    def follow(self, cursor: str | None = None) -> Iterator[Frame]:
        """What happens behind `cursor`, of a state or a page of events, or from now on; without an end, and over restarts
        of rvxd. Kinds, as rvxd tells them:

        event                 something happened; each comes once, also what happened while nobody was connected
        operation, condition  the whole of one that changed; a condition whose level is "ok" is over
        state                 there is another state(); data has its `revision` and the names of what `changed`
        reset                 what happened is not all known any more: forget what you counted, take state() again

        and of this client's own:

        open   connected, also again: take state() once more, for only events are told afterwards
        beat   nothing else to tell for 5 seconds
        lost   no connection; data["detail"] says why. Another try follows after a second: break, to make none"""
        last = cursor
        while True:
            try:
                last = last or self.get("/v1/events?since=now&limit=0")["cursor"]
                for frame in self._stream(last):
                    last = frame.id or last
                    yield frame
                detail = "rvxd has ended the stream"
            except Problem as problem:
                if problem.status != 503:  # it starts or stops
                    raise
                detail = str(problem)
            except (OSError, http.client.HTTPException) as error:
                detail = str(error) or type(error).__name__
            yield Frame("lost", None, {"detail": detail})
            time.sleep(PAUSE)

    def _stream(self, last: str) -> Iterator[Frame]:
        headers = {"Accept": "text/event-stream", "Last-Event-ID": last}
        with self._answer("GET", "/v1/events", None, headers, SILENCE) as response:
            yield Frame("open", None, None)
            fields: dict[str, str] = {}
            for raw in response:
                line = raw.decode().rstrip("\r\n")
                if line.startswith(":"):
                    yield Frame("beat", None, None)
                elif line:
                    name, _, value = line.partition(":")
                    fields[name] = value.removeprefix(" ")
                elif fields:
                    yield Frame(fields["event"], fields.get("id"), json.loads(fields["data"]))
                    fields = {}

    def _ask(self, method: str, target: str, body: Document | None = None, headers: dict[str, str] | None = None):
        with self._answer(method, target, body, headers or {}, self._timeout) as response:
            text = response.read()
            return response, json.loads(text) if text else {}

    @contextlib.contextmanager
    def _answer(self, method: str, target: str, body: Document | None, headers: dict[str, str], timeout: float):
        """The answer's header, where that is no problem, with the body to come."""
        with contextlib.closing(self._connected(timeout)) as connection:
            connection.request(method, target, None if body is None else json.dumps(body), headers)
            with connection.getresponse() as response:
                if response.status >= 400:
                    is_problem = response.headers.get("Content-Type", "").startswith("application/problem+json")
                    document = json.load(response) if is_problem else {"status": response.status, "detail": response.reason}
                    wait = response.headers["Retry-After"]
                    raise Problem(document, float(wait) if wait else None)
                yield response

    def _connected(self, timeout: float) -> _Connection:
        for path in self._paths:
            connection = _Connection(path, timeout)
            try:
                connection.connect()
                break
            except PermissionError:
                if path == self._paths[-1]:
                    raise
        return connection
