"""Boards of one's own on the simulated device: every kind of hardware is there, turns and is seen."""

import subprocess

import pytest
from conftest import TOP
from describe import element, port, sysfs_input

from sim.board import WRAPPER, Board, provide_library
from sim.bus import PortChanged, wait_until
from sim.peers import Neighbourhood
from sim.terminal import Terminal, simulation

pytestmark = pytest.mark.uninstrumented

RANGES = {"short": (0, 40), "closed": (41, 110), "open": (111, 190), "cut": (191, 255)}
STATES = "".join(element("range", state=s, lower=low, upper=high) for s, (low, high) in RANGES.items())


def pins(first):
    names = ("input", "io_ctrl", "sio_ctrl")
    return "".join(element(name, pin=first + index) for index, name in enumerate(names))


def spi(name, number, first, address="18"):
    more = element("device", path="/dev/spidev0.0") + element("address", value=address)
    return port(name, number, "input", "spi", backend_inside=more + pins(first) + STATES)


def iio(name, number, first, adc):
    sampled = element("device", name=adc, adc=adc, hrtimer=f"{adc}-timer", freq="50", channel="2")
    return port(name, number, "input", "iio", backend_inside=sampled + pins(first) + STATES)


def interrupt(name, number, first, **more):
    armed = element("device", driver="max1363", **more)
    return port(name, number, "input", "iio-interrupt", backend_inside=armed + pins(first) + STATES)


def band(name, number):
    inside = element("device", device="/dev/spidev0.1", timeout=20, address=16)
    inside += element("range", band=1) + element("input", active_min=100, active_max=150, hysteresis=2)
    return port(name, number, "input", "spiadc", backend_inside=inside)


CONTACTS = {
    "pin by name": port("c", 0, "input", "gpio", backend_inside=element("input", alias="DOOR")),
    "pin by number, inverted": port(
        "c", 0, "input", "gpio", backend_inside=element("input", pin=17, inverted="true")),
    "configurable pins": port(
        "c", 0, "io_ctrl", "gpio", dir="input",
        backend_inside=element("input", pin=1) + element("output", pin=2) + element("io_ctrl", pin=3)),
    "file": sysfs_input("c", 0, "/sys/devices/platform/flag"),
    "inverted file": sysfs_input("c", 0, "/run/flag", inverted="true"),
    "band": band("c", 0),
    "box": port("c", 0, "input", "iobox", backend_inside=element("box", name="x5210")),
    "unsupervised spi": spi("c", 0, 5),
    "unsupervised iio": iio("c", 0, 5, "adc"),
    "unsupervised iio-interrupt": interrupt("c", 0, 5),
}  # fmt: skip
LOOPS = {
    "spi": spi("l", 0, 5),
    "iio": iio("l", 0, 5, "adc"),
    "iio-interrupt": interrupt("l", 0, 5),
    "iio-interrupt, its own channel": interrupt("l", 0, 5, channel=3, chan_extend_name="loop"),
    "second of a converter": spi("x", 1, 15) + spi("l", 0, 5, address="28"),
    "of two converters": iio("x", 1, 15, "other") + iio("l", 0, 5, "adc"),
}


@pytest.fixture
def describe(tmp_path):
    def write(ports):
        file = tmp_path / "board.xml"
        file.write_text(f"<config>\n{ports}\n</config>\n")
        return file

    return write


@pytest.fixture
def start(make_device, describe):
    """A device with that board, in service."""

    def begin(ports):
        device = make_device(wrapper=WRAPPER)
        provide_library(device)
        board = Board(describe(ports))
        board.furnish(device)
        device.peers = Neighbourhood(device, board)
        device.start()
        assert {p.name for p in device.ports().values()} == {p.name for p in board.ports}
        return device

    return begin


def seen(device):
    return device.supervision.GetSupervisedReadout(0)[0]


@pytest.mark.parametrize("ports", CONTACTS.values(), ids=CONTACTS)
def test_an_input_is_turned_and_tells(start, ports):
    device = start(ports)
    changes = device.signals()
    for _ in range(3):
        before = device.state.GetState(0)
        device.lines["c"].flip()
        changes.wait_for(PortChanged, port=0, state=not before)


@pytest.mark.parametrize("ports", LOOPS.values(), ids=LOOPS)
def test_a_measured_line_is_told_apart(start, ports):
    device = start(ports)
    device.supervision.SetSupervised(0, True)
    for word in ("open", "cut", "closed", "short", "open"):
        device.lines["l"].set(word)
        wait_until(lambda: seen(device) == word, word)  # noqa: B023


def run(binary, *arguments):
    return subprocess.run(
        simulation(binary, *arguments), cwd=TOP, stdin=subprocess.DEVNULL, capture_output=True,
        text=True, timeout=100, check=False,
    )  # fmt: skip


def test_without_a_terminal_the_ports_are_listed(binary, describe):
    board = describe(CONTACTS["pin by name"] + spi("window", 1, 5) + port("relay", 2))
    done = run(binary, "--description", board)
    assert (done.returncode, done.stderr) == (0, "")
    for name in ("c", "window", "relay"):
        assert f" {name} " in done.stdout
    assert "All ports are in service." in done.stdout


def test_the_example_for_devices_is_such_a_board(binary):
    done = run(binary, "--description", TOP / "data/examples/conf.xml")
    assert (done.returncode, done.stderr) == (0, "")


@pytest.mark.parametrize(
    "text, finding",
    [
        ('<config>\n<port name="a">\n<backend name="gpoi"/></port></config>\n', ":3: "),
        ("<config>\n<port>\n</config>\n", ":2: error: Error on line 3 "),
    ],
    ids=["a word nobody knows", "not well-formed"],
)
def test_a_faulty_description_is_refused_with_its_line(binary, tmp_path, text, finding):
    file = tmp_path / "board.xml"
    file.write_text(text)
    done = run(binary, "--description", file)
    assert done.returncode == 1 and done.stdout == ""
    assert f"{file}{finding}" in done.stderr, done.stderr


def test_a_file_where_the_device_has_none_is_named(binary, describe):
    done = run(binary, "--description", describe(sysfs_input("a", 0, "/var/lib/flag")))
    assert done.returncode == 1
    assert "port a: /var/lib/flag lies in none of /sys/" in done.stderr


@pytest.mark.terminal
def test_the_live_view_shows_the_board(binary, describe):
    board = describe(CONTACTS["pin by name"] + spi("window", 1, 5))
    with Terminal(simulation(binary, "--description", str(board)), 100, 30) as terminal:
        terminal.wait_for("2 of 2 ports in service", "window")
        terminal.keys("Space")
        terminal.wait_for("port 0 c: on")
        terminal.keys("q")


def test_a_shell_on_the_board_names_the_files_to_turn(binary, describe):
    board = describe(CONTACTS["pin by name"])
    script = "echo 1 >/sys/class/gpio/DOOR/value; wexctl wait c on --timeout 60s && echo turned\n"
    done = subprocess.run(
        simulation(binary, "--shell", "--description", board), cwd=TOP, input=script,
        capture_output=True, text=True, timeout=100, check=False,
    )  # fmt: skip
    assert "turned" in done.stdout, done.stdout + done.stderr
