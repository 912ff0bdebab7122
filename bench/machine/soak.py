#!/usr/bin/python3
"""rvxd for hours beside mdadm's monitor, under random changes of arrays and disks: what the monitor tells, rvxd tells too;
its state follows md; its memory and descriptors stay what they were.

RVX_SOAK_SECONDS is how long, RVX_SEED repeats the order of changes as far as the machine's own time allows.
"""

import collections
import functools
import http.client
import json
import os
import pathlib
import random
import re
import socket
import subprocess
import sys
import threading
import time

SECONDS = int(os.environ.get("RVX_SOAK_SECONDS") or 120)
SEED = int(os.environ.get("RVX_SEED") or random.randrange(2**32))
BUILD = os.environ["RVX_BUILD"]
SETTLE_SECONDS = 60  # for rvxd's state to be md's: seconds are usual, a busy machine is not
NEAR, WINDOW = 2, 30  # between the monitor's word and ours, either way: usually, and at most

# What the monitor tells, and ours for it: about the array, and about the disk that it names.
COUNTERPARTS = {
    "NewArray": ({10080}, ()),
    "DeviceDisappeared": ({10081}, ()),
    "DegradedArray": ({10078}, ()),
    "RebuildStarted": ({10055, 10085}, ()),
    "RebuildFinished": ({10056, 10058, 10086, 10090}, ()),
    "Fail": ({10078}, {10459, 10033}),  # of a mirror that was short before, the disk's alone
    # Also one that was being built in. A failed disk is news at the second pass: released before, it is told as ready again.
    "FailSpare": ((), {10459, 10033, 10455}),
    "SpareActive": ({10056, 10082}, ()),
}
# RebuildNN is none of ours: how far a run is stands in the state. So is the beginning and the end of a check, which changes
# nothing; the state calls it "check" while it runs. SparesMissing, MoveSpare and TestMessage come of a configuration that
# this monitor does not have.
PROGRESS = re.compile(r"Rebuild\d\d$")
KINDS = {"resync": "resync", "recover": "rebuild", "put off": "rebuild", "check": "check"}  # by md's word; else none

random_ = random.Random(SEED)
verdicts = collections.Counter()
counts = collections.Counter()
ours = []    # (moment, code, names)
checks = []  # [array, begin, end]
kernel = []  # (moment, text)
slowest = 0.0


def verdict(name, why=""):
    verdicts[not why] += 1
    print(f"not ok - {name}: {str(why)[:2000]}" if why else f"ok - {name}", flush=True)


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, check=False)


def rvx(*arguments):
    return run(BUILD + "/bin/rvxctl", *arguments)


def change(*arguments):
    """A change that rvxd is asked for. What it refuses, it refuses with a rule, or since a disk has just been pulled."""
    done = rvx(*arguments, "--yes")
    gone = any(word.startswith("sd") and not pathlib.Path(f"/sys/block/{word}").exists() for word in arguments)
    if done.returncode not in (0, 5, 6, *([3] if gone else [])) or not (done.stdout + done.stderr).strip():
        verdict(f"rvxctl {' '.join(arguments)}", f"exit status {done.returncode}: {done.stderr.strip()}")
    counts["refusals" if done.returncode else "changes by rvxctl"] += 1


def mdadm(*arguments):
    """md may be busy with what udev does: then nothing was changed."""
    counts["refusals of md" if run("mdadm", *arguments).returncode else "changes by mdadm"] += 1


def write(path, text):
    try:
        pathlib.Path(path).write_text(text, encoding="ascii")
    except OSError as error:
        print(f"# {path}: {error}", flush=True)


