"""What a sample of a supervised input costs, and how many a second can be had, on the bench kernel.

The daemon is measured beside a loop that does nothing but wait and read (guest/read-loop.c), on the
same converters, at the same pace, in the same run; and for the way to a client beside a signal that
goes from one bus connection to another. The machine is emulated, so only the proportions mean
something on other hardware.

--short does a tenth of it. What was measured is left in /out/samples.csv.
"""

import contextlib
import pathlib
import subprocess
import sys
import time

from gi.repository import Gio, GLib

import chips
from bench_edge import BINARY, SHORT, leave, show
from guest_device import CPUCLOCK_SCHED, GuestDevice
from sim.bus import PortChanged, wait_until
from supervised_ports import IIO, LEVELS

READ_LOOP = pathlib.Path("/bench/read-loop")
CHANNEL = 0
CHANGES = 50 if SHORT else 300
CALM_HZ = 200
RATES_HZ = (200, 1000) if SHORT else (100, 200, 500, 1000, 2000, 4000)
STRETCHES = 1 if SHORT else 3
STRETCH_S = 1
# Beyond this, more of a rate says nothing new.
HOPELESS = 0.2
COLUMNS = ("kind", "subject", "ports", "rate", "value")
WARM_UP = 20


class Reader:
    """A process that reads converters."""

    def __init__(self, name, pid):
        self.name = name
        self._clock = (~pid << 3) | CPUCLOCK_SCHED

    @property
    def cpu_s(self):
        return time.clock_gettime(self._clock)


@contextlib.contextmanager
def daemon_reading(device, adcs):
    """The daemon with one port on each of the converters; sets these up as it goes."""
    for adc in adcs:
        adc.set_value(LEVELS["closed"], CHANNEL)
    device.describe(
        "".join(
            IIO.port(
                f"in{i}", i, mode="adc", pins="", inside="", device=adc.name, channel=CHANNEL,
                hrtimer=f"rate{i}", freq=CALM_HZ,
            )
            for i, adc in enumerate(adcs)
        )
    )  # fmt: skip
    device.start()
    wait_until(
        lambda: all(device.state.GetState(i) for i in range(len(adcs))), "samples for every port"
    )
    yield Reader("wexd", device.pid)
    device.stop()


@contextlib.contextmanager
def bare_loop_reading(adcs):
    """The loop, on converters that the daemon has left running."""
    command = [READ_LOOP, *(str(adc.node) for adc in adcs)]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as process:
        try:
            yield Reader("bare loop", process.pid), process.stdout
        finally:
            process.kill()


def pace(rate_hz):
    for trigger in chips.IIO_DEVICES.glob("trigger*"):
        (trigger / "sampling_frequency").write_text(str(rate_hz))


def stretch(reader, adcs):
    """(samples taken a second and converter, share of them lost, us of the reader for each read)."""
    taken, lost, cpu_s = -sum(a.samples for a in adcs), -sum(a.lost for a in adcs), -reader.cpu_s
    started = time.monotonic()
    time.sleep(STRETCH_S)
    taken += sum(a.samples for a in adcs)
    lost += sum(a.lost for a in adcs)
    cpu_s += reader.cpu_s
    elapsed = time.monotonic() - started
    return taken / elapsed / len(adcs), lost / taken, cpu_s / (taken - lost) * 1e6


def best_of(stretches):
    """The most and the least of several: what is worse than that was others' doing."""
    taken, lost, cost_us = zip(*stretches)
    return max(taken), min(lost), min(cost_us)


def stretches_of(reader, adcs):
    time.sleep(0.3)  # for a new pace to set in
    return [stretch(reader, adcs) for _ in range(STRETCHES)]


def at_rate(reader, adcs, rate, rows):
    """The best stretch at that rate."""
    pace(rate)
    found = stretches_of(reader, adcs)
    for _, lost, cost_us in found:
        rows.append(("cost", reader.name, len(adcs), rate, cost_us))
        rows.append(("lost", reader.name, len(adcs), rate, lost))
    taken, lost, cost_us = best_of(found)
    print(
        f"{reader.name:<12}{len(adcs):>6}{rate:>10}{taken:>10.0f}{lost:>10.2%}{cost_us:>14.1f}", flush=True
    )
    pace(CALM_HZ)
    return taken, lost, cost_us


def sustained(found):
    """Samples a second and converter at the highest rate up to which none were lost, but for the
    odd one when the emulated machine stands still."""
    best = 0
    for taken, lost, _ in found.values():
        if lost > 0.001:
            break
        best = taken
    return best


