"""The simulated chips of the bench, as a test sees them from outside: GPIO
lines that it pulls and whose history it reads, SPI converters and industrial
I/O converters whose readings it chooses. See modules/README.md."""

import contextlib
import fcntl
import os
import pathlib
import struct
import subprocess
import tempfile
from typing import NamedTuple

DEBUG = pathlib.Path("/sys/kernel/debug")
GPIO_CLASS = pathlib.Path("/sys/class/gpio")
# Whether the kernel has pins as files, by number; else they are requested on their chips' devices.
BY_SYSFS = (GPIO_CLASS / "export").exists()
# From <linux/gpio.h>
GET_CHIP_INFO = 0x8044B401
GET_LINE_INFO = 0xC100B405
GET_LINE = 0xC250B407
LINE_FLAG_USED = 1 << 0
LINE_FLAG_INPUT = 1 << 2
LINE_FLAG_OUTPUT = 1 << 3
LINE_FLAGS_BOTH_EDGES = 3 << 4
LINE_OUTPUT_VALUES = 2
# What the kernel itself reads of a watched line to tell which edge there was.
KERNEL_READINGS = 0 if BY_SYSFS else 1
# From <linux/iio/events.h>
GET_EVENT_FD = 0x80046990
IIO_DEVICES = pathlib.Path("/sys/bus/iio/devices")


class Event(NamedTuple):
    """One thing that happened to a line; numbers and times run per chip."""

    number: int
    time_ns: int
    what: str  # request, free, in, out, set, pull
    level: int  # wire level afterwards


class Line:
    """One line of a bench chip. Levels are those of the wire."""

    def __init__(self, chip, offset):
        self.chip = chip
        self.offset = offset
        self._files = DEBUG / "bench-gpio" / chip.label / str(offset)

    @property
    def number(self):
        return self.chip.base + self.offset

    @property
    def alias(self):
        return f"bench-{self.chip.label}-{self.offset}{self.chip.name_tail}"

    @property
    def folder(self):
        """Where the line stands once it is exported."""
        return GPIO_CLASS / (self.alias if self.chip.names_in_chip else f"gpio{self.number}")

    @property
    def pull_file(self):
        return self._files / "pull"

    def pull(self, level):
        self.pull_file.write_text(str(int(level)))

    @property
    def level(self):
        return int((self._files / "level").read_text())

    @property
    def is_output(self):
        return (self._files / "is_out").read_text() == "1\n"

    @property
    def told(self):
        """How a message calls the pin that a test describes by number if it can."""
        return f"{self.number}/(null)" if BY_SYSFS else f"0/{self.alias}"

    @property
    def taken(self):
        """Whether some program has the line, exported or requested."""
        return bool(_line_info(self).flags & LINE_FLAG_USED)

    @property
    def consumer(self):
        """Who has it, by the name that they gave when they requested it."""
        return _line_info(self).consumer

    def leave_at(self, level):
        """Drives the line as a boot loader would, and lets go of it."""
        with requested(self, LINE_FLAG_OUTPUT, level):
            pass
        self.forget_history()

    def export(self):
        """Takes the line for the sysfs interface, as some other program."""
        (GPIO_CLASS / "export").write_text(str(self.number))
        return self.folder

    def unexport(self):
        (GPIO_CLASS / "unexport").write_text(str(self.number))

    def refuse_requests(self, refuse=True):
        (self._files / "busy").write_text(str(int(refuse)))

    def flip_after_readings(self, count):
        """Lets the line change by itself, silently, right after that many readings by whoever
        watches it, from the next edge on."""
        (self._files / "flip_reads").write_text(str(count + KERNEL_READINGS))

    def fail_readings(self, count=4_000_000_000):
        """Lets so many readings by whoever watches it, from the next edge on, fail with EIO."""
        (self._files / "failing_reads").write_text(str(count + KERNEL_READINGS if count else 0))

    @property
    def failing_readings(self):
        """How many of them are left."""
        return int((self._files / "failing_reads").read_text())

    def forget_history(self):
        (self._files / "history").write_text("1")

    @property
    def history(self):
        events = []
        for text in (self._files / "history").read_text().splitlines():
            number, time_ns, what, level = text.split()
            events.append(Event(int(number), int(time_ns), what, int(level)))
        return events

    @property
    def driven_levels(self):
        """Every level that the line was driven to since its history was last forgotten."""
        return [event.level for event in self.history if event.what in ("out", "set")]

    def __repr__(self):
        return f"<line {self.offset} of {self.chip.label}>"


