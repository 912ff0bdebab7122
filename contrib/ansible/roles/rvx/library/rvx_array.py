#!/usr/bin/python3
"""An md array as it should be, made or deleted by rvxd over its Unix socket."""

DOCUMENTATION = r"""
module: rvx_array
short_description: Make and delete md arrays by way of rvxd
version_added: "1.0"
description:
  - Asks C(rvxd) on the machine for a plan, and has it carried out. What a plan does not allow is not done.
  - Nothing is destroyed to make an array. A disk that belongs to another one, is in use, or is not empty makes the task
    fail, with the rules that forbid it.
options:
  state:
    description:
      - C(present) makes the array unless there is one of the same I(level) whose members are the same I(disks).
      - C(absent) deletes the array that has this I(uuid). All that is on it is lost.
    type: str
    choices: [present, absent]
    default: present
  level:
    description: The RAID level. C(rvxd) makes those that C(GET /v1/levels) lists. Needed when I(state=present).
    type: str
    choices: [linear, raid0, raid1, raid4, raid5, raid6, raid10]
  disks:
    description:
      - The members, in the order of their slots. Needed when I(state=present).
      - Each is named by its C(id) in C(rvxd), its name or path below C(/dev) or C(/dev/disk/by-id), or by a serial number
        or WWN that no other disk has. Kernel names may be others after the next boot.
      - The order counts for a new array alone. An existing one is compared without it.
    type: list
    elements: str
  stripe:
    description: The stripe size in bytes; without it the level's default. For a new array alone.
    type: int
  spares:
    description:
      - Hot spares that the array gets, named like I(disks). One that took the place of a failed member is found there.
      - Spares that the array has beside these stay. One that is missing is added to an existing array, too.
    type: list
    elements: str
    default: []
  overwrite:
    description:
      - Whether disks are taken that have something on them, such as a file system that is not mounted. It is lost then.
      - Disks of other arrays are not taken even so.
    type: bool
    default: false
  uuid:
    description:
      - The UUID of the array that is deleted, as C(mdadm --detail) prints it, and for that alone.
      - A name is refused. It belongs to another array as soon as arrays were made, deleted or started in another order.
    type: str
  socket:
    description: The socket of C(rvxd) by which changes are made.
    type: path
    default: /run/rvx/rvxd.sock
  timeout:
    description: Seconds until the task fails. An operation that has begun goes on in C(rvxd).
    type: int
    default: 300
attributes:
  check_mode:
    description: The plan is made, the same that would be carried out, and nothing is changed.
    support: full
  diff_mode:
    description: What the plan says about each disk, with its serial number.
    support: full
notes:
  - Needs root or membership in the group C(rvx) on the machine, in check mode as well.
  - Two tasks that ask for the same disks at once cannot both succeed.
author: piRVX maintainers
"""

EXAMPLES = r"""
- name: A mirror for the data, with a hot spare
  rvx_array:
    level: raid1
    disks: [ata-ST4000NM0035_ZC10AAAA, ata-ST4000NM0035_ZC10BBBB]
    spares: [ata-ST4000NM0035_ZC10CCCC]
  register: data

- name: A file system on it
  community.general.filesystem:
    dev: "{{ data.array.device }}"
    fstype: ext4

- name: No array of that UUID any more
  rvx_array:
    state: absent
    uuid: 4f1c2c3e:9a0b77d1:5e6f0a2b:c3d4e5f6
"""

RETURN = r"""
array:
  description: The array as C(GET /v1/arrays/ID) tells it. None where there is none, or, in check mode, none yet.
  returned: success
  type: dict
  sample: {uuid: "4f1c2c3e:9a0b77d1:5e6f0a2b:c3d4e5f6", name: md_d0, device: /dev/md_d0, level: raid1, state: rebuilding}
plans:
  description: What was planned to be done, each with C(kind), C(title), C(consequences) and C(disks) of what C(POST /v1/plans) answers.
  returned: always, once the machine was looked at
  type: list
  elements: dict
operations:
  description: What was carried out, as C(GET /v1/operations/ID) tells it, with C(steps), C(result) and C(error).
  returned: always, once the machine was looked at
  type: list
  elements: dict
reasons:
  description: The rules that forbid the change, each with C(rule), C(object) and C(text).
  returned: when a plan is refused
  type: list
  elements: dict
  sample: [{rule: disk-in-array, object: sdb, text: "sdb belongs to md_d0", overridable: false}]
"""

import http.client
import json
import re
import socket
import time
import uuid

from ansible.module_utils.basic import AnsibleModule

WITHOUT_REDUNDANCY = ("linear", "raid0")
MD_UNIT = 64 * 1024  # bytes; what a disk has beyond a multiple of it is not used


class Failure(Exception):
    """The task fails; `more` goes into its result."""

    def __init__(self, message, **more):
        super().__init__(message)
        self.more = more


class Stale(Failure):
    """The machine is another one than the plan showed. Nothing was written."""


