"""The live view of scripts/run, through a terminal: what keys do, and what is seen of it."""

import contextlib
import os
import re
import shutil
import signal
import time

import pytest

from sim.bus import wait_until
from sim.live.model import PEERS
from sim.peers import ZWave
from sim.terminal import DEADLINE, Terminal, simulation

pytestmark = pytest.mark.terminal

SHOWN = "16 ports in service"


@pytest.fixture
def make_terminal():
    with contextlib.ExitStack() as stack:
        yield lambda *arguments, **more: stack.enter_context(Terminal(*arguments, **more))


@pytest.fixture
def live(make_terminal, binary):
    """Starts the live view."""

    def start(**more):
        terminal = make_terminal(simulation(binary), **more)
        terminal.wait_for(SHOWN, "Alarm loop")
        return terminal

    return start


def row(lines, name):
    """The row of a port in the list."""
    return next(line for line in lines if re.match(rf".{{2}} *\d+  {name} ", line))


def choose(terminal, name):
    """Moves down the list until a port is chosen."""
    terminal.keys("Home")
    terminal.wait_for(r"^▶  0  door")
    for _ in range(20):
        lines = terminal.screen()
        chosen = next(line for line in lines if line.startswith("▶"))
        if re.match(rf"▶ *\d+  {name} ", chosen):
            return
        terminal.keys("Down")
        terminal.wait_for(rf"^▶(?!{re.escape(chosen[1:])})")
    raise AssertionError(f"no {name} to choose")


def says(question, answer):
    """Waits until the daemon answers a question that way."""
    wait_until(lambda: question() == answer, lambda: f"{answer}, not {question()}", DEADLINE)


def test_every_port_is_shown_as_the_daemon_has_it(live):
    terminal = live(columns=100, rows=30)
    client = terminal.client()
    lines = terminal.wait_for("Front door contact", "closed +1300", r"5 Actions ● on")
    _, entries = client.state.GetPortProps()
    for name, number, state, is_input, switchable, *_ in entries:
        shown = row(lines, name)
        assert shown[2:4].strip() == str(number)
        assert ("input" if is_input else "output") + (" ⇄" if switchable else "") in shown
        assert ("● on" if state else "○ off") in shown
    assert "PIR sensor" in row(lines, "pir_detector")
    for name in PEERS.values():
        assert re.search(rf"\d {name} +● on", "\n".join(lines))
    assert all(len(line) <= 100 for line in lines) and len(lines) == 30


def test_an_input_is_flipped(live):
    terminal = live()
    client = terminal.client()
    assert "○ off" in row(terminal.screen(), "door")
    terminal.keys("Space")
    terminal.wait_for(r"^▶  0  door .*● on", r"\d\d:\d\d:\d\d port 0 door: on \(input\)")
    says(lambda: client.state.GetState(0), True)
    terminal.keys("Space")
    terminal.wait_for(r"^▶  0  door .*○ off", "port 0 door: off")
    says(lambda: client.state.GetState(0), False)


def test_outputs_are_driven_pulsed_turned_and_inverted(live):
    terminal = live()
    client = terminal.client()
    choose(terminal, "relay")
    terminal.keys("Space")
    terminal.wait_for(r"^▶  3  relay .*● on", r"event IOPort port=3 state=1")
    says(lambda: client.state.GetState(3), True)
    choose(terminal, "lamp")
    terminal.keys("p")
    terminal.wait_for("port 4 lamp: on", "port 4 lamp: off", "port 4 lamp: sequence done")
    choose(terminal, "configurable")
    terminal.keys("t")
    terminal.wait_for(r"^▶  6  configurable .*input ⇄")
    says(lambda: client.state.GetDirection(6), "input")
    terminal.keys("a")
    terminal.wait_for(r"^▶  6  configurable .*input ⇄.* open")
    says(lambda: client.state.GetActive(6)[0], "open")


@pytest.mark.parametrize("name, number", [("alarm", 9), ("manualtrigger1", 20)])
def test_a_virtual_port_is_set(live, name, number):
    terminal = live()
    client = terminal.client()
    choose(terminal, name)
    for word, state in (("● on", True), ("○ off", False)):
        terminal.keys("Space")
        terminal.wait_for(rf"^▶ *{number}  {name} .*{word}", rf"{name}: {word[2:]} \(output, set virt")
        says(lambda: dict(entry[1:3] for entry in client.state.GetPortProps()[1])[number], state)


