"""Pins where the kernel has no GPIO files in sysfs: lines requested on their chips' devices."""

import pytest

from chips import BANK_A, BANK_B, NAMED, PLAIN
from describe import element, port
from gpio_ports import gpio_configurable, gpio_input, gpio_output
from sim.bus import PortChanged

pytestmark = [pytest.mark.pins, pytest.mark.chardev]

CRITICAL = "CRITICAL.*libugpio_port_setup.*port->optional"


def test_lines_are_requested_in_the_daemons_name_and_given_back_at_its_end(device):
    lines = [*PLAIN[0:3], NAMED[0]]
    device.describe(
        gpio_configurable("aux", 0, lines[:3], direction="input")
        + gpio_output("relay", 1, lines[3], by="alias")
    )
    device.start()
    assert [line.consumer for line in lines] == ["wexd"] * 4
    device.state.SetState(1, True)
    device.stop()
    assert not any(line.taken for line in lines)


@pytest.mark.parametrize("number", [PLAIN[3].number, 9999])
def test_a_number_is_refused_with_the_advice_to_describe_the_pin_by_alias(device, number):
    device.expect(CRITICAL)
    lost = port("lost", 0, "output", "gpio", backend_inside=element("output", pin=number))
    device.describe(lost + gpio_input("door", 1, PLAIN[0]))
    device.start()
    assert list(device.ports()) == [1]
    told = rf"^WARNING: No chip tells whether it has pin {number}: describe it by alias$"
    assert device.log_count(told) == 1
    assert device.log_count(rf"^WARNING: Failed to allocate pin {number}/\(null\)$") == 1
    assert device.log_count("the kernel lacks") == 0


def test_lines_of_banks_that_no_number_tells_apart_are_found(device):
    lines = (BANK_A[3], BANK_B[3])
    device.describe("".join(gpio_input(f"in{i}", i, line) for i, line in enumerate(lines)))
    device.start()
    signals = device.signals()
    for i, line in enumerate(lines):
        line.pull(1)
        signals.wait_for(PortChanged, port=i, input=True, state=True)
    signals.assert_none()


def test_a_line_that_is_dropped_keeps_its_level_until_somebody_else_takes_it(root_device):
    root_device.describe(gpio_output("relay", 0, PLAIN[5], optional="true"))
    root_device.start()
    root_device.state.SetState(0, True)
    root_device.state.DropIOPorts(["relay"])
    assert (PLAIN[5].taken, PLAIN[5].level) == (False, 1)
