"""What the tests of the operator's screen do alike."""

import re

from sim.bus import wait_until
from sim.terminal import DEADLINE


def choose(terminal, name):
    """Moves down the list until a port is chosen."""
    terminal.keys("Home")
    terminal.wait_for(r"^▶ 0 +door")
    for _ in range(20):
        chosen = next(line for line in terminal.screen() if line.startswith("▶"))
        if re.match(rf"▶ +\d+ +{name} ", chosen):
            return
        terminal.keys("Down")
        terminal.wait_for(rf"^▶(?! +{chosen.split()[1]} )")
    raise AssertionError(f"no {name} to choose")


def says(question, answer):
    """Waits until the daemon answers a question that way."""
    wait_until(lambda: question() == answer, lambda: f"{answer}, not {question()}", DEADLINE)
