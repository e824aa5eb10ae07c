"""One daemon at a time: the folder of the settings is locked for the daemon's life."""

import contextlib
import fcntl
import os
import signal
import subprocess

import pytest
from describe import port

from sim.bus import wait_until
from sim.device import DESCRIPTION, IMPORT_FILE, KEY_FILE
from sim.sandbox import BINARY

FOLDER = "/etc/wexd"
RUNNING = f"WARNING: wexd is already running: another process has locked {FOLDER}\n"


class Lock:
    """What another process does that locks the folder."""

    def __init__(self, device):
        self.folder = os.open(device.path(FOLDER), os.O_RDONLY)
        fcntl.flock(self.folder, fcntl.LOCK_EX | fcntl.LOCK_NB)

    def release(self):
        os.close(self.folder)


def open_folder(device):
    """The daemon's descriptor of the folder, as /proc numbers it; None if it has none.

    While another process has the lock, the daemon that waits for it has one.
    """
    folder = f"/proc/{device.pid}/fd"
    for fd in os.listdir(folder):
        with contextlib.suppress(OSError):  # it may be closed meanwhile
            if os.readlink(f"{folder}/{fd}") == FOLDER:
                return fd
    return None


def everything(device):
    """Every file of the settings' folder and the one to import, told apart from any other."""
    paths = [*device.path(FOLDER).iterdir(), device.path(IMPORT_FILE)]
    return {(str(path), path.stat().st_ino, path.stat().st_mtime_ns) for path in paths}


def test_a_second_daemon_ends_before_it_reads_or_touches_anything(device):
    device.describe(port("a", 0))
    device.start()
    device.write(IMPORT_FILE, "[IOPort.I0.Output]\nName=Imported\n")
    device.write(f"{FOLDER}/.wexd.conf.new", "of a save")
    device.path(DESCRIPTION).unlink()
    before = everything(device)
    second = subprocess.run(
        device.sandbox.command([BINARY], device.binary), capture_output=True, text=True,
        timeout=60, check=False,
    )  # fmt: skip
    assert (second.returncode, second.stdout, second.stderr) == (1, RUNNING, "")
    assert everything(device) == before
    device.state.SetUsage(0, "still served")
    device.sync()
    assert device.saved["a"]["usage"] == "still served"


def test_a_start_waits_for_a_daemon_that_is_about_to_end(device):
    device.describe(port("a", 0))
    lock = Lock(device)
    device.start(ready=False)
    wait_until(lambda: open_folder(device), "the daemon at the lock")
    lock.release()
    device.wait_ready()


def test_a_start_that_waits_can_be_stopped(device):
    device.describe(port("a", 0))
    lock = Lock(device)
    device.start(ready=False)
    wait_until(lambda: open_folder(device), "the daemon at the lock")
    device.signal(signal.SIGTERM)
    device.wait_exit(128 + signal.SIGTERM)
    assert device.stdout == ""
    lock.release()


@pytest.mark.parametrize("end", ["stop", "kill"])
def test_the_lock_goes_with_the_daemon(device, end):
    device.describe(port("a", 0))
    device.start()
    with pytest.raises(BlockingIOError):
        Lock(device)
    with open(f"/proc/{device.pid}/fdinfo/{open_folder(device)}", encoding="ascii") as info:
        flags = int(dict(line.split(":", 1) for line in info)["flags"], 8)
    assert flags & os.O_CLOEXEC, "no other program is to keep the lock"
    getattr(device, end)()
    device.start()


def test_nothing_to_lock_is_no_obstacle(device):
    device.describe(port("a", 0))
    device.path(f"{FOLDER}/actions").rmdir()
    device.path(FOLDER).rmdir()
    device.start()
    assert device.state.GetNbrPorts() == (0, 1)
    assert device.log_count("^WARNING: ") == 0
    assert f"Failed to store key file {KEY_FILE}" in device.stderr


def test_a_folder_that_cannot_be_opened_is_a_warning(ordinary_device):
    device = ordinary_device
    device.describe(port("a", 0))
    folder = device.path(FOLDER)
    folder.chmod(0o311)
    device.on_exit(lambda: folder.chmod(0o755))
    device.start()
    assert device.log_count(f"^WARNING: Could not lock {FOLDER}: Permission denied$") == 1
    assert device.saved["a"]["output_name"] == "Port 1"
