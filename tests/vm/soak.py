#!/usr/bin/python3
"""rvxd for hours beside mdadm's monitor, under random changes of arrays and disks: what the monitor tells, rvxd tells too;
its state follows md; its memory and descriptors stay what they were.

RVX_SOAK_SECONDS is how long, RVX_SEED repeats the order of changes as far as the machine's own time allows.
"""

import collections
import http.client
import json
import os
import pathlib
import random
import re
import signal
import socket
import subprocess
import sys
import threading
import time

SECONDS = int(os.environ.get("RVX_SOAK_SECONDS") or 75)
SEED = int(os.environ.get("RVX_SEED") or random.randrange(2**32))
BUILD = os.environ["RVX_BUILD"]
SETTLE_SECONDS = 60  # for rvxd's state to be md's: seconds are usual, a busy machine is not
WINDOW = 30          # between the monitor's word and ours, either way
MAX_MIRRORS = 3

# What the monitor tells, and ours for it: about the array, and about the disk that it names.
COUNTERPARTS = {
    "NewArray": ({10080}, ()),
    "DeviceDisappeared": ({10081}, ()),
    "DegradedArray": ({10078}, ()),
    "RebuildStarted": ({10055, 10085}, ()),
    "RebuildFinished": ({10056, 10058, 10086, 10090}, ()),
    "Fail": ({10078}, {10459, 10033}),  # of a member that works; of a mirror that was short before, the disk's alone
    "FailSpare": ((), {10459, 10033}),  # also one that was being built in
    "SpareActive": ({10056, 10082}, ()),
}
# RebuildNN is none of ours: how far a run is stands in the state. So is the beginning and the end of a check, which changes
# nothing; the state calls it "check" while it runs. SparesMissing, MoveSpare and TestMessage come of a configuration that
# this monitor does not have.
NOT_TOLD = re.compile(r"Rebuild\d\d$")

random_ = random.Random(SEED)
verdicts = collections.Counter()
counts = collections.Counter()
ours = []  # (moment, code, name)
checks = []  # [array, begin, end]
slowest = 0.0


def verdict(name, why=""):
    verdicts[not why] += 1
    print(f"not ok - {name}: {str(why)[:2000]}" if why else f"ok - {name}", flush=True)


def rvx(*arguments):
    return subprocess.run([BUILD + "/bin/rvxctl", *arguments], capture_output=True, text=True, check=False)


def change(*arguments):
    """A change that rvxd is asked for. What it refuses, it refuses with a rule."""
    done = rvx(*arguments, "--yes")
    if done.returncode == 0:
        counts["changes by rvxctl"] += 1
    elif done.returncode in (5, 6) and done.stderr.strip():
        counts["refusals"] += 1
        print(f"# refused: rvxctl {' '.join(arguments)}: {done.stderr.strip()[-200:]}", flush=True)
    else:
        verdict(f"rvxctl {' '.join(arguments)}", f"exit status {done.returncode}: {done.stderr.strip()}")


def mdadm(*arguments):
    """md may be busy with what udev does: then nothing was changed."""
    done = subprocess.run(["mdadm", *arguments], capture_output=True, text=True, check=False)
    counts["changes by mdadm" if done.returncode == 0 else "refusals of md"] += 1
    if done.returncode:
        print(f"# md: mdadm {' '.join(arguments)}: {done.stderr.strip()[-200:]}", flush=True)


def write(path, text):
    try:
        pathlib.Path(path).write_text(text, encoding="ascii")
    except OSError as error:
        print(f"# {path}: {error}", flush=True)


