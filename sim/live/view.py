"""The model as lines of styled text.

`screen` gives exactly as many lines as the terminal has rows, each exactly as wide as it has
columns, as lists of (style, text). Nothing here draws, waits or asks.
"""

import dataclasses
import time

from prompt_toolkit.utils import get_cwidth

from sim.live.bar import bar
from sim.live.keys import OTHER_HELP, PORT_KEYS
from sim.live.model import PEERS

COLUMNS, ROWS = 80, 24  # the smallest terminal that the view works in
PEERS_WIDTH = 20
STATES = {True: ("class:on", "● on"), False: ("class:off", "○ off")}


@dataclasses.dataclass
class Seat:
    """Where the user is: what is chosen, how far the list is scrolled, what is open."""

    chosen: int = 0
    top: int = 0
    help: bool = False


def screen(model, seat, hints, columns, rows):
    if columns < COLUMNS or rows < ROWS:
        return too_small(columns, rows)
    lines = measured_lines(model, columns)
    top = [title(model, columns), ports_heading(columns)]
    foot = [hint_line(hints, columns)]
    room = rows - len(top) - len(lines) - 1 - len(PEERS) - len(foot) - 1
    if seat.help:
        middle = help_lines(columns, rows - len(top[:1]) - len(foot))
        return top[:1] + middle + foot
    ports = port_lines(model, seat, columns, min(room, len(model.ports)))
    below = changes_and_peers(
        model, columns, rows - len(top) - len(ports) - len(lines) - 1 - len(foot)
    )
    return top + ports + [rule("Supervised lines", columns)] + lines + below + foot


def too_small(columns, rows):
    texts = ["too small:", f"{columns}x{rows}", "this needs", f"{COLUMNS}x{ROWS}", "q quits"]
    one = f"{columns}x{rows} is too small, the view needs {COLUMNS}x{ROWS}; q quits"
    texts = [one] if len(one) <= columns else texts
    return [fit([("class:trouble", text)], columns) for text in (texts + [""] * rows)[:rows]]


# -- lines ---------------------------------------------------------------------------------------


def title(model, columns):
    present = [port for port in model.ports.values() if port.present]
    right = "? help  q quit "
    left = [("class:title", " wexd on a simulated device ")]
    if model.trouble:
        left.append(("class:title.trouble", f" {model.trouble} "))
    else:
        left.append(("class:title", f"  {len(present)} ports in service"))
    used = sum(get_cwidth(text) for _, text in left)
    gap = max(columns - used - len(right), 1)
    return fit([*left, ("class:title", " " * gap + right)], columns, "class:title")


def rule(text, columns):
    line = "─" * (columns - get_cwidth(text) - 4)
    return [("class:rule", "── "), ("class:heading", text), ("class:rule", f" {line}")]


# Widths of the columns of the list; the last takes what is left.
WIDTHS = {"No": 3, "Port": 14, "Shown as": 15, "Kind": 8, "State": 5, "Active": 6, "Line": 6,
          "Usage": 0}  # fmt: skip


