"""Which user the daemon is, what it may still do, and who owns what it writes."""

import os
import pathlib
import signal

import pytest
from describe import port

from sim.bus import SERVICE_NAMES, PortChanged, wait_until
from sim.device import KEY_FILE
from sim.peers import BootBlock, IoBox, Witness, ZWave
from sim.sandbox import HELPERS_GID, WXD_GID, WXD_UID, child_of

as_root = pytest.mark.root

RELAY = port("relay", 0)


def identity(device):
    """The lines of /proc/PID/status by their label, each as a list of words."""
    with open(f"/proc/{device.pid}/status", encoding="ascii") as status:
        return {line.split(":")[0]: line.split(":")[1].split() for line in status}


def owner(device, inside):
    status = os.stat(device.path(inside))
    return status.st_uid, status.st_gid


@as_root
def test_after_the_start_the_daemon_is_the_unprivileged_user(device):
    device.describe(RELAY)
    device.start()
    status = identity(device)
    assert status["Uid"] == [str(WXD_UID)] * 4
    assert status["Gid"] == [str(WXD_GID)] * 4
    assert sorted(status["Groups"]) == sorted([str(WXD_GID), str(HELPERS_GID)])
    for capabilities in ("CapInh", "CapPrm", "CapEff", "CapAmb"):
        assert int(status[capabilities][0], 16) == 0, capabilities
    assert device.stderr == ""


@as_root
def test_capabilities_that_a_careless_starter_made_inheritable_go_too(make_device):
    device = make_device(inheritable=["chown", "dac_override", "setuid"])
    device.describe(RELAY)
    device.start()
    status = identity(device)
    assert status["Uid"] == [str(WXD_UID)] * 4
    for capabilities in ("CapInh", "CapPrm", "CapEff", "CapAmb"):
        assert int(status[capabilities][0], 16) == 0, capabilities


LEGACY_NAME = "com.norv.Configuration.Legacy.IOControl1.IOPort"


def user_of(device, name):
    return device.first_client.call(
        "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetConnectionUnixUser", "s", name,
    )  # fmt: skip


def boot_block(device):
    return BootBlock(device, "ABC")


@as_root
@pytest.mark.parametrize(
    "ports, peer",
    [
        pytest.param(RELAY, None, id="of the device alone"),
        pytest.param(port("box", 1, "output", "iobox"), IoBox, id="of an IO box"),
        pytest.param(port("far", 1, "input", "zwave"), ZWave, id="of a Z-Wave device"),
        pytest.param(
            RELAY.replace("<port ", '<port hwid="A" ', 1), boot_block, id="for certain hardware"
        ),
    ],
)
def test_the_services_are_published_as_the_unprivileged_user(device, ports, peer):
    if peer is not None:
        peer(device)
    device.describe(ports)
    device.start()
    assert len(device.port_list()) == 1
    assert {user_of(device, name) for name in (*SERVICE_NAMES, LEGACY_NAME)} == {WXD_UID}


def play_box(device, told):
    """An IO box whose ports are all open; `told` is called with the number of each port asked for."""

    def state(number):
        told(number)
        return ("open",)

    return Witness(device, IoBox, {
        "GetIOBoxConnected": ("", "b", lambda: (True,)),
        "GetIOBoxType": ("", "s", lambda: ("x5210",)),
        "GetIOPortStatus": ("i", "s", lambda number: ("enabled",)),
        "GetSupervised": ("i", "b", lambda number: (False,)),
        "GetIOState": ("i", "s", state),
        "SetIOMode": ("iis", "", lambda *arguments: ()),
    })  # fmt: skip


SET_UP = ["GetIOBoxConnected", "GetIOBoxType", "GetIOPortStatus", "GetSupervised"]


@as_root
def test_a_box_is_set_up_by_root_and_driven_by_the_unprivileged_user(device):
    box = play_box(device, told=lambda number: None)
    device.describe(port("in", 1, "input", "iobox") + port("out", 2, "output", "iobox"))
    device.start()
    device.state.SetState(2, True)
    # Each question is asked once, the port that was described last first.
    assert [(user, method) for user, method, _ in box.calls] == [
        *((0, method) for method in [*SET_UP, "SetIOMode", *SET_UP, "GetIOState"]),
        (WXD_UID, "SetIOMode"),
    ]
    signals = device.signals()
    box.emit("IOStateChanged", "is", 1, "closed")
    signals.wait_for(PortChanged, port=1, state=True)


