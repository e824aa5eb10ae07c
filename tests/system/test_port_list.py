"""Which ports are in service: duplicates, failures, dropped and refreshed ones, default names."""

import pytest
from describe import failing, port, sysfs_input

from sim.bus import BusError, PortChanged

IN, OTHER = "/sys/in", "/sys/other"


def names(device):
    return [entry.name for entry in device.port_list()]


def test_of_two_ports_with_one_number_the_newest_stays(device):
    device.describe(port("first", 0) + port("second", 0) + port("third", 0))
    device.start()
    assert names(device) == ["third"]
    assert device.state.GetNbrPorts() == (0, 1)


def test_a_duplicate_is_judged_by_its_own_number_whatever_it_is(device):
    """The port in service makes the other a duplicate when it is addressable, not the other way."""
    device.describe(port("plain", 0, properties="") + port("io", 0))
    device.start()
    assert names(device) == ["io"]


def test_a_port_that_is_not_addressable_makes_no_duplicates(device):
    device.describe(port("io", 0, output_name="IO") + port("plain", 0, properties=""))
    device.start()
    assert names(device) == ["plain", "io"]
    assert device.state.GetNames(0) == ("", "IO")


@pytest.mark.parametrize("properties", ["virtual", "virtual ioport"])
def test_a_virtual_port_makes_duplicates_too(device, properties):
    device.describe(port("io", 0) + port("v", 0, backend="virtual", properties=properties))
    device.start()
    assert names(device) == ["v"]


def test_a_failed_port_makes_room_for_the_next_of_its_number(device):
    device.describe(port("spare", 0) + failing("broken", 0))
    device.start()
    assert names(device) == ["spare"]


def test_a_port_that_fails_its_set_up_is_removed_with_a_message(device):
    device.describe(failing("broken", 3) + port("good", 0))
    device.start()
    assert names(device) == ["good"]
    assert device.log_count(r"^USER: Setup failed for port 3, removing from list$") == 1


@pytest.mark.parametrize("value", ["ok", "Fail", "fail ", ""])
def test_only_the_exact_word_makes_a_check_port_fail(device, value):
    device.describe(port("a", 0, backend_attributes={"setup": value}))
    device.start()
    assert names(device) == ["a"]


def test_an_optional_port_that_fails_waits_silently(device):
    device.describe(failing("absent", 0, optional="true") + port("good", 1))
    device.start()
    assert names(device) == ["good"]
    assert device.log_count("Setup failed") == 0
    with pytest.raises(BusError, match="No such port."):
        device.state.GetState(0)
    assert device.state.GetNbrPorts() == (0, 1)


def test_a_waiting_port_comes_into_service_when_its_hardware_is_there(device):
    device.describe(sysfs_input("late", 0, IN, optional="true") + port("good", 1))
    device.start()
    device.state.RefreshIOPorts()
    assert names(device) == ["good"]
    assert device.log_count("Failed to open") == 0, "silent for an optional port"

    device.write(IN, "0\n").chmod(0o666)
    changes = device.signals()
    device.state.RefreshIOPorts()
    assert names(device) == ["late", "good"]
    device.poke(IN, "1\n")
    changes.wait_for(PortChanged, port=0, state=True)


def test_a_waiting_port_keeps_waiting_while_its_number_is_taken(device):
    device.describe(
        port("out", 0, optional="true") + sysfs_input("in", 0, IN, optional="true")
    )
    device.start()
    assert names(device) == ["out"], "the input's file is missing"
    device.write(IN, "0\n").chmod(0o666)
    device.state.RefreshIOPorts()
    assert names(device) == ["out"]
    assert device.state.DropIOPorts(["out"]) == ["out"]
    device.state.RefreshIOPorts()
    assert len(names(device)) == 1, "one of the two, never both"


def test_a_waiting_port_does_not_wait_for_a_port_that_is_not_addressable(device):
    device.describe(port("io", 0, optional="true") + port("plain", 0, properties=""))
    device.start()
    assert names(device) == ["plain", "io"]
    device.state.DropIOPorts(["io"])
    device.state.RefreshIOPorts()
    assert names(device) == ["io", "plain"]


