"""The live view of scripts/run, through a terminal: what keys do, and what is seen of it."""

import contextlib
import os
import pathlib
import re
import shutil
import signal
import time

import pytest
from live_screen import choose, says

from sim import sandbox
from sim.bus import wait_until
from sim.peers import ZWave
from sim.terminal import DEADLINE, Terminal, simulation

pytestmark = pytest.mark.terminal

SHOWN = "14 of 14 ports in service"


@pytest.fixture
def make_terminal():
    with contextlib.ExitStack() as stack:
        yield lambda *arguments, **more: stack.enter_context(Terminal(*arguments, **more))


@pytest.fixture
def live(make_terminal, binary):
    """Starts the live view."""

    def start(columns=100, rows=36, **more):
        terminal = make_terminal(simulation(binary), columns, rows, **more)
        terminal.wait_for(SHOWN, "Alarm loop")
        return terminal

    return start


def row(lines, name):
    """The row of a port in the list."""
    return next(line for line in lines if re.match(rf"..\d+ +{name} ", line))


def test_every_port_is_shown_as_the_daemon_has_it(live):
    terminal = live()
    client = terminal.client()
    lines = terminal.wait_for("Front door contact", "closed +1300", "● Event.ActionEngine.User")
    _, entries = client.state.GetPortProps()
    for name, number, state, is_input, switchable, *_ in entries:
        shown = row(lines, name)
        assert shown[2:4].strip() == str(number)
        assert ("input" if is_input else "output") + (" ⇄" if switchable else "") in shown
        assert ("● " if state else "○ ") in shown
    assert "PIR sensor" in row(lines, "pir_detector")
    for name in ("IOBoxMonitor", "ZWave.IO", "Streamer", "PTZ.Coordinator"):
        assert re.search(rf"● {name} *$", "\n".join(lines), re.M)
    assert all(len(line) <= 100 for line in lines) and len(lines) == 36


def test_an_input_is_flipped(live):
    terminal = live()
    client = terminal.client()
    assert "○ off" in row(terminal.screen(), "door")
    terminal.keys("Space")
    terminal.wait_for(r"^▶ 0 +door .*● on", r"\d\d:\d\d:\d\d port 0 door: on \(input\)")
    says(lambda: client.state.GetState(0), True)
    terminal.keys("Space")
    terminal.wait_for(r"^▶ 0 +door .*○ off", "port 0 door: off")
    says(lambda: client.state.GetState(0), False)


def test_outputs_are_driven_pulsed_turned_and_inverted(live):
    terminal = live()
    client = terminal.client()
    choose(terminal, "relay")
    terminal.keys("Space")
    terminal.wait_for(r"^▶ 3 +relay .*● on", r"event IOPort port=3 state=1")
    says(lambda: client.state.GetState(3), True)
    choose(terminal, "lamp")
    terminal.keys("p")
    terminal.wait_for("port 4 lamp: on", "port 4 lamp: off", "port 4 lamp: sequence done")
    choose(terminal, "configurable")
    terminal.keys("t")
    terminal.wait_for(r"^▶ 6 +configurable .*input ")
    says(lambda: client.state.GetDirection(6), "input")
    terminal.keys("a")
    terminal.wait_for(r"^▶ 6 +configurable .*input .* open")
    says(lambda: client.state.GetActive(6)[0], "open")


@pytest.mark.parametrize("name, number", [("alarm", 9), ("manualtrigger1", 20)])
def test_a_virtual_port_is_set(live, name, number):
    terminal = live()
    client = terminal.client()
    choose(terminal, name)
    for word, state in (("● on", True), ("○ off", False)):
        terminal.keys("Space")
        terminal.wait_for(rf"^▶ {number} +{name} .*{word}", rf"{name}: {word[2:]} \(output, virt")
        says(lambda: dict(entry[1:3] for entry in client.state.GetPortProps()[1])[number], state)


@pytest.mark.parametrize("key, state, level", [("c", "cut", 3850), ("s", "short", 200)])
def test_a_measured_line_shows_its_state_and_where_in_its_ranges_it_is(live, key, state, level):
    terminal = live()
    client = terminal.client()
    choose(terminal, "window")
    before = terminal.wait_for(r"12  window +closed +1300 \S?short\S* *├closed─*◆")
    for line in before:
        if "1300" in line:
            assert line.index("closed─") < line.index("◆") < line.index("├open"), line
    terminal.keys(key)
    lines = terminal.wait_for(rf"12  window +{state} +{level} ", rf"^▶ 12 .* {state} ")
    says(lambda: client.supervision.GetSupervisedReadout(12), (state, level))
    bar = next(line for line in lines if f"{level} " in line)
    if state == "cut":
        assert bar.index("├cut") < bar.index("◆"), bar
    else:
        assert bar.index("◆") < bar.index("├closed"), bar
    terminal.wait_for(rf"event SupervisedPort port=12 state={state} tampered=1")
    terminal.keys("n")
    terminal.wait_for(r"12  window +closed +1300 ")
    says(lambda: client.supervision.GetSupervisedReadout(12), ("closed", 1300))


