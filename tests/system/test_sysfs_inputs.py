"""Inputs that are polled from files: what each text means, latched flags, failures."""

import re

import pytest
from describe import element, port, sysfs_input

from sim.bus import PortChanged

IN, MARKER = "/sys/class/inputs/in", "/sys/class/inputs/marker"


def ready(device, text="0\n", *, timeout=10, **options):
    """Starts a device with an input on a file and a second one that marks the passing of polls."""
    device.write(IN, text).chmod(0o666)
    device.write(MARKER, "0\n")
    device.describe(
        sysfs_input("in", 0, IN, timeout=timeout, **options) + sysfs_input("marker", 1, MARKER)
    )
    device.start()
    return device.signals()


def pass_polls(device, changes):
    """Returns when every input has been polled some more times."""
    for _ in range(3):
        level = "1\n" if device.read(MARKER) == "0\n" else "0\n"
        device.poke(MARKER, level)
        changes.wait_for(PortChanged, port=1, state=level == "1\n")


def test_a_flip_is_told_once_each_way(device):
    changes = ready(device)
    for text, state in (("1\n", True), ("0\n", False), ("1\n", True)):
        device.poke(IN, text)
        change = changes.wait_for(PortChanged, port=0)
        assert change == PortChanged(0, False, False, True, False, state, False)
        assert device.state.GetState(0) is state
        pass_polls(device, changes)
        changes.assert_none(PortChanged, port=0)


@pytest.mark.parametrize(
    "text, inverted, state",
    [
        pytest.param("1\n", None, True, id="1"),
        pytest.param("0\n", None, False, id="0"),
        pytest.param("1", None, True, id="without a newline"),
        pytest.param("  1 and more\n", None, True, id="blanks and text around"),
        pytest.param("", None, False, id="empty"),
        pytest.param("on\n", None, False, id="no number"),
        pytest.param("1\n", "true", False, id="inverted 1"),
        pytest.param("0\n", "true", True, id="inverted 0"),
        pytest.param("0\n", "True", False, id="inverted needs the exact word"),
        pytest.param("1" + " " * 200, None, True, id="a long text"),
    ],
)
def test_texts_and_what_they_read_as(device, text, inverted, state):
    changes = ready(device, text, inverted=inverted)
    pass_polls(device, changes)
    assert device.state.GetState(0) is state


@pytest.mark.parametrize(
    "text, inverted", [("1\n", None), ("0\n", "true")], ids=["one", "inverted zero"]
)
def test_a_first_reading_of_1_is_a_change(device, text, inverted):
    changes = device.signals()
    device.write(IN, text)
    device.describe(sysfs_input("in", 0, IN, timeout=300, inverted=inverted))
    device.start()
    changes.wait_for(PortChanged, port=0, state=True)


@pytest.mark.parametrize(
    "text, number",
    [
        pytest.param("2\n", 2, id="2"),
        pytest.param("-1\n", -1, id="minus 1"),
        pytest.param("10\n", 10, id="10"),
        pytest.param("2147483647\n", 2147483647, id="a large number"),
    ],
)
@pytest.mark.parametrize("inverted", [None, "true"], ids=["plain", "inverted"])
def test_an_unexpected_number_is_warned_of_and_reads_as_0(device, text, number, inverted):
    changes = ready(device, text, inverted=inverted)
    pass_polls(device, changes)
    assert device.log_count(rf"^WARNING: Unexpected value: {number} when reading: {IN}$") >= 2
    assert device.state.GetState(0) is (inverted == "true")


def test_a_number_out_of_range_is_told_as_a_format_problem(device):
    changes = ready(device, "99999999999999999999\n")
    pass_polls(device, changes)
    told = rf"Unexpected format when parsing input when reading: {re.escape(IN)}! : .+"
    assert device.log_count(told) >= 2
    assert device.state.GetState(0) is False


@pytest.mark.parametrize("inverted", [None, "true"], ids=["plain", "inverted"])
def test_a_failed_reading_is_warned_of_and_is_0_even_if_inverted(device, inverted):
    """A folder can be opened like a file, but not read."""
    device.path(IN).mkdir(parents=True)
    device.write(MARKER, "0\n")
    device.describe(
        sysfs_input("in", 0, IN, inverted=inverted) + sysfs_input("marker", 1, MARKER)
    )
    device.start()
    changes = device.signals()
    pass_polls(device, changes)
    told = rf"^WARNING: Error failed to read {re.escape(IN)}! : Is a directory$"
    assert device.log_count(told) >= 2
    assert device.state.GetState(0) is False


def test_a_latched_flag_is_cleared_and_told_as_a_pulse(device):
    changes = ready(device, clear_flag="true")
    device.poke(IN, "1\n")
    changes.wait_for(PortChanged, port=0, state=True)
    changes.wait_for(PortChanged, port=0, state=False)
    assert device.read(IN) == "0\n"
    pass_polls(device, changes)
    changes.assert_none(PortChanged, port=0)


