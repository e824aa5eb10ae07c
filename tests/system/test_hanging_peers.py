"""Services that are there and never answer: the first call waits for the bus's time-out of 25 seconds,
and for a while there is no second one."""

import contextlib
import signal
import subprocess
import time

import pytest
from client import Client
from describe import element, port

from sim.bus import ActionSequenceDone, BusError, PortChanged, wait_until
from sim.peers import (
    ActionEngine, BootBlock, Coordinator, IoBox, Streamer, Witness, ZWave, late_properties,
)  # fmt: skip

TIME_OUT = 25  # seconds
REST = 30  # seconds for which a service that let a call time out is left alone
PATIENCE = 60

pytestmark = pytest.mark.hang


@pytest.fixture
def device(make_device):
    return make_device(patience=5)


def test_what_waits_for_a_silent_io_box_is_all_served_afterwards(device):
    box = IoBox(device)
    device.describe(port("out", 1, "output", "iobox") + port("p", 2))
    device.start()
    signals = device.signals()
    box.freeze()
    begin = time.monotonic()
    held = device.state.begin("SetState", 1, True)
    time.sleep(3)  # so that these calls do not run into their own time-out just as it ends
    other_client = device.client()
    others = [other_client.state.begin("SetState", 2, state) for state in (True, False, True)]
    device.wait_for_log(
        "USER: iobox_dbus_call@46: Failed to call method SetIOMode: .*[Tt]imeout",
        deadline=PATIENCE,
    )
    assert TIME_OUT - 1 < time.monotonic() - begin < TIME_OUT + 15
    for other in others:
        other.wait(PATIENCE)
    # The output shows what it was set to, and nobody's change was lost.
    signals.wait_for(PortChanged, port=1, state=True)
    for state in (True, False, True):
        signals.wait_for(PortChanged, port=2, state=state)
    signals.assert_none()
    with contextlib.suppress(BusError):
        held.wait()  # whose own time-out may have come first
    box.stop()
    box.start()
    device.state.SetState(1, False)
    assert box.modes == [(1, 0, "out")]


def test_a_sequence_outlives_a_silent_service_while_others_are_served(device):
    """The sequence's thread waits, and the main one does not."""
    peer = ZWave(device)
    device.describe(port("out", 1, "output", "zwave") + port("p", 2))
    device.start()
    signals = device.signals()
    peer.freeze()
    device.state.StartActionSequence(1, False, [(True, 0)])
    device.state.SetState(2, True)
    signals.wait_for(PortChanged, port=2, state=True)
    signals.wait_for(ActionSequenceDone, deadline=PATIENCE, port=1)
    peer.stop()
    peer.start()
    device.state.SetState(1, False)
    wait_until(lambda: peer.sent[-1:] == [(1, False)], "the state that was set last")


def test_a_silent_action_engine_delays_the_start_and_no_more(device):
    engine = ActionEngine(device)
    device.describe(port("in", 0, "input"))
    device.start()
    device.sync()
    engine.forget_calls()
    engine.freeze()
    device.stop()
    device.describe(port("out", 0))
    device.start(ready=False)
    # The question for properties waits, that for the templates does not any more.
    device.wait_for_log(
        "WARNING: Could not retrieve the template list: .*[Tt]imeout", deadline=PATIENCE
    )
    device.state.SetState(0, True)
    assert device.state.GetState(0) is True
    engine.thaw()


def names(device):
    return {entry.name for entry in device.port_list()}


def test_a_silent_streamer_holds_nobody_and_is_met_when_it_returns(device):
    streamer = Streamer(device, channels=[True, True])
    device.describe(port("p", 0) + element("first_virtual_input", nbr=10))
    streamer.freeze()
    assert duration_of(device.start) < TIME_OUT - 5
    device.state.SetState(0, True)
    assert names(device) == {"p"}
    # Silent channels are none; the one trigger is that of a device without any.
    wait_until(lambda: names(device) == {"p", "manualtrigger1"}, "the one trigger", PATIENCE)
    assert device.log_count(begins(Streamer)) == 1
    streamer.thaw()
    device.sync()
    streamer.stop()
    streamer.start()
    wait_until(lambda: "manualtrigger2" in names(device), "the second channel")
    assert device.state.GetState(0) is True


