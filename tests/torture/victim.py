"""A device that is treated badly: its daemon dies, and its log is looked at only when asked."""

import contextlib
import os
import pathlib
import re
import signal
import subprocess
import threading

from describe import port
from sim.bus import BusError, wait_until
from sim.device import KEY_FILE, UNWANTED, Device
from sim.sandbox import child_of

from campaign import Broken


class Victim(Device):
    """Leaves nothing behind and prints nothing; what a trial found is in what it raises."""

    def __init__(self, binary, **options):
        super().__init__(binary, quiet=True, **options)
        self.abandoned = True

    def print_log(self):
        pass

    def kill_in(self, seconds):
        """Kills the daemon after that long, whatever it and its caller do then, and waits for that."""
        daemon = wait_until(lambda: child_of(self._init_pid), "the daemon's process")
        timer = threading.Timer(seconds, os.kill, (daemon, signal.SIGKILL))
        timer.start()
        wait_until(lambda: not self.running, "the daemon's death")
        timer.join()

    def assert_quiet(self, *allowed):
        """Fails on an error message of this life that is not allowed, or of a sanitizer."""
        for line in (self.stdout + self.stderr).splitlines():
            if UNWANTED.search(line) and not any(re.search(known, line) for known in allowed):
                raise Broken(f"the daemon said: {line}")


def library(source, folder, *options):
    """Builds a library of those beside this file, for a daemon to preload; returns its path."""
    built = pathlib.Path(folder) / pathlib.PurePath(source).with_suffix(".so")
    subprocess.run(
        ["cc", "-shared", "-fPIC", "-Wall", "-Wextra", "-Werror", *options,
         pathlib.Path(__file__).with_name(source), "-o", built, "-ldl"], check=True,
    )  # fmt: skip
    return built


@contextlib.contextmanager
def started(binary, **options):
    """A victim with eight ports, in service."""
    with Victim(binary, **options) as device:
        device.describe("".join(port(f"p{n}", n) for n in range(8)))
        device.start()
        yield device


def serves_or_ends(device):
    """Whether a daemon that has just been started comes to serve; it may end instead, and nothing else."""

    def decided():
        if not device.running:
            return "ended"
        try:
            device.state.begin("GetNbrPorts").wait(1)
            return "serves"
        except (BusError, AssertionError):
            return None

    return wait_until(decided, "the daemon to serve or to end", 60) == "serves"


def served_with(binary, amounts, limit, what):
    """With too little of something it ends, with enough it serves; it never hangs, and the settings stay.
    The limit is an option of prlimit's."""
    with started(binary) as device:
        device.stop()
        settings, served = device.read(KEY_FILE), []
        for amount in amounts:
            device.wrapper = ("prlimit", limit.format(amount))
            device.start(ready=False)
            if serves_or_ends(device):
                served.append(amount)
            device.kill()
            if device.read(KEY_FILE) != settings:
                raise Broken(f"{amount} {what} cost settings")
        if not served:
            raise Broken(f"not even {amounts[-1]} {what} are enough")
    return f"{amounts[0]:,} to {amounts[-1]:,} {what}; it serves from {served[0]:,} on"
