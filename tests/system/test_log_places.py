"""What the log says besides its fixed texts: which port of which description, and what the kernel
lacks."""

import re

import pytest
from describe import element, failing, port
from test_gpio_files import export

from sim.device import DESCRIPTION
from sim.peers import IoBox

PINS = "/sys/class/gpio"


def following(device, pattern):
    """The lines right after the first one that matches."""
    first = next(i for i, line in enumerate(device.log) if re.search(pattern, line))
    return device.log[first + 1 :]


def start(device, ports):
    device.describe(port("other", 7) + "\n" + ports)
    device.start()


def gpio(number=3, kind="output", **more):
    return port("lock", number, kind, "gpio", backend_inside=element("output", pin=18), **more)


PLACE = f"MESSAGE: {DESCRIPTION}:3: port 'lock' (number 3)"


@pytest.mark.parametrize("optional", [None, "true"])
def test_a_pin_that_is_not_there_is_told_with_its_port(device, optional):
    device.path(PINS).mkdir(parents=True)
    if optional is None:
        device.expect(r"libugpio_port_setup: assertion 'port->optional' failed")
    start(device, gpio(optional=optional))
    assert following(device, "Failed to allocate pin 18/")[0] == PLACE


def test_a_port_that_is_removed_is_told_with_its_place(device):
    start(device, failing("lock", 3))
    assert following(device, "^USER: Setup failed for port 3, removing from list$")[0] == PLACE


def test_what_the_reader_refuses_is_told_with_its_port(device):
    device.expect("Unsupported port type lamp")
    start(device, port("lock", 3, "lamp"))
    assert following(device, "Unsupported port type lamp")[0] == PLACE


def test_a_place_that_a_message_has_is_not_told_again(device):
    start(device, '<port name="lock"><backend name="none"/></port>')
    assert device.log_count("names no known backend") == 1
    assert device.log_count("^MESSAGE: /usr") == 0


def test_a_pin_that_cannot_be_driven_is_told_with_its_port(device):
    start(device, port("lock", 3, "output", "spi", backend_inside=element("output", pin=18)))
    refused = r"Failed to set gpio pin \(null\): "
    before = device.log_count(refused)
    device.state.SetState(3, True)
    device.wait_for_log(refused, count=before + 1)
    device.sync()
    last = max(i for i, line in enumerate(device.log) if re.search(refused, line))
    assert device.log[last + 1] == PLACE


def test_what_a_box_tells_wrongly_is_told_with_its_port(device):
    box = IoBox(device, states={"3": "closed"})
    start(device, port("lock", 3, "input", "iobox"))
    box.line(3, "ajar")
    device.wait_for_log("Unrecognized iobox supervised state: ajar")
    device.sync()
    assert following(device, "Unrecognized iobox supervised state: ajar")[0] == PLACE


def test_a_box_that_cannot_be_told_is_told_with_its_port(device):
    box = IoBox(device, states={"3": "closed"})
    start(device, port("lock", 3, "output", "iobox"))
    box.fail("SetIOMode")
    device.state.SetState(3, True)
    device.sync()
    assert following(device, "Failed to call method SetIOMode: ")[0] == PLACE


def converter(kind, **device):
    return port("lock", 3, "input", kind, optional="true", backend_inside=element("device", **device))


def supervised_spi():
    pins = {"input": 1, "io_ctrl": 2, "sio_ctrl": 3}
    settings = "".join(element(tag, pin=pin) for tag, pin in pins.items())
    settings += element("device", device="/dev/spidev0.0")
    return port("lock", 3, "input", "spi", optional="true", backend_inside=settings)


@pytest.mark.parametrize(
    "ports, message, missing",
    [
        (gpio(optional="true"), "Failed to allocate pin 18/",
         "no /sys/class/gpio: the kernel lacks CONFIG_GPIO_SYSFS"),
        (converter("iio", mode="adc", name="a", adc="a", hrtimer="t"),
         "Failed to open sysfs path: /sys/bus/iio/devices/",
         "no /sys/bus/iio: the kernel lacks CONFIG_IIO"),
        (converter("spiadc", device="/dev/spidev0.0", timeout=20), "Failed to open /dev/spidev0.0: ",
         "no /sys/bus/spi: the kernel lacks CONFIG_SPI"),
    ],
    ids=["gpio", "iio", "spi"],
)  # fmt: skip
def test_an_option_that_the_kernel_lacks_is_named_right_after_the_message(device, ports, message, missing):
    start(device, ports)
    assert following(device, message)[:2] == [f"MESSAGE: {missing}", PLACE]


