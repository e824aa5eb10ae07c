"""The client on real chips, converters and nodes: what it finds here, and what it says is missing."""

import errno
import json
import os
import re
import subprocess

import pytest

import chips
from chips import CHIPS, LABELLED, NAMED, PLAIN
from describe import element, port
from gpio_ports import gpio_input
from sim.bus import MANAGER_PATH, OtherSignal
from supervised_ports import SPI, Supervision

pytestmark = pytest.mark.pins

PROPERTIES = "org.freedesktop.DBus.Properties"


def wexctl(*arguments, **environment):
    run = subprocess.run(
        ["/bench/wexctl", *arguments], env=environment, capture_output=True, text=True, check=False
    )
    assert run.stderr == ""
    return run


def described():
    run = wexctl("describe")
    assert run.returncode == 0
    return run.stdout


def findings(tmp_path, ports):
    """Status of a check that looks here, and what it tells of each line."""
    file = tmp_path / "conf.xml"
    file.write_text(f"<config>\n{ports}\n</config>\n")
    run = wexctl("check", "--here", str(file))
    return run.returncode, run.stdout


def test_what_is_here_is_described():
    text = described()
    for chip in CHIPS:
        assert re.search(rf"GPIO chip gpiochip\d+ \(.*\) with {len(chip.lines)} lines", text)
        by_number = f"has {len(chip.lines)} from {chip.base} on"
        assert (by_number in text) == chips.BY_SYSFS
    for chip in (NAMED, LABELLED):
        assert f"({chip.label}) with" in text
    assert f'<input alias="{NAMED[6].alias}"/>' in text
    for adc in chips.ADCS:
        assert f"IIO device {adc.name} " in text and f'driver="{adc.name}"' in text
    for converter in chips.SPI_CONVERTERS:
        assert f'device="{converter.device}"' in text


def test_a_line_in_use_is_described_as_such():
    with chips.line_taken_by_another_program(NAMED[3]):
        assert f"<!-- line 3: {NAMED[3].alias}, in use by other -->" in described()
    assert f'<input alias="{NAMED[3].alias}"/>' in described()


def test_every_port_of_the_description_is_one_that_is_here(tmp_path):
    ports = re.findall(r"<!--\s*(<port .*?</port>)\s*-->", described(), re.DOTALL)
    assert len(ports) > len(NAMED.lines) + len(chips.ADCS) + len(chips.SPI_CONVERTERS)
    # Chips of one parent and one label cannot be told apart by it, and so their lines' numbers by
    # their names.
    alike = [one for one in ports if chips.BY_SYSFS and 'alias="bench-bank-' in one]
    assert findings(tmp_path, "\n".join(one for one in ports if one not in alike)) == (0, "")
    status, told = findings(tmp_path, "\n".join(alike))
    assert told.count("several GPIO lines may be called") == len(alike)
    assert (len(alike), status) == ((32, 1) if chips.BY_SYSFS else (0, 0))


@pytest.mark.chardev
def test_a_number_that_nothing_tells_is_told_to_be_a_name(tmp_path):
    ports = port("door", 0, "input", "gpio", backend_inside=element("input", pin=PLAIN[5].number))
    ports += port("gate", 1, "input", "gpio", backend_inside=element("input", alias="nobody"))
    status, told = findings(tmp_path, ports)
    assert status == 1 and told.count("warning: ") == 2
    assert "port 'door': no chip tells whether it has pin 105: describe it by alias" in told
    assert "port 'gate': no GPIO line is called 'nobody'" in told


def spiadc(name, number, path):
    inside = element("device", device=path, timeout=5) + element("range", nbr=0)
    inside += element("input", active_min=100, active_max=150)
    return port(name, number, "input", "spiadc", backend_inside=inside)


def iio(name, number, device):
    inside = element("device", driver=device, mode="adc", channel=0)
    inside += element("range", state="closed", lower=0, upper=100)
    return port(name, number, "input", "iio-interrupt", backend_inside=inside)