class Chip:
    """A bench chip; `unplug` makes it vanish and `plug` brings it back, with its lines as new."""

    def __init__(self, label, device, base, count, names_in_chip=False, name_tail=""):
        self.label = label
        self.base = base
        self.names_in_chip = names_in_chip
        self.name_tail = name_tail
        self._device = f"bench-gpio.{device}"
        self.lines = [Line(self, offset) for offset in range(count)]

    def __getitem__(self, which):
        return self.lines[which]

    @property
    def node(self):
        """The chip's character device; of a label that only this chip has."""
        return _character_device(self.label)

    @property
    def plugged(self):
        return (DEBUG / "bench-gpio" / self.label).exists()

    def unplug(self):
        self._driver("unbind")

    def plug(self):
        self._driver("bind")

    def _driver(self, verb):
        pathlib.Path(f"/sys/bus/platform/drivers/bench-gpio/{verb}").write_text(self._device)

    def reset(self):
        """Chip, lines and history as after boot. Whoever holds a line loses it."""
        if self.plugged:
            self.unplug()
        self.plug()


PLAIN = Chip("plain", 0, 100, 16)
LABELLED = Chip("labelled", 1, 200, 16)
NAMED = Chip("named", 2, 300, 16, names_in_chip=True)
WIDE = Chip("wide", 3, 400, 32)
LONG = Chip("long", 4, 500, 16, names_in_chip=True, name_tail="-is-longer-than-31-characters")
# They have one parent and one label.
BANK_A = Chip("bank-a", 5, 632, 16, names_in_chip=True)
BANK_B = Chip("bank-b", 6, 600, 16, names_in_chip=True)
CHIPS = (PLAIN, LABELLED, NAMED, WIDE, LONG, BANK_A, BANK_B)


@contextlib.contextmanager
def kernel_gpio_simulator(label, count, names, folder=None):
    """The kernel's own simulator as an independent chip. Yields (number base, pull), where
    pull(offset, level) sets a line; names maps offsets to line names. The base is None where there
    are no numbers. Simulators of one label need folders of their own."""
    top = pathlib.Path("/sys/kernel/config/gpio-sim") / (folder or label)
    bank = top / "bank0"
    bank.mkdir(parents=True)
    (bank / "num_lines").write_text(str(count))
    (bank / "label").write_text(label)
    for offset, name in names.items():
        (bank / f"line{offset}").mkdir()
        (bank / f"line{offset}" / "name").write_text(name)
    (top / "live").write_text("1")
    chip = bank.joinpath("chip_name").read_text().strip()
    device = next(pathlib.Path("/sys/devices/platform").glob(f"gpio-sim.*/{chip}"))
    bases = (
        int((entry / "base").read_text())
        for entry in GPIO_CLASS.glob("gpiochip*")
        if (entry / "device").resolve() == device.parent
    )
    base = next(bases, None)

    def pull(offset, level):
        (device / f"sim_gpio{offset}" / "pull").write_text("pull-up" if level else "pull-down")

    try:
        yield base, pull
    finally:
        (top / "live").write_text("0")
        for offset in names:
            (bank / f"line{offset}").rmdir()
        bank.rmdir()
        top.rmdir()


class LineInfo(NamedTuple):
    consumer: str
    flags: int


