"""Several clients at once, none of which waits for another."""

import json
import os
import pathlib
import subprocess
import sys
import tempfile

import pytest
from describe import element, port

from sim import bus
from sim.bus import wait_until

CLIENTS = 3
REQUESTS = 7000  # of each client
# Seconds for all of it; a daemon that stands still is noticed much earlier, by a client that waits
# in vain for one answer.
DEADLINE = 500

EXPECTED_ERRORS = {
    "The port is busy.",
    "Port not output.",
    "Port not configurable.",
    "No such port.",
    "Could not set port to open.",
    "Could not set port to closed.",
}

EVENTS = element("event", declaration="IOPort") + element("event", declaration="PortAny")


def describe(device):
    ports = [
        port("port0", 0),
        port("port1", 1),
        port("port2", 2, optional="true"),
        port("port3", 3, optional="true"),
        port("port4", 4, "io_ctrl"),
        port("port5", 5, "io_ctrl", dir="output"),
        port("port6", 6, backend="virtual", properties="virtual"),
        port("port7", 7, "input"),
    ]
    device.describe("".join(text.replace("</port>", EVENTS + "</port>") for text in ports))


def threads(device):
    return len(os.listdir(f"/proc/{device.pid}/task"))


def count_ends(device):
    """Counts ActionSequenceDone from now on; the count is the list's length."""
    ends = []
    device.first_client.connection.signal_subscribe(
        None, bus.STATE_NAME, "ActionSequenceDone", bus.STATE_PATH, None, 0,
        lambda *_: ends.append(True),
    )  # fmt: skip
    device.sync()
    return ends


@pytest.mark.timeout(DEADLINE + 100)
def test_clients_that_drive_cancel_drop_and_read_at_once(make_device, monkeypatch):
    # Thousands of saves, each of which waits for the disk: on a busy one, minutes of nothing else.
    if os.access("/dev/shm", os.W_OK):
        monkeypatch.setattr(tempfile, "tempdir", "/dev/shm")
    device = make_device()
    describe(device)
    device.start()
    before = {entry.number: entry.name for entry in device.port_list()}
    ends = count_ends(device)
    threads_before = threads(device)

    script = pathlib.Path(__file__).with_name("stress_client.py")
    clients = [
        subprocess.Popen(
            [sys.executable, script, device.bus_address, str(seed), str(REQUESTS)],
            stdout=subprocess.PIPE,
        )
        for seed in range(CLIENTS)
    ]
    try:
        wait_until(lambda: all(c.poll() is not None for c in clients), "the clients", DEADLINE)
    finally:
        for client in clients:
            client.kill()
    outputs = [client.communicate()[0] for client in clients]
    assert [client.returncode for client in clients] == [0] * CLIENTS, "a client got no answer"
    reports = [json.loads(output) for output in outputs]

    assert sum(report["answered"] for report in reports) == CLIENTS * REQUESTS >= 20_000
    errors = {text for report in reports for text in report["errors"]}
    assert errors <= EXPECTED_ERRORS, reports
    started = sum(report["accepted"] for report in reports)
    assert started > 500, "too few sequences to mean anything"
    wait_until(lambda: len(ends) >= started, f"{started} ends; there were {len(ends)}")
    device.sync()
    assert len(ends) == started

    wait_until(lambda: threads(device) <= threads_before, "the sequences' threads to end")
    device.state.RefreshIOPorts()
    assert {entry.number: entry.name for entry in device.port_list()} == before
