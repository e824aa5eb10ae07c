"""In which order the daemon starts and ends, as a trace of a whole life shows it."""

import re

import pytest
from describe import element, port

from sim.bus import STATE_NAME
from sim.device import IMPORT_FILE, OLD_KEY_FILE
from sim.peers import ActionEngine, BootBlock, Coordinator, Streamer

pytestmark = [pytest.mark.uninstrumented, pytest.mark.root]

TRACE = "/run/trace"
# A daemon that is a child of its tracer would not hear the signals meant for it.
STRACE = ("strace", "-D", "-f", "-y", "-qq", "-s", "400", "-o", TRACE)
PIN = "/sys/class/gpio/gpio17"


def sent(*texts):
    """A bus message with these texts in it, in their order."""
    return r"sendmsg\(" + "".join(f".*{re.escape(text)}" for text in texts)


def renamed(file):
    return rf'rename\w*\(.*"{file}"'


START = {
    "waits become exact": r"prctl\(PR_SET_TIMERSLACK, 1000\)",
    "the description is read": r'openat\(.*"/usr/share/wexd/conf\.xml"',
    "the hardware id is asked for": sent("ReadBootblockParam"),
    "a drop-in is read": r'openat\(.*"(?:/etc/wexd\.d/+)?addition", O_RDONLY',
    "the old settings are read": rf'openat\(.*"{OLD_KEY_FILE}"',
    "the old settings are removed": rf'unlink\w*\(.*"{OLD_KEY_FILE}"',
    "the settings are looked for": r'access\w*\(.*"/etc/wexd/wexd\.conf"',
    "the import is read": rf'openat\(.*"{IMPORT_FILE}"',
    "the settings are saved": renamed(r"(?:/etc/wexd/)?wexd\.conf"),
    "the ports are set up": rf'openat\(.*"{PIN}/value"',
    "the registry is written": renamed(
        "/etc/service_registry/services.d/wexd_service_registry.conf"
    ),
    "the mapping is written": renamed("/etc/legacyconfig/legacymappings.d/wexd.xml"),
    "the user changes": r"setuid\(",
    "the legacy service gets its name": sent(
        "RequestName", "com.norv.Configuration.Legacy.IOControl1.IOPort"
    ),
    "the inputs are watched": rf"fcntl\(\d+<{PIN}/value>, F_GETFL",
    "the events are declared": r"write\(1.*event declare .*type=IOPort",
    "the streamer is followed": sent("AddMatch", "arg0='com.norv.Streamer'"),
}
# Nobody waits for these, and each waits for the one before.
PEERS = {
    "the first channel is met": sent("/com/norv/Streamer/Video/Channel/1", "GetAll"),
    "the second channel is met": sent("/com/norv/Streamer/Video/Channel/2", "GetAll"),
    "the next path, which is none, is asked": sent("/com/norv/Streamer/Video/Channel/3", "GetAll"),
    "the coordinator is followed": sent("AddMatch", "arg0='com.norv.PTZ.Coordinator'"),
    "the coordinator is met": sent("/com/norv/PTZ/Coordinator/1", "GetAll"),
}
# What is begun before the watches and comes about once the main loop runs.
ONCE_RUNNING = {
    "the action engine is followed": sent("AddMatch", "arg0='com.norv.Event.ActionEngine.User'"),
    "the state service gets its name": sent("RequestName", STATE_NAME),
    "the connector service gets its name": sent("RequestName", "com.norv.WXD.Connector"),
    "the supervision service gets its name": sent(
        "RequestName", "com.norv.IOSupervised.Supervised"
    ),
}
# What happens when a port is dropped or comes back: nobody meets objects or files that do not fit.
LEGACY_NAME = "com.norv.Configuration.Legacy.IOControl1.IOPort"
REBUILD = {
    "the call comes": r"recvmsg\(.*DropIOPorts",
    "the legacy service gives up its name": sent("ReleaseName", LEGACY_NAME),
    "the registry is written": START["the registry is written"],
    "the mapping is written": START["the mapping is written"],
    "the legacy service gets its name again": sent("RequestName", LEGACY_NAME),
}
END_OF_MESSAGES = {
    "the legacy service gives up its name": sent(
        "ReleaseName", "com.norv.Configuration.Legacy.IOControl1.IOPort"
    ),
    "the supervision service gives up its name": sent(
        "ReleaseName", "com.norv.IOSupervised.Supervised"
    ),
    "the state service gives up its name": sent("ReleaseName", STATE_NAME),
    "the connector service gives up its name": sent("ReleaseName", "com.norv.WXD.Connector"),
}
END_OF_CALLS = {
    "the signal is logged": r"write\(1.*Got SIGTERM",
    "the legacy service is taken away": r"write\(1.*config-event undeclare",
    "the trigger ports are switched off": r"write\(1.*event undeclare .*ManualTrigger",
    "the signal is nobody's": r"rt_sigaction\(SIGTERM, \{sa_handler=SIG_DFL",
    "the ports' events are withdrawn": r"write\(1.*event undeclare .*type=IOPort",
    "the pins are closed": rf"close\(\d+<{PIN}/value>",
    "the process ends": r"exit_group\(0",
}


