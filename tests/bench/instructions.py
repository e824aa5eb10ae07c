"""What operations of the daemon cost in instructions, beside the figures that they are held to.

Usage: instructions.py [--write] BINARY

Counts with callgrind, so a busy machine changes nothing. Ends with status 1 when an operation is
more than 3 % off its figure in instructions.json; --write puts the new figures there, which belong
into the commit that moved them, with the reason.
"""

import argparse
import contextlib
import json
import pathlib
import re
import sys
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TOP), str(TOP / "tests/system")]

from describe import element, port  # noqa: E402
from test_iio_files import RANGES, SAMPLED, Samples, converter  # noqa: E402

from sim.bus import PortChanged, wait_until  # noqa: E402
from sim.device import Device  # noqa: E402

FIGURES = pathlib.Path(__file__).with_name("instructions.json")
TOLERANCE = 0.03
# The C library picks its string functions by the processor; figures must not move with that.
PLAIN = "GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2,-AVX,-BMI1,-BMI2,-ERMS,-LZCNT,-SSE4_1,-SSE4_2,-SSSE3"
COUNTER = ("env", PLAIN, "valgrind", "--tool=callgrind", "--vgdb=no", "--callgrind-out-file=/dev/null")
PATIENCE = 30  # times the usual deadline, for a daemon under callgrind
PORTS = 16
SETTINGS = "/etc/wexd/wexd.conf"
SETTLED_S = 4
TIMES = 100  # how often each operation is done
SAMPLES = 4000  # what costs next to nothing is done so often; one write to a pipe holds them
LOW, HIGH = RANGES[0][1], RANGES[1][1]


def describe_ports(device):
    """Outputs that drive nothing, but for the first port, which is a converter's channel."""
    converter(device, kind="le:u8/8>>0")
    samples = Samples(device)
    ranges = (element("range", state=s, lower=low, upper=up) for s, low, up in RANGES)
    inside = element("device", **SAMPLED) + "".join(ranges)
    device.describe(
        port("line", 0, "input", "iio", backend_inside=inside)
        + "".join(port(f"port{number}", number, "output") for number in range(1, PORTS))
    )
    return samples


def count(binary, operate):
    """Instructions of a life in which that is done."""
    with Device(binary, wrapper=COUNTER, patience=PATIENCE, quiet=True) as device:
        samples = describe_ports(device)
        device.start()
        for _ in range(2):  # the first life makes the file, the second writes it once more
            wait_until(lambda: settled(device), "settings that have settled", PATIENCE)
            device.restart()
        samples.signals = device.signals()
        settle(samples)
        operate(device, samples)
        device.stop()
        return int(re.findall(r"Collected : (\d+)", device.stderr)[-1])


def settled(device):
    """Settings that changed a moment ago are read again before each save."""
    return time.time() - device.path(SETTINGS).stat().st_ctime > SETTLED_S


def settle(samples):
    """The first sample of a life is always news."""
    samples.send(HIGH)
    samples.signals.wait_for(PortChanged, port=0, state=True)


def nothing(device, samples):
    pass


def times(call):
    def operate(device, samples):
        for number in range(TIMES):
            call(device.state, number)

    return operate


def same_samples(device, samples):
    # At once: how many samples a wake finds would else be a matter of who runs when.
    samples.send(*[HIGH] * SAMPLES)
    samples.send(LOW)
    samples.signals.wait_for(PortChanged, port=0, state=False)


def one_change(device, samples):
    samples.send(LOW)
    samples.signals.wait_for(PortChanged, port=0, state=False)


def changing_samples(device, samples):
    for number in range(TIMES):
        level, state = (LOW, False) if number % 2 == 0 else (HIGH, True)
        samples.send(level)
        samples.signals.wait_for(PortChanged, port=0, state=state)


# What is done, what has to be done besides, and how often.
OPERATIONS = {
    "GetState": (times(lambda state, _: state.GetState(1)), nothing, TIMES),
    "SetState, toggling": (times(lambda state, n: state.SetState(1, n % 2 == 0)), nothing, TIMES),
    "SetName, a new one": (times(lambda state, n: state.SetName(1, False, f"n{n}")), nothing, TIMES),
    "SetVirtual, with its signal": (times(lambda state, _: state.SetVirtual(1, True)), nothing, TIMES),
    "a change of a line": (changing_samples, nothing, TIMES),
    "an unchanged sample": (same_samples, one_change, SAMPLES),
}  # fmt: skip


def measure(binary):
    lives = {}

    def life(operate):
        if operate not in lives:
            lives[operate] = count(binary, operate)
        return lives[operate]

    figures = {f"start and stop, {PORTS} ports": life(nothing)}
    for name, (operate, besides, often) in OPERATIONS.items():
        figures[name] = (life(operate) - life(besides)) // often
    return figures


def compare(figures, kept):
    off = []
    print(f"\n{'instructions':30} {'now':>12} {'kept':>12}")
    for name, now in figures.items():
        before = kept.get(name)
        change = (now - before) / before if before else None
        shown = f"{change:+8.1%}" if change is not None else "     new"
        print(f"{name:30} {now:12,} {before or 0:12,} {shown}")
        if change is None or abs(change) > TOLERANCE:
            off.append(name)
    return off


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--write", action="store_true", help="keep what is measured now")
    parser.add_argument("binary", type=pathlib.Path)
    arguments = parser.parse_args()
    figures = measure(arguments.binary)
    kept = {}
    with contextlib.suppress(FileNotFoundError):
        kept = json.loads(FIGURES.read_text())
    off = compare(figures, kept)
    if arguments.write:
        FIGURES.write_text(json.dumps(figures, indent=2) + "\n")
        return 0
    if off:
        print(f"more than {TOLERANCE:.0%} off: {', '.join(off)}")
        print("(meant so? call with --write, and say in the commit why)")
    return 1 if off else 0


if __name__ == "__main__":
    sys.exit(main())
