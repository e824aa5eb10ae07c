"""Pins of the supervised kinds on plain files: what set-up requires, says and writes."""

import signal

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


@pytest.mark.parametrize(
    "backend, function", [("spi", "spi_setup_gpio"), ("iio", "iio_setup_gpio")]
)
def test_a_description_without_the_second_control_pin_is_a_mistake(device, backend, function):
    for number in (IN, CTRL):
        export(device, number)
    pins = element("input", pin=IN) + element("io_ctrl", pin=CTRL)
    device.expect(rf"{function}: assertion failed: \(data->sioctrl != NULL\)")
    device.describe(port("s", 0, "input", backend, backend_inside=pins))
    device.start(ready=False)
    device.wait_exit(128 + signal.SIGABRT)


@pytest.mark.parametrize("inverted", [None, "true"], ids=["plain", "inverted"])
@pytest.mark.parametrize("kind", ["input", "io_ctrl"])
def test_the_second_control_pin_of_an_interrupt_port_is_optional(device, kind, inverted):
    """The converter is missing, so the port fails, but only after its pins are set."""
    for number in (IN, OUT, CTRL, SENSE):
        export(device, number)
    pins = element("input", pin=IN) + element("io_ctrl", pin=CTRL, inverted=inverted)
    if kind == "io_ctrl":
        pins += element("output", pin=OUT)
    device.describe(port("s", 0, kind, "iio-interrupt", backend_inside=pins) + port("other", 1))
    device.start()
    folder = f"/sys/class/gpio/gpio{CTRL}"
    assert text(device, folder, "value") == "1\n"
    assert text(device, folder, "direction") == ("low" if inverted else "high")
    assert device.log_count("^WARNING: Failed to find device name$") == 1
    assert device.log_count("^WARNING: Failed to set (gpio|ioctrl|sioctrl)") == 0


@pytest.mark.parametrize("inverted, level", [(None, "low"), ("true", "high")])
def test_a_fresh_second_control_pin_starts_inactive(device, inverted, level):
    for number in (IN, CTRL, SENSE):
        export(device, number)
    pins = element("input", pin=IN) + element("io_ctrl", pin=CTRL)
    pins += element("sio_ctrl", pin=SENSE, inverted=inverted)
    device.describe(port("s", 0, "input", "iio-interrupt", backend_inside=pins) + port("o", 1))
    device.start()
    folder = f"/sys/class/gpio/gpio{SENSE}"
    assert text(device, folder, "direction") == level
    assert text(device, folder, "value") == "0\n"
    assert text(device, folder, "active_low") == ("1" if inverted else "\n")
