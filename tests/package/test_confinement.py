"""The unit's sandbox from within: what it forbids is tried there, by root as which the daemon starts,
and what the daemon does is done. All is tried outside as well: only what the sandbox refuses counts."""

import json
import pathlib
import re
import shutil
import subprocess

import pytest
from conftest import TOP
from machine import run
from sim.bus import wait_until

PROBE = "/opt/probe.py"
UNIT = "/usr/lib/systemd/system/wexd.service"
REGISTRY, MAPPINGS = "/etc/service_registry/services.d", "/etc/legacyconfig/legacymappings.d"

# What the sandbox makes of it, and what it is without: the error of arguments that make no sense, where
# it must not be done.
ATTEMPTS = {
    "write('/etc/wexd')": ("done", "done"),
    "write('/etc/wexd.d')": ("done", "done"),
    f"write('{REGISTRY}')": ("done", "done"),
    f"write('{MAPPINGS}')": ("done", "done"),
    "write('/etc/dynamic/wexd')": ("done", "done"),
    "write('/tmp')": ("done", "done"),
    "move('/etc/wexd', '/etc/wexd')": ("done", "done"),
    f"move('{MAPPINGS}', '{MAPPINGS}')": ("done", "done"),
    f"move('/etc/wexd.d', '{MAPPINGS}')": ("EXDEV", "done"),
    "write('/etc')": ("EROFS", "done"),
    "write('/etc/dynamic')": ("EROFS", "done"),
    "write('/etc/wexd/actions')": ("EROFS", "done"),
    "write('/usr/share/wexd')": ("EROFS", "done"),
    "write('/var/lib')": ("EROFS", "done"),
    "write('/run')": ("EROFS", "done"),
    # Memory in their place: folders of pins and converters, and others.
    "write('/sys/devices/virtual/mem')": ("done", "done"),
    "write('/sys/module')": ("EROFS", "done"),
    "os.listdir('/root/walk')": ("ENOENT", "done"),
    "open('/proc/meminfo')": ("ENOENT", "done"),
    # Root's own group is exempt.
    "as_wxd(lambda: open('/proc/BUS/status'))": ("ENOENT", "done"),
    "os.kill(BUS, 0)": ("EPERM", "done"),
    "os.open('/dev/null', os.O_RDWR)": ("done", "done"),
    "os.open('/dev/other', os.O_WRONLY)": ("EPERM", "done"),
    "socket.socket(socket.AF_UNIX)": ("done", "done"),
    "socket.socket(socket.AF_INET)": ("EAFNOSUPPORT", "done"),
    "socket.socket(socket.AF_INET6)": ("EAFNOSUPPORT", "done"),
    "socket.socket(socket.AF_NETLINK, socket.SOCK_RAW)": ("EAFNOSUPPORT", "done"),
    "start_thread()": ("done", "done"),
    "os.chown('/tmp', -1, -1)": ("EPERM", "done"),
    "leave(lambda name: os.symlink('x', name))": ("EPERM", "done"),
    "leave(lambda name: os.link('/etc/wexd.d/mine', name))": ("EPERM", "EXDEV"),
    "leave(os.mkfifo)": ("EPERM", "done"),
    "make_setuid()": ("EPERM", "done"),
    "map_writable_code()": ("EPERM", "done"),
    "call('personality', 0xffffffff)": ("EPERM", "done"),
    "call('unshare', CLONE_NEWUTS)": ("EPERM", "done"),
    "call('ptrace', 16, 0, 0, 0)": ("EPERM", "ESRCH"),
    "call('mount', None, None, None, 0, None)": ("EPERM", "EFAULT"),
    "call('swapon', b'/nowhere', 0)": ("EPERM", "ENOENT"),
    "call('mlockall', LOCK_NOW)": ("EPERM", "done"),
    "call('clock_settime', 99, bytes(16))": ("EPERM", "EINVAL"),
    "os.chroot('/nowhere')": ("EPERM", "ENOENT"),
    "os.setpriority(os.PRIO_PROCESS, 0, 0)": ("EPERM", "done"),
    "os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(0))": ("EPERM", "EINVAL"),
    "socket.sethostname(socket.gethostname())": ("EPERM", "done"),
}


def directives(system, *, without=()):
    """The [Service] lines of the unit as it is installed."""
    text = system.path(UNIT).read_text().split("[Service]\n")[1].split("[Install]")[0]
    named = re.compile(rf"^(?:#|{'|'.join(without)})")
    return [line for line in text.splitlines() if line and not named.match(line)]


