"""Pins of the supervised kinds on plain files: what set-up requires, says and writes."""

import pytest
from describe import element, port
from test_gpio_files import export, text

KINDS = ("spi", "iio", "iio-interrupt")
IN, OUT, CTRL, SENSE = 17, 18, 19, 20
CALLS = {
    "input": r"libugpio_port_init_gpio_pin\(data->input, TRUE, FALSE\)",
    "output": r"libugpio_port_init_gpio_pin\( data->output, FALSE, "
    r"io_port_direction_input\(port\) \? FALSE : state\)",
    "io_ctrl": r"libugpio_port_init_gpio_pin\( data->ioctrl, FALSE, "
    r"io_port_direction_input\(port\) \? 1 : 0\)",
}


def start(device, backend, kind, *pins, **more):
    """A device with one port on these pins (element, number) and one that always works."""
    inside = "".join(element(tag, pin=number) for tag, number in pins)
    device.describe(
        port("s", 0, kind, backend, backend_inside=inside, **more) + port("other", 1)
    )
    device.start()


@pytest.mark.parametrize("backend", KINDS)
@pytest.mark.parametrize(
    "kind, pins, told",
    [
        ("io_ctrl", ("input",), "Supervised IO port should have both 'input' and 'output' pins."),
        ("io_ctrl", ("output",), "Supervised IO port should have both 'input' and 'output' pins."),
        ("input", ("input", "output"), "Limited IO port should only have either 'input' or 'output' pin."),
        ("output", ("input", "output"), "Limited IO port should only have either 'input' or 'output' pin."),
        ("input", (), "Limited IO port should only have either 'input' or 'output' pin."),
    ],
)  # fmt: skip
def test_the_pins_must_suit_the_type(device, backend, kind, pins, told):
    numbers = {"input": IN, "output": OUT}
    for number in numbers.values():
        export(device, number)
    start(device, backend, kind, *((tag, numbers[tag]) for tag in pins))
    assert f"WARNING: {told}" in device.log
    assert device.log_count("Setup failed for port 0, removing from list") == 1
    for number in numbers.values():
        assert text(device, f"/sys/class/gpio/gpio{number}", "edge") == "none\n"


@pytest.mark.parametrize("backend", KINDS)
def test_an_output_needs_its_pin_only(device, backend):
    folder = export(device, OUT)
    start(device, backend, "output", ("output", OUT))
    assert text(device, folder, "direction") == "low"
    device.state.SetState(0, True)
    assert text(device, folder, "value") == "1\n"
    assert device.state.GetState(0) is True
    assert device.log_count("^WARNING") == 0


@pytest.mark.parametrize(
    "kind, missing",
    [("input", "input"), ("output", "output"), ("io_ctrl", "output"), ("input", "io_ctrl")],
)
def test_a_buffered_converters_port_names_the_call_that_failed(device, kind, missing):
    pins = {"input": IN, "output": OUT, "io_ctrl": CTRL, "sio_ctrl": SENSE}
    wanted = {
        "input": ("input", "io_ctrl", "sio_ctrl"),
        "output": ("output",),
        "io_ctrl": tuple(pins),
    }[kind]
    for tag in wanted:
        if tag != missing:
            export(device, pins[tag])
    device.expect(f"iio_setup_gpio: assertion '{CALLS[missing]}' failed")
    start(device, "iio", kind, *((tag, pins[tag]) for tag in wanted))
    told = rf"^WARNING: Failed to allocate pin {pins[missing]}/\(null\)$"
    assert device.log_count(told) == 1
    assert device.log_count("Setup failed for port 0, removing from list") == 1


@pytest.mark.parametrize("backend", KINDS)
def test_a_second_control_pin_that_cannot_be_had(device, backend):
    for number in (IN, CTRL):
        export(device, number)
    start(device, backend, "input", ("input", IN), ("io_ctrl", CTRL), ("sio_ctrl", SENSE))
    assert device.log_count(r"^WARNING: Request for gpio pin \(null\) failed\.$") == 1
    assert device.log_count("Setup failed for port 0, removing from list") == 1


def test_each_pin_of_an_spi_port_is_told_and_its_failure_is_not_the_ports(device):
    start(device, "spi", "output", ("output", OUT))
    assert device.log_count(rf"^WARNING: Failed to allocate pin {OUT}/\(null\)$") == 1
    assert device.log_count("Setup failed") == 0
    device.state.SetState(0, True)
    assert device.log_count(r"^WARNING: Failed to set gpio pin \(null\): ") == 1
