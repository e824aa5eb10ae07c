"""How the daemon is: the properties and methods that tell it, `wexctl status`, and systemd's line."""

import datetime
import os
import re
import socket

import pytest
from client import Client, done
from describe import element, failing, port
from gi.repository import GLib
from test_gpio_files import export

from sim.bus import BusError, PortChanged, wait_until
from sim.peers import BootBlock, IoBox, Streamer

MANAGER = "com.norv.IOControl.Manager1"
LONG = 2_000_000  # milliseconds


def status(wexctl):
    return done(wexctl("status", "--json")).json


def ports(wexctl):
    told = status(wexctl)
    return told["ports_in_service"], told["ports"], [entry["name"] for entry in told["missing"]]


@pytest.fixture
def daemon(device):
    device.describe(
        port("door", 0, "input")
        + port("relay", 1, optional="true")
        + failing("loop", 2, optional="true")
        + failing("siren", 3)
        + port("double", 1)
        + element("first_virtual_input", nbr=9)
    )
    device.streamer = Streamer(device, channels=[True])
    return device.start()


def test_the_count_is_of_the_description(daemon, wexctl):
    daemon.wait_for_log("event declare .*ManualTrigger")
    assert ports(wexctl) == (2, 5, ["relay", "loop", "siren"])
    reasons = {entry["name"]: entry for entry in status(wexctl)["missing"]}
    assert reasons["relay"]["reason"] == "another port has its number"
    assert reasons["loop"]["optional"] is True and reasons["siren"]["optional"] is False


def test_ports_for_other_hardware_do_not_count(device, wexctl):
    BootBlock(device, "A1")
    other = element("port", element("port_no", nbr=7) + element("backend", name="null"),
                    hwid="B2", name="other")  # fmt: skip
    device.describe(port("mine", 0) + other)
    device.start()
    assert ports(wexctl) == (1, 1, [])


def test_a_drop_and_a_refresh_are_followed_and_announced(device, wexctl):
    device.describe(port("relay", 1, optional="true") + port("lamp", 2))
    device.start()
    changes = device.signals("org.freedesktop.DBus.Properties", "/com/norv/IOControl/Manager")
    device.state.DropIOPorts(["relay"])
    assert ports(wexctl) == (1, 2, ["relay"])
    assert status(wexctl)["missing"][0]["reason"] == "it was dropped"
    device.state.RefreshIOPorts()
    assert ports(wexctl) == (2, 2, [])
    wait_until(lambda: len(changes.pending) >= 2, "the announcements")
    told = [change.values[1]["PortsInService"] for change in changes.take()]
    assert told == [1, 2]


def test_why_a_port_is_missing_is_what_its_set_up_said_first(device, wexctl):
    pin = element("input", pin=17)
    device.describe(port("door", 0, "input", "gpio", backend_inside=pin, optional="true"))
    device.start()
    (missing,) = status(wexctl)["missing"]
    assert missing["reason"] == "Failed to allocate pin 17/(null)"
    export(device, 17)
    device.state.RefreshIOPorts()
    assert ports(wexctl) == (1, 1, [])


def test_a_port_without_a_backend_is_missing(device, wexctl):
    device.describe(port("a", 0) + port("b", 1, backend="steam"))
    device.start()
    assert ports(wexctl) == (1, 2, ["b"])


def test_sequences_that_run_are_told(daemon, wexctl):
    assert status(wexctl)["sequences"] == []
    signals = daemon.signals()
    daemon.state.StartActionSequence(1, False, [(True, LONG)])
    daemon.state.StartActionSequence(0, True, [(True, LONG)])
    signals.wait_for(PortChanged, port=0)
    assert status(wexctl)["sequences"] == [0, 1]
    assert "  running       sequences on ports 0, 1\n" in done(wexctl("status")).out
    daemon.manager.StopSequence(1)
    assert status(wexctl)["sequences"] == [0]
    assert "  running       a sequence on port 0\n" in done(wexctl("status")).out


def test_services_are_told_that_are_there(daemon, wexctl):
    services = {entry["name"]: entry["there"] for entry in status(wexctl)["services"]}
    assert services["com.norv.Streamer"] is True
    assert services["com.norv.IOBoxMonitor"] is False
    IoBox(daemon, states={})
    services = {entry["name"]: entry["there"] for entry in status(wexctl)["services"]}
    assert services["com.norv.IOBoxMonitor"] is True
    assert len(services) == 6


