"""However long it runs and whatever it is asked, the daemon grows by nothing."""

import dataclasses
import os
import pathlib
import re
import statistics

from campaign import Broken, Campaign, Fault, Trial
from legacy import INPUT, NAME, PROPERTIES
from legacy import path as legacy_path
from victim import Victim

from describe import port
from sim.bus import STATE_NAME, STATE_PATH, BusError, wait_until
from sim.peers import IoBox, Witness

OUTPUTS = range(4)
LINES = range(4, 8)
# What a round does of each, in the proportions of a device's years.
CALLS, CHANGES, SEQUENCES = 250, 25, 5
SAVES = 2
# In its first rounds the daemon takes what it needs from then on.
WARM_UP = 100  # rounds
LOOK_EVERY, LOOK_LESS_EVERY, MANY = 25, 250, 1000  # the latter once there are so many
# What a series of samples may rise by before that is called growth: kilobytes for memory.
ALLOWED = {"memory": 128, "descriptors": 0.5, "threads": 0.5}
# The heap takes a step now and then, and a table doubles when it is full; what leaks goes on at the same
# pace. So a rise counts as one step more when it came in less than so many times the rounds of the one before.
SLOWER = 2
STEPS = 2  # at one pace; a rise more is growth


class Household:
    """A device with a box of lines that its maker plays, and counts of what the daemon has told."""

    def __init__(self, device):
        self.device = device
        self.box = play_box(device)
        device.describe(
            "".join(port(f"out{n}", n) for n in OUTPUTS)
            + "".join(port(f"line{n}", n, "input", "iobox") for n in LINES)
            + port("extra", 8, optional="true")
        )
        device.start()
        self.told = {"PortChanged": 0, "ActionSequenceDone": 0}
        for member in self.told:
            device.first_client.listen(STATE_NAME, member, self._follower(member), STATE_PATH)
        device.sync()
        self.rounds = 0

    def _follower(self, member):
        def follow(_path, values):
            if member != "PortChanged" or values[0] in LINES:
                self.told[member] += 1

        return follow

    def await_told(self, member, count):
        wait_until(lambda: self.told[member] >= count, f"{count} {member}, not {self.told[member]}")

    def round(self):
        self.calls()
        self.input_changes()
        self.sequences()
        self.drop_and_refresh()
        self.box.vanish()
        self.box.appear()
        for n in range(SAVES):
            self.device.state.SetUsage(n, f"usage {self.rounds}")
        self.device.sync()
        self.rounds += 1

    def calls(self):
        under_way = [self.call(n) for n in range(CALLS)]
        wait_until(lambda: all(call.outcome for call in under_way), "all answers")

    def call(self, n):
        state = self.device.state
        number = n // 10 % 10  # one of ten is no port
        if n % 10 == 9:
            return self.device.first_client.begin(
                NAME, legacy_path(number), PROPERTIES, "GetAll", "s", INPUT
            )
        method, *arguments = (
            ("GetState", number), ("GetNames", number), ("GetPortProps",), ("SetState", number, n % 20 == 3),
            ("SetVirtual", number, False), ("GetUsage", number), ("IsConfigurable", number),
            ("SetDirection", number, "sideways"), ("GetNbrPorts",),
        )[n % 10]  # fmt: skip
        return state.begin(method, *arguments)

    def input_changes(self):
        due = self.told["PortChanged"]
        for n in range(CHANGES):
            self.box.emit("IOStateChanged", "is", LINES[0], "closed" if n % 2 == 0 else "open")
        self.box.emit("IOStateChanged", "is", LINES[0], "open")
        self.await_told("PortChanged", due + CHANGES)

    def sequences(self):
        due = self.told["ActionSequenceDone"]
        for n in range(SEQUENCES):
            wait_until(lambda: self.sequence_starts(n), "a port that is not busy")
            self.await_told("ActionSequenceDone", due + n + 1)

    def sequence_starts(self, n):
        """The end of the one before is told a moment before its port is free."""
        try:
            self.device.state.StartActionSequence(OUTPUTS[0], n % 2 == 0, [(True, 0), (False, 1)])
        except BusError as error:
            if error.name.endswith(".Busy"):
                return False
            raise
        return True

    def drop_and_refresh(self):
        self.device.state.DropIOPorts(["extra"])
        self.device.state.RefreshIOPorts()


