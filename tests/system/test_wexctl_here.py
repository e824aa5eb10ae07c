"""`wexctl check --here` and `wexctl describe` on a machine of plain files."""

import json
import re
import subprocess

import pytest
from describe import element, port, sysfs_input

CONFIG = "/usr/share/wexd/conf.xml"
ADC = "/sys/bus/iio/devices/iio:device0"


@pytest.fixture
def inside(device, wexctl):
    """Runs the client on the device's own files, as an ordinary user cannot be on all machines."""

    def run(*arguments):
        command = device.sandbox.command(
            ["/app/wexctl", *arguments], device.binary, beside=[wexctl.program]
        )
        return subprocess.run(command, capture_output=True, text=True, check=False)

    return run


@pytest.fixture
def machine(device):
    """A chip of 32 pins, a pin that is exported, a converter, a node and an attribute file."""
    for name, text in {"base": "32", "ngpio": "32", "label": "soc"}.items():
        device.write(f"/sys/class/gpio/gpiochip32/{name}", text + "\n")
    device.write("/sys/class/gpio/export", "")
    device.write("/sys/class/gpio/gpio7/value", "0\n")
    device.write(f"{ADC}/name", "ads1015\n")
    device.write(f"{ADC}/in_voltage3_raw", "812\n")
    device.write(f"{ADC}/in_voltage3_scale", "2\n")
    device.write("/dev/iio:device0", "")
    device.write("/dev/spidev0.1", "")
    device.write("/sys/door", "0\n")
    device.write("/sys/level", "17\n")
    return device


def gpio(name, number, **more):
    pin = more.pop("pin")
    return port(name, number, "input", "gpio", backend_inside=element("input", **pin), **more)


def device_of(backend, **attributes):
    return port("x", 0, "input", backend, backend_inside=element("device", **attributes))


def here(inside, machine, ports):
    """What the check says of the hardware, with the severity."""
    machine.describe(ports)
    plain = json.loads(inside("check", "--json").stdout)
    found = inside("check", "--here", "--json")
    findings = [entry for entry in json.loads(found.stdout) if entry not in plain]
    assert all(entry["file"] == CONFIG and entry["line"] > 0 for entry in findings)
    return [(entry["severity"], entry["text"]) for entry in findings], found.returncode


@pytest.mark.parametrize(
    "ports",
    [
        gpio("a", 0, pin={"pin": 7}), gpio("a", 0, pin={"pin": 32}), gpio("a", 0, pin={"pin": 63}),
        sysfs_input("a", 0, "/sys/door"), sysfs_input("a", 0, "/sys/door", clear_flag="true"),
        port("a", 0, backend="null"),
    ],
    ids=["exported", "first pin", "last pin", "file", "flag", "nothing"],
)  # fmt: skip
def test_what_is_there_is_no_finding(inside, machine, ports):
    assert here(inside, machine, ports) == ([], 0)


@pytest.mark.parametrize(
    "ports, text",
    [
        (gpio("a", 0, pin={"pin": 31}), "port 'a': no GPIO chip has pin 31"),
        (gpio("a", 0, pin={"pin": 64}), "port 'a': no GPIO chip has pin 64"),
        (gpio("a", 0, pin={"alias": "door"}), "port 'a': no GPIO line is called 'door'"),
        (gpio("a", 0, pin={"alias": "door", "pin": 32}), "port 'a': no GPIO line is called 'door'"),
        (sysfs_input("a", 0, "/sys/none"), "port 'a': /sys/none: No such file or directory"),
        (sysfs_input("a", 0, "/sys/level"), "port 'a': /sys/level holds neither 0 nor 1"),
        (device_of("spiadc", device="/dev/spidev9.9", timeout=9),
         "port 'x': /dev/spidev9.9: No such file or directory"),
        (device_of("iio-interrupt", driver="max1363"), "port 'x': no IIO device is called 'max1363'"),
    ],
    ids=lambda value: "" if value.startswith("<") else value,
)  # fmt: skip
def test_what_is_not_there_is_told(inside, machine, ports, text):
    findings, status = here(inside, machine, ports)
    assert (findings, status) == ([("warning", text)], 1)


