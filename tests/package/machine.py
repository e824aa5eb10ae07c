"""A Debian tree, booted: systemd as the first process of its own namespaces and control groups.

Everything that a unit asks for is real: users, capabilities, mounts, system-call filters, restarts.
What the tree shares with this machine is the kernel, so /sys and /proc/sys are read-only in it.
"""

import os
import pathlib
import subprocess

from sim.bus import wait_until

# The process that becomes the first one, in namespaces of its own.
BOOT = r"""
set -e
cd "$1"
mount -t proc proc proc
mount --bind proc/sys proc/sys
mount -o remount,ro,bind proc/sys
mount -t sysfs -o ro sysfs sys
mount -t cgroup2 cgroup2 sys/fs/cgroup
mount -t tmpfs tmpfs run
mount -t tmpfs tmpfs tmp
mount -t tmpfs tmpfs dev
mkdir dev/pts dev/shm
mount -t devpts -o newinstance,ptmxmode=0666 devpts dev/pts
ln -s pts/ptmx dev/ptmx
for node in null zero full random urandom; do
  touch dev/$node
  mount --bind /dev/$node dev/$node
done
# For the sandbox to refuse: a device that is none of ours, and folders of /sys that could be written.
touch dev/other
mount --bind /dev/kmsg dev/other
mount -t tmpfs tmpfs sys/module
mount -t tmpfs tmpfs sys/devices/virtual/mem
exec chroot . /usr/bin/env -i container=wexd-package-test /lib/systemd/systemd --unit=multi-user.target
"""


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


class Machine:
    """A booted tree; commands run in it, as whom they like."""

    def __init__(self, root, scratch):
        self.root = root
        self.hierarchy = scratch / "cgroup"
        self.hierarchy.mkdir()
        run("mount", "-t", "cgroup2", "cgroup2", str(self.hierarchy))
        self.group = self.hierarchy / f"wexd-package-test-{os.getpid()}"
        self.group.mkdir()
        self.outer = subprocess.Popen(
            [
                "sh", "-c", 'echo $$ >"$1/cgroup.procs"; shift; exec "$@"', "sh", str(self.group),
                "unshare", "--pid", "--fork", "--kill-child", "--mount", "--uts", "--ipc",
                "--cgroup", "--net", "sh", "-c", BOOT, "sh", str(root),
            ],
            stdin=subprocess.DEVNULL,
        )  # fmt: skip
        try:
            wait_until(self._is_up, "the booted tree", deadline=120)
        except BaseException:
            self.halt()
            raise

    def _first_process(self):
        children = pathlib.Path(f"/proc/{self.outer.pid}/task/{self.outer.pid}/children")
        return children.read_text().split()[0]

    def _is_up(self):
        assert self.outer.poll() is None, "the tree does not boot"
        try:
            begun = pathlib.Path(f"/proc/{self._first_process()}/comm").read_text() == "systemd\n"
        except (IndexError, OSError):
            begun = False
        if not begun:
            return False
        state = self.attempt("systemctl", "is-system-running").stdout.strip()
        return state in ("running", "degraded")

    def path(self, inside):
        """A file of the tree; not for /run, /tmp, /dev, /proc and /sys, which only it sees."""
        return self.root / inside.lstrip("/")

    def command(self, *command, user=None):
        become = ["setpriv", "--reuid", user, "--regid", user, "--init-groups"] if user else []
        enter = ["nsenter", "--target", self._first_process(), "--all", "--root", "--wd=/"]
        return [*enter, *become, *command]

    def run(self, *command, user=None):
        return run(*self.command(*command, user=user))

    def attempt(self, *command, user=None):
        """The finished process, whatever came of it."""
        return subprocess.run(
            self.command(*command, user=user), capture_output=True, text=True, check=False
        )

    def main_process(self, unit):
        """The unit's process as this machine numbers it."""
        inside = self.run("systemctl", "show", "--value", "--property=MainPID", unit).strip()
        for process in (self.group / f"system.slice/{unit}/cgroup.procs").read_text().split():
            numbers = pathlib.Path(f"/proc/{process}/status").read_text()
            if f"\t{inside}\n" in numbers.split("NSpid:")[1].split("\n")[0] + "\n":
                return int(process)
        raise LookupError(unit)

    def halt(self):
        # Its end is the end of the first process, and so of all.
        self.outer.kill()
        self.outer.wait()
        wait_until(self._is_empty, "the end of the tree's processes", deadline=20)
        for folder, _, _ in os.walk(self.group, topdown=False):
            os.rmdir(folder)
        run("umount", str(self.hierarchy))

    def _is_empty(self):
        return "populated 0" in (self.group / "cgroup.events").read_text()
