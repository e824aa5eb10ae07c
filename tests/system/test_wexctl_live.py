"""The operator's screen on a terminal: what it shows of a device, and that it only looks unless told."""

import contextlib
import os
import pathlib
import re
import signal
import subprocess

import pytest
from describe import failing, port
from live_screen import choose, says

from sim import sandbox
from sim.bus import wait_until
from sim.peers import IoBox
from sim.terminal import DEADLINE, Terminal

pytestmark = pytest.mark.terminal

FORGED = "Gate\x1b]0;forged\x07\nline"
PORTS = (
    port("door", 0, "input", input_name="Front door", usage="Entry")
    + port("relay", 1, output_name=FORGED)
    + port("lamp", 2, optional="true")
    + failing("loop", 3, optional="true")
    + port("line", 5, "input", "iobox")
)


@pytest.fixture
def daemon(device):
    device.box = IoBox(device, states={"5": "closed"})
    device.describe(PORTS)
    device.start()
    device.supervision.SetSupervised(5, True)
    return device


@pytest.fixture
def make_screen(device, binary, request):
    def make(*options, columns=100, rows=24, **environment):
        address = {"DBUS_SYSTEM_BUS_ADDRESS": device.bus_address}
        program = str(binary.parent / "wexctl")
        words = [f"{name}={value}" for name, value in environment.items()]
        terminal = Terminal(["env", *words, program, "live", *options], columns, rows, **address)
        device.on_exit(lambda: leave(terminal))
        return terminal

    return make


def leave(terminal):
    """Ends a screen before its terminal goes, which would have it end before its lines are counted."""
    try:
        # Either may be gone by now.
        with contextlib.suppress(ProcessLookupError, subprocess.CalledProcessError):
            if process := terminal.process:
                os.kill(process, signal.SIGTERM)
                terminal.wait_for("^ended with status 0$")
    finally:
        terminal.close()
        terminal.remove()


@pytest.fixture
def screen(daemon, make_screen):
    def start(*options, **more):
        terminal = make_screen(*options, **more)
        terminal.wait_for("4 of 5 ports in service", "5  +line")
        return terminal

    return start


def test_ports_lines_services_and_what_is_missing_are_shown(screen):
    terminal = screen()
    lines = terminal.wait_for(
        r"^ wexd  4 of 5 ports in service; missing: loop ",
        r"^▶ 0 +door +Front door +input +○ off +closed +Entry",
        r"^  1 +relay +Gate\\x1b\]0;f",  # no terminal is commanded, no line is forged
        r"^  3 +loop +missing",
        r"^  5 +line .* input +● closed",
        r"^   5  line +closed +told, not measured",
        "● IOBoxMonitor", "○ ZWave.IO not there", "read-only",
    )  # fmt: skip
    assert all(len(line) <= 100 for line in lines) and len(lines) == 24


def test_changes_are_told_with_their_time(daemon, screen):
    terminal = screen()
    daemon.state.SetState(1, True)
    terminal.wait_for(r"^  1 +relay .*● on", r"^ \d\d:\d\d:\d\d port 1 relay: on \(output\)")
    daemon.box.line(5, "cut")
    terminal.wait_for(r"^  5 +line .*cut", r"port 5 line: cut \(input\)", r"^   5  line +cut")
    daemon.state.SetName(0, True, "Back door")
    terminal.wait_for(r"0 +door +Back door", "Input.Name is now 'Back door'")


def test_the_last_five_hundred_changes_are_kept(daemon, screen):
    terminal = screen(rows=600)
    daemon.state.StartActionSequence(1, False, [(True, 0), (False, 0)] * 300)
    lines = terminal.wait_for("port 1 relay: sequence done")
    told = [line for line in lines if re.match(r" \d\d:\d\d:\d\d port 1 relay: ", line)]
    assert len(told) == 500 and "off (output)" in told[-2] and "sequence done" in told[-1]


def test_a_sequence_is_seen_running(daemon, screen):
    terminal = screen()
    daemon.state.StartActionSequence(2, False, [(True, 600_000), (False, 0)])
    terminal.wait_for(r"^  2 +lamp .*● on +closed +runs")
    daemon.manager.StopSequence(2)
    terminal.wait_for("port 2 lamp: sequence done", r"^  2 +lamp .*● on +closed *$")


def test_drop_and_refresh_are_followed(daemon, screen):
    terminal = screen()
    daemon.state.DropIOPorts(["lamp"])
    terminal.wait_for("3 of 5 ports in service; missing: l", r"^  2 +lamp +missing")
    daemon.state.RefreshIOPorts()
    terminal.wait_for("4 of 5 ports in service", r"^  2 +lamp .*○ off")


