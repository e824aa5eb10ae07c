"""What the daemon says, and what it still does, when the bus library refuses one thing."""

import signal

import pytest
from describe import element, port

from sim.bus import SUPERVISED_NAME, BusError
from sim.peers import Coordinator, IoBox, Streamer

pytestmark = pytest.mark.uninstrumented

LIBRARY = "/run/broken-bus.so"


@pytest.fixture(scope="session")
def library(preloadable):
    return preloadable("broken-bus.c", "gio-2.0")


@pytest.fixture
def start(make_device, library):
    """Starts the daemon on a bus that refuses one call."""

    def begin(call, text="", *, ports=None, peers=lambda device: None, ready=True):
        preload = (f"LD_PRELOAD={LIBRARY}", f"BROKEN_CALL={call}", f"BROKEN_TEXT={text}")
        device = make_device(wrapper=("env", *preload))
        device.write(LIBRARY, library.read_bytes())
        device.describe(ports or port("a", 0) + port("b", 1, optional="true"))
        peers(device)
        device.start(ready=ready)
        return device

    return begin


@pytest.mark.parametrize(
    "path, name, message",
    [
        ("IOControl/State", "com.norv.IOControl.State", "IOControl state"),
        ("IOControl/Manager", "com.norv.IOControl.State", "IOControl manager"),
        ("WXD/Connector", "com.norv.WXD.Connector", "Connector"),
        ("IOSupervised/Supervised", SUPERVISED_NAME, "supervised"),
    ],
)
def test_a_service_that_cannot_be_registered_is_a_warning(start, path, name, message):
    device = start("export", path)
    warning = rf"^WARNING: Failed to register {message} dbus interface$"
    device.expect(warning)
    assert device.log_count(warning) == 1
    # It goes on with its name, and the others answer.
    assert device.first_client.owner(name)
    answered = 0
    for ask in (device.state.GetNbrPorts, device.supervision.GetNumberOfPorts):
        try:
            ask()
            answered += 1
        except BusError as error:
            assert "UnknownMethod" in error.name
    assert answered == (1 if "State" in path or "Supervised" in path else 2)


def test_legacy_objects_that_cannot_be_registered_end_the_daemon(start):
    device = start("register", "Legacy/IOControl", ready=False)
    device.wait_exit(128 + signal.SIGTRAP)
    device.expect(r"^ERROR: Unable to register objects on DBus$")
    assert device.log_count(r"^ERROR: Unable to register objects on DBus$") == 1
    assert ': Error: "broken on purpose" when registering DBUS object for port ' in device.stderr


def test_legacy_objects_that_cannot_be_unregistered_are_told(start):
    device = start("unregister")
    assert device.state.DropIOPorts(["b"]) == ["b"]
    assert device.stderr.count("@660: Failed to unregister object\n") > 0
    assert [entry.name for entry in device.port_list()] == ["a"]


def test_a_legacy_name_that_cannot_be_requested_ends_the_daemon(start):
    device = start("call", "RequestName", ready=False)
    device.wait_exit(128 + signal.SIGTRAP)
    device.expect(r"^ERROR: Could not request name: broken on purpose$")
    assert device.log_count(r"^ERROR: Could not request name: broken on purpose$") == 1


def test_a_legacy_name_that_cannot_be_released_is_a_warning(start):
    device = start("call", "ReleaseName")
    warning = r"^WARNING: Could not release DBus name: broken on purpose$"
    device.expect(warning)
    assert device.state.DropIOPorts(["b"]) == ["b"]
    device.sync()
    assert device.log_count(warning) == 1


def video_and_ptz(device):
    Streamer(device, channels=[True])
    Coordinator(device, enabled=True)


@pytest.mark.parametrize("name", ["com.norv.Streamer", "com.norv.PTZ.Coordinator"])
def test_a_proxy_that_cannot_be_made_leaves_the_daemon_without_that_peer(start, name):
    ports = port("a", 0) + element("first_virtual_input", nbr=8)
    device = start("proxy", name, ports=ports, peers=video_and_ptz)
    warning = r"^WARNING: Error creating proxy: broken on purpose$"
    device.expect(warning)
    device.wait_for_log(warning)  # nobody waits for these peers, so the services come first
    device.sync()
    assert device.log_count(warning) == 1
    assert device.state.GetNbrPorts() == (0, 1)


def test_the_boxs_proxy_that_cannot_be_made_fails_its_ports(start):
    ports = port("a", 0) + port("box", 1, "input", "iobox", optional="true")
    device = start("proxy", IoBox.NAME, ports=ports, peers=IoBox)
    assert device.log_count(rf"iobox_port_setup@192: Proxy for {IoBox.NAME} not available$") == 1
    assert [entry.name for entry in device.port_list()] == ["a"]


def test_a_proxy_that_cannot_be_made_anew_leaves_its_ports_without_their_service(start):
    """The start's proxies are made anew for the connection that counts from then on."""
    ports = port("box", 1, "input", "iobox")
    warning = rf"^WARNING: Error creating proxy to {IoBox.NAME}: broken on purpose"
    device = start("renew", IoBox.NAME, ports=ports,
                   peers=lambda device: IoBox(device, states={"1": "closed"}))  # fmt: skip
    device.expect(warning)
    assert device.log_count(warning) == 1
    assert device.state.GetState(1) is False


def test_the_boot_blocks_proxy_that_cannot_be_made_keeps_the_port(start):
    inside = (
        element("port_no", nbr=0) + element("properties", ioport="true")
        + element("backend", name="null")
    )  # fmt: skip
    ports = element("port", inside, hwid="A1", name="a")
    device = start("proxy", "com.norv.PolicyKitSystem", ports=ports)
    device.expect(r"^WARNING: Could not get the hardware id$")
    assert device.log_count(r"^USER: Failed to setup proxy: broken on purpose$") == 1
    assert [entry.name for entry in device.port_list()] == ["a"]