def test_a_line_of_the_box_is_cut_and_supervision_switched_off(live):
    terminal = live()
    client = terminal.client()
    choose(terminal, "loop")
    terminal.keys("c")
    terminal.wait_for(r"10  loop +cut +told, not measured")
    says(lambda: client.supervision.GetSupervisedReadout(10)[0], "cut")
    terminal.keys("v")
    terminal.wait_for(r"10  loop +not supervised", r"^▶ 10 .* off ")
    says(lambda: client.supervision.GetSupervised(10), False)


def test_an_optional_port_is_dropped_and_plugged_in(live):
    terminal = live()
    client = terminal.client()

    def numbers():
        return [entry[1] for entry in client.state.GetPortProps()[1]]

    choose(terminal, "extension")
    terminal.keys("d")
    terminal.wait_for(r"^▶ 7 +extension .*missing", "extension is out of service", "13 of 14 ports", "r plug-in")
    assert 7 not in numbers()
    terminal.keys("r")
    terminal.wait_for(r"^▶ 7 +extension .*○ off", SHOWN)
    assert 7 in numbers()
    choose(terminal, "siren")
    terminal.keys("d")
    terminal.wait_for("that port is not optional and stays")
    assert 5 in numbers()


def test_a_peer_is_stopped_and_started(live):
    terminal = live()
    client = terminal.client()
    assert client.owner(ZWave.NAME)
    terminal.keys("2")
    terminal.wait_for("○ ZWave.IO not there", "Z-Wave is stopped")
    assert not client.owner(ZWave.NAME)
    terminal.keys("2")
    terminal.wait_for("● ZWave.IO", "Z-Wave is started")
    assert client.owner(ZWave.NAME)


def test_a_refusal_is_told_with_its_error_name(live):
    terminal = live()
    choose(terminal, "siren")
    terminal.keys("a")
    terminal.wait_for(r"active: .*com\.norv\.IOControl\.Error\.\w+")


def test_the_daemon_is_restarted_and_one_that_ended_is_told(live):
    terminal = live()
    client = terminal.client()
    client.state.SetName(3, False, "Garage gate")
    terminal.wait_for("port 3 relay: Output.Name is now 'Garage gate'", r"relay +Garage gate")
    os.kill(terminal.process_called("wexd"), signal.SIGKILL)
    terminal.wait_for("wexd is not running", "wexd is gone")
    terminal.keys("R")
    terminal.wait_for(SHOWN, "wexd is back", r"relay +Garage gate")
    assert client.state.GetNames(3)[1] == "Garage gate"


def test_help_lists_the_keys_that_only_this_device_has(live):
    terminal = live()
    terminal.keys("?")
    lines = terminal.wait_for("Keys", "q +quit", "c +cut", "2 +stop-or-start-Z-Wave", "R +restart")
    assert not any("Supervised lines" in line for line in lines)
    terminal.keys("?")
    terminal.wait_for("Supervised lines")


@pytest.mark.parametrize("key", ["q", "C-c"])
def test_quitting_leaves_nothing_behind(live, key):
    terminal = live()
    assert len(terminal.leftovers()) >= 5, "folder, and the processes of bus and daemon"
    terminal.keys(key)
    terminal.wait_for("nothing is left of it", "ended with status 0")
    assert terminal.leftovers() == []


@pytest.mark.parametrize("options", [(), ("--scenario",)], ids=["live", "story"])
def test_an_interrupt_of_the_start_leaves_nothing_behind(make_terminal, binary, options):
    terminal = make_terminal(simulation(binary, *options), columns=120)
    wait_until(lambda: [*terminal.folder.glob("wexd-*/root/run/dbus/*")], "the bus", DEADLINE)
    terminal.keys("C-c")
    terminal.wait_for(r"ended with status (130|0)$")
    assert terminal.leftovers() == []


def test_a_terminal_that_goes_away_leaves_nothing_behind(live):
    terminal = live()
    terminal.close()
    terminal.wait_clean()


def runs(process):
    try:
        return pathlib.Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()[0] != "Z"
    except OSError:
        return False


def test_killed_without_a_word_it_takes_all_processes_along(live):
    terminal = live()
    process = terminal.process
    screen = sandbox.children_of(process)
    os.kill(process, signal.SIGKILL)
    # Its last words may have gone to the screen that it had.
    wait_until(lambda: not any(map(runs, [process, *screen])), "the end of all", DEADLINE)
    wait_until(lambda: not terminal.inhabitants(), terminal.inhabitants, DEADLINE)
    for folder in terminal.folder.glob("wexd-*"):  # which nobody was left to remove
        shutil.rmtree(folder)


def test_a_request_to_end_is_obeyed(live):
    terminal = live()
    os.kill(terminal.process, signal.SIGTERM)
    terminal.wait_for("ended with status 0")
    assert terminal.leftovers() == []


def test_impatience_does_not_disturb_the_cleaning_up(live):
    terminal = live()
    process = terminal.process
    with contextlib.suppress(ProcessLookupError):
        while True:
            os.kill(process, signal.SIGHUP)
            time.sleep(0.001)
    assert terminal.leftovers() == []


def test_a_terminal_without_cursor_gets_the_story(make_terminal, binary):
    terminal = make_terminal(simulation(binary), columns=120, TERM="dumb")
    terminal.wait_for("All of it happened", "ended with status 0")
