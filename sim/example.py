"""The example device: its description, and the lines that its inputs hang on.

A contact is a file with 0 or 1. A loop is a file with the level that its converter measures, in
counts; a converter of our own samples it. A line of the IO box belongs to the box. Whoever writes
such a file turns the wire:

    example.furnish(device)                     # before the device starts
    example.lines(device)["window"].set("cut")
"""

import array
import fcntl
import os
import pathlib
import termios
import threading
from xml.etree import ElementTree

from sim.bus import wait_until

DESCRIPTION = pathlib.Path(__file__).parent / "conf.xml"
INPUTS = "/sys/devices/inputs"

CONTACTS = {"door": ("door", 0), "pir_detector": ("pir", 1), "tamper": ("tamper", 0)}
# Converter counts, each well within its range of the description.
LEVELS = {"short": 200, "closed": 1300, "open": 2700, "cut": 3850}
LOOPS = {"window": 0, "fence": 1}  # port: number of its converter
BOX_LINES = {"loop": 10}  # port: its number, which is what the box knows it by

PIN_FILES = {"value": "0\n", "direction": "in\n", "edge": "none\n", "active_low": "0\n"}
SAMPLE_INTERVAL_S = 0.02
ADC_BITS = 12


class Contact:
    """A wire that is at 0 or 1."""

    words = ()

    def __init__(self, device, file):
        self._device = device
        self._path = f"{INPUTS}/{file}"

    def flip(self):
        text = self._device.read(self._path)
        self._device.poke(self._path, "0\n" if text.startswith("1") else "1\n")


class Loop:
    """A wire with resistors, so that its level tells a cut or a short from its contact."""

    words = tuple(LEVELS)

    def __init__(self, device, name):
        self._device = device
        self._path = f"{INPUTS}/{name}"

    def flip(self):
        level = first_number(self._device.path(self._path), LEVELS["open"])
        self.set("open" if level == LEVELS["closed"] else "closed")

    def set(self, word):
        self._device.poke(self._path, f"{LEVELS[word]}\n")


class BoxLine:
    """A wire of the IO box, which tells the state itself."""

    words = tuple(LEVELS)

    def __init__(self, device, number):
        self._device = device
        self._number = number
        self._word = "open"

    def flip(self):
        self.set("open" if self._word == "closed" else "closed")

    def set(self, word):
        self._device.peers.box.line(self._number, word)
        self._word = word


def lines(device):
    """Every line of a furnished device, by port name."""
    contacts = {port: Contact(device, file) for port, (file, _) in CONTACTS.items()}
    loops = {port: Loop(device, port) for port in LOOPS}
    box = {port: BoxLine(device, number) for port, number in BOX_LINES.items()}
    return contacts | loops | box


def wait_complete(device):
    """Waits for what the daemon waits for no longer: the triggers of the two video channels."""
    wait_until(lambda: "manualtrigger2" in names(device), "triggers")


def names(device):
    return {entry.name for entry in device.port_list()}


def optional_ports():
    """The names of the ports that may be absent, so that a client may drop them."""
    ports = ElementTree.parse(DESCRIPTION).findall("port")
    return {port.get("name") for port in ports if port.get("optional") == "true"}


def furnish(device):
    """Gives a device the example description, and what its inputs read."""
    device.write("/usr/share/wexd/conf.xml", DESCRIPTION.read_text())
    for file, level in CONTACTS.values():
        device.write(f"{INPUTS}/{file}", f"{level}\n").chmod(0o666)
    converters = [Converter(device, name, number) for name, number in LOOPS.items()]
    Sampling(device, converters).start()


class Converter:
    """The files and the node of a converter as the kernel shows them, and the loop's pins."""

    def __init__(self, device, name, number):
        self.level = device.write(f"{INPUTS}/{name}", f"{LEVELS['closed']}\n")
        self.level.chmod(0o666)
        folder = f"/sys/bus/iio/devices/iio:device{number}"
        trigger = f"/sys/bus/iio/devices/trigger{number}"
        files = {
            f"{folder}/name": f"{name}-adc\n",
            f"{folder}/buffer/enable": "0\n",
            f"{folder}/trigger/current_trigger": "\n",
            f"{folder}/scan_elements/in_voltage_en": "0\n",
            f"{folder}/scan_elements/in_voltage_type": f"le:u{ADC_BITS}/16>>0\n",
            f"{trigger}/name": f"{name}-timer\n",
            f"{trigger}/sampling_frequency": "100\n",
        }
        for pin in ("", "_PULL", "_SENSE"):
            pin_folder = f"/sys/class/gpio/{name.upper()}{pin}"
            files |= {f"{pin_folder}/{file}": text for file, text in PIN_FILES.items()}
        for path, text in files.items():
            device.write(path, text).chmod(0o666)
        device.path(f"/sys/kernel/config/iio/triggers/hrtimer/{name}-timer").mkdir(parents=True)
        # Open as long as the sampling, so that each change is one write and no reader finds it empty.
        self._pin = os.open(device.path(f"/sys/class/gpio/{name.upper()}/value"), os.O_WRONLY)
        self._conducts = None
        node = device.path(f"/dev/iio:device{number}")
        node.parent.mkdir(exist_ok=True)
        os.mkfifo(node)
        node.chmod(0o666)
        # Open on both sides, so that neither end waits for the other.
        self._node = os.open(node, os.O_RDWR | os.O_NONBLOCK)

    def sample(self):
        level = min(first_number(self.level, 0), 2**ADC_BITS - 1)
        waiting = array.array("i", [0])
        fcntl.ioctl(self._node, termios.FIONREAD, waiting)
        if waiting[0] == 0:  # a sample that nobody reads is not followed by more
            os.write(self._node, level.to_bytes(2, "little"))
        # Without supervision the pin is all there is: at 1 while current flows.
        conducts = level < (LEVELS["closed"] + LEVELS["open"]) // 2
        if conducts is not self._conducts:
            os.pwrite(self._pin, b"1\n" if conducts else b"0\n", 0)
            self._conducts = conducts

    def close(self):
        os.close(self._node)
        os.close(self._pin)


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


def first_number(path, otherwise):
    """The number on the first line of a file; `otherwise` while someone is writing it."""
    try:
        return int(path.read_text().split("\n", 1)[0])
    except (OSError, ValueError):
        return otherwise
