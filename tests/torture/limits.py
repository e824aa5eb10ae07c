"""Whatever the system withholds, and whenever a signal comes, the daemon does what it can or ends."""

import contextlib
import os
import signal
import subprocess
import time

from campaign import Broken, Campaign, Fault, Trial
from surroundings import (
    BY_THE_DAY,
    LEAVES_A_FILE,
    NEEDS_MEMORY,
    jumps_of_the_clock,
    little_address_space,
    nothing_in_run,
)
from victim import served_with, started

from sim.bus import BusError, wait_until
from sim.device import KEY_FILE
from sim.sandbox import child_of

# Moments at which a start is told to end, and how far apart they are at most: most starts are shorter.
MOMENTS, STEP_S = 50, 0.005
FEWEST, MOST = 5, 40  # descriptors
HANG_UPS = 20_000
BURST = 200  # signals between two questions


# -- signals -------------------------------------------------------------------------------------


def told_to_end_amid_the_start(binary, _budget):
    """Before it listens to SIGTERM, that ends it like any process; from then on it ends by itself."""
    with started(binary) as device:
        device.stop()
        settings, began = device.read(KEY_FILE), time.monotonic()
        device.start()
        took_s = time.monotonic() - began
        device.stop()
        step_s = min(STEP_S, took_s / MOMENTS)
        steps, orderly = round(took_s / step_s), 0
        for step in range(steps):
            orderly += told_to_end_after(device, step * step_s)
            if device.read(KEY_FILE) != settings:
                raise Broken(f"{step * step_s * 1000:.1f} ms after the start, SIGTERM costs settings")
    return (
        f"{steps} starts, one every {step_s * 1000:.1f} ms, {orderly} ended in order, "
        "the others before they listened"
    )


def told_to_end_after(device, seconds):
    """Whether the daemon ended in order."""
    device.start(ready=False)
    daemon = wait_until(lambda: child_of(device._init_pid), "the daemon's process")
    time.sleep(seconds)
    os.kill(daemon, signal.SIGTERM)
    wait_until(lambda: not device.running, f"the end, {seconds * 1000:.1f} ms after the start")
    device.assert_quiet()
    if device.process.returncode not in (0, 128 + signal.SIGTERM):
        raise Broken(f"status {device.process.returncode}, {seconds * 1000:.1f} ms after the start")
    return device.process.returncode == 0


