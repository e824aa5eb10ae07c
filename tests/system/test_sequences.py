"""Action sequences: what is accepted, how steps are held, what cancels them, what is told."""

import time

import pytest
from describe import port, sysfs_input

from sim.bus import ActionSequenceDone, BusError, PortChanged, wait_until
from sim.peers import IoBox, ZWave

LONG = 2_000_000  # milliseconds: more than half an hour, and no wrap yet
DOOR = "/sys/door"


@pytest.fixture
def running(device):
    device.write(DOOR, "0\n")
    device.describe(
        sysfs_input("in", 0, DOOR)
        + port("out", 1, "output")
        + port("both", 2, "io_ctrl", dir="output")
        + port("v", 3, "output", "virtual", properties="ioport virtual")
        + port("trigger", 4, "output", properties="virtual")
        + port("other", 5, "output", optional="true")
    )
    device.start()
    return device


def start(device, number, steps, virtual=False):
    device.state.StartActionSequence(number, virtual, steps)


def start_when_free(device, number, steps):
    """Starts a sequence right after another: the end is told just before the port is free."""
    while True:
        try:
            return start(device, number, steps)
        except BusError as error:
            assert error.message == "The port is busy."


def refusal(device, number, steps, virtual=False):
    with pytest.raises(BusError) as caught:
        start(device, number, steps, virtual)
    return caught.value.name.removeprefix("com.norv.IOControl.Error."), caught.value.message


def test_one_step_of_no_length_sets_the_output_and_ends(running):
    signals = running.signals()
    start(running, 1, [(True, 0)])
    signals.wait_for(ActionSequenceDone, port=1)
    assert signals.take() == [PortChanged(1, False, False, False, False, True, False)]
    assert running.state.GetState(1) is True


def test_a_blink_tells_each_change_in_order_and_holds_each_step(running):
    signals = running.signals()
    begin = time.monotonic()
    start(running, 1, [(True, 60), (False, 120), (True, 90), (False, 30)])
    done = signals.wait_for(ActionSequenceDone, port=1)
    changes = signals.take()
    assert [change.state for change in changes] == [True, False, True, False]
    assert [change.port for change in changes] == [1] * 4
    earliest = (0, 0.060, 0.180, 0.270)
    for change, offset in zip(changes, earliest):
        assert change.at - begin >= offset - 0.005
    assert done.at - begin >= 0.295, "the last step is held too"


def test_the_call_returns_before_the_sequence_ends(running):
    signals = running.signals()
    start(running, 1, [(True, LONG)])
    signals.wait_for(PortChanged, port=1, state=True)
    signals.assert_none(ActionSequenceDone)


def test_steps_that_change_nothing_emit_no_change_but_the_end(running):
    signals = running.signals()
    start(running, 1, [(False, 10), (False, 10)])
    signals.wait_for(ActionSequenceDone, port=1)
    signals.assert_none(PortChanged)


def test_a_sequence_runs_inverted_on_an_inverted_output(running):
    running.state.SetActive(1, False, "open")
    signals = running.signals()
    start(running, 1, [(True, 0), (False, 0), (True, 0)])
    signals.wait_for(ActionSequenceDone, port=1)
    changes = signals.take()
    assert [(change.state, change.activelow) for change in changes] == [
        (True, True), (False, True), (True, True),
    ]  # fmt: skip


def test_a_virtual_sequence_sends_every_step_and_leaves_the_line_alone(running):
    signals = running.signals()
    start(running, 1, [(True, 0), (True, 0), (False, 0), (True, 0)], virtual=True)
    signals.wait_for(ActionSequenceDone, port=1)
    assert signals.take() == [
        PortChanged(1, False, False, False, True, state, False)
        for state in (True, True, False, True)
    ]
    assert running.state.GetState(1) is False


def test_a_virtual_sequence_is_accepted_on_an_input(running):
    signals = running.signals()
    start(running, 0, [(True, 0), (False, 0)], virtual=True)
    signals.wait_for(ActionSequenceDone, port=0)
    assert [change.input for change in signals.take()] == [True, True]


def test_a_virtual_sequence_drives_a_virtual_output(running):
    signals = running.signals()
    start(running, 3, [(False, 0), (True, 0)], virtual=True)
    signals.wait_for(ActionSequenceDone, port=3)
    assert running.state.GetState(3) is True


def test_a_sequence_runs_on_a_port_that_is_only_virtual(running):
    signals = running.signals()
    start(running, 4, [(True, 0)])
    signals.wait_for(PortChanged, port=4, virtual=True, virtual_trig=False, state=True)
    signals.wait_for(ActionSequenceDone, port=4)


@pytest.mark.parametrize(
    "number", [pytest.param(0, id="an input"), pytest.param(3, id="a virtual backend")]
)
def test_a_plain_sequence_is_refused_where_no_line_is_driven(running, number):
    signals = running.signals()
    assert refusal(running, number, [(True, 0)]) == ("Not_output", "Port not output.")
    assert running.log_count(r"^WARNING: Set action seq on incorrect port$") == 1
    signals.assert_none()