def _line_info(line):
    with open(_character_device(line.chip.label), "rb", buffering=0) as chip:
        # struct gpio_v2_line_info: name, consumer, offset, number of attributes, flags, ...
        info = bytearray(struct.pack("=64xI188x", line.offset))
        fcntl.ioctl(chip, GET_LINE_INFO, info)
    return LineInfo(info[32:64].rstrip(b"\0").decode(), struct.unpack_from("=Q", info, 72)[0])


@contextlib.contextmanager
def requested(line, flags, level=0, consumer=b"other"):
    """A line as some other program holds it through the chip's character device; yields the
    descriptor."""
    with open(_character_device(line.chip.label), "rb", buffering=0) as chip:
        # struct gpio_v2_line_request: 64 offsets, consumer, configuration (flags, number of
        # attributes, the first of which is an output's level), count, size of the event buffer,
        # descriptor
        attribute = struct.pack("=I4xQQ", LINE_OUTPUT_VALUES, level, 1)
        output = bool(flags & LINE_FLAG_OUTPUT)
        request = bytearray(
            struct.pack("=64I32sQI20x24s216xII20xi", line.offset, *63 * [0], consumer, flags,
                        int(output), attribute if output else b"", 1, 0, 0)
        )  # fmt: skip
        fcntl.ioctl(chip, GET_LINE, request)
        handle = struct.unpack_from("=i", request, len(request) - 4)[0]
    try:
        yield handle
    finally:
        os.close(handle)


def line_taken_by_another_program(line):
    return requested(line, LINE_FLAG_INPUT)


def _character_device(label):
    for device in sorted(pathlib.Path("/dev").glob("gpiochip*")):
        with open(device, "rb", buffering=0) as chip:
            info = bytearray(68)  # struct gpiochip_info: name, label, number of lines
            fcntl.ioctl(chip, GET_CHIP_INFO, info)
        if info[32:64].rstrip(b"\0").decode() == label:
            return device
    raise LookupError(label)


class SpiConverter:
    """A converter behind /dev/spidev0.N."""

    def __init__(self, number):
        self.device = f"/dev/spidev0.{number}"
        self._files = DEBUG / "bench-spi" / str(number)

    def reply(self, low, high, command=None):
        """Sets the two bytes of the answer, to every command or to one."""
        prefix = "" if command is None else f"{command:02x}: "
        (self._files / "reply").write_text(f"{prefix}{low:02x} {high:02x}")

    def show_level(self, level, command=None):
        """Answers with an 8-bit level where converters of this kind put it: bits 4 to 11."""
        self.reply((level << 4) & 0xF0, level >> 4, command)

    def fail(self, error):
        """Lets every message fail with an errno, 0 for none."""
        (self._files / "transfer_error").write_text(str(error))

    def fail_setup(self, error):
        """Lets a change of word size or speed fail with an errno, 0 for none."""
        (self._files / "setup_error").write_text(str(error))

    def limit_speed(self, hz):
        """Refuses a clock above it, 0 for none. A fresh converter is at 1,000,000."""
        (self._files / "top_speed_hz").write_text(str(hz))

    @property
    def sent(self):
        """The last message: bytes sent and "<n" for n bytes received, in order."""
        return (self._files / "sent").read_text().split()

    @property
    def messages(self):
        return int((self._files / "messages").read_text())

    @property
    def bits(self):
        return int((self._files / "bits").read_text())

    @property
    def speed_hz(self):
        return int((self._files / "speed_hz").read_text())

    def reset(self):
        (self._files / "reset").write_text("1")


SPI_CONVERTERS = (SpiConverter(0), SpiConverter(1))


