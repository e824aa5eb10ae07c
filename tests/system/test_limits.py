"""What one client may ask for: none makes the others wait, or the daemon lose its bus."""

import pathlib
import re

import pytest
from describe import port
from legacy import INPUT, IOPORT, OUTPUT, Legacy

from sim.bus import ActionSequenceDone, BusError, wait_until

LIMIT = 65_536  # bytes of a name or usage
STEPS = 100_000  # steps of a sequence
GIVEN_BACK = 32 * 1024  # KiB that a sequence may leave behind at most
# KiB that a hundred at once may leave behind: kept stacks, as many as ended at once. Half a mebibyte
# more stays where nothing is given back.
MANY_GIVEN_BACK = 1000


@pytest.fixture
def lamps(device):
    device.describe(
        port("a", 0, "io_ctrl", dir="output")
        + port("b", 1)
        + port("locked", 2, "io_ctrl", dir="output", properties="ioport readonly")
    )
    device.start()
    return device


def refusal(call, *arguments):
    with pytest.raises(BusError) as caught:
        call(*arguments)
    return caught.value.name.removeprefix("com.norv.IOControl.Error."), caught.value.message


def resident_kib(device):
    for line in pathlib.Path(f"/proc/{device.pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    raise AssertionError("no VmRSS")


@pytest.mark.parametrize("fill", ["x", "é"], ids=["plain", "two bytes each"])
def test_a_text_at_the_limit_is_taken_and_one_beyond_it_refused(lamps, fill):
    longest = fill * (LIMIT // len(fill.encode()))
    state = lamps.state
    state.SetName(0, False, longest)
    state.SetName(0, True, longest)
    state.SetUsage(0, longest)
    for side, word in ((True, "input"), (False, "output")):
        assert refusal(state.SetName, 0, side, longest + "x") == (
            "Generic", f"Could not set {word} name for the port.",
        )  # fmt: skip
    assert refusal(state.SetUsage, 0, longest + "x") == (
        "Generic", "Could not set usage for the port.",
    )  # fmt: skip
    assert list(state.GetNames(0)) == [longest, longest]
    assert state.GetUsage(0) == longest


@pytest.mark.parametrize("interface", [INPUT, OUTPUT])
def test_the_legacy_interface_refuses_a_name_like_one_that_may_not_change(lamps, interface):
    legacy = Legacy(lamps)
    locked = refusal(legacy.set, 2, interface, "Name", "new")
    before = legacy.get(0, interface, "Name")
    assert refusal(legacy.set, 0, interface, "Name", "x" * (LIMIT + 1)) == locked
    assert legacy.get(0, interface, "Name") == before
    legacy.set(0, interface, "Name", "x" * LIMIT)


def test_the_legacy_interface_leaves_a_usage_like_one_that_may_not_change(lamps):
    # This one property has always answered with success, whatever came of it.
    legacy = Legacy(lamps)
    for number, text in ((2, "new"), (0, "x" * (LIMIT + 1))):
        before = legacy.get(number, IOPORT, "Usage")
        legacy.set(number, IOPORT, "Usage", text)
        assert legacy.get(number, IOPORT, "Usage") == before
    legacy.set(0, IOPORT, "Usage", "x" * LIMIT)
    assert lamps.state.GetUsage(0) == "x" * LIMIT


def test_a_refused_text_is_not_saved(lamps):
    with pytest.raises(BusError):
        lamps.state.SetUsage(1, "x" * (LIMIT + 1))
    assert lamps.saved["b"]["usage"] == ""


def test_the_longest_sequence_is_taken_and_a_longer_one_refused(lamps):
    too_many = [(True, 0)] * (STEPS + 1)
    assert refusal(lamps.state.StartActionSequence, 1, False, too_many) == (
        "Generic", "The action sequence has too many steps.",
    )  # fmt: skip
    signals = lamps.signals()
    lamps.state.StartActionSequence(1, False, [(True, 0)] * STEPS)
    signals.wait_for(ActionSequenceDone, port=1)


def test_a_long_sequence_on_a_busy_port_hears_that_it_is_busy(lamps):
    lamps.state.StartActionSequence(1, False, [(True, 2_000_000)])
    too_many = [(True, 0)] * (STEPS + 1)
    assert refusal(lamps.state.StartActionSequence, 1, False, too_many) == (
        "Busy", "The port is busy.",
    )  # fmt: skip


@pytest.mark.uninstrumented
@pytest.mark.without_tsan("a sanitizer keeps what is freed")
@pytest.mark.parametrize("virtual", [False, True])
def test_steps_of_no_length_hold_up_nobody_and_cost_no_memory(lamps, virtual):
    state = lamps.state
    state.SetState(1, True)
    before = resident_kib(lamps)
    state.StartActionSequence(1, virtual, [(step % 2 == 0, 0) for step in range(STEPS)])
    reads = writes = 0
    # A sequence of no steps is refused for being empty as soon as the port is free.
    while refusal(state.StartActionSequence, 1, False, [])[0] == "Busy":
        state.GetState(0)
        reads += 1
        state.SetState(1, writes % 2 == 0)
        writes += 1
    # Both come through all the time, not once at the end; how often depends on the processor.
    assert reads >= 4
    assert writes >= 4
    wait_until(
        lambda: resident_kib(lamps) - before < GIVEN_BACK,
        lambda: f"{resident_kib(lamps) - before} KiB given back",
    )


@pytest.mark.uninstrumented
@pytest.mark.without_tsan("a sanitizer keeps what is freed")
def test_durations_that_wrap_around_are_paced_like_those_of_no_length(lamps):
    before = resident_kib(lamps)
    state = lamps.state
    state.StartActionSequence(1, False, [(step % 2 == 0, 2_147_484) for step in range(STEPS)])
    reads = 0
    while refusal(state.StartActionSequence, 1, False, [])[0] == "Busy":
        state.GetState(0)
        reads += 1
    assert reads >= 4
    wait_until(
        lambda: resident_kib(lamps) - before < GIVEN_BACK,
        lambda: f"{resident_kib(lamps) - before} KiB given back",
    )


def private_kib(device):
    shares = pathlib.Path(f"/proc/{device.pid}/smaps_rollup").read_text()
    return sum(int(kib) for kib in re.findall(r"Private_Dirty: +(\d+)", shares))


@pytest.mark.uninstrumented
@pytest.mark.without_tsan("a sanitizer keeps what is freed")
def test_many_sequences_at_once_leave_little_behind(device):
    numbers = range(100)
    device.describe("".join(port(f"p{number}", number) for number in numbers))
    device.start()
    before = private_kib(device)
    signals = device.signals()
    # The last step is held, so that they are all there at once, however slowly they are started.
    steps = [(step % 2 == 0, 2) for step in range(400)] + [(True, 1_000_000)]
    for number in numbers:
        device.state.StartActionSequence(number, False, steps)
    for number in numbers:
        device.manager.StopSequence(number)
    for number in numbers:
        signals.wait_for(ActionSequenceDone, port=number)
    wait_until(
        lambda: private_kib(device) - before < MANY_GIVEN_BACK,
        lambda: f"{private_kib(device) - before} KiB given back",
    )


@pytest.mark.uninstrumented
@pytest.mark.without_tsan("a sanitizer needs more address space than there is")
def test_a_sequence_without_a_thread_could_not_be_started(make_device):
    # Room for the stacks of some threads, not of all.
    device = make_device(wrapper=["prlimit", f"--as={400 << 20}"])
    numbers = range(60)
    device.describe("".join(port(f"p{number}", number) for number in numbers))
    device.start()
    state = device.state

    def start(number):
        state.StartActionSequence(number, False, [(True, 2_000_000)])

    started = []
    with pytest.raises(BusError) as caught:
        for number in numbers:
            start(number)
            started.append(number)
    assert caught.value.name == "com.norv.IOControl.Error.Generic"
    assert caught.value.message == "The action sequence could not be started."
    assert started
    refused = len(started)
    device.wait_for_log(rf"^WARNING: No thread for the action sequence of port {refused}: ")
    device.expect(r"^WARNING: No thread for the action sequence")
    # The port is not left busy, and runs its sequence once another has ended.
    state.SetActive(started[0], False, "open")
    wait_until(lambda: not refuses(start, refused), "a thread for the sequence")


def refuses(call, *arguments):
    try:
        call(*arguments)
    except BusError:
        return True
    return False
