"""`wexctl stop`: what stops a sequence, in which state the port is left, and what it refuses."""

import pytest
from client import done
from describe import port

from sim.bus import ActionSequenceDone, PortChanged

LONG = 2_000_000  # milliseconds


@pytest.fixture
def daemon(device):
    device.describe(
        port("door", 0, "input") + port("siren", 1) + port("locked", 2, properties="ioport readonly")
    )
    return device.start()


def blink(daemon, number):
    """Starts a sequence that is on for long, and returns what the daemon says from there."""
    signals = daemon.signals()
    daemon.state.StartActionSequence(number, False, [(True, LONG), (False, LONG)])
    signals.wait_for(PortChanged, port=number, state=True)
    return signals


@pytest.mark.parametrize("name, number", [("siren", 1), ("locked", 2)])
@pytest.mark.parametrize("state, turns", [((), 0), (("on",), 0), (("off",), 1)])
def test_the_line_turns_only_where_another_state_is_asked_for(
    daemon, wexctl, name, number, state, turns
):
    signals = blink(daemon, number)
    result = done(wexctl("stop", name, *state))
    assert result.out == ""
    said = signals.take()
    assert said[0] == ActionSequenceDone(number)
    assert [change.state for change in said[1:]] == [False] * turns
    assert daemon.state.GetState(number) is (turns == 0)


def test_without_a_sequence_only_the_state_counts(daemon, wexctl):
    done(wexctl("stop", "siren"))
    assert daemon.state.GetState(1) is False
    done(wexctl("stop", "siren", "on"))
    assert daemon.state.GetState(1) is True


@pytest.mark.parametrize(
    "arguments, status, error",
    [
        (("siren", "maybe"), 2, "'maybe' is neither on nor off"),
        (("siren", ""), 2, "'' is neither on nor off"),
        (("", "on"), 2, "PORT is empty"),
        (("nobody",), 1, "no port is called 'nobody'"),
        (("7",), 1, "No such port. (com.norv.IOControl.Error.No_port)"),
        (("7", "on"), 1, "no port has number 7"),
    ],
)
def test_what_makes_no_sense_stops_nothing(daemon, wexctl, arguments, status, error):
    signals = blink(daemon, 1)
    result = wexctl("stop", *arguments)
    assert (result.status, result.out, result.err) == (status, "", f"wexctl: {error}\n")
    assert signals.take() == []


def test_an_input_takes_no_state_and_its_sequence_runs_on(daemon, wexctl):
    signals = daemon.signals()
    daemon.state.StartActionSequence(0, True, [(True, LONG)])
    signals.wait_for(PortChanged, port=0)
    result = wexctl("stop", "door", "off")
    assert (result.status, result.err) == (1, "wexctl: port 0 is an input\n")
    assert signals.take() == []
    done(wexctl("stop", "door"))
    assert signals.take() == [ActionSequenceDone(0)]
