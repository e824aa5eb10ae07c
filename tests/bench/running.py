"""What goes on by itself: steps of sequences, changes told to many, and the model without a bus."""

import json
import subprocess
import tempfile

import lab
from harness import OURS, Samples

BARE_WAIT = "bare wait"
SUBSCRIBERS = (0, 1, 4, 16, 64)
LATE = "lateness of a step"
FEWEST = "the fewest of its kind"
US = {"ns": 1e-3, "us": 1, "ms": 1e3}


def lateness(bench):
    """Microseconds behind the deadline; both wait at the same time."""
    samples = Samples()
    command = [bench.program("lateness-bench"), str(bench.rounds(1000, 100))]
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True)
    for line in done.stdout.splitlines():
        step, wait = line.split(",")
        samples.add(LATE, OURS, step)
        samples.add(LATE, BARE_WAIT, wait)
    return samples


def change_name(subscribers):
    return f"change told to {subscribers}"


def bus_name(subscribers):
    return f"the bus, {change_name(subscribers)}"


def changes(bench):
    """Microseconds of processor time of a SetState that toggles, of the service and of the bus."""
    samples = Samples()
    with lab.device_of(bench, OURS) as device:
        lab.start_as_shipped(device)
        with lab.floors_beside(bench, device) as services:
            told = [f"{subject}={name}={pid}" for subject, (name, pid) in services.items()]
            for count in SUBSCRIBERS:
                lines = lab.run_client(
                    bench, device, "changes", count, bench.rounds(30, 3), bench.rounds(100, 50),
                    lab.bus_pid(device), *told,
                )  # fmt: skip
                for subject, _, own, on_bus in lines:
                    samples.add(change_name(count), subject, own)
                    samples.add(bus_name(count), subject, on_bus)
    return samples


def model(bench):
    """Microseconds of processor time, by Google Benchmark, of what the model does without a bus."""
    samples = Samples()
    with tempfile.NamedTemporaryFile(mode="r", suffix=".json") as out:
        subprocess.run(
            [bench.program("model-bench"), f"--benchmark_out={out.name}", "--benchmark_out_format=json",
             f"--benchmark_repetitions={bench.rounds(3, 1)}", "--benchmark_min_time=0.05",
             "--benchmark_enable_random_interleaving=true"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True,
        )  # fmt: skip
        runs = [run for run in json.load(out)["benchmarks"] if run["run_type"] == "iteration"]
    add_runs(samples, runs)
    return samples


def add_runs(samples, runs):
    """They were run in any order; family by family they are easier to read."""
    fewest = {}
    order = ("family_index", "per_family_instance_index", "repetition_index")
    for run in sorted(runs, key=lambda run: [run[key] for key in order]):
        us = run["cpu_time"] * US[run["time_unit"]]
        least = fewest.setdefault((run["family_index"], run["repetition_index"]), us)
        samples.add(run["run_name"], OURS, us)
        samples.add(run["run_name"], FEWEST, least)