@as_root
def test_a_z_wave_device_is_set_up_by_root_and_driven_by_the_unprivileged_user(device):
    peer = Witness(device, ZWave, {
        "GetStateByPort": ("i", "b", lambda number: (False,)),
        "SetStateByPort": ("ib", "", lambda *arguments: ()),
    })  # fmt: skip
    device.describe(port("in", 1, "input", "zwave") + port("out", 2, "output", "zwave"))
    device.start()
    device.state.SetState(2, True)
    assert peer.calls == [
        (0, "SetStateByPort", (2, False)),
        (0, "GetStateByPort", (1,)),
        (WXD_UID, "SetStateByPort", (2, True)),
    ]
    signals = device.signals()
    peer.emit("StateChangedByPort", "ib", 1, True)
    signals.wait_for(PortChanged, port=1, state=True)
    peer.vanish()
    peer.appear()
    device.sync()
    wait_until(lambda: len(peer.calls) == 5, "the service to be asked and told again")
    assert {user for user, _, _ in peer.calls[3:]} == {WXD_UID}


def test_what_a_box_tells_during_the_start_is_not_lost(device):
    """The first port to be set up changes while the box is asked about the second."""

    def told(number):
        if number == 0:
            for state in ("closed", "open", "closed"):
                box.emit("IOStateChanged", "is", 1, state)

    box = play_box(device, told)
    device.describe(port("late", 0, "input", "iobox") + port("early", 1, "input", "iobox"))
    device.start()
    assert device.state.GetState(1) is True
    assert device.state.GetState(0) is False


def test_a_z_wave_service_that_vanishes_during_the_start_is_missed_and_met_again(device):
    """It gives up its name while another port is asked about at its own service."""
    peer = Witness(device, ZWave, {"GetStateByPort": ("i", "b", lambda number: (True,))})
    play_box(device, told=lambda number: peer.vanish())
    device.describe(port("late", 0, "input", "iobox") + port("early", 1, "input", "zwave"))
    device.start()
    assert peer.asked("GetStateByPort") == [(1,)]
    assert device.state.GetState(1) is False
    peer.appear()
    wait_until(lambda: device.state.GetState(1) is True, "the state of the service that is back")


@as_root
@pytest.mark.parametrize("inheritable", [(), ("chown", "dac_override", "setuid")])
def test_every_thread_has_lost_its_rights(make_device, inheritable):
    """Those of the bus library, which the set-up of the box started as root, too."""
    device = make_device(inheritable=inheritable)
    IoBox(device)
    device.describe(RELAY + port("box", 1, "output", "iobox"))
    device.start()
    device.state.StartActionSequence(0, False, [(True, 2_000_000)])
    tasks = os.listdir(f"/proc/{device.pid}/task")
    assert len(tasks) > 3
    for task in tasks:
        with open(f"/proc/{device.pid}/task/{task}/status", encoding="ascii") as status:
            lines = dict(line.split(":", 1) for line in status)
        assert lines["Uid"].split() == [str(WXD_UID)] * 4
        for capabilities in ("CapInh", "CapPrm", "CapEff", "CapAmb"):
            assert int(lines[capabilities], 16) == 0, (lines["Name"], capabilities)


LEGACY_FILES = (
    "/etc/service_registry/services.d/wexd_service_registry.conf",
    "/etc/legacyconfig/legacymappings.d/wexd.xml",
)
LEGACY_TEMPORARY = "/etc/wexd.d/legacy.tmp"


@as_root
def test_what_the_start_generates_can_be_replaced_in_a_folder_that_others_share(
    device, monkeypatch
):
    plain = device.sandbox.hand_over

    def hand_over():
        plain()
        for folder in {device.path(file).parent for file in (*LEGACY_FILES, LEGACY_TEMPORARY)}:
            os.chown(folder, 0, WXD_GID)
            folder.chmod(0o1775)

    monkeypatch.setattr(device.sandbox, "hand_over", hand_over)
    device.describe(RELAY + port("away", 1, optional="true"))
    device.start()
    assert {owner(device, file) for file in LEGACY_FILES} == {(WXD_UID, WXD_GID)}
    assert device.state.DropIOPorts(["away"]) == ["away"]
    for file in LEGACY_FILES:
        assert "IOPort/1" not in device.read(file) and "IOPort.I1" not in device.read(file)
    assert device.log_count("^WARNING") == 0


