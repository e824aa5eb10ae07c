"""Edges and samples of inputs: the benchmarks of the kernel bench, in an emulated machine."""

import csv
import subprocess
import tempfile

import native_edges
from harness import OURS, Samples
from lab import NEIGHBOUR, TOP

SETTLING_US = 500
LOOP, SIGNAL, BOTH = "bare loop", "signal alone", "loop and signal"
EDGE = "edge to a client, by {}"
SHARE = "the daemon's share of an edge, by {}"
CHANGED = "changed sample to a client"
SAMPLE_SHARE = "the daemon's share of a changed sample"
COST = "processor time of a sample, {} at {} Hz"
LOST = "samples lost, {} at {} Hz"


def rows_of(bench, name):
    """What that benchmark leaves, as dictionaries."""
    with tempfile.TemporaryDirectory() as folder:
        command = ["scripts/kernel-bench", "--bench", "--binary", str(bench.binary), "--results", folder, name]
        if bench.short:
            command.append("--short")
        done = subprocess.run(command, cwd=TOP, stdout=subprocess.PIPE, text=True, check=False)
        if done.returncode != 0:
            raise RuntimeError(f"the kernel bench failed:\n{done.stdout}")
        with open(f"{folder}/{name}.csv", newline="") as file:
            return list(csv.DictReader(file))


def edges_of(rows):
    """Microseconds; each round has one of everything. The neighbour lets nothing settle."""
    samples = Samples()
    for row in rows:
        loop, bus, edge = (float(row[column]) for column in ("loop_us", "bus_us", "port_us"))
        for subject, value in (
            (OURS, edge), (LOOP, loop), (SIGNAL, bus), (BOTH, loop + bus + SETTLING_US),
        ):  # fmt: skip
            samples.add(EDGE.format(row["way"]), subject, value)
        samples.add(SHARE.format(row["way"]), OURS, edge - loop - bus - SETTLING_US)
        if managed := row.get("managed_us"):
            samples.add(EDGE.format(row["way"]), NEIGHBOUR, managed)
            samples.add(SHARE.format(row["way"]), NEIGHBOUR, float(managed) - loop - bus)
    return samples


def ports_text(count):
    return "1 port" if int(count) == 1 else f"{count} ports"


def add_sums(samples):
    """What a changed sample takes without the daemon, and what it takes besides, round by round."""
    rounds = zip(*(samples[CHANGED, subject] for subject in (LOOP, SIGNAL, OURS)))
    for loop, bus, change in list(rounds):
        samples.add(CHANGED, BOTH, loop + bus)
        samples.add(SAMPLE_SHARE, OURS, change - loop - bus)


def samples_of(rows):
    """Microseconds, and parts lost. A row is {kind, subject, ports, rate, value}."""
    samples = Samples()
    for row in rows:
        subject = OURS if row["subject"] == "wexd" else row["subject"]
        if row["kind"] == "latency":
            samples.add(CHANGED, subject, row["value"])
        else:
            name = {"cost": COST, "lost": LOST}[row["kind"]]
            samples.add(name.format(ports_text(row["ports"]), row["rate"]), subject, row["value"])
    add_sums(samples)
    return samples


def edges(bench):
    return edges_of([*native_edges.rows(bench), *rows_of(bench, "edge")])


def samples(bench):
    return samples_of(rows_of(bench, "samples"))