class Adc:
    """A converter of the industrial I/O subsystem, by its device name."""

    def __init__(self, device, name):
        self.name = name
        self._device = f"bench-adc.{device}"
        self._files = DEBUG / "bench-adc" / name

    @property
    def folder(self):
        return next(f for f in IIO_DEVICES.glob("iio:device*") if (f / "name").read_text().strip() == self.name)

    def value_file(self, channel=0):
        """Sets what is sampled."""
        return self._files / str(channel) / "value"

    def set_value(self, value, channel=0):
        self.value_file(channel).write_text(str(value))

    def events(self, channel=0):
        """How many threshold events a channel has sent."""
        return int((self._files / str(channel) / "events").read_text())

    @property
    def samples(self):
        """How many scans have been taken for the buffer."""
        return int((self._files / "samples").read_text())

    @property
    def lost(self):
        """How many of them the buffer had no room for."""
        return int((self._files / "lost").read_text())

    @property
    def changed_file(self):
        """Has when the last changed value went to the buffer, in ns of the monotonic clock."""
        return self._files / "changed_ns"

    def fail_readings(self, error):
        (self._files / "raw_error").write_text(str(error))

    def fail_event_writes(self, error):
        (self._files / "event_error").write_text(str(error))

    def limit_thresholds(self, top):
        """Refuses thresholds above it and below 0 with EINVAL, 0 for none."""
        (self._files / "top").write_text(str(top))

    def compare_levels(self):
        """Sends an event also when one is enabled whose threshold is crossed already."""
        (self._files / "level_events").write_text("1")

    @contextlib.contextmanager
    def take_events(self):
        """The device's only event descriptor, as some other program; yields it as a file."""
        with open(self.node, "rb", buffering=0) as node:
            answer = bytearray(4)
            fcntl.ioctl(node, GET_EVENT_FD, answer)
        with open(struct.unpack("=i", answer)[0], "rb", buffering=0) as events:
            yield events

    @contextlib.contextmanager
    def events_folder_with(self, missing=(), folders=()):
        """Covers the folder of event files by a copy that lacks some and has folders for others."""
        covered = self.folder / "events"
        folders = set(folders)
        left_out = folders.union(missing)
        with tempfile.TemporaryDirectory() as cover:
            for file in covered.iterdir():
                if file.is_file() and file.name not in left_out:
                    pathlib.Path(cover, file.name).write_text(file.read_text())
            for name in folders:
                pathlib.Path(cover, name).mkdir()
            subprocess.run(["/usr/bin/mount", "--bind", cover, covered], check=True)
            try:
                yield covered
            finally:
                subprocess.run(["/usr/bin/umount", covered], check=True)

    @property
    def node(self):
        return pathlib.Path("/dev") / self.folder.name

    def attribute(self, name):
        return (self.folder / name).read_text().strip()

    def unplug(self):
        pathlib.Path("/sys/bus/platform/drivers/bench-adc/unbind").write_text(self._device)

    def plug(self):
        pathlib.Path("/sys/bus/platform/drivers/bench-adc/bind").write_text(self._device)

    def reset(self):
        """As after boot: values, thresholds, buffer, trigger."""
        if self._files.exists():
            self.unplug()
        self.plug()


ADC_LE12 = Adc(0, "bench-adc-le12")
ADC_BE12 = Adc(1, "bench-adc-be12")
ADC_LE24 = Adc(2, "bench-adc-le24")
ADC_BE24 = Adc(3, "bench-adc-be24")
ADC_BE32 = Adc(4, "bench-adc-be32")
ADC_U8 = Adc(5, "bench-adc-u8")
ADC_SINGLE = Adc(6, "bench-adc-single")
ADC_ROW = tuple(Adc(7 + i, f"bench-adc-row{i}") for i in range(16))
ADCS = (ADC_LE12, ADC_BE12, ADC_LE24, ADC_BE24, ADC_BE32, ADC_U8, ADC_SINGLE)

HRTIMER_TRIGGERS = pathlib.Path("/sys/kernel/config/iio/triggers/hrtimer")


def remove_triggers():
    """Removes the timer triggers that somebody has left behind."""
    for trigger in HRTIMER_TRIGGERS.iterdir():
        trigger.rmdir()
