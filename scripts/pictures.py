"""Makes the pictures of the simulated device; see scripts/pictures.

Each is taken from a real terminal. What differs from one time to the next without meaning anything
(the clock, how long things took, the order of what happens at once) is no reason for a new picture,
and `essence` leaves it out.
"""

import argparse
import io
import json
import os
import pathlib
import pty
import re
import sys
import time
from xml.etree import ElementTree

TOP = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TOP))

from rich.console import Console  # noqa: E402
from rich.text import Text  # noqa: E402

from sim.terminal import Terminal, simulation  # noqa: E402

SVG = "{http://www.w3.org/2000/svg}"
PROMPT = r"^wexd device / [#$] ?$"
FIRST_KEY = "port 0 door: on"  # what is seen of it
CLOCK = re.compile(r"\b\d\d:\d\d:\d\d(\.\d+)?\b")
FONTS = "'DejaVu Sans Mono', Menlo, Consolas, monospace"


# -- what is shown ---------------------------------------------------------------------------------


def live_view(binary, size):
    """Doors, wires and neighbours, some keys after the start."""
    with Terminal(simulation(binary), *size) as terminal:
        terminal.wait_for("14 of 14 ports in service", "Front door contact", "window +closed", "fence +closed")

        def press(*keys, until):
            terminal.keys(*keys)
            terminal.wait_for(*until)

        press("Space", until=[FIRST_KEY])
        press("End", "Up", "Up", "c", until=["port=13 state=cut", "port 13 fence", "fence +cut"])
        press("2", until=["Z-Wave is stopped", "○ ZWave.IO not there"])
        press("Up", "Up", "Up", "s", until=["port=10 state=short", "loop +short +told"])
        press(*["Up"] * 3, "d", until=["extension is out of service", "13 of 14 ports", "extension +missing"])
        press(*["Down"] * 5, until=["▶ 12 +window .*● closed", "13 +fence .*○ cut", "10 +loop .*○ short"])
        return terminal.screen("-e")


def shell(binary, size):
    """Some of wexctl, in a shell on the device."""
    with Terminal(simulation(binary, "--shell"), *size) as terminal:
        terminal.wait_for("Tab completes", PROMPT)
        # A key that runs until the daemon has seen the line cut, and leaves no trace on the screen.
        terminal.type("seen() { wexctl wait window cut; }")
        terminal.type(f"""bind -x '"\\C-g": seen'""")
        terminal.type("clear")
        terminal.wait_for(r"\Awexd device / . *$")
        for command, shown in (
            ("wexctl set relay on", r"relay on\n"),
            ("wexctl list", r"^21 +manualtrigger2"),
            ("wexctl supervised on window", r"on window\n"),
            ("echo 3850 > /sys/devices/inputs/window", r"inputs/window\n"),
            ("wexctl supervised show window", r"^12 +window +on +cut"),
            ("wexctl set door on", r"Not_output"),
        ):
            terminal.type(command)
            terminal.wait_for(shown, PROMPT)
            if command.startswith("echo"):
                terminal.keys("C-g")
        return terminal.screen("-e")


# Who shows it, columns and rows, and what is written above it.
PICTURES = {
    "live-view.svg": (live_view, (100, 34), "scripts/run"),
    "shell.svg": (shell, (116, 27), "scripts/run --shell"),
}


# -- how it is kept --------------------------------------------------------------------------------


def svg(lines, columns, title):
    """Lines with terminal colours as a picture; fonts are those of whoever looks at it."""
    console = Console(
        record=True, width=columns, height=len(lines), file=io.StringIO(), force_terminal=True,
        legacy_windows=False, color_system="truecolor",
    )  # fmt: skip
    # All at once, for colours last from one line to the next.
    console.print(Text.from_ansi("\n".join(lines)), no_wrap=True, overflow="crop", soft_wrap=True)
    text = console.export_svg(title=title, unique_id="picture")
    text = re.sub(r"@font-face \{.*?\n    \}\n", "", text, flags=re.S)
    # Without it some programs take even the blanks that must not break away.
    text = text.replace("<svg ", '<svg xml:space="preserve" ', 1)
    return re.sub(r"font-family: [^;]*;", f"font-family: {FONTS};", text)


def svg_lines(text):
    """What a picture shows, line by line, blanks at the ends left out."""
    rows = {}
    for element in ElementTree.fromstring(text).iter(f"{SVG}text"):
        if "clip-path" in element.attrib:
            row = rows.setdefault(float(element.get("y")), {})
            row[float(element.get("x"))] = "".join(element.itertext()).replace("\xa0", " ")
    lines = []
    for _, row in sorted(rows.items()):
        line = ""
        for x, part in sorted(row.items()):
            line = line.ljust(round(x / 12.2)) + part
        lines.append(line.rstrip())
    return lines


def recording(binary):
    """The scenario as an asciinema file, version 2, as a terminal would have got it."""
    started = time.monotonic()
    pid, terminal = pty.fork()
    if pid == 0:
        os.chdir(TOP)
        os.environ.pop("NO_COLOR", None)
        os.execv(sys.executable, simulation(binary, "--scenario"))
    rows = [{"version": 2, "width": 150, "height": 50, "title": "scripts/run --scenario"}]
    while True:
        try:
            data = os.read(terminal, 65536)
        except OSError:  # the other end is gone
            break
        rows.append([round(time.monotonic() - started, 3), "o", data.decode()])
    _, status = os.waitpid(pid, 0)
    if status != 0:
        raise SystemExit("the scenario failed")
    return "".join(json.dumps(row, ensure_ascii=False) + "\n" for row in rows)


def recorded_text(text):
    """What a recording shows, without its colours."""
    _, *events = map(json.loads, text.splitlines())
    shown = "".join(data for _, kind, data in events if kind == "o")
    return re.sub(r"\x1b\[[\d;]*m", "", shown).replace("\r\n", "\n")


def essence(name, text):
    """What of a picture must stay the same for it to be true."""
    if name.endswith(".svg"):
        # Columns apart, for what stands beside a change is another one when two come at once.
        # And root has another prompt.
        lines = (CLOCK.sub("00:00:00", line).replace("/ #", "/ $") for line in svg_lines(text))
        parts = [part for line in lines for part in re.split(r" {3,}", line) if part]
        changes = [part for part in parts if part.startswith(" 00:00:00 ")]
        # The lines' first readings may be there before somebody looks.
        first = next((i for i, part in enumerate(changes) if FIRST_KEY in part), 0)
        return sorted(part for part in parts if part not in changes[:first])
    # Steps and tables; how long a step took, and what it measured, is different each time.
    lines = (re.sub(r" +\d+ ms$", "", line) for line in recorded_text(text).splitlines())
    return [line for line in lines if re.match(r"✓|  \S| +\d+  ", line)]


def make(binary):
    """Every picture: {file name: text}."""
    made = {
        name: svg(show(binary, size), size[0], title)
        for name, (show, size, title) in PICTURES.items()
    }
    return made | {"scenario.cast": recording(binary)}


def main():
    parser = argparse.ArgumentParser(prog="scripts/pictures")
    parser.add_argument("--binary", default=TOP / "build/release/wexd", type=pathlib.Path)
    parser.add_argument("--into", default=TOP / "docs/pictures", type=pathlib.Path)
    options = parser.parse_args()
    options.into.mkdir(parents=True, exist_ok=True)
    for name, text in make(options.binary).items():
        path = options.into / name
        if path.exists() and essence(name, path.read_text()) == essence(name, text):
            print(f"{name}: nothing new")
        else:
            path.write_text(text)
            print(f"{name}: new")


if __name__ == "__main__":
    main()
