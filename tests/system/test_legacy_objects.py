"""Which legacy objects there are, under which name, and how they follow the ports."""

import subprocess

import pytest
from describe import element, port
from legacy import BASE, INPUT, IOPORT, NAME, OUTPUT, PROPERTIES, Legacy, bytestring, path
from sim.bus import BusError, wait_until

PORTS = (
    port("in", 0, "input")
    + port("out", 1, "output")
    + port("both", 2, "io_ctrl")
    + port("extra", 3, "output", optional="true")
    + port("trigger", 7, "output", properties="virtual")
)


def start(device, ports=PORTS, first_virtual=5, *argv):
    device.describe(ports + element("first_virtual_input", nbr=first_virtual))
    device.start(*argv)
    return Legacy(device)


def children(device):
    import xml.etree.ElementTree as ElementTree

    xml = device.first_client.call(
        NAME, BASE, "org.freedesktop.DBus.Introspectable", "Introspect"
    )
    return [node.get("name") for node in ElementTree.fromstring(xml).findall("node")]


def test_each_kind_of_port_has_its_interfaces(device):
    legacy = start(device)
    assert set(legacy.interfaces(0)) == {IOPORT, INPUT}
    assert set(legacy.interfaces(1)) == {IOPORT, OUTPUT}
    assert set(legacy.interfaces(2)) == {IOPORT, INPUT, OUTPUT}


def test_ports_from_the_first_virtual_number_on_have_no_object(device):
    start(device)
    assert sorted(children(device)) == ["0", "1", "2", "3"]


@pytest.mark.parametrize("first_virtual, expected", [(1, ["0"]), (2, ["0", "1"]), (8, None)])
def test_the_first_virtual_number_bounds_the_objects(device, first_virtual, expected):
    start(device, first_virtual=first_virtual)
    assert sorted(children(device)) == (expected or ["0", "1", "2", "3", "7"])


@pytest.mark.parametrize("first_virtual", [0, -3])
def test_a_first_virtual_number_below_1_leaves_no_object(device, first_virtual):
    start(device, first_virtual=first_virtual)
    with pytest.raises(BusError):
        Legacy(device).get(0, IOPORT, "NbrOfInputs")
    assert device.first_client.owner(NAME)


def test_a_huge_first_virtual_number_costs_nothing(device):
    legacy = start(device, first_virtual=2**31 - 1)
    assert legacy.get(0, IOPORT, "ManualTriggerNbr") == -(2**31)


def test_the_name_is_owned_and_given_back(device):
    start(device)
    assert device.first_client.owner(NAME)
    device.stop()
    assert device.first_client.owner(NAME) is None


def test_another_owner_of_the_name_is_no_error(device):
    client = device.client()
    client.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                "RequestName", "su", NAME, 0)  # fmt: skip
    start(device)
    assert device.first_client.owner(NAME) == client.connection.get_unique_name()
    client.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                "ReleaseName", "s", NAME)  # fmt: skip
    wait_until(lambda: device.first_client.owner(NAME), "the queued daemon to own the name")
    assert Legacy(device).get(0, IOPORT, "NbrOfInputs") == 2


def test_the_option_switches_all_of_it_off(device):
    start(device, PORTS, 5, "--disable_legacy_interface")
    assert device.first_client.owner(NAME) is None
    assert not device.exists("/etc/legacyconfig/legacymappings.d/wexd.xml")
    assert device.log_count("config-event") == 0


def test_counts_are_told_when_the_interface_comes(device):
    start(device)
    lines = [line.split("config-event ")[1] for line in device.log if "config-event" in line]
    address = f"producer=wexd interface={IOPORT} path={path(0)}"
    assert lines == [
        f"declare {address}",
        f"change {address} kind=3 NbrOfInputs=2",
        f"change {address} kind=3 NbrOfOutputs=2",
    ]
    device.stop()
    assert device.log_count(f"config-event undeclare {address}") == 1


def test_a_dropped_port_takes_its_object_along_and_a_refresh_brings_it_back(device):
    start(device)
    for _ in range(3):
        assert device.state.DropIOPorts(["extra"]) == ["extra"]
        assert sorted(children(device)) == ["0", "1", "2"]
        device.state.RefreshIOPorts()
        assert sorted(children(device)) == ["0", "1", "2", "3"]
    assert device.log_count("config-event declare") == 7
    assert device.log_count("config-event undeclare") == 6


def test_writes_that_wait_while_the_objects_are_rebuilt_are_all_answered(device):
    start(device)
    answers = set()
    for number in range(20):
        change = ("RefreshIOPorts",) if number % 2 else ("DropIOPorts", ["extra"])
        rebuild = device.state.begin(*change)
        writes = [
            device.first_client.begin(
                NAME, path(1), PROPERTIES, "Set", "ssv", IOPORT, "Usage", bytestring("door")
            )
            for _ in range(20)
        ]
        rebuild.wait()
        for write in writes:
            try:
                answers.add(write.wait())
            except BusError as error:
                answers.add(error.name.rpartition(".")[2])
    # Whoever comes too early for the new object is told so.
    assert answers <= {None, "UnknownMethod", "ServiceUnknown", "NameHasNoOwner"}
    assert device.running


def test_nothing_is_rebuilt_when_nothing_was_dropped(device):
    start(device)
    assert device.state.DropIOPorts(["in", "nobody"]) == []
    device.state.RefreshIOPorts()
    assert device.log_count("config-event declare") == 1


def run(device, *command):
    return subprocess.run(
        command,
        env={"PATH": "/usr/bin:/bin", "DBUS_SYSTEM_BUS_ADDRESS": device.bus_address},
        capture_output=True, text=True, check=True, timeout=20,
    ).stdout  # fmt: skip


def test_busctl_reads_and_writes_it(device):
    start(device)
    shown = run(device, "busctl", "--system", "introspect", NAME, path(2))
    for word in (IOPORT, INPUT, OUTPUT, ".Direction", ".PulseTime"):
        assert word in shown
    run(device, "busctl", "--system", "set-property", NAME, path(1), OUTPUT, "PulseTime", "i", "8")
    assert run(
        device, "busctl", "--system", "get-property", NAME, path(1), OUTPUT, "PulseTime"
    ) == "i 8\n"  # fmt: skip
    run(device, "busctl", "--system", "set-property", NAME, path(0), INPUT, "Name", "ay",
        "3", "72", "105", "0")  # fmt: skip
    assert run(device, "gdbus", "call", "--system", "--dest", NAME, "--object-path", path(0),
               "--method", "org.freedesktop.DBus.Properties.Get", INPUT, "Name",
               ) == "(<'Hi'>,)\n"  # fmt: skip


def test_gdbus_monitors_it(device, tmp_path):
    start(device)
    seen = tmp_path / "seen"

    def told():
        # It says that it listens before it asks the bus for signals.
        for usage in ("unseen", "seen"):
            device.state.SetUsage(0, usage)
        return any(
            "PropertiesChanged" in line and path(0) in line and "'Usage': <b'seen'>" in line
            for line in seen.read_text().splitlines()
        )

    with seen.open("w") as output, subprocess.Popen(
        ["gdbus", "monitor", "--system", "--dest", NAME],
        env={"PATH": "/usr/bin:/bin", "DBUS_SYSTEM_BUS_ADDRESS": device.bus_address},
        stdout=output,
    ) as monitor:  # fmt: skip
        try:
            wait_until(lambda: "is owned by" in seen.read_text(), "the monitor to listen")
            wait_until(told, lambda: f"the change among {seen.read_text()}")
        finally:
            monitor.terminate()