def test_a_daemon_that_goes_is_waited_for(daemon, screen):
    terminal = screen()
    daemon.stop()
    terminal.wait_for("wexd is not running, waiting for it", "wexd is gone")
    assert any("door" in line for line in terminal.screen()), "what was seen last stays"
    daemon.start()
    terminal.wait_for("4 of 5 ports in service", "wexd is back")


def test_a_daemon_that_is_not_there_yet_is_waited_for(device, make_screen):
    terminal = make_screen()
    terminal.wait_for("wexd is not running, waiting for it")
    device.describe(port("door", 0, "input"))
    device.start()
    terminal.wait_for("1 of 1 ports in service", "0 +door")


def test_a_daemon_that_hangs_keeps_nobody_from_leaving(daemon, screen):
    terminal = screen()
    daemon.signal(signal.SIGSTOP)
    try:
        terminal.wait_for("wexd does not answer")
        terminal.keys("q")
        terminal.wait_for("ended with status 0")
    finally:
        daemon.signal(signal.SIGCONT)


def test_a_bus_that_ends_is_told(daemon, screen):
    terminal = screen()
    daemon.end_bus()
    daemon.wait_exit(status=1)
    terminal.wait_for("wexctl: wexd does not answer: the system bus has ended", "status 3")


def test_without_control_no_key_drives(daemon, screen):
    terminal = screen()
    choose(terminal, "relay")
    signals = daemon.signals()
    terminal.keys("Space", "o", "p", "Enter")
    terminal.wait_for("read-only: wexctl live --control drives outputs")
    daemon.sync()
    signals.assert_none()
    assert daemon.state.GetState(1) is False


def test_with_control_keys_drive_the_chosen_output(daemon, screen):
    terminal = screen("--control")
    assert not any("read-only" in line for line in terminal.screen())
    choose(terminal, "relay")
    for key, state in (("Space", True), ("Space", False), ("o", True), ("o", True), ("f", False)):
        terminal.keys(key)
        says(lambda: daemon.state.GetState(1), state)
        terminal.wait_for(rf"^▶ 1 .*{'● on' if state else '○ off'}")
    terminal.keys("p")
    terminal.wait_for("port 1 relay: on", "port 1 relay: sequence done")
    says(lambda: daemon.state.GetState(1), False)


def test_with_control_a_sequence_is_stopped(daemon, screen):
    terminal = screen("--control")
    daemon.state.StartActionSequence(2, False, [(True, 600_000), (False, 0)])
    choose(terminal, "lamp")
    terminal.wait_for(r"^▶ 2 .* runs")
    terminal.keys("x")
    says(daemon.manager.GetRunningSequences, [])
    assert daemon.state.GetState(2) is True


def test_with_control_no_key_drives_a_daemon_that_is_gone(daemon, screen):
    terminal = screen("--control")
    choose(terminal, "relay")
    daemon.stop()
    terminal.wait_for("wexd is gone")
    terminal.keys("o")
    terminal.wait_for(r"^ \d\d:\d\d:\d\d wexd is not running  ")
    daemon.start()
    terminal.wait_for("wexd is back", r"^▶ 1 +relay .*○ off")


def test_an_input_is_not_driven_and_a_refusal_is_told(daemon, screen):
    terminal = screen("--control")
    assert not any("toggle" in line for line in terminal.screen())
    daemon.state.StartActionSequence(1, False, [(True, 600_000), (False, 0)])
    choose(terminal, "relay")
    terminal.wait_for("space toggle  o on  f off  p pulse  x stop")
    terminal.keys("p")
    terminal.wait_for(r"\(com\.norv\.IOControl\.Error\.\w+\)")


def test_keys_of_the_users_run_commands(daemon, screen, tmp_path):
    seen = tmp_path / "seen"
    keys = tmp_path / "keys"
    keys.write_text(
        "# KEY FOR HINT COMMAND\n\n"
        f'w input wave printf "%s %s" "$WEXCTL_PORT" "$WEXCTL_NAME" >>{seen}\n'
        f"space input flip echo no such wire >&2; exit 3\n"
        f"u output lift true\n"
        f"f5 always everywhere echo {FORGED!r} >/dev/null\n"
    )
    terminal = screen("--control", "--keys", str(keys))
    terminal.wait_for("w wave  space flip *$")
    terminal.keys("w")
    wait_until(lambda: seen.exists() and seen.read_text() == "0 door", "the command", DEADLINE)
    terminal.keys("Space")
    terminal.wait_for("no such wire")
    assert not any("u lift" in line for line in terminal.screen())
    choose(terminal, "relay")
    terminal.wait_for("u lift")
    terminal.keys("w")
    terminal.keys("?")
    terminal.wait_for("f5 +everywhere", "w +wave", "space +turn the output over")
    assert seen.read_text() == "0 door"


