"""`wexctl wait`: which states end it, what else does, and with which status."""

import signal
import subprocess
import time

import pytest
from client import done
from describe import element, port

from sim.bus import wait_until
from sim.peers import IoBox



def timed_out(awaited):
    return 4, "", f"wexctl: the time ran out before {awaited}\n"


@pytest.fixture
def device_with_box(device):
    device.box = IoBox(device, states={"5": "closed", "6": "open"})
    device.describe(
        port("door", 0, "input", "virtual")
        + port("relay", 1, optional="true")
        + port("both", 2, "io_ctrl", dir="output")
        + port("trigger", 4, properties="virtual", backend="virtual")
        + port("line", 5, "input", "iobox")
        + port("plain", 6, "input", "iobox")
        + port("hidden", 7, "input", properties="virtual")
        + element("first_virtual_input", nbr=9)
    )
    return device


@pytest.fixture
def daemon(device_with_box):
    device_with_box.start()
    device_with_box.supervision.SetSupervised(5, True)
    return device_with_box


def outcome(result):
    return result.status, result.out, result.err


def begin(wexctl, *arguments):
    return wexctl.start("wait", *arguments, stdout=subprocess.PIPE, stderr=subprocess.PIPE)


def ended_by(process, change):
    """The outcome of a wait that this ends, however long it took to begin."""

    def attempt():
        change()
        return process.poll() is not None

    wait_until(attempt, "the end of the wait")
    out, errors = process.communicate()
    return process.returncode, out, errors


@pytest.mark.parametrize(
    "arguments",
    [("relay", "off"), ("relay", "open"), ("line", "closed"), ("plain", "open"), ("1", "off"),
     ("--daemon",)],
    ids=" ".join,
)  # fmt: skip
@pytest.mark.parametrize("timeout", [(), ("--timeout", "0"), ("--timeout", "1h")], ids=" ".join)
def test_what_is_so_already_is_not_waited_for(daemon, wexctl, arguments, timeout):
    assert done(wexctl("wait", *arguments, *timeout)).out == ""


@pytest.mark.parametrize(
    "arguments, awaited",
    [
        (("relay", "on"), "port 1 was on"),
        (("relay", "closed"), "port 1 was closed"),
        (("line", "cut"), "port 5 was cut"),
        (("line", "open"), "port 5 was open"),
        (("plain", "closed"), "port 6 was closed"),
        (("relay",), "port 1 changed"),
        (("line",), "port 5 changed"),
    ],
)
@pytest.mark.parametrize("timeout", ["0", "50ms", "50", "0.05s"])
def test_the_time_runs_out(daemon, wexctl, arguments, awaited, timeout):
    begun = time.monotonic()
    assert outcome(wexctl("wait", *arguments, "--timeout", timeout)) == timed_out(awaited)
    assert timeout == "0" or time.monotonic() - begun >= 0.05


@pytest.mark.parametrize("state", ["on", "closed", None])
def test_a_state_that_has_gone_again_counts(daemon, wexctl, state):
    process = begin(wexctl, "relay", *filter(None, [state]))

    def blink():
        daemon.state.StartActionSequence(1, False, [(True, 0), (False, 0)])
        wait_until(lambda: not daemon.state.GetState(1), "the end")
        wait_free(daemon)

    assert ended_by(process, blink) == (0, "", "")


def wait_free(daemon):
    daemon.manager.StopSequence(1)


def test_the_circuit_is_told_by_the_sense(daemon, wexctl):
    daemon.state.SetActive(1, False, "open")
    assert daemon.state.GetState(1) is False
    done(wexctl("wait", "relay", "closed", "--timeout", "0"))
    process = begin(wexctl, "relay", "open")
    assert ended_by(process, lambda: daemon.state.SetState(1, True)) == (0, "", "")


@pytest.mark.parametrize("state", ["open", "short", "cut"])
def test_a_supervised_line_has_four_states(daemon, wexctl, state):
    process = begin(wexctl, "line", state)
    assert ended_by(process, lambda: daemon.box.line(5, state)) == (0, "", "")


@pytest.mark.parametrize("state, ends", [((), True), (("on",), False)])
def test_a_virtual_state_is_a_change_and_no_state(daemon, wexctl, state, ends):
    process = begin(wexctl, "relay", *state)
    if ends:
        assert ended_by(process, lambda: daemon.state.SetVirtual(1, True)) == (0, "", "")
        return
    for _ in range(20):
        daemon.state.SetVirtual(1, True)
    assert ended_by(process, lambda: daemon.state.SetState(1, True)) == (0, "", "")
    assert daemon.state.GetState(1) is True


def test_a_virtual_port_is_in_the_state_that_was_announced(daemon, wexctl):
    process = begin(wexctl, "trigger", "on")
    assert ended_by(process, lambda: daemon.state.SetVirtual(4, True)) == (0, "", "")
    done(wexctl("wait", "trigger", "on", "--timeout", "0"))


def test_a_port_that_comes_back_is_looked_at(daemon, wexctl):
    def outcome_of_a_return():
        daemon.state.SetState(1, True)
        process = begin(wexctl, "relay", "off")
        wait_until(lambda: connections(daemon) > 0, "the client on the bus")
        for _ in range(50):  # while it looks
            daemon.sync()
        daemon.state.DropIOPorts(["relay"])
        daemon.state.RefreshIOPorts()
        return ended_by(process, lambda: None)

    # One that had not looked yet finds no such port.
    too_late = (1, "", "wexctl: no port is called 'relay'\n")
    outcomes = (outcome_of_a_return() for _ in range(20))
    assert next(outcome for outcome in outcomes if outcome != too_late) == (0, "", "")


