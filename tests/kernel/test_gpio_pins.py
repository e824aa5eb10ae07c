"""How pins are found, taken and given back."""

import re

import pytest

import chips
from chips import BANK_A, BANK_B, LABELLED, LONG, NAMED, PLAIN
from describe import element, port
from gpio_ports import gpio_configurable, gpio_input, gpio_output, pin
from sim.bus import PortChanged

pytestmark = pytest.mark.pins

# Every way to tell a pin on every kind of chip, each on a line of its own.
WAYS = [
    (PLAIN[5], "number"), (LABELLED[5], "number"), (LABELLED[6], "alias"), (LABELLED[7], "both"),
    (NAMED[5], "number"), (NAMED[6], "alias"), (NAMED[7], "both"),
]  # fmt: skip


def assert_serves(device, signals, line, number):
    """An edge on the line reaches the bus."""
    level = 1 - line.level
    line.pull(level)
    signals.wait_for(PortChanged, port=number, input=True, state=bool(level))
    assert device.state.GetState(number) is bool(level)


def test_inputs_are_found_by_number_and_by_name(device):
    device.describe(
        "".join(gpio_input(f"in{i}", i, line, by=by) for i, (line, by) in enumerate(WAYS))
    )
    device.start()
    signals = device.signals()
    for i, (line, _) in enumerate(WAYS):
        assert line.taken
        assert_serves(device, signals, line, i)


@pytest.mark.sysfs
@pytest.mark.parametrize("line", [PLAIN[5], NAMED[5]], ids=repr)
def test_a_pin_that_is_exported_already_is_found_by_number_and_stays(device, line):
    """The files of a named one are in a folder of that name."""
    folder = line.export()
    device.describe(gpio_input("in", 0, line))
    device.start()
    assert_serves(device, device.signals(), line, 0)
    assert device.log_count("^WARNING") == 0
    device.stop()
    assert folder.exists()


def test_outputs_are_found_by_number_and_by_name(device):
    device.describe(
        "".join(gpio_output(f"out{i}", i, line, by=by) for i, (line, by) in enumerate(WAYS))
    )
    device.start()
    for i, (line, _) in enumerate(WAYS):
        device.state.SetState(i, True)
        assert line.is_output and line.level == 1
        assert sum(other.level for other, _ in WAYS) == i + 1


def test_a_named_line_of_another_driver_is_found(device):
    names = {3: "other-door"} if chips.BY_SYSFS else {3: "other-door", 5: "other-gate"}
    with chips.kernel_gpio_simulator("other", 8, names) as (base, pull):
        told = {"pin": base + 5} if chips.BY_SYSFS else {"alias": "other-gate"}
        gate = port("gate", 1, "input", "gpio", backend_inside=element("input", **told))
        device.describe(named_input("door", 0, "other-door") + gate)
        device.start()
        signals = device.signals()
        for offset, number in ((3, 0), (5, 1)):
            for level in (1, 0):
                pull(offset, level)
                signals.wait_for(PortChanged, port=number, state=bool(level))
        device.stop()


@pytest.mark.parametrize(
    "alias",
    ["nobody", "../../gpio", "gpiochip100", "", "x" * 5000],
    ids=["unknown", "path", "chip", "empty", "endless"],
)
def test_a_name_that_no_line_has_drops_only_its_port(device, alias):
    lost = port("lost", 0, "input", "gpio", backend_inside=element("input", alias=alias))
    device.expect("CRITICAL.*libugpio_port_setup.*port->optional")
    device.describe(lost + gpio_input("door", 1, PLAIN[0]))
    device.start()
    assert device.log_count(r"^WARNING: Failed to allocate pin 0/") == 1
    assert list(device.ports()) == [1]
    assert_serves(device, device.signals(), PLAIN[0], 1)


def test_a_number_that_no_line_has_drops_only_its_port(device):
    lost = port("lost", 0, "output", "gpio", backend_inside=element("output", pin=9999))
    device.expect("CRITICAL.*libugpio_port_setup.*port->optional")
    device.describe(lost + gpio_input("door", 1, PLAIN[0]))
    device.start()
    assert list(device.ports()) == [1]
    assert device.log_count(r"^WARNING: Failed to allocate pin 9999/") == 1
    assert device.log_count("Setup failed for port 0, removing from list") == 1


