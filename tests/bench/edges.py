"""How fast an edge gets to a client, on this machine: the pins are plain files that tell of their
changes (sim/hardware.c), which is as fast for the bare loop beside as for the daemon.

Each round takes one sample of each (tests/kernel/guest/edge-bench.c): an edge to a loop of C that polls
the pin, a signal from one connection to another, an edge to PortChanged at a client of the daemon.
"""

import pathlib
import subprocess
import sys

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TOP), str(TOP / "tests/system")]

from describe import element, port  # noqa: E402

from sim import board  # noqa: E402
from sim.device import Device  # noqa: E402

SOURCE = TOP / "tests/kernel/guest/edge-bench.c"
SETTLING_US = 500
PIN, POLLED_PIN = 7, 8


def build(folder):
    """The sender and receiver, as a program in that folder."""
    program = pathlib.Path(folder) / "edge-bench"
    flags = subprocess.run(["pkg-config", "--cflags", "--libs", "gio-2.0"], check=True,
                           stdout=subprocess.PIPE, text=True).stdout.split()  # fmt: skip
    subprocess.run(["cc", "-O2", "-o", program, SOURCE, *flags], check=True)
    return program


def make_pin(device, number):
    folder = device.path(f"{board.PINS}/gpio{number}")
    folder.mkdir(parents=True)
    for name, text in board.PIN_FILES.items():
        device.write(f"{board.PINS}/gpio{number}/{name}", text).chmod(0o666)
    return folder / "value"


def rounds(binary, count):
    """(loop, bus, port) in microseconds of that many rounds."""
    with Device(binary, wrapper=board.WRAPPER, quiet=True) as device:
        board.provide_library(device)
        for name in ("export", "unexport"):
            device.write(f"{board.PINS}/{name}", "").chmod(0o666)
        watched, polled = make_pin(device, PIN), make_pin(device, POLLED_PIN)
        device.describe(port("door", 0, "input", "gpio", backend_inside=element("input", pin=PIN)))
        device.start()
        device.sync()
        command = ["env", f"LD_PRELOAD={device.path(board.LIBRARY)}", build(device.scratch),
                   device.bus_address, count, polled, polled, "-", watched]  # fmt: skip
        done = subprocess.run(map(str, command), stdout=subprocess.PIPE, text=True, check=True)
        device.stop()
    return [tuple(map(float, line.split())) for line in done.stdout.splitlines()]


if __name__ == "__main__":
    import statistics

    taken = rounds(pathlib.Path(sys.argv[1]), int(sys.argv[2]))
    for name, samples in zip(("loop", "bus", "port"), zip(*taken)):
        print(name, *(round(cut) for cut in statistics.quantiles(samples, n=4)))
    own = [edge - loop - bus - SETTLING_US for loop, bus, edge in taken]
    print("own", *(round(cut) for cut in statistics.quantiles(own, n=4)))
