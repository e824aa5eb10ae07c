"""What a sample of a supervised input costs, and how many a second can be had, on the bench kernel.

The daemon is measured beside a loop that does nothing but wait and read (guest/read-loop.c), on the
same converters, at the same pace, in the same run; and for the way to a client beside a signal that
goes from one bus connection to another. The machine is emulated, so only the proportions mean
something on other hardware.
"""

import contextlib
import pathlib
import subprocess
import sys
import time

from gi.repository import GLib

import chips
from bench_edge import BINARY, show, signal_to_another_connection, timed
from guest_device import CPUCLOCK_SCHED, GuestDevice
from sim.bus import PortChanged, wait_until
from supervised_ports import IIO, LEVELS

READ_LOOP = pathlib.Path("/bench/read-loop")
CHANNEL = 0
CHANGES = 300
CALM_HZ = 200
RATES_HZ = (100, 200, 500, 1000, 2000, 4000, 8000)
STRETCHES = 3
STRETCH_S = 1
# Beyond this, more of a rate says nothing new.
HOPELESS = 0.2


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


def best_stretch(reader, adcs):
    """The most and the least of several: what is worse than that was others' doing."""
    time.sleep(0.3)  # for a new pace to set in
    taken, lost, cost_us = zip(*(stretch(reader, adcs) for _ in range(STRETCHES)))
    return max(taken), min(lost), min(cost_us)


def climb(reader, adcs):
    """The best stretches at growing rates, until it gets hopeless, as {rate: stretch}."""
    found = {}
    for rate in RATES_HZ:
        pace(rate)
        found[rate] = taken, lost, cost_us = best_stretch(reader, adcs)
        print(
            f"{reader.name:<12}{len(adcs):>6}{rate:>10}{taken:>10.0f}{lost:>10.2%}{cost_us:>14.1f}",
            flush=True,
        )
        if lost > HOPELESS:
            break
    pace(CALM_HZ)
    return found


def sustained(found):
    """Samples a second and converter at the highest rate up to which none were lost, but for the
    odd one when the emulated machine stands still."""
    best = 0
    for taken, lost, _ in found.values():
        if lost > 0.001:
            break
        best = taken
    return best


def throughput(device, adcs):
    with daemon_reading(device, adcs) as reader:
        ours = climb(reader, adcs)
    with bare_loop_reading(adcs) as (reader, _):
        bare = climb(reader, adcs)
    best, limit = sustained(ours), sustained(bare)
    shared = [rate for rate in ours if rate in bare]
    costs = ", ".join(f"{ours[rate][2] / bare[rate][2]:.1f} at {rate}" for rate in shared)
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
        _, _, calm_us = best_stretch(reader, [adc])
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


def latency(device, watched, bare):
    """All three by turns, so that whatever else goes on hits them alike."""
    with daemon_reading(device, [watched, bare]):
        pass
    with daemon_reading(device, [watched]), bare_loop_reading([bare]) as (_, lines):
        lines.readline()  # the first value
        send = signal_to_another_connection(device)
        acts = {
            "changed sample to PortChanged at a client": change_at_a_client(device, watched),
            "changed sample to a bare read loop": changed_value(
                bare, lambda: int(lines.readline())
            ),
            "signal from connection to connection": lambda level: timed(lambda _: send(level), 1)[0],
        }
        durations = {what: [] for what in acts}
        for i in range(CHANGES):
            for what, act in acts.items():
                durations[what].append(act(1 - i % 2))
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
    with GuestDevice(BINARY) as device:
        device.quiet = True
        latency(device, *chips.ADC_ROW[:2])
        cost_of_changes(device, chips.ADC_ROW[0])
        print(f"\n{'':<12}{'ports':>6}{'asked Hz':>10}{'taken Hz':>10}{'lost':>10}{'us a sample':>14}")
        for count in (1, len(chips.ADC_ROW)):
            throughput(device, chips.ADC_ROW[:count])
    return 0


if __name__ == "__main__":
    sys.exit(main())