def test_dropping_answers_what_was_dropped_in_the_order_asked(device):
    device.describe("".join(port(name, n, optional="true") for n, name in enumerate("abc")))
    device.start()
    assert device.state.DropIOPorts(["c", "nothing", "a", "c"]) == ["c", "a"]
    assert names(device) == ["b"]
    device.state.RefreshIOPorts()
    assert sorted(names(device)) == ["a", "b", "c"]


@pytest.mark.parametrize(
    "asked",
    [
        pytest.param([], id="no name"),
        pytest.param(["a"], id="a port that is not optional"),
        pytest.param(["b", "", "A"], id="unknown names"),
    ],
)
def test_dropping_nothing_answers_an_empty_list(device, asked):
    device.describe(port("a", 0) + port("True", 1, optional="True"))
    device.start()
    assert device.state.DropIOPorts(asked) == []
    assert names(device) == ["True", "a"]


def test_only_the_exact_word_makes_a_port_optional(device):
    device.describe(port("a", 0, optional="True") + port("b", 1, optional="1"))
    device.start()
    assert device.state.DropIOPorts(["a", "b"]) == []


def test_refreshing_without_waiting_ports_changes_nothing(device):
    device.describe(port("a", 0))
    device.start()
    changes = device.signals()
    device.state.RefreshIOPorts()
    changes.assert_none()
    assert names(device) == ["a"]


def test_a_dropped_port_is_gone_and_comes_back_as_described(device):
    device.write(IN, "1\n").chmod(0o666)
    device.describe(sysfs_input("in", 0, IN, inverted="true", optional="true", input_name="In"))
    device.start()
    before = device.port_list()
    for _ in range(3):
        assert device.state.DropIOPorts(["in"]) == ["in"]
        with pytest.raises(BusError, match="No such port."):
            device.state.GetState(0)
        assert device.state.GetNbrPorts() == (0, 0)
        changes = device.signals()
        device.poke(IN, "0\n")
        device.state.RefreshIOPorts()
        changes.wait_for(PortChanged, port=0, state=True)
        device.poke(IN, "1\n")
        changes.wait_for(PortChanged, port=0, state=False)
        changes.close()
        assert device.port_list() == before
    assert device.state.GetNames(0) == ("In", "")


def test_a_check_port_that_fails_keeps_failing_however_often_it_is_refreshed(device):
    device.describe(failing("bad", 0, optional="true"))
    device.start()
    for _ in range(3):
        device.state.RefreshIOPorts()
        assert names(device) == []


def test_settings_made_before_a_drop_hold_after_the_refresh(device):
    device.describe(port("a", 0, "io_ctrl", optional="true", dir="output"))
    device.start()
    device.state.SetName(0, False, "Gate")
    device.state.SetActive(0, True, "open")
    device.state.SetUsage(0, "gate")
    device.state.DropIOPorts(["a"])
    device.state.RefreshIOPorts()
    assert device.state.GetNames(0)[1] == "Gate"
    assert device.state.GetActive(0) == ("open", "closed")
    assert device.state.GetUsage(0) == "gate"


@pytest.mark.parametrize("victim", [pytest.param("in", id="itself"), pytest.param("x", id="another")])
def test_drops_and_refreshes_leave_exactly_one_poll_timer(device, victim):
    """Each poll of a bad value leaves a line in the log, so two ports' polls can be compared."""
    for path in (IN, OTHER):
        device.write(path, "2\n").chmod(0o666)
    device.describe(
        sysfs_input("reference", 0, OTHER, timeout=20, optional="true")
        + sysfs_input("in", 1, IN, timeout=20, optional="true")
        + port("x", 2, optional="true")
    )
    device.start()
    for _ in range(4):
        assert device.state.DropIOPorts([victim]) == [victim]
        device.state.RefreshIOPorts()
    # Only now is the reference set up freshly, so it has the one timer of its set-up.
    device.state.DropIOPorts(["reference"])
    device.state.RefreshIOPorts()

    seen = {path: device.log_count(f"reading: {path}$") for path in (IN, OTHER)}
    device.wait_for_log(f"reading: {OTHER}$", count=seen[OTHER] + 25)
    polls = device.log_count(f"reading: {IN}$") - seen[IN]
    reference = device.log_count(f"reading: {OTHER}$") - seen[OTHER]
    assert abs(polls - reference) <= 3, f"{polls} polls against {reference}"


