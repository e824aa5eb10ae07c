"""The bench itself: what the tests of the daemon take for granted about the
simulated chips, shown without the daemon."""

import contextlib
import ctypes
import errno
import fcntl
import os
import re
import select
import struct
import time

import pytest

import chips
from chips import ADC_BE12, ADC_LE12, GPIO_CLASS, LABELLED, NAMED, PLAIN, SPI_CONVERTERS
from sim.bus import wait_until

SPI_IOC_MESSAGE_2 = 0x40406B00
SPI_IOC_WR_MAX_SPEED_HZ = 0x40046B04

ALL_ADCS = pytest.mark.parametrize("adc", chips.ADCS, ids=lambda adc: adc.name)


@pytest.mark.sysfs
@pytest.mark.parametrize("chip", [PLAIN, LABELLED, NAMED], ids=lambda chip: chip.label)
def test_a_chip_decides_the_folder_of_an_exported_line(chip):
    chip[3].export()
    assert chip[3].folder.is_dir()


@pytest.mark.sysfs
@pytest.mark.parametrize("edge, pulls", [("rising", (0, 1)), ("falling", (1, 0))])
def test_an_edge_is_an_exceptional_condition_of_the_value_file(edge, pulls):
    line = PLAIN[0]
    line.pull(pulls[0])
    folder = line.export()
    (folder / "edge").write_text(edge)
    with open(folder / "value", "rb", buffering=0) as value:
        value.read()
        poll = select.poll()
        poll.register(value, select.POLLERR | select.POLLPRI)
        assert poll.poll(0) == []
        line.pull(pulls[1])
        assert poll.poll(1000) == [(value.fileno(), select.POLLERR | select.POLLPRI)]
        os.lseek(value.fileno(), 0, os.SEEK_SET)
        assert value.read() == b"%d\n" % pulls[1]
        line.pull(pulls[0])
        assert poll.poll(0) == []


@pytest.mark.pins
@pytest.mark.parametrize("flags, level", [(0, 1), (chips.LINE_FLAG_OUTPUT, 0)], ids=["as it stands", "low"])
def test_a_requested_line_tells_whose_it_is_and_keeps_its_level_when_it_goes(flags, level):
    line = PLAIN[3]
    line.leave_at(1)
    assert not line.taken
    with chips.requested(line, flags, consumer=b"somebody"):
        assert (line.taken, line.consumer) == (True, "somebody")
        assert (line.is_output, line.level) == (True, level)
    assert (line.taken, line.is_output, line.level) == (False, True, level)


@pytest.mark.pins
def test_an_edge_makes_a_requested_line_readable_and_costs_a_reading():
    line = PLAIN[4]
    flags = chips.LINE_FLAG_INPUT | chips.LINE_FLAGS_BOTH_EDGES
    with chips.requested(line, flags) as handle:
        poll = select.poll()
        poll.register(handle, select.POLLIN)
        assert poll.poll(0) == []
        (line._files / "failing_reads").write_text("5")
        line.pull(1)
        assert poll.poll(1000) == [(handle, select.POLLIN)]
        assert line.failing_readings == 4
        line.fail_readings(0)
        os.read(handle, 48)
        assert poll.poll(0) == []


@pytest.mark.sysfs
def test_a_line_remembers_even_a_short_level():
    line = PLAIN[1]
    folder = line.export()
    (folder / "direction").write_text("low")
    (folder / "value").write_text("1")
    (folder / "value").write_text("0")
    assert line.driven_levels == [0, 1, 0]
    times = [event.time_ns for event in line.history]
    assert times == sorted(times)
    line.forget_history()
    assert line.history == []


@pytest.mark.sysfs
def test_a_line_can_change_right_behind_a_reading():
    line = PLAIN[2]
    folder = line.export()
    line.flip_after_readings(2)
    with open(folder / "value", "rb", buffering=0) as value:
        # One system call each: reading up to the end would ask the chip once more.
        readings = [os.pread(value.fileno(), 8, 0) for _ in range(4)]
    assert readings == [b"0\n", b"0\n", b"1\n", b"1\n"]


