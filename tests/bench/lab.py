"""The services that are measured: the daemon on a scratch device, and on its bus, or in its place, what
it is measured beside."""

import contextlib
import dataclasses
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TOP), str(TOP / "tests/system")]

from describe import port  # noqa: E402
from harness import OURS  # noqa: E402
from instructions import settled  # noqa: E402

from sim import bus, sandbox  # noqa: E402
from sim.bus import wait_until  # noqa: E402
from sim.device import Device  # noqa: E402

FLOOR, SD_BUS_FLOOR, NEIGHBOUR = "floor", "sd-bus floor", "gpio-manager"
FLOOR_NAMES = {FLOOR: "bench.Floor", SD_BUS_FLOOR: "bench.SdBusFloor"}
# As long as the start of a simulated device takes, with thousands of ports.
PATIENCE = 30
PORTS = 16
MEMORY = "/dev/shm"
REST_S = 1.6  # the daemon gives memory back a second after it could
TIMER, RESULT = "/tmp/start-timer", "/tmp/start-time"
UNIT = TOP / "data/wexd.service.in"


def unit_environment(text):
    """What a unit has in the environment, other than what a simulated device has there for tests."""
    plain = {"G_SLICE": ""}
    return plain | dict(re.findall(r"^Environment=(\w+)=(\S*)$", text, re.MULTILINE))


# What is measured has it as it ships.
AS_SHIPPED = unit_environment(UNIT.read_text())


@dataclasses.dataclass
class Bench:
    """What is measured, and how long."""

    binary: pathlib.Path
    short: bool = False

    def rounds(self, full, short=2):
        return short if self.short else full

    def program(self, name):
        """One of the programs of this folder."""
        return self.binary.parent / "bench" / name

    def floors(self):
        """{subject: program} of what the daemon is measured beside."""
        return {
            FLOOR: self.program("floor"), SD_BUS_FLOOR: self.program("sd-bus-floor"),
        }  # fmt: skip


class FloorDevice(Device):
    """A device on which a floor runs in the daemon's place, in the same sandbox."""

    def __init__(self, subject, program, **more):
        super().__init__(program, **more)
        self._name = FLOOR_NAMES[subject]
        self._unique = None

    def wait_ready(self):
        def ready():
            owner = self.first_client.owner(self._name)
            return owner != self._unique and owner

        self._unique = wait_until(ready, f"{self._name} on the bus", bus.DEADLINE * self.patience)

    @property
    def service(self):
        return self._unique


class DaemonDevice(Device):
    """The daemon on a device with that many ports."""

    def __init__(self, binary, ports=PORTS, **more):
        super().__init__(binary, **more)
        self._ports = ports

    def __enter__(self):
        super().__enter__()
        self.describe("".join(port(f"port{i}", i) for i in range(self._ports)))
        return self

    @property
    def service(self):
        return self.first_client.owner(bus.STATE_NAME)


def device_of(bench, subject, **more):
    """A device on which the subject runs, with 16 ports if it is the daemon."""
    if subject == OURS:
        return DaemonDevice(bench.binary, patience=PATIENCE, quiet=True, **more)
    return FloorDevice(subject, bench.floors()[subject], patience=PATIENCE, quiet=True, **more)


def start_as_shipped(device):
    """Starts the daemon, and waits until it reads settings that changed no more before each save."""
    device.start(environment=AS_SHIPPED)
    wait_until(lambda: settled(device), "settings that have settled")


@contextlib.contextmanager
def files_in(folder):
    """Makes the devices' files lie in that folder (None: where temporary files usually do)."""
    before, tempfile.tempdir = tempfile.tempdir, folder
    try:
        yield
    finally:
        tempfile.tempdir = before


def install_timer(bench, device, names):
    """From now on a start of the device tells how long it took until these names were owned."""
    device.write(TIMER, bench.program("start-timer").read_bytes()).chmod(0o755)
    device.wrapper = (TIMER, RESULT, ",".join(names))


def timed_start(device):
    """Microseconds from exec to names owned."""
    device.path(RESULT).unlink(missing_ok=True)
    device.start(environment=AS_SHIPPED)
    wait_until(lambda: device.exists(RESULT), "the time of the start")
    return float(device.read(RESULT))


@contextlib.contextmanager
def on_bus_of(device, program):
    """A service of its own on the bus of a device: its process."""
    environment = {**os.environ, **AS_SHIPPED, "DBUS_SYSTEM_BUS_ADDRESS": device.bus_address}
    process = subprocess.Popen([program], env=environment, stdout=subprocess.DEVNULL)
    try:
        yield process
    finally:
        process.terminate()
        process.wait()


@contextlib.contextmanager
def floors_beside(bench, device):
    """{subject: (unique name, process id)} of the daemon that runs on a device, and of the floors."""
    with contextlib.ExitStack() as stack:
        found = {OURS: (device.service, device.pid)}
        for subject, program in bench.floors().items():
            process = stack.enter_context(on_bus_of(device, program))
            owner = wait_until(lambda: device.first_client.owner(FLOOR_NAMES[subject]), subject)
            found[subject] = (owner, process.pid)
        yield found


def neighbour():
    """The program of libgpiod that serves lines on the bus, where it is installed."""
    return shutil.which(NEIGHBOUR)


def neighbours_files():
    """The program and libgpiod's own libraries, without which it does nothing."""
    linked = subprocess.run(["ldd", neighbour()], stdout=subprocess.PIPE, text=True, check=True).stdout
    return [neighbour(), *re.findall(r"=> (\S*/libgpiod\S*)", linked)]


def bus_pid(device):
    """The process id of a device's bus, which runs in a sandbox as well."""
    return sandbox.child_of(sandbox.child_of(device._bus.process.pid))


def run_client(bench, device, *arguments):
    """The lines that bus-client prints, split at commas."""
    command = [bench.program("bus-client"), device.bus_address, *arguments]
    done = subprocess.run(list(map(str, command)), stdout=subprocess.PIPE, text=True, check=True)
    return [line.split(",") for line in done.stdout.splitlines()]


def until_steady(look, pause_s=0.4, deadline_s=20):
    """What a look finds once it finds the same twice, after whatever a service does in a moment."""
    time.sleep(REST_S)
    end, before = time.monotonic() + deadline_s, look()
    while True:
        time.sleep(pause_s)
        now = look()
        if now == before or time.monotonic() > end:
            return now
        before = now