def test_what_each_pin_of_a_supervised_port_lacks_is_named_and_its_place_once(device):
    start(device, supervised_spi())
    missing = "MESSAGE: no /sys/class/gpio: the kernel lacks CONFIG_GPIO_SYSFS"
    assert following(device, r"Failed to allocate pin 1/")[:2] == [missing, PLACE]
    assert following(device, r"Failed to allocate pin 2/")[0] == missing
    assert following(device, r"Request for gpio pin \(null\) failed\.")[0] == missing
    assert device.log.count(PLACE) == 1


def test_what_a_supervised_converter_lacks_is_named(device):
    for pin in (1, 2, 3):
        export(device, pin)
    start(device, supervised_spi())
    missing = "no /sys/bus/spi: the kernel lacks CONFIG_SPI"
    assert following(device, r"Failed to open SPI device\.")[:2] == [f"MESSAGE: {missing}", PLACE]


def test_spidev_is_named_where_the_rest_is_there(device):
    device.path("/sys/bus/spi").mkdir(parents=True)
    start(device, converter("spiadc", device="/dev/spidev0.0", timeout=20))
    missing = "no /sys/class/spidev: the kernel lacks CONFIG_SPI_SPIDEV"
    assert following(device, "Failed to open /dev/spidev0.0: ")[:2] == [f"MESSAGE: {missing}", PLACE]


@pytest.mark.parametrize(
    "ends_at, missing",
    [
        ("/sys/kernel", "no /sys/kernel/config: the kernel lacks CONFIG_CONFIGFS_FS"),
        ("/sys/kernel/config", "no /sys/kernel/config/iio: the kernel lacks CONFIG_IIO_CONFIGFS"),
        ("/sys/kernel/config/iio/triggers",
         "no /sys/kernel/config/iio/triggers/hrtimer: the kernel lacks CONFIG_IIO_HRTIMER_TRIGGER"),
    ],
)  # fmt: skip
def test_each_part_of_a_timer_that_the_kernel_lacks_is_named(device, ends_at, missing):
    """A file ends the path, under which root could make folders in a simulated device, unlike in the
    kernel's."""
    for number, name in enumerate(["a", "c"]):
        device.write(f"/sys/bus/iio/devices/iio:device{number}/name", f"{name}\n")
    device.write(ends_at, "")
    start(device, converter("iio", mode="adc", name="a", adc="c", hrtimer="t"))
    assert following(device, "Failed to create sysfs directory '")[:2] == [f"MESSAGE: {missing}", PLACE]


def test_no_files_for_pins_are_missed_where_there_is_a_chip(device):
    device.write("/dev/gpiochip7", "")  # they need not begin with 0
    start(device, gpio(optional="true"))
    assert device.log_count("the kernel lacks") == 0
    assert device.log_count("^WARNING: No chip tells whether it has pin 18: describe it by alias$") == 1


def test_a_daemon_that_is_built_for_sysfs_asks_no_chip_and_misses_its_files(make_device, binary):
    device = make_device(binary=binary.parent / "tests" / "wexd-sysfs-pins")
    device.write("/dev/gpiochip7", "")
    start(device, gpio(optional="true"))
    missing = "no /sys/class/gpio: the kernel lacks CONFIG_GPIO_SYSFS"
    assert following(device, "Failed to allocate pin 18/")[0] == f"MESSAGE: {missing}"
    assert device.log_count("No chip tells") == 0


def test_nothing_is_missed_that_is_there(device):
    for folder in ("/sys/bus/spi", "/sys/class/spidev"):
        device.path(folder).mkdir(parents=True)
    start(device, converter("spiadc", device="/dev/spidev0.0", timeout=20))
    assert device.log_count("the kernel lacks") == 0
