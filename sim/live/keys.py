"""The keys: what each is called, what it does, and for which ports.

One table, so that the hints at the foot, the help and the terminal never disagree.
"""

import dataclasses
from typing import Callable

from sim.live.controls import is_virtual


def always(_controls, _port):
    return True


def measured(controls, port):
    line = controls.line_of(port)
    return line is not None and bool(line.words)


def driven(_controls, port):
    return not port.input and not is_virtual(port)


@dataclasses.dataclass(frozen=True)
class Key:
    keys: tuple  # as the terminal library calls them; the first is shown
    shown: str
    hint: str  # at the foot, while it applies
    help: str
    act: Callable  # (controls, port)
    applies: Callable = always


def line_key(key, word, hint):
    return Key(
        (key,), key, hint, f"{hint} the supervised line",
        lambda controls, port: controls.set_line(port, word), measured,
    )  # fmt: skip


# What acts on the chosen port.
PORT_KEYS = (
    Key(("space", "enter"), "space", "flip", "flip the input's wire, or drive the output",
        lambda controls, port: controls.flip(port)),
    Key(("p",), "p", "pulse", "switch the output on for half a second",
        lambda controls, port: controls.pulse(port), driven),
    line_key("c", "cut", "cut"),
    line_key("s", "short", "short"),
    Key(("n",), "n", "normal", "mend the supervised line: closed again",
        lambda controls, port: controls.set_line(port, "closed"), measured),
    Key(("v",), "v", "supervise", "switch supervision of the input on and off",
        lambda controls, port: controls.supervise(port), lambda _, port: port.supervisable),
    Key(("t",), "t", "turn", "turn a switchable port's direction",
        lambda controls, port: controls.turn(port), lambda _, port: port.configurable),
    Key(("a",), "a", "active", "make the port active low, or high again",
        lambda controls, port: controls.invert(port),
        lambda _, port: bool(port.properties.get("ioport"))),
    Key(("d",), "d", "drop", "unplug an optional port: it goes out of service",
        lambda controls, port: controls.drop(port),
        lambda controls, port: port.present and port.name in controls.optional),
    Key(("r",), "r", "plug in", "plug optional ports in again",
        lambda controls, port: controls.plug(port), lambda _, port: not port.present),
)  # fmt: skip

# What concerns the view, with the names by which the view knows them.
MOVES = {
    "up": ("up", "k"), "down": ("down", "j"), "first": ("home",), "last": ("end",),
    "help": ("?", "h"), "restart": ("R",), "quit": ("q", "c-c", "c-d"),
}  # fmt: skip

OTHER_HELP = (
    ("↑ ↓", "choose a port (also k and j)"),
    ("1 - 5", "stop a peer, start it again"),
    ("R", "restart wexd: what it saved is still there"),
    ("?", "show this help, or hide it"),
    ("q", "quit and clean up"),
)


def hints(controls, port):
    """(key, hint) of what can be done with a port, by which is meant without being refused."""
    if not port.present:
        return [(key.shown, key.hint) for key in PORT_KEYS if key.hint == "plug in"]
    return [(key.shown, key.hint) for key in PORT_KEYS if key.applies(controls, port)]