def test_a_failed_save_is_told_until_it_is_made_good_and_after(ordinary_device, binary):
    device = ordinary_device
    device.describe(port("relay", 1))
    device.expect(r"^CRITICAL: param_save_for_port: assertion 'param_read_configuration\(file\)' failed$")
    device.start()
    wexctl = Client(device, binary)
    assert status(wexctl)["last_failed_save"] is None
    folder = device.path("/etc/wexd")
    file = device.path("/etc/wexd/wexd.conf")
    file.unlink()
    file.mkdir()
    device.state.SetUsage(1, "unsaved")
    wait_until(lambda: status(wexctl)["last_failed_save"], "the failed save")
    failed = status(wexctl)["last_failed_save"]
    assert failed["made_good"] is False and "regular file" in failed["reason"], folder
    told = f"  failed save   {failed['time']}: {failed['reason']}; "
    assert f"{told}not saved yet\n" in done(wexctl("status")).out
    file.rmdir()
    device.state.SetUsage(1, "saved")
    wait_until(lambda: status(wexctl)["last_failed_save"]["made_good"], "the save")
    assert status(wexctl)["last_failed_save"]["reason"] == failed["reason"]
    assert f"{told}saved since\n" in done(wexctl("status")).out


def test_names_version_and_age(daemon, wexctl):
    told = status(wexctl)
    assert done(wexctl("--version")).out.strip() == told["version"]
    assert "com.norv.IOControl.State" in told["bus_names"] and len(told["bus_names"]) == 4
    for name in told["bus_names"]:
        assert daemon.first_client.owner(name)
    age = datetime.datetime.now(datetime.timezone.utc) - datetime.datetime.fromisoformat(told["started"])
    assert -2 < age.total_seconds() < 600
    daemon.restart("--disable_legacy_interface")
    assert len(status(wexctl)["bus_names"]) == 3


def test_people_are_told_the_same(daemon, wexctl):
    out = done(wexctl("status")).out
    assert re.match(r"wexd \d\S*, since \d{4}-\d\d-\d\dT", out)
    assert "  ports         2 of 5 in service\n" in out
    assert "  missing       port 1 relay (optional): another port has its number\n" in out
    assert "  running       no sequence\n" in out
    assert "  service       com.norv.Streamer there\n" in out
    assert "  failed save   none\n" in out


def test_nobody_changes_a_property(daemon):
    with pytest.raises(BusError):
        daemon.first_client.call(
            "com.norv.IOControl.State", "/com/norv/IOControl/Manager",
            "org.freedesktop.DBus.Properties", "Set", "ssv", MANAGER, "Ports",
            GLib.Variant("u", 3),
        )  # fmt: skip


@pytest.fixture
def told(device):
    """What a service manager is told, line by line."""
    receiver = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    path = device.path("/run/notify")
    receiver.bind(str(path))
    os.chmod(path, 0o666)
    receiver.setblocking(False)
    lines = []

    def last():
        try:
            while True:
                lines.append(receiver.recv(4096).decode())
        except BlockingIOError:
            return lines[-1] if lines else None

    yield last
    receiver.close()


def test_systemd_is_told_how_many_ports_are_in_service(device, told):
    device.describe(
        port("relay", 1, optional="true") + failing("loop", 2, optional="true") + port("lamp", 3)
    )
    device.start(environment={"NOTIFY_SOCKET": "/run/notify"})
    wait_until(lambda: told() == "STATUS=2 of 3 ports in service; missing: loop", "the first word")
    device.state.DropIOPorts(["relay"])
    wait_until(lambda: told() == "STATUS=1 of 3 ports in service; missing: relay, loop", "the drop")
    device.state.RefreshIOPorts()
    wait_until(lambda: told() == "STATUS=2 of 3 ports in service; missing: loop", "the refresh")


@pytest.mark.parametrize("name", ["/nowhere", "@nobody", "nonsense", "", "/" + "x" * 200])
def test_a_service_manager_that_does_not_listen_is_no_trouble(device, name):
    device.describe(port("relay", 1))
    device.start(environment={"NOTIFY_SOCKET": name})
    assert device.log_count("^WARNING") == 0