def test_notes_are_shown_among_the_changes(daemon, screen, tmp_path):
    pipe = tmp_path / "pipe"
    os.mkfifo(pipe)
    notes = os.open(pipe, os.O_RDWR)
    terminal = screen("--notes", str(pipe))
    os.write(notes, b"wexd: all is \x1b[31mwell\n")
    terminal.wait_for(r"^ \d\d:\d\d:\d\d wexd: all is \\x1b\[31mwell")
    os.close(notes)
    terminal.keys("Down")
    terminal.wait_for(r"^▶ 1 +relay", "all is")


def test_the_size_of_the_terminal_is_followed(screen):
    terminal = screen()
    terminal.resize(60, 16)
    lines = terminal.wait_for(r"^▶ 0 +door +input +○ off", "Changes")
    assert not any("Services" in line or "Entry" in line for line in lines)
    terminal.resize(40, 10)
    terminal.wait_for(r"^▶ 0 +door +○ off", "↓ 1")
    terminal.keys("End")
    terminal.wait_for("^▶ 5 +line", "↑ 1")
    terminal.resize(20, 5)
    terminal.wait_for("too small; q quits")
    terminal.resize(120, 30)
    terminal.wait_for("Services", r"^▶ 5 +line")
    terminal.keys("q")
    terminal.wait_for("ended with status 0")


@pytest.mark.parametrize("language", ["C", "nowhere"])
def test_signs_are_drawn_in_every_language(screen, language):
    screen(LC_ALL=language).wait_for("^▶ 0 +door .*○ off", "● IOBoxMonitor")


def test_help_is_shown_and_hidden(screen):
    terminal = screen()
    terminal.keys("?")
    terminal.wait_for("Keys", "p +switch the output on for half a second, only with --control", "q +quit")
    terminal.keys("?")
    terminal.wait_for("Changes")


def coloured(terminal):
    return re.search(r"\x1b\[(\d+;)*[34][0-7][;m]", "\n".join(terminal.screen("-e"))) is not None


def test_no_color_keeps_colours_away(screen):
    assert coloured(screen())
    assert not coloured(screen(NO_COLOR="1"))


@pytest.mark.parametrize("number", [None, "INT", "TERM", "HUP"])
def test_every_end_leaves_the_terminal_as_it_was(daemon, make_screen, binary, number):
    """The shell that started it has its lines, its echo and its cursor again."""
    address = {"DBUS_SYSTEM_BUS_ADDRESS": daemon.bus_address}
    script = "trap : INT; stty -a >before; echo once; $0 live; s=$?; stty -a >after; cmp before after && echo same $s"
    with Terminal(["sh", "-c", f"cd $TMPDIR; {script}", str(binary.parent / "wexctl")],
                  100, **address) as terminal:  # fmt: skip
        terminal.wait_for("ports in service")
        if number is None:
            terminal.keys("q")
        elif number == "INT":
            terminal.keys("C-c")
        else:
            process = wait_until(lambda: sandbox.child_of(terminal.process), "the screen")
            os.kill(process, getattr(signal, f"SIG{number}"))
        terminal.wait_for(r"\Aonce", "^same 0", "ended with status 0")
        assert terminal._tmux("display-message", "-p", "#{cursor_flag}#{alternate_on}").strip() == "10"


def test_a_terminal_that_goes_away_ends_it(screen):
    terminal = screen()
    process = terminal.process
    terminal.close()
    wait_until(lambda: not pathlib.Path(f"/proc/{process}").exists(), "its end", DEADLINE)


def test_what_is_no_terminal_is_refused(wexctl):
    result = wexctl("live", "--control")
    assert (result.status, result.out) == (2, "")
    assert result.err == "wexctl: live needs a terminal\n"


@pytest.mark.parametrize("term", ["dumb", "nonsense", ""])
def test_a_terminal_without_a_cursor_to_move_is_refused(make_screen, term):
    terminal = make_screen(TERM=term)
    terminal.wait_for(
        f"wexctl: live needs a terminal whose cursor it can move; TERM is '{term}'", "with status 2"
    )


@pytest.mark.parametrize(
    "line, wrong",
    [("up port x true", "'up' is a key of the screen"), ("escape port x true", "'escape' is no key"),
     ("w door x true", "'door' is no kind of port"), ("w port x", "a line is KEY FOR HINT COMMAND")],
)  # fmt: skip
def test_a_mistake_in_a_file_of_keys_is_told(daemon, make_screen, tmp_path, line, wrong):
    keys = tmp_path / "keys"
    keys.write_text(f"\n{line}\n")
    terminal = make_screen("--keys", str(keys), columns=150)
    terminal.wait_for(f"^wexctl: {keys}:2: {wrong}$", "with status 2")


@pytest.mark.parametrize("option", ["keys", "notes"])
def test_a_file_that_is_not_there_is_told(daemon, make_screen, option):
    terminal = make_screen(f"--{option}", "/nowhere")
    terminal.wait_for(f"^wexctl: cannot read {option} from '/nowhere': No such file", "with status 2")
