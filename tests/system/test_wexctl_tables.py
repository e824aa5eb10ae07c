"""Tables: as wide as the terminal at most, whole in a pipe, with the columns that are wanted."""

import unicodedata

import pytest
from client import done
from describe import port

from sim.bus import wait_until
from sim.peers import IoBox
from sim.terminal import Terminal

LONG = "A very long usage that does not fit into a narrow terminal at all, however narrow it is"
WIDE = "玄関のドア"


@pytest.fixture
def daemon(device):
    IoBox(device, states={"5": "closed", "3": "cut"})
    device.describe(
        port("door", 0, "input", input_name=WIDE, usage=LONG)
        + port("relay", 1, output_name="Gate", usage="é\u0301tage")
        + port("line", 5, "input", "iobox")
        + port("loop", 3, "input", "iobox")
    )
    return device.start()


def shown(daemon, binary, columns, *arguments, **environment):
    """The lines that a terminal of that width shows, without the last."""
    address = {"DBUS_SYSTEM_BUS_ADDRESS": daemon.bus_address}
    with Terminal([str(binary.parent / "wexctl"), *arguments], columns, **address,
                  **environment) as terminal:  # fmt: skip
        terminal.wait_for("ended with status 0")
        lines = [line.rstrip() for line in terminal.screen()]
        coloured = "\x1b[1m" in "".join(terminal.screen("-e"))
    end = next(n for n, line in enumerate(lines) if "ended with status" in line)
    return [line for line in lines[:end] if line], coloured


def places(line):
    return sum(
        0 if unicodedata.combining(c) else 2 if unicodedata.east_asian_width(c) in "WF" else 1
        for c in line
    )


@pytest.mark.terminal
@pytest.mark.parametrize("columns", [60, 80, 100, 200])
def test_a_table_is_no_wider_than_the_terminal(daemon, binary, columns):
    lines, _ = shown(daemon, binary, columns, "list")
    assert len(lines) == 5, lines  # a line that is too long would take two
    assert all(places(line) <= columns for line in lines)
    assert ("…" in lines[1]) == (columns < 200)
    assert "door" in lines[1] and "relay" in lines[2]


@pytest.mark.terminal
def test_a_terminal_that_is_too_narrow_cuts_the_line(daemon, binary):
    lines, _ = shown(daemon, binary, 30, "list")
    assert len(lines) == 5 and all(places(line) <= 30 for line in lines)


def test_a_pipe_gets_everything_and_wide_characters_stay_in_their_columns(daemon, wexctl):
    lines = done(wexctl("list")).out.splitlines()
    assert LONG in lines[1] and WIDE in lines[1]
    starts = {places(line[: line.index(word)]) for line, word in
              ((lines[0], "Usage"), (lines[1], LONG), (lines[2], "é\u0301tage"))}  # fmt: skip
    assert len(starts) == 1


@pytest.mark.terminal
def test_a_dumb_terminal_has_no_colours(daemon, binary):
    assert shown(daemon, binary, 80, "list")[1] is True
    environment = ["env", "TERM=dumb", str(binary.parent / "wexctl"), "list"]
    address = {"DBUS_SYSTEM_BUS_ADDRESS": daemon.bus_address}
    with Terminal(environment, 80, **address) as terminal:
        terminal.wait_for("ended with status 0")
        assert "\x1b[1m" not in "".join(terminal.screen("-e"))


def test_the_columns_are_those_wanted_in_that_order(daemon, wexctl):
    lines = done(wexctl("list", "--columns", "state,no,name")).out.splitlines()
    assert [line.split() for line in lines] == [
        ["State", "No", "Port"], ["off", "0", "door"], ["off", "1", "relay"], ["off", "3", "loop"],
        ["on", "5", "line"],
    ]  # fmt: skip
    for name in ("no", "name", "shown", "kind", "state", "active", "usage", "properties"):
        assert len(done(wexctl("list", "--columns", name)).out.splitlines()) == 5


@pytest.mark.parametrize(
    "arguments, error",
    [
        (("--columns", "no,colour"), "--columns: colour not in {"),
        (("--columns", ""), "--columns: "),
        (("--columns", "no", "--json"), "--json excludes --columns; see wexctl list --help\n"),
    ],
)
def test_a_column_that_is_none_is_refused(daemon, wexctl, arguments, error):
    result = wexctl("list", *arguments)
    assert (result.status, result.out, result.err.count("\n")) == (2, "", 1)
    assert result.err.startswith(f"wexctl: {error}")


def test_supervised_ports_have_names_order_and_a_state_only_when_supervised(daemon, wexctl):
    daemon.supervision.SetSupervised(3, True)
    wait_until(lambda: daemon.supervision.GetSupervisedReadout(3)[0] == "cut", "the reading")
    lines = [line.split() for line in done(wexctl("supervised", "show")).out.splitlines()]
    assert lines[0] == ["No", "Port", "Supervised", "State", "Level", "Ranges"]
    assert lines[1] == ["3", "loop", "on", "cut"]  # nobody measures a level here
    assert lines[2][:3] == ["5", "line", "off"] and len(lines[2]) == 3
    loop, line = done(wexctl("supervised", "show", "--json")).json
    assert (loop["name"], loop["supervised"], loop["state"]) == ("loop", True, "cut")
    assert (line["name"], line["supervised"]) == ("line", False)
    assert "state" not in line and "level" not in line