class Connection(http.client.HTTPConnection):
    def __init__(self, path, timeout):
        super().__init__("localhost", timeout=timeout)
        self._path = path

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self._path)


class Daemon:
    """rvxd, until the task's time is over."""

    def __init__(self, path, timeout):
        self._path, self._end = path, time.monotonic() + timeout

    def left(self):
        return max(0, self._end - time.monotonic())

    def send(self, method, target, body, headers):
        """One request in a connection of its own: status, headers, text."""
        connection = Connection(self._path, self.left() + 5)  # what it waits for by itself comes first
        try:
            connection.request(method, target, None if body is None else json.dumps(body), headers)
            response = connection.getresponse()
            return response.status, response.headers, response.read()
        finally:
            connection.close()

    def ask(self, method, target, body=None, headers=None, again=False):
        """Status and document. What is too early is asked again, and so, where it does no harm, is what got lost."""
        while True:
            try:
                status, got, text = self.send(method, target, body, headers or {})
                if status not in (429, 503) or not self.left():
                    return status, json.loads(text)
                pause = int(got.get("Retry-After", 1))
            except (OSError, ValueError, http.client.HTTPException) as error:
                if not again or not self.left():
                    raise Failure("rvxd does not answer at %s: %s" % (self._path, error))
                pause = 1
            time.sleep(min(pause, self.left()))

    def get(self, target, again=False):
        status, answer = self.ask("GET", target, again=again)
        if status != 200:
            raise problem(answer)
        return answer


def problem(answer, kind=Failure):
    return kind(answer["detail"], reasons=answer["reasons"])


class Task:
    def __init__(self, module):
        self.module, self.daemon = module, Daemon(module.params["socket"], module.params["timeout"])
        self.plans, self.operations, self.notes = [], [], []

    def plan(self, kind, **request):
        """A plan that is allowed and takes nothing that overwrite would have to allow."""
        status, plan = self.daemon.ask("POST", "/v1/plans", dict(request, kind=kind))
        if status != 200:
            raise problem(plan)
        if not plan["allowed"]:
            told = "; ".join("%s (%s)" % (one["text"], one["rule"]) for one in plan["reasons"])
            raise Failure(told or plan["error"]["message"], reasons=plan["reasons"])
        for disk in plan["disks"] if kind != "array.delete" and not self.module.params["overwrite"] else ():
            if disk["contents"]:
                raise Failure("%s, serial number %s, is not empty: %s. With overwrite: true it is taken all the same" %
                              (disk["device"], disk["serial"], ", ".join(disk["contents"])))
        return plan

    def carry_out(self, kind, **request):
        plan = self.plan(kind, **request)
        self.plans.append(plan)
        if not self.module.check_mode:
            self.operations.append(self.begin(plan))
            self.end()

    def begin(self, plan):
        # With the key, the same request after a lost answer is told of the operation that it began.
        status, answer = self.daemon.ask("POST", "/v1/operations", {"plan": plan["plan"], "confirm": True},
                                         {"Idempotency-Key": str(uuid.uuid4())}, again=True)
        if status == 202:
            return answer
        raise problem(answer, Stale if status in (404, 412) else Failure)  # 404: rvxd was started anew and knows no plan

    def end(self):
        """Waits for the last operation."""
        while not self.operations[-1]["ended"]:
            operation = self.operations[-1]
            if not self.daemon.left():
                raise Failure("%s (%s) is still %s; it goes on in rvxd" % (operation["id"], operation["title"], operation["state"]))
            self.operations[-1] = self.daemon.get("/v1/operations/%s?wait=%d" % (operation["id"], min(30, 1 + self.daemon.left())), again=True)
        operation = self.operations[-1]
        if operation["state"] != "done" and operation["error"]["status"] == 412:
            raise problem(self.operations.pop()["error"], Stale)
        if operation["state"] != "done":
            raise Failure("%s (%s) %s: %s" % (operation["id"], operation["title"], operation["state"], operation["error"]["detail"]),
                          reasons=operation["error"]["reasons"])

    def absent(self):
        wanted, arrays = self.module.params["uuid"].lower(), self.daemon.get("/v1/arrays")["arrays"]
        for array in arrays:
            if array["uuid"] == wanted:
                self.carry_out("array.delete", array=wanted)
                return array if self.module.check_mode else None
        unknown = [array["name"] for array in arrays if array["uuid"] is None]
        if unknown:  # it may be the one
            raise Failure("%s has no UUID yet: udev has not made its link below /dev/disk/by-id" % unknown[0])
        return None

    def present(self):
        level, stripe = self.module.params["level"], self.module.params["stripe"]
        state = self.daemon.get("/v1/state")
        disks, spares = ([disk_of(state, name) for name in self.module.params[key]] for key in ("disks", "spares"))
        array = array_of(state, level, disks, spares)
        if array is None:
            least = min((disk["size"] or 0 for disk in disks), default=0)  # a size that nobody knows forbids nothing
            for i, disk in enumerate(spares):  # before the array is made: it could not get them afterwards
                if disk in disks + spares[:i]:
                    raise Failure("%s cannot be a member and its spare, nor two spares" % disk["name"])
                if disk["state"] != "ready":
                    raise Failure("%s cannot be a spare: %s" % (disk["name"], disk["stateText"]))
                if (disk["size"] or least) // MD_UNIT < least // MD_UNIT:
                    raise Failure("%s cannot be a spare: it is smaller than each member" % disk["name"])
                # The array as it is once the spare has taken a member's place tells what is on it; it is never carried out.
                self.plan("array.create", level=level, disks=[one["id"] for one in disks[:-1] + [disk]])
            request = {"level": level, "disks": [disk["id"] for disk in disks]}
            self.carry_out("array.create", **dict(request, **({} if stripe is None else {"stripe": stripe})))
            if self.module.check_mode:
                self.notes = ["%s, serial number %s, becomes its hot spare.\n" % (disk["device"], disk["serial"]) for disk in spares]
                return None
            state = self.daemon.get("/v1/state")
            array = array_of(state, level, disks, spares)
            if array is None:
                raise Failure("the array was made and is gone again")
        held = {member["name"] for member in array["members"]}
        for disk in spares:
            if disk["name"] not in held:
                self.carry_out("spare.add", disk=disk["id"], array=array["uuid"] or array["name"])
        if not self.operations:
            return array
        return self.daemon.get("/v1/arrays/" + (array["uuid"] or array["name"]))

    def run(self):
        goal = self.absent if self.module.params["state"] == "absent" else self.present
        try:
            array = goal()
        except Stale:  # once more from the start: perhaps it is as it should be by now
            self.plans.pop()
            array = goal()
        return dict(array=array, changed=bool(self.plans))

    def told(self):
        """What belongs to the result however it ends."""
        plans = [{key: plan[key] for key in ("kind", "title", "consequences", "disks")} for plan in self.plans]
        text = "".join([plan["text"] for plan in self.plans] + self.notes)
        return dict(plans=plans, operations=self.operations, diff={"prepared": text} if text else {})


