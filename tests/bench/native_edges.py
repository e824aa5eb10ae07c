"""Edges on this machine, without an emulated one between: pins are plain files that tell of their
changes (sim/hardware.c), to the bare loop beside as to the daemon."""

import subprocess

from lab import AS_SHIPPED, Device, port, wait_until

from describe import element
from sim import board

WAY = "simulated sysfs files"
WATCHED, POLLED = 7, 8


def make_pin(device, number):
    """The file that holds the level of a simulated pin."""
    for name, text in board.PIN_FILES.items():
        path = f"{board.PINS}/gpio{number}/{name}"
        device.path(path).parent.mkdir(parents=True, exist_ok=True)
        device.write(path, text).chmod(0o666)
    return device.path(f"{board.PINS}/gpio{number}/value")


def rows(bench):
    """One of the kernel bench's rows for each round: what an edge took to the loop, a signal to another
    connection, and an edge to PortChanged at a client."""
    with Device(bench.binary, wrapper=board.WRAPPER, quiet=True) as device:
        board.provide_library(device)
        for name in ("export", "unexport"):
            device.write(f"{board.PINS}/{name}", "").chmod(0o666)
        watched, polled = make_pin(device, WATCHED), make_pin(device, POLLED)
        device.describe(port("door", 0, "input", "gpio", backend_inside=element("input", pin=WATCHED)))
        device.start(environment=AS_SHIPPED)
        wait_until(lambda: device.ports(), "the port")
        command = ["env", f"LD_PRELOAD={device.path(board.LIBRARY)}", bench.program("edge-bench"),
                   device.bus_address, bench.rounds(2000, 100), polled, polled, "-", watched]  # fmt: skip
        done = subprocess.run(map(str, command), stdout=subprocess.PIPE, text=True, check=True)
        device.stop()
    columns = ("loop_us", "bus_us", "port_us")
    return [{"way": WAY, **dict(zip(columns, line.split()))} for line in done.stdout.splitlines()]
