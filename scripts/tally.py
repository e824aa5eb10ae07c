"""Adds up what scripts/test ran and prints "N passed, N failed" as its last line.

Usage: tally.py RESULTS-FOLDER

The folder holds one NAME.step file per step ("pass" or "fail") and, for steps that run test
cases, one or more JUnit files NAME*.xml. A step with JUnit files counts by its cases, any other
as one. A skipped case is a failure, and so is a failed step whose cases all passed.
"""

import pathlib
import sys
import xml.etree.ElementTree as ElementTree


def cases(junit):
    """(name, problem) of every case in a JUnit file; the problem of a passed case is None."""
    for case in ElementTree.parse(junit).getroot().iter("testcase"):
        name = f"{case.get('classname')}.{case.get('name')}"
        problems = [child.tag for child in case if child.tag in ("failure", "error", "skipped")]
        if not problems and case.get("status") in ("notrun", "disabled"):
            problems = ["skipped"]
        yield name, problems[0] if problems else None


def main(folder):
    passed, failed = 0, 0
    for step in sorted(folder.glob("*.step")):
        step_passed = step.read_text().strip() == "pass"
        junits = sorted(folder.glob(f"{step.stem}.xml")) + sorted(folder.glob(f"{step.stem}-root.xml"))
        outcomes = [outcome for junit in junits for outcome in cases(junit)]
        for name, problem in outcomes:
            if problem is not None:
                print(f"{problem}: {step.stem}: {name}")
        bad = sum(problem is not None for _, problem in outcomes)
        good = len(outcomes) - bad
        if not outcomes:
            good, bad = (1, 0) if step_passed else (0, 1)
        elif not step_passed and not bad:
            print(f"failure: {step.stem}: the run itself, see {folder / (step.stem + '.log')}")
            bad = 1
        passed += good
        failed += bad
    print(f"{passed} passed, {failed} failed")
    return 1 if failed or not passed else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
