"""Power cuts as a disk sees them, on the file systems of a real kernel: tests/kernel/test_power_cuts.py."""

import os
import pathlib
import subprocess
import tempfile
import xml.etree.ElementTree

from campaign import Broken

TOP = pathlib.Path(__file__).resolve().parents[2]
FILE_SYSTEMS = ("ext4", "f2fs")
# Changes of settings. What reaches the disk of more than those has no room in the guest's memory.
LEAST, MOST = 6, 300
CHANGE_S = 4  # for the cuts in one change
# How long the machine may take, booting included, on a busy host.
LIMIT_S, LIMIT_OF_CHANGE_S = 1200, 60
TROUBLE = ("failure", "error", "skipped")


def cuts_of_disks(binary, budget):
    """As many changes of settings as there is time for."""
    changes = min(max(LEAST, budget.seconds // CHANGE_S), MOST)
    with tempfile.TemporaryDirectory() as folder:
        report = pathlib.Path(folder, "report.xml")
        done = subprocess.run(
            ["scripts/kernel-bench", "--binary", binary, "--junitxml", report, "test_power_cuts.py",
             "--", "--saves", str(changes)],
            cwd=TOP, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
            env={**os.environ, "KERNEL_BENCH_LIMIT_S": str(LIMIT_S + LIMIT_OF_CHANGE_S * changes)},
        )  # fmt: skip
        if not report.exists():
            raise RuntimeError(f"the bench's guest left nothing: {done.stdout[-2000:]}")
        cases = xml.etree.ElementTree.parse(report).getroot().findall(".//testcase")
    return told_by(cases)


def told_by(cases):
    """What the test says of the file systems, in words. Settings that were lost on one of them break the claim;
    any other failure says nothing of the daemon."""
    on = {kind: case for kind in FILE_SYSTEMS for case in cases if f"[{kind}]" in case.get("name")}
    if len(on) != len(FILE_SYSTEMS) or len(cases) != len(FILE_SYSTEMS):
        raise RuntimeError(f"the bench ran {[case.get('name') for case in cases]}")
    bad = {kind: trouble for kind, case in on.items() for trouble in case if trouble.tag in TROUBLE}
    for kind, trouble in bad.items():
        what, _, text = trouble.get("message").partition(": ")
        if trouble.tag == "failure" and what.endswith("Lost"):
            raise Broken(f"{kind}: {text}")
    if bad:
        raise RuntimeError("\n".join(f"{kind}: {trouble.text}" for kind, trouble in bad.items()))
    return "; ".join(f"{kind}: {figures(case)}" for kind, case in on.items())


def figures(case):
    found = {entry.get("name"): int(entry.get("value")) for entry in case.iter("property")}
    return (
        f"{found['saves']} changes, {found['writes']} writes, {found['cuts']} cuts, "
        f"{found['half_files']} half files beside the whole one"
    )