def test_a_plain_sequence_is_refused_on_a_port_turned_in(running):
    running.state.SetDirection(2, "input")
    assert refusal(running, 2, [(True, 0)]) == ("Not_output", "Port not output.")


def test_a_sequence_on_no_port_is_refused(running):
    assert refusal(running, 77, [(True, 0)]) == ("No_port", "No such port.")


@pytest.mark.parametrize("virtual", [False, True])
def test_an_empty_sequence_is_refused_and_leaves_the_port_free(running, virtual):
    with pytest.raises(BusError):
        start(running, 1, [], virtual)
    signals = running.signals()
    start(running, 1, [(True, 0)])
    signals.wait_for(ActionSequenceDone, port=1)


def test_a_second_sequence_on_a_busy_port_is_refused(running):
    signals = running.signals()
    start(running, 1, [(True, LONG)])
    signals.wait_for(PortChanged, port=1, state=True)
    for virtual in (False, True):
        assert refusal(running, 1, [(False, 0)], virtual) == ("Busy", "The port is busy.")
    signals.assert_none()


def test_the_busy_test_comes_before_the_kind_of_port(running):
    start(running, 0, [(True, LONG)], virtual=True)
    assert refusal(running, 0, [(True, 0)]) == ("Busy", "The port is busy.")


def test_the_busy_test_comes_before_the_number_of_steps(running):
    start(running, 1, [(True, LONG)])
    assert refusal(running, 1, []) == ("Busy", "The port is busy.")


def test_of_many_simultaneous_starts_one_wins(running):
    clients = [running.client() for _ in range(4)]
    calls = [
        client.state.begin("StartActionSequence", 1, False, [(True, LONG)])
        for client in clients
        for _ in range(5)
    ]
    outcomes = []
    for call in calls:
        try:
            call.wait()
            outcomes.append("started")
        except BusError as error:
            outcomes.append(error.message)
    assert sorted(outcomes) == sorted(["started"] + ["The port is busy."] * 19)


def test_sequences_on_different_ports_run_side_by_side(running):
    signals = running.signals()
    start(running, 1, [(True, LONG)])
    start(running, 5, [(True, 10), (False, 10)])
    signals.wait_for(ActionSequenceDone, port=5)
    signals.assert_none(ActionSequenceDone, port=1)


def test_a_port_is_free_again_after_its_sequence(running):
    signals = running.signals()
    for _ in range(100):
        start_when_free(running, 1, [(True, 0), (False, 0)])
        signals.wait_for(ActionSequenceDone, port=1)
    assert len(signals.take()) == 200


def test_inverting_the_output_ends_its_sequence_and_then_flips_the_line(running):
    signals = running.signals()
    start(running, 1, [(True, LONG), (False, LONG)])
    signals.wait_for(PortChanged, port=1, state=True)
    running.state.SetActive(1, False, "open")
    assert signals.take() == [
        ActionSequenceDone(1),
        PortChanged(1, False, False, False, False, True, True),
    ]
    assert running.state.GetState(1) is True


def test_turning_a_port_ends_its_sequence(running):
    signals = running.signals()
    start(running, 2, [(True, LONG), (False, LONG)])
    signals.wait_for(PortChanged, port=2, state=True)
    running.state.SetDirection(2, "input")
    kinds = [type(signal) for signal in signals.take()]
    assert kinds == [ActionSequenceDone, PortChanged]


@pytest.mark.parametrize(
    "method, arguments",
    [
        pytest.param("SetActive", (False, "closed"), id="the same active sense"),
        pytest.param("SetName", (False, "New"), id="a name"),
        pytest.param("SetUsage", ("New",), id="a usage"),
        pytest.param("SetVirtual", (True,), id="a virtual write"),
        pytest.param("GetState", (), id="a read"),
    ],
)
def test_what_needs_no_quiet_port_leaves_the_sequence_running(running, method, arguments):
    signals = running.signals()
    start(running, 1, [(True, LONG)])
    signals.wait_for(PortChanged, port=1, state=True)
    getattr(running.state, method)(1, *arguments)
    signals.assert_none(ActionSequenceDone)
    assert refusal(running, 1, [(True, 0)]) == ("Busy", "The port is busy.")


def test_a_plain_write_goes_between_the_steps_and_the_sequence_goes_on(running):
    signals = running.signals()
    start(running, 1, [(True, 50)] * 2000)
    signals.wait_for(PortChanged, port=1, state=True)
    running.state.SetState(1, False)
    signals.wait_for(PortChanged, port=1, state=False)
    signals.wait_for(PortChanged, port=1, state=True)
    running.manager.StopSequence(1)
    signals.wait_for(ActionSequenceDone, port=1)
    assert not signals.take(), "one write, one step that undid it"


@pytest.mark.parametrize(
    "duration",
    [
        pytest.param(2_147_484, id="wraps to a time long past"),
        pytest.param(4_294_968, id="wraps to less than a millisecond"),
        pytest.param(2_147_483_647, id="the largest"),
        pytest.param(-1, id="negative"),
        pytest.param(-2_147_483_648, id="the smallest"),
    ],
)
def test_durations_beyond_32_bits_of_microseconds_wrap(running, duration):
    signals = running.signals()
    start(running, 1, [(True, duration), (False, duration)])
    signals.wait_for(ActionSequenceDone, port=1)
    assert [change.state for change in signals.take()] == [True, False]


