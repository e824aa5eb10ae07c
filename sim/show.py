"""How ports and their changes read on a terminal."""

import os
import sys

from sim.bus import ActionSequenceDone

_colour = sys.stdout.isatty() and not os.environ.get("NO_COLOR")


def styled(text, code):
    return f"\x1b[{code}m{text}\x1b[0m" if _colour else text


def bold(text):
    return styled(text, 1)


def green(text):
    return styled(text, 32)


def red(text):
    return styled(text, 31)


def dim(text):
    return styled(text, 2)


def table(device):
    """Prints every port in service, by number."""
    rows = [("No", "Port", "Shown as", "Kind", "State", "Active", "Usage", "Properties")]
    for number, port in sorted(device.ports().items()):
        shown, active, usage = "", "", ""
        if port.properties.get("ioport"):
            names = device.state.GetNames(number)
            shown = " / ".join(name for name in names if name)
            active = device.state.GetActive(number)[0 if port.input else 1]
            usage = device.state.GetUsage(number)
        kind = "input" if port.input else "output"
        properties = sorted(key for key, value in port.properties.items() if value)
        rows.append(
            (
                str(number),
                port.name,
                shown,
                f"{kind} (switchable)" if port.configurable else kind,
                "on" if port.state else "off",
                active,
                usage,
                ", ".join(properties),
            )
        )
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    for index, row in enumerate(rows):
        line = "  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip()
        print("  " + (bold(line) if index == 0 else line))
    print()


def remarks(signal):
    """What a PortChanged says beside the state."""
    return [
        "input" if signal.input else "output",
        *(note for note, holds in (
            ("set virtually", signal.virtual_trig),
            ("active low", signal.activelow),
            ("virtual", signal.virtual),
            ("hidden", signal.hidden),
        ) if holds),
    ]  # fmt: skip


def describe(signal, names):
    """One line of text for a signal; names maps port numbers to names."""
    name = names.get(signal.port, "?")
    if isinstance(signal, ActionSequenceDone):
        return f"port {signal.port} {name}: sequence done"
    state = green("on") if signal.state else "off"
    return f"port {signal.port} {name}: {state} {dim('(' + ', '.join(remarks(signal)) + ')')}"
