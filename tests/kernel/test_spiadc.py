"""Inputs that are read through a polled SPI converter."""

import errno
import os

import pytest

from chips import SPI_CONVERTERS
from describe import element, port
from sim.bus import PortChanged, wait_until

CONVERTER = SPI_CONVERTERS[0]


def spiadc_input(name, number, converter=CONVERTER, *, bands=((100, 150, 5),), address="0x90",
                 inverted=None, timeout=5, path=None):  # fmt: skip
    inside = "".join(
        element("range", nbr=i)
        + element("input", active_min=low, active_max=high, hysteresis=hysteresis)
        for i, (low, high, hysteresis) in enumerate(bands)
    )
    device = element(
        "device", device=path or converter.device, timeout=timeout, address=address,
        inverted=inverted,
    )  # fmt: skip
    return port(name, number, "input", "spiadc", backend_inside=device + inside)


def wait_for_polls(converter=CONVERTER, count=2):
    """Returns when the converter has been asked that often again: the first exchange may have
    begun before the caller's last change, the second one has seen it."""
    wanted = converter.messages + count
    wait_until(lambda: converter.messages >= wanted, "polls of the converter")


def follow(device, signals, levels, number=0):
    """The state after each of the levels; every change of it must have been reported."""
    states = []
    before = device.state.GetState(number)
    for level in levels:
        CONVERTER.show_level(level)
        wait_for_polls()
        state = device.state.GetState(number)
        if state is not before:
            signals.wait_for(PortChanged, port=number, input=True, state=state)
        signals.assert_none()
        states.append((level, state))
        before = state
    return states


def test_a_level_in_the_band_is_active(device):
    device.describe(spiadc_input("tank", 0))
    CONVERTER.show_level(20)
    device.start()
    signals = device.signals()
    assert device.state.GetState(0) is False
    CONVERTER.show_level(125)
    signals.wait_for(PortChanged, port=0, input=True, state=True)
    CONVERTER.show_level(20)
    signals.wait_for(PortChanged, port=0, input=True, state=False)


# Inactive, a level must lie 5 inside the band; active, it may lie 5 outside.
RISING_AND_FALLING = [
    (99, False), (100, False), (104, False), (105, True), (125, True), (155, True), (156, False),
    (150, False), (146, False), (145, True), (96, True), (95, True), (94, False), (255, False),
]  # fmt: skip

# The other way round: active outside, and the outside widens while active.
INVERTED = [
    (99, True), (100, True), (104, True), (105, False), (125, False), (155, False), (156, True),
    (150, True), (146, True), (145, False), (96, False), (95, False), (94, True), (255, True),
]  # fmt: skip


@pytest.mark.parametrize("inverted, course", [(None, RISING_AND_FALLING), ("true", INVERTED)])
def test_the_state_follows_with_hysteresis(device, inverted, course):
    device.describe(spiadc_input("tank", 0, inverted=inverted))
    CONVERTER.show_level(0)
    device.start()
    signals = device.signals()
    wait_for_polls()
    signals.take()
    assert follow(device, signals, [level for level, _ in course]) == course


def test_any_of_several_bands_makes_it_active(device):
    device.describe(spiadc_input("tank", 0, bands=((10, 20, 0), (200, 210, 0))))
    device.start()
    signals = device.signals()
    wait_for_polls()
    course = [(9, False), (10, True), (20, True), (21, False), (200, True), (15, True), (100, False)]
    assert follow(device, signals, [level for level, _ in course]) == course


def test_the_level_lies_in_the_middle_of_the_word(device):
    """Neither the low four bits nor the high four count."""
    device.describe(spiadc_input("tank", 0, bands=((175, 175, 0),)))
    device.start()
    signals = device.signals()
    CONVERTER.reply(0xF0 | 0x0F, 0xF0 | 0x0A)
    signals.wait_for(PortChanged, port=0, state=True)
    CONVERTER.reply(0xF0, 0x0B)
    signals.wait_for(PortChanged, port=0, state=False)


@pytest.mark.parametrize("address, byte", [("0x90", "90"), ("144", "90"), ("0220", "90"), ("0x1ff", "ff")])
def test_one_exchange_sends_the_command_and_receives_two_bytes(device, address, byte):
    device.describe(spiadc_input("tank", 0, address=address))
    device.start()
    wait_for_polls()
    assert CONVERTER.sent == ["00", byte, "<2"]


def test_two_ports_share_one_converter_by_command(device):
    device.describe(
        spiadc_input("tank", 0, address="0x90") + spiadc_input("pipe", 1, address="0xa0")
    )
    device.start()
    signals = device.signals()
    CONVERTER.show_level(125, command=0xA0)
    signals.wait_for(PortChanged, port=1, state=True)
    assert device.state.GetState(0) is False
    CONVERTER.show_level(125, command=0x90)
    signals.wait_for(PortChanged, port=0, state=True)


def test_a_failing_exchange_counts_as_level_zero(device):
    device.describe(spiadc_input("tank", 0))
    CONVERTER.show_level(125)
    device.start()
    signals = device.signals()
    wait_until(lambda: device.state.GetState(0), "the active state")
    CONVERTER.fail(errno.EIO)
    signals.wait_for(PortChanged, port=0, state=False)
    device.wait_for_log(rf"^WARNING: SPI_IOC_MESSAGE failed! : {os.strerror(errno.EIO)}", count=3)
    CONVERTER.fail(0)
    signals.wait_for(PortChanged, port=0, state=True)


def test_a_converter_that_is_not_there_drops_only_its_port(device):
    device.describe(spiadc_input("lost", 0, path="/dev/spidev7.7") + spiadc_input("tank", 1))
    device.start()
    assert list(device.ports()) == [1]
    assert device.log_count(r"^WARNING: Failed to open /dev/spidev7.7: No such file") == 1


def test_active_low_of_the_port_inverts_once_more(device):
    device.describe(spiadc_input("tank", 0, inverted="true"))
    CONVERTER.show_level(125)
    device.start()
    wait_for_polls()
    assert device.state.GetState(0) is False
    device.state.SetActive(0, True, "open")
    assert device.state.GetState(0) is True
