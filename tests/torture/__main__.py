"""Runs campaigns against the daemon: see scripts/torture."""

import argparse
import dataclasses
import pathlib
import sys
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TOP), str(TOP / "tests/system")]

from campaign import Budget  # noqa: E402
from campaigns import CAMPAIGNS  # noqa: E402
from seeded import binary_with  # noqa: E402

# For how long a fault may go unnoticed, in seconds; a trial ends when it has caught one.
PROOF_S = 60


@dataclasses.dataclass(frozen=True)
class Result:
    """What came of a trial of one binary: a claim that held, or a fault that was caught."""

    what: str
    good: bool
    verdict: str
    text: str

    def __str__(self):
        return f"{self.verdict:11} {self.what}: {self.text}"


def main():
    arguments = parse_arguments()
    chosen = [found for found in CAMPAIGNS if found.name in arguments.campaigns]
    if arguments.build_only:
        build(chosen, arguments)
        return
    began = time.monotonic()
    results = []
    for campaign in chosen:
        print(f"{campaign.name}: {campaign.claim}", flush=True)
        for result in run(campaign, arguments):
            print(f"  {result}", flush=True)
            results.append(result)
    bad = [result for result in results if not result.good]
    print(f"{len(results) - len(bad)} good, {len(bad)} bad, {time.monotonic() - began:.0f} s")
    for result in bad:
        print(f"  {result}")
    sys.exit(bool(bad))


def parse_arguments():
    parser = argparse.ArgumentParser(prog="scripts/torture")
    parser.add_argument("campaigns", nargs="+")
    parser.add_argument("-t", dest="seconds", type=int, default=20)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--short", action="store_true")
    parser.add_argument("--build-only", action="store_true")
    return parser.parse_args()


def trials_of(campaign, arguments):
    return campaign.trials[:1] if arguments.short else campaign.trials


def faults_of(trial, arguments):
    return trial.faults[:1] if arguments.short else trial.faults


def build(chosen, arguments):
    for campaign in chosen:
        for trial in trials_of(campaign, arguments):
            for fault in faults_of(trial, arguments):
                binary_with(fault, trial.preset, trial.program)


def run(campaign, arguments):
    """Each trial: first the faults that it has to catch, then the daemon as it is."""
    for trial in trials_of(campaign, arguments):
        for fault in faults_of(trial, arguments):
            binary = binary_with(fault, trial.preset, trial.program)
            held, text = attempt(trial, binary, Budget(PROOF_S, arguments.seed))
            # A trial that lets a broken daemon pass proves nothing.
            verdict = "NOT CAUGHT" if held else "caught"
            yield Result(f"{trial.claim}, when {fault.what}", not held, verdict, text)
        binary = TOP / "build" / trial.preset / trial.program
        held, text = attempt(trial, binary, Budget(arguments.seconds, arguments.seed))
        yield Result(trial.claim, held, "held" if held else "BROKEN", text)


def attempt(trial, binary, budget):
    """Whether the claim held, and what is to be said of it."""
    began = time.monotonic()
    try:
        held, text = True, trial.run(binary, budget)
    except AssertionError as error:
        held, text = False, " ".join(str(error).split())[:200]
    return held, f"{text} ({time.monotonic() - began:.0f} s)"


if __name__ == "__main__":
    main()
