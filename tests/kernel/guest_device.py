"""The bench guest as a device: what sim.device offers, but with the daemon run
on the guest itself, where /sys and /dev are those of a real kernel."""

import os
import pathlib
import re
import shutil
import subprocess
import time

from sim import bus, device, sandbox

# The exact clock of a process, as <linux/posix-timers.h> makes it from a process id.
CPUCLOCK_SCHED = 2

# Everything that a life of the daemon reads or leaves behind.
LEFTOVERS = (
    "/etc/wexd",
    "/etc/wexd.d",
    "/etc/dynamic",
    "/etc/service_registry",
    "/etc/legacyconfig",
    device.IMPORT_FILE,
    device.DESCRIPTION,
)

UNIT = pathlib.Path("/bench/wexd.service.in")


def writable_places():
    """Where the unit lets the daemon write, if the place is there."""
    lists = re.findall(r"^ReadWritePaths=(.*)$", UNIT.read_text(), re.MULTILINE)
    return [place.removeprefix("-") for places in lists for place in places.split()]


class Guest(sandbox.Sandbox):
    """No sandbox at all: the guest's own file system, made as new; or, confined, only what the unit
    leaves of it."""

    def __init__(self, confined=False):
        self.prefix = ()
        if confined:
            self.prefix = ("/bench/confine", *writable_places(), "--")
        for leftover in map(pathlib.Path, LEFTOVERS):
            if leftover.is_dir():
                shutil.rmtree(leftover)
            else:
                leftover.unlink(missing_ok=True)
        super().__init__("/")

    def command(self, argv, binary, info_fd=None):
        return [*self.prefix, *(str(binary) if word == sandbox.BINARY else word for word in argv)]

    def bus_command(self, argv):
        return argv


def start_bus():
    """A bus for all devices to come."""
    return bus.Bus(Guest(), pathlib.Path("/tmp/bus.log"))


class GuestDevice(device.Device):
    """A device whose daemon is a plain child process, started by root.

    message_bus: a running bus that outlives the device, since starting one costs more on the
    emulated machine than many a test; None starts one.
    user: whether the device has the daemon's own user to change to. Without it the daemon stays
    root, and with that able to export pins and open their files later on.
    confined: whether the daemon sees the file system as the unit shows it.
    """

    def __init__(self, binary, message_bus=None, user=True, confined=False):
        super().__init__(binary)
        self.sandbox = Guest(confined)
        self.sandbox.set_accounts(user=user)
        self._shared_bus = message_bus

    def __enter__(self):
        if self._shared_bus is None:
            return super().__enter__()
        self._bus = self._shared_bus
        self._client = self.client()
        return self

    @property
    def pid(self):
        return self.process.pid

    def start(self, *argv, ready=True, environment=None):
        assert not self.running, "the daemon runs already"
        self.sandbox.hand_over()
        self.lives += 1
        with open(self._stream("out"), "wb") as out, open(self._stream("err"), "wb") as err:
            self.process = subprocess.Popen(
                self.sandbox.command([sandbox.BINARY, *argv], self.binary),
                stdin=subprocess.DEVNULL,
                stdout=out,
                stderr=err,
                env=self._environment(environment),
            )
        if ready:
            self.wait_ready()
        return self

    @property
    def descriptors(self):
        """What the daemon's open descriptors lead to when it is done with what it was asked."""
        self.sync()  # a call is answered before its settings are saved
        folder = pathlib.Path(f"/proc/{self.pid}/fd")
        return sorted(os.readlink(entry) for entry in folder.iterdir())

    @property
    def switches(self):
        """How often the daemon's threads have run so far, as {thread: times}."""
        counts = {}
        for thread in pathlib.Path(f"/proc/{self.pid}/task").iterdir():
            try:
                text = (thread / "status").read_text()
            except (FileNotFoundError, ProcessLookupError):
                continue  # has ended
            counts[thread.name] = sum(map(int, re.findall(r"ctxt_switches:\t(\d+)", text)))
        return counts

    @property
    def passes_a_second_at_rest(self):
        """Whether the daemon lets a second pass without running at all."""
        before = self.switches
        time.sleep(1)  # the time itself is what is looked at
        return self.switches == before

    @property
    def cpu_s(self):
        """Seconds of processor time that the daemon has used so far."""
        return time.clock_gettime((~self.pid << 3) | CPUCLOCK_SCHED)