@pytest.mark.sysfs
def test_a_chip_vanishes_and_returns():
    folder = NAMED[0].export()
    NAMED.unplug()
    assert not folder.exists()
    NAMED.plug()
    assert not folder.exists()
    assert NAMED[0].export().exists()


@pytest.mark.sysfs
def test_a_line_held_by_another_program_cannot_be_exported():
    with chips.line_taken_by_another_program(PLAIN[4]):
        with pytest.raises(OSError) as refusal:
            PLAIN[4].export()
        assert refusal.value.errno == errno.EBUSY
    PLAIN[4].export()


@pytest.mark.sysfs
def test_the_kernels_own_simulator_calls_named_lines_by_number():
    with chips.kernel_gpio_simulator("own", 4, {2: "own-door"}) as (base, pull):
        (GPIO_CLASS / "export").write_text(str(base + 2))
        value = GPIO_CLASS / f"gpio{base + 2}" / "value"
        pull(2, 1)
        assert value.read_text() == "1\n"
        (GPIO_CLASS / "unexport").write_text(str(base + 2))


class SpiTransfer(ctypes.Structure):
    """struct spi_ioc_transfer, from <linux/spi/spidev.h>."""

    _fields_ = [
        ("tx_buf", ctypes.c_uint64),
        ("rx_buf", ctypes.c_uint64),
        ("len", ctypes.c_uint32),
        ("speed_hz", ctypes.c_uint32),
        ("rest", ctypes.c_uint8 * 8),
    ]


def exchange(converter, command):
    """One message: two bytes sent, two bytes received."""
    sent, received = (ctypes.c_uint8 * 2)(0, command), (ctypes.c_uint8 * 2)()
    message = (SpiTransfer * 2)()
    message[0].tx_buf, message[0].len = ctypes.addressof(sent), 2
    message[1].rx_buf, message[1].len = ctypes.addressof(received), 2
    with open(converter.device, "rb", buffering=0) as node:
        fcntl.ioctl(node, SPI_IOC_MESSAGE_2, message)
    return bytes(received)


def test_an_spi_converter_answers_by_command():
    converter = SPI_CONVERTERS[0]
    converter.reply(0xF0, 0x0A)
    converter.reply(0x12, 0x34, command=0x90)
    assert exchange(converter, 0x01) == b"\xf0\x0a"
    assert exchange(converter, 0x90) == b"\x12\x34"
    assert converter.sent == ["00", "90", "<2"]
    assert converter.messages == 2


def test_an_spi_converter_refuses_a_clock_above_its_own():
    converter = SPI_CONVERTERS[0]
    converter.limit_speed(1500000)
    with open(converter.device, "rb", buffering=0) as node:
        fcntl.ioctl(node, SPI_IOC_WR_MAX_SPEED_HZ, struct.pack("=I", 1500000))
        with pytest.raises(OSError) as refusal:
            fcntl.ioctl(node, SPI_IOC_WR_MAX_SPEED_HZ, struct.pack("=I", 1500001))
    assert refusal.value.errno == errno.EINVAL


def test_an_spi_converter_can_fail():
    converter = SPI_CONVERTERS[1]
    converter.fail(errno.EIO)
    with pytest.raises(OSError) as failure:
        exchange(converter, 0)
    assert failure.value.errno == errno.EIO
    converter.fail(0)
    exchange(converter, 0)


def sample_layout(adc):
    scan = adc.folder / "scan_elements"
    single = scan / "in_voltage_type"
    return (single if single.exists() else scan / "in_voltage0_type").read_text().strip()


def test_the_converters_differ_in_layout():
    assert [sample_layout(adc) for adc in chips.ADCS] == [
        "le:u12/16>>0",
        "be:u12/16>>4",
        "le:u24/24>>0",
        "be:u20/24>>4",
        "be:u32/32>>0",
        "le:u8/8>>0",
        "le:u10/16>>6",
    ]