def disk_of(state, name):
    found = [disk for disk in state["disks"]
             if name in [disk[key] for key in ("id", "name", "device", "serial", "wwn")] or
             name in disk["byId"] or "/dev/disk/by-id/" + name in disk["byId"]]
    if len(found) == 1:
        return found[0]
    raise Failure("%s disks are called %s: %s" % (len(found), name, ", ".join(disk["device"] for disk in found)) if found
                  else "there is no disk %s" % name)


def array_of(state, level, disks, spares):
    """The array that was made of these disks, whichever of them work in it and whichever wait."""
    wanted, allowed = {disk["name"] for disk in disks}, {disk["name"] for disk in disks + spares}
    for array in state["arrays"]:
        # By kernel names, which belong to whole disks: a member that is a partition is none of those that were asked for.
        held = {member["name"] for member in array["members"]}
        working = {member["name"] for member in array["members"] if member["state"] != "spare"}
        if (array["level"] == level and array["redundancy"]["required"] == len(disks) and wanted <= held and
                working <= allowed):
            return array
    return None


def refusal(params):
    """Why the parameters cannot be meant; None where they can."""
    if params["state"] == "absent":
        if not params["uuid"] or not re.match(r"[0-9a-fA-F]{8}(:[0-9a-fA-F]{8}){3}$", params["uuid"]):
            return ("absent takes the array's uuid, such as 4f1c2c3e:9a0b77d1:5e6f0a2b:c3d4e5f6, and no name: a name may belong "
                    "to another array by now")
    elif params["uuid"]:
        return "uuid is for state absent: the UUID of a new array is made by md"
    elif params["spares"] and params["level"] in WITHOUT_REDUNDANCY:
        return "an array of level %s has no use for spares" % params["level"]
    return None


def main():
    module = AnsibleModule(
        argument_spec=dict(
            state=dict(type="str", choices=["present", "absent"], default="present"),
            level=dict(type="str", choices=["linear", "raid0", "raid1", "raid4", "raid5", "raid6", "raid10"]),
            disks=dict(type="list", elements="str"),
            stripe=dict(type="int"),
            spares=dict(type="list", elements="str", default=[]),
            overwrite=dict(type="bool", default=False),
            uuid=dict(type="str"),
            socket=dict(type="path", default="/run/rvx/rvxd.sock"),
            timeout=dict(type="int", default=300)),
        required_if=[("state", "present", ("level", "disks"))],
        supports_check_mode=True)
    message = refusal(module.params)
    if message:
        module.fail_json(msg=message)
    task = Task(module)
    try:
        result = task.run()
    except Failure as failure:
        module.fail_json(msg=str(failure), changed=bool(task.operations), **dict(task.told(), **failure.more))
    module.exit_json(**dict(task.told(), **result))


if __name__ == "__main__":
    main()
