"""What an edge and a watched or polled input cost, on the bench kernel.

Everything that the daemon is measured by is measured beside it in the same
run: how fast an edge reaches any program that polls the line, and how fast a
signal gets from one bus connection to another. The machine is emulated, so
only the proportions mean something on other hardware.
"""

import os
import pathlib
import select
import statistics
import sys
import time

from gi.repository import Gio, GLib

import chips
from chips import PLAIN, WIDE
from describe import element, port
from gpio_ports import gpio_input
from guest_device import GuestDevice
from sim.bus import PortChanged, wait_until

EDGES = 500
REST_S = 10
SETTLING_US = 500
BINARY = pathlib.Path("/bench/wexd")


def show(what, samples_us):
    cuts = statistics.quantiles(samples_us, n=100)
    print(
        f"{what:<44}{min(samples_us):>8.0f}{cuts[49]:>8.0f}{cuts[89]:>8.0f}{cuts[98]:>8.0f}"
        f"{max(samples_us):>8.0f}"
    )
    return cuts[49]


def timed(act, count):
    """Durations in us of count calls; act gets 1, 0, 1, ... and returns when the effect is there."""
    durations = []
    for i in range(count):
        level = 1 - i % 2
        started = time.monotonic_ns()
        act(level)
        durations.append((time.monotonic_ns() - started) / 1000)
    return durations


def edges_at_a_bare_poll_loop(line):
    folder = line.export()
    (folder / "edge").write_text("both")
    value = os.open(folder / "value", os.O_RDONLY)
    poll = select.poll()
    poll.register(value, select.POLLERR)
    os.pread(value, 1, 0)

    def pull_and_wait(level):
        line.pull(level)
        poll.poll()
        assert os.pread(value, 1, 0) == b"%d" % level

    samples = timed(pull_and_wait, EDGES)
    os.close(value)
    line.unexport()
    return samples


def signal_to_another_connection(device):
    """Returns the call that sends a signal from one connection to another, by way of the same bus
    and the same binding, and returns when it is there."""
    arrived = []
    sender, receiver = device.client().connection, device.client().connection
    receiver.signal_subscribe(
        None, "bench.Floor", None, "/bench", None, Gio.DBusSignalFlags.NONE,
        lambda *arguments: arrived.append(arguments[-1].unpack()),
    )  # fmt: skip
    context = GLib.MainContext.default()

    def emit_and_wait(level):
        arrived.clear()
        values = GLib.Variant("(ibbbbbb)", (0, False, False, True, False, bool(level), False))
        sender.emit_signal(None, "/bench", "bench.Floor", "PortChanged", values)
        while not arrived:
            context.iteration(True)

    timed(emit_and_wait, 20)
    return emit_and_wait


def edges_at_a_client_of_the_daemon(device, line):
    device.describe(gpio_input("door", 0, line))
    device.start()
    signals = device.signals()
    context = GLib.MainContext.default()

    def pull_and_wait(level):
        line.pull(level)
        while not signals.pending:
            context.iteration(True)
        assert signals.pending.pop() == PortChanged(0, False, False, True, False, bool(level), False)

    timed(pull_and_wait, 20)
    samples = timed(pull_and_wait, EDGES)
    device.stop()
    return samples


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


def processor_shares(device):
    device.describe("".join(gpio_input(f"in{i}", i, line) for i, line in enumerate(WIDE.lines)))
    device.start()
    watched = share_of_a_processor(device)
    device.stop()
    WIDE.reset()
    device.describe("".join(polled_input(i, line) for i, line in enumerate(WIDE.lines)))
    device.start()
    wait_until(lambda: len(device.ports()) == 32, "32 polled ports")
    polled = share_of_a_processor(device)
    device.stop()
    return watched, polled


def main():
    for chip in chips.CHIPS:
        chip.reset()
    with GuestDevice(BINARY) as device:
        device.quiet = True
        print(f"{'us':<44}{'min':>8}{'median':>8}{'p90':>8}{'p99':>8}{'max':>8}")
        poll = show("edge to a bare poll loop", edges_at_a_bare_poll_loop(PLAIN[0]))
        signals = timed(signal_to_another_connection(device), EDGES)
        bus = show("signal from connection to connection", signals)
        edge = show("edge to PortChanged at a client", edges_at_a_client_of_the_daemon(device, PLAIN[1]))
        own = edge - poll - bus
        print(f"the daemon's share of the median: {own:.0f} us, of which {SETTLING_US} us settling")
        watched, polled = processor_shares(device)
        print(f"processor share of 32 watched pins at rest: {watched:.3%}")
        print(f"processor share of 32 inputs polled every 20 ms: {polled:.3%}")
    return 0 if watched == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
