"""Ports that stand for Z-Wave devices, reached through their service."""

import pytest
from describe import port

from sim.bus import ActionSequenceDone, PortChanged, wait_until
from sim.peers import IoBox, Witness, ZWave


def zwave(name, number, kind="input", **more):
    return port(name, number, kind, "zwave", **more)


def start(device, ports, **service):
    peer = ZWave(device, **service)
    device.describe(ports)
    device.start()
    return peer


def test_an_input_takes_and_follows_the_service(device):
    peer = start(device, zwave("a", 0) + zwave("b", 1), states={"0": True})
    assert (device.state.GetState(0), device.state.GetState(1)) == (True, False)
    signals = device.signals()
    peer.device_state(0, False)
    signals.wait_for(PortChanged, port=0, state=False, input=True)
    peer.device_state(1, True)
    signals.wait_for(PortChanged, port=1, state=True)
    signals.assert_none()


def test_the_same_state_again_triggers_nothing(device):
    peer = start(device, zwave("a", 0), states={"0": True})
    signals = device.signals()
    peer.device_state(0, True)
    peer.device_state(0, False)
    signals.wait_for(PortChanged, port=0, state=False)
    signals.assert_none()


def test_an_output_is_sent_at_start_and_when_it_is_set(device):
    peer = start(device, zwave("out", 3, "output"))
    assert peer.sent == [(3, False)]
    signals = device.signals()
    device.state.SetState(3, True)
    signals.wait_for(PortChanged, port=3, state=True, input=False)
    assert peer.sent == [(3, False), (3, True)]


def test_an_output_is_sent_again_when_the_service_comes_back(device):
    peer = start(device, zwave("out", 3, "output"))
    device.state.SetState(3, True)
    peer.stop()
    wait_until(lambda: device.state.GetState(3) is False, "the lost port to read 0")
    peer.start()
    wait_until(lambda: peer.sent == [(3, True)], "the state to be sent again")
    assert device.state.GetState(3) is True


def test_a_sequence_goes_on_while_the_service_goes_and_comes(device):
    peer = start(device, zwave("out", 3, "output"))
    signals = device.signals()
    device.state.StartActionSequence(3, False, [(n % 2 == 0, 1) for n in range(400)])
    peer.stop()
    peer.start()
    signals.wait_for(ActionSequenceDone, port=3)
    wait_until(lambda: peer.sent[-1:] == [(3, False)], "the last state to be sent")


def test_an_input_reads_0_while_the_service_is_away_and_is_asked_on_its_return(device):
    peer = start(device, zwave("a", 0), states={"0": True})
    peer.stop()
    wait_until(lambda: device.state.GetState(0) is False, "the lost port to read 0")
    signals = device.signals()
    peer.start(states={"0": True})
    signals.wait_for(PortChanged, port=0, state=True)


def test_the_service_may_come_amid_the_start(device):
    """While a box is asked, which is before the daemon takes up its last connection."""
    service = ZWave(device, start=False, states={"0": True, "2": True})

    def attached():
        service.start()
        return (False,)

    Witness(device, IoBox, {"GetIOBoxConnected": ("", "b", attached)})
    box = port("box", 1, "input", "iobox", optional="true")
    device.describe(zwave("a", 0) + box + zwave("b", 2))
    device.start()
    wait_until(lambda: device.state.GetState(0) and device.state.GetState(2), "both states")


def test_the_service_may_come_after_the_daemon(device):
    device.describe(zwave("a", 0) + zwave("out", 1, "output"))
    device.start()
    assert device.state.GetState(0) is False
    signals = device.signals()
    peer = ZWave(device, states={"0": True})
    signals.wait_for(PortChanged, port=0, state=True)
    wait_until(lambda: peer.sent == [(1, False)], "the output to be sent")


@pytest.mark.parametrize("fault", ["fail", "mistype"])
def test_an_input_that_is_not_answered_reads_0(device, fault):
    peer = ZWave(device, states={"0": True})
    getattr(peer, fault)("GetStateByPort")
    device.describe(zwave("a", 0))
    device.start()
    assert device.state.GetState(0) is False
    signals = device.signals()
    peer.device_state(0, True)
    signals.wait_for(PortChanged, port=0, state=True)


def test_an_input_that_is_not_answered_on_the_return_reads_0(device):
    peer = start(device, zwave("a", 0) + zwave("b", 1), states={"0": True})
    assert device.state.GetState(0) is True
    peer.stop()
    wait_until(lambda: device.state.GetState(0) is False, "the lost port to read 0")
    signals = device.signals()
    peer.start(states={"0": True, "1": True}, silent=["0"])
    signals.wait_for(PortChanged, port=1, state=True)
    # Both have been asked.
    wait_until(lambda: len(peer.calls("GetStateByPort")) == 2, "the question about the other port")
    device.sync()
    assert device.state.GetState(0) is False


def test_a_service_that_could_be_started_is_not(device):
    device.write(
        "/run/dbus/services/zwave.service",
        "[D-BUS Service]\nName=com.norv.ZWave.IO\nExec=/usr/bin/touch /run/dbus/started\n",
    )
    device.describe(zwave("a", 0) + zwave("out", 1, "output"))
    device.start()
    device.state.SetState(1, True)
    device.sync()
    assert not device.path("/run/dbus/started").exists()


@pytest.mark.parametrize(
    "signature, arguments", [("i", (0,)), ("bi", (True, 0)), ("is", (0, "on"))]
)
def test_a_signal_of_another_form_is_ignored(device, signature, arguments):
    peer = start(device, zwave("a", 0))
    signals = device.signals()
    peer.emit("StateChangedByPort", signature, *arguments)
    peer.emit("Other", "ib", 0, True)
    peer.device_state(0, True)
    signals.wait_for(PortChanged, port=0, state=True)
    signals.assert_none()


def test_a_failed_call_is_told_in_the_system_log_only(device):
    device.describe(zwave("out", 1, "output"))
    with device.system_log() as syslog:
        device.start()
        syslog.wait_for("Failed to call method SetStateByPort: ")
    assert device.log_count("SetStateByPort") == 0


def test_drop_and_refresh_keep_one_listener(device):
    peer = start(device, zwave("a", 0, optional="true"))
    for _ in range(5):
        assert device.state.DropIOPorts(["a"]) == ["a"]
        device.state.RefreshIOPorts()
    signals = device.signals()
    peer.device_state(0, True)
    signals.wait_for(PortChanged, port=0, state=True)
    signals.assert_none()


def test_a_port_is_not_supervisable(device):
    start(device, zwave("a", 0))
    assert device.supervision.IsSupervisable(0) == (False, False)
