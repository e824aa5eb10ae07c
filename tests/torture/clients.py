"""What some clients do, the others do not suffer from."""

import json
import os
import pathlib
import statistics
import subprocess
import sys
import time

from campaign import Broken, Campaign, Fault, Trial
from victim import Victim

from describe import element, port
from sim import sandbox
from sim.bus import wait_until

HOSTILE = pathlib.Path(__file__).with_name("hostile.py")
IDLE_CALLS = 300
# Beyond that many times the idle time, the honest client is not served but put up with.
MOST = 200


def hostile_clients(binary, budget):
    with Victim(binary) as device:
        device.describe(
            port("in", 0, "input", "null", optional="true") + port("out", 1) + port("both", 2, "io_ctrl")
            + port("locked", 3, "io_ctrl", properties="ioport readonly")
            + element("first_virtual_input", nbr=20)
        )  # fmt: skip
        device.start()
        pid = device.pid
        idle = [honest_call(device) for _ in range(IDLE_CALLS)]
        open_before = len(os.listdir(f"/proc/{pid}/fd"))
        tally, beside = beside_a_mob(device, budget)
        if tally["answered"] != tally["due"]:
            raise Broken(f"{tally['due'] - tally['answered']} of {tally['due']} calls were not answered")
        device.assert_quiet()
        wait_until(
            lambda: len(os.listdir(f"/proc/{pid}/fd")) <= open_before, "the descriptors to be closed"
        )
    return f"{tally['calls']} calls of {tally['clients']} clients; {compare(idle, beside)}"


def honest_call(device):
    """How long a plain question takes to be answered, in seconds."""
    began = time.monotonic()
    device.state.GetState(1)
    return time.monotonic() - began


def beside_a_mob(device, budget):
    """What the hostile ones have done, and how long each honest call took meanwhile."""
    socket = str(device.path(sandbox.BUS_SOCKET))
    mob = subprocess.Popen(
        [sys.executable, "-B", HOSTILE, socket, str(budget.dice.randrange(10**6)), str(budget.seconds)],
        stdout=subprocess.PIPE, text=True,
    )  # fmt: skip
    try:
        if mob.stdout.readline() != "ready\n":
            raise RuntimeError("the hostile clients did not start")
        times = [honest_call(device)]
        while mob.poll() is None:
            times.append(honest_call(device))
        return json.loads(mob.stdout.read()), times
    finally:
        mob.kill()
        mob.wait()
        mob.stdout.close()


def compare(idle, beside):
    ratio = statistics.median(beside) / statistics.median(idle)
    if ratio > MOST:
        raise Broken(f"an honest call takes {ratio:.0f} times as long")
    worst = max(beside) / statistics.median(idle)
    return (
        f"{len(beside)} honest calls all answered, {ratio:.1f} times as slow as on an idle daemon "
        f"(median {statistics.median(idle) * 1000:.1f} ms), the slowest {worst:.0f} times"
    )


LOST = Fault(
    "one answer in a thousand is lost", "src/dbus/iocontrol.cpp",
    "  iocontrol_state_complete_get_state(object, invocation, io_port_get_state(port));\n",
    """  if (static int calls = 0; ++calls % 1000 != 0) {
    iocontrol_state_complete_get_state(object, invocation, io_port_get_state(port));
  }
""",
)  # fmt: skip

CAMPAIGN = Campaign(
    "clients",
    "what some clients do, the others do not suffer from",
    (Trial("64 hostile clients", hostile_clients, (LOST,)),),
)