def test_a_pin_that_another_program_holds_drops_only_its_port(device):
    device.expect("CRITICAL.*libugpio_port_setup.*port->optional")
    device.describe(gpio_input("held", 0, PLAIN[1]) + gpio_input("door", 1, PLAIN[2]))
    with chips.line_taken_by_another_program(PLAIN[1]):
        device.start()
    told = re.escape(PLAIN[1].told)
    assert device.log_count(f"^WARNING: Failed to allocate pin {told}$") == 1
    assert list(device.ports()) == [1]
    assert_serves(device, device.signals(), PLAIN[2], 1)


def test_a_port_that_lacks_one_pin_gives_the_others_back(root_device):
    root_device.expect("CRITICAL.*libugpio_port_setup.*port->optional")
    root_device.describe(gpio_configurable("aux", 0, PLAIN[3:6], direction="input"))
    PLAIN[5].refuse_requests()
    root_device.start()
    assert root_device.ports() == {}
    assert not any(line.taken for line in PLAIN[3:6])


def test_a_refresh_finds_an_optional_port_once_its_pin_is_free(root_device):
    root_device.describe(gpio_input("spare", 0, PLAIN[1], optional="true"))
    with chips.line_taken_by_another_program(PLAIN[1]):
        root_device.start()
        assert root_device.ports() == {}
        root_device.state.RefreshIOPorts()
        assert root_device.ports() == {}
    root_device.state.RefreshIOPorts()
    assert list(root_device.ports()) == [0]
    assert_serves(root_device, root_device.signals(), PLAIN[1], 0)


@pytest.mark.parametrize("chip", [PLAIN, NAMED], ids=lambda chip: chip.label)
def test_dropped_pins_are_free_for_another_program(root_device, chip):
    lines = chip[7:10]
    root_device.describe(
        gpio_configurable("aux", 0, lines, direction="output", optional="true")
    )
    root_device.start()
    assert all(line.taken for line in lines)
    assert root_device.state.DropIOPorts(["aux"]) == ["aux"]
    assert not any(line.taken for line in lines)
    for line in lines:
        with chips.line_taken_by_another_program(line):
            pass


def test_a_dropped_port_comes_back_with_a_refresh(root_device):
    root_device.describe(
        gpio_input("spare", 0, PLAIN[7], optional="true") + gpio_input("door", 1, PLAIN[8])
    )
    root_device.start()
    signals = root_device.signals()
    for _ in range(3):
        root_device.state.DropIOPorts(["spare"])
        assert list(root_device.ports()) == [1]
        assert_serves(root_device, signals, PLAIN[8], 1)
        root_device.state.RefreshIOPorts()
        assert sorted(root_device.ports()) == [0, 1]
        assert_serves(root_device, signals, PLAIN[7], 0)
        assert_serves(root_device, signals, PLAIN[8], 1)


def test_an_edge_is_reported_once_after_drops_and_refreshes(root_device):
    root_device.describe(
        gpio_input("spare", 0, PLAIN[7], optional="true") + gpio_input("door", 1, PLAIN[8])
    )
    root_device.start()
    for _ in range(5):
        root_device.state.DropIOPorts(["spare"])
        root_device.state.RefreshIOPorts()
    signals = root_device.signals()
    for line, number in ((PLAIN[7], 0), (PLAIN[8], 1)):
        assert_serves(root_device, signals, line, number)
    signals.assert_none()


def test_drops_and_refreshes_leak_no_descriptors(root_device):
    root_device.describe(
        gpio_configurable("aux", 0, PLAIN[7:10], direction="input", optional="true")
    )
    root_device.start()
    before = root_device.descriptors
    for _ in range(50):
        root_device.state.DropIOPorts(["aux"])
        root_device.state.RefreshIOPorts()
    assert root_device.descriptors == before


