"""Pins on the files of the kernel's GPIO interface, where the test can look at every text written.

The files are plain ones, so nothing reports an edge; the kernel tests have real pins.
"""

import pytest
from describe import element, port

PINS = "/sys/class/gpio"
CRITICAL = r"libugpio_port_setup: assertion 'port->optional' failed"
IN, OUT, CTRL = 17, 18, 19


def export(device, pin, *, level="0\n", direction="in\n", without=()):
    """Makes the folder of a pin that someone has exported, by number or by name."""
    folder = f"{PINS}/gpio{pin}" if isinstance(pin, int) else f"{PINS}/{pin}"
    files = {"value": level, "direction": direction, "edge": "none\n", "active_low": "\n"}
    for name, text in files.items():
        if name not in without:
            device.write(f"{folder}/{name}", text).chmod(0o666)
    return folder


def gpio(kind="input", number=0, inside="", **more):
    return port("p", number, kind, "gpio", backend_inside=inside, **more)


def start(device, ports):
    device.describe(ports)
    device.start()


def text(device, folder, name):
    return device.read(f"{folder}/{name}")


@pytest.mark.parametrize("level, state", [("0\n", False), ("1\n", True)])
def test_an_exported_input_is_read(device, level, state):
    folder = export(device, IN, level=level, direction="out\n")
    start(device, gpio(inside=element("input", pin=IN)))
    assert device.state.GetState(0) is state
    assert text(device, folder, "direction") == "in"
    assert text(device, folder, "edge") == "both"
    assert text(device, folder, "active_low") == "\n"
    assert text(device, folder, "value") == level
    assert not device.exists(f"{PINS}/export")


def test_a_pin_of_fixed_direction_has_no_file_for_it(device):
    folder = export(device, IN, level="1\n", without=("direction",))
    start(device, gpio(inside=element("input", pin=IN)))
    assert device.state.GetState(0) is True
    assert not device.exists(f"{folder}/direction")


def test_a_pin_that_somebody_else_exported_stays_exported(device):
    export(device, IN)
    device.write(f"{PINS}/unexport", "").chmod(0o666)
    start(device, gpio(inside=element("input", pin=IN), optional="true"))
    assert device.state.DropIOPorts(["p"]) == ["p"]
    assert device.read(f"{PINS}/unexport") == ""


def test_a_pin_with_a_name_is_requested_by_it(device):
    named = export(device, "DOOR", level="1\n")
    numbered = export(device, IN)
    start(device, gpio(inside=element("input", alias="DOOR", pin=IN)))
    assert device.state.GetState(0) is True
    assert text(device, named, "edge") == "both"
    assert text(device, numbered, "edge") == "none\n"


def test_a_second_element_adds_to_the_same_pin(device):
    folder = export(device, IN, level="1\n")
    start(device, gpio(inside=element("input", pin=IN) + element("input", inverted="true")))
    assert device.state.GetState(0) is True
    assert text(device, folder, "active_low") == "1"


@pytest.mark.parametrize(
    "inverted, active_low", [(None, "\n"), ("true", "1"), ("false", "0"), ("yes", "0"), ("True", "0")]
)  # fmt: skip
def test_active_low_is_written_as_described_or_not_at_all(device, inverted, active_low):
    folder = export(device, IN)
    start(device, gpio(inside=element("input", pin=IN, inverted=inverted)))
    assert text(device, folder, "active_low") == active_low


@pytest.mark.parametrize(
    "inverted, active, level, value",
    [
        (None, "closed", "low", "0"),
        (None, "open", "high", "1"),
        ("true", "closed", "high", "0"),
        ("true", "open", "low", "1"),
        ("no", "open", "high", "1"),
    ],
)
def test_an_output_starts_at_its_level(device, inverted, active, level, value):
    """The line's own level stands in the direction, the logical one in the value."""
    folder = export(device, OUT)
    start(device, gpio("output", inside=element("output", pin=OUT, inverted=inverted)))
    device.state.SetActive(0, False, active)
    device.write(f"{folder}/direction", "in\n")
    device.restart()
    assert text(device, folder, "direction") == level
    assert text(device, folder, "value") == f"{value}\n"
    assert text(device, folder, "edge") == "none\n"
    device.state.SetState(0, True)
    assert text(device, folder, "value") == {"0": "1\n", "1": "0\n"}[value]


def io_ctrl_pins():
    return element("input", pin=IN) + element("output", pin=OUT) + element("io_ctrl", pin=CTRL)


def test_a_turned_port_moves_its_line_driver(device):
    folders = [export(device, pin) for pin in (IN, OUT, CTRL)]
    start(device, gpio("io_ctrl", inside=io_ctrl_pins(), dir="input"))

    def levels():
        return [text(device, folder, "value")[0] for folder in folders[1:]]

    assert [text(device, folder, "direction") for folder in folders] == ["in", "low", "low"]
    assert levels() == ["0", "0"]
    device.state.SetDirection(0, "output")
    assert levels()[1] == "1"
    device.state.SetState(0, True)
    driven = levels()
    device.state.SetState(0, False)
    assert {driven[0], levels()[0]} == {"0", "1"}
    device.state.SetDirection(0, "input")
    assert levels() == ["0", "0"]


