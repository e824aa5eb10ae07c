"""Size: what the programs take on the disk, and their processes in memory."""

import contextlib
import pathlib
import tempfile
import subprocess

import lab
from harness import DIRTY, OURS, SORTS, Samples, memory_by_mapping, total
from lab import NEIGHBOUR

from sim.bus import ActionSequenceDone

BINARY = "stripped binary"
SEQUENCES = 100
STEPS = [(True, 20), (False, 20)]
AT_REST = f"{DIRTY}, {lab.PORTS} ports"
BEFORE = f"{DIRTY}, {SEQUENCES} ports"
AFTER = f"{DIRTY}, after {SEQUENCES} sequences at once"
BEFORE_THEM = "before them"


def stripped_kb(*files):
    """Of programs and libraries as a package has them."""
    size = 0
    for file in files:
        with tempfile.NamedTemporaryFile() as stripped:
            subprocess.run(["strip", "-o", stripped.name, file], check=True)
            size += pathlib.Path(stripped.name).stat().st_size
    return size / 1000


def memory_of(pid):
    """{kind: {sort: KiB}} of a process at rest."""
    return lab.until_steady(lambda: memory_by_mapping(pathlib.Path(f"/proc/{pid}/smaps").read_text()))


def mapping_name(kind, sort):
    return f"{kind}: {sort}"


def add_memory(samples, subject, pid):
    memory = memory_of(pid)
    for sort in dict.fromkeys(SORTS.values()):
        samples.add(f"{sort}, {lab.PORTS} ports", subject, total(memory, sort))
    for kind, sizes in memory.items():
        for sort, kib in sizes.items():
            samples.add(mapping_name(kind, sort), subject, kib)


def at_rest(bench, samples):
    with contextlib.ExitStack() as stack:
        device = stack.enter_context(lab.device_of(bench, OURS))
        device.start(environment=lab.AS_SHIPPED)
        services = stack.enter_context(lab.floors_beside(bench, device))
        for subject, (_, pid) in services.items():
            add_memory(samples, subject, pid)
        if lab.neighbour():
            process = stack.enter_context(lab.on_bus_of(device, lab.neighbour()))
            add_memory(samples, NEIGHBOUR, process.pid)


def after_sequences(bench, samples):
    with lab.DaemonDevice(bench.binary, SEQUENCES, patience=lab.PATIENCE, quiet=True) as device:
        device.start(environment=lab.AS_SHIPPED)
        before = total(memory_of(device.pid), DIRTY)
        samples.add(BEFORE, OURS, before)
        samples.add(AFTER, BEFORE_THEM, before)
        signals = device.signals()
        begun = [
            device.state.begin("StartActionSequence", number, False, STEPS) for number in range(SEQUENCES)
        ]
        for call in begun:
            call.wait()
        for number in range(SEQUENCES):
            signals.wait_for(ActionSequenceDone, port=number)
        samples.add(AFTER, OURS, total(memory_of(device.pid), DIRTY))


def footprint(bench):
    """KiB, but kB for the programs."""
    samples = Samples()
    programs = {OURS: [bench.binary], **{subject: [floor] for subject, floor in bench.floors().items()}}
    if lab.neighbour():
        programs[NEIGHBOUR] = lab.neighbours_files()
    for subject, files in programs.items():
        samples.add(BINARY, subject, stripped_kb(*files))
    for _ in range(bench.rounds(5, 1)):
        at_rest(bench, samples)
        after_sequences(bench, samples)
    return samples