@pytest.mark.parametrize("key, state, level", [("c", "cut", 3850), ("s", "short", 200)])
def test_a_measured_line_shows_its_state_and_where_in_its_ranges_it_is(live, key, state, level):
    terminal = live(columns=100)
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
    terminal.wait_for(r"10  loop +cut +told by its box")
    says(lambda: client.supervision.GetSupervisedReadout(10)[0], "cut")
    terminal.keys("v")
    terminal.wait_for(r"10  loop +not supervised", r"^▶ 10 .* off +$|^▶ 10 .* off")
    says(lambda: client.supervision.GetSupervised(10), False)


def test_an_optional_port_is_dropped_and_plugged_in(live):
    terminal = live()
    client = terminal.client()

    def numbers():
        return [entry[1] for entry in client.state.GetPortProps()[1]]

    choose(terminal, "extension")
    terminal.keys("d")
    terminal.wait_for(r"^▶  7  extension .*gone", "extension is out of service", "15 ports", "r plug in")
    assert 7 not in numbers()
    terminal.keys("r")
    terminal.wait_for(r"^▶  7  extension .*○ off", SHOWN)
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
    terminal.wait_for("2 Z-Wave +○ stopped", "Z-Wave is gone")
    assert not client.owner(ZWave.NAME)
    terminal.keys("2")
    terminal.wait_for("2 Z-Wave +● on", "Z-Wave is on the bus")
    assert client.owner(ZWave.NAME)


def test_a_refusal_is_told_with_its_error_name(live):
    terminal = live(columns=120)
    choose(terminal, "siren")
    terminal.keys("a")
    terminal.wait_for(r"SetActive: .* \(com\.norv\.IOControl\.Error\.\w+\)")


def test_the_daemon_is_restarted_and_one_that_ended_is_told(live):
    terminal = live(rows=40)
    client = terminal.client()
    client.state.SetName(3, False, "Garage gate")
    terminal.wait_for("port 3 relay: Output.Name is now 'Garage gate'", r"relay +Garage gate")
    os.kill(terminal.process_called("wexd"), signal.SIGKILL)
    terminal.wait_for("wexd is not running", "wexd is gone")
    terminal.keys("R")
    terminal.wait_for(SHOWN, "wexd is back", r"relay +Garage gate")
    assert client.state.GetNames(3)[1] == "Garage gate"


def test_the_view_follows_the_size_of_the_terminal(live):
    terminal = live()
    assert not any("21  manualtrigger2" in line for line in terminal.screen())
    terminal.wait_for("↓ 5")
    terminal.resize(120, 40)
    lines = terminal.wait_for("21  manualtrigger2", r"q quit\s*$")
    assert len(lines) == 40 and max(map(len, lines)) > 100
    terminal.resize(79, 24)
    terminal.wait_for("79x24 is too small, the view needs 80x24")
    terminal.resize(20, 5)
    terminal.wait_for("20x5", "80x24")
    terminal.resize(80, 24)
    terminal.wait_for(SHOWN, "Peers")


def test_help_lists_the_keys(live):
    terminal = live()
    terminal.keys("?")
    lines = terminal.wait_for("Keys", "q +quit and clean up", "c +cut the supervised line")
    assert not any("Supervised lines" in line for line in lines)
    terminal.keys("?")
    terminal.wait_for("Supervised lines")


def colours(terminal):
    return [code for line in terminal.screen("-e") for code in re.findall(r"\x1b\[([\d;]*)m", line)
            if re.search(r"(^|;)([349][0-7]|10[0-7])(;|$)", code)]  # fmt: skip


def test_colours_are_kept_away_by_no_color(live):
    assert colours(live())
    assert not colours(live(NO_COLOR="1"))


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


def test_killed_without_a_word_it_takes_all_processes_along(live):
    terminal = live()
    os.kill(terminal.process, signal.SIGKILL)
    terminal.wait_for("ended with status 137")
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
