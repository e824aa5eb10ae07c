"""What an edge and a watched or polled input cost, on the bench kernel.

Everything that the daemon is measured by is measured beside it in the same
run, by a program in C that sends and receives (guest/edge-bench.c): how fast
an edge reaches any program that polls the line, and how fast a signal gets
from one bus connection to another. Pins are exported in sysfs and requested
on their chip by turns, as far as the kernel has both. The machine is
emulated, so only the proportions mean something on other hardware.

--short does a tenth of it. Each round is left in /out/edge.csv.
"""

import collections
import contextlib
import csv
import pathlib
import shutil
import statistics
import subprocess
import sys
import time

import chips
from chips import LABELLED, WIDE
from describe import element, port
from gpio_ports import gpio_input
from guest_device import GuestDevice
from sim.bus import wait_until

SHORT = "--short" in sys.argv[1:]
OUT = pathlib.Path("/out")
# Blocks of rounds, in which the ways to a pin take turns.
BLOCKS, ROUNDS = (1, 50) if SHORT else (5, 100)
REST_S = 1 if SHORT else 10
DEADLINE_S = 120
SETTLING_US = 500
BINARY = pathlib.Path("/bench/wexd")
EDGE_BENCH = pathlib.Path("/bench/edge-bench")
# The daemon where the kernel's GPIO files in sysfs are out of its sight.
WITHOUT_SYSFS = """#!/bin/sh
exec unshare --mount sh -c 'mount -t tmpfs none /sys/class/gpio && exec /bench/wexd "$@"' wexd "$@"
"""
# libgpiod's D-Bus manager of lines, where the host has it.
MANAGER = shutil.which("gpio-manager", path="/usr/bin:/host/local/bin")
MANAGER_NAME = "io.gpiod1"
ROWS = ("edge to a bare poll loop", "signal from connection to connection", "edge to PortChanged at a client",
        "edge to the manager's EdgeEvent at a client")  # fmt: skip
COLUMNS = ("way", "loop_us", "bus_us", "port_us", "managed_us")


def leave(name, columns, rows):
    """Leaves the figures for whoever called the bench."""
    with open(OUT / f"{name}.csv", "w", newline="") as file:
        csv.writer(file).writerows([columns, *rows])


def show(what, samples_us):
    cuts = statistics.quantiles(samples_us, n=100)
    print(
        f"{what:<44}{min(samples_us):>8.0f}{cuts[49]:>8.0f}{cuts[89]:>8.0f}{cuts[98]:>8.0f}"
        f"{max(samples_us):>8.0f}"
    )
    return cuts[49]


@contextlib.contextmanager
def exported(line):
    """The line for a poll loop, as edge-bench is told of it."""
    folder = line.export()
    (folder / "edge").write_text("both")
    yield folder / "value", "-"
    line.unexport()


@contextlib.contextmanager
def left_to_be_requested(line):
    yield line.chip.node, line.offset


@contextlib.contextmanager
def managed(device, line):
    """The line in the hands of the manager, as edge-bench is told of it; nothing where there is none."""
    if MANAGER is None:
        yield ()
        return
    environment = {"DBUS_SYSTEM_BUS_ADDRESS": device.bus_address, "LD_LIBRARY_PATH": "/host/local/lib"}
    with subprocess.Popen([MANAGER], env=environment) as process:
        try:
            wait_until(lambda: device.first_client.owner(MANAGER_NAME), MANAGER_NAME)
            yield line.pull_file, f"/io/gpiod1/chips/{line.chip.node.name}", line.offset
        finally:
            process.terminate()


def block_of_rounds(binary, polled):
    """(loop, bus, port, managed) in us, with a daemon of its own and no line that another left exported."""
    LABELLED.reset()
    with GuestDevice(binary) as device:
        device.quiet = True
        device.describe(gpio_input("door", 0, LABELLED[1], by="alias"))
        device.start()
        with polled(LABELLED[0]) as place, managed(device, LABELLED[2]) as neighbour:
            command = [EDGE_BENCH, device.bus_address, ROUNDS, LABELLED[0].pull_file, *place,
                       LABELLED[1].pull_file, *neighbour]  # fmt: skip
            done = subprocess.run(map(str, command), stdout=subprocess.PIPE, text=True, check=True,
                                  timeout=DEADLINE_S)  # fmt: skip
        device.stop()
    return [tuple(map(float, line.split())) for line in done.stdout.splitlines()]


def ways_to_a_pin():
    wrapper = pathlib.Path("/tmp/wexd-without-sysfs")
    wrapper.write_text(WITHOUT_SYSFS)
    wrapper.chmod(0o755)
    if not chips.BY_SYSFS:
        return {"character device": (BINARY, left_to_be_requested)}
    return {
        "sysfs": (BINARY, exported),
        "character device": (wrapper, left_to_be_requested),
    }


def edges():
    """Shows the medians of every row, for each way to a pin, and leaves all rounds."""
    taken = collections.defaultdict(list)
    for _ in range(BLOCKS):
        for name, way in ways_to_a_pin().items():
            taken[name] += block_of_rounds(*way)
    leave(
        "edge", COLUMNS,
        ((name, *figures) for name, rounds in taken.items() for figures in rounds),
    )  # fmt: skip
    for name, rounds in taken.items():
        print(f"\n{name + ', us':<44}{'min':>8}{'median':>8}{'p90':>8}{'p99':>8}{'max':>8}")
        loop, bus, edge, *_ = (show(row, samples) for row, samples in zip(ROWS, zip(*rounds)))
        own = statistics.median(edge_us - loop_us - bus_us for loop_us, bus_us, edge_us, *_ in rounds)
        print(
            f"the daemon's share: {edge - loop - bus - SETTLING_US:.0f} us between the medians, "
            f"{own - SETTLING_US:.0f} us in the median round, besides {SETTLING_US} us of settling"
        )


def share_of_a_processor(device):
    """The daemon's processor time over a stretch in which nobody else does anything."""
    device.sync()
    time.sleep(1)  # for the last of the start
    before, started = device.cpu_s, time.monotonic()
    time.sleep(REST_S)
    return (device.cpu_s - before) / (time.monotonic() - started)


def polled_input(i, line):
    where = element("device", path=line.export() / "value", timeout=20)
    return port(f"in{i}", i, "input", "sysfs", backend_inside=where)


def share_of_ports(device, ports):
    device.describe("".join(ports))
    device.start()
    wait_until(lambda: len(device.ports()) == 32, "32 ports")
    share = share_of_a_processor(device)
    device.stop()
    WIDE.reset()
    return share


def main():
    for chip in chips.CHIPS:
        chip.reset()
    edges()
    with GuestDevice(BINARY) as device:
        device.quiet = True
        watched = share_of_ports(device, (gpio_input(f"in{i}", i, line) for i, line in enumerate(WIDE.lines)))
        print(f"\nprocessor share of 32 watched pins at rest: {watched:.3%}")
        if chips.BY_SYSFS:
            polled = share_of_ports(device, (polled_input(i, line) for i, line in enumerate(WIDE.lines)))
            print(f"processor share of 32 inputs polled every 20 ms: {polled:.3%}")
    return 0 if watched == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
