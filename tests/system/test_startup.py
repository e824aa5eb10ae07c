"""Start-up, signals and the end: what an operator sees of the daemon's life."""

import os
import re
import signal

import pytest
from describe import element, port

from sim.device import DROP_FOLDER, IMPORT_FILE, KEY_FILE, OLD_KEY_FILE, BusError
from sim.bus import STATE_NAME, wait_until
from sim.peers import IoBox, Witness
from sim.sandbox import BUS_SOCKET


def old_settings(**names):
    return "".join(
        f"[{name}]\noutput_name={shown}\noutput_activelow=false\npulse_time=1\n"
        f"port_mode=bistable\ndelay_time=0\nusage=old {name}\n"
        for name, shown in names.items()
    )


@pytest.mark.parametrize(
    "argv",
    [
        pytest.param((), id="no argument"),
        pytest.param(("--disable_legacy_interface",), id="the one option"),
        pytest.param(("--help",), id="an unknown option"),
        pytest.param(("anything", "--disable_legacy_interface", "x"), id="many arguments"),
    ],
)
def test_any_command_line_starts_the_daemon(device, argv):
    device.describe(port("a", 0))
    device.start(*argv)
    assert device.state.GetNbrPorts() == (0, 1)
    device.stop(0)


LEGACY_NAME = "com.norv.Configuration.Legacy.IOControl1.IOPort"
LEGACY_FILES = (
    "/etc/service_registry/services.d/wexd_service_registry.conf",
    "/etc/legacyconfig/legacymappings.d/wexd.xml",
)


@pytest.mark.parametrize(
    "argv, legacy",
    [
        pytest.param((), True, id="no argument"),
        pytest.param(("--disable_legacy_interface",), False, id="disabled"),
        pytest.param(("--disable_legacy_interface", "x"), False, id="disabled and more"),
        pytest.param(("x", "--disable_legacy_interface"), True, id="the option comes second"),
        pytest.param(("--disable_legacy_interface=1",), True, id="not exactly the option"),
        pytest.param(("",), True, id="an empty argument"),
    ],
)
def test_the_first_argument_alone_disables_the_legacy_interface(device, argv, legacy):
    device.describe(port("a", 0))
    device.start(*argv)
    assert [device.exists(file) for file in LEGACY_FILES] == [legacy, legacy]
    assert (device.first_client.owner(LEGACY_NAME) is not None) is legacy


def test_a_missing_description_leaves_a_daemon_without_ports(device):
    device.expect(r"^CRITICAL: Couldn't load XML \(/usr/share/wexd/conf\.xml\)")
    device.start()
    assert device.state.GetNbrPorts() == (0, 0)
    assert device.state.GetPortProps() == (0, [])


def test_a_broken_description_keeps_the_ports_before_the_error(device):
    device.expect(r"^CRITICAL: Couldn't parse markup file \(/usr/share/wexd/conf\.xml\)")
    device.describe(port("a", 0) + "</nonsense>" + port("b", 1))
    device.start()
    assert [entry.name for entry in device.port_list()] == ["a"]


def test_drop_in_files_are_read_after_a_missing_description(device):
    device.expect(r"^CRITICAL: Couldn't load XML")
    device.drop_in("more", port("a", 0))
    device.start()
    assert [entry.name for entry in device.port_list()] == ["a"]


def test_no_drop_folder_is_no_error(device):
    device.describe(port("a", 0))
    device.path(DROP_FOLDER).rmdir()
    device.start("--disable_legacy_interface")
    assert device.log_count("wexd.d") == 0
    assert [entry.name for entry in device.port_list()] == ["a"]


def test_sigterm_ends_the_daemon_with_status_0_and_releases_the_name(device):
    device.describe(port("a", 0))
    device.start()
    device.stop(0)
    assert device.log_count(r"^INFO: Got SIGTERM$") == 1
    assert device.first_client.owner(STATE_NAME) is None


def test_sighup_is_logged_and_changes_nothing(device):
    device.describe(port("a", 0))
    device.start()
    device.state.SetState(0, True)
    device.sync()
    changes, saved, lines = device.signals(), device.read(KEY_FILE), len(device.log)
    device.describe(port("b", 0))

    device.signal(signal.SIGHUP)
    device.wait_for_log(r"^INFO: Got SIGHUP$")
    device.signal(signal.SIGHUP)
    device.wait_for_log(r"^INFO: Got SIGHUP$", count=2)

    changes.assert_none()
    assert device.state.GetState(0) is True
    assert [entry.name for entry in device.port_list()] == ["a"]
    assert device.read(KEY_FILE) == saved
    assert len(device.log) == lines + 2


def test_old_settings_are_applied_saved_and_removed(device):
    device.describe(port("a", 0))
    device.write(OLD_KEY_FILE, old_settings(a="From of old"))
    device.start()
    assert device.state.GetNames(0) == ("", "From of old")
    assert not device.exists(OLD_KEY_FILE)
    assert device.saved["a"]["output_name"] == "From of old"
    assert device.saved["a"]["usage"] == "old a"


