"""Inputs on pins: levels, edges, active low on either side."""

import itertools
import random
import signal
import time

import pytest

from chips import LABELLED, NAMED, PLAIN, WIDE
from describe import port
from gpio_ports import gpio_configurable, gpio_input, gpio_output, pin
from sim.bus import PortChanged, wait_until

pytestmark = pytest.mark.pins


def start(device, *ports):
    """Starts the daemon; returns the signals, with those of the start taken off."""
    device.describe("\n".join(ports))
    device.start()
    signals = device.signals()
    for entry in device.port_list():
        device.state.GetState(entry.number)
    signals.take()
    return signals


def assert_pull_is_reported(signals, line, level, number, state):
    line.pull(level)
    signals.wait_for(PortChanged, port=number, input=True, virtual_trig=False, state=state)


@pytest.mark.parametrize("level", [0, 1])
def test_an_input_reads_the_level_that_was_there_before(device, level):
    PLAIN[0].pull(level)
    start(device, gpio_input("door", 0, PLAIN[0]))
    assert device.state.GetState(0) is bool(level)


def test_both_edges_are_reported(device):
    signals = start(device, gpio_input("door", 0, PLAIN[0]))
    for level in (1, 0, 1, 0):
        assert_pull_is_reported(signals, PLAIN[0], level, 0, bool(level))
        assert device.state.GetState(0) is bool(level)


def test_whoever_asks_for_the_state_takes_no_edge_away(device):
    """Between an edge and its report the state is asked for, many times in one turn of the loop."""
    signals = start(device, gpio_input("door", 0, PLAIN[0]))
    for level in (1, 0, 1, 0):
        device.signal(signal.SIGSTOP)
        asked = [device.state.begin("GetState", 0) for _ in range(300)]
        device.signal(signal.SIGCONT)
        asked[0].wait()
        assert_pull_is_reported(signals, PLAIN[0], level, 0, bool(level))
        for call in asked:
            call.wait()


@pytest.mark.parametrize(
    "inverted, trig, flipped",
    [
        (None, "closed", False),
        ("false", "closed", False),
        ("true", "closed", True),
        (None, "open", True),
        ("true", "open", False),
    ],
)
def test_active_low_of_pin_and_port_both_invert(device, inverted, trig, flipped):
    signals = start(device, gpio_input("door", 0, PLAIN[0], inverted=inverted))
    device.state.SetActive(0, True, trig)
    assert device.state.GetState(0) is flipped
    signals.take()
    for level in (1, 0):
        assert_pull_is_reported(signals, PLAIN[0], level, 0, bool(level) != flipped)


def test_a_change_of_sense_is_reported_with_the_new_state(device):
    signals = start(device, gpio_input("door", 0, PLAIN[0]))
    PLAIN[0].pull(1)
    signals.wait_for(PortChanged, port=0, state=True, activelow=False)
    device.state.SetActive(0, True, "open")
    signals.wait_for(PortChanged, port=0, state=False, activelow=True)


@pytest.mark.sysfs
def test_the_sense_of_a_pin_is_set_only_when_described(device):
    cases = [(None, "1", "1"), ("yes", "1", "0"), ("false", "1", "0"), ("true", "0", "1")]
    ports = []
    for i, (line, (inverted, left_behind, _)) in enumerate(zip(PLAIN, cases)):
        line.export()
        (line.folder / "active_low").write_text(left_behind)
        ports.append(gpio_input(f"in{i}", i, line, inverted=inverted))
    start(device, *ports)
    for line, case in zip(PLAIN, cases):
        assert (line.folder / "active_low").read_text().strip() == case[2], case


def test_inputs_do_not_disturb_each_other(device):
    lines = WIDE.lines
    signals = start(device, *(gpio_input(f"in{i}", i, line) for i, line in enumerate(lines)))
    order = random.Random(1).sample(range(32), 32)
    for i in order:
        lines[i].pull(1)
    for i in order:
        signals.wait_for(PortChanged, port=i, state=True)
    assert [device.state.GetState(i) for i in range(32)] == [True] * 32
    lines[7].pull(0)
    signals.wait_for(PortChanged, port=7, state=False)
    signals.assert_none(PortChanged, state=False)


