"""What a campaign is: claims of which each is tried on the daemon, and faults that show that it is.

A trial takes a binary and a budget and returns what it did, in words with figures. It raises an
AssertionError where the daemon does not keep the claim; anything else is a mistake of the trial.
"""

import dataclasses
import random
import time
from collections.abc import Callable


class Broken(AssertionError):
    """The daemon does not keep what is claimed of it."""


@dataclasses.dataclass(frozen=True)
class Fault:
    """A small change of one source that breaks a claim: `old`, which stands there once, for `new`."""

    what: str
    file: str
    old: str
    new: str


@dataclasses.dataclass(frozen=True)
class Trial:
    claim: str
    run: Callable
    faults: tuple = ()
    preset: str = "release"
    program: str = "wexd"  # in the preset's build folder


@dataclasses.dataclass(frozen=True)
class Campaign:
    name: str
    claim: str
    trials: tuple


class Budget:
    """How long a trial may go on, and the dice that it throws."""

    def __init__(self, seconds, seed):
        self.seconds = seconds
        self.dice = random.Random(seed)

    def rounds(self, least=1):
        """Counts the rounds for which there is time from now on, and no fewer than that many."""
        end = time.monotonic() + self.seconds
        done = 0
        while done < least or time.monotonic() < end:
            yield done
            done += 1
