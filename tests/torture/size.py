"""A device with thousands of ports is served like one with four."""

import pathlib
import re
import time

from campaign import Broken, Campaign, Fault, Trial
from legacy import INPUT, NAME, OUTPUT, PROPERTIES
from legacy import path as legacy_path
from victim import Victim

from describe import element, port

PORTS = 4096
OPTIONAL = 256  # of them may come and go


def many_ports(binary, _budget):
    with Victim(binary, patience=5) as device:
        device.describe("".join(map(describe, range(PORTS))) + element("first_virtual_input", nbr=PORTS))
        times = {"the first start": timed(device.start)}
        device.stop()
        times["the next start"] = timed(device.start)
        assert_all_there(device)
        times["GetPortProps"] = timed(device.port_list)
        times["a save"] = timed(lambda: device.state.SetUsage(0, "new") or device.sync())
        times["all legacy objects"] = timed(lambda: ask_legacy(device))
        times["drop and refresh of 256"] = timed(lambda: drop_and_refresh(device))
        assert_all_there(device)
        memory = re.search(r"VmHWM:\s+(\d+)", pathlib.Path(f"/proc/{device.pid}/status").read_text())
        device.assert_quiet()
        times["the stop"] = timed(device.stop)
        if len(device.saved) != PORTS or device.saved["p0"]["usage"] != "new":
            raise Broken(f"the settings have {len(device.saved)} ports")
    said = ", ".join(f"{what} {seconds:.2f} s" for what, seconds in times.items())
    return f"{PORTS} ports: {said}; at most {int(memory[1]) // 1024} MiB"


def describe(n):
    return port(f"p{n}", n, "input" if n % 2 else "output", optional="true" if n < OPTIONAL else None)


def timed(action):
    began = time.monotonic()
    action()
    return time.monotonic() - began


def assert_all_there(device):
    numbers = sorted(numbers_of(device))
    if numbers != [*range(PORTS)]:
        raise Broken(f"{len(numbers)} ports are told of, not {PORTS}")
    if sum(device.state.GetNbrPorts()) != PORTS:
        raise Broken(f"{device.state.GetNbrPorts()} inputs and outputs are counted")


def numbers_of(device):
    """The described ports that are there; behind them is the manual trigger, which always is."""
    return [entry.number for entry in device.port_list() if entry.number < PORTS]


def ask_legacy(device):
    calls = [
        device.first_client.begin(
            NAME, legacy_path(n), PROPERTIES, "Get", "ss", INPUT if n % 2 else OUTPUT, "Name"
        )
        for n in range(PORTS)
    ]
    if any(call.wait() != f"Port {n + 1}" for n, call in enumerate(calls)):
        raise Broken("a legacy object has another port's name")


def drop_and_refresh(device):
    names = [f"p{n}" for n in range(OPTIONAL)]
    if sorted(device.state.DropIOPorts(names)) != sorted(names):
        raise Broken("not all ports were dropped")
    if len(numbers_of(device)) != PORTS - OPTIONAL:
        raise Broken("dropped ports are told of")
    device.state.RefreshIOPorts()


CUT = Fault(
    "the thousandth port is not listed", "src/dbus/iocontrol.cpp",
    "      const IoPortRef port(io_port_ref(entry));\n      g_variant_builder_add_value(",
    "      const IoPortRef port(io_port_ref(entry));\n"
    "      if (entry->number == 1000) {\n"
    "        continue;\n"
    "      }\n"
    "      g_variant_builder_add_value(",
)  # fmt: skip

CAMPAIGN = Campaign(
    "size",
    "a device with thousands of ports is served like one with four",
    (Trial("4,096 ports", many_ports, (CUT,)),),
)