# The daemon reads a line three times for one report: for a vanished chip, for the level, and for
# what it has become meanwhile.
@pytest.mark.parametrize("readings", [1, 2, 3])
def test_a_level_that_changes_amid_reporting_is_reported_too(device, readings):
    line = PLAIN[2]
    signals = start(device, gpio_input("door", 0, line))
    line.flip_after_readings(readings)
    line.pull(1)
    wait_until(lambda: line.history[-1][2:] == ("pull", 0), "the line's own change")
    wait_until(lambda: signals.pending and not signals.pending[-1].state, "its report")
    assert device.state.GetState(0) is False


def test_edges_at_any_distance_leave_the_last_level_reported(device):
    line = PLAIN[3]
    signals = start(device, gpio_input("door", 0, line))
    level = 0
    for distance_us in range(0, 2000, 25):
        for _ in range(3):
            until = time.monotonic() + distance_us * 1e-6
            level = 1 - level
            line.pull(level)
            while time.monotonic() < until:
                pass
        wait_until(
            lambda: signals.pending and signals.pending[-1].state is bool(level),
            lambda: f"{level} after edges {distance_us} us apart; there were {signals.pending}",
        )
        assert device.state.GetState(0) is bool(level)


def test_a_thousand_edges_leave_the_final_state_reported(device):
    line = PLAIN[4]
    signals = start(device, gpio_input("door", 0, line))
    level = 0
    for burst in (1, 2, 3, 50, 100, 344, 500):
        for _ in range(burst):
            level = 1 - level
            line.pull(level)
        wait_until(
            lambda: signals.pending and signals.pending[-1].state is bool(level),
            f"level {level} after {burst} edges",
        )
        assert device.state.GetState(0) is bool(level)
    assert sum(event.what == "pull" for event in line.history) == 1000
    signals.take()
    assert_pull_is_reported(signals, line, 1 - level, 0, not level)


def test_edges_that_nobody_could_take_leave_the_final_state_reported(device):
    """However many of them the kernel keeps."""
    line = PLAIN[4]
    signals = start(device, gpio_input("door", 0, line))
    for burst in (1, 16, 17, 300, 301):
        device.process.send_signal(signal.SIGSTOP)
        try:
            for _ in range(burst):
                line.pull(1 - line.level)
        finally:
            device.process.send_signal(signal.SIGCONT)
        state = bool(line.level)
        wait_until(
            lambda state=state: signals.pending and signals.pending[-1].state is state,
            f"{state} after {burst} edges",
        )
        assert device.state.GetState(0) is state
        signals.take()


def test_a_thousand_single_edges_are_each_reported(device):
    line = PLAIN[5]
    signals = start(device, gpio_input("door", 0, line))
    for _, level in zip(range(1000), itertools.cycle((1, 0))):
        line.pull(level)
        signals.wait_for(PortChanged, port=0, state=bool(level))
    signals.assert_none()


def test_an_output_is_not_watched(device):
    signals = start(
        device, gpio_output("relay", 0, PLAIN[6]), gpio_input("door", 1, PLAIN[7])
    )
    PLAIN[6].pull(1)
    assert_pull_is_reported(signals, PLAIN[7], 1, 1, True)
    signals.assert_none(PortChanged, port=0)


def test_every_kind_of_port_works_side_by_side(device):
    signals = start(
        device,
        gpio_input("door", 0, PLAIN[0]),
        gpio_output("relay", 1, PLAIN[1]),
        gpio_configurable("aux", 2, PLAIN[2:5], direction="input"),
        port("lamp", 3, "output", "null"),
    )
    assert device.state.GetNbrPorts() == (2, 2)
    assert_pull_is_reported(signals, PLAIN[0], 1, 0, True)
    assert_pull_is_reported(signals, PLAIN[2], 1, 2, True)
    device.state.SetState(1, True)
    signals.wait_for(PortChanged, port=1, input=False, state=True)
    assert PLAIN[1].level == 1


def test_a_second_input_element_adds_to_the_same_pin(device):
    twice = pin("input", PLAIN[8]) + '<input inverted="true"/>'
    start(device, port("door", 0, "input", "gpio", backend_inside=twice))
    assert device.state.GetState(0) is True