def md():
    """Arrays as the kernel has them: {name: (level, action, {disk: state})}; of one that does not run, the level is empty."""
    arrays = {}
    for folder in pathlib.Path("/sys/block").glob("md*/md"):
        def text(name, folder=folder):
            return (folder / name).read_text().strip()
        try:
            if (running := text("array_state")) == "clear":
                continue
            members = {}
            for member in folder.glob("dev-*"):
                state, slot = text(member / "state").split(","), text(member / "slot")
                members[member.name[4:]] = ("failed" if "faulty" in state else "active" if "in_sync" in state
                                            else "spare" if slot == "none" else "rebuilding")
            action = text("sync_action") if (folder / "sync_action").exists() else "idle"
            # Where udev has taken out a disk that was pulled, the next rebuild waits for a write.
            if running == "read-auto" and text("degraded") != "0" and {"spare", "rebuilding"} & {*members.values()}:
                action = "put off"
            elif running == "read-auto" and text("resync_start") != "none":
                action = "resync"  # which is put off too
            arrays[folder.parent.name] = ("" if running == "inactive" else text("level"), action, members)
        except OSError:  # it goes while it is looked at
            pass
    return arrays


def state():
    connection = http.client.HTTPConnection("localhost", timeout=60)
    connection.sock = socket.socket(socket.AF_UNIX)
    connection.sock.connect("/run/rvx/rvxd-ro.sock")
    connection.request("GET", "/v1/state", headers={"Connection": "close"})
    return json.load(connection.getresponse())


def wait_for_passes():
    """Until rvxd has looked twice since now: what it tells of a disk that fails, it tells at its second look."""
    for _ in range(3):  # the one that runs may have looked before
        before, deadline = state()["time"], time.monotonic() + SETTLE_SECONDS
        while state()["time"] == before and time.monotonic() < deadline:
            time.sleep(0.2)


def settle():
    """Waits until rvxd's state is md's, and returns both. Of an array that does not run, rvxd has the condition alone."""
    global slowest
    begin = time.monotonic()
    while True:
        arrays, now = md(), state()
        want = {name: (KINDS.get(action, "none"), members) if level else None for name, (level, action, members) in arrays.items()}
        got = {one["object"]: None for one in now["health"]["conditions"] if one["kind"] == "array-inactive"} | {
            array["name"]: (array["activity"]["kind"], {one["name"]: one["state"] for one in array["members"] if one["state"] != "missing"})
            for array in now["arrays"]}
        took = time.monotonic() - begin
        if want == got or took > SETTLE_SECONDS:
            if want != got:
                verdict("rvxd's state is md's", f"md {want}, rvxd {got}, {pathlib.Path('/proc/mdstat').read_text()}")
            slowest = max(slowest, took)
            return now, arrays
        time.sleep(0.2)