def test_the_longest_duration_that_does_not_wrap_is_held(running):
    signals = running.signals()
    start(running, 1, [(True, 2_147_483), (False, 0)])
    signals.wait_for(PortChanged, port=1, state=True)
    signals.assert_none(ActionSequenceDone)
    running.state.SetActive(1, False, "open")
    signals.wait_for(ActionSequenceDone, port=1)


def test_a_long_list_of_steps_runs_to_its_end(running):
    signals = running.signals()
    start(running, 1, [(n % 2 == 0, 0) for n in range(2000)])
    signals.wait_for(ActionSequenceDone, port=1)
    assert len(signals.take()) == 2000


def test_the_end_of_the_daemon_does_not_wait_for_a_sequence(running):
    for number in (1, 2, 5):
        start(running, number, [(True, LONG), (False, LONG)])
    begin = time.monotonic()
    running.stop(0)
    assert time.monotonic() - begin < 5


def test_dropping_a_port_with_a_running_sequence_harms_nothing(running):
    signals = running.signals()
    start(running, 5, [(True, 100), (False, 100), (True, 0)])
    assert running.state.DropIOPorts(["other"]) == ["other"]
    signals.wait_for(ActionSequenceDone, port=5)
    running.state.RefreshIOPorts()
    start_when_free(running, 5, [(True, 0)])
    signals.wait_for(ActionSequenceDone, port=5)


def test_the_daemon_ends_with_a_sequence_on_a_dropped_port(running):
    start(running, 5, [(True, LONG)])
    running.state.DropIOPorts(["other"])
    running.stop(0)


def test_starts_and_cancellations_in_quick_succession_never_hang(running):
    """Cancelling meets the sequence at every point of its life, its very start included."""
    signals = running.signals()
    for round_ in range(100):
        first = running.state.begin("StartActionSequence", 1, False, [(True, LONG)])
        second = running.state.begin("SetActive", 1, False, "open" if round_ % 2 == 0 else "closed")
        first.wait()
        second.wait()
        signals.wait_for(ActionSequenceDone, port=1)


BLINKS = [(n % 2 == 0, 1) for n in range(100)]


def test_a_sequence_drives_an_output_of_an_io_box(device):
    """Its calls are made on its own thread, while the main one reads and switches the same port."""
    box = IoBox(device)
    device.describe(port("out", 1, "output", "iobox") + port("in", 2, "input", "iobox"))
    device.start()
    signals = device.signals()
    start(device, 1, BLINKS)
    for word in ("closed", "open") * 5:
        box.line(2, word)
        device.state.GetState(1)
        device.supervision.GetSupervisedReadout(1)
    signals.wait_for(ActionSequenceDone, port=1)
    changes = [change for change in signals.take() if change.port == 1]
    assert [change.state for change in changes] == [state for state, _ in BLINKS]
    assert box.modes[1:] == [(1, int(state), "out") for state, _ in BLINKS]

    start_when_free(device, 1, [(True, 0), (True, LONG)])
    signals.wait_for(PortChanged, port=1, state=True)
    device.supervision.SetSupervised(1, True)  # a change of configuration ends the sequence
    signals.wait_for(ActionSequenceDone, port=1)
    assert box.modes[-1] == (1, 1, "out")


def test_a_sequence_drives_a_z_wave_output(device):
    peer = ZWave(device)
    device.describe(port("out", 1, "output", "zwave") + port("in", 2, "input", "zwave"))
    device.start()
    signals = device.signals()
    start(device, 1, BLINKS)
    for state in (True, False) * 5:
        peer.device_state(2, state)
        device.state.GetState(1)
    signals.wait_for(ActionSequenceDone, port=1)
    changes = [change for change in signals.take() if change.port == 1]
    assert [change.state for change in changes] == [state for state, _ in BLINKS]
    assert peer.sent[1:] == [(1, state) for state, _ in BLINKS]


@pytest.mark.parametrize("backend, peer_class", [("iobox", IoBox), ("zwave", ZWave)])
def test_a_sequence_ends_with_the_port_that_a_service_drives(device, backend, peer_class):
    """Dropped and refreshed while it runs, and with the service gone and back in the meantime."""
    peer = peer_class(device)
    device.describe(port("out", 1, "output", backend, optional="true"))
    device.start()
    signals = device.signals()
    for _ in range(5):
        start_when_free(device, 1, [(n % 2 == 0, 1) for n in range(5000)])
        assert device.state.DropIOPorts(["out"]) == ["out"]
        signals.wait_for(ActionSequenceDone, port=1)
        device.state.RefreshIOPorts()
    start_when_free(device, 1, BLINKS)
    peer.stop()
    peer.start()
    signals.wait_for(ActionSequenceDone, port=1)
    device.state.SetState(1, True)
    wait_until(lambda: device.state.GetState(1), "the port to be driven again")
