"""What the daemon costs as a whole: its start, a call, its memory.

Usage: daemon_bench.py [--quick] BINARY

Everything is compared within one run; see README.md for what the figures mean.
"""

import argparse
import contextlib
import os
import pathlib
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TOP), str(TOP / "tests/system")]

from describe import port  # noqa: E402
from gi.repository import Gio, GLib  # noqa: E402

from sim import bus  # noqa: E402
from sim.device import Device  # noqa: E402

MEMORY = "/dev/shm"
REST_S = 2  # until a service that was started has come to rest
PATIENCE = 30  # times the usual deadline, for thousands of ports


@contextlib.contextmanager
def files_in(folder):
    """Makes the devices' files lie in that folder (None: where temporary files usually do)."""
    before, tempfile.tempdir = tempfile.tempdir, folder
    try:
        yield
    finally:
        tempfile.tempdir = before


def started(binary, count, properties, folder):
    """Seconds from exec to names owned, and resident memory in KiB, with that many ports."""
    with files_in(folder), Device(binary, patience=PATIENCE, quiet=True) as device:
        device.describe("".join(port(f"port{i}", i, properties=properties) for i in range(count)))
        begin = time.monotonic()
        device.start()
        seconds = time.monotonic() - begin
        status = pathlib.Path(f"/proc/{device.pid}/status").read_text()
        return seconds, int(re.search(r"VmRSS:\s+(\d+) kB", status)[1])


def start_up(binary, counts):
    columns = (
        ("saved, on disk", "ioport", None),
        ("saved, in memory", "ioport", MEMORY),
        ("not saved", "virtual", MEMORY),
    )
    print("\nstart-up, milliseconds from exec to names owned (and per port)")
    print(f"{'ports':>6}", *(f"{title:>24}" for title, _, _ in columns))
    memory = {}
    for count in counts:
        cells = []
        for _, properties, folder in columns:
            runs = [
                started(binary, count, properties, folder) for _ in range(5 if count < 500 else 1)
            ]
            seconds, memory[count] = statistics.median(run[0] for run in runs), runs[-1][1]
            cells.append(f"{seconds * 1e3:12.0f} ({seconds * 1e3 / count:8.2f})")
        print(f"{count:6}", *(f"{cell:>24}" for cell in cells), flush=True)
    return memory


def resident(memory):
    least, most = min(memory), max(memory)
    print("\nresident memory")
    for count, kib in memory.items():
        print(f"{count:6} ports {kib:8} KiB")
    print(f"  a port: {(memory[most] - memory[least]) / (most - least):.2f} KiB")


def stripped_size(binary):
    """Bytes of the binary as a package has it."""
    with tempfile.NamedTemporaryFile() as stripped:
        subprocess.run(["strip", "-o", stripped.name, binary], check=True)
        return os.path.getsize(stripped.name)


def private_memory(pid):
    """KiB that the process has to itself: what its end would give back."""
    shares = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text()
    return sum(int(kib) for kib in re.findall(r"^Private_\w+:\s+(\d+) kB", shares, re.MULTILINE))


def at_rest(command, address):
    """Private memory of a service on that bus once it has nothing more to do."""
    environment = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=address)
    service = subprocess.Popen(command, env=environment, stdout=subprocess.DEVNULL)
    try:
        time.sleep(REST_S)
        assert service.poll() is None, f"{command} does not run"
        return private_memory(service.pid)
    finally:
        service.terminate()
        service.wait()


def size(binary, ports=16):
    """Beside what the same libraries take in a program that does nothing, and a known neighbour."""
    print(f"\nsize: stripped binary, and private memory at rest ({ports} ports)")
    rows = []
    with Device(binary, quiet=True) as device:
        device.describe("".join(port(f"port{i}", i) for i in range(ports)))
        device.start()
        time.sleep(REST_S)
        rows.append(("wexd", binary, private_memory(device.pid)))
        bare = pathlib.Path(binary).parent / "bench/bare-loop"
        rows.append(("bare GLib service", bare, at_rest([bare], device.bus_address)))
        neighbour = shutil.which("gpio-manager")
        if neighbour:
            rows.append(("gpio-manager", neighbour, at_rest([neighbour], device.bus_address)))
    for name, path, memory in rows:
        print(f"  {name:18} {stripped_size(path) / 1024:6.0f} KiB {memory:8} KiB")
    if not neighbour:
        print("  gpio-manager       not installed")


