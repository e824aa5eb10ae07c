"""The pictures of the documentation: well-formed, and what the simulated device shows now."""

import json
import os
import re
import subprocess
import sys
from xml.etree import ElementTree

import pytest
from conftest import TOP

from sim import example

sys.path.insert(0, str(TOP / "scripts"))
import pictures  # noqa: E402

KEPT = TOP / "docs/pictures"
NAMES = ("live-view.svg", "shell.svg", "scenario.cast")


@pytest.mark.terminal
def test_a_picture_shows_what_is_seen_now(binary, tmp_path):
    subprocess.run(
        [sys.executable, TOP / "scripts/pictures.py", "--binary", binary, "--into", tmp_path],
        check=True, timeout=100, env={**os.environ, "TERM": "dumb"},  # as where nobody looks
    )  # fmt: skip
    for name in NAMES:
        kept, now = ((folder / name).read_text() for folder in (KEPT, tmp_path))
        assert pictures.essence(name, kept) == pictures.essence(name, now), "call scripts/pictures"


def described_ports():
    return [port.get("name") for port in ElementTree.parse(example.DESCRIPTION).findall("port")]


@pytest.mark.parametrize("name", NAMES)
def test_every_port_of_the_description_is_in_the_picture(name):
    text = (KEPT / name).read_text()
    lines = pictures.recorded_text(text).splitlines() if name.endswith("cast") else pictures.svg_lines(text)
    shown = "\n".join(lines)
    for port in described_ports():
        assert re.search(rf"^\W*\d+ +{port} ", shown, re.M), f"{port} in\n{shown}"


def test_the_live_views_picture_shows_all_its_parts():
    shown = "\n".join(pictures.svg_lines((KEPT / "live-view.svg").read_text()))
    for part in ("Supervised lines", "Changes", "Services", "Streamer", "◆", "● on",
                 "missing", "not there", "13  fence +cut +3850"):  # fmt: skip
        assert re.search(part, shown), part


def test_a_picture_asks_nobody_for_fonts():
    for path in KEPT.glob("*.svg"):
        text = path.read_text()
        assert "url(" not in text.replace("url(#", ""), path
        assert "@font-face" not in text


def test_the_recording_is_one_that_players_take():
    header, *events = map(json.loads, (KEPT / "scenario.cast").read_text().splitlines())
    assert header["version"] == 2 and header["width"] > 100 and header["height"] > 20
    times = [at for at, kind, data in events if kind == "o" and data]
    assert times == sorted(times) and len(times) == len(events) > 10
    shown = pictures.recorded_text((KEPT / "scenario.cast").read_text())
    assert max(map(len, shown.splitlines())) <= header["width"]
    assert "All of it happened" in shown