def test_a_silent_coordinator_holds_nobody_and_what_it_says_later_counts(device):
    coordinator = Coordinator(device, enabled=False)
    device.describe(port("p", 0) + element("first_virtual_input", nbr=10))
    coordinator.freeze()
    assert duration_of(device.start) < TIME_OUT - 5
    coordinator.thaw()
    coordinator.enable(True)
    coordinator.enable(False)
    device.sync()
    signals = device.signals()
    Streamer(device, channels=[True, True])
    wait_until(lambda: "manualtrigger2" in names(device), "the second channel")
    device.state.SetVirtual(11, True)  # whose port is disabled, as PTZ is
    device.state.SetVirtual(10, True)
    signals.wait_for(PortChanged, port=10, state=True)
    assert device.state.GetState(0) is False


def test_the_daemon_ends_while_a_silent_streamer_and_a_silent_coordinator_are_asked(device):
    streamer, coordinator = Streamer(device, channels=[True]), Coordinator(device, enabled=True)
    device.describe(port("p", 0) + element("first_virtual_input", nbr=10))
    streamer.freeze()
    device.start()
    assert duration_of(device.stop) < TIME_OUT - 5
    streamer.thaw()
    coordinator.freeze()
    device.start()
    wait_until(lambda: "manualtrigger1" in names(device), "the first channel")
    assert duration_of(device.stop) < TIME_OUT - 5


def test_a_silent_boot_block_delays_the_start_and_keeps_the_port(device):
    boot_block = BootBlock(device, "ABC123")
    device.describe(port("a", 0).replace("<port ", '<port hwid="X" ', 1) + port("b", 1))
    boot_block.freeze()
    begin = time.monotonic()
    # The question for properties waits, that for the id does not any more.
    device.start()
    assert TIME_OUT - 1 < time.monotonic() - begin < 2 * (TIME_OUT - 1)
    assert names(device) == {"a", "b"}
    assert device.log_count("^INFO: Failed to request policykit system: .*[Tt]imeout") == 1
    assert device.log_count("^WARNING: Could not get the hardware id$") == 1
    boot_block.thaw()
    device.state.SetState(1, True)
    assert device.state.GetState(1) is True


def test_what_happens_while_a_streamer_appears_and_is_silent_is_served(device):
    device.describe(port("p", 0) + element("first_virtual_input", nbr=10))
    device.start()
    wait_until(lambda: "manualtrigger1" in names(device), "the one trigger")
    signals = device.signals()
    streamer = Streamer(device, start=False, channels=[True], properties=late_properties(2 * TIME_OUT))
    streamer.launch()
    other_client = device.client()
    wait_until(lambda: other_client.owner(streamer.NAME), "the streamer on the bus")
    others = [other_client.state.begin("SetState", 0, state) for state in (True, False, True)]
    assert duration_of(lambda: [other.wait() for other in others]) < TIME_OUT - 5
    for state in (True, False, True):
        signals.wait_for(PortChanged, port=0, state=state)
    assert names(device) == {"p", "manualtrigger1"}


def begins(service):
    return f"^WARNING: {service.NAME} does not answer, not calling it for {REST} seconds$"


def ends(service):
    return f"^MESSAGE: Calling {service.NAME} again$"


def silent_box(device, **methods):
    """An IO box that answers nothing but what is given: {name: answer}."""
    kinds = {
        "GetIOBoxConnected": ("", "b"), "GetIOBoxType": ("", "s"), "GetIOPortStatus": ("i", "s"),
        "GetSupervised": ("i", "b"), "SetIOMode": ("iis", ""),
    }  # fmt: skip
    return Witness(device, IoBox, {
        name: (*kind, lambda *_, name=name: methods[name]() if name in methods else None)
        for name, kind in kinds.items()
    })  # fmt: skip


