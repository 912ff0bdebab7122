#!/usr/bin/python3
"""The power goes at random moments of a creation, an addition of a spare, a rebuild and a deletion: no disk that the change
did not name is written to, the named ones only where the change writes, and the next start finds a state that the operator's
guide knows and mends.

    powercut.py --build DIR [--cuts N] [--tap FILE]

QEMU is killed: that is a power cut of disks whose caches keep what they were given. For every other cut the images are made
anew from a log of writes and flushes: of what came behind a disk's last flush any part is lost, as in a cache without power.
RVX_SEED repeats the choices; the moments depend on the machine.
"""

import argparse
import collections
import os
import pathlib
import random
import signal
import struct
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
SECTOR = 512
CALLS = {"create": 6, "spare": 2, "rebuild": 0, "delete": 3}  # that change md or a disk, as KillAt.cpp counts them
FLUSH, FUA = 1, 2  # of a log's entry
SIZE = 16 << 20
BOOT_SECONDS = 600


def sectors(data):
    return [data[at:at + SECTOR] for at in range(0, len(data), SECTOR)]


def entries(log):
    """(sector, flags, data) of each; None where one is torn and others lie behind it."""
    at, found = 0, []
    while at + SECTOR <= len(log):
        sector, count, flags, _ = struct.unpack_from("<4Q", log, at)
        if count == flags == 0:
            return found if not any(log[at:]) else None
        data = log[at + SECTOR:at + SECTOR + count * SECTOR]
        if len(data) == count * SECTOR:
            found.append((sector, flags, data))
        at += SECTOR + count * SECTOR
    return found