def test_watched_pins_at_rest_cost_nothing(device):
    start(device, *(gpio_input(f"in{i}", i, line) for i, line in enumerate(WIDE.lines)))
    wait_until(lambda: device.passes_a_second_at_rest, "a stretch of quiet")


UNREADABLE = "^WARNING: Pin of port 0 cannot be read, trying again every 100 ms: Input/output error$"


@pytest.mark.parametrize("failing", [1, 2, 3, 5])
@pytest.mark.parametrize("level", [0, 1])
def test_a_reading_that_fails_delays_a_report_and_no_more(device, level, failing):
    line = PLAIN[0]
    line.pull(1 - level)
    signals = start(device, gpio_input("door", 0, line))
    line.fail_readings(failing)
    assert_pull_is_reported(signals, line, level, 0, bool(level))
    assert line.failing_readings == 0
    assert device.log_count(UNREADABLE) == 1
    device.wait_for_log("Pin of port 0 can be read again$")  # which comes behind the report
    for again in (1 - level, level):
        assert_pull_is_reported(signals, line, again, 0, bool(again))
    # What could not be read was never reported as a state.
    signals.assert_none()


def test_an_input_that_fails_for_long_costs_nothing_and_is_told_once(device):
    line = PLAIN[0]
    signals = start(device, gpio_input("door", 0, line))
    line.fail_readings()
    line.pull(1)
    device.wait_for_log(UNREADABLE)
    before = line.failing_readings
    used = device.cpu_s
    wait_until(lambda: before - line.failing_readings >= 20, "more attempts")
    assert device.cpu_s - used < 1
    assert device.log_count(UNREADABLE) == 1
    signals.assert_none()
    line.fail_readings(0)
    signals.wait_for(PortChanged, port=0, state=True)
    assert_pull_is_reported(signals, line, 0, 0, False)


def test_an_input_that_rests_may_be_turned_or_dropped(root_device):
    described = gpio_configurable("aux", 0, PLAIN[2:5], direction="input", optional="true")
    signals = start(root_device, described)
    PLAIN[2].fail_readings()
    PLAIN[2].pull(1)
    root_device.wait_for_log(UNREADABLE)
    root_device.state.SetDirection(0, "output")
    root_device.state.SetDirection(0, "input")
    PLAIN[2].pull(0)
    root_device.wait_for_log(UNREADABLE, count=2)
    root_device.state.DropIOPorts(["aux"])
    wait_until(lambda: root_device.passes_a_second_at_rest, "a stretch of quiet")
    PLAIN[2].fail_readings(0)
    root_device.state.RefreshIOPorts()
    signals.take()
    assert_pull_is_reported(signals, PLAIN[2], 1, 0, True)


@pytest.mark.parametrize("optional", [None, "true"])
@pytest.mark.parametrize("chip, by", [(PLAIN, "number"), (NAMED, "alias")], ids=["plain", "named"])
def test_a_refresh_takes_a_vanished_chip_again(root_device, chip, by, optional):
    line = chip[10]
    signals = start(
        root_device,
        gpio_input("gate", 0, line, by=by, optional=optional),
        gpio_input("door", 1, LABELLED[0]),
    )
    if optional is None:
        root_device.expect("CRITICAL.*libugpio_port_setup.*port->optional")
    for times in (1, 2):
        chip.unplug()
        root_device.sync()  # a daemon at rest is not told
        gone = "^WARNING: Pin of port 0 cannot be read any more, not watching it"
        root_device.wait_for_log(gone, count=times)
        root_device.state.RefreshIOPorts()
        assert sorted(root_device.ports()) == [0, 1]
        assert root_device.state.GetState(0) is False
        chip.plug()
        line.pull(1)
        root_device.state.RefreshIOPorts()
        assert root_device.state.GetState(0) is True
        signals.take()
        assert_pull_is_reported(signals, line, 0, 0, False)
        assert_pull_is_reported(signals, LABELLED[0], 1 - LABELLED[0].level, 1, LABELLED[0].level == 0)
        root_device.state.RefreshIOPorts()
        signals.take()
        assert_pull_is_reported(signals, line, 1, 0, True)
        signals.assert_none()
