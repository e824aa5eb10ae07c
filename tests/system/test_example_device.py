"""The example device of scripts/run: its table, its story, and following its changes."""

import contextlib
import os
import pty
import re
import signal
import subprocess
import sys
import time

import pytest
from conftest import TOP

STEPS = 14


def command(binary, *options):
    return [sys.executable, "-m", "sim", "--binary", str(binary), *options]


@pytest.mark.parametrize("options", [("--scenario",), ()], ids=["asked for", "no terminal"])
def test_the_story_is_told_and_happens(binary, options):
    run = subprocess.run(
        command(binary, *options), cwd=TOP, capture_output=True, text=True, timeout=60, check=False
    )
    assert run.returncode == 0, run.stdout + run.stderr
    assert run.stderr == ""
    assert run.stdout.count("✓") == STEPS
    assert "All of it happened" in run.stdout
    for name in ("door", "PIR sensor", "hidden, ioport", "ioport, readonly", "virtual"):
        assert name in run.stdout.split("✓")[0], "the table of ports"


@pytest.mark.parametrize("imposter", ["/bin/false", "/bin/true"])
def test_a_story_that_does_not_happen_fails(imposter):
    run = subprocess.run(
        command(imposter, "--scenario"), cwd=TOP, capture_output=True, text=True, timeout=60,
        check=False,
    )  # fmt: skip
    assert run.returncode == 1
    assert "The run failed" in run.stderr
    assert "All of it happened" not in run.stdout


def read_until(terminal, text, pattern, deadline=30):
    """Reads from a terminal until its text matches; returns the text so far."""
    end = time.monotonic() + deadline
    while not re.search(pattern, text):
        assert time.monotonic() < end, f"no {pattern!r} in:\n{text}"
        try:
            text += os.read(terminal, 4096).decode(errors="replace")
        except OSError as closed:  # the other end is gone
            raise AssertionError(f"no {pattern!r} in:\n{text}") from closed
    return text


def test_on_a_terminal_changes_are_followed_until_an_interrupt(binary):
    pid, terminal = pty.fork()
    if pid == 0:
        os.chdir(TOP)
        os.execv(sys.executable, command(binary))
    text = read_until(terminal, "", r"Changes, until Ctrl-C:")
    door = re.search(r"echo 1 > (\S+)", text).group(1)
    with open(door, "r+b", buffering=0) as file:
        file.write(b"1\n")
    text = read_until(terminal, text, r"port 0 door: \S*on")
    os.write(terminal, b"\x03")
    read_until(terminal, text, r"Stopped\.")
    _, status = os.waitpid(pid, 0)
    assert os.waitstatus_to_exitcode(status) == 0
    assert not os.path.exists(door), "the scratch folder is gone"
    os.close(terminal)


def inhabitants(scratch):
    """The processes that live in a sandbox of this scratch folder."""
    found = []
    for process in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError):
            with open(f"/proc/{process}/mountinfo", encoding="utf-8") as mounts:
                if scratch in mounts.read():
                    found.append(int(process))
    return found


def test_an_end_of_the_run_takes_the_daemon_along(binary):
    """Killed without a word, the run leaves neither daemon nor bus behind."""
    pid, terminal = pty.fork()
    if pid == 0:
        os.chdir(TOP)
        os.execv(sys.executable, command(binary))
    text = read_until(terminal, "", r"Changes, until Ctrl-C:")
    scratch = re.search(r"echo 1 > (/\S+?)/root/", text).group(1)
    assert len(inhabitants(scratch)) >= 4, "bus and daemon, and the first process of each"
    os.kill(pid, signal.SIGKILL)
    os.waitpid(pid, 0)
    os.close(terminal)
    end = time.monotonic() + 20
    while inhabitants(scratch):
        assert time.monotonic() < end, f"still there: {inhabitants(scratch)}"
    subprocess.run(["rm", "-r", scratch], check=True)
