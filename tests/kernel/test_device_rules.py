"""The rules for device files that are installed, applied by the real device manager: with them the
daemon's user takes hardware again that it has dropped, in the unit's sandbox."""

import grp
import pathlib
import re
import subprocess

import pytest

import chips
from chips import ADC_LE12, PLAIN, WIDE
from gpio_ports import gpio_input, gpio_output
from sim.bus import wait_until
from supervised_ports import IIO, IIO_INTERRUPT, SPI, Supervision

pytestmark = pytest.mark.pins

RULES = pathlib.Path("/bench/60-wexd.rules")


def manage(*arguments):
    subprocess.run(["/usr/bin/udevadm", *arguments], check=True)


def settle():
    # By itself it gives up after two minutes, which a busy machine may need for its emulated one.
    manage("settle", "--timeout=600")


@pytest.fixture
def device(make_device):
    return make_device(confined=True)


@pytest.fixture
def rules(device):
    """A device manager with our rules and no others, and only the hardware of these tests: either
    costs seconds on the emulated machine."""
    for spare in {*chips.CHIPS, *chips.ADCS} - {PLAIN, WIDE, ADC_LE12}:
        spare.unplug()
    folder = pathlib.Path("/run/udev/rules.d")
    folder.mkdir(parents=True, exist_ok=True)
    (folder / RULES.name).write_text(RULES.read_text())
    others = [*pathlib.Path("/usr/lib/udev/rules.d").glob("*.rules")]
    for other in others:
        (folder / other.name).symlink_to("/dev/null")
    # Returns once it listens. What a rule runs for longer than the limit is killed: see settle().
    udevd = "/usr/lib/systemd/systemd-udevd"
    subprocess.run([udevd, "--daemon", "--event-timeout=600"], check=True)
    try:
        matches = (f"--subsystem-match={name}" for name in ("gpio", "iio", "spidev"))
        manage("trigger", "--action=add", *matches)
        settle()
        yield
    finally:
        manage("control", "--exit")
        for rule in folder.iterdir():
            rule.unlink()


def ports():
    return gpio_input("sensor", 0, PLAIN[1], optional="true") + gpio_output(
        "relay", 1, PLAIN[3], optional="true"
    )


def test_only_what_drives_hardware_is_open_in_sys(device):
    device.describe(ports())
    device.start()
    mounts = pathlib.Path(f"/proc/{device.pid}/mounts").read_text().splitlines()
    modes = {line.split()[1]: line.split()[3].split(",")[0] for line in mounts}
    assert {modes[place] for place in ("/", "/sys", "/etc")} == {"ro"}
    assert {modes[place] for place in ("/sys/devices", "/sys/kernel/config")} == {"rw"}


def test_the_daemons_user_takes_dropped_pins_again(device, rules):
    device.describe(ports())
    device.start()
    settle()
    assert set(device.state.DropIOPorts(["sensor", "relay"])) == {"sensor", "relay"}
    assert device.ports() == {}
    assert not PLAIN[1].taken and not PLAIN[3].taken
    device.state.RefreshIOPorts()
    assert sorted(device.ports()) == [0, 1]
    device.state.SetState(1, True)
    assert PLAIN[3].driven_levels[-1] == 1


def test_without_the_rules_dropped_pins_stay_away(device):
    device.describe(gpio_input("sensor", 0, PLAIN[1], optional="true"))
    device.start()
    assert device.state.DropIOPorts(["sensor"]) == ["sensor"]
    device.state.RefreshIOPorts()
    assert device.ports() == {}


def test_a_pin_that_was_never_taken_is_there_with_the_first_refresh(device, rules):
    device.describe(ports())
    PLAIN[1].refuse_requests()
    device.start()
    assert sorted(device.ports()) == [1]
    PLAIN[1].refuse_requests(False)
    device.state.RefreshIOPorts()
    assert sorted(device.ports()) == [0, 1]


def test_what_the_rules_run_for_chips_and_pins_finds_its_files_on_any_kernel():
    PLAIN[1].leave_at(0)
    commands = re.findall(r"""SUBSYSTEM=="gpio".*?RUN\+="/bin/sh -c '(.*?)'\"""", RULES.read_text(), re.DOTALL)
    assert len(commands) == 2
    run = subprocess.run(["/bin/sh", "-c", commands[0]], capture_output=True, text=True, check=False)
    assert (run.returncode, run.stderr) == (0, "")


def test_the_daemons_user_may_open_chips(rules):
    group = grp.getgrnam("wxd").gr_gid
    nodes = [*pathlib.Path("/dev").glob("gpiochip*")]
    assert len(nodes) == 2
    for node in nodes:
        status = node.stat()
        assert (status.st_gid, status.st_mode & 0o777) == (group, 0o660), node


@pytest.mark.parametrize("kind", [SPI, IIO, IIO_INTERRUPT], ids=repr)
def test_the_daemons_user_takes_dropped_converters_again(device, rules, kind):
    device.describe(kind.port(optional="true"))
    device.start()
    settle()
    supervision = Supervision(device)
    assert device.state.DropIOPorts(["zone"]) == ["zone"]
    device.state.RefreshIOPorts()
    assert list(device.ports()) == [0]
    supervision.SetSupervised(0, True)
    for state in ("cut", "closed"):
        kind.show(state)
        wait_until(
            lambda state=state: supervision.GetSupervisedReadout(0)[0] == state, state
        )
    assert device.log_count("^WARNING") == 0