def test_the_changes_of_other_ports_end_nothing(daemon, wexctl):
    process = begin(wexctl, "relay", "--timeout", "1s")

    def turn():
        daemon.state.SetState(2, not daemon.state.GetState(2))

    assert ended_by(process, turn) == timed_out("port 1 changed")


@pytest.mark.parametrize("arguments", [("relay", "on"), ("relay",), ("line", "cut")], ids=" ".join)
@pytest.mark.parametrize("how", ["stop", "kill"])
def test_it_ends_with_the_daemon(daemon, wexctl, arguments, how):
    process = begin(wexctl, *arguments)
    # It waits, or asks and is told the same.
    wait_until(lambda: connections(daemon) > 0, "the client on the bus")
    getattr(daemon, how)()
    status, out, errors = ended_by(process, lambda: None)
    assert (status, out, errors.count("\n")) == (3, "", 1)
    assert errors.startswith("wexctl: wexd does not answer: it ")


def connections(daemon):
    """How many clients there are beside the test, the daemon and its peers."""
    names = daemon.first_client.call(
        "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ListNames"
    )
    return sum(name.startswith(":") for name in names) - daemon.before


@pytest.fixture(autouse=True)
def connections_before(daemon):
    daemon.before = 0
    daemon.before = connections(daemon)


def test_an_input_that_is_not_published_has_its_sense_only(daemon, wexctl):
    """Whether it is supervised nobody tells."""
    done(wexctl("wait", "7", "open", "--timeout", "0"))


@pytest.mark.parametrize("told", ["as changed", "as missing"])
def test_a_line_that_is_not_supervised_any_more_is_not_waited_for(daemon, wexctl, told):
    """Whatever makes the client look again: it will never be in that state."""
    process = begin(wexctl, "line", "cut")
    wait_until(lambda: connections(daemon) > 0, "the client on the bus")
    for _ in range(50):  # while it looks
        daemon.sync()
    daemon.supervision.SetSupervised(5, False)

    def look_again():
        if told == "as changed":
            daemon.state.SetVirtual(5, True)
            daemon.box.line(5, "open")
            daemon.box.line(5, "closed")
        else:
            daemon.state.DropIOPorts(["relay"])
            daemon.state.RefreshIOPorts()

    error = "wexctl: port 5 is not supervised, so it is never cut\n"
    assert ended_by(process, look_again) == (2, "", error)


@pytest.mark.parametrize(
    "arguments, status, error",
    [
        (("relay", "cut"), 2, "port 1 is not supervised, so it is never cut"),
        (("plain", "short"), 2, "port 6 is not supervised, so it is never short"),
        (("", "on"), 2, "PORT is empty"),
        (("relay", "up"), 2, "STATE: up not in {on,off,open,closed,short,cut}; see wexctl wait --help"),
        ((), 2, "PORT is required; see wexctl wait --help"),
        (("relay", "--daemon"), 2, "PORT excludes --daemon; see wexctl wait --help"),
        (("relay", "--timeout", "soon"), 2,
         "--timeout: 'soon' is no length of time: write 500ms, 2s, 1m or 1h; see wexctl wait --help"),
        (("relay", "--timeout", "-1"), 2,
         "--timeout: '-1' is no length of time: write 500ms, 2s, 1m or 1h; see wexctl wait --help"),
        (("nobody",), 1, "no port is called 'nobody'"),
        (("77", "on"), 1, "no port has number 77"),
        (("77",), 1, "no port has number 77"),
    ],
    ids=lambda value: " ".join(value) if isinstance(value, tuple) else "",
)  # fmt: skip
def test_what_makes_no_sense_is_not_waited_for(daemon, wexctl, arguments, status, error):
    assert outcome(wexctl("wait", *arguments)) == (status, "", f"wexctl: {error}\n")


def test_the_daemon_is_waited_for(daemon, wexctl):
    daemon.stop()
    assert outcome(wexctl("wait", "--daemon", "--timeout", "50ms")) == timed_out("wexd answered")
    assert outcome(wexctl("wait", "--daemon", "--timeout", "0")) == timed_out("wexd answered")
    nobody = connections(daemon)
    process = begin(wexctl, "--daemon", "--timeout", "20s")
    wait_until(lambda: connections(daemon) > nobody, "the client on the bus")
    daemon.start()
    assert ended_by(process, lambda: None) == (0, "", "")
    done(wexctl("supervised", "show"))


def test_a_daemon_that_does_not_answer_is_waited_for(daemon, wexctl):
    daemon.signal(signal.SIGSTOP)
    try:
        assert outcome(wexctl("wait", "--daemon", "--timeout", "50ms")) == timed_out("wexd answered")
        process = begin(wexctl, "--daemon")
    finally:
        daemon.signal(signal.SIGCONT)
    assert ended_by(process, lambda: None) == (0, "", "")


def test_a_port_without_a_daemon_is_not_waited_for(daemon, wexctl):
    daemon.stop()
    error = "wexctl: wexd does not answer: it is not running\n"
    assert outcome(wexctl("wait", "relay", "on")) == (3, "", error)


def test_the_end_of_the_bus_ends_it(daemon, wexctl):
    daemon.stop()
    daemon.before += connections(daemon)
    process = begin(wexctl, "--daemon")
    wait_until(lambda: connections(daemon) > 0, "the client on the bus")
    daemon.end_bus()
    status, _, errors = ended_by(process, lambda: None)
    assert (status, errors.count("\n")) == (3, 1)
