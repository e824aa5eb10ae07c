"""`wexctl check` and the daemon make the same of a description."""

import re
import subprocess
import sys

import pytest
from conftest import TOP
from describe import element, port
from test_gpio_files import export

from sim.device import Device

IN, OUT, CTRL, SENSE = 17, 18, 19, 20
PINS = {"input": IN, "output": OUT, "io_ctrl": CTRL, "sio_ctrl": SENSE}


def findings(binary, description, tmp_path):
    """What check finds: [(severity, text)]."""
    file = tmp_path / "conf.xml"
    file.write_text(f"<config>{description}</config>")
    run = subprocess.run(
        [binary.parent / "wexctl", "check", file], capture_output=True, text=True, check=False
    )
    return [
        re.fullmatch(r".*?:\d+: (\w+): (.*)", line).groups() for line in run.stdout.splitlines()
    ]


def pins(*tags):
    return "".join(element(tag, pin=PINS[tag]) for tag in tags)


def wired(backend, kind, *tags, more=""):
    return port("p", 0, kind, backend, backend_inside=pins(*tags) + more)


KEY = element("keyvalue", key="k", value="1", type="money")
PLACEHOLDER = element("keyvalue", key="k", value="PORT_STATUS", type="double")

# What becomes of port 0: in service, not in service, or the end of the daemon.
CASES = {
    "gpio input": (wired("gpio", "input", "input"), "served"),
    "gpio input without its pin": (wired("gpio", "input", "output"), "gone"),
    "gpio output": (wired("gpio", "output", "output"), "served"),
    "gpio output without its pin": (wired("gpio", "output", "input", "io_ctrl"), "gone"),
    "gpio configurable": (wired("gpio", "io_ctrl", "input", "output", "io_ctrl"), "served"),
    "gpio configurable without switch": (wired("gpio", "io_ctrl", "input", "output"), "gone"),
    "gpio configurable without input": (wired("gpio", "io_ctrl", "output", "io_ctrl"), "gone"),
    "gpio pin without a word": (port("p", 0, "input", "gpio", backend_inside="<input/>"), "gone"),
    "spi output": (wired("spi", "output", "output"), "served"),
    "spi output with an input pin": (wired("spi", "output", "output", "input"), "gone"),
    "spi input without sio_ctrl": (wired("spi", "input", "input", "io_ctrl"), "ends"),
    "spi sio_ctrl without a word": (
        wired("spi", "input", "input", "io_ctrl", more="<sio_ctrl/>"), "ends"),
    "spi input without io_ctrl": (wired("spi", "input", "input", "sio_ctrl"), "gone"),
    "spi output of number 6": (
        port("p", 6, "output", "spi", backend_inside=pins("output")), "gone"),
    "iio input without sio_ctrl": (wired("iio", "input", "input", "io_ctrl"), "ends"),
    "iio output": (wired("iio", "output", "output"), "served"),
    "iio output without its pin": (wired("iio", "output", "io_ctrl"), "gone"),
    "iio-interrupt output": (wired("iio-interrupt", "output", "output"), "served"),
    "iio-interrupt output with an input pin": (
        wired("iio-interrupt", "output", "output", "input"), "gone"),
    "sysfs input": (port("p", 0, "input", "sysfs", backend_inside=element(
        "device", path="/tmp/bit", timeout=10)), "served"),
    "sysfs output": (port("p", 0, "output", "sysfs", backend_inside=element(
        "device", path="/tmp/bit", timeout=10)), "ends"),
    "sysfs of a type that is none": (port("p", 0, "Input", "sysfs", backend_inside=element(
        "device", path="/tmp/bit", timeout=10)), "served"),
    "a backend that is none": (port("p", 0, "input", "gpoi"), "gone"),
    "a key value of a type that is none": (
        port("p", 0, inside=element("event", KEY, declaration="Port")), "ends"),
    "a placeholder that is a double": (
        port("p", 0, inside=element("event", PLACEHOLDER, declaration="Port")), "ends"),
    "a key value of a built-in event": (
        port("p", 0, inside=element("event", KEY, declaration="IOPort")), "served"),
    "a refused range": (wired("spi", "output", "output", more=element(
        "range", state="open", lower=5, upper=4)), "served"),
}  # fmt: skip


def outcome(device):
    """What the daemon makes of the only port."""
    device.start(ready=False)
    try:
        device.wait_ready()
    except AssertionError:
        if device.running:
            raise
        return "ends"
    return "served" if device.ports() else "gone"


