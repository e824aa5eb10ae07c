"""Streams of changes of every setting, and the file that each of them has to leave.

A lane is a port whose settings are changed through one interface of the daemon, by one client: its
changes are made in their order, while those of different lanes mix. What the file says of the port
after each change is recorded once, without any trouble; whatever happens later, the file has to say
what it said after some number of changes, to the byte.
"""

from describe import element, port
from gi.repository import GLib
from legacy import INPUT, IOPORT, NAME, OUTPUT, PROPERTIES, bytestring
from legacy import path as legacy_path

from sim.bus import wait_until
from sim.device import KEY_FILE
from sim.peers import IoBox

from campaign import Broken

LENGTH = 160  # changes of a lane
LONG = 20_000  # bytes of a text that is not written in one moment
# What a call may be answered when there is nobody to answer it any more.
DEAD = ("NoReply", "ServiceUnknown", "NameHasNoOwner", "Disconnected")


def state_change(number, i):
    """The i-th change through the port control interface, as method and arguments."""
    side = i // 6 % 2 == 0
    return (
        ("SetUsage", number, f"usage {i} " + "x" * (LONG if i % 4 == 0 else 0)),
        ("SetName", number, True, f"input {i}"),
        ("SetActive", number, True, "open" if side else "closed"),
        ("SetName", number, False, f"output {i}"),
        ("SetActive", number, False, "open" if side else "closed"),
        ("SetDirection", number, "input" if side else "output"),
    )[i % 6]


def legacy_change(i):
    """The i-th change through the legacy interface, as interface, property and value."""
    side = i // 9 % 2 == 0
    return (
        (OUTPUT, "PulseTime", GLib.Variant("i", i + 1)),
        (OUTPUT, "Mode", bytestring("monostable" if side else "bistable")),
        (OUTPUT, "DelayTime", GLib.Variant("i", -i - 1)),
        (INPUT, "Name", bytestring(f"input {i}")),
        (INPUT, "Trig", bytestring("open" if side else "closed")),
        (OUTPUT, "Name", bytestring(f"output {i}")),
        (OUTPUT, "Active", bytestring("open" if side else "closed")),
        (IOPORT, "Usage", bytestring(f"usage {i}")),
        (IOPORT, "Direction", bytestring("input" if side else "output")),
    )[i % 9]


def supervision_change(number, i):
    if i % 2 == 0:
        return "SetSupervised", number, i % 4 == 0
    return "SetSupervisedRanges", number, "open", i, i + 1


class Lane:
    """One port's changes: `at` of them are known to be in the file."""

    def __init__(self, kind, owner, number):
        self.kind, self.number = kind, number
        self.name = f"{kind}{owner}"
        self.at = 0
        self.calls = []

    def describe(self):
        names = {"input_name": "in", "output_name": "out"}
        if self.kind == "supervision":
            return port(self.name, self.number, "input", "iobox", input_name="in")
        return port(self.name, self.number, "io_ctrl", dir="output", **names)

    def begin(self, client, i):
        if self.kind == "state":
            return client.state.begin(*state_change(self.number, i))
        if self.kind == "supervision":
            return client.supervision.begin(*supervision_change(self.number, i))
        return client.begin(
            NAME, legacy_path(self.number), PROPERTIES, "Set", "ssv", *legacy_change(i)
        )

    def send(self, client, count):
        """Sends the next changes, all at once."""
        last = min(self.at + count, LENGTH)
        self.calls = [self.begin(client, i) for i in range(self.at, last)]

    def answered(self):
        """How many were answered; an answer that is an error, and not death, breaks the claim."""
        for call in self.calls:
            error = call.outcome and call.outcome[1]
            if error and not error.name.endswith(DEAD):
                raise Broken(f"{call.method} of {self.name}: {error}")
        return sum(call.outcome is not None and call.outcome[1] is None for call in self.calls)


KINDS = ("state", "legacy", "supervision")


class Streams:
    """The lanes of some clients on one device, and what the file has to say after each change."""

    def __init__(self, device, clients):
        self.device = device
        self.clients = [device.client() for _ in range(clients)]
        self.lanes = [
            Lane(kind, owner, owner * len(KINDS) + place)
            for owner in range(clients)
            for place, kind in enumerate(KINDS)
        ]
        IoBox(device)
        # Ports from that number on have no legacy object.
        first = element("first_virtual_input", nbr=len(self.lanes))
        device.describe("".join(lane.describe() for lane in self.lanes) + first)
        device.start()
        self.fresh = device.read(KEY_FILE)
        self.reference = {lane.kind: self._record(lane) for lane in self.lanes[: len(KINDS)]}

    def _record(self, lane):
        texts = [groups(self.device.read(KEY_FILE))[lane.name]]
        for i in range(LENGTH):
            lane.begin(self.clients[0], i).wait()
            self.device.sync()
            texts.append(groups(self.device.read(KEY_FILE))[lane.name])
        if len(set(texts)) != len(texts):
            raise Broken(f"a change of {lane.name} is not in the file")
        return {text: count for count, text in enumerate(texts)}

    def restart_afresh(self):
        """Begins all lanes from their start; the daemon must be dead."""
        self.device.settings(self.fresh)
        for lane in self.lanes:
            lane.at = 0
        self.device.start()

    def near_their_end(self, count):
        return any(lane.at + count > LENGTH for lane in self.lanes)

    def send(self, count):
        for lane in self.lanes:
            lane.send(self.clients[int(lane.name.removeprefix(lane.kind))], count)

    def settle(self):
        """Waits until each call has its answer or is known to get none."""
        calls = [call for lane in self.lanes for call in lane.calls]
        wait_until(lambda: all(call.outcome for call in calls), "the end of all calls")

    def take_stock(self):
        """Checks the file after a death: each lane stands at an exact number of its changes.

        The port control interface answers before it saves, so of one change, the last of all, the
        answer may have gone out and the file may not have it.
        """
        found = groups(self.device.read(KEY_FILE))
        if list(found) != list(groups(self.fresh)):
            raise Broken(f"the file has the groups {list(found)}")
        missing = 0
        for lane in self.lanes:
            at = self.reference[lane.kind].get(found[lane.name])
            sent, answered = len(lane.calls), lane.answered()
            if at is None or not lane.at <= at <= lane.at + sent:
                raise Broken(f"{lane.name} is as after no number of changes: {found[lane.name][:80]!r}")
            lost = max(0, lane.at + answered - at)
            missing += lost
            if missing > 1 or (lost and lane.kind != "state"):
                raise Broken(f"{lane.name}: {answered} changes answered, {at - lane.at} in the file")
            lane.at, lane.calls = at, []


def groups(text):
    """{group: its lines} of a key file, which has to begin with one and to end with a whole line."""
    if not text.startswith("[") or not text.endswith("\n"):
        raise Broken(f"no whole file: {text[:60]!r}...{text[-20:]!r}")
    found = {}
    for part in ("\n" + text).split("\n[")[1:]:
        name, _, lines = part.partition("]\n")
        found[name] = lines.rstrip("\n")
    return found