def test_hardware_that_is_here_is_found_and_what_is_not_is_told(tmp_path):
    here = (
        gpio_input("door", 0, PLAIN[5])
        + gpio_input("gate", 1, NAMED[6], by="alias")
        + spiadc("tank", 2, chips.SPI_CONVERTERS[0].device)
        + iio("fence", 3, chips.ADC_LE12.name)
    )
    assert findings(tmp_path, here) == (0, "")
    elsewhere = spiadc("tank", 2, "/dev/spidev7.7") + iio("fence", 3, "no-adc")
    status, told = findings(tmp_path, elsewhere)
    assert status == 1 and told.count("warning: ") == 2
    assert "port 'tank': " in told and "/dev/spidev7.7" in told
    assert "port 'fence': no IIO device is called 'no-adc'" in told


def test_a_chip_and_a_converter_that_went_are_told(tmp_path):
    ports = (
        gpio_input("door", 0, PLAIN[5])
        + gpio_input("gate", 1, NAMED[6], by="alias")
        + gpio_input("spare", 2, NAMED[7], by="alias", optional="true")
        + iio("fence", 3, chips.ADC_LE12.name)
    )
    for gone in (PLAIN, NAMED, chips.ADC_LE12):
        gone.unplug()
    status, told = findings(tmp_path, ports)
    assert status == 1
    for name in ("door", "gate", "fence"):
        assert re.search(rf"warning: port '{name}': ", told), told
    assert re.search(r"note: port 'spare': ", told), told


def asked(device, *arguments):
    run = wexctl(*arguments, DBUS_SYSTEM_BUS_ADDRESS=device.bus_address)
    assert run.returncode == 0
    return run.stdout


def status(device):
    return asked(device, "status")


def test_a_port_whose_pin_went_with_its_chip_is_missing(root_device):
    root_device.describe(
        gpio_input("spare", 0, PLAIN[10], optional="true") + gpio_input("door", 1, LABELLED[0])
    )
    root_device.start()
    assert "2 of 2 in service" in status(root_device)
    announced = root_device.signals(PROPERTIES, MANAGER_PATH)
    PLAIN.unplug()
    # The kernel wakes nobody for a file that goes: it is seen with whatever the daemon does next.
    root_device.sync()
    told = announced.wait_for(OtherSignal, member="PropertiesChanged").values[1]
    assert told["PortsInService"] == 1
    ((name, number, optional, reason),) = told["MissingPorts"]
    assert (name, number, optional) == ("spare", 0, True) and reason
    assert "1 of 2 in service" in status(root_device)
    assert f"missing       port 0 spare (optional): {reason}\n" in status(root_device)
    PLAIN.plug()
    root_device.state.RefreshIOPorts()
    told = announced.wait_for(OtherSignal, member="PropertiesChanged").values[1]
    assert told["PortsInService"] == 2 and told["MissingPorts"] == []
    assert "2 of 2 in service" in status(root_device)


def test_a_line_that_cannot_be_read_is_told_as_such(root_device):
    SPI.show("closed")
    root_device.describe(SPI.port(number=1))
    root_device.start()
    Supervision(root_device).SetSupervised(1, True)
    SPI.chip.fail(errno.EIO)
    root_device.wait_for_log(f"^WARNING: Readout failed: {os.strerror(errno.EBADF)}")
    told = f"{os.strerror(errno.EBADF)} (com.norv.IOSupervised.Error.Generic)"
    (zone,) = json.loads(asked(root_device, "supervised", "show", "--json", "zone"))
    assert zone["supervised"] is True and zone["error"] == told and "state" not in zone
    assert re.search(rf"^1 +zone +on +{re.escape(told)} ", asked(root_device, "supervised", "show"), re.M)
    assert json.loads(asked(root_device, "get", "zone", "--json"))["supervised"] == "undefined"
