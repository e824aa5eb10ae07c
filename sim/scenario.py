"""The story that scripts/run --scenario plays: each step says what happened, or fails the story."""

import contextlib
import re
import time

from sim import example, show
from sim.bus import ActionSequenceDone, BusError, PortChanged, wait_until

BLINK = [(True, 150), (False, 150), (True, 150), (False, 150)]


@contextlib.contextmanager
def step(title):
    """Announces a step; the facts that it collects are printed below it."""
    facts = []
    started = time.monotonic()
    try:
        yield facts.append
    except Exception:
        print(f"{show.red('✗')} {show.bold(title)}", flush=True)
        raise
    took = f"{(time.monotonic() - started) * 1000:.0f} ms"
    print(f"{show.green('✓')} {show.bold(title)}  {show.dim(took)}")
    for fact in facts:
        print(f"    {fact}")


def expect(holds, what):
    if not holds:
        raise AssertionError(what)


def log_lines(device, pattern, since=0):
    """The event lines of the log that match, without their level, from the since-th on."""
    lines = [line.split(": ", 1)[1] for line in device.log if re.search(pattern, line)]
    return lines[since:]


def an_input_flips(device, changes, names):
    with step("The door opens: its file turns to 1") as tell:
        device.poke(f"{example.INPUTS}/door", "1\n")
        tell(show.describe(changes.wait_for(PortChanged, port=0, state=True, input=True), names))
        expect(device.state.GetState(0) is True, "GetState agrees with the signal")


def an_output_is_driven(device, changes, names):
    with step("A client switches the relay on") as tell:
        device.state.SetState(3, True)
        tell(show.describe(changes.wait_for(PortChanged, port=3, state=True, input=False), names))
        expect(device.state.GetState(3) is True, "GetState agrees with the signal")


def a_port_is_renamed(device, _changes, _names):
    with step("A client renames the relay") as tell:
        before = device.state.GetNames(3)[1]
        device.state.SetName(3, False, "Garage gate")
        expect(device.state.GetNames(3) == ("", "Garage gate"), "the name is answered")
        device.sync()
        expect(device.saved["relay"]["output_name"] == "Garage gate", "the name is saved")
        tell(f"{before} is now Garage gate, and saved as such")


def a_read_only_port_refuses(device, _changes, _names):
    with step("The tamper switch is read-only and keeps its name") as tell:
        try:
            device.state.SetName(2, True, "Nothing to see")
        except BusError as error:
            tell(str(error))
        else:
            raise AssertionError("the new name was accepted")
        expect(device.state.GetNames(2) == ("Tamper switch", ""), "the name is the old one")


def active_low_is_switched(device, changes, names):
    with step("The relay becomes active low; its logical state stays") as tell:
        expect(device.state.GetActive(3)[1] == "closed", "the relay was active high")
        device.state.SetActive(3, False, "open")
        tell(show.describe(changes.wait_for(PortChanged, port=3, state=True, activelow=True), names))
        expect(device.state.GetActive(3)[1] == "open", "the relay is active low")
        expect(device.state.GetState(3) is True, "the logical state is kept")


def an_optional_port_goes_and_comes(device, _changes, _names):
    with step("The extension is dropped, then found again") as tell:
        dropped = device.state.DropIOPorts(["extension", "relay", "no such port"])
        expect(dropped == ["extension"], "only the optional port is dropped")
        expect(7 not in device.ports(), "the port is out of service")
        tell(f"dropped {dropped}, {len(device.ports())} ports left")
        device.state.RefreshIOPorts()
        expect(7 in device.ports(), "the port is back")
        tell(f"refreshed, {len(device.ports())} ports again")


def a_lamp_blinks(device, changes, names):
    with step("The lamp blinks; a second blink meanwhile is refused") as tell:
        started = time.monotonic()
        device.state.StartActionSequence(4, False, BLINK)
        try:
            device.state.StartActionSequence(4, False, BLINK)
        except BusError as error:
            refusal = str(error)
        else:
            raise AssertionError("the second sequence was accepted")
        for state, _ in BLINK:
            change = changes.wait_for(PortChanged, port=4, state=state)
            tell(f"{(change.at - started) * 1000:4.0f} ms  {show.describe(change, names)}")
        done = changes.wait_for(ActionSequenceDone, port=4)
        tell(f"{(done.at - started) * 1000:4.0f} ms  {show.describe(done, names)}")
        expect(done.at - started > 0.5, "the steps were held")
        tell(f"the second: {refusal}")
        expect("The port is busy." in refusal, "the refusal says why")