def md():
    """Arrays as the kernel has them: {name: (level, action, {disk: state})}; of one that does not run, the level is empty."""
    arrays = {}
    for folder in pathlib.Path("/sys/block").glob("md*/md"):
        try:
            running = (folder / "array_state").read_text().strip()
            if running == "clear":
                continue
            members = {}
            for member in folder.glob("dev-*"):
                state, slot = (member / "state").read_text().strip().split(","), (member / "slot").read_text().strip()
                members[member.name[4:]] = ("failed" if "faulty" in state else "active" if "in_sync" in state
                                            else "spare" if slot == "none" else "rebuilding")
            action = (folder / "sync_action").read_text().strip() if (folder / "sync_action").exists() else "idle"
            # Where udev has taken out a disk that was pulled, the next rebuild waits for a write.
            if running == "read-auto" and (folder / "degraded").read_text().strip() != "0" and {"spare", "rebuilding"} & {*members.values()}:
                action = "put off"
            arrays[folder.parent.name] = (running != "inactive" and (folder / "level").read_text().strip(), action, members)
        except OSError:  # it goes while it is looked at
            pass
    return arrays


def state():
    connection = http.client.HTTPConnection("localhost", timeout=60)
    connection.sock = socket.socket(socket.AF_UNIX)
    connection.sock.connect("/run/rvx/rvxd-ro.sock")
    connection.request("GET", "/v1/state", headers={"Connection": "close"})
    return json.load(connection.getresponse())


KINDS = {"idle": "none", "resync": "resync", "recover": "rebuild", "check": "check", "frozen": "none", "put off": "rebuild"}


def seen_by(now):
    """What rvxd's state tells, as md() tells it; of an array that does not run there is the condition alone."""
    inactive = {one["object"]: None for one in now["health"]["conditions"] if one["kind"] == "array-inactive"}
    return inactive | {array["name"]: (KINDS.get(array["activity"]["kind"], array["activity"]["kind"]),
                            {one["name"]: one["state"] for one in array["members"] if one["state"] != "missing"})
            for array in now["arrays"]}


def settle():
    """Waits until rvxd's state is md's, and returns it."""
    global slowest
    begin = time.monotonic()
    while True:
        before, now = md(), state()
        want = {name: (KINDS.get(action, action), members) if level else None for name, (level, action, members) in before.items()}
        got = seen_by(now)
        if want == got:
            slowest = max(slowest, time.monotonic() - begin)
            return now, before
        if time.monotonic() > begin + SETTLE_SECONDS:
            verdict("rvxd's state is md's", f"md {want}, rvxd {got}, {pathlib.Path('/proc/mdstat').read_text()}")
            return now, before
        time.sleep(0.2)


def rescan_hosts():
    for host in pathlib.Path("/sys/class/scsi_host").glob("host*/scan"):
        write(host, "- - -")
    subprocess.run(["udevadm", "settle", "--timeout=30"], check=False)