@contextlib.contextmanager
def sampling(adc, channel, frequency):
    """Takes samples of one channel by a timer trigger; yields the open device node."""
    trigger = chips.HRTIMER_TRIGGERS / "bench-rate"
    trigger.mkdir()
    number = next(
        f for f in chips.IIO_DEVICES.glob("trigger*") if (f / "name").read_text() == "bench-rate\n"
    )
    (number / "sampling_frequency").write_text(str(frequency))
    (adc.folder / "trigger" / "current_trigger").write_text("bench-rate")
    scan = adc.folder / "scan_elements"
    switch = scan / "in_voltage_en"
    (switch if switch.exists() else scan / f"in_voltage{channel}_en").write_text("1")
    (adc.folder / "buffer" / "enable").write_text("1")
    try:
        with open(adc.node, "rb", buffering=0) as node:
            yield node
    finally:
        (adc.folder / "buffer" / "enable").write_text("0")
        (adc.folder / "trigger" / "current_trigger").write_text("\n")
        trigger.rmdir()


@ALL_ADCS
def test_a_sample_has_the_layout_of_its_converter(adc):
    endian, real, storage, shift = re.fullmatch(
        r"([bl])e:u(\d+)/(\d+)>>(\d+)", sample_layout(adc)
    ).groups()
    value = 0xA5C3F71E & ((1 << int(real)) - 1)
    channel = 0 if adc is chips.ADC_SINGLE else 2
    adc.set_value(value, channel)
    with sampling(adc, channel, 100) as node:
        sample = node.read(int(storage) // 8)
    order = "big" if endian == "b" else "little"
    assert int.from_bytes(sample, order) >> int(shift) == value


def test_the_timer_keeps_its_rate():
    """A late host can make samples late, but none early: the slow one is told from the fast one by
    what it takes at least."""
    spans = {}
    for frequency in (10, 200):
        with sampling(ADC_LE12, 0, frequency) as node:
            node.read(2)
            started = time.monotonic()
            for _ in range(10):
                node.read(2)
            spans[frequency] = time.monotonic() - started
    # The first reading may have come late, and two more samples fit into the buffer.
    assert spans[10] > 7 / 10
    assert spans[200] > 7 / 200
    assert spans[200] < spans[10]


@pytest.mark.parametrize(
    "adc, switches",
    [(ADC_LE12, ("rising_en", "falling_en")), (ADC_BE12, ("either_en",))],
    ids=lambda value: getattr(value, "name", ""),
)
def test_a_threshold_event_comes_only_when_enabled_and_crossed(adc, switches):
    files = adc.folder / "events"
    adc.set_value(500)
    (files / "in_voltage0_thresh_rising_value").write_text("1000")
    (files / "in_voltage0_thresh_falling_value").write_text("200")
    with adc.take_events() as events:
        adc.set_value(1500)
        adc.set_value(500)
        assert adc.events() == 0
        for switch in switches:
            (files / f"in_voltage0_thresh_{switch}").write_text("1")
        adc.set_value(1000)
        assert adc.events() == 0
        adc.set_value(1001)
        adc.set_value(1500)
        assert adc.events() == 1
        assert struct.unpack("=qq", events.read(16))[0] & 0xFFFF == 0
        adc.set_value(199)
        assert adc.events() == 2


def test_a_converter_counts_the_samples_that_nobody_fetches():
    """The buffer has room for two."""
    with sampling(ADC_LE12, 0, 200) as node:
        wait_until(lambda: ADC_LE12.lost >= 3, "lost samples")
        node.read(2)
        node.read(2)
        assert ADC_LE12.samples - ADC_LE12.lost >= 2
        before = time.monotonic_ns()
        ADC_LE12.set_value(1234)
        while int.from_bytes(node.read(2), "little") != 1234:
            pass
        assert before < int(ADC_LE12.changed_file.read_text()) < time.monotonic_ns()


def test_a_reading_can_fail():
    ADC_LE12.fail_readings(errno.EIO)
    with pytest.raises(OSError):
        ADC_LE12.attribute("in_voltage0_raw")
    ADC_LE12.fail_readings(0)
    assert ADC_LE12.attribute("in_voltage0_raw") == "0"
