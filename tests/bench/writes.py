"""Writes: how often the disk is synced and the settings renamed, as a trace shows it."""

import lab
import test_writes
from harness import OURS, Samples
from lab import FLOOR

from sim.bus import wait_until

STATES = 100
FIRST, SECOND, SET = "first boot", "second boot", f"{STATES} SetStates"


def syncs_name(what):
    return f"{what}: syncs"


def renames_name(what):
    return f"{what}: renames of the settings"


def traced(device):
    return test_writes.syncs(device), test_writes.renames(device)


def add(samples, what, subject, syncs, renames):
    samples.add(syncs_name(what), subject, syncs)
    samples.add(renames_name(what), subject, renames)


def call_100_times(bench, device):
    lab.run_client(bench, device, "repeat", STATES, "SetState that toggles", device.service)


def writes(bench):
    """Calls to the kernel."""
    samples = Samples()
    for subject in (OURS, FLOOR):
        with lab.device_of(bench, subject, wrapper=test_writes.STRACE) as device:
            device.start()
            add(samples, FIRST, subject, *traced(device))
            if subject == OURS:
                wait_until(lambda: device.path(test_writes.KEY_FILE).exists(), "settings")
            device.restart()
            before = traced(device)
            add(samples, SECOND, subject, *before)
            call_100_times(bench, device)
            if subject == OURS:
                device.sync()  # a call is answered before its settings are saved
            after = traced(device)
            add(samples, SET, subject, *(now - then for now, then in zip(after, before)))
    return samples