def possible(now, arrays):
    """What can be done now: (weight, name, function)."""
    free = [disk["name"] for disk in now["disks"] if disk["state"] == "ready" and not disk["usedBy"]]
    mirrors = {name: members for name, (level, _, members) in arrays.items() if level == "raid1" and name != "md1"}
    own = [name for name in mirrors if name.startswith("md_d")]  # the others take no spare by rvxctl
    idle = [name for name in mirrors if arrays[name][1] == "idle"]
    of = {word: [(disk, name) for name in mirrors for disk, one in mirrors[name].items() if one == word]
          for word in ("active", "failed", "spare", "rebuilding")}
    whole = [(disk, name) for disk, name in of["active"] if list(mirrors[name].values()).count("active") == 2]
    pick, speed = random_.choice, random_.randrange(4000, 16000)

    def speed_limit():
        write("/proc/sys/dev/raid/speed_limit_max", str(speed))

    def create(level, *options):
        change("array", "create", "--level", level, *options, *random_.sample(free, 2))

    def create_by_mdadm():
        first, second = random_.sample(free, 2)
        mdadm("--create", f"/dev/md{random_.randrange(10, 20)}", "--run", "--level=1", "--metadata=1.0", "--bitmap=none",
              "--raid-devices=2", f"/dev/{first}", f"/dev/{second}")

    def check():
        name = pick(idle)
        checks.append([name, time.monotonic(), None])
        write(f"/sys/block/{name}/md/sync_action", "check")
        settle()
        while (md().get(name) or ("", "idle"))[1] == "check":
            time.sleep(0.5)
        checks[-1][2] = time.monotonic()

    def remove(disk):
        write(f"/sys/block/{disk}/device/delete", "1")
        subprocess.run(["udevadm", "settle", "--timeout=30"], check=False)

    def take(disks, *arguments):
        disk, name = pick(disks)
        mdadm("--manage", f"/dev/{name}", arguments[0], f"/dev/{disk}")

    def rebuild():
        disk, name = pick(whole)
        change("spare", "add", pick(free), name)
        mdadm("--manage", f"/dev/{name}", "--fail", f"/dev/{disk}")

    def stop(name):
        members = arrays[name][2]
        mdadm("--stop", f"/dev/{name}")
        for disk in members:
            mdadm("--zero-superblock", f"/dev/{disk}")

    all_ = [(2, "speed", speed_limit), (2, "hosts rescanned", rescan_hosts), (1, "rescan", lambda: rvx("rescan"))]
    if len(free) >= 2:
        if len(mirrors) < MAX_MIRRORS:
            all_ += [(6, "mirror made", lambda: create("raid1")), (3, "mirror made by mdadm", create_by_mdadm)]
        if len(arrays) == len(mirrors) + 1:
            all_ += [(2, "stripes made", lambda: create("raid0", "--stripe", "64")), (1, "concatenation", lambda: create("linear"))]
    if free:
        all_ += [(1, "free disk pulled", lambda: remove(pick(free)))]
        if mirrors:
            all_ += [(5, "spare added", lambda: change("spare", "add", pick(free), pick(own or list(mirrors)))),
                     (2, "spare added by mdadm", lambda: mdadm("--manage", f"/dev/{pick(list(mirrors))}", "--add", f"/dev/{pick(free)}"))]
        if whole:
            all_ += [(5, "member failed beside a spare", rebuild)]
    if len(mirrors) > 1:
        all_ += [(3, "array deleted", lambda: change("array", "delete", pick(list(mirrors))))]
    others = [name for name, (level, _, _) in arrays.items() if level in ("raid0", "linear")]
    if others:
        all_ += [(3, "striped array deleted", lambda: change("array", "delete", pick(others)))]
    if whole:
        all_ += [(5, "member failed", lambda: take(whole, "--fail")), (1, "member pulled", lambda: remove(pick(whole)[0])),
                 (1, "active member released", lambda: change("spare", "release", pick(whole)[0]))]  # which a rule forbids
    if of["failed"]:
        all_ += [(8, "failed released", lambda: change("spare", "release", pick(of["failed"])[0])),
                 (4, "failed removed by mdadm", lambda: take(of["failed"], "--remove"))]
    if of["spare"]:
        all_ += [(2, "spare failed", lambda: take(of["spare"], "--fail")), (2, "spare released", lambda: change("spare", "release", pick(of["spare"])[0])),
                 (1, "spare pulled", lambda: remove(pick(of["spare"])[0]))]
    if of["rebuilding"]:
        all_ += [(1, "failed while it is built in", lambda: take(of["rebuilding"], "--fail"))]
    waiting = [name for name in mirrors if arrays[name][1] == "put off"]
    if waiting:
        all_ += [(10, "rebuild let begin", lambda: mdadm("--readwrite", f"/dev/{pick(waiting)}"))]
    if idle:
        all_ += [(3, "check", check)]
    broken = [name for name, (level, _, members) in arrays.items() if not level or name in mirrors and "active" not in members.values()]
    if broken:
        all_ += [(20, "what cannot run stopped", lambda: stop(pick(broken)))]
    return all_


