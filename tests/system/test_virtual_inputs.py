"""Manual-trigger ports of the video channels: which exist, and which are enabled."""

import contextlib

import pytest
from describe import element, port

from sim.bus import PortChanged, wait_until
from sim.peers import FAILURE, WRONG_TYPE, Coordinator, Streamer, Witness, late_properties

FIRST = 10
LATE = 1  # second
# The third channel is not heard of before the bus gives it up.
SILENT_THIRD = (
    "a{sv}",
    "import time; time.sleep(60 if self.path.endswith('/3') else 0); ret = self.props[args[0]]",
)
FAULTS = pytest.mark.parametrize("fault", [FAILURE, WRONG_TYPE], ids=["an error", "another type"])


def describe(device, ports=None, nbr=FIRST):
    device.describe((ports or port("p", 0)) + element("first_virtual_input", nbr=nbr))


def triggers(device):
    """Numbers of the trigger ports by channel."""
    return {
        int(entry.name.removeprefix("manualtrigger")): entry.number
        for entry in device.port_list()
        if entry.name.startswith("manualtrigger")
    }


def enabled(device, channel, first=FIRST):
    """Whether a trigger port announces what it is given."""
    signals = device.signals()
    device.state.SetVirtual(first + channel - 1, True)
    found = [signal for signal in signals.take() if isinstance(signal, PortChanged)]
    signals.close()
    return bool(found)


def wait_for_triggers(device, channels, first=FIRST):
    wanted = {channel: first + channel - 1 for channel in channels}
    wait_until(lambda: triggers(device) == wanted, f"triggers of {channels}")


@contextlib.contextmanager
def meeting(device, peer):
    """Around what makes the daemon ask a peer: leaves when the daemon knows the answer."""
    before = peer.questions()
    yield
    wait_until(lambda: peer.questions() > before, f"{peer.NAME} to be asked")
    peer.mock("GetCalls")  # answered after the daemon
    device.sync()


def start(device, coordinator):
    """Returns when the coordinator is met, which is the last of the peers."""
    with meeting(device, coordinator):
        device.start()


def test_without_the_element_no_peer_is_contacted(device):
    streamer, coordinator = Streamer(device, channels=[True]), Coordinator(device, enabled=True)
    device.describe(port("p", 0))
    device.start()
    device.sync()
    assert triggers(device) == {}
    assert streamer.mock("GetCalls") == [] and coordinator.mock("GetCalls") == []


def test_each_channel_has_a_trigger_port_enabled_as_it_is(device):
    coordinator = Coordinator(device, enabled=True)
    Streamer(device, channels=[True, False, True])
    describe(device)
    start(device, coordinator)
    wait_for_triggers(device, [1, 2, 3])
    # Channels are met while PTZ is not yet known: only channel 1 counts then.
    assert [enabled(device, channel) for channel in (1, 2, 3)] == [True, False, True]


def test_no_more_channels_are_met_than_any_device_has(device):
    Streamer(device, channels=[True] * 1026)
    describe(device)
    device.start()
    device.wait_for_log("WARNING: More than 1024 video channels, not asking on$")
    wait_for_triggers(device, range(1, 1025))


def test_a_trigger_port_announces_and_sends_its_event(device):
    Streamer(device, channels=[True])
    describe(device)
    device.start()
    wait_for_triggers(device, [1])
    signals = device.signals()
    device.state.SetVirtual(FIRST, True)
    signals.wait_for(
        PortChanged, port=FIRST, virtual=True, input=False, virtual_trig=True, state=True
    )
    device.wait_for_log(
        r"event send producer=wxd type=com\.norv\.Event\.Wxd\.ManualTrigger id=\d+ port=1 state=1"
    )


def test_a_channel_follows_its_signal(device):
    coordinator = Coordinator(device, enabled=True)
    streamer = Streamer(device, channels=[True, True])
    describe(device)
    start(device, coordinator)
    wait_for_triggers(device, [1, 2])
    for state in (False, True):
        streamer.enable(2, state)
        wait_until(lambda state=state: enabled(device, 2) is state, f"channel 2 {state}")
    assert enabled(device, 1)


