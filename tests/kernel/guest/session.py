"""What the bench guest does between boot and power-off: loads the chips, runs
the tests or the benchmark, and leaves their result on the writable share."""

import os
import pathlib
import shutil
import subprocess
import sys
import time

# An emulated machine on a busy host can be ten times slower than on an idle one.
DEADLINE_S = 300
TEST_LIMIT_S = 900

BENCH = pathlib.Path("/bench")
OUT = pathlib.Path("/out")
DESCRIPTION_FOLDER = pathlib.Path("/run/wexd-description")
# Where programs of a build that counts which lines run find the files for their counts.
COUNTS = pathlib.Path("/tmp/counts")


def load_modules():
    for module in sorted((BENCH / "modules").glob("*.ko")):
        subprocess.run(["/usr/sbin/insmod", module], check=True)


def check_clock():
    """Short times mean nothing on a clock that goes by the tick."""
    clock = pathlib.Path("/sys/devices/system/clocksource/clocksource0/current_clocksource")
    assert clock.read_text().strip() in ("tsc", "tsc-early", "acpi_pm"), clock.read_text()


def make_count_files():
    """They are there, and anybody's, before the first program comes, whoever runs it."""
    for name in (BENCH / "counts").read_text().splitlines():
        file = COUNTS / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.touch()
        file.chmod(0o666)


def run(arguments):
    """Runs the tests, or with --bench the benchmarks; the rest of the arguments is pytest's, or
    names benchmarks to be run alone, --short in a tenth of the time."""
    os.chdir(BENCH / "tests")
    if arguments[:1] == ["--bench"]:
        short = [word for word in arguments[1:] if word == "--short"]
        files = [f"bench_{name}.py" for name in arguments[1:] if name and name not in short]
        files = files or sorted(path.name for path in pathlib.Path().glob("bench_*.py"))
        return max(subprocess.run([sys.executable, file, *short], check=False).returncode for file in files)
    import pytest  # pylint: disable=import-outside-toplevel

    options = ["-v", "--tb=short", f"--timeout={TEST_LIMIT_S}", "-p", "no:cacheprovider"]
    options += ["-o", "junit_family=xunit1"]  # the one that has properties of a test
    return pytest.main([*options, f"--junitxml={OUT}/kernel.xml", *arguments])


def main():
    started = time.monotonic()
    os.environ["WEXD_DEADLINE"] = str(DEADLINE_S)
    DESCRIPTION_FOLDER.mkdir()
    load_modules()
    print(f"guest ready after {started:.1f} + {time.monotonic() - started:.1f} s", flush=True)
    check_clock()
    counting = (BENCH / "counts").exists()
    if counting:
        make_count_files()
    status = run((BENCH / "arguments").read_text().splitlines())
    if counting:
        shutil.copytree(COUNTS, OUT / "counts")
    sys.stdout.flush()
    (OUT / "status").write_text(f"{int(status)}\n")
    os.sync()


main()
