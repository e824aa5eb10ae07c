"""What the figures are held to: a floor, an aim, and where the aim is not met, why."""

import dataclasses

import calls
import footprint
import kernel
import native_edges
import running
import starts
import writes
from harness import OURS
from lab import FLOOR, NEIGHBOUR


@dataclasses.dataclass(frozen=True)
class Aim:
    """One row. The aim is a limit of the ratio to the floor, or where there is none to be had, or none
    that would say anything, of the figure itself; `reason` is told when it is not met."""

    title: str
    part: str
    what: str
    unit: str
    limit: float
    floor: str = FLOOR
    of_ratio: bool = False
    reason: str = ""

    def look_up(self, results):
        """(quartiles of ours, of the floor's, of the ratio), each None where there is none."""
        entry = results["parts"].get(self.part, {}).get(self.what)
        if entry is None:
            return None, None, None
        values = entry["values"]
        return values.get(OURS), values.get(self.floor), entry["ratios"].get(self.floor)

    def _judged(self, results):
        ours, _, ratio = self.look_up(results)
        return ratio if self.of_ratio else ours

    def met(self, results):
        """None where nothing was measured."""
        judged = self._judged(results)
        return None if judged is None else judged["median"] <= self.limit

    def why_not(self, results):
        """The reason of an aim that is not met; empty where there is none."""
        near = self._judged(results)["q1"] <= self.limit
        return self.reason or (SPREAD_REASON if near else "")


# Told where the aim is not met; what they say was looked at by callgrind, nm and size.
SPREAD_REASON = "a quarter of the rounds and more are within it, so what else the machine did decides"
START_REASON = (
    "a third of it is the dynamic linker's, which binds GLib and the C++ library; with the latter linked in "
    "(`WEXD_STATIC_LIBSTDCXX`), it is 11.2 M. GLib takes 2.6 M before main and on the bus library's thread, "
    "the connection 1.1 M. Of the remaining 5 M, one half reads and compares description, settings and "
    "generated files, the other one publishes the interfaces and takes them off again, nearly all of it "
    "inside GLib: 0.4 M are the daemon's own code"
)
SIZE_REASON = (
    "about 330 kB are code (60 kB of it instances of the C++ library's templates), 78 kB tables for "
    "exceptions, 29 kB constants. It has eleven kinds of hardware, pins by two kernel interfaces and the "
    "legacy interface, and is built for speed: `MinSizeRel` makes 374 kB, and a start that takes 0.9 M "
    "instructions more. Nothing of the command line client, and no other library, is linked in"
)
EXEC_REASON = (
    "the floor reads no description, no settings and no generated files, publishes two interfaces instead "
    "of seven, and does without the C++ library, which a process in C++ has to bind first"
)
MEMORY_REASON = (
    "64 KiB of it are what the C++ library writes to in each program that has it, and the floor has not; "
    "with it linked in (`WEXD_STATIC_LIBSTDCXX`) it is about 590 KiB. The ports, their settings and the "
    "objects on the bus are the rest of the difference"
)
SEQUENCES_REASON = "what was allocated after the threads' own keeps pages from being given back"
EDGE_REASON = (
    "one signal from connection to connection takes two milliseconds and more on the emulated machine, twenty "
    "times the aim, the daemon's share is half of that, and libgpiod's manager, which stands beside it and "
    "lets nothing settle, takes no less. It is the same for both ways to a pin. The row before has the same "
    "on the machine itself, with pins that are plain files"
)
GROWTH_REASON = (
    "the walk that gives default names looks at every port for every number below the count, which is "
    "quadratic (`default_names`, below); all else grows with the number of ports"
)
LATE_REASON = "both wait at the same time, and on a busy machine one step in two is late by what others do"


def reads():
    return [
        Aim(f"{call}, instructions", "instructions", call, "instructions", 1.1, of_ratio=True)
        for call in ("GetState", "GetPortProps", "GetAll")
    ]


def set_states():
    return [
        Aim(f"{call}, instructions", "instructions", call, "instructions", 1.15, of_ratio=True)
        for call in ("SetState that toggles", "SetState")
    ]


def write_counts():
    rows = []
    for what, syncs, renames in ((writes.SET, 0, 0), (writes.SECOND, 0, 0), (writes.FIRST, 4, 1)):
        for name, limit in ((writes.syncs_name(what), syncs), (writes.renames_name(what), renames)):
            rows.append(Aim(f"{name}, 16 ports", "writes", name, "calls", limit))
    return rows


def boots():
    disk = "on disk"
    some, many = (starts.boot_name("second", count, disk) for count in (starts.SOME, starts.MANY))
    few = starts.boot_name("second", starts.FEW, disk)
    return [
        Aim(f"{some}, exec to names", "boots", some, "us", 50e3),
        Aim(f"{many}, exec to names", "boots", many, "us", 400e3),
        Aim("growth from 512 to 4,096 ports, the e of n^e", "boots", starts.growth_name("second", disk),
            "exponent", 1.2, reason=GROWTH_REASON),
        Aim(f"{few}, exec to names", "boots", few, "us", 1.5, of_ratio=True, reason=EXEC_REASON),
        Aim("start and stop, 16 ports, instructions", "instructions", calls.LIFE, "instructions", 11e6,
            reason=START_REASON),
        Aim("start among a silent coordinator and streamer", "around", "start with silent peers", "us",
            1.1, floor=starts.WITHOUT, of_ratio=True),
    ]  # fmt: skip


def footprints():
    return [
        Aim("stripped binary", "footprint", footprint.BINARY, "kB", 300, reason=SIZE_REASON),
        Aim("private dirty memory, 16 ports", "footprint", footprint.AT_REST, "KiB", 0.65 * 1024,
            reason=MEMORY_REASON),
        Aim("private dirty memory after 100 sequences at once", "footprint", footprint.AFTER, "KiB",
            1.5 * 1024, floor=footprint.BEFORE_THEM, reason=SEQUENCES_REASON),
    ]  # fmt: skip


def running_by_itself():
    return [
        Aim("lateness of a sequence's step", "lateness", running.LATE, "us", 1.15,
            floor=running.BARE_WAIT, of_ratio=True, reason=LATE_REASON),
        *(
            Aim(kernel.SHARE.format(way), "edges", kernel.SHARE.format(way), "us", 100, floor=NEIGHBOUR,
                reason=EDGE_REASON)
            for way in (native_edges.WAY, "sysfs", "character device")
        ),
    ]  # fmt: skip


AIMS = (*set_states(), *write_counts(), *boots(), *footprints(), *reads(), *running_by_itself())