def hang_ups_and_stops(binary, _budget):
    with started(binary) as device:
        for n in range(HANG_UPS // BURST):
            hang_up(device, BURST)
            if n % 10 == 0:
                stop_and_continue(device)
            device.sync()
        device.assert_quiet()
        device.stop()
    return f"{HANG_UPS} SIGHUPs, {HANG_UPS // BURST // 10} times stopped and continued"


def hang_up(device, count):
    try:
        for _ in range(count):
            device.signal(signal.SIGHUP)
    except ProcessLookupError:
        raise Broken("a SIGHUP has ended the daemon") from None


def stop_and_continue(device):
    """What was asked meanwhile is answered afterwards."""
    device.signal(signal.SIGSTOP)
    calls = [device.state.begin("GetState", n % 8) for n in range(100)]
    device.signal(signal.SIGCONT)
    try:
        for call in calls:
            call.wait()
    except BusError as error:
        raise Broken(f"a question while it stood still is not answered: {error.message}") from error


# -- scarcity ------------------------------------------------------------------------------------


def few_descriptors(binary, _budget):
    return served_with(binary, range(FEWEST, MOST), "--nofile={}", "descriptors")


def no_thread(binary, _budget):
    """A sequence that gets no thread is refused, and its port is as free as before."""
    with started(binary) as device:
        pid = device.pid
        for _ in range(20):
            with limited(pid, "nproc", 1):
                assert_refused(device)
            start_sequence(device)
            wait_until(lambda: not device.manager.GetRunningSequences(), "the sequence's end")
    return "20 times without and with"


def start_sequence(device):
    try:
        device.state.StartActionSequence(0, False, [(True, 0)])
    except BusError as error:
        raise Broken(f"with a thread a sequence is answered: {error.message}") from error


def assert_refused(device):
    try:
        device.state.StartActionSequence(0, False, [(True, 0)])
    except BusError as error:
        if "could not be started" in error.message:
            return
        raise Broken(f"without a thread a sequence is answered: {error.message}") from error
    raise Broken("a sequence starts without a thread")


@contextlib.contextmanager
def limited(pid, what, soft):
    """Takes something away from a running process for a while."""
    before = prlimit(pid, f"--{what}", "--output=SOFT", "--noheadings").strip()
    prlimit(pid, f"--{what}={soft}:")
    try:
        yield
    finally:
        prlimit(pid, f"--{what}={before}:")


def prlimit(pid, *options):
    """As the process's own user, which may do that wherever it is; root may not everywhere."""
    owner = os.stat(f"/proc/{pid}")
    become = ["setpriv", f"--reuid={owner.st_uid}", f"--regid={owner.st_gid}", "--clear-groups"]
    return subprocess.run(
        [*become, "prlimit", f"--pid={pid}", *options], check=True, capture_output=True, text=True
    ).stdout


def no_descriptor_for_a_save(binary, _budget):
    """A save that finds no descriptor is told of and made good."""
    with started(binary) as device:
        pid = device.pid
        for n in range(20):
            held = len(os.listdir(f"/proc/{pid}/fd"))
            with limited(pid, "nofile", held):
                device.state.SetUsage(0, f"scarce {n}")
                device.sync()
                failed = device.manager.GetLastFailedSave()
                if not failed[0] or failed[-1]:
                    raise Broken("a save without a descriptor, and nobody is told")
            device.state.SetUsage(1, f"plenty {n}")
            device.sync()
            usages = [device.saved[f"p{port}"]["usage"] for port in (0, 1)]
            if usages != [f"scarce {n}", f"plenty {n}"]:
                raise Broken(f"the settings say {usages}")
    return "20 times without and with"


DEAF_AT_FIRST = Fault(
    "SIGTERM is not listened to before the main loop runs", "src/core/main.cpp",
    "  SourceId term_{g_unix_signal_add(SIGTERM, callback<got_sigterm>, this)};\n",
    """  static gboolean listen(MainLoop* main_loop) {
    g_unix_signal_add(SIGTERM, callback<got_sigterm>, main_loop);
    return G_SOURCE_REMOVE;
  }
  bool deaf_ = signal(SIGTERM, SIG_IGN) != SIG_ERR;
  SourceId term_{g_idle_add(callback<listen>, this)};
""",
)  # fmt: skip
HANGS_UP = Fault(
    "SIGHUP is not handled", "src/core/main.cpp",
    "  SourceId hup_{g_unix_signal_add(SIGHUP, callback<got_sighup>, this)};\n",
    "  SourceId hup_;\n",
)  # fmt: skip
STAYS_BUSY = Fault(
    "a port stays busy when its sequence got no thread", "src/port/action-sequence.cpp",
    "    unmark_running(ioport);\n    io_port_unref(ioport);\n    return",
    "    if (error == nullptr) {\n      unmark_running(ioport);\n    }\n    io_port_unref(ioport);\n"
    "    return",
)  # fmt: skip
FORGETS = Fault(
    "a save that cannot read the settings is forgotten", "src/param/param.cpp",
    "    note_as_unsaved(groups);\n    g_return_if_fail_warning(",
    "    g_return_if_fail_warning(",
)  # fmt: skip
WAITS_FOR_EVER = Fault(
    "a start that cannot read the settings tries for ever", "src/core/main.cpp",
    "  if (!read_user_params()) {\n", "  while (!read_user_params()) {\n    g_usleep(100000);\n  }\n  if (getpid() == 0) {\n",
)  # fmt: skip

CAMPAIGN = Campaign(
    "limits",
    "whatever is withheld and whenever a signal comes, the daemon does what it can or ends",
    (
        Trial("SIGTERM at fifty moments of the start or more", told_to_end_amid_the_start, (DEAF_AT_FIRST,)),
        Trial("SIGHUP, SIGSTOP and SIGCONT", hang_ups_and_stops, (HANGS_UP,)),
        Trial("few descriptors", few_descriptors, (WAITS_FOR_EVER,)),
        Trial("no thread for a sequence", no_thread, (STAYS_BUSY,)),
        Trial("no descriptor for a save", no_descriptor_for_a_save, (FORGETS,)),
        Trial("little address space", little_address_space, (NEEDS_MEMORY,)),
        Trial("jumps of the clock", jumps_of_the_clock, (BY_THE_DAY,)),
        Trial("nothing in /run", nothing_in_run, (LEAVES_A_FILE,)),
    ),
)  # fmt: skip