@pytest.mark.parametrize("chip, by", [(PLAIN, "number"), (NAMED, "alias")], ids=["plain", "named"])
def test_a_chip_vanishes_and_returns(root_device, chip, by):
    line = chip[10]
    root_device.describe(
        gpio_input("spare", 0, line, by=by, optional="true")
        + gpio_input("door", 1, LABELLED[0])
        + gpio_output("relay", 2, chip[11], by=by, optional="true")
    )
    root_device.start()
    signals = root_device.signals()
    chip.unplug()
    assert_serves(root_device, signals, LABELLED[0], 1)
    root_device.state.DropIOPorts(["spare", "relay"])
    root_device.state.RefreshIOPorts()
    assert list(root_device.ports()) == [1]
    chip.plug()
    root_device.state.RefreshIOPorts()
    assert sorted(root_device.ports()) == [0, 1, 2]
    assert_serves(root_device, signals, line, 0)
    assert_serves(root_device, signals, LABELLED[0], 1)
    root_device.state.SetState(2, True)
    assert chip[11].level == 1


def test_a_vanished_chip_does_not_keep_the_daemon_busy(device):
    device.describe(gpio_input("spare", 0, PLAIN[10]) + gpio_input("door", 1, LABELLED[0]))
    device.start()
    signals = device.signals()

    def cost():
        before = device.cpu_s
        for _ in range(50):
            assert_serves(device, signals, LABELLED[0], 1)
        return device.cpu_s - before

    usual = cost()
    PLAIN.unplug()
    assert_serves(device, signals, LABELLED[0], 1)
    assert cost() < 2 * usual
    assert len(device.log) < 50


@pytest.mark.sysfs
def test_a_pin_that_was_exported_already_is_used_and_left(root_device):
    PLAIN[12].export()
    root_device.describe(gpio_input("door", 0, PLAIN[12], optional="true"))
    root_device.start()
    assert_serves(root_device, root_device.signals(), PLAIN[12], 0)
    root_device.state.DropIOPorts(["door"])
    assert PLAIN[12].taken
    root_device.state.RefreshIOPorts()
    assert_serves(root_device, root_device.signals(), PLAIN[12], 0)
    root_device.stop()
    assert PLAIN[12].taken


def test_the_end_of_the_daemon_gives_all_pins_back(root_device):
    lines = [*PLAIN[0:3], NAMED[0], LABELLED[0]]
    root_device.describe(
        gpio_configurable("aux", 0, lines[:3], direction="input")
        + gpio_input("door", 1, lines[3], by="alias")
        + gpio_output("relay", 2, lines[4], by="alias")
    )
    root_device.start()
    assert all(line.taken for line in lines)
    root_device.stop()
    assert not any(line.taken for line in lines)


def test_the_next_life_serves_the_same_pins(device):
    """The daemon's own user may not unexport, so exported ones stay so when it ends."""
    device.describe(
        gpio_input("door", 0, NAMED[1], by="alias", inverted="true")
        + gpio_output("relay", 1, PLAIN[14], inverted="true")
    )
    device.start()
    device.state.SetState(1, True)
    device.restart()
    signals = device.signals()
    NAMED[1].pull(1)
    signals.wait_for(PortChanged, port=0, state=False)
    device.state.SetState(1, True)
    assert PLAIN[14].level == 0


def test_a_second_pin_of_the_same_line_is_refused_or_shared_without_harm(device):
    if not chips.BY_SYSFS:
        device.expect("CRITICAL.*libugpio_port_setup.*port->optional")
    device.describe(gpio_input("door", 0, PLAIN[15]) + gpio_input("gate", 1, PLAIN[15]))
    device.start()
    signals = device.signals()
    PLAIN[15].pull(1)
    for number in device.ports():
        signals.wait_for(PortChanged, port=number, state=True)


def test_io_ctrl_without_its_pins_drops_the_port(device):
    device.expect("CRITICAL.*libugpio_port_setup.*port->optional")
    device.describe(
        port("aux", 0, "io_ctrl", "gpio", backend_inside=pin("input", PLAIN[0]))
        + gpio_input("door", 1, PLAIN[1])
    )
    device.start()
    assert list(device.ports()) == [1]