def possible(now, arrays):
    """What can be done now: (weight, name, function)."""
    pick = random_.choice
    free = [disk["name"] for disk in now["disks"] if disk["state"] == "ready" and not disk["usedBy"]]
    mirrors = {name: members for name, (level, _, members) in arrays.items() if level == "raid1" and name != "md1"}
    own = [name for name in mirrors if name.startswith("md_d")]  # the others take no spare by rvxctl
    others = [name for name, (level, _, _) in arrays.items() if level in ("raid0", "linear")]
    idle = [name for name in mirrors if arrays[name][1] == "idle"]
    waiting = [name for name in mirrors if arrays[name][1] == "put off"]
    broken = [name for name, (level, _, members) in arrays.items() if not level or name in mirrors and "active" not in members.values()]
    active, failed, spare, rebuilding = ([(disk, name) for name in mirrors for disk, one in mirrors[name].items() if one == word]
                                         for word in ("active", "failed", "spare", "rebuilding"))
    whole = [(disk, name) for disk, name in active if list(mirrors[name].values()).count("active") == 2]

    def create(level, *options):
        change("array", "create", "--level", level, *options, *random_.sample(free, 2))

    def create_by_mdadm():
        mdadm("--create", f"/dev/md{random_.randrange(10, 20)}", "--run", "--level=1", "--metadata=1.0", "--bitmap=none",
              "--raid-devices=2", *(f"/dev/{name}" for name in random_.sample(free, 2)))

    def check():
        checks.append([name := pick(idle), time.monotonic(), None])
        write(f"/sys/block/{name}/md/sync_action", "check")
        settle()
        while md().get(name, ("", "idle"))[1] == "check":
            time.sleep(0.5)
        checks[-1][2] = time.monotonic()

    def manage(disks, word):
        disk, name = pick(disks)
        mdadm("--manage", f"/dev/{name}", word, f"/dev/{disk}")

    def release(disks):
        change("spare", "release", pick(disks)[0])

    def rebuild():
        disk, name = pick(whole)
        change("spare", "add", pick(free), name)
        mdadm("--manage", f"/dev/{name}", "--fail", f"/dev/{disk}")

    def stop(name):
        mdadm("--stop", f"/dev/{name}")
        mdadm("--zero-superblock", *(f"/dev/{disk}" for disk in arrays[name][2]))

    def pull(disk):
        write(f"/sys/block/{disk}/device/delete", "1")
        run("udevadm", "settle", "--timeout=30")

    def put_back():
        for host in pathlib.Path("/sys/class/scsi_host").glob("host*/scan"):
            write(host, "- - -")
        run("udevadm", "settle", "--timeout=30")

    room, two = len(mirrors) < 3, len(free) > 1
    return [(weight, name, act) for weight, condition, name, act in (
        (2, True, "speed", lambda: write("/proc/sys/dev/raid/speed_limit_max", str(random_.randrange(4000, 16000)))),
        (2, True, "disks put back", put_back),
        (1, True, "rescan", lambda: rvx("rescan")),
        (6, two and room, "mirror made", lambda: create("raid1")),
        (3, two and room, "mirror made by mdadm", create_by_mdadm),
        (2, two and not others, "stripes made", lambda: create("raid0", "--stripe", "64")),
        (1, two and not others, "concatenation made", lambda: create("linear")),
        (3, len(mirrors) > 1, "mirror deleted", lambda: change("array", "delete", pick([*mirrors]))),
        (3, others, "other array deleted", lambda: change("array", "delete", pick(others))),
        (5, free and mirrors, "spare added", lambda: change("spare", "add", pick(free), pick(own or [*mirrors]))),
        (2, free and mirrors, "spare added by mdadm", lambda: mdadm("--manage", f"/dev/{pick([*mirrors])}", "--add", f"/dev/{pick(free)}")),
        (5, free and whole, "member failed beside a spare", rebuild),
        (5, whole, "member failed", lambda: manage(whole, "--fail")),
        (1, whole, "working member released", lambda: release(whole)),  # which a rule forbids
        (8, failed, "failed released", lambda: release(failed)),
        (4, failed, "failed removed by mdadm", lambda: manage(failed, "--remove")),
        (2, spare, "spare failed", lambda: manage(spare, "--fail")),
        (2, spare, "spare released", lambda: release(spare)),
        (1, rebuilding, "failed while it was built in", lambda: manage(rebuilding, "--fail")),
        (3, free or whole or spare, "disk pulled", lambda: pull(pick([(disk,) for disk in free] + whole + spare)[0])),
        (10, waiting, "rebuild let begin", lambda: mdadm("--readwrite", f"/dev/{pick(waiting)}")),
        (3, idle, "check", check),
        (20, broken, "what cannot run stopped", lambda: stop(pick(broken)))) if condition]


def follow(cursor):
    stream = subprocess.Popen([BUILD + "/bin/rvxctl", "events", "--follow", "--json-lines", "--since", cursor],
                              stdout=subprocess.PIPE, text=True)

    def read():
        for line in stream.stdout:
            if (frame := json.loads(line))["type"] == "event":
                event = frame["data"]
                ours.append((time.monotonic(), event["code"],
                             {event["objectName"], *(word.split(" ")[0] for word in event["placeholders"])}))
    threading.Thread(target=read, daemon=True).start()
    return stream


def listen():
    """Takes in what the kernel says, of which it keeps a part alone."""
    source = os.open("/dev/kmsg", os.O_RDONLY)
    while True:
        try:
            facts, text = os.read(source, 8192).decode(errors="replace").split(";", 1)
            kernel.append((int(facts.split(",")[2]) / 1e6, text.split("\n")[0]))
        except BrokenPipeError:
            print("# the kernel said more than could be read", flush=True)