def attached_box(device, set_mode):
    """One whose outputs are set up and then set by `set_mode`."""
    return silent_box(
        device, GetIOBoxConnected=lambda: (True,), GetIOBoxType=lambda: ("x5210",),
        GetIOPortStatus=lambda: ("enabled",), GetSupervised=lambda: (False,), SetIOMode=set_mode,
    )  # fmt: skip


def duration_of(action):
    begin = time.monotonic()
    action()
    return time.monotonic() - begin


def test_a_silent_box_holds_the_start_once_however_many_ports_it_has(device):
    box = silent_box(device)
    device.describe("".join(port(f"p{n}", n, "input", "iobox") for n in range(4)))
    assert duration_of(device.start) < 2 * (TIME_OUT - 1)
    assert len(box.calls) == 1
    assert device.log_count("^USER: Setup failed for port") == 4
    assert device.log_count("Failed to call method GetIOBoxConnected: Timeout was reached$") == 4
    assert device.log_count(begins(IoBox)) == 1


def test_a_silent_boot_block_holds_the_start_once_however_many_ports_ask(device):
    block = Witness(device, BootBlock, {"ReadBootblockParam": ("s", "s", lambda name: None)})
    device.describe(
        "".join(port(f"p{n}", n).replace("<port ", '<port hwid="X" ', 1) for n in range(4))
    )
    assert duration_of(device.start) < 2 * (TIME_OUT - 1)
    assert len(block.calls) == 1
    assert names(device) == {"p0", "p1", "p2", "p3"}
    assert device.log_count("^WARNING: Could not get the hardware id$") == 4
    assert device.log_count(begins(BootBlock)) == 1


def test_a_frozen_z_wave_service_holds_the_start_once_however_many_ports_it_has(device):
    peer = ZWave(device)
    peer.freeze()
    device.describe("".join(port(f"p{n}", n, "input", "zwave") for n in range(4)))
    assert duration_of(device.start) < 2 * (TIME_OUT - 1)
    assert device.log_count(begins(ZWave)) == 1
    # The thawed service is followed as ever.
    signals = device.signals()
    peer.thaw()
    peer.device_state(3, True)
    signals.wait_for(PortChanged, port=3, state=True)


def test_a_silent_action_engine_holds_one_change_of_the_ports_and_no_other(device):
    engine = ActionEngine(device)
    optional = [f"p{n}" for n in range(4)]
    device.describe("".join(port(name, n, optional="true") for n, name in enumerate(optional)))
    device.start()
    device.sync()
    engine.freeze()

    def drop_and_refresh():
        for name in optional:
            device.state.begin("DropIOPorts", [name]).wait(PATIENCE)
        device.state.begin("RefreshIOPorts").wait(PATIENCE)

    assert duration_of(drop_and_refresh) < 2 * (TIME_OUT - 1)
    assert names(device) == set(optional)
    assert device.log_count(begins(ActionEngine)) == 1


def test_a_service_is_called_again_after_its_rest(device):
    times = []

    def set_mode():
        times.append(time.monotonic())
        return () if len(times) != 2 else None  # the second call is the silent one

    box = attached_box(device, set_mode)
    device.describe(port("out", 1, "output", "iobox"))
    device.start()
    device.state.begin("SetState", 1, True).wait(PATIENCE)
    timed_out = time.monotonic()
    device.wait_for_log(begins(IoBox))

    def called_again():
        device.state.SetState(1, False)
        time.sleep(0.2)
        return len(times) > 2

    wait_until(called_again, "the next call", deadline=PATIENCE)
    assert times[2] - timed_out > REST - 2  # for the answer to the client comes after the time-out
    assert box.asked("SetIOMode") == [(1, 0, "out"), (1, 1, "out"), (1, 0, "out")]
    assert (device.log_count(begins(IoBox)), device.log_count(ends(IoBox))) == (1, 1)


