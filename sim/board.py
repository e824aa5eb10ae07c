"""The hardware that a description speaks of, made of plain files.

Every port of a description gets what its backend looks for: pins, files, converters. What turns an
input is a line:

    board = Board(path)
    board.furnish(device)                       # before the device starts
    board.lines["window"].set("cut")

A contact is the file with 0 or 1 that the port itself reads. A measured line is the file
/sys/devices/inputs/PORT with its level; the port's converter samples that all the time. A line of an
IO box or a Z-Wave device belongs to the service that has it.
"""

import array
import fcntl
import os
import pathlib
import struct
import subprocess
import termios
import threading
from xml.etree import ElementTree

from sim.endings import undisturbed

INPUTS = "/sys/devices/inputs"
PINS = "/sys/class/gpio"
IIO = "/sys/bus/iio/devices"
EVENTS = "/run/iio-events"  # also in hardware.c
# The parts of the simulated device's tree that files may lie in.
FOLDERS = ("/sys/", "/run/", "/tmp/", "/etc/")

PIN_FILES = {"value": "0\n", "direction": "in\n", "edge": "none\n", "active_low": "0\n"}
SAMPLE_INTERVAL_S = 0.02
SAMPLE_BITS = 12
STATES = ("closed", "open", "short", "cut")


# What the daemon is run by, so that files pass for hardware where they do not by themselves.
LIBRARY = "/etc/simulated-hardware.so"
WRAPPER = ("env", f"LD_PRELOAD={LIBRARY}")


def provide_library(device):
    """Builds what WRAPPER speaks of."""
    built = device.scratch / "simulated-hardware.so"
    source = pathlib.Path(__file__).with_name("hardware.c")
    flags = ("-shared", "-fPIC", "-O1", "-Wall", "-Wextra", "-Werror")
    subprocess.run(["cc", *flags, "-o", built, source], check=True)
    device.write(LIBRARY, built.read_bytes())


class Unfit(Exception):
    """The board has something that cannot be simulated."""


class Port:
    """What a description says of one port: its number, its type, its backend and the elements of that."""

    def __init__(self, name):
        self.name = name
        self.number = 0
        self.type = "output"
        self.backend = ""
        self.elements = []

    def element(self, tag):
        """The attributes of all elements with that name, as the daemon takes them: the last one counts."""
        found = [dict(attributes) for name, attributes in self.elements if name == tag]
        return {key: value for attributes in found for key, value in attributes.items()}

    def ranges(self):
        """The level in the middle of each state's range."""
        levels = {}
        for name, values in self.elements:
            if name == "range" and {"state", "lower", "upper"} <= values.keys():
                levels.setdefault(
                    values["state"], (number_of(values["lower"]) + number_of(values["upper"])) // 2
                )
        return levels


def number_of(text, otherwise=0):
    try:
        return int(text, 0)
    except (TypeError, ValueError):
        return otherwise


def replace(path, text):
    """Changes a file at once: whoever reads it finds all of the text, old or new."""
    new = path.with_name(path.name + ".new")
    new.write_text(text)
    new.chmod(0o666)
    new.replace(path)


def read_ports(path):
    """The ports in the order of the file. An element belongs to the port above it, wherever it stands."""
    ports = []
    for element in ElementTree.parse(path).getroot().iter():
        if element.tag == "port":
            ports.append(Port(element.get("name", "")))
        elif not ports:
            continue
        elif element.tag == "port_no":
            ports[-1].number = number_of(element.get("nbr"))
        elif element.tag == "port_type":
            ports[-1].type = element.get("type", "output")
        elif element.tag == "backend":
            ports[-1].backend = element.get("name", "")
        else:
            ports[-1].elements.append((element.tag, element.attrib))
    return ports


# -- lines -----------------------------------------------------------------------------------------


class Contact:
    """A wire that is at 0 or 1: a file of one digit."""

    def __init__(self, device, path):
        self._device = device
        self.path = path

    def flip(self):
        at = self._device.read(self.path)
        self._device.poke(self.path, "0\n" if at.startswith("1") else "1\n")