def compare(monitor):
    """How many of the monitor's events were compared, and those without a counterpart. One of ours counts once for each kind
    of theirs."""
    used, pending, compared, known = set(), [], collections.Counter(), {}
    for moment, event, path, disk, real in monitor:
        moment, disk = float(moment), disk[5:]
        # It may name an array by a link of udev's, which is gone with the array.
        known.update({path: one[5:] for one in (path, real) if re.fullmatch(r"/dev/md(_d)?\d+", one)})
        array = known.get(path, path)
        if PROGRESS.match(event) or event.startswith("Rebuild") and any(
                name == array and begin - 1 <= moment <= (end or moment) + 5 for name, begin, end in checks):
            compared["told by the state alone"] += 1
            continue
        compared[event] += 1
        pending.append((moment, event, array, disk))

    def counterpart(window, moment, event, array, disk):
        of_array, of_disk = COUNTERPARTS.get(event, ((), ()))
        return next(((at, event) for at, (ours_at, code, names) in enumerate(ours) if (at, event) not in used and
                     abs(ours_at - moment) < window and (code in of_array and array in names or code in of_disk and disk in names)), None)

    def interruption(moment, event, array, _):
        # A spare that fails interrupts what is built, and md goes on at once: two runs for the monitor, one for rvxd.
        found = next(((at, text, event) for at, text in kernel if event.startswith("Rebuild") and (at, text, event) not in used and
                      abs(at - moment) < WINDOW and re.search(rf"\b{array}: (resync|recovery) interrupted", text)), None)
        compared["interrupted, and begun again at once"] += found is not None
        return found

    # What is told in the same moment belongs together: else one without a counterpart would take that of the next one.
    for find in (functools.partial(counterpart, NEAR), functools.partial(counterpart, WINDOW), interruption):
        rest = []
        for one in pending:
            found = find(*one)
            if found:
                used.add(found)
            else:
                rest.append(one)
        pending = rest
    missing = [f"{event} {array} {disk} at {moment}" for moment, event, array, disk in pending]
    for what, (moment, _, array, _) in zip(missing, pending):
        explain(what, array, moment, monitor)
    return compared, missing


def explain(what, array, moment, monitor):
    """What the monitor and the kernel said of the array around that moment, and what rvxd said of all."""
    print(f"# {what}", flush=True)
    said = [(float(at), f"monitor {event} {disk}") for at, event, path, disk, real in monitor if array in (path[5:], real[5:])]
    said += [(at, f"rvxd {code} {' '.join(filter(None, names))}") for at, code, names in ours]
    said += [(at, f"kernel {text}") for at, text in kernel if array in text]
    for at, text in sorted(said):
        if abs(at - moment) < WINDOW:
            print(f"#   {at:.2f} {text}", flush=True)


def fill_state():
    """The journal and the arrays that were, as many as rvxd keeps: what grows then does so without end."""
    event = {"time": "2026-01-01T00:00:00.000Z", "code": 10470, "key": "disk-freed", "severity": 2, "severityKey": "information",
             "object": "0x0127000000000006", "objectName": "sdz", "source": "0x0127000000000001", "sourceName": "adapter",
             "placeholders": ["", "sdz"], "failedMembers": [], "text": "Disk sdz was in use and is now ready, " + 40 * ".", "count": 1,
             "last": "2026-01-01T00:00:00.000Z"}
    journal = pathlib.Path("/var/lib/rvx/events.jsonl")
    journal.touch(0o600)
    journal.write_text("".join(json.dumps(line) + "\n" for line in (
        {"epoch": "0000abcd", "next": 1}, *({"id": f"0000abcd-{number}"} | event for number in range(1, 8301)), {"closed": True})))
    disks = [{"name": name, "id": f"scsi-0QEMU_QEMU_HARDDISK_{name}", "serial": name, "model": "QEMU HARDDISK", "path": "0:0:0:0",
              "state": "gone"} for name in ("sdx", "sdy")]
    pathlib.Path("/var/lib/rvx/members.json").write_text(json.dumps({f"{number:08x}:00000000:00000000:00000000": disks for number in range(256)}))


