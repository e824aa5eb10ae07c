"""What scripts/run shows: the ports as a table, then each change as it happens."""

import sys
import time

from sim import example
from sim.bus import ActionSequenceDone, PortChanged, wait_until

_colour = sys.stdout.isatty()


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


def describe(signal, names):
    """One line of text for a signal; names maps port numbers to names."""
    name = names.get(signal.port, "?")
    if isinstance(signal, ActionSequenceDone):
        return f"port {signal.port} {name}: sequence done"
    notes = [
        "input" if signal.input else "output",
        *(note for note, holds in (
            ("set virtually", signal.virtual_trig),
            ("active low", signal.activelow),
            ("virtual", signal.virtual),
            ("hidden", signal.hidden),
        ) if holds),
    ]  # fmt: skip
    state = green("on") if signal.state else "off"
    return f"port {signal.port} {name}: {state} {dim('(' + ', '.join(notes) + ')')}"


def follow(device):
    """Prints changes until the user interrupts or the daemon ends."""
    changes = device.signals()
    names = {number: port.name for number, port in device.ports().items()}
    inputs = device.path(example.INPUTS)
    print(bold("Try, from another terminal:"))
    print(f"  echo 1 > {inputs}/door")
    print(
        f"  gdbus call --address {device.bus_address} -d com.norv.IOControl.State "
        "-o /com/norv/IOControl/State -m com.norv.IOControl.State.SetState 3 true"
    )
    print(f"  cat {device.path('/etc/wexd/wexd.conf')}\n")
    print(bold("Changes, until Ctrl-C:"))
    while device.running:
        wait_until(lambda: changes.pending or not device.running, "a change", float("inf"))
        while changes.pending:
            signal = changes.pending.pop(0)
            if isinstance(signal, (PortChanged, ActionSequenceDone)):
                print(f"  {time.strftime('%H:%M:%S')}  {describe(signal, names)}", flush=True)
    print(red("The daemon ended by itself."))
    print(device.stdout + device.stderr)
