"""What a sample of a supervised input costs, and how many a second can be had, on the bench kernel.

The daemon is measured beside a loop that does nothing but wait and read (guest/read-loop.c), each on
converters of its own: while those of one are sampled at a pace, those of the other all but rest, by
turns. The way of a changed sample to a client is measured by a program in C that sends and receives
(guest/sample-bench.c). The machine is emulated, so only the proportions mean something on other
hardware.

--short does a tenth of it. What was measured is left in /out/samples.csv.
"""

import contextlib
import dataclasses
import pathlib
import statistics
import subprocess
import sys
import time

import chips
from bench_edge import BINARY, DEADLINE_S, SHORT, leave, show
from guest_device import CPUCLOCK_SCHED, GuestDevice
from sim.bus import wait_until
from supervised_ports import IIO, LEVELS

READ_LOOP, SAMPLE_BENCH = pathlib.Path("/bench/read-loop"), pathlib.Path("/bench/sample-bench")
CHANNEL = 0
CHANGES = 50 if SHORT else 500
# A new pace counts from the next sample on.
CALM_HZ, RESTING_HZ = 200, 20
RATES_HZ = (200, 1000) if SHORT else (100, 200, 500, 1000, 2000, 4000)
TURNS = 1 if SHORT else 5
SETTLING_S, TURN_S = 0.2, 0.6
# Beyond this, more of a rate says nothing new.
HOPELESS = 0.2
COLUMNS = ("kind", "subject", "ports", "rate", "value")
ROWS = ("changed sample to a bare read loop", "signal from connection to connection",
        "changed sample to PortChanged at a client")  # fmt: skip


@dataclasses.dataclass
class Reader:
    """A process that reads converters, which are sampled by the triggers of that number and up."""

    name: str
    pid: int
    adcs: tuple
    first_trigger: int

    @property
    def cpu_s(self):
        return time.clock_gettime((~self.pid << 3) | CPUCLOCK_SCHED)

    def pace(self, rate_hz):
        names = {f"rate{self.first_trigger + i}" for i in range(len(self.adcs))}
        for trigger in chips.IIO_DEVICES.glob("trigger*"):
            if (trigger / "name").read_text().strip() in names:
                (trigger / "sampling_frequency").write_text(str(rate_hz))


def describe_ports(device, adcs):
    device.describe(
        "".join(
            IIO.port(
                f"in{i}", i, mode="adc", pins="", inside="", device=adc.name, channel=CHANNEL,
                hrtimer=f"rate{i}", freq=CALM_HZ,
            )
            for i, adc in enumerate(adcs)
        )
    )  # fmt: skip


@contextlib.contextmanager
def daemon_reading(device, adcs):
    """The daemon with one port on each of the converters; sets these up as it goes."""
    for adc in adcs:
        adc.set_value(LEVELS["closed"], CHANNEL)
    describe_ports(device, adcs)
    device.start()
    wait_until(
        lambda: all(device.state.GetState(i) for i in range(len(adcs))), "samples for every port"
    )
    yield Reader("wexd", device.pid, adcs, 0)
    device.stop()


@contextlib.contextmanager
def bare_loop_reading(adcs, first_trigger):
    """The loop, on converters that the daemon has left running."""
    with subprocess.Popen([READ_LOOP, *(str(adc.node) for adc in adcs)]) as process:
        try:
            yield Reader("bare loop", process.pid, adcs, first_trigger)
        finally:
            process.kill()


def turn(reader, rate_hz):
    """(share of the samples lost, us of the reader for each read) at that pace."""
    reader.pace(rate_hz)
    time.sleep(SETTLING_S)
    taken, lost, cpu_s = -sum(a.samples for a in reader.adcs), -sum(a.lost for a in reader.adcs), -reader.cpu_s
    time.sleep(TURN_S)
    taken += sum(a.samples for a in reader.adcs)
    lost += sum(a.lost for a in reader.adcs)
    cpu_s += reader.cpu_s
    reader.pace(RESTING_HZ)
    return lost / taken, cpu_s / (taken - lost) * 1e6


def at_rate(readers, rate_hz, rows):
    """Both by turns; returns the least that the daemon lost, as the worse turns were others' doing."""
    losses = []
    for _ in range(TURNS):
        for reader in readers:
            lost, cost_us = turn(reader, rate_hz)
            rows.append(("cost", reader.name, len(reader.adcs), rate_hz, cost_us))
            rows.append(("lost", reader.name, len(reader.adcs), rate_hz, lost))
            if reader is readers[0]:
                losses.append(lost)
    return min(losses)


def show_rate(readers, rate_hz, rows):
    """Of the turns that were just taken."""
    for reader in readers:
        own = [row[-1] for row in rows[-4 * TURNS :] if row[:2] == ("cost", reader.name)]
        lost = [row[-1] for row in rows[-4 * TURNS :] if row[:2] == ("lost", reader.name)]
        print(
            f"{reader.name:<12}{len(reader.adcs):>6}{rate_hz:>10}{min(lost):>10.2%}"
            f"{statistics.median(own):>14.1f}", flush=True,
        )  # fmt: skip


def throughput(device, count, rows):
    """Both readers by turns at growing rates, until it gets hopeless."""
    ours, bare = chips.ADC_ROW[:count], chips.ADC_ROW[count : 2 * count]
    with daemon_reading(device, ours + bare):
        pass
    with daemon_reading(device, ours) as daemon, bare_loop_reading(bare, count) as loop:
        for reader in (daemon, loop):
            reader.pace(RESTING_HZ)
        for rate_hz in RATES_HZ:
            lost = at_rate((daemon, loop), rate_hz, rows)
            show_rate((daemon, loop), rate_hz, rows)
            if lost > HOPELESS:
                break


def latency(device, watched, polled, rows):
    """Leaves the rounds of sample-bench, and shows them."""
    with daemon_reading(device, [watched, polled]):
        pass
    with daemon_reading(device, [watched]):
        command = [
            SAMPLE_BENCH, device.bus_address, CHANGES, LEVELS["open"], LEVELS["closed"], polled.node,
            *(file for adc in (polled, watched) for file in (adc.value_file(CHANNEL), adc.changed_file)),
        ]  # fmt: skip
        done = subprocess.run(map(str, command), stdout=subprocess.PIPE, text=True, check=True,
                              timeout=DEADLINE_S)  # fmt: skip
    rounds = [tuple(map(float, line.split())) for line in done.stdout.splitlines()]
    for figures in rounds:
        rows.extend(
            ("latency", subject, 1, CALM_HZ, us)
            for subject, us in zip(("bare loop", "signal alone", "wexd"), figures)
        )
    print(f"{'us':<44}{'min':>8}{'median':>8}{'p90':>8}{'p99':>8}{'max':>8}")
    for what, taken in zip(ROWS, zip(*rounds)):
        show(what, taken)


def main():
    for adc in (*chips.ADCS, *chips.ADC_ROW):
        adc.reset()
    chips.remove_triggers()
    rows = []
    with GuestDevice(BINARY) as device:
        device.quiet = True
        latency(device, *chips.ADC_ROW[:2], rows)
        print(f"\n{'':<12}{'ports':>6}{'Hz':>10}{'lost':>10}{'us a sample':>14}")
        for count in (1, len(chips.ADC_ROW) // 2):
            throughput(device, count, rows)
    leave("samples", COLUMNS, rows)
    return 0


if __name__ == "__main__":
    sys.exit(main())
