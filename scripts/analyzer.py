#!/usr/bin/python3
"""Usage: analyzer.py [--daemon BUILD_FOLDER]
Has gcc's analyzer (-fanalyzer) look at the C programs of simulation and tests; with --daemon at the C++
sources of daemon and client, as BUILD_FOLDER is made of them, which takes most of an hour. What it finds
there wrongly is in analyzer.known. The exit status is 1 when it found anything else, or no longer finds
what is there."""

import argparse
import concurrent.futures
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys

TOP = pathlib.Path(__file__).resolve().parents[1]
KNOWN = pathlib.Path(__file__).with_suffix(".known")
FINDING = re.compile(r"^(?P<place>[^\s:]+)(?::\d+:\d+)?: warning: .*\[-Wanalyzer-(?P<kind>[a-z-]+)\]$", re.MULTILINE)
# Made by a code generator, or for a kernel, whose build has its own checks.
NOT_OURS = ("examples/c/", "tests/kernel/modules/")
LIBRARIES = ("gio-2.0", "libsystemd")


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def c_programs():
    """{source: the command that compiles it}"""
    flags = shlex.split(output_of("pkg-config", "--cflags", *LIBRARIES))
    sources = output_of("git", "-C", str(TOP), "ls-files", "*.c").split()
    return {
        source: ["gcc", "-D_GNU_SOURCE", '-DPLACE="place"', "-O1", "-Wall", "-Wextra", *flags, "-c", source]
        for source in sources
        if not source.startswith(NOT_OURS)
    }


def daemon_sources(build):
    """The same of the sources that ship."""
    found = {}
    for entry in json.loads((build / "compile_commands.json").read_text()):
        source = pathlib.Path(entry["file"])
        if source.is_relative_to(TOP / "src") or source.is_relative_to(TOP / "tools"):
            words = shlex.split(entry["command"])
            words = words[next(i for i, word in enumerate(words) if word.endswith(("g++", "c++"))) :]
            at = words.index("-o")
            words = [word for word in words[:at] + words[at + 2 :] if not word.startswith("-flto")]
            found[str(source.relative_to(TOP))] = words
    return found


def findings(source, command):
    """What is found in one source, as {(kind, source)}, with the text of it."""
    done = subprocess.run(
        [*command, "-fanalyzer", "-Wno-error", "-o", os.devnull],
        cwd=TOP, capture_output=True, text=True, check=False, env={**os.environ, "LC_ALL": "C"},
    )  # fmt: skip
    if done.returncode:
        sys.exit(f"{source} does not compile:\n{done.stderr}")
    return {(match["kind"], source) for match in FINDING.finditer(done.stderr)}, done.stderr


def known(sources):
    """{(kind, source)} of the list; a kind without a source is meant wherever C++ is."""
    lines = [line.split() for line in KNOWN.read_text().splitlines() if line and not line.startswith("#")]
    everywhere = {words[0] for words in lines if len(words) == 1}
    return everywhere, {(words[0], words[1]) for words in lines if len(words) == 2 and words[1] in sources}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--daemon", metavar="BUILD_FOLDER", type=pathlib.Path)
    build = parser.parse_args().daemon
    sources = daemon_sources(build) if build else c_programs()
    everywhere, places = known(sources) if build else (set(), set())
    found, bad = set(), set()
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for told, text in pool.map(lambda item: findings(*item), sources.items()):
            wrong = {(kind, source) for kind, source in told if kind not in everywhere} - places
            if wrong:
                print(text, flush=True)
            found |= told
            bad |= wrong
    gone = places - found
    for kind, source in sorted(gone):
        print(f"{source}: {kind} is no longer found; take it off {KNOWN.name}")
    print(f"{len(sources)} sources, {len(found)} findings by kind, {len(found) - len(bad)} of them known")
    return 1 if bad or gone or not sources else 0


if __name__ == "__main__":
    sys.exit(main())
