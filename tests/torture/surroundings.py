"""What a device does besides: it runs out of memory, its clock is set, its /run is full."""

import glob
import os
import re
import signal

from campaign import Broken, Fault
from victim import served_with, started

from sim.bus import PortChanged, wait_until
from sim.device import KEY_FILE
from sim.sandbox import child_of

DAY_S = 24 * 3600
# From what not even the libraries have room in to what is plenty.
ADDRESS_SPACE_MIB = (*range(4, 64, 4), *range(64, 320, 16))
STEP_MS = 300
CLOCK = "/tmp/clock"
# Whoever creates, changes or moves a file calls one of these.
WRITING = "open,openat,creat,mkdir,mkdirat,mknod,mknodat,rename,renameat,renameat2,link,linkat,symlink,symlinkat"
READS_ONLY = re.compile(r"\bO_RDONLY\b(?!.*O_CREAT)|\bO_PATH\b")


def little_address_space(binary, _budget):
    amounts = [mib << 20 for mib in ADDRESS_SPACE_MIB]
    return served_with(binary, amounts, "--as={}", "bytes of address space")


def jumps_of_the_clock(binary, _budget):
    """Steps come when they are due, and saves keep what others write, whatever day it is."""
    with started(binary, wrapper=with_a_clock_of_its_own()) as device:
        signals = device.signals()
        jumps = [days for far in (1, 10, 4000) for days in (far, -far, 0)]
        for number, days in enumerate(jumps):
            device.state.StartActionSequence(0, False, [(True, STEP_MS), (False, 0)])
            signals.wait_for(PortChanged, port=0, state=True)
            set_clock(device, days)
            signals.wait_for(PortChanged, port=0, state=False)
            wait_until(lambda: not device.manager.GetRunningSequences(), "the sequence's end")
            assert_saves(device, number, days)
        device.assert_quiet()
        device.stop()
    return f"{len(jumps)} jumps of up to {max(jumps)} days, amid sequences and saves"


def with_a_clock_of_its_own():
    """The clock of the day moves for the daemon alone; the one that only runs stays."""
    library = glob.glob("/usr/lib/*/faketime/libfaketimeMT.so.1")[0]
    return ("env", f"LD_PRELOAD={library}", f"FAKETIME_TIMESTAMP_FILE={CLOCK}", "FAKETIME_NO_CACHE=1",
            "FAKETIME_DONT_FAKE_MONOTONIC=1", "DONT_FAKE_MONOTONIC=1", "NO_FAKE_STAT=1")  # fmt: skip


def set_clock(device, days):
    device.write(CLOCK, f"{days * DAY_S:+d}\n").chmod(0o644)


def assert_saves(device, number, days):
    """A change of somebody else stays beside one of ours."""
    text = device.read(KEY_FILE)
    device.poke(KEY_FILE, f"{text}\n[round{number}]\nkept=yes\n")
    device.state.SetUsage(1, f"day {days}")
    device.sync()
    saved = device.saved
    if saved["p1"]["usage"] != f"day {days}" or saved[f"round{number}"]["kept"] != "yes":
        raise Broken(f"{days} days later the settings say {saved}")


def nothing_in_run(binary, _budget):
    """Whether /run is full is all the same to who writes nothing there."""
    trace = "/tmp/trace"
    with started(binary, wrapper=("strace", "-f", "-qq", "-o", trace, "-e", f"trace={WRITING}")) as device:
        device.state.SetUsage(0, "lamp")
        device.state.StartActionSequence(0, False, [(True, 0)])
        device.state.RefreshIOPorts()
        device.sync()
        os.kill(child_of(device.pid), signal.SIGTERM)  # the tracer's child
        device.wait_exit()
        calls = device.read(trace).splitlines()
    written = [call for call in calls if re.search(r'"(?:/var)?/run/', call) and not READS_ONLY.search(call)]
    if written:
        raise Broken(f"it writes to /run: {written[0]}")
    if not any("/etc/wexd" in call and not READS_ONLY.search(call) for call in calls):
        raise LookupError("a trace without the save")
    return f"{len(calls)} system calls that could write a file, none to /run"


NEEDS_MEMORY = Fault(
    "a start that gets no memory tries for ever", "src/core/main.cpp",
    "  if (!read_user_params()) {\n",
    "  while (malloc(200U << 20U) == nullptr) {\n    g_usleep(100000);\n  }\n  if (!read_user_params()) {\n",
)  # fmt: skip
BY_THE_DAY = Fault(
    "a step is due by the clock of the day", "src/port/port-gate.h",
    "using Clock = std::chrono::steady_clock;", "using Clock = std::chrono::system_clock;",
)  # fmt: skip
LEAVES_A_FILE = Fault(
    "the number of the process is left in /run", "src/core/main.cpp",
    "  if (!read_user_params()) {\n",
    "  fclose(fopen(\"/run/wexd.pid\", \"w\"));\n  if (!read_user_params()) {\n",
)  # fmt: skip