def foretold(found):
    text = "\n".join(f"{severity}: {text}" for severity, text in found)
    if "would end the daemon" in text:
        return "ends"
    lost = "cannot be set up|is dropped|spi ports have the numbers|would be pin 0"
    return "gone" if re.search(lost, text) else "served"


@pytest.mark.parametrize("case", CASES)
def test_the_check_foretells_what_the_daemon_does(binary, tmp_path, case):
    description, becomes = CASES[case]
    found = findings(binary, description, tmp_path)
    assert foretold(found) == becomes, found
    with Device(binary) as device:
        device.abandoned = True  # what its log says of a mistake is another test's matter
        for number in PINS.values():
            export(device, number)
        device.write("/tmp/bit", "0\n")
        device.describe(description)
        assert outcome(device) == becomes
        if device.running:
            device.stop()


SAID = {
    port("p", 0, "input", "gpoi"): (
        "warning", "there is no backend 'gpoi': did you mean \"gpio\"?"),
    port("p", 0, "input", "gpiu"): (
        "warning", "there is no backend 'gpiu': did you mean \"gpio\"?"),
    port("p", 0, "input", "pgio"): (
        "warning", "there is no backend 'pgio': did you mean \"gpio\"?"),
    port("p", 0, "input", "abacus"): ("warning", "there is no backend 'abacus', but virtual, gpio"),
    port("p", 0, "Input"): ("warning", "type of 'port_type': 'Input' is no value for it, input, "
                            "output or io_ctrl would be: did you mean \"input\"?"),
    port("p", 0, prot_mode="bistable"): (
        "warning", "unknown attribute 'prot_mode' of 'param_defaults' is ignored: did you mean "
        "\"port_mode\"?"),
    port("p", 0, inside="<evnet declaration='IOPort'/>"): (
        "warning", "unknown element 'evnet' is ignored: did you mean \"event\"?"),
    wired("gpio", "input", more=element("iput", pin=1)): (
        "warning", "unknown element 'iput' is ignored: did you mean \"input\"?"),
    port("p", 0, backend="abacus", backend_inside=element("evnet", declaration="IOPort")): (
        "warning", "unknown element 'evnet' is ignored: did you mean \"event\"?"),
    wired("gpio", "input", "output"): ("warning", "port 'p' has no 'input' pin and cannot be set up"),
    wired("spi", "input", "input", "output", "io_ctrl", "sio_ctrl"): (
        "warning", "port 'p': an input with an 'output' pin cannot be set up"),
    wired("spi", "input", "input", "io_ctrl", more="<sio_ctrl/>"): (
        "error", "port 'p': without a 'sio_ctrl' pin it would end the daemon"),
    wired("gpio", "input", more=element("input", inverted="true")): (
        "warning", "'input' has neither 'alias' nor 'pin' and would be pin 0"),
    wired("gpio", "input", more=element("input", pin=1, inverted="TRUE")): (
        "warning", "inverted of 'input': 'TRUE' is no true or false and counts as false"),
    port("p", 0, properties={"ioport": "true", "hidden": "yes"}): (
        "warning", "hidden of 'properties': 'yes' is no true or false and counts as false"),
    port("p", 0).replace('name="p"', 'hwid="B" name="p"') + port("q", 0): (
        "note", "number 0 is also that of "),
    wired("spi", "output", "output", more=element("range", state="open", lower=4)): (
        "warning", "a range without 'upper' is not added"),
    wired("spi", "output", "output", more=element("range", state="ajar", lower=4, upper=5)): (
        "warning", "a range of state 'ajar' is refused"),
    port("p", 0) + port("p", 1).replace('name="p"', 'number="1" name="p"'): (
        "warning", "a second port 'p' beside the one of "),
    port("p", 0, properties={"ioport": "false"}): (
        "note", "port 'p' is neither \"ioport\" nor \"virtual\": no client can address it"),
    port("p", 0, "input", "sysfs", backend_inside=element("device", path="/x", timeout=0)): (
        "warning", "port 'p' has the 'timeout' 0 and would be polled without pause"),
    port("p", 0, "input", "sysfs", backend_inside=element("device", path="/x", timeout="08")): (
        "warning", "timeout of 'device': '08' is no"),
    port("p", 0, "input", "spiadc", backend_inside=element("device", device="/x", timeout=5)
         + element("input", active_min=1)): ("warning", "'input' before any 'range' is ignored"),
    port("p", 0, inside=element("event", KEY, declaration="IOPort")): (
        "note", "a 'keyvalue' of 'IOPort' has no effect"),
    port("p", 0, inside=element("event", declaration="IOPort", input="yes")): (
        "warning", "input of 'event': 'yes' is no true or false and is ignored"),
    wired("iio-interrupt", "output", "output", more=element(
        "device", driver="d", cache_ad_value="no")): (
        "warning", "cache_ad_value of 'device': 'no' is no true or false and counts as true"),
}  # fmt: skip


