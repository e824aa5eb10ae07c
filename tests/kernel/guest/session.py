"""What the bench guest does between boot and power-off: loads the chips, runs
the tests or the benchmark, and leaves their result on the writable share."""

import os
import pathlib
import subprocess
import sys
import time

BENCH = pathlib.Path("/bench")
OUT = pathlib.Path("/out")
DESCRIPTION_FOLDER = pathlib.Path("/run/wexd-description")


def load_modules():
    for module in sorted((BENCH / "modules").glob("*.ko")):
        subprocess.run(["/usr/sbin/insmod", module], check=True)


def check_clock():
    """Short times mean nothing on a clock that goes by the tick."""
    clock = pathlib.Path("/sys/devices/system/clocksource/clocksource0/current_clocksource")
    assert clock.read_text().strip() in ("tsc", "tsc-early", "acpi_pm"), clock.read_text()


def run(arguments):
    """Runs the tests, or with --bench the benchmark; the rest of the arguments is pytest's."""
    os.chdir(BENCH / "tests")
    if arguments[:1] == ["--bench"]:
        command = [sys.executable, "bench_edge.py", *arguments[1:]]
        return subprocess.run(command, check=False).returncode
    import pytest  # pylint: disable=import-outside-toplevel

    options = ["-v", "--tb=short", "--timeout=60", "-p", "no:cacheprovider"]
    return pytest.main([*options, f"--junitxml={OUT}/kernel.xml", *arguments])


def main():
    started = time.monotonic()
    DESCRIPTION_FOLDER.mkdir()
    load_modules()
    print(f"guest ready after {started:.1f} + {time.monotonic() - started:.1f} s", flush=True)
    check_clock()
    status = run((BENCH / "arguments").read_text().splitlines())
    sys.stdout.flush()
    (OUT / "status").write_text(f"{int(status)}\n")
    os.sync()


main()