def tried(system, name, lines, attempts):
    """What comes of the attempts in a service of these lines."""
    # Arguments of systemd's own form, in which "%" and "$" are doubled; none of ours has them.
    words = " ".join(json.dumps(attempt) for attempt in attempts)
    service = ["[Service]", *lines, "Type=oneshot", "StandardOutput=truncate:/tmp/tried",
               f"ExecStart=!/usr/bin/python3 -X faulthandler {PROBE} {words}"]  # fmt: skip
    place = system.path(f"/etc/systemd/system/{name}.service")
    place.write_text("\n".join(service) + "\n")
    try:
        system.run("systemctl", "daemon-reload")
        started = system.attempt("systemctl", "start", name)
        said = system.attempt("journalctl", "--no-pager", "--unit", name, "--output=cat").stdout
        assert started.returncode == 0, said
        return json.loads(system.run("cat", "/tmp/tried"))
    finally:
        place.unlink()
        system.run("rm", "-f", "/tmp/tried")
        system.run("systemctl", "daemon-reload")


@pytest.fixture(scope="module")
def outcomes(running):
    """(within the sandbox, outside of it) of each attempt."""
    shutil.copy(pathlib.Path(__file__).parent / "probe.py", running.path(PROBE))
    running.path("/etc/dynamic/wexd").mkdir(parents=True)
    # Whatever the daemon's folders hold is in use; nothing of the probe's is.
    running.path("/etc/wexd.d/mine").write_text("<config/>")
    bus = running.run("systemctl", "show", "--value", "--property=MainPID", "dbus").strip()
    attempts = [attempt.replace("BUS", bus) for attempt in ATTEMPTS]
    own = ("ExecStart", "Type", "BusName", "Restart", "NotifyAccess", "TimeoutStart", "User", "Group")
    sandbox = directives(running, without=own)
    within = tried(running, "probe-within", sandbox, attempts)
    outside = tried(running, "probe-outside", [], attempts)
    running.path("/etc/wexd.d/mine").unlink()
    shutil.rmtree(running.path("/etc/dynamic"))
    return {
        attempt: (within[said], outside[said])
        for attempt, said in zip(ATTEMPTS, attempts, strict=True)
    }


@pytest.mark.parametrize("attempt", ATTEMPTS)
def test_the_sandbox_lets_be_done_what_the_daemon_does_and_nothing_else(outcomes, attempt):
    assert outcomes[attempt] == ATTEMPTS[attempt]


@pytest.fixture
def strict(running):
    """The daemon in a sandbox that ends whoever makes a system call that it does not let through."""
    drop_in = running.path("/etc/systemd/system/wexd.service.d/strict.conf")
    drop_in.parent.mkdir()
    drop_in.write_text("[Service]\nSystemCallErrorNumber=kill\nSystemCallFilter=sched_setattr\n")

    def renew():
        running.run("systemctl", "daemon-reload")
        running.run("systemctl", "restart", "wexd")
        wait_until(
            lambda: running.attempt("wexctl", "list").returncode == 0, "the daemon", deadline=60
        )

    renew()
    yield running
    shutil.rmtree(drop_in.parent)
    renew()


def test_no_call_of_the_daemon_is_refused(strict):
    """GLib asks whether it may set how a thread is scheduled, and does without."""
    main = strict.run("systemctl", "show", "--value", "--property=MainPID", "wexd")
    for command in (
        ("usage", "relay", "strict"), ("set", "relay", "on"), ("pulse", "relay", "10ms"),
        ("drop", "relay"), ("refresh",), ("list",),
    ):  # fmt: skip
        strict.run("wexctl", *command, user="member")
    strict.run("systemctl", "kill", "--kill-whom=main", "--signal=HUP", "wexd")
    strict.run("wexctl", "list")
    assert strict.run("systemctl", "show", "--value", "--property=MainPID", "wexd") == main
    strict.run("systemctl", "stop", "wexd")
    result = strict.run("systemctl", "show", "--value", "--property=Result", "wexd")
    assert result == "success\n"


def exposure(unit):
    shown = subprocess.run(
        ["systemd-analyze", "security", "--offline=true", "--no-pager", str(unit)],
        capture_output=True, text=True, check=False,
    ).stdout  # fmt: skip
    return float(re.search(r"Overall exposure level for wexd\.service: ([\d.]+)", shown)[1])


def test_the_unit_is_hardly_exposed(pytestconfig, tmp_path):
    run("dpkg-deb", "--extract", pytestconfig.getoption("--package"), str(tmp_path))
    unit = tmp_path / UNIT.lstrip("/")
    assert exposure(unit) <= 1.5
    # That figure takes the daemon for wxd's from the start; the one of a daemon that never leaves root:
    unit.write_text(unit.read_text().replace("User=wxd\n", "").replace("Group=wxd\n", ""))
    assert exposure(unit) <= 1.8