def widths(columns):
    wanted = dict(WIDTHS)
    spare = columns - COLUMNS
    for column, most in (("Port", 5), ("Shown as", 9), ("Line", 3)):
        more = min(spare // 3, most)
        wanted[column] += more
    wanted["Usage"] = columns - 2 - sum(wanted.values()) - (len(wanted) - 1)
    return wanted


def cells(texts, columns):
    return [(style, pad(text, width)) for (style, text), width in zip(texts, widths(columns).values())]


def joined(mark, fragments, columns, base=""):
    line = [mark]
    for index, fragment in enumerate(fragments):
        line += [("", " ")] if index else []
        line.append(fragment)
    return fit([(f"{base} {style}", text) for style, text in line], columns, base)


def ports_heading(columns):
    return joined(("", "  "), cells([("class:heading", name) for name in WIDTHS], columns), columns)


def port_lines(model, seat, columns, count):
    """The part of the list that holds the chosen port; scrolls no further than it must."""
    numbers = sorted(model.ports)
    chosen = numbers.index(seat.chosen) if seat.chosen in numbers else 0
    seat.top = max(min(seat.top, chosen, len(numbers) - count), chosen - count + 1, 0)
    shown = numbers[seat.top : seat.top + count]
    lines = [port_line(model.ports[number], number == seat.chosen, columns) for number in shown]
    above, below = seat.top, len(numbers) - seat.top - len(shown)
    if above and lines:
        lines[0] = with_corner(lines[0], f" ↑ {above}", columns)
    if below and lines:
        lines[-1] = with_corner(lines[-1], f" ↓ {below}", columns)
    return lines


def with_corner(line, text, columns):
    return fit(line, columns - get_cwidth(text)) + [("class:hint", text)]


def port_line(port, chosen, columns):
    kind = ("input" if port.input else "output") + (" ⇄" if port.configurable else "")
    state = STATES[port.state] if port.present else ("class:trouble", "gone")
    texts = [("", str(port.number).rjust(2)), ("", port.name), ("", port.shown_as), ("", kind),
             state, ("", port.active), line_state(port), ("", port.usage)]  # fmt: skip
    if not port.present:
        texts = [("class:hint", text) for _, text in texts]
    mark = ("", "▶ " if chosen else "  ")
    return joined(mark, cells(texts, columns), columns, "class:chosen" if chosen else "")


def line_state(port):
    if not port.supervisable:
        return ("", "")
    if not port.supervised or port.reading is None:
        return ("class:hint", "off")
    return (f"class:bar.{port.reading[0]}", port.reading[0])


def measured_lines(model, columns):
    return [
        measured_line(port, columns)
        for _, port in sorted(model.ports.items())
        if port.supervisable
    ]


def measured_line(port, columns):
    name = pad(port.name, widths(columns)["Port"])
    start = [("", f"  {port.number:>2}  {name} ")]
    if not port.supervised or port.reading is None:
        return fit([*start, ("class:hint", "not supervised")], columns)
    state, level = port.reading
    start += [(f"class:bar.{state}", pad(state, 10))]
    if not port.ranges:
        return fit([*start, ("class:hint", "told by its box, not measured")], columns)
    start += [("", f"{level:>5} ")]
    used = sum(get_cwidth(text) for _, text in start)
    return fit([*start, *bar(port.ranges, level, columns - used - 1)], columns)


def changes_and_peers(model, columns, count):
    """Changes on the left, the latest at the foot; peers on the right."""
    wide = columns - PEERS_WIDTH
    heading = rule("Changes and events", wide) + rule("Peers", PEERS_WIDTH)
    latest = list(model.changes)[-(count - 1) :] if count > 1 else []
    left = [change_line(change, wide) for change in latest]
    left += [fit([], wide)] * (count - 1 - len(left))
    right = [peer_line(model, index, name) for index, name in enumerate(PEERS)][: count - 1]
    right += [fit([], PEERS_WIDTH)] * (count - 1 - len(right))
    return [heading] + [one + other for one, other in zip(left, right)]


def change_line(change, columns):
    at = time.strftime("%H:%M:%S", time.localtime(change.at))
    return fit([("class:hint", f" {at} "), (f"class:change.{change.kind}", change.text)], columns)


def peer_line(model, index, name):
    if model.peers[name]:
        state = ("class:on", "● on")
    elif model.device.peers.everyone[index].process:
        state = ("class:hint", "… starts")
    else:
        state = ("class:trouble", "○ stopped")
    return fit([("class:key", f" {index + 1} "), ("", pad(PEERS[name], 8)), state], PEERS_WIDTH)


def hint_line(hints, columns):
    line = [("", " ")]
    for key, hint in hints:
        line += [("class:key", key), ("class:hint", f" {hint}  ")]
    return fit(line, columns)


def help_lines(columns, count):
    lines = [rule("Keys", columns)]
    port_help = [(key.shown, key.help) for key in PORT_KEYS]
    for key, text in [("", "Of the chosen port:"), *port_help, ("", "And:"), *OTHER_HELP]:
        lines.append(fit([("class:key", f"  {pad(key, 8)}"), ("", text)], columns))
    blank = fit([], columns)
    return (lines + [blank] * count)[:count]


# -- text ----------------------------------------------------------------------------------------


def pad(text, width):
    """A text in exactly that many columns of the screen, cut with an ellipsis if need be."""
    text = "".join(sign if sign.isprintable() else "·" for sign in text).rstrip()
    if get_cwidth(text) > width:
        while text and get_cwidth(text) > width - 1:
            text = text[:-1]
        text += "…"[:width]
    return text + " " * (width - get_cwidth(text))


def fit(fragments, columns, style=""):
    """Fragments in exactly that many columns."""
    line, used = [], 0
    for each, text in fragments:
        width = min(get_cwidth(text), columns - used)
        if width > 0:
            line.append((each, text if width == get_cwidth(text) else pad(text, width)))
            used += width
    if used < columns:
        line.append((style, " " * (columns - used)))
    return line