def test_an_inverted_latched_flag_is_cleared_and_told_inverted(device):
    changes = ready(device, clear_flag="true", inverted="true")
    pass_polls(device, changes)
    changes.take()
    device.poke(IN, "1\n")
    changes.wait_for(PortChanged, port=0, state=False)
    changes.wait_for(PortChanged, port=0, state=True)
    assert device.read(IN) == "0\n"


@pytest.mark.parametrize("clear_flag", [None, "false", "True", "1"])
def test_only_the_exact_word_clears_a_flag(device, clear_flag):
    changes = ready(device, "1\n", clear_flag=clear_flag)
    pass_polls(device, changes)
    assert device.read(IN) == "1\n"
    assert device.state.GetState(0) is True


def test_a_file_that_may_not_be_written_fails_only_with_a_flag_to_clear(ordinary_device):
    device = ordinary_device
    device.write(IN, "0\n").chmod(0o444)
    device.describe(
        sysfs_input("plain", 0, IN) + sysfs_input("latched", 1, IN, clear_flag="true")
    )
    device.start()
    assert [entry.name for entry in device.port_list()] == ["plain"]
    assert device.log_count(rf"Failed to open {re.escape(IN)}: Permission denied$") == 1
    assert device.log_count(r"^USER: Setup failed for port 1, removing from list$") == 1


def test_a_missing_file_fails_the_port_with_its_name(device):
    device.describe(sysfs_input("in", 4, "/sys/none") + port("out", 0))
    device.start()
    assert [entry.name for entry in device.port_list()] == ["out"]
    assert device.log_count(r"Failed to open /sys/none: No such file or directory$") == 1
    assert device.log_count(r"^USER: Setup failed for port 4, removing from list$") == 1


def test_a_missing_file_of_an_optional_port_is_passed_over_in_silence(device):
    device.describe(sysfs_input("in", 0, "/sys/none", optional="true"))
    device.start()
    assert device.port_list() == []
    assert device.log_count("/sys/none") == 0
    assert device.log_count("Setup failed") == 0


def test_without_an_interval_the_file_is_polled_all_the_time_and_clients_are_still_served(device):
    changes = ready(device, timeout=None)
    for text, state in (("1\n", True), ("0\n", False)) * 3:
        device.poke(IN, text)
        changes.wait_for(PortChanged, port=0, state=state)
        assert device.state.GetState(0) is state


@pytest.mark.parametrize(
    "text", [pytest.param("0x14", id="hexadecimal"), pytest.param("024", id="octal")]
)
def test_the_interval_may_have_any_base(device, text):
    """Both are 20 ms; read as decimal they would be 0 or 24, so only the pace tells: compare."""
    device.write(IN, "2\n")
    device.write(MARKER, "2\n")
    device.describe(
        sysfs_input("in", 0, IN, timeout=text) + sysfs_input("marker", 1, MARKER, timeout=20)
    )
    device.start()
    device.wait_for_log(f"reading: {MARKER}$", count=40)
    polls, reference = device.log_count(f"reading: {IN}$"), device.log_count(f"reading: {MARKER}$")
    assert abs(polls - reference) <= 4, f"{polls} polls against {reference}"


def test_the_last_path_wins_and_unknown_attributes_are_ignored(device):
    device.write(IN, "1\n")
    device.write(MARKER, "0\n")
    inside = (
        element("device", path="/sys/none", nonsense="x")
        + element("device", path=IN, timeout=10)
    )
    device.describe(
        port("in", 0, "input", "sysfs", backend_inside=inside) + sysfs_input("marker", 1, MARKER)
    )
    device.start()
    pass_polls(device, device.signals())
    assert device.state.GetState(0) is True
    assert device.log_count("Could not parse backend data!") == 0


def test_an_unknown_element_within_the_backend_is_warned_of_per_attribute(device):
    device.write(IN, "0\n")
    inside = element("gadget", a=1, b=2) + element("device", path=IN, timeout=10)
    device.describe(port("in", 0, "input", "sysfs", backend_inside=inside))
    device.start()
    assert device.log_count(r"^WARNING: Could not parse backend data!$") == 2
    assert [entry.name for entry in device.port_list()] == ["in"]


@pytest.mark.parametrize("kind", ["output", "io_ctrl"])
def test_any_kind_but_an_input_is_a_programming_error(device, kind):
    device.expect(r"port->type == PORT_INPUT")
    device.write(IN, "0\n")
    device.describe(
        port("out", 0, kind, "sysfs", backend_inside=element("device", path=IN, timeout=10))
    )
    device.start(ready=False)
    device.wait_exit(128 + 6)


def test_an_input_turned_active_low_reports_the_inverse(device):
    changes = ready(device)
    device.state.SetActive(0, True, "open")
    changes.wait_for(PortChanged, port=0, state=True, activelow=True)
    device.poke(IN, "1\n")
    changes.wait_for(PortChanged, port=0, state=False, activelow=True)