def follow(cursor):
    stream = subprocess.Popen([BUILD + "/bin/rvxctl", "events", "--follow", "--json-lines", "--since", cursor],
                              stdout=subprocess.PIPE, text=True)

    def read():
        for line in stream.stdout:
            frame = json.loads(line)
            if frame["type"] == "event":
                event = frame["data"]
                names = {event["objectName"] or "", *(word.split(" ")[0] for word in event["placeholders"])}
                ours.append((time.monotonic(), event["code"], names, event["id"]))
    threading.Thread(target=read, daemon=True).start()
    return stream


def kernel_names(lines):
    """The monitor's lines as (moment, event, array, disk); it may name an array by a link of udev's."""
    known = {}
    for moment, event, array, disk, real in lines:
        for name in (real, array):
            if re.fullmatch(r"/dev/md(_d)?\d+", name):
                known[array] = name[5:]
                break
        yield float(moment), event, known.get(array, array), disk[5:]


def compare(monitor):
    """Those of the monitor's events that have no counterpart. One of ours counts once for each kind of theirs."""
    used, missing = set(), []
    compared = collections.Counter()
    for moment, event, array, disk in kernel_names(monitor):
        if NOT_TOLD.match(event):
            counts["progress, told by the state alone"] += 1
            continue
        if event.startswith("Rebuild") and any(name == array and begin - 1 <= moment <= (end or moment) + 5 for name, begin, end in checks):
            counts["beginnings and ends of checks, told by the state alone"] += 1
            continue
        of_array, of_disk = COUNTERPARTS.get(event, ((), ()))
        found = next((at for at, (ours_at, code, names, _) in enumerate(ours)
                      if (at, event) not in used and abs(ours_at - moment) < WINDOW and
                      (code in of_array and array in names or code in of_disk and disk in names)), None)
        compared[event] += 1
        if found is None:
            missing.append(f"{event} {array} {disk} at {moment}")
            print(f"# ours around {missing[-1]}:", *(f"{ours_at:.1f} {code} {' '.join(sorted(names))};" for ours_at, code, names, _ in ours
                                                     if abs(ours_at - moment) < WINDOW), flush=True)
        else:
            used.add((found, event))
    return compared, missing