def events_are_sent(device, _changes, _names):
    with step("The relay's state goes out as events") as tell:
        pattern = r"event send .*type=(IOPort|PortAny) "
        before = device.log_count(pattern)
        device.state.SetState(3, False)
        device.state.SetState(3, True)
        device.wait_for_log(pattern, count=before + 4)
        for line in log_lines(device, pattern, since=before):
            tell(line)


def a_line_is_supervised(device, _changes, _names):
    with step("The alarm loop is supervised: closed, open, shorted and cut") as tell:
        pattern = r"event send .*SupervisedPort .*"
        device.supervision.SetSupervised(10, True)
        for word in ("closed", "open", "short", "cut"):
            before = device.log_count(pattern)
            device.peers.box.line(10, word)
            device.wait_for_log(pattern + f"state={word}", count=1)
            device.wait_for_log(pattern, count=before + 1)
            state, _ = device.supervision.GetSupervisedReadout(10)
            expect(state == word, f"the readout is {word}, not {state}")
            tell(log_lines(device, pattern)[-1])


def a_service_comes_back(device, _changes, _names):
    with step("The Z-Wave service goes and comes back: the wall socket is sent again") as tell:
        zwave = device.peers.zwave
        device.state.SetState(11, True)
        expect(zwave.sent[-1] == (11, True), "the service is told")
        zwave.stop()
        wait_until(lambda: device.state.GetState(11) is False, "the lost port to read 0")
        tell("gone: the port reads off")
        zwave.start()
        wait_until(lambda: zwave.sent == [(11, True)], "the state to be sent again")
        expect(device.state.GetState(11) is True, "the port is on again")
        tell("back: SetStateByPort(11, true), and the port reads on")


def a_channel_triggers(device, changes, names):
    with step("Video channel 2 is enabled: its manual trigger fires; PTZ goes off and on") as tell:
        streamer, coordinator = device.peers.streamer, device.peers.coordinator
        device.state.SetVirtual(21, True)
        changes.assert_none(PortChanged, port=21)
        tell("channel 2 is disabled: nothing happens")
        streamer.enable(2, True)
        device.sync()
        device.state.SetVirtual(21, True)
        tell(show.describe(changes.wait_for(PortChanged, port=21, virtual_trig=True), names))
        coordinator.enable(False)
        device.sync()
        streamer.enable(2, False)
        device.sync()
        device.state.SetVirtual(21, False)
        changes.wait_for(PortChanged, port=21, state=False)
        tell("PTZ is off: a channel that is disabled now keeps its trigger as it is")
        coordinator.enable(True)
        device.sync()
        streamer.enable(2, False)
        device.sync()
        device.state.SetVirtual(21, True)
        changes.assert_none(PortChanged, port=21)
        tell("PTZ is on: the channel is disabled, and so is its trigger")


def templates_are_registered(device, _changes, _names):
    with step("The action engine has the toggle templates while there is an output") as tell:
        engine = device.peers.engine
        wait_until(lambda: len(engine.templates) == 2, "both templates")
        for template in engine.templates:
            tell(template)


def a_restart_keeps_settings(device, _changes, _names):
    with step("The daemon is restarted and remembers") as tell:
        device.restart()
        names = device.state.GetNames(3)
        expect(names == ("", "Garage gate"), f"the name is still there, not {names}")
        expect(device.state.GetActive(3)[1] == "open", "the relay is still active low")
        tell("the relay is still called Garage gate and active low")


def templates_are_removed(device, _changes, _names):
    with step("A device without outputs has no use for the templates: they are removed") as tell:
        engine = device.peers.engine
        device.describe(
            '<port name="door"><port_no nbr="0"/><port_type type="input"/>'
            '<properties ioport="true"/><backend name="check"/></port>'
        )
        device.restart()
        wait_until(lambda: engine.templates == [], "both templates to be removed")
        tell("only the door is left, and no template")


STORY = (
    an_input_flips,
    an_output_is_driven,
    a_port_is_renamed,
    a_read_only_port_refuses,
    active_low_is_switched,
    an_optional_port_goes_and_comes,
    a_lamp_blinks,
    events_are_sent,
    a_line_is_supervised,
    a_service_comes_back,
    a_channel_triggers,
    templates_are_registered,
    a_restart_keeps_settings,
    templates_are_removed,
)


def play(device):
    """Plays the whole story on a furnished, started device; raises where it goes wrong."""
    changes = device.signals()
    names = {number: port.name for number, port in device.ports().items()}
    for part in STORY:
        part(device, changes, names)
    changes.close()