@as_root
def test_settings_can_be_saved_after_the_first_start(device):
    device.describe(RELAY)
    device.start()
    device.state.SetName(0, False, "Gate")
    device.sync()
    assert device.saved["relay"]["output_name"] == "Gate"
    device.restart()
    assert device.state.GetNames(0) == ("", "Gate")


@as_root
def test_settings_of_the_starting_user_can_be_saved(device):
    """A file that only the next start hands over, in the folder of the unprivileged user."""
    device.describe(RELAY)
    device.start()
    assert owner(device, KEY_FILE) == (0, 0), "the first start creates it too late to hand over"
    device.state.SetUsage(0, "gate")
    device.sync()
    assert device.saved["relay"]["usage"] == "gate"


@as_root
def test_settings_present_at_the_start_go_to_the_unprivileged_user(device):
    device.describe(RELAY)
    device.settings("")
    os.chown(device.path(KEY_FILE), 0, 0)
    device.start()
    device.state.SetUsage(0, "gate")
    device.sync()
    assert device.saved["relay"]["usage"] == "gate"
    device.restart()
    device.state.SetUsage(0, "door")
    device.sync()
    assert owner(device, KEY_FILE) == (WXD_UID, WXD_GID)
    assert device.saved["relay"]["usage"] == "door"


@as_root
def test_files_are_opened_before_the_user_changes(device):
    """An input file that only root may read works for the daemon's whole life."""
    device.describe(
        port("secret", 0, "input", "sysfs", backend_inside='<device path="/sys/in" timeout="10"/>')
    )
    path = device.write("/sys/in", "0\n")
    path.chmod(0o600)
    changes = device.signals()
    device.start()
    assert identity(device)["Uid"] == [str(WXD_UID)] * 4
    device.poke("/sys/in", "1\n")
    changes.wait_for(PortChanged, port=0, state=True)


@as_root
def test_without_the_user_the_daemon_stays_root(device):
    device.describe(RELAY)
    device.settings("")
    device.sandbox.set_accounts(user=False)
    device.start()
    assert device.stderr == 'Couldn\'t get uid for user "wxd".\n'
    status = identity(device)
    assert status["Uid"] == ["0"] * 4
    assert status["Gid"] == ["0"] * 4
    assert int(status["CapEff"][0], 16) != 0
    assert device.log_count(r"^WARNING: Failed to get uid$") == 1
    assert owner(device, KEY_FILE)[0] == 0
    device.state.SetState(0, True)
    assert device.state.GetState(0) is True


@as_root
def test_without_the_group_the_daemon_stays_root(device):
    device.describe(RELAY)
    device.settings("")
    device.sandbox.set_accounts(group=False)
    device.start()
    assert device.stderr == 'Couldn\'t get gid for group "wxd".\n'
    assert identity(device)["Uid"] == ["0"] * 4
    assert identity(device)["Gid"] == ["0"] * 4
    assert device.log_count(r"^WARNING: Failed to get gid$") == 1
    device.state.SetState(0, True)
    assert device.state.GetState(0) is True


@as_root
def test_a_refused_change_of_the_group_leaves_root(make_device):
    device = make_device(without_capabilities=["setgid"])
    device.describe(RELAY)
    device.start()
    assert device.stderr == f"Failed setting gid to {WXD_GID}: Operation not permitted\n"
    assert identity(device)["Uid"] == ["0"] * 4
    assert identity(device)["Gid"] == ["0"] * 4
    assert device.state.GetNbrPorts() == (0, 1)


@as_root
def test_refused_supplementary_groups_leave_root(make_device):
    """Changing to the group that one has needs no right; taking its members' groups does."""
    device = make_device(without_capabilities=["setgid"])
    device.sandbox.set_accounts(gid=0)
    device.describe(RELAY)
    device.start()
    assert device.stderr == (
        "Unable to run initgroups() with username: wxd, gid: 0: Operation not permitted\n"
    )
    assert identity(device)["Uid"] == ["0"] * 4


@as_root
def test_a_refused_change_of_the_user_leaves_root_with_the_group(make_device):
    device = make_device(without_capabilities=["setuid"])
    device.describe(RELAY)
    device.start()
    assert device.stderr == f"Failed setting uid to {WXD_UID}: Operation not permitted\n"
    assert identity(device)["Uid"] == ["0"] * 4
    assert identity(device)["Gid"] == [str(WXD_GID)] * 4
    assert device.state.GetNbrPorts() == (0, 1)


