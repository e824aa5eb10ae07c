"""Calls: how long an answer takes, and what it costs the service in instructions, beside the floors and
beside Ping, which the bus library answers by itself."""

import re

import lab
from harness import OURS, Samples
from instructions import COUNTER, settled

from sim.bus import wait_until

PING = "Ping"
CALLS = ("GetState", "GetPortProps", "GetAll", "SetState", "SetState that toggles")
LIFE = "start and stop"
TIMES = 100  # how often a call is made in a life that is counted


def add_ping(samples):
    """The daemon's Ping is one more floor of each call of the same round."""
    for what in samples.whats():
        if what not in (PING, LIFE):
            for value in samples[PING, OURS]:
                samples.add(what, PING, value)


def latencies(bench):
    """Microseconds from a call to its answer, at a client in C."""
    samples = Samples()
    with lab.device_of(bench, OURS) as device:
        lab.start_as_shipped(device)
        with lab.floors_beside(bench, device) as services:
            rounds = bench.rounds(3000, 200)
            named = (f"{subject}={name}" for subject, (name, _) in services.items())
            lines = lab.run_client(bench, device, "latency", rounds, ",".join((PING, *CALLS)), *named)
    for what, subject, _, value in lines:
        samples.add(what, subject, value)
    add_ping(samples)
    return samples


def lived(bench, device, call):
    """Instructions of a life in which that call was made a hundred times (None: nothing was)."""
    device.start()
    if call is not None:
        lab.run_client(bench, device, "repeat", TIMES, call, device.service)
    device.stop()
    return int(re.findall(r"Collected : (\d+)", device.stderr)[-1])


def count(bench, subject, samples):
    with lab.device_of(bench, subject) as device:
        if subject == OURS:
            device.start()  # makes the files
            device.restart()
            device.stop()
            wait_until(lambda: settled(device), "settings that have settled")
        device.wrapper = COUNTER
        life = lived(bench, device, None)
        samples.add(LIFE, subject, life)
        for call in (PING, *CALLS):
            samples.add(call, subject, (lived(bench, device, call) - life) / TIMES)


def instructions(bench):
    """Instructions of a call and of a life without any, under callgrind."""
    samples = Samples()
    for _ in range(bench.rounds(3, 1)):
        for subject in (OURS, *bench.floors()):
            count(bench, subject, samples)
    add_ping(samples)
    return samples