class Caller:
    """Synchronous calls on one connection."""

    def __init__(self, device):
        self.connection = device.first_client.connection

    def call(self, interface, method, parameters):
        self.connection.call_sync(
            bus.STATE_NAME, bus.STATE_PATH, interface, method, parameters, None,
            Gio.DBusCallFlags.NO_AUTO_START, -1, None,
        )  # fmt: skip


def round_trips(binary, rounds):
    print("\nround trips, microseconds (median) and against Ping on the same connection")
    for title, folder in (("files on disk", None), ("files in memory", MEMORY)):
        with files_in(folder), Device(binary, quiet=True) as device:
            device.describe("".join(port(f"port{i}", i) for i in range(8)))
            device.start()
            caller = Caller(device)
            calls = {
                "Ping": ("org.freedesktop.DBus.Peer", "Ping", lambda _: None),
                "GetState": (bus.STATE_NAME, "GetState", lambda _: GLib.Variant("(u)", (1,))),
                "SetState": (
                    bus.STATE_NAME, "SetState",
                    lambda i: GLib.Variant("(ub)", (1, i % 2 == 0)),
                ),
            }  # fmt: skip
            times = {name: [] for name in [*calls, "GetState behind it"]}

            def timed(name, call, i):
                interface, method, parameters = call
                begin = time.perf_counter()
                caller.call(interface, method, parameters(i))
                times[name].append((time.perf_counter() - begin) * 1e6)

            for i in range(rounds):
                for name, call in calls.items():
                    timed(name, call, i)
                # The answer comes before the save; whose turn is next waits for it.
                timed("GetState behind it", calls["GetState"], i)
        ping = statistics.median(times["Ping"])
        for name, values in times.items():
            median = statistics.median(values)
            print(f"  {title:16} {name:20} {median:9.0f}  x{median / ping:6.2f}")


def legacy_rebuild(binary, counts):
    """A drop and a refresh with the legacy interface, and without: the difference is its cost."""
    print("\nlegacy interface, milliseconds for destroying and creating it with that many ports")
    for count in counts:
        cells = []
        for argv in ((), ("--disable_legacy_interface",)):
            with files_in(MEMORY), Device(binary, patience=PATIENCE, quiet=True) as device:
                # Not saved at start; all numbers have an object.
                device.describe(
                    port("extra", 0, optional="true")
                    + "".join(port(f"port{i}", i, properties="virtual") for i in range(1, count))
                    + f'<first_virtual_input nbr="{count}"/>'
                )
                device.start(*argv)
                times = []
                for _ in range(10):
                    begin = time.perf_counter()
                    device.state.DropIOPorts(["extra"])
                    device.state.RefreshIOPorts()
                    times.append((time.perf_counter() - begin) / 2)
                cells.append(statistics.median(times))
        cost = (cells[0] - cells[1]) * 1e3
        print(f"{count:6} ports {cost:9.2f} ms ({cost / count:6.3f} each; without {cells[1] * 1e3:.2f})")


def legacy_get_all(binary, rounds):
    name = "com.norv.Configuration.Legacy.IOControl1.IOPort"
    path = "/com/norv/Configuration/Legacy/IOControl/IOPort/0"
    with Device(binary, quiet=True) as device:
        device.describe(port("port", 0))
        device.start()
        connection = device.first_client.connection
        calls = {
            "Ping": ("org.freedesktop.DBus.Peer", "Ping", None),
            "GetAll": ("org.freedesktop.DBus.Properties", "GetAll", GLib.Variant("(s)", (name,))),
        }
        times = {what: [] for what in calls}
        for _ in range(rounds):
            for what, (interface, method, parameters) in calls.items():
                begin = time.perf_counter()
                connection.call_sync(name, path, interface, method, parameters, None, 0, -1, None)
                times[what].append((time.perf_counter() - begin) * 1e6)
    ping, get_all = (statistics.median(times[what]) for what in calls)
    print(f"  GetAll of a port object {get_all:.0f} us, x {get_all / ping:.1f} of Ping")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--quick", action="store_true", help="leave out 4,096 ports")
    parser.add_argument("binary")
    options = parser.parse_args()
    print(f"{os.cpu_count()} processors, load {os.getloadavg()[0]:.1f}")
    counts = (8, 64, 512) if options.quick else (8, 64, 512, 4096)
    memory = start_up(options.binary, counts)
    resident(memory)
    size(options.binary)
    round_trips(options.binary, 500)
    legacy_rebuild(options.binary, (8, 64, 512))
    legacy_get_all(options.binary, 500)


if __name__ == "__main__":
    main()
