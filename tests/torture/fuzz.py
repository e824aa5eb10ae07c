"""Whatever bytes arrive, from clients, services around, files or the kernel: scripts/fuzz's targets."""

import os
import pathlib
import re
import subprocess
import tempfile

from campaign import Broken, Campaign, Fault, Trial

TOP = pathlib.Path(__file__).resolve().parents[2]
# What scripts/fuzz has learned lies here, and is where a run begins.
LEARNED = TOP / "build/fuzz/corpus"
SEEDS = TOP / "tests/fuzz/seeds"


def fed(target):
    """The trial of a target: it has to take whatever it is given."""

    def run(binary, budget):
        with tempfile.TemporaryDirectory() as folder:
            # What is learned from a fault is of no use to anyone.
            corpora = [folder, *(str(kept) for kept in (LEARNED / target, SEEDS / target) if kept.is_dir())]
            command = [binary, f"-max_total_time={budget.seconds}", "-timeout=20", "-max_len=1000",
                       f"-seed={budget.dice.randrange(1, 1 << 30)}", f"-artifact_prefix={folder}/",
                       *dictionary(target), *corpora]  # fmt: skip
            done = subprocess.run(command, capture_output=True, text=True, errors="replace",
                                  env={**os.environ, "G_SLICE": "always-malloc"}, check=False)  # fmt: skip
        if done.returncode != 0:
            raise Broken(seen(done.stderr))
        return f"{re.search(r'Done ([0-9]+) runs', done.stderr)[1]} inputs"

    return run


def dictionary(target):
    words = TOP / f"tests/fuzz/{target}.dict"
    return [f"-dict={words}"] if words.exists() else []


def seen(text):
    """What a sanitizer saw, or where a check of the target's own ended it."""
    found = re.search(r"(\S+: runtime error: .*|ERROR: \w+Sanitizer: .*|GLib: .*)", text)
    place = re.search(r"in (?!fuzz_require|__|fuzzer::)(\S*[Ff]uzz[^\n]* \S*tests/fuzz/\S+)", text)
    return found[1] if found else place[1] if place else text[-200:]


def trial(target, claim, fault):
    return Trial(claim, fed(target), (fault,), "fuzz", f"tests/fuzz-{target}")


NO_TEXT = Fault(
    "bytes that are no text are taken for a name", "src/dbus/legacy-properties.cpp",
    "  if (!g_utf8_validate_len(text.data(), text.size(), nullptr)) {\n    return std::nullopt;\n  }\n",
    "",
)  # fmt: skip
ANY_TYPE = Fault(
    "a service's signal may have any arguments", "src/platform/bus-proxy.cpp",
    "\n      && g_variant_is_of_type(arguments, G_VARIANT_TYPE(hearing->signal.type))) {", ") {",
)  # fmt: skip
ANY_SHIFT = Fault(
    "a sample is shifted by as many bits as the kernel says", "src/backends/iio-utils.h",
    "  return shift < 32 ? value >> shift : 0;", "  return value >> shift;",
)  # fmt: skip
NO_EVENT = Fault(
    "an event's argument is taken without an event", "src/core/conf-reader.cpp",
    """    if (event == nullptr) {
      refuse(place, "belongs to no event; it is ignored");
      return;
    }
""",
    "",
)  # fmt: skip
ANY_RANGES = Fault(
    "ranges are read whatever their type is", "src/param/param-port-group.cpp",
    "  if (!g_variant_is_of_type(value, G_VARIANT_TYPE(\"a(suu)\"))) {", "  if (false) {",
)  # fmt: skip
NO_NAME = Fault(
    "bytes that are no text are taken for a name of the older service", "src/param/sedrin-import.cpp",
    " || !g_utf8_validate_len(name.data(), name.size(), nullptr)) {", ") {",
)  # fmt: skip
ONE_BEYOND = Fault(
    "a sample is read from one byte too far on", "src/backends/iio-utils.cpp",
    "sample[big_endian ? i : sample.size() - 1 - i]", "sample[big_endian ? i : sample.size() - i]",
)  # fmt: skip
NO_STATE = Fault(
    "a word that names no state becomes a state without a name", "src/port/supervised-utils.cpp",
    "  return SUPERVISED_UNDEFINED;\n}\n\nconst char*",
    "  return static_cast<SupervisedState>(SUPERVISED_UNDEFINED + 1);\n}\n\nconst char*",
)  # fmt: skip

CAMPAIGN = Campaign(
    "fuzz",
    "whatever bytes arrive, nothing is read, written or called that should not be",
    (
        trial("dispatch", "calls, properties and messages of clients", NO_TEXT),
        trial("peers", "answers and signals of the services around, which come and go", ANY_TYPE),
        trial("kernel", "files of /sys, samples, names and labels of GPIO chips", ANY_SHIFT),
        trial("description", "descriptions of the hardware", NO_EVENT),
        trial("settings", "settings, which are the same after they were saved", ANY_RANGES),
        trial("import", "settings of the older service", NO_NAME),
        trial("samples", "kinds of samples, and samples", ONE_BEYOND),
        trial("ranges", "supervised ranges, and levels in them", NO_STATE),
    ),
)