def test_a_configurable_port_that_starts_as_an_output(device):
    folders = [export(device, pin) for pin in (IN, OUT, CTRL)]
    start(device, gpio("io_ctrl", inside=io_ctrl_pins(), dir="output"))
    assert text(device, folders[0], "direction") == "in"
    assert text(device, folders[2], "direction") == "high"
    assert text(device, folders[2], "value")[0] == "1"


@pytest.mark.parametrize(
    "kind, inside, missing",
    [
        pytest.param("input", element("input", pin=99), "99/\\(null\\)", id="input by number"),
        pytest.param("output", element("output", pin=99), "99/\\(null\\)", id="output by number"),
        pytest.param("input", element("input", alias="NO", pin=5), "5/NO", id="by name"),
        pytest.param("io_ctrl", element("input", pin=IN) + element("output", pin=98), "98/\\(null\\)",
                     id="second of three"),
    ],
)  # fmt: skip
def test_a_pin_that_cannot_be_had_ends_the_port(device, kind, inside, missing):
    export(device, IN)
    device.expect(CRITICAL)
    start(device, gpio(kind, inside=inside) + port("other", 1))
    assert device.log_count(f"^WARNING: Failed to allocate pin {missing}$") == 1
    assert device.log_count("Setup failed for port 0, removing from list") == 1
    assert device.log_count(CRITICAL) + device.stderr.count("'port->optional' failed") >= 1


def test_an_optional_port_waits_for_its_pin_in_silence(device):
    start(device, gpio(inside=element("input", pin=99), optional="true") + port("other", 1))
    assert device.log_count("^WARNING: Failed to allocate pin 99/") == 1
    assert device.log_count("port->optional") == 0


@pytest.mark.parametrize(
    "without, inverted, told",
    [
        ("value", None, "Failed to open pin fd!"),
        ("active_low", "true", "Failed set active low!"),
        ("active_low", "no", "Failed set active high!"),
    ],
)
def test_a_file_that_is_missing_is_told(device, without, inverted, told):
    export(device, IN, without=(without,))
    device.expect(CRITICAL)
    start(device, gpio(inside=element("input", pin=IN, inverted=inverted)) + port("other", 1))
    assert device.log_count(f"^WARNING: {told}$") == 1


def test_an_element_that_means_nothing_is_told_per_attribute(device):
    export(device, IN)
    start(device, gpio(inside=element("input", pin=IN) + element("lamp", pin=3, alias="x")))
    assert device.log_count("^WARNING: Could not parse backend data!") == 2


@pytest.mark.parametrize("before, direction", [("in\n", "low"), ("out\n", "out\n")])
def test_a_supervised_ports_second_control_pin_is_used_as_it_stands(device, before, direction):
    """One that is an input could not be driven, though."""
    for pin in (IN, CTRL):
        export(device, pin)
    folder = export(device, 20, direction=before)
    pins = element("input", pin=IN) + element("io_ctrl", pin=CTRL) + element("sio_ctrl", pin=20)
    start(device, port("s", 0, "input", "spi", backend_inside=pins
                       + element("device", path="/none"), optional="true") + port("other", 1))  # fmt: skip
    assert text(device, folder, "direction") == direction
    assert text(device, folder, "value")[0] == "0"
    assert text(device, f"{PINS}/gpio{CTRL}", "value")[0] == "1"
    assert device.log_count("^WARNING: Failed to open SPI device.$") == 1
    assert device.log_count("^WARNING: Failed to open spi device.$") == 1


def test_a_pin_that_is_exported_and_does_not_appear_is_given_back(device):
    """It may be shown by a name that nothing tells."""
    for name in ("export", "unexport"):
        device.write(f"{PINS}/{name}", "").chmod(0o666)
    start(device, gpio("output", inside=element("output", pin=OUT), optional="true") + port("other", 1))
    assert device.log_count(f"^WARNING: Failed to allocate pin {OUT}/\\(null\\)$") == 1
    assert device.read(f"{PINS}/export") == device.read(f"{PINS}/unexport") == str(OUT)


@pytest.mark.parametrize("refused", ["direction", "edge"])
def test_a_pin_that_refuses_its_setting_is_not_had(device, refused):
    folder = export(device, IN, without=(refused,))
    device.path(f"{folder}/{refused}").mkdir()
    device.write(f"{PINS}/unexport", "").chmod(0o666)
    start(device, gpio(inside=element("input", pin=IN), optional="true") + port("other", 1))
    assert device.log_count(f"^WARNING: Failed to allocate pin {IN}/\\(null\\)$") == 1
    assert device.read(f"{PINS}/unexport") == ""


def test_a_pin_that_may_only_be_read_is_read(ordinary_device):
    device = ordinary_device
    folder = export(device, IN, level="1\n")
    device.path(f"{folder}/value").chmod(0o444)
    start(device, gpio(inside=element("input", pin=IN)))
    assert device.state.GetState(0) is True
    assert device.log_count("^WARNING") == 0


@pytest.mark.parametrize("told", ["", "x\n"], ids=["nothing", "nonsense"])
def test_a_file_that_holds_no_level_is_no_low_one(device, told):
    folder = export(device, IN)
    start(device, gpio(inside=element("input", pin=IN)))
    assert device.state.GetState(0) is False
    device.write(f"{folder}/value", told)
    assert device.state.GetState(0) is True