@pytest.mark.parametrize(
    "ports, text",
    [
        (gpio("a", 0, pin={"pin": 31}), "port 'a': no chip tells whether it has pin 31: describe it by alias"),
        (gpio("a", 0, pin={"alias": "door"}), "port 'a': no GPIO line is called 'door'"),
    ],
    ids=["number", "name"],
)  # fmt: skip
def test_without_files_for_pins_a_number_is_to_be_a_name(inside, device, ports, text):
    device.write("/dev/gpiochip0", "")
    assert here(inside, device, ports) == ([("warning", text)], 1)


def test_without_any_chip_no_name_would_help(inside, device):
    told = [("warning", "port 'a': no GPIO chip has pin 31")]
    assert here(inside, device, gpio("a", 0, pin={"pin": 31})) == (told, 1)


def test_a_converter_and_a_node_that_are_there(inside, machine):
    for ports in (device_of("iio-interrupt", driver="ads1015"),
                  device_of("spiadc", device="/dev/spidev0.1", timeout=9)):  # fmt: skip
        assert here(inside, machine, ports)[0] == []


@pytest.mark.parametrize("how", ["optional", "hwid"])
def test_of_a_port_that_may_be_absent_it_is_a_note(inside, machine, how):
    ports = gpio("a", 0, pin={"pin": 99}, optional="true")
    if how == "hwid":
        ports = ports.replace('name="a" optional="true"', 'hwid="B" name="a"')
    findings, status = here(inside, machine, ports)
    assert (findings, status) == ([("note", "port 'a': no GPIO chip has pin 99")], 0)


def test_without_here_no_hardware_is_looked_for(inside, machine):
    machine.describe(sysfs_input("a", 0, "/sys/none"))
    assert inside("check").stdout == ""


def described(inside):
    """What the client says of the machine, as the text of a description."""
    said = inside("describe")
    assert (said.returncode, said.stderr) == (0, "")
    return said.stdout


def test_a_description_of_what_is_here_passes_the_check_with_its_ports(inside, machine):
    machine.write("/sys/bus/iio/devices/iio:device1/name", 'odd "--> <name>\n')
    machine.write("/dev/iio:device1", "")
    machine.write("/sys/bus/iio/devices/iio:device1/in_voltage0_raw", "1\n")
    said = described(inside)
    assert "pins by number: soc has 32 from 32 on" in said
    machine.write(CONFIG, said)
    assert inside("check").stdout == ""
    uncommented = re.sub(r"<!--\n  (<port .*?</port>)\n  -->", r"\1", said, flags=re.DOTALL)
    assert uncommented.count("\n  <port ") == 3
    machine.write(CONFIG, uncommented)
    checked = inside("check", "--here")
    assert (checked.returncode, checked.stdout) == (0, "")


def test_what_cannot_be_asked_is_described_as_such(inside, device):
    """A chip that this user may not open, or that is none, and one whose kernel tells no label."""
    device.write("/dev/gpiochip0", "")
    device.write("/sys/class/gpio/gpiochip32/base", "32\n")
    device.write("/sys/class/gpio/gpiochip32/ngpio", "8\n")
    said = described(inside)
    assert "  <!-- gpiochip0 cannot be opened by this user -->\n" in said
    assert "  <!-- pins by number:  has 8 from 32 on -->\n" in said
    device.write(CONFIG, said)
    assert "error" not in inside("check").stdout


def test_a_machine_without_anything_has_an_empty_description(inside, device):
    said = inside("describe")
    assert "Nothing was found that could be a port." in said.stdout
    device.write(CONFIG, said.stdout)
    assert "error" not in inside("check").stdout