class Cuts:
    def __init__(self, options, folder):
        self.options, self.folder = options, folder
        self.random = random.Random(options.seed)
        self.lengths = dict.fromkeys(CALLS, 4.0)
        self.counts = collections.Counter()
        self.lines = []
        self.environment = {"RVX_CUT_DONE": "", "RVX_CUT_DISKS": "", "RVX_CUT_SUM": "", "RVX_CUT_BEGUN": "0"}

    def say(self, line, show=True):
        if line.startswith(("ok - ", "not ok - ")):
            self.counts[line.split(" - ")[0]] += 1
            self.lines.append(line)
        if show:
            print(line, flush=True)

    def expect(self, name, why=""):
        self.say(f"not ok - {name}: {why}" if why else f"ok - {name}")

    def images(self):
        return {path.name[:-4]: path.read_bytes() for path in sorted(self.folder.glob("*.img"))}

    def boot(self, number, change):
        way = self.random.choice(["direct", "rvxd"])
        by_call = bool(CALLS.get(change)) and self.random.random() < 0.5
        call, moment = self.random.randrange(CALLS.get(change, 0) or 1), self.random.random()
        keeps = self.random.random() < 0.5
        told, began, before, logs = {}, None, None, None
        with open(self.folder / "errors", "ab") as errors, subprocess.Popen(
                [HERE.parents[1] / "tests/vm/boot.sh", "--build", self.options.build, "--keep", self.folder, "--timeout", str(BOOT_SECONDS), "powercut",
                 HERE / "powercut.sh"], stdout=subprocess.PIPE, stderr=errors, text=True, errors="replace",
                env={**os.environ, **self.environment, "RVX_CUT_NEXT": change, "RVX_CUT_WAY": way}) as machine:
            try:
                for line in machine.stdout:
                    word, _, rest = line.rstrip("\n").partition(" ")
                    if word in ("ok", "not", "#"):
                        self.say(line.rstrip("\n"), show=word != "ok")
                        continue
                    told[word] = rest
                    if word == "ready":
                        before = self.images()
                        logs = {path.name[:-8]: path.stat().st_size for path in self.folder.glob("*.log")}
                        (self.folder / "boot/control/go").touch()
                    if word == "start":
                        began = time.monotonic()
                        break
                if began:
                    self.wait(call if by_call else None, moment, change)
                    os.kill(int((self.folder / "boot/pid").read_text()), signal.SIGKILL)
                    took = time.monotonic() - began
                    for line in machine.stdout:  # what it had said by then
                        word, _, rest = line.rstrip("\n").partition(" ")
                        told[word] = rest
            finally:
                if machine.poll() is None and not began and change:
                    machine.terminate()
        if not change:
            self.expect("the last boot runs to its end", machine.returncode and f"exit status {machine.returncode}")
            return
        if not began:
            raise RuntimeError(f"the guest did not get as far as the change: {told}")
        name = f"cut {number}: {change} by {way} after {took:.2f} s" + (f", at call {call + 1}" if by_call else "")
        calls = self.calls()
        if "end" in told:
            status, _, said = told["end"].partition(" ")
            self.expect(f"{name}: the change had succeeded", status != "0" and f"exit status {status}: {said}")
        after = self.images()
        if not keeps:
            lost = self.lose(before, logs)
            keeps, after = lost is None, lost or after
            for disk, data in after.items():
                (self.folder / f"{disk}.img").write_bytes(data)
        serials = told["disks"].split()
        touched = self.verify(f"{name}, caches {'kept' if keeps else 'lost'}, {calls} calls", change, before, after, serials)
        asked = way == "rvxd" and change != "rebuild"
        checksum, _, operations = told["ready"].rpartition(" ")
        self.environment = {"RVX_CUT_DONE": change, "RVX_CUT_DISKS": told["disks"], "RVX_CUT_SUM": checksum,
                            "RVX_CUT_BEGUN": str(int(operations) + (asked and touched))}
        self.counts[f"{change}, caches {'kept' if keeps else 'lost'}"] += 1
        self.counts["cut behind the end of the change" if "end" in told else "cut before any call" if not calls else "cut in between"] += 1

    def calls(self):
        path = self.folder / "boot/control/calls"
        return len(path.read_bytes().splitlines()) if path.exists() else 0

    def wait(self, call, moment, change):
        """Until the call is begun and up to 30 ms longer, or for a random part of the time that such a change takes."""
        begin = time.monotonic()
        if call is None:
            time.sleep(moment * self.lengths[change])
            return
        while self.calls() <= call and time.monotonic() < begin + 30:
            time.sleep(0.0005)
        time.sleep(moment * 0.03)

    def lose(self, before, logs):
        """The images without a random part of what no flush had covered; None where a log is torn."""
        after = {}
        for disk, data in before.items():
            with open(self.folder / f"{disk}.img.log", "rb") as log:
                log.seek(max(logs[disk], SECTOR))  # the first one tells the format
                found = entries(log.read())
            if found is None:
                return None
            last = max((at for at, (_, flags, _) in enumerate(found) if flags & FLUSH), default=-1)
            image = bytearray(data)
            for at, (sector, flags, written) in enumerate(found):
                fate = "kept" if at <= last or flags & FUA else self.random.choice(["kept", "lost", "torn"])
                for index, part in enumerate(sectors(written) if fate != "lost" else []):
                    if fate == "kept" or self.random.random() < 0.5:
                        image[(sector + index) * SECTOR:(sector + index + 1) * SECTOR] = part
            after[disk] = bytes(image)
        return after

    def verify(self, name, change, before, after, serials):
        """Whether the named disks were written to; what must not be is a failure."""
        first, second, spare = (serial.lower().replace("-", ".") for serial in serials)
        named = {"create": [first, second], "spare": [first, second, spare], "rebuild": [first, second, spare],
                 "delete": [first, second, spare]}[change]
        target = {"create": second, "rebuild": spare}.get(change)  # which md fills with what the first member has
        super_offset = (SIZE // SECTOR - 16) & ~7
        wrong, touched = [], False
        source = sectors(before[first])
        for disk, data in after.items():
            if disk.startswith("virtio") or data == before[disk]:
                continue
            touched = True
            if disk not in named:
                wrong.append(f"{disk}, which was not named")
                continue
            for at, (old, new) in enumerate(zip(sectors(before[disk]), sectors(data))):
                if old != new and not super_offset <= at < super_offset + 8 and not (
                        disk == target and at < super_offset - 256 and new == source[at]):
                    wrong.append(f"{disk} sector {at}")
        self.expect(name + ": only what was named was written, and only there", ", ".join(wrong[:8]))
        return touched

    def run(self):
        for name in ("ahci.0", "ahci.1", "ahci.2", "sas.0", "sas.1", "sas.2"):
            (self.folder / f"{name}.img").write_bytes(self.random.randbytes(SIZE))
        changes = self.random.sample(list(CALLS), len(CALLS))
        for number in range(self.options.cuts):
            self.boot(number, changes[number % len(changes)])
        self.boot(self.options.cuts, "")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True)
    parser.add_argument("--tap")
    parser.add_argument("--cuts", type=int, default=4)
    parser.add_argument("--seed", type=int, default=int(os.environ.get("RVX_SEED") or random.randrange(2**32)))
    options = parser.parse_args()
    print(f"# seed {options.seed}", flush=True)
    begin = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="rvx-powercut.") as folder:
        cuts = Cuts(options, pathlib.Path(folder))
        try:
            cuts.run()
        except Exception as error:  # told like the other failures
            cuts.expect("the cuts run to their end", f"{error!r} {(pathlib.Path(folder) / 'errors').read_text(errors='replace')[-3000:]}")
    for what, count in sorted(cuts.counts.items()):
        if what not in ("ok", "not ok"):
            print(f"# {what}: {count}")
    print(f"# {time.monotonic() - begin:.0f} s")
    cuts.lines.append(f"# {cuts.counts['ok']} passed, {cuts.counts['not ok']} failed")
    print(cuts.lines[-1])
    if options.tap:
        pathlib.Path(options.tap).parent.mkdir(exist_ok=True)
        pathlib.Path(options.tap).write_text("\n".join(cuts.lines) + "\n", encoding="utf-8")
    return cuts.counts["not ok"] > 0


sys.exit(main())