def main():
    global slowest
    print(f"# seed {SEED}, {SECONDS} s", flush=True)
    for folder in ("/etc/zq", "/run/rvx", "/var/lib/rvx"):
        os.makedirs(folder, exist_ok=True)
    rvx("prop", "set", "plugin", "poll-interval", "2")
    write("/proc/sys/dev/raid/speed_limit_max", "10000")
    fill_state()
    threading.Thread(target=listen, daemon=True).start()
    seen = pathlib.Path("/tmp/mdadm")
    seen.touch()
    alert = pathlib.Path("/tmp/alert")
    alert.write_text(f'#!/bin/sh\nread -r up rest </proc/uptime\necho "$up $1 $2 ${{3:--}} $(readlink -f "$2")" >>{seen}\n', encoding="ascii")
    alert.chmod(0o755)
    # It ends where there is no array to watch.
    run("mdadm", "--create", "/dev/md1", "--run", "--level=1", "--metadata=1.2", "--bitmap=none", "--assume-clean", "--raid-devices=2",
        *(f"/dev/{path.name}" for path in sorted(pathlib.Path("/sys/block").glob("sd*"))[-2:]))
    monitor = subprocess.Popen(["mdadm", "--monitor", "--scan", f"--program={alert}"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    with open("/tmp/rvxd.log", "wb") as log:
        server = subprocess.Popen([BUILD + "/sbin/rvxd"], stdout=log, stderr=log)
    deadline = time.monotonic() + 60
    while rvx("api", "GET", "/v1/health").returncode and time.monotonic() < deadline:
        time.sleep(0.2)
    follower = follow(settle()[0]["cursor"])
    time.sleep(5)

    samples, begin, told, slowest = [], time.monotonic(), 0.0, 0.0
    while (passed := time.monotonic() - begin) < SECONDS and server.poll() is None:
        choices = possible(*settle())
        _, name, act = random_.choices(choices, [weight for weight, _, _ in choices])[0]
        act()
        counts["steps"] += 1
        counts[name] += 1
        process = pathlib.Path(f"/proc/{server.pid}")
        samples.append((int(re.search(r"VmRSS:\s+(\d+)", (process / "status").read_text())[1]),
                        len(os.listdir(process / "fd")), len(os.listdir(process / "task"))))
        if passed - told >= 120:
            told = passed
            print(f"# {passed:.0f} s: {counts['steps']} steps, {len(ours)} events, slowest look {slowest:.1f} s, KiB, descriptors and "
                  f"threads {samples[-1]}", flush=True)
        wait_for_passes()
    verdict("rvxd runs on", server.poll() is not None and f"it ended: {server.poll()}")
    settle()
    time.sleep(5)
    print(f"# {dict(counts)}, slowest look {slowest:.1f} s", flush=True)
    lines = map(str.split, seen.read_text().splitlines())
    compared, missing = compare([words for words in lines if float(words[0]) > begin])
    print(f"# compared: {dict(compared)}", flush=True)
    verdict("each of the monitor's events is rvxd's, too", "; ".join(missing))
    verdict("the monitor saw something", not compared.total() and "nothing")
    quarter = max(len(samples) // 4, 1)
    for what, slack, of in zip(("KiB", "descriptors", "threads"), (1024, 2, 2), zip(*samples)):
        first, last = max(of[:quarter]), max(of[-quarter:])
        print(f"# {what}: at most {first} in the first quarter, {last} in the last", flush=True)
        verdict(f"{what} of rvxd stay as they were", last > first + slack and f"{first}, then {last}")
    for process in (server, monitor, follower):
        process.terminate()
    verdict("rvxd ends in order", server.wait() and f"exit status {server.returncode}")
    verdict("nobody started it anew", "skipped" in pathlib.Path("/var/lib/rvx/events.jsonl").read_text() and "skipped")
    if verdicts[False]:
        print(pathlib.Path("/tmp/rvxd.log").read_text()[-4000:])
    print(f"# {verdicts[True]} passed, {verdicts[False]} failed")
    return verdicts[False] > 0


sys.exit(main())