@pytest.mark.parametrize("description", SAID, ids=[text for _, text in SAID.values()])
def test_the_check_says_what_is_wrong_and_what_would_be_right(binary, tmp_path, description):
    severity, text = SAID[description]
    found = findings(binary, description, tmp_path)
    assert any(kind == severity and words.startswith(text) for kind, words in found), found


RIGHT = {
    "words in any letter case": port("p", 0, dir="INPUT", port_mode="Bistable", button_type="NONE"),
    "properties of any name": port("p", 0, properties={"ioport": "TRUE", "own": "false"}),
    "numbers of any base": port("p", 0, "input", "sysfs", backend_inside=element(
        "device", path="/x", timeout="0x10")),
    "an address by any name": wired("spi", "output", "output", more=element("address", command="0xD0")),
    "bands": port("p", 0, "input", "spiadc", backend_inside=element(
        "device", device="/x", timeout="010") + "<range band='1'/>" + element("input", active_min=1)),
    "no pins in adc mode": port("p", 0, "input", "iio", backend_inside=element("device", mode="adc")),
    "whatever the check backend is told": port("p", 0, backend_inside="<any thing='1'/>"),
}  # fmt: skip


@pytest.mark.parametrize("case", RIGHT)
def test_the_check_says_nothing_of_what_is_right(binary, tmp_path, case):
    assert findings(binary, RIGHT[case], tmp_path) == []


def test_a_finding_names_the_line_where_its_tag_ends(binary, tmp_path):
    file = tmp_path / "conf.xml"
    file.write_text("<config>\n" + port("p", 0, inside="\n<colour\n red='1'/>\n") + "\n</config>\n")
    run = subprocess.run(
        [binary.parent / "wexctl", "check", file], capture_output=True, text=True, check=False
    )
    assert run.stdout.startswith(f"{file}:4: warning: unknown element 'colour'")


# -- a kind of hardware that is new ---------------------------------------------------------------


@pytest.fixture
def built(binary):
    """The programs of a build that has one more backend, `lamp`."""
    return {name: binary.parent / "tests" / f"{name}-new-backend"
            for name in ("wexd", "wexctl", "wexd-schema")}  # fmt: skip


def lamp(colour):
    return port("p", 0, "output", "lamp", backend_inside=element("bulb", colour=colour))


def test_a_new_backend_is_served(built):
    with Device(built["wexd"]) as device:
        device.describe(lamp("red"))
        device.start()
        device.state.SetState(0, True)
        assert device.state.GetState(0) is True


def test_a_new_backend_is_known_to_the_check(built, tmp_path):
    file = tmp_path / "conf.xml"
    for colour, said in (("red", ""), ("rad", "colour of 'bulb': 'rad' is no value for it, red or "
                                       "green would be: did you mean \"red\"?\n")):  # fmt: skip
        file.write_text(f"<config>{lamp(colour)}</config>")
        run = subprocess.run(
            [built["wexctl"], "check", file], capture_output=True, text=True, check=False
        )
        assert run.stdout.endswith(said) and bool(run.stdout) == bool(said), run.stdout


def test_a_new_backend_is_in_the_schema_and_the_man_page(built, tmp_path):
    schema = tmp_path / "schema.rng"
    schema.write_text(subprocess.run([built["wexd-schema"]], capture_output=True, text=True, check=True).stdout)
    for colour, status in (("red", 0), ("rad", 3)):
        file = tmp_path / "conf.xml"
        file.write_text(f"<config>{lamp(colour)}</config>")
        run = subprocess.run(["xmllint", "--noout", "--relaxng", schema, file],
                             capture_output=True, check=False)  # fmt: skip
        assert run.returncode == status, run.stderr
    page = subprocess.run(
        [sys.executable, TOP / "docs/man/wexd-hardware.5.py", schema, "1.0"],
        capture_output=True, text=True, check=True,
    ).stdout  # fmt: skip
    assert "## lamp\n\nA lamp that nobody sees.\n" in page
    assert "One of *red*, *green*. Colour of the lamp." in page
