"""Starts: from exec to names owned, on fresh and on known files, with few and with many ports, with
services around that do not answer; and what the legacy interface costs when ports go and come."""

import contextlib
import time

import lab
from describe import port
from harness import OURS, Samples, growth_exponent
from lab import FLOOR, MEMORY

from sim import bus
from sim.device import KEY_FILE
from sim.peers import Coordinator, Streamer

FEW, SOME, MANY = 16, 512, 4096
COUNTS = (FEW, 64, SOME, MANY)
PLACES = {"on disk": None, "in memory": MEMORY}
GENERATED = (
    "/etc/service_registry/services.d/wexd_service_registry.conf",
    "/etc/legacyconfig/legacymappings.d/wexd.xml",
)
WITHOUT = "without them"
LEGACY_COUNTS = (8, 64, 512)


def boot_name(which, count, place):
    return f"{which} boot, {count:,} ports, {place}"


def growth_name(which, place):
    return f"growth of a {which} boot, {place}"


class Starter:
    """Devices of all sizes and the floor, each started when its turn comes."""

    def __init__(self, bench, stack, place):
        with lab.files_in(PLACES[place]):
            self.floor = stack.enter_context(lab.device_of(bench, FLOOR))
            lab.install_timer(bench, self.floor, [lab.FLOOR_NAMES[FLOOR]])
            self.devices = {}
            for count in COUNTS:
                device = lab.DaemonDevice(bench.binary, count, patience=lab.PATIENCE, quiet=True)
                self.devices[count] = stack.enter_context(device)
                lab.install_timer(bench, device, bus.SERVICE_NAMES)
        self.place = place
        self.least = {}  # the shortest start of the fewest ports so far, which is what is fixed

    def round(self, samples):
        taken = {}
        for count, device in self.devices.items():
            for file in (KEY_FILE, *GENERATED):
                device.path(file).unlink(missing_ok=True)
            for which in ("first", "second"):
                taken[which, count] = once(device)
                samples.add(boot_name(which, count, self.place), OURS, taken[which, count])
                samples.add(boot_name(which, count, self.place), FLOOR, once(self.floor))
        for which in ("first", "second"):
            few, some, many = (taken[which, count] for count in (FEW, SOME, MANY))
            self.least[which] = min(few, self.least.get(which, few))
            exponent = growth_exponent((SOME, some), (MANY, many), fixed=self.least[which])
            samples.add(growth_name(which, self.place), OURS, exponent)


def once(device):
    us = lab.timed_start(device)
    device.stop()
    return us


def boots(bench):
    """Microseconds; and the exponent of growth from 512 to 4,096 ports, besides a start with 16."""
    samples = Samples()
    with contextlib.ExitStack() as stack:
        starters = [Starter(bench, stack, place) for place in PLACES]
        for _ in range(bench.rounds(20, 2)):
            for starter in starters:
                starter.round(samples)
    return samples


def around(bench):
    """Microseconds of a start among silent peers, beside one without any."""
    samples = Samples()
    with contextlib.ExitStack() as stack:
        alone, among = (stack.enter_context(lab.device_of(bench, OURS)) for _ in range(2))
        peers = (Streamer(among, channels=[True, True]), Coordinator(among, enabled=True))
        for device in (alone, among):
            lab.install_timer(bench, device, bus.SERVICE_NAMES)
            once(device)
        for peer in peers:
            peer.freeze()
        for _ in range(bench.rounds(20, 3)):
            samples.add("start with silent peers", OURS, once(among))
            samples.add("start with silent peers", WITHOUT, once(alone))
        for peer in peers:
            peer.thaw()
    return samples


def describe_for_legacy(device, count):
    """All numbers have an object, and one port may go."""
    device.describe(
        port("extra", 0, optional="true")
        + "".join(port(f"port{i}", i, properties="virtual") for i in range(1, count))
        + f'<first_virtual_input nbr="{count}"/>'
    )


def legacy(bench):
    """Microseconds of a drop or refresh with the legacy interface, beside one without it."""
    samples = Samples()
    for count in LEGACY_COUNTS:
        with contextlib.ExitStack() as stack, lab.files_in(MEMORY):
            served = {}
            for subject, argv in ((OURS, ()), ("without it", ("--disable_legacy_interface",))):
                device = stack.enter_context(lab.device_of(bench, OURS))
                describe_for_legacy(device, count)
                device.start(*argv, environment=lab.AS_SHIPPED)
                served[subject] = device
            for _ in range(bench.rounds(20, 3)):
                for subject, device in served.items():
                    begin = time.perf_counter()
                    device.state.DropIOPorts(["extra"])
                    device.state.RefreshIOPorts()
                    samples.add(
                        f"drop or refresh, {count} ports", subject,
                        (time.perf_counter() - begin) / 2 * 1e6,
                    )  # fmt: skip
    return samples