@pytest.mark.parametrize("told", ["", "yes", 1], ids=["nothing", "a text", "a number"])
def test_a_channel_that_does_not_tell_counts_as_enabled(device, told):
    Streamer(device, channels=[True, told])
    coordinator = Coordinator(device, enabled=True)
    describe(device)
    start(device, coordinator)
    wait_for_triggers(device, [1, 2])
    assert enabled(device, 2)


def test_the_streamer_may_come_later_and_go_again(device):
    describe(device, port("p", 0))
    device.start()
    wait_for_triggers(device, [1])  # PTZ unknown and no channel: channel 1
    streamer = Streamer(device, channels=[True, True])
    wait_for_triggers(device, [1, 2])
    streamer.stop()
    wait_for_triggers(device, [1])
    streamer.start(channels=[True, True, True])
    wait_for_triggers(device, [1, 2, 3])


def test_a_streamer_that_goes_takes_the_ports_one_above_its_channels(device):
    streamer = Streamer(device, channels=[True, True])
    describe(device, port("p", 0) + port("manualtrigger3", 3, "output", "virtual"))
    device.start()
    wait_until(lambda: set(triggers(device)) == {1, 2, 3}, "all trigger ports")
    streamer.stop()
    wait_until(lambda: set(triggers(device)) == {1}, "triggers 2 and 3 to go")


def test_with_ptz_disabled_channel_1_is_enabled_and_others_are_not(device):
    coordinator = Coordinator(device, enabled=False)
    describe(device)
    start(device, coordinator)
    Streamer(device, channels=[False, True])
    wait_for_triggers(device, [1, 2])
    assert (enabled(device, 1), enabled(device, 2)) == (True, False)


def test_with_ptz_disabled_an_existing_port_stays_as_it_is(device):
    coordinator = Coordinator(device, enabled=True)
    streamer = Streamer(device, channels=[True, True])
    describe(device)
    start(device, coordinator)
    wait_for_triggers(device, [1, 2])
    coordinator.enable(False)
    device.sync()
    for channel in (1, 2):
        streamer.enable(channel, False)
    device.sync()
    assert (enabled(device, 1), enabled(device, 2)) == (True, True)
    # PTZ comes back: the channels are disabled by now, so channel 1 is enabled again.
    coordinator.enable(True)
    device.sync()
    streamer.enable(2, False)
    wait_until(lambda: enabled(device, 2) is False, "channel 2 to be disabled")


def test_before_ptz_is_known_channel_1_is_enabled_whatever_it_says(device):
    coordinator = Coordinator(device, enabled=True)
    Streamer(device, channels=[False, True])
    describe(device)
    start(device, coordinator)
    wait_for_triggers(device, [1, 2])
    # The channels are met first; PTZ comes on for those in the list, which 1 is not in.
    assert (enabled(device, 1), enabled(device, 2)) == (True, True)


def test_ptz_going_off_enables_no_trigger_that_exists(device):
    coordinator = Coordinator(device, enabled=True)
    streamer = Streamer(device, channels=[True, True])
    describe(device)
    start(device, coordinator)
    wait_for_triggers(device, [1, 2])
    streamer.enable(1, False)
    wait_until(lambda: not enabled(device, 1), "channel 1 to be disabled")
    coordinator.enable(False)
    device.sync()
    assert not enabled(device, 1)


def test_ptz_going_off_lists_channel_1_for_the_time_when_it_comes_back(device):
    coordinator = Coordinator(device, enabled=True)
    streamer = Streamer(device, channels=[True, True])
    describe(device)
    start(device, coordinator)
    wait_for_triggers(device, [1, 2])
    streamer.enable(1, False)
    streamer.enable(2, False)
    wait_until(lambda: not enabled(device, 2), "channel 2 to be disabled")
    coordinator.enable(False)
    coordinator.enable(True)
    wait_until(lambda: enabled(device, 1), "channel 1 to be enabled")
    # A channel that was switched off has left the list.
    assert not enabled(device, 2)


