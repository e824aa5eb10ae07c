"""Driving several ports in one call, turning them over, and lengths of time with units."""

import time

import pytest
from client import done
from describe import port

from sim.bus import ActionSequenceDone, PortChanged


@pytest.fixture
def daemon(device):
    device.describe(
        port("door", 0, "input")
        + port("relay", 1)
        + port("lamp", 2, output_name="Front lamp")
        + port("a=b", 3)
    )
    return device.start()


def states(daemon):
    return [daemon.state.GetState(number) for number in (1, 2, 3)]


@pytest.mark.parametrize(
    "arguments, expected",
    [
        (("relay=on", "lamp=on"), [True, True, False]),
        (("1=on", "Front lamp=off", "a=b=on"), [True, False, True]),
        (("relay=on",), [True, False, False]),
        (("a=b", "on"), [False, False, True]),
        (("relay=true", "lamp=1"), [True, True, False]),
    ],
    ids=lambda value: " ".join(map(str, value)),
)
def test_several_ports_are_set(daemon, wexctl, arguments, expected):
    done(wexctl("set", *arguments))
    assert states(daemon) == expected


def test_they_are_driven_in_order(daemon, wexctl):
    signals = daemon.signals()
    done(wexctl("set", "lamp=on", "relay=on", "a=b=on"))
    assert [change.port for change in signals.take()] == [2, 1, 3]


@pytest.mark.parametrize(
    "arguments, status, error",
    [
        (("relay=on", "nobody=on"), 1, "no port is called 'nobody'"),
        (("relay=on", "77=on"), 1, "no port has number 77"),
        (("relay=on", "door=on"), 1, "port 0 is an input"),
        (("relay=on", "lamp=maybe"), 2, "'maybe' is neither on nor off"),
        (("relay=on", "=on"), 2, "PORT is empty"),
        (("relay=on", "1=off"), 2, "port 1 is told twice"),
    ],
)
def test_a_mistake_anywhere_drives_nothing(daemon, wexctl, arguments, status, error):
    result = wexctl("set", *arguments)
    assert (result.status, result.out, result.err) == (status, "", f"wexctl: {error}\n")
    assert states(daemon) == [False] * 3


def test_ports_are_turned_over(daemon, wexctl):
    daemon.state.SetState(2, True)
    done(wexctl("toggle", "relay", "lamp"))
    assert states(daemon) == [True, False, False]
    done(wexctl("toggle", "1"))
    assert states(daemon) == [False, False, False]


@pytest.mark.parametrize(
    "arguments, status, error",
    [
        (("relay", "nobody"), 1, "no port is called 'nobody'"),
        (("relay", "door"), 1, "port 0 is an input"),
        (("relay", "77"), 1, "no port has number 77"),
        (("relay", ""), 2, "PORT is empty"),
        (("relay", "1"), 2, "port 1 is told twice"),
    ],
)
def test_a_mistake_anywhere_turns_nothing_over(daemon, wexctl, arguments, status, error):
    result = wexctl("toggle", *arguments)
    assert (result.status, result.out, result.err) == (status, "", f"wexctl: {error}\n")
    assert states(daemon) == [False] * 3


@pytest.mark.parametrize("length", ["300", "300ms", "0.3s", "0.005m"])
def test_a_pulse_lasts_as_long_as_its_unit_says(daemon, wexctl, length):
    signals = daemon.signals()
    begun = time.monotonic()
    done(wexctl("pulse", "relay", length))
    signals.wait_for(PortChanged, port=1, state=True)
    off = signals.wait_for(PortChanged, port=1, state=False)
    assert 0.3 <= off.at - begun < 10


def test_a_sequence_takes_units(daemon, wexctl):
    signals = daemon.signals()
    begun = time.monotonic()
    done(wexctl("run", "relay", "on:0.1s,off:50msx2"))
    end = signals.wait_for(ActionSequenceDone, port=1)
    assert [change.state for change in signals.take()] == [True, False] * 2
    assert 0.3 <= end.at - begun < 10


@pytest.mark.parametrize("length", ["1s5", "s", ".5s", "5.s", "1e3", "+5", " 5", "5 s", "5S",
                                  "597h", "nan", "1.2.3s", ""])  # fmt: skip
def test_what_is_no_time_is_refused(daemon, wexctl, length):
    for arguments in (("pulse", "relay", length), ("run", "relay", f"1:{length}")):
        result = wexctl(*arguments)
        assert (result.status, result.out, result.err.count("\n")) == (2, "", 1), result.err
    assert states(daemon) == [False] * 3


@pytest.mark.parametrize("times", ["ten", "", "1.5", "-1", "100001"])
def test_what_is_no_count_of_repetitions_is_refused(daemon, wexctl, times):
    result = wexctl("run", "relay", f"1:5ms,0:5msx{times}")
    assert (result.status, result.out) == (2, "")
    assert result.err.startswith(f"wexctl: '{times}' is no sequence: write ")
    assert states(daemon) == [False] * 3


def test_a_step_longer_than_the_daemon_counts_is_held(daemon, wexctl):
    """Half an hour and more told in one step would be over at once."""
    signals = daemon.signals()
    done(wexctl("pulse", "relay", "1h"))
    signals.wait_for(PortChanged, port=1, state=True)
    # A sequence that was not held has ended before one that began later.
    done(wexctl("pulse", "lamp", "300ms", "--wait"))
    signals.wait_for(ActionSequenceDone, port=2)
    signals.assert_none(ActionSequenceDone, port=1)
    done(wexctl("stop", "relay"))