class Loop:
    """A wire with resistors, so that its level tells a cut or a short from its contact."""

    def __init__(self, device, name, levels):
        self._device = device
        self._levels = levels
        self.path = f"{INPUTS}/{name}"
        device.write(self.path, f"{levels['closed']}\n").chmod(0o666)

    @property
    def level(self):
        """As it is measured; what somebody is just writing is 0."""
        return number_of(self._device.read(self.path).split("\n", 1)[0])

    @property
    def conducts(self):
        """Without supervision the pin is all there is: at 1 while current flows."""
        near = {word: abs(level - self.level) for word, level in self._levels.items()}
        return min(near, key=near.get) in ("closed", "short")

    def flip(self):
        self.set("open" if self.level == self._levels["closed"] else "closed")

    def set(self, word):
        if word not in self._levels:
            raise Unfit(f"the description has no range for a line that is {word}")
        self._device.poke(self.path, f"{self._levels[word]}\n")


class BoxLine:
    """A wire of the IO box, which tells the state itself."""

    def __init__(self, device, number):
        self._device = device
        self._number = number
        self._word = "open"

    def flip(self):
        self.set("open" if self._word == "closed" else "closed")

    def set(self, word):
        self._device.peers.box.line(self._number, word)
        self._word = word


class ZWaveLine:
    """A Z-Wave device that is switched by hand."""

    def __init__(self, device, number):
        self._device = device
        self._number = number
        self._on = False

    def flip(self):
        self._on = not self._on
        self._device.peers.zwave.device_state(self._number, self._on)


# -- converters ------------------------------------------------------------------------------------


class LogicPin:
    """The input pin of a measured line, which follows the line."""

    def __init__(self, device, folder, loop):
        self._loop = loop
        self._conducts = None
        # Open as long as the sampling, so that each change is one write and no reader finds it empty.
        self._value = os.open(device.path(f"{folder}/value"), os.O_WRONLY)

    def sample(self):
        conducts = self._loop.conducts
        if conducts is not self._conducts:
            os.pwrite(self._value, b"1\n" if conducts else b"0\n", 0)
            self._conducts = conducts

    def close(self):
        os.close(self._value)


class Pipe:
    """A named pipe that is open on both sides, so that neither end waits for the other."""

    def __init__(self, path):
        path.parent.mkdir(parents=True, exist_ok=True)
        os.mkfifo(path)
        path.chmod(0o666)
        self._end = os.open(path, os.O_RDWR | os.O_NONBLOCK)

    def offer(self, record):
        """Writes it, unless there is one that nobody has read."""
        waiting = array.array("i", [0])
        fcntl.ioctl(self._end, termios.FIONREAD, waiting)
        if waiting[0] == 0:
            os.write(self._end, record)

    def close(self):
        os.close(self._end)


class Sampler:
    """A converter that the daemon has sampled by a timer: samples come through its node."""

    def __init__(self, device, board, port, loop):
        described = port.element("device")
        self._loop = loop
        number = board.converter(device, described.get("name", ""))
        consumer = board.converter(device, described.get("adc", ""))
        channel = described.get("channel", "")
        timer = described.get("hrtimer", "")
        self._node = Pipe(device.path(f"/dev/iio:device{number}"))
        self._shift = number_of(described.get("shift"))
        trigger = f"{IIO}/trigger{board.triggers}"
        board.triggers += 1
        board.write(device, {
            f"{IIO}/iio:device{number}/buffer/enable": "0\n",
            f"{IIO}/iio:device{number}/scan_elements/in_voltage{channel}_en": "0\n",
            f"{IIO}/iio:device{number}/scan_elements/in_voltage{channel}_type":
                f"le:u{SAMPLE_BITS}/16>>0\n",
            f"{IIO}/iio:device{consumer}/trigger/current_trigger": "\n",
            f"{trigger}/name": f"{timer}\n",
            f"{trigger}/sampling_frequency": "100\n",
        })  # fmt: skip
        device.path(f"/sys/kernel/config/iio/triggers/hrtimer/{timer}").mkdir(parents=True)

    def sample(self):
        level = min(self._loop.level << self._shift, 2**SAMPLE_BITS - 1)
        self._node.offer(level.to_bytes(2, "little"))

    def close(self):
        self._node.close()


