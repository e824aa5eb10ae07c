"""The client in a pipe: a reader that leaves, an output that takes nothing, a daemon that goes while
it waits."""

import os
import signal
import subprocess

import pytest
from client import end
from describe import port

from sim.bus import wait_until

BROKEN = "wexctl: cannot write standard output: {}\n"
PRINTING = [("list",), ("list", "--json"), ("get", "relay"), ("--help",), ("list", "--help"),
            ("--version",), ("usage", "relay"), ("legacy", "get", "relay"), ("monitor",)]  # fmt: skip


@pytest.fixture
def daemon(device):
    device.describe(port("door", 0, "input") + port("relay", 1) + port("lamp", 2))
    return device.start()


def run(process):
    """The status and the messages of a process that ends by itself."""
    _, errors = process.communicate(timeout=30)
    return process.returncode, errors


def ended(process):
    return wait_until(lambda: process.poll() is not None, "the client's end") and process.returncode


@pytest.fixture
def no_reader():
    """The writing end of a pipe that nobody reads."""
    reader, writer = os.pipe()
    os.close(reader)
    yield writer
    os.close(writer)


@pytest.mark.parametrize("arguments", PRINTING, ids=" ".join)
def test_a_reader_that_left_ends_it_as_any_filter(daemon, wexctl, no_reader, arguments):
    process = wexctl.start(*arguments, stdout=no_reader, stderr=subprocess.PIPE)
    assert run(process) == (-signal.SIGPIPE, "")


@pytest.mark.parametrize("arguments", PRINTING, ids=" ".join)
def test_a_broken_pipe_is_told_where_the_signal_is_ignored(daemon, wexctl, no_reader, arguments):
    process = wexctl.start(
        *arguments, stdout=no_reader, stderr=subprocess.PIPE, restore_signals=False,
        preexec_fn=lambda: signal.signal(signal.SIGPIPE, signal.SIG_IGN),
    )  # fmt: skip
    assert run(process) == (5, BROKEN.format("Broken pipe"))


@pytest.mark.parametrize("arguments", PRINTING, ids=" ".join)
def test_a_full_output_is_told(daemon, wexctl, arguments):
    with open("/dev/full", "w") as full:
        process = wexctl.start(*arguments, stdout=full, stderr=subprocess.PIPE)
        assert run(process) == (5, BROKEN.format("No space left on device"))


@pytest.mark.parametrize("arguments", PRINTING, ids=" ".join)
def test_a_closed_output_is_told_and_nothing_else_is_written_to(daemon, wexctl, arguments):
    process = wexctl.start(*arguments, stderr=subprocess.PIPE, preexec_fn=lambda: os.close(1))
    assert run(process) == (5, BROKEN.format("Bad file descriptor"))


def test_who_has_nothing_to_print_needs_no_streams(daemon, wexctl):
    process = wexctl.start("set", "relay", "on", preexec_fn=lambda: os.closerange(0, 3))
    assert ended(process) == 0
    assert daemon.state.GetState(1) is True


def test_a_refusal_is_told_with_what_was_printed_before(daemon, wexctl):
    result = wexctl("drop", "relay")
    assert result.status == 1 and result.err.startswith("wexctl: some ports ")
    with open("/dev/full", "w") as full:
        process = wexctl.start("drop", "relay", "--json", stdout=full, stderr=subprocess.PIPE)
        assert run(process) == (5, BROKEN.format("No space left on device"))


@pytest.mark.parametrize("options", [(), ("--json",)], ids=["text", "json"])
def test_monitor_ends_with_its_reader_and_waits_for_no_further_line(daemon, wexctl, options):
    process = wexctl.start("monitor", *options, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert "watching" in process.stdout.readline()
    process.stdout.close()
    assert ended(process) == -signal.SIGPIPE
    assert process.stderr.read() == ""


def test_grep_ends_a_monitor(daemon, wexctl):
    monitor = wexctl.start("monitor", stdout=subprocess.PIPE)
    grep = subprocess.Popen(["grep", "-m1", "relay"], stdin=monitor.stdout, stdout=subprocess.PIPE)
    daemon.on_exit(lambda: end(grep))
    monitor.stdout.close()

    def turn():  # until the monitor has come to watch
        daemon.state.SetState(1, not daemon.state.GetState(1))
        return grep.poll() is not None

    wait_until(turn, "a match")
    assert ended(monitor) == -signal.SIGPIPE


@pytest.mark.parametrize(
    "arguments", [("run", "relay", "1:600000,0:0", "--wait"), ("pulse", "relay", "600000", "--wait")],
    ids=["run", "pulse"],
)  # fmt: skip
@pytest.mark.parametrize("how", ["stop", "kill", "restart"])
def test_waiting_ends_with_the_daemon(daemon, wexctl, arguments, how):
    process = wexctl.start(*arguments, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    wait_until(lambda: daemon.state.GetState(1), "the sequence")
    getattr(daemon, how)()
    assert run(process) == (
        3, "wexctl: wexd does not answer: it went before the sequence ended\n",
    )  # fmt: skip


def test_waiting_ends_with_the_bus(daemon, wexctl):
    process = wexctl.start("run", "relay", "1:600000", "--wait", stderr=subprocess.PIPE)
    wait_until(lambda: daemon.state.GetState(1), "the sequence")
    daemon.end_bus()
    status, errors = run(process)
    assert (status, errors.count("\n")) == (3, 1)
    daemon.wait_exit(status=1)