# How the kernel's character devices tell a line.
PLACE = r"\d+ of /dev/gpiochip\d+"
LONG_LABEL = "a-chip-with-a-label-longer-than-31-characters"


def named_input(name, number, alias):
    return port(name, number, "input", "gpio", backend_inside=element("input", alias=alias))


@pytest.mark.parametrize("label", ["twin", LONG_LABEL])
def test_lines_of_chips_that_look_alike_are_found(device, label):
    with (
        chips.kernel_gpio_simulator(label, 8, {3: "left-door"}, "left") as (_, pull_left),
        chips.kernel_gpio_simulator(label, 8, {3: "right-door"}, "right") as (_, pull_right),
    ):
        device.describe(named_input("left", 0, "left-door") + named_input("right", 1, "right-door"))
        device.start()
        signals = device.signals()
        for number, pull in ((0, pull_left), (1, pull_right)):
            for level in (1, 0):
                pull(3, level)
                signals.wait_for(PortChanged, port=number, state=bool(level))
        signals.assert_none()
        device.stop()


def test_a_name_on_two_chips_is_refused_with_both(device):
    device.expect("CRITICAL.*libugpio_port_setup.*port->optional")
    with (
        chips.kernel_gpio_simulator("twin", 8, {3: "door"}, "left") as (left, _),
        chips.kernel_gpio_simulator("twin", 8, {5: "door"}, "right") as (right, _),
    ):
        device.describe(named_input("door", 0, "door") + gpio_input("gate", 1, PLAIN[0]))
        device.start()
        assert list(device.ports()) == [1]
        if chips.BY_SYSFS:
            both = " or ".join(map(str, sorted((left + 3, right + 5))))
            told = f"pin {both}: describe the one that is meant by number$"
        else:
            told = f"line {PLACE} or line {PLACE}: only a name that no other line has can tell a pin$"
        assert device.log_count(f"^WARNING: Line 'door' may be {told}") == 1
        device.stop()


@pytest.mark.sysfs
@pytest.mark.parametrize("line", [BANK_A[3], BANK_B[3]], ids=repr)
def test_a_name_on_a_bank_that_cannot_be_told_is_refused_with_both(device, line):
    device.expect("CRITICAL.*libugpio_port_setup.*port->optional")
    device.describe(gpio_output("lock", 0, line, by="alias") + gpio_input("gate", 1, PLAIN[0]))
    device.start()
    assert list(device.ports()) == [1]
    told = f"^WARNING: Line '{line.alias}' may be pin 603 or 635: "
    assert device.log_count(told) == 1
    assert not any(other.driven_levels for other in (*BANK_A.lines, *BANK_B.lines))


@pytest.mark.parametrize("by", ["alias", "number", "both"])
def test_a_line_with_a_longer_name_than_the_kernel_tells_is_found(root_device, by):
    line = LONG[4]
    root_device.describe(gpio_input("door", 0, line, by=by, optional="true"))
    root_device.start()
    for _ in range(2):
        assert_serves(root_device, root_device.signals(), line, 0)
        root_device.state.DropIOPorts(["door"])
        root_device.state.RefreshIOPorts()
    assert line.taken


def test_longer_names_that_differ_behind_what_the_kernel_tells_are_refused(device):
    device.expect("CRITICAL.*libugpio_port_setup.*port->optional")
    common = "a-name-that-goes-on-for-31-chars"
    names = {1: f"{common}-left", 2: f"{common}-right", 3: f"{common[:-3]}"}
    with chips.kernel_gpio_simulator("other", 8, names) as (base, pull):
        device.describe(named_input("left", 0, names[1]) + named_input("short", 1, names[3]))
        device.start()
        assert list(device.ports()) == [1]
        both = f"pin {base + 1} or {base + 2}" if chips.BY_SYSFS else f"line {PLACE} or line {PLACE}"
        assert device.log_count(f"may be {both}: ") == 1
        pull(3, 1)
        device.signals()
        assert device.state.GetState(1) is True
        device.stop()