def main():
    os.makedirs("/etc/zq", exist_ok=True)
    os.makedirs("/run/rvx", exist_ok=True)
    os.makedirs("/var/lib/rvx", exist_ok=True)
    print(f"# seed {SEED}, {SECONDS} s", flush=True)
    disks = {path.name: path for path in pathlib.Path("/sys/block").glob("sd*")}
    rvx("prop", "set", "plugin", "poll-interval", "2")
    write("/proc/sys/dev/raid/speed_limit_min", "1000")
    write("/proc/sys/dev/raid/speed_limit_max", "10000")
    # The journal is full from the start: what grows then does so without end.
    with open("/var/lib/rvx/events.jsonl", "w", encoding="ascii") as journal:
        print(json.dumps({"epoch": "0000abcd", "next": 1}), file=journal)
        for number in range(1, 8301):
            print(json.dumps({"id": f"0000abcd-{number}", "time": "2026-01-01T00:00:00.000Z", "code": 10470, "key": "disk-freed",
                              "severity": 2, "severityKey": "information", "object": "0x0127000000000006", "objectName": "sdz",
                              "source": "0x0127000000000001", "sourceName": "adapter", "placeholders": ["", "sdz"],
                              "failedMembers": [], "text": "Disk sdz was in use and is now ready.", "count": 1,
                              "last": "2026-01-01T00:00:00.000Z"}), file=journal)
        print(json.dumps({"closed": True}), file=journal)
    os.chmod("/var/lib/rvx/events.jsonl", 0o600)
    pathlib.Path("/tmp/alert").write_text('#!/bin/sh\nread -r up rest </proc/uptime\n'
                                          'echo "$up $1 $2 ${3:--} $(readlink -f "$2")" >>/tmp/mdadm\n', encoding="ascii")
    os.chmod("/tmp/alert", 0o755)
    pathlib.Path("/tmp/mdadm").touch()
    # It ends where there is no array to watch.
    anchor = sorted(disks)[-2:]
    subprocess.run(["mdadm", "--create", "/dev/md1", "--run", "--level=1", "--metadata=1.2", "--bitmap=none", "--assume-clean",
                    "--raid-devices=2", *(f"/dev/{name}" for name in anchor)], capture_output=True, check=True)
    monitor = subprocess.Popen(["mdadm", "--monitor", "--scan", "--program=/tmp/alert"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    with open("/tmp/rvxd.log", "wb") as log:
        server = subprocess.Popen([BUILD + "/sbin/rvxd"], stdout=log, stderr=log)
    deadline = time.monotonic() + 60
    while rvx("api", "GET", "/v1/health").returncode and time.monotonic() < deadline:
        time.sleep(0.2)
    follower = follow(settle()[0]["cursor"])
    global slowest
    slowest = 0
    time.sleep(5)

    samples, begin, told = [], time.monotonic(), 0.0
    while (passed := time.monotonic() - begin) < SECONDS and server.poll() is None:
        now, arrays = settle()
        choices = possible(now, arrays)
        _, name, act = random_.choices(choices, [weight for weight, _, _ in choices])[0]
        at = time.monotonic()
        act()
        if time.monotonic() - at > 20:
            print(f"# {name} took {time.monotonic() - at:.0f} s", flush=True)
        counts["steps"] += 1
        counts[name] += 1
        samples.append((int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{server.pid}/status").read_text())[1]),
                        len(os.listdir(f"/proc/{server.pid}/fd")), len(os.listdir(f"/proc/{server.pid}/task"))))
        if passed - told >= 120:
            told = passed
            print(f"# {passed:.0f} s: {counts['steps']} steps, {counts['refusals']} refusals, {len(ours)} events, slowest look "
                  f"{slowest:.1f} s, {samples[-1][0]} KiB, {samples[-1][1]} descriptors, {samples[-1][2]} threads", flush=True)
        time.sleep(random_.uniform(0.5, 4))  # so that the monitor, which looks again after each change, sees it
    verdict("rvxd runs on", server.poll() is not None and f"it ended: {server.poll()}")
    settle()
    time.sleep(5)
    print(f"# {dict(counts)}", flush=True)
    compared, missing = compare([words for words in map(str.split, pathlib.Path("/tmp/mdadm").read_text().splitlines())
                                 if float(words[0]) > begin])
    print(f"# compared: {dict(compared)}", flush=True)
    verdict("each of the monitor's events is rvxd's, too", "; ".join(missing))
    verdict("the monitor saw something", not compared["Fail"] and dict(compared))
    quarter = max(len(samples) // 4, 1)
    for at, what, slack in ((0, "KiB", 1024), (1, "descriptors", 2), (2, "threads", 2)):
        first, last = max(one[at] for one in samples[:quarter]), max(one[at] for one in samples[-quarter:])
        print(f"# {what}: at most {first} in the first quarter, {last} in the last", flush=True)
        verdict(f"{what} of rvxd stay as they were", last > first + slack and f"{first}, then {last}")
    server.send_signal(signal.SIGTERM)
    verdict("rvxd ends in order", server.wait() and f"exit status {server.returncode}")
    monitor.terminate()
    follower.terminate()
    verdict("nobody started it anew, nor did it lose a line", "skipped" in pathlib.Path("/var/lib/rvx/events.jsonl").read_text() and "skipped")
    if verdicts[False]:
        print(pathlib.Path("/tmp/rvxd.log").read_text()[-4000:])
    print(f"# {verdicts[True]} passed, {verdicts[False]} failed")
    return verdicts[False] > 0


sys.exit(main())