def test_a_streamer_that_takes_anothers_place_is_met_anew(device):
    describe(device)
    streamer = Streamer(device, channels=[True, True])
    device.start()
    wait_for_triggers(device, [1, 2])
    # It waits in the bus's queue for the name, and has no channels.
    Witness(device, Streamer, {"Nothing": ("", "", lambda: None)})
    streamer.stop()
    wait_until(lambda: set(triggers(device)) == {1}, "the ports one above the channels to go")


def test_ptz_coming_on_enables_every_enabled_channel(device):
    coordinator = Coordinator(device, enabled=False)
    describe(device)
    start(device, coordinator)
    Streamer(device, channels=[True, False, True])
    wait_for_triggers(device, [1, 2, 3])
    assert not enabled(device, 3)
    coordinator.enable(True)
    wait_until(lambda: enabled(device, 3), "channel 3 to be enabled")
    assert (enabled(device, 1), enabled(device, 2)) == (True, False)


@pytest.mark.parametrize(
    "parameters", [{}, {"enabled": "yes"}], ids=["no property", "of another type"]
)
def test_a_coordinator_that_does_not_tell_leaves_the_channels_alone(device, parameters):
    coordinator = Coordinator(device, **parameters)
    describe(device)
    start(device, coordinator)
    streamer = Streamer(device, channels=[True, True])
    wait_for_triggers(device, [1, 2])
    assert enabled(device, 2)
    streamer.enable(2, False)
    wait_until(lambda: not enabled(device, 2), "channel 2 to be disabled")


def test_a_coordinator_that_goes_is_unknown(device):
    coordinator = Coordinator(device, enabled=False)
    describe(device)
    start(device, coordinator)
    coordinator.stop()
    device.sync()
    streamer = Streamer(device, channels=[True, True])
    wait_for_triggers(device, [1, 2])
    assert enabled(device, 2)
    with meeting(device, coordinator):
        coordinator.start(enabled=False)
    streamer.enable(2, False)
    device.sync()
    assert enabled(device, 2)  # left as it is while PTZ is disabled


@FAULTS
def test_channels_that_answer_badly_are_none_until_the_streamer_is_back_in_order(device, fault):
    streamer = Streamer(device, channels=[True, True], properties=fault)
    coordinator = Coordinator(device, enabled=False)
    describe(device)
    start(device, coordinator)
    wait_for_triggers(device, [1])  # the one that is there without any channel
    device.sync()
    assert set(triggers(device)) == {1}
    streamer.stop()
    del streamer.parameters["properties"]
    streamer.start()
    wait_for_triggers(device, [1, 2])


@FAULTS
def test_a_streamer_that_comes_back_broken_has_no_channels(device, fault):
    streamer = Streamer(device, channels=[True, True])
    coordinator = Coordinator(device, enabled=True)
    describe(device)
    start(device, coordinator)
    wait_for_triggers(device, [1, 2])
    streamer.stop()
    wait_for_triggers(device, [1])
    with meeting(device, streamer):
        streamer.start(properties=fault)
    assert set(triggers(device)) == {1}
    assert device.state.GetState(0) is False


@pytest.mark.parametrize("present", [True, False], ids=["at start", "later"])
def test_every_channel_of_a_late_streamer_is_met(device, present):
    streamer = Streamer(
        device, start=False, channels=[True, True, True], properties=late_properties(LATE)
    )
    coordinator = Coordinator(device, enabled=True)
    describe(device)
    if present:
        streamer.start()
    start(device, coordinator)
    if not present:
        streamer.start()
    wait_for_triggers(device, [1, 2, 3])
    streamer.enable(3, False)
    wait_until(lambda: enabled(device, 3) is False, "channel 3 to be disabled")


