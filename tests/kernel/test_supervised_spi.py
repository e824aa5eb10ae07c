"""Supervised inputs behind an SPI converter: its settings, and exchanges that fail."""

import errno
import os

import pytest

from chips import PLAIN
from gpio_ports import gpio_input
from sim.bus import BusError, PortChanged, wait_until
from supervised_ports import SPI, Supervision

pytestmark = pytest.mark.pins

CONVERTER = SPI.chip


def start(device, *ports):
    device.describe("".join(ports))
    device.start()
    return Supervision(device)


@pytest.mark.parametrize("speed, clock", [(250000, 250000), ("0x1e848", 125000), (0, 1000000)])
def test_words_have_16_bits_and_the_described_clock(device, speed, clock):
    SPI.show("closed")
    supervision = start(device, SPI.port(speed=speed))
    supervision.SetSupervised(0, True)
    wait_until(lambda: CONVERTER.messages > 0, "a poll of the converter")
    assert (CONVERTER.bits, CONVERTER.speed_hz) == (16, clock)


@pytest.mark.parametrize(
    "changed, refuse, message",
    [
        ({"path": "/dev/spidev7.7"}, lambda: None, "Failed to open SPI device."),
        ({}, lambda: CONVERTER.fail_setup(errno.EINVAL), "Failed to set bits per word."),
        ({"speed": 2000000}, lambda: CONVERTER.limit_speed(1500000), "Failed to set max speed."),
    ],
    ids=["no device", "word size", "speed"],
)
def test_a_converter_that_cannot_be_set_up_drops_only_its_port(
    root_device, changed, refuse, message
):
    refuse()
    start(root_device, SPI.port(**changed), gpio_input("door", 1, PLAIN[8]))
    assert list(root_device.ports()) == [1]
    told = [line for line in root_device.log if line.startswith("WARNING")]
    assert told[:2] == [f"WARNING: {message}", "WARNING: Failed to open spi device."]
    assert not any(line.taken for line in (SPI.inputs, SPI.ioctrl, SPI.sioctrl))
    assert not any("spidev" in target for target in root_device.descriptors)


def test_a_converter_that_failed_once_is_not_asked_again_before_the_next_set_up(root_device):
    SPI.show("closed")
    supervision = start(root_device, SPI.port(optional="true"))
    supervision.SetSupervised(0, True)
    CONVERTER.fail(errno.EIO)
    root_device.wait_for_log(f"^WARNING: Error: {os.strerror(errno.EIO)}")
    CONVERTER.fail(0)
    asked = CONVERTER.messages
    root_device.wait_for_log(f"^WARNING: Readout failed: {os.strerror(errno.EBADF)}", count=2)
    with pytest.raises(BusError):
        supervision.GetSupervisedReadout(0)
    assert CONVERTER.messages == asked
    assert not any("spidev" in target for target in root_device.descriptors)

    root_device.state.DropIOPorts(["zone"])
    root_device.state.RefreshIOPorts()
    signals = root_device.signals()
    SPI.show("open")
    signals.wait_for(PortChanged, port=0, input=True)
    assert supervision.GetSupervisedReadout(0)[0] == "open"