def play_box(device):
    return Witness(device, IoBox, {
        "GetIOBoxConnected": ("", "b", lambda: (True,)),
        "GetIOBoxType": ("", "s", lambda: ("x5210",)),
        "GetIOPortStatus": ("i", "s", lambda number: ("enabled",)),
        "GetSupervised": ("i", "b", lambda number: (False,)),
        "GetIOState": ("i", "s", lambda number: ("open",)),
        "SetIOMode": ("iis", "", lambda *arguments: ()),
    })  # fmt: skip


def look(pid):
    """How large the daemon is."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    return {
        "memory": int(re.search(r"RssAnon:\s+(\d+)", status)[1]),
        "descriptors": len(os.listdir(f"/proc/{pid}/fd")),
        "threads": int(re.search(r"Threads:\s+(\d+)", status)[1]),
    }


def growth(values):
    """By how much the values have risen, by regression, and whether that is more than their noise."""
    rounds = range(len(values))
    slope, start = statistics.linear_regression(rounds, values)
    rest = sum((y - start - slope * x) ** 2 for x, y in zip(rounds, values))
    error = (rest / (len(values) - 2) / (len(values) * statistics.pvariance(rounds))) ** 0.5
    return slope * len(values), slope > 4 * error


@dataclasses.dataclass
class Series:
    """What the daemon was like after each round since it last took a step."""

    samples: list = dataclasses.field(default_factory=list)
    steps: int = 0
    at_one_pace: int = 0  # of these steps, the last ones
    least: int = LOOK_EVERY  # rounds to go before the step before is known to have been one

    def settled(self):
        return len(self.samples) >= self.least

    def add(self, sample):
        """Fails when the daemon has grown once more than by steps."""
        self.samples.append(sample)
        if len(self.samples) % (LOOK_EVERY if len(self.samples) < MANY else LOOK_LESS_EVERY) == 0:
            grown = [what for what, allowed in ALLOWED.items() if self._grows(what, allowed)]
            if grown:
                self._step(grown)

    def _grows(self, what, allowed):
        risen, sure = growth(self._values(what))
        return sure and risen > allowed

    def _step(self, grown):
        slower = len(self.samples) >= SLOWER * self.least
        self.at_one_pace = 1 if slower else self.at_one_pace + 1
        if self.at_one_pace > STEPS:
            raise Broken(f"after {STEPS} steps: {self.said(grown)}")
        self.steps += 1
        self.least = len(self.samples)
        self.samples = []

    def _values(self, what):
        return [sample[what] for sample in self.samples]

    def said(self, whats):
        return "; ".join(self._course(what) for what in whats) + f" in {len(self.samples)} rounds"

    def _course(self, what):
        values = self._values(what)
        return f"{what} {values[0]} to {values[-1]}, by regression {growth(values)[0]:+.1f}"


def soak(binary, budget):
    with Victim(binary) as device:
        household, series = Household(device), Series()
        pid = device.pid

        def round_and_look():
            household.round()
            series.add(look(pid))

        for _ in range(WARM_UP):
            household.round()
        first = look(pid)["memory"]
        for _ in budget.rounds():
            round_and_look()
        while not series.settled():
            round_and_look()
        device.assert_quiet()
        rounds = household.rounds
    return (
        f"{CALLS * rounds} calls, {CHANGES * rounds} input changes, {SEQUENCES * rounds} sequences, "
        f"{rounds} times drop and refresh, {rounds} peers gone and back, {first:,} KiB at first, "
        f"{series.steps} steps: "
        f"{series.said(ALLOWED)}"
    )


LEAK = Fault(
    "an answer leaks a list", "src/dbus/iocontrol.cpp",
    "  g_autoptr(GList) keys = io_port_get_property_keys(port);",
    "  GList* keys = io_port_get_property_keys(port);",
)  # fmt: skip
OPEN_FOLDER = Fault(
    "a save leaks a descriptor", "src/platform/file-sync.cpp",
    "  return !fd || fsync(fd.get()) == 0 || errno == EINVAL;",
    "  return !fd || dup(fd.get()) < 0 || fsync(fd.get()) == 0 || errno == EINVAL;",
)  # fmt: skip

CAMPAIGN = Campaign(
    "soak",
    "however long it runs, the daemon does not grow",
    (Trial("memory, descriptors and threads stay", soak, (LEAK, OPEN_FOLDER)),),
)