@pytest.mark.parametrize("known", [True, False], ids=["with PTZ", "without a coordinator"])
def test_a_streamer_that_goes_while_it_is_met_for_the_first_time_is_met_before_it_is_gone(
    device, known
):
    """What is known of PTZ counts for its channels, and only then do they go."""
    streamer = Streamer(device, channels=[True, True, True], properties=SILENT_THIRD)
    coordinator = Coordinator(device, start=known, enabled=True)
    describe(device)
    device.start()
    wait_until(lambda: streamer.questions() == 3, "the third channel to be asked")
    assert set(triggers(device)) == {1, 2}
    streamer.stop()
    wait_for_triggers(device, [1])
    device.sync()
    if known:
        wait_until(coordinator.questions, "the coordinator to be asked")
        coordinator.mock("GetCalls")
        device.sync()
    assert set(triggers(device)) == {1}
    del streamer.parameters["properties"]
    streamer.start()
    wait_for_triggers(device, [1, 2, 3])


@FAULTS
def test_a_coordinator_that_answers_badly_is_unknown(device, fault):
    coordinator = Coordinator(device, enabled=False, properties=fault)
    describe(device)
    start(device, coordinator)
    Streamer(device, channels=[True, True])
    wait_for_triggers(device, [1, 2])
    assert enabled(device, 2)  # were PTZ known to be disabled, it would not be
    # What it says by itself counts.
    coordinator.enable(False)
    coordinator.enable(True)
    device.sync()
    assert enabled(device, 2)


@FAULTS
def test_a_coordinator_that_comes_back_broken_is_unknown(device, fault):
    coordinator = Coordinator(device, enabled=False)
    describe(device)
    start(device, coordinator)
    coordinator.stop()
    with meeting(device, coordinator):
        coordinator.start(properties=fault)
    Streamer(device, channels=[True, True])
    wait_for_triggers(device, [1, 2])
    assert enabled(device, 2)


@pytest.mark.parametrize("present", [True, False], ids=["at start", "later"])
def test_what_a_late_coordinator_says_counts(device, present):
    coordinator = Coordinator(
        device, start=False, enabled=False, properties=late_properties(LATE)
    )
    describe(device)
    if present:
        coordinator.start()
        start(device, coordinator)
    else:
        device.start()
        with meeting(device, coordinator):
            coordinator.launch()
            # It is asked without waiting.
            wait_until(coordinator.questions, "the question")
            assert device.state.GetState(0) is False
    Streamer(device, channels=[True, True])
    wait_for_triggers(device, [1, 2])
    assert not enabled(device, 2)


def test_the_coordinator_may_come_after_the_channels_and_go_and_return(device):
    describe(device)
    device.start()
    streamer = Streamer(device, channels=[True, True])
    wait_for_triggers(device, [1, 2])
    coordinator = Coordinator(device, start=False, enabled=False)
    for _ in range(2):
        with meeting(device, coordinator):
            coordinator.start()
        streamer.enable(2, False)
        device.sync()
        assert enabled(device, 2)  # left as it is while PTZ is disabled
        coordinator.stop()
        wait_until(lambda: not device.client().owner(coordinator.NAME), "the coordinator to go")
        device.sync()
        streamer.enable(2, True)


def test_signals_of_another_form_are_ignored(device):
    coordinator = Coordinator(device, enabled=True)
    streamer = Streamer(device, channels=[True, True])
    describe(device)
    start(device, coordinator)
    wait_for_triggers(device, [1, 2])
    streamer.emit("EnabledChanged", "i", 0, path=f"{streamer.PATH}/2")
    streamer.emit("Other", "b", False, path=f"{streamer.PATH}/2")
    coordinator.emit("PtzEnabledChanged", "b", False)
    device.sync()
    assert enabled(device, 2)


def test_trigger_ports_that_meet_real_numbers_follow_the_look_ups(device):
    Streamer(device, channels=[True])
    describe(device, port("p", 0), nbr=0)
    device.start()
    wait_until(lambda: triggers(device) == {1: 0}, "a trigger of number 0")
    assert device.state.GetNames(0)[1] == "Port 1"  # the older port of that number answers


def test_channels_vanish_quietly_at_shutdown(device):
    coordinator = Coordinator(device, enabled=True)
    Streamer(device, channels=[True, True])
    describe(device)
    start(device, coordinator)
    wait_for_triggers(device, [1, 2])
    device.stop()
    assert device.log_count("event undeclare .*ManualTrigger") == 2