def test_settings_override_old_settings(device):
    device.describe(port("a", 0) + port("b", 1))
    device.write(OLD_KEY_FILE, old_settings(a="Old a", b="Old b"))
    device.settings(
        "[a]\noutput_name=New a\noutput_activelow=true\npulse_time=7\nport_mode=monostable\n"
        "delay_time=0\nusage=new a\n"
    )
    device.start()
    assert device.state.GetNames(0) == ("", "New a")
    assert device.state.GetUsage(0) == "new a"
    assert device.state.GetNames(1) == ("", "Old b")
    assert not device.exists(OLD_KEY_FILE)
    assert device.saved["a"]["output_name"] == "New a"
    assert device.saved["b"]["output_name"] == "Old b"


def test_old_settings_that_cannot_be_read_stay_where_they_are(device):
    device.describe(port("a", 0))
    device.write(OLD_KEY_FILE, "no key file\n")
    device.start()
    assert device.read(OLD_KEY_FILE) == "no key file\n"
    assert device.state.GetNames(0) == ("", "Port 1")
    assert device.stderr.count("Could not read key file: ") == 1


def test_a_folder_in_place_of_old_settings_is_left_alone(device):
    device.describe(port("a", 0))
    device.path(OLD_KEY_FILE).mkdir(parents=True)
    device.start()
    assert device.path(OLD_KEY_FILE).is_dir()
    assert "Could not read key file" not in device.stderr
    assert device.log_count("Could not remove") == 0


def test_old_settings_that_cannot_be_removed_are_applied_with_a_warning(ordinary_device):
    device = ordinary_device
    device.describe(port("a", 0))
    folder = device.write(OLD_KEY_FILE, old_settings(a="From of old")).parent
    folder.chmod(0o555)
    device.start()
    folder.chmod(0o755)
    assert device.log_count(
        rf"^WARNING: Could not remove {OLD_KEY_FILE}: Permission denied$"
    ) == 1
    assert device.exists(OLD_KEY_FILE)
    assert device.state.GetNames(0) == ("", "From of old")


def test_settings_that_cannot_be_read_end_the_daemon_with_status_1(device):
    device.describe(port("a", 0))
    device.write(OLD_KEY_FILE, old_settings(a="From of old"))
    device.settings("no key file\n")
    device.start(ready=False)
    device.wait_exit(1)
    assert device.log_count(r"^WARNING: Could not read configuration file$") == 1
    assert device.stderr.startswith("Could not read key file: ")
    assert device.first_client.owner(STATE_NAME) is None
    assert not device.exists(OLD_KEY_FILE), "the old settings are migrated before"
    assert device.read(KEY_FILE) == "no key file\n"


def test_the_description_is_read_before_the_settings(device):
    device.expect(r"^CRITICAL: Couldn't load XML")
    device.settings("no key file\n")
    device.start(ready=False)
    device.wait_exit(1)
    critical = next(n for n, line in enumerate(device.log) if "Couldn't load XML" in line)
    warning = next(n for n, line in enumerate(device.log) if "Could not read conf" in line)
    assert critical < warning


def test_a_folder_in_place_of_the_import_file_is_no_obstacle(device):
    device.describe(port("a", 0))
    device.path(IMPORT_FILE).mkdir()
    device.start()
    assert device.state.GetNbrPorts() == (0, 1)


def test_ports_are_saved_before_they_are_set_up(device):
    """A port that fails its set-up is gone, but its settings have been written."""
    device.describe(
        port("good", 0)
        + port("bad", 1, backend_attributes={"setup": "fail"})
        + port("absent", 2, optional="true", backend_attributes={"setup": "fail"})
    )
    device.start()
    assert list(device.ports()) == [0]
    assert device.saved["bad"]["output_name"] == "Port 2"
    assert device.saved["absent"]["output_name"] == "Port 3"


