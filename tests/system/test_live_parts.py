"""What the live view is made of, without a terminal: bars, and lines that fill the screen exactly."""

import types

import pytest
from prompt_toolkit.utils import get_cwidth

from sim.live import view
from sim.live.bar import bar
from sim.live.model import PEERS, Change, Port

RANGES = [("short", 0, 9), ("closed", 20, 49), ("open", 50, 99)]


def text(fragments):
    return "".join(part for _, part in fragments)


@pytest.mark.parametrize(
    "level, drawn",
    [
        (0, "◆hort    ├closed────────├open────────────────────┤"),
        (15, "short  ◆ ├closed────────├open────────────────────┤"),
        (30, "short    ├clos◆d────────├open────────────────────┤"),
        (99, "short    ├closed────────├open────────────────────◆"),
        (500, "short    ├closed────────├open────────────────────◆"),
    ],
)
def test_a_bar_has_its_mark_at_the_level(level, drawn):
    assert text(bar(RANGES, level, 50)) == drawn


def test_the_later_of_overlapping_ranges_is_seen():
    shown = bar([*RANGES, ("cut", 40, 79)], 5, 50)
    assert "├cut" in text(shown)
    styles = {style: part for style, part in shown}
    assert "├cut" in styles["class:bar.cut"]


@pytest.mark.parametrize("ranges, width", [([], 40), (RANGES, 1), (RANGES, 0)])
def test_there_is_no_bar_without_ranges_or_room(ranges, width):
    assert bar(ranges, 5, width) == []


@pytest.mark.parametrize(
    "given, width, shown",
    [
        ("relay", 8, "relay   "), ("relay", 5, "relay"), ("relay", 4, "rel…"),
        ("门铃门铃", 5, "门铃…"), ("门铃", 5, "门铃 "), ("a\tb\x1b[1m", 8, "a·b·[1m "), ("x", 0, ""),
    ],
)  # fmt: skip
def test_a_text_takes_exactly_its_columns(given, width, shown):
    assert view.pad(given, width) == shown
    assert get_cwidth(shown) == width


def model(count, changes=3, **peer):
    """A model of that many ports; every third is measured, and their names are difficult."""
    ports = {
        number: Port(
            number, name=f"port_{number}" * (1 + number % 3), present=number % 5 != 4,
            state=number % 2 == 0, input=number % 3 == 0, configurable=number % 4 == 0,
            names=("门铃" * 9, "bell\n"), actives=("closed", "open"), usage="for " * number,
            supervisable=number % 3 == 0, supervised=number % 6 == 0, reading=("undefined", 17),
            ranges=RANGES if number % 12 == 0 else [],
        )
        for number in range(count)
    }  # fmt: skip
    everyone = [types.SimpleNamespace(process=peer.get("process")) for _ in PEERS]
    return types.SimpleNamespace(
        ports=ports, trouble="", peers=dict.fromkeys(PEERS, False),
        changes=[Change("event", f"{number} " * 60) for number in range(changes)],
        device=types.SimpleNamespace(peers=types.SimpleNamespace(everyone=everyone)),
    )  # fmt: skip


@pytest.mark.parametrize("size", [(80, 24), (81, 25), (100, 34), (250, 90), (79, 24), (80, 23), (9, 2), (1, 1)])
@pytest.mark.parametrize("count", [0, 1, 9, 40])
@pytest.mark.parametrize("helped", [False, True])
def test_a_screen_has_exactly_the_size_of_the_terminal(size, count, helped):
    columns, rows = size
    lines = view.screen(model(count, 200), view.Seat(help=helped), [("space", "flip")] * 20, *size)
    assert len(lines) == rows
    assert {get_cwidth(text(line)) for line in lines} == {columns}


@pytest.mark.parametrize("rows", [24, 30])
def test_the_chosen_port_is_always_in_sight(rows):
    seat, shown = view.Seat(), model(40)
    for chosen in [*range(40), *reversed(range(40)), 39, 0]:
        seat.chosen = chosen
        lines = [text(line) for line in view.screen(shown, seat, [], 80, rows)]
        (marked,) = (line for line in lines if line.startswith("▶"))
        assert marked[2:4].strip() == str(chosen)


@pytest.mark.parametrize("process, told", [(None, "stopped"), (object(), "starts")])
def test_a_peer_that_is_not_there_is_stopped_or_on_its_way(process, told):
    lines = [text(line) for line in view.screen(model(3, process=process), view.Seat(), [], 80, 24)]
    assert sum(told in line for line in lines) == len(PEERS)