@pytest.fixture
def life(make_device):
    """The lines of the trace of a daemon's life with everything in it that has its turn."""
    device = make_device(wrapper=STRACE, patience=4)
    for name, text in {"value": "1", "direction": "in", "edge": "none", "active_low": "0"}.items():
        device.write(f"{PIN}/{name}", f"{text}\n").chmod(0o666)
    peers = [
        BootBlock(device, "A1"),
        Streamer(device, channels=[True, True]),
        Coordinator(device, enabled=True),
        ActionEngine(device),
    ]
    assert all(peer.is_loaded for peer in peers)
    event = element("event", declaration="IOPort")
    pin = element("input", pin=17)
    device.describe(
        element("port", element("backend", name="null"), hwid="A1", name="by-hardware")
        + port("door", 0, "input", "gpio", backend_inside=pin, inside=event)
        + port("lamp", 1)
        + element("first_virtual_input", nbr=8)
    )
    device.drop_in("addition", port("more", 2))
    device.write(OLD_KEY_FILE, "[elsewhere]\n")
    device.write(IMPORT_FILE, "")
    device.start()
    # Only with PTZ has the second channel a trigger, so the coordinator has answered by now.
    device.wait_for_log(r"event declare .*ManualTrigger.* port=2 ")
    device.stop()
    return device.read(TRACE).splitlines()


def places(trace, steps):
    """Where in the trace each step shows first."""
    found = {
        name: next((n for n, line in enumerate(trace) if re.search(sign, line)), None)
        for name, sign in steps.items()
    }
    missing = [name for name, place in found.items() if place is None]
    assert not missing, missing
    return found


def in_order(trace, steps):
    found = places(trace, steps)
    assert sorted(found, key=found.get) == list(steps)
    return found


def test_everything_has_its_turn(life):
    start = in_order(life, START)
    assert max(start.values()) < min(in_order(life, ONCE_RUNNING).values())
    assert max(start.values()) < min(in_order(life, PEERS).values())
    in_order(life, END_OF_MESSAGES)
    in_order(life, END_OF_CALLS)


def test_a_changed_set_of_ports_is_published_in_order(make_device):
    device = make_device(wrapper=STRACE, patience=4)
    device.describe(port("lamp", 0) + port("extra", 1, optional="true"))
    device.start()
    assert device.state.DropIOPorts(["extra"]) == ["extra"]
    device.sync()
    trace = device.read(TRACE).splitlines()
    called = next(n for n, line in enumerate(trace) if re.search(REBUILD["the call comes"], line))
    in_order(trace[called:], REBUILD)