class Threshold:
    """A converter that tells when a level is crossed: the daemon sets thresholds and reads the level."""

    def __init__(self, device, board, port, loop):
        described = port.element("device")
        self._device = device
        self._loop = loop
        number = board.converter(device, described.get("driver", ""))
        self._channel = number_of(described.get("channel"))
        name = described.get("channel_name", f"voltage{self._channel}")
        extension = described.get("chan_extend_name")
        self._shift = number_of(described.get("bitshift"))
        folder = f"{IIO}/iio:device{number}"
        channel = f"in_{name}" + (f"_{extension}" if extension else "")
        self._raw = f"{folder}/{channel}_raw"
        self._event = f"{folder}/events/{channel}_thresh"
        board.write(device, {
            self._raw: f"{loop.level << self._shift}\n",
            f"{folder}/in_voltage_sampling_frequency": "100\n",
            f"{folder}/in_proximity_integration_time": "0\n",
            f"{folder}/events/in_voltage_thresh_either_period": "0\n",
            **{f"{self._event}_{way}_{what}": "0\n"
               for way in ("rising", "falling") for what in ("en", "value")},
        })  # fmt: skip
        self._events = board.events_of(device, number)
        device.write(f"/dev/iio:device{number}", "").chmod(0o666)
        self._told = None
        self._factor = 2**self._shift if described.get("one_threshold") == "true" else 1

    def _number(self, what):
        return number_of(self._device.read(f"{self._event}_{what}").strip("\0\n "))

    def sample(self):
        raw = self._loop.level << self._shift
        if raw != self._told:
            replace(self._device.path(self._raw), f"{raw}\n")
            self._told = raw
        above = self._number("rising_en") and raw > self._number("rising_value") * self._factor
        below = self._number("falling_en") and raw < self._number("falling_value") * self._factor
        if above or below:
            self._events.offer(struct.pack("<QQ", self._channel, 0))

    def close(self):
        pass


class SpiLevel:
    """A converter behind an SPI node: a file that holds a level for each command."""

    def __init__(self, device, node, command, loop):
        if not node.startswith("/dev/") or "/" in node[5:]:
            raise Unfit(f"{node} is no node right below /dev")
        path = device.path(node)
        if not path.exists():
            device.write(node, bytes(256)).chmod(0o666)
        self._loop = loop
        self._command = command & 0xFF
        self._node = os.open(path, os.O_WRONLY)

    def sample(self):
        os.pwrite(self._node, bytes([min(self._loop.level, 255)]), self._command)

    def close(self):
        os.close(self._node)


class Sampling(threading.Thread):
    """What the converters do all the time; ends with the device."""

    def __init__(self, device, converters):
        super().__init__(daemon=True)
        self._converters = converters
        self._ended = threading.Event()
        device.on_exit(self._end)

    def run(self):
        while not self._ended.wait(SAMPLE_INTERVAL_S):
            for converter in self._converters:
                converter.sample()

    def _end(self):
        self._ended.set()
        self.join()
        for converter in self._converters:
            converter.close()


# -- the board -------------------------------------------------------------------------------------


