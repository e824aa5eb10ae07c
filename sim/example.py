"""The example device: a board with a line for everything that the daemon can do.

A contact is a file with 0 or 1, a loop one with the level that its converter measures, in counts.
Whoever writes such a file turns the wire.
"""

import pathlib

from sim.board import INPUTS, Board  # noqa: F401  where the wires are is of interest elsewhere
from sim.bus import wait_until

DESCRIPTION = pathlib.Path(__file__).parent / "conf.xml"
# Converter counts, each well within its range of the description.
LEVELS = {"short": 200, "closed": 1300, "open": 2700, "cut": 3850}


def board():
    return Board(DESCRIPTION, LEVELS)


def wait_complete(device):
    """Waits for what the daemon waits for no longer: the triggers of the two video channels."""
    wait_until(lambda: "manualtrigger2" in names(device), "triggers")


def names(device):
    return {entry.name for entry in device.port_list()}