@pytest.mark.parametrize("way", ["another process", "the same connection"])
def test_a_service_whose_name_is_taken_anew_is_called_at_once(device, way):
    box = attached_box(device, set_mode=lambda: () if len(box.asked("SetIOMode")) != 2 else None)
    device.describe(port("out", 1, "output", "iobox"))
    device.start()
    for state in (True, False, True):
        device.state.begin("SetState", 1, state).wait(PATIENCE)
    assert len(box.asked("SetIOMode")) == 2
    box.vanish()
    if way == "another process":
        box = attached_box(device, set_mode=lambda: ())
    else:
        box.appear()
    device.wait_for_log(ends(IoBox))
    device.state.SetState(1, False)
    assert box.asked("SetIOMode")[-1] == (1, 0, "out")
    assert (device.log_count(begins(IoBox)), device.log_count(ends(IoBox))) == (1, 1)


def test_a_name_that_is_taken_anew_while_a_call_waits_counts_during_the_start_too(device):
    """What let the call time out is not the service that has the name by then."""

    def read(_name):
        if len(block.calls) > 1:
            return ("X1",)
        block.vanish()
        block.appear()
        return None

    block = Witness(device, BootBlock, {"ReadBootblockParam": ("s", "s", read)})
    device.describe(
        "".join(port(f"p{n}", n).replace("<port ", '<port hwid="X" ', 1) for n in range(2))
    )
    device.start()
    assert len(block.calls) == 2
    assert device.log_count("does not answer") == 0
    assert device.log_count("^WARNING: Could not get the hardware id$") == 1


@pytest.mark.parametrize("word", ["Timeout", "TimedOut", "NoReply"])
def test_a_service_that_answers_with_a_time_out_of_its_own_has_answered(device, word):
    box = IoBox(device)
    device.describe(port("out", 1, "output", "iobox"))
    device.start()
    error = f"raise dbus.exceptions.DBusException('later', name='org.freedesktop.DBus.Error.{word}')"
    box._replace("SetIOMode", "", error)
    device.state.SetState(1, True)
    device.state.SetState(1, False)
    assert box.modes[-2:] == [(1, 1, "out"), (1, 0, "out")]
    assert device.log_count("does not answer") == 0


def test_a_service_that_cannot_be_started_holds_the_start_once(device):
    device.write(
        "/run/dbus/services/box.service",
        f"[D-BUS Service]\nName={IoBox.NAME}\nExec=/usr/bin/sleep 1000\n",
    )
    device.describe("".join(port(f"p{n}", n, "input", "iobox") for n in range(4)))
    assert duration_of(device.start) < 2 * (TIME_OUT - 1)
    assert device.log_count("^USER: Setup failed for port") == 4
    assert device.log_count(begins(IoBox)) == 1


def test_a_coordinator_that_comes_and_is_silent_holds_nobody(device):
    device.describe(port("p", 0) + element("first_virtual_input", nbr=10))
    device.start()
    coordinator = Coordinator(
        device, start=False, enabled=False, properties=late_properties(2 * TIME_OUT)
    )
    coordinator.launch()
    wait_until(lambda: device.first_client.owner(Coordinator.NAME), "the coordinator on the bus")
    assert duration_of(lambda: device.state.SetState(0, True)) < TIME_OUT - 5
    assert device.log_count(begins(Coordinator)) == 0
    device.wait_for_log(begins(Coordinator), deadline=PATIENCE)


def test_the_client_tells_of_a_daemon_that_gives_no_answer(device, binary):
    device.describe(port("p", 2))
    device.start()
    device.signal(signal.SIGSTOP)
    try:
        client = Client(device, binary).start("list", stderr=subprocess.PIPE)
        _, errors = client.communicate(timeout=PATIENCE)
    finally:
        device.signal(signal.SIGCONT)
    assert client.returncode == 3
    assert errors == "wexctl: wexd does not answer: it gave no answer in time\n"