class Board:
    """All that a description needs. `levels` are the counts of each state, for loops that are to have
    others than the middles of their ranges."""

    def __init__(self, description, levels=None):
        self.description = description
        self.ports = read_ports(description)
        self.lines = {}
        self.triggers = 0
        self._levels = levels
        self._converters = []
        self._names = []  # of IIO devices; each has its place as its number
        self._events = {}

    def furnish(self, device):
        device.lines = self.lines
        device.write("/usr/share/wexd/conf.xml", self.description.read_bytes())
        for port in self.ports:
            furnish_one = FURNISH.get(port.backend)
            if furnish_one:
                furnish_one(self, device, port)
        for converter in self._converters:
            converter.sample()
        # Whoever ends the device waits for the thread, so it has to have begun by then.
        with undisturbed():
            Sampling(device, self._converters).start()

    def box_lines(self):
        """The ports that an IO box has, by their numbers as it knows them, and its model."""
        ports = [port for port in self.ports if port.backend == "iobox"]
        model = next((port.element("box").get("name") for port in ports), None)
        return {str(port.number): "open" for port in ports}, model or "x5210"

    @staticmethod
    def write(device, files):
        for path, text in files.items():
            device.write(path, text).chmod(0o666)

    def converter(self, device, name):
        """The number of the IIO device of that name."""
        if name not in self._names:
            self._names.append(name)
            self.write(device, {f"{IIO}/iio:device{len(self._names) - 1}/name": f"{name}\n"})
        return self._names.index(name)

    def events_of(self, device, number):
        """The pipe of a device's events, which all its ports share."""
        if number not in self._events:
            self._events[number] = Pipe(device.path(f"{EVENTS}/iio:device{number}"))
            device.on_exit(self._events[number].close)
        return self._events[number]

    def pins(self, device, port):
        """Makes the pins of a port; returns the folder of each, by its element."""
        folders = {}
        for element in ("input", "output", "io_ctrl", "sio_ctrl"):
            pin = port.element(element)
            if "alias" in pin or "pin" in pin:
                folders[element] = f"{PINS}/{pin.get('alias') or 'gpio' + pin['pin']}"
                self.write(device, {f"{folders[element]}/{name}": text for name, text in PIN_FILES.items()})
        return folders

    def loop(self, device, port, levels=None):
        """The measured line of a port."""
        middles = self._levels or levels or port.ranges()
        levels = {"closed": 0, "open": 2**SAMPLE_BITS - 1} | middles
        self.lines[port.name] = Loop(device, port.name, levels)
        return self.lines[port.name]

    # What each backend looks for.

    def gpio(self, device, port):
        folders = self.pins(device, port)
        if "input" in folders:
            self.lines[port.name] = Contact(device, f"{folders['input']}/value")

    def sysfs(self, device, port):
        described = port.element("device")
        path = described.get("path", "")
        if not path.startswith(FOLDERS):
            raise Unfit(f"port {port.name}: {path} lies in none of {', '.join(FOLDERS)}")
        at_rest = "1\n" if described.get("inverted") == "true" else "0\n"
        self.write(device, {path: at_rest})
        self.lines[port.name] = Contact(device, path)

    def measured(self, device, port, converter):
        """A line with its pins, measured by that converter."""
        folders = self.pins(device, port)
        if port.type == "output":
            return
        loop = self.loop(device, port)
        self._converters.append(converter(loop))
        if "input" in folders:
            self._converters.append(LogicPin(device, folders["input"], loop))

    def iio(self, device, port):
        self.measured(device, port, lambda loop: Sampler(device, self, port, loop))

    def iio_interrupt(self, device, port):
        self.measured(device, port, lambda loop: Threshold(device, self, port, loop))

    def spi(self, device, port):
        # Its name is of no matter to the daemon.
        command = next(iter(port.element("address").values()), "0")
        node = port.element("device").get("path", "")
        self.measured(
            device, port, lambda loop: SpiLevel(device, node, int(command, 16), loop)
        )

    def spiadc(self, device, port):
        described, band = port.element("device"), port.element("input")
        active = (number_of(band.get("active_min")) + number_of(band.get("active_max"))) // 2
        beyond = 255 if number_of(band.get("active_max")) < 200 else 0
        loop = self.loop(device, port, {"closed": beyond, "open": active})
        node, command = described.get("device", ""), number_of(described.get("address"))
        self._converters.append(SpiLevel(device, node, command, loop))

    def iobox(self, device, port):
        self.lines[port.name] = BoxLine(device, port.number)

    def zwave(self, device, port):
        self.lines[port.name] = ZWaveLine(device, port.number)


FURNISH = {
    "gpio": Board.gpio, "sysfs": Board.sysfs, "iio": Board.iio, "iio-interrupt": Board.iio_interrupt,
    "spi": Board.spi, "spiadc": Board.spiadc, "iobox": Board.iobox, "zwave": Board.zwave,
}  # fmt: skip