@as_root
def test_a_refused_change_of_the_owner_is_a_warning(make_device):
    device = make_device(without_capabilities=["chown"])
    device.describe(RELAY)
    path = device.write(KEY_FILE, "")
    os.chown(path, 0, 0)
    device.start()
    assert device.log_count(
        rf"^WARNING: chown failed on file '{KEY_FILE}': \(1\) Operation not permitted$"
    ) == 1


def test_an_ordinary_user_runs_the_daemon_unchanged(ordinary_device):
    """Its sandbox knows no user but its own, so the group is not refused but unheard of."""
    device = ordinary_device
    device.describe(RELAY)
    device.settings("")
    device.start()
    assert device.stderr == f"Failed setting gid to {WXD_GID}: Invalid argument\n"
    assert device.log_count(
        rf"^WARNING: chown failed on file '{KEY_FILE}': \(22\) Invalid argument$"
    ) == 1
    device.state.SetUsage(0, "gate")
    device.sync()
    assert device.saved["relay"]["usage"] == "gate"


def test_no_owner_is_set_where_there_is_no_file(ordinary_device):
    device = ordinary_device
    device.describe(RELAY)
    device.start()
    assert device.log_count("chown failed") == 0


SECRET = "[secret]\nkey=1\n"


def write_secret(device):
    """A file of root's that happens to parse as settings."""
    secret = device.write("/etc/secret", SECRET)
    secret.chmod(0o600)
    return secret


def assert_untouched(device, secret):
    if os.getuid() == 0:
        assert owner(device, "/etc/secret") == (0, 0)
    assert secret.stat().st_mode & 0o777 == 0o600
    assert secret.read_text() == SECRET


@pytest.mark.parametrize("target", ["/etc/secret", "/etc/nothing"])
def test_settings_that_are_a_link_end_the_start(device, target):
    secret = write_secret(device)
    device.describe(RELAY)
    device.path(KEY_FILE).symlink_to(target)
    device.start(ready=False)
    device.wait_exit(1)
    assert device.stderr == (
        f"Could not read key file: '{KEY_FILE}' is a symbolic link, which is not followed\n"
    )
    assert device.log_count("^WARNING: Could not read configuration file$") == 1
    assert device.path(KEY_FILE).is_symlink()
    assert not device.exists("/etc/nothing")
    assert_untouched(device, secret)


def test_settings_with_a_second_name_are_not_handed_over(device):
    secret = write_secret(device)
    device.describe(RELAY)
    os.link(secret, device.path(KEY_FILE))
    device.start()
    assert device.log_count(
        rf"^WARNING: Not handing over settings: '{KEY_FILE}' has more than one name$"
    ) == 1
    assert_untouched(device, secret)
    assert device.saved["relay"]["usage"] == ""
    # What was saved has one name, so that all is well with the next start.
    device.restart()
    assert device.log_count("Not handing over") == 0
    assert_untouched(device, secret)


@as_root
@pytest.mark.uninstrumented
def test_a_name_that_changes_hands_right_after_a_save_changes_no_other_file(make_device):
    """The daemon is stopped between its rename of the new settings and whatever it does next."""
    device = make_device(
        wrapper=("strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=rename,renameat",
                 "-e", "inject=rename,renameat:signal=SIGSTOP:when=1"),
        patience=3,
    )  # fmt: skip
    secret = write_secret(device)
    device.describe(RELAY)
    device.settings("")
    before = device.path(KEY_FILE).stat().st_ino
    device.path(KEY_FILE).chmod(0o666)
    device.start("--disable_legacy_interface", ready=False)

    def stopped():
        pid = child_of(device.pid)
        try:
            state = pid and pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1][1]
        except FileNotFoundError:  # the tracer first tries what the kernel can, on a child of its own
            return None
        # Under a tracer it may show as traced, and the file is the new one either way.
        return device.path(KEY_FILE).stat().st_ino != before and state in "tT" and pid

    daemon = wait_until(stopped, "the stop after the rename")
    assert owner(device, KEY_FILE) == (WXD_UID, WXD_GID)
    assert device.path(KEY_FILE).stat().st_mode & 0o777 == 0o666
    device.path(KEY_FILE).rename(device.path("/etc/wexd/aside"))
    device.path(KEY_FILE).symlink_to("/etc/secret")

    def goes_on():
        os.kill(daemon, signal.SIGCONT)
        return device.first_client.owner(SERVICE_NAMES[0])

    wait_until(goes_on, "the rest of the start")
    os.kill(daemon, signal.SIGTERM)  # the tracer would not pass it on
    device.wait_exit()
    assert_untouched(device, secret)