def test_a_flip_is_told_once_after_many_drops_and_refreshes(device):
    for path in (IN, OTHER):
        device.write(path, "0\n").chmod(0o666)
    device.describe(sysfs_input("in", 0, IN, optional="true") + sysfs_input("marker", 1, OTHER))
    device.start()
    for _ in range(5):
        device.state.DropIOPorts(["in"])
        device.state.RefreshIOPorts()
    changes = device.signals()
    device.poke(IN, "1\n")
    changes.wait_for(PortChanged, port=0, state=True)
    for marker in ("1\n", "0\n", "1\n"):  # the marker is polled as often as the port
        device.poke(OTHER, marker)
        changes.wait_for(PortChanged, port=1)
    changes.assert_none(PortChanged, port=0)


def test_lookup_takes_the_oldest_of_the_ports_with_a_number(device):
    """One addressable port keeps its number; others of that number are passed over."""
    device.describe(
        port("io", 0, output_name="IO")
        + port("plain", 0, properties="", output_name="Plain")
        + port("other", 0, properties={"ioport": "false"}, output_name="Other")
    )
    device.start()
    assert device.state.GetNames(0) == ("", "IO")


def test_default_names_count_from_one(device):
    device.describe(port("i", 0, "input") + port("o", 1, "output") + port("b", 2, "io_ctrl"))
    device.start()
    assert device.state.GetNames(0) == ("Port 1", "")
    assert device.state.GetNames(1) == ("", "Port 2")
    assert device.state.GetNames(2) == ("Port 3", "Port 3")


@pytest.mark.parametrize(
    "kind, expected",
    [
        pytest.param("input", ("PIR sensor", ""), id="input"),
        pytest.param("output", ("", "Port 1"), id="output"),
        pytest.param("io_ctrl", ("PIR sensor", "Port 1"), id="configurable"),
    ],
)
def test_the_motion_detector_has_a_default_name_of_its_own(device, kind, expected):
    device.describe(port("pir_detector", 0, kind))
    device.start()
    assert device.state.GetNames(0) == expected


def test_described_names_are_kept(device):
    device.describe(port("b", 0, "io_ctrl", input_name="In") + port("o", 1, output_name="Out"))
    device.start()
    assert device.state.GetNames(0) == ("In", "Port 1")
    assert device.state.GetNames(1) == ("", "Out")


def test_a_number_that_is_not_below_the_count_of_ports_gets_no_default_name(device):
    device.describe(port("a", 0) + port("b", 1) + port("c", 3))
    device.start()
    assert device.state.GetNames(1) == ("", "Port 2")
    assert device.state.GetNames(3) == ("", "")


def test_ports_that_fail_later_count_for_default_names(device):
    """Names are given before the ports are set up."""
    device.describe(port("a", 0) + port("c", 2) + failing("bad", 7))
    device.start()
    assert device.state.GetNames(2) == ("", "Port 3")


def test_a_read_only_port_gets_no_default_name(device):
    device.describe(port("a", 0, properties="ioport readonly_Name") + port("b", 1))
    device.start()
    assert device.state.GetNames(0) == ("", "")


def test_a_port_neither_io_nor_virtual_gets_no_default_name_and_is_not_saved(device):
    device.describe(port("plain", 0, properties="") + port("a", 1))
    device.start()
    assert names(device) == ["a", "plain"]
    assert list(device.saved) == ["a"]


def test_a_virtual_port_gets_a_default_name_but_is_not_saved_at_the_start(device):
    device.describe(port("v", 0, backend="virtual", properties="virtual") + port("a", 1))
    device.start()
    assert list(device.saved) == ["a"]
    device.state.SetVirtual(0, True)
    device.sync()
    assert device.saved["v"]["output_name"] == "Port 1"


def test_hundreds_of_ports_are_served_and_saved(device):
    count = 300
    device.describe("".join(port(f"p{number}", number) for number in range(count)))
    device.start()
    assert device.state.GetNbrPorts() == (0, count)
    assert [entry.number for entry in device.port_list()] == list(reversed(range(count)))
    assert device.state.GetNames(count - 1) == ("", f"Port {count}")
    assert list(device.saved) == [f"p{number}" for number in reversed(range(count))]