NO_BUS = {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/run/none"}


def test_without_a_bus_the_legacy_interface_ends_the_daemon(device):
    device.expect(r"^ERROR: Failed to connect to system bus: .")
    device.describe(port("a", 0))
    device.start(ready=False, environment=NO_BUS)
    device.wait_exit(128 + signal.SIGTRAP)


def test_without_a_bus_and_a_legacy_interface_the_daemon_runs(device):
    """The services' names are asked for without looking at the outcome."""
    device.describe(port("a", 0))
    device.start("--disable_legacy_interface", ready=False, environment=NO_BUS)
    wait_until(lambda: device.exists(KEY_FILE), "the first save")
    device.signal(signal.SIGHUP)
    device.wait_for_log(r"^INFO: Got SIGHUP$")
    device.stop(0)


def sockets(device):
    folder = f"/proc/{device.pid}/fd"
    return sum(os.readlink(f"{folder}/{fd}").startswith("socket:") for fd in os.listdir(folder))


def test_what_was_asked_at_the_start_leaves_no_connection_behind(device):
    device.describe(port("a", 0))
    device.start()
    alone = sockets(device)
    IoBox(device, states={"1": "closed"})
    device.describe(port("a", 0) + port("box", 1, "input", "iobox"))
    device.restart()
    assert sockets(device) == alone


LOST = r"^WARNING: Lost the connection to the bus: ."


@pytest.mark.parametrize("argv", [(), ("--disable_legacy_interface",)], ids=["legacy", "plain"])
def test_the_end_of_the_bus_ends_the_daemon_in_order_and_with_a_failure(device, argv):
    device.describe(port("a", 0) + port("b", 1) + element("first_virtual_input", nbr=10))
    device.start(*argv)
    device.state.SetState(0, True)
    device.state.StartActionSequence(1, False, [(True, 2_000_000)])
    device.sync()
    before = len(device.log)
    device.end_bus()
    device.wait_exit(status=1)
    told = [line for line in device.log[before:] if not line.startswith("MESSAGE: ")]
    assert len(told) == 1, told
    assert re.match(LOST, told[0])
    assert device.complaints == ""
    # The end of an orderly shutdown: the ports are freed and their events withdrawn.
    assert any("undeclare" in line for line in device.log[before:]), device.log[before:]


@pytest.mark.parametrize("replaced", [False, True], ids=["gone", "replaced"])
@pytest.mark.parametrize("argv", [(), ("--disable_legacy_interface",)], ids=["legacy", "plain"])
def test_the_end_of_the_bus_amid_the_start_ends_the_daemon_in_order(device, argv, replaced):
    """A box is asked meanwhile, whose ports would stay away from then on."""
    box = Witness(device, IoBox, {"GetIOBoxConnected": ("", "b", lambda: None)})
    device.describe(port("a", 0) + port("box", 1, "output", "iobox"))
    device.start(*argv, ready=False)
    wait_until(lambda: box.calls, "the question for the box")
    pid = device.pid
    os.kill(pid, signal.SIGSTOP)
    device.end_bus()
    if replaced:
        device.path(BUS_SOCKET).unlink()
        device.start_bus()
    os.kill(pid, signal.SIGCONT)
    device.wait_exit(status=1)
    assert device.log_count(LOST) == 1
    assert device.complaints == ""


def test_the_end_of_the_bus_amid_a_refresh_ends_the_daemon_in_order(device):
    """A box is asked meanwhile, and another port comes back, which makes the legacy objects anew."""
    attached = [True]
    box = Witness(device, IoBox, {
        "GetIOBoxConnected": ("", "b", lambda: (attached.pop(),) if attached else None),
        "GetIOBoxType": ("", "s", lambda: ("x5210",)),
        "GetIOPortStatus": ("i", "s", lambda number: ("enabled",)),
        "GetSupervised": ("i", "b", lambda number: (False,)),
        "SetIOMode": ("iis", "", lambda *arguments: ()),
    })  # fmt: skip
    optional = {"optional": "true"}
    device.describe(port("box", 1, "output", "iobox", **optional) + port("a", 0, **optional))
    device.start()
    assert sorted(device.state.DropIOPorts(["box", "a"])) == ["a", "box"]
    asked = len(box.calls)
    device.state.begin("RefreshIOPorts")
    wait_until(lambda: len(box.calls) > asked, "the question for the box")
    device.end_bus()
    device.wait_exit(status=1)
    assert device.log_count(LOST) == 1
    assert device.complaints == ""


def test_sigterm_beside_the_end_of_the_bus_is_told_as_what_it_is(device):
    device.describe(port("a", 0))
    device.start()
    pid = device.pid
    os.kill(pid, signal.SIGSTOP)
    device.end_bus()
    os.kill(pid, signal.SIGTERM)
    os.kill(pid, signal.SIGCONT)
    wait_until(lambda: not device.running, "the daemon's end")
    told = [line for line in device.log if line == "INFO: Got SIGTERM" or re.match(LOST, line)]
    assert 1 <= len(told) == len(set(told)), told
    # What it noticed first made it end.
    assert device.process.returncode == (1 if re.match(LOST, told[0]) else 0)


def test_a_second_daemon_does_not_take_the_name_away(device, make_device):
    """The name is asked for without replacement; the one who comes late goes on without it."""
    device.describe(port("a", 0))
    device.start()
    owner = device.first_client.owner(STATE_NAME)
    second = make_device()
    second.describe(port("b", 0))
    second.path("/run/dbus/system_bus_socket").unlink()
    second.path("/run/dbus/system_bus_socket").hardlink_to(
        device.path("/run/dbus/system_bus_socket")
    )
    second.start(ready=False)
    wait_until(lambda: second.exists(KEY_FILE), "the first save")
    second.signal(signal.SIGHUP)
    second.wait_for_log(r"^INFO: Got SIGHUP$")
    assert device.first_client.owner(STATE_NAME) == owner
    assert [entry.name for entry in device.port_list()] == ["a"]
    second.stop(0)


def test_a_port_unknown_to_the_daemon_is_an_error_not_a_crash(device):
    device.describe("")
    device.start()
    with pytest.raises(BusError, match="No such port."):
        device.state.GetState(0)