def throughput(device, adcs, rows):
    """Both readers by turns at growing rates, until it gets hopeless."""
    ours, bare = {}, {}
    for rate in RATES_HZ:
        with daemon_reading(device, adcs) as reader:
            ours[rate] = at_rate(reader, adcs, rate, rows)
        with bare_loop_reading(adcs) as (reader, _):
            bare[rate] = at_rate(reader, adcs, rate, rows)
        if ours[rate][1] > HOPELESS:
            break
    best, limit = sustained(ours), sustained(bare)
    costs = ", ".join(f"{ours[rate][2] / bare[rate][2]:.1f} at {rate}" for rate in ours)
    print(f"without loss: {best:.0f} samples a second each for wexd, {limit:.0f} for the bare loop")
    print(f"processor time of a sample, wexd to bare loop: {costs} Hz")


def changed_value(adc, arrival_ns):
    """Returns the call that changes the converter's value and returns in how many us that came from
    the buffer to what arrival_ns waits for."""

    def change(level):
        adc.set_value(LEVELS["open" if level else "closed"], CHANNEL)
        arrived = arrival_ns()
        return (arrived - adc.changed_ns) / 1000

    return change


def signal_to_another_connection(device):
    """Returns the call that sends a signal from one connection to another, by way of the same bus
    and the same binding, and returns in how many us it was there."""
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
        started = time.monotonic_ns()
        sender.emit_signal(None, "/bench", "bench.Floor", "PortChanged", values)
        while not arrived:
            context.iteration(True)
        return (time.monotonic_ns() - started) / 1000

    for i in range(WARM_UP):
        emit_and_wait(i % 2)
    return emit_and_wait


def change_at_a_client(device, adc):
    signals = device.signals()
    context = GLib.MainContext.default()

    def arrival_ns():
        while not signals.pending:
            context.iteration(True)
        arrived = time.monotonic_ns()
        assert isinstance(signals.pending.pop(), PortChanged)
        return arrived

    return changed_value(adc, arrival_ns)


def cost_of_changes(device, adc):
    """Processor time of the daemon for a sample that changes the state, beside one that does not."""
    with daemon_reading(device, [adc]) as reader:
        _, _, calm_us = best_of(stretches_of(reader, [adc]))
        change = change_at_a_client(device, adc)
        samples, cpu_s = -adc.samples, -reader.cpu_s
        for i in range(CHANGES):
            change(1 - i % 2)
        samples += adc.samples
        cpu_s += reader.cpu_s
    change_us = (cpu_s * 1e6 - (samples - CHANGES) * calm_us) / CHANGES
    print(
        f"processor time of a sample of the same state: {calm_us:.0f} us; of a change, to the signal: "
        f"{change_us:.0f} us, x {change_us / calm_us:.1f}"
    )


def latency(device, watched, bare, rows):
    """All three by turns, so that whatever else goes on hits them alike."""
    with daemon_reading(device, [watched, bare]):
        pass
    with daemon_reading(device, [watched]), bare_loop_reading([bare]) as (_, lines):
        lines.readline()  # the first value
        acts = {
            "changed sample to PortChanged at a client": change_at_a_client(device, watched),
            "changed sample to a bare read loop": changed_value(
                bare, lambda: int(lines.readline())
            ),
            "signal from connection to connection": signal_to_another_connection(device),
        }
        durations = {what: [] for what in acts}
        for i in range(CHANGES):
            for what, act in acts.items():
                durations[what].append(act(1 - i % 2))
    for subject, taken in zip(("wexd", "bare loop", "signal alone"), durations.values()):
        rows.extend(("latency", subject, 1, CALM_HZ, us) for us in taken)
    print(f"{'us':<44}{'min':>8}{'median':>8}{'p90':>8}{'p99':>8}{'max':>8}")
    ours, loop, bus = (show(what, taken) for what, taken in durations.items())
    print(
        f"a change at a client takes x {ours / (loop + bus):.2f} of a bare read and a signal, "
        f"x {ours / bus:.2f} of the signal alone"
    )


def main():
    for adc in (*chips.ADCS, *chips.ADC_ROW):
        adc.reset()
    chips.remove_triggers()
    rows = []
    with GuestDevice(BINARY) as device:
        device.quiet = True
        latency(device, *chips.ADC_ROW[:2], rows)
        cost_of_changes(device, chips.ADC_ROW[0])
        print(f"\n{'':<12}{'ports':>6}{'asked Hz':>10}{'taken Hz':>10}{'lost':>10}{'us a sample':>14}")
        for count in (1, len(chips.ADC_ROW)):
            throughput(device, chips.ADC_ROW[:count], rows)
    leave("samples", COLUMNS, rows)
    return 0


if __name__ == "__main__":
    sys.exit(main())
