#!/usr/bin/python3
"""Usage: tidy.py BUILD_FOLDER
Has clang-tidy look at every source of src/ that BUILD_FOLDER is made of. What it found nothing wrong
with is known by a sum of all that it saw, kept under ${XDG_CACHE_HOME:-~/.cache}/wexd/tidy, and is not
looked at again. The exit status is 1 when anything was found."""

import collections
import concurrent.futures
import functools
import hashlib
import json
import os
import pathlib
import shlex
import subprocess
import sys
import time

TOP = pathlib.Path(__file__).resolve().parents[1]
CACHE = pathlib.Path(os.environ.get("XDG_CACHE_HOME", "~/.cache")).expanduser() / "wexd/tidy"
KEPT_DAYS = 60


def output_of(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=False, **options)


def rules():
    """What decides besides the source: the tool and what it is told to look for."""
    return output_of("clang-tidy", "--version").stdout + (TOP / ".clang-tidy").read_text()


def files_read(entry):
    """The source and all that it includes; nothing where that cannot be told."""
    words = shlex.split(entry["command"])
    words = words[next(i for i, word in enumerate(words) if word.endswith(("g++", "c++"))) + 1 :]
    at = words.index("-o")
    words = [word for word in words[:at] + words[at + 2 :] if word not in ("-c", "-MD")]
    rule = output_of("clang++", "-M", "-MF", "-", "-MT", "all", "-w", *words, cwd=entry["directory"]).stdout
    return [pathlib.Path(entry["directory"], name) for name in shlex.split(rule.replace("\\\n", ""))[1:]]


@functools.cache
def sum_of(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


def key_of(entries, wanted):
    """Of all the ways in which a source is compiled."""
    whole = [wanted]
    for entry in entries:
        files = files_read(entry)
        if not files:
            return None
        # A checkout elsewhere has other paths and the same text.
        whole += [entry["command"].replace(str(TOP), ""), *map(sum_of, files)]
    return CACHE / hashlib.sha256("\0".join(whole).encode()).hexdigest()


def complaints(entries, build, wanted):
    """What the tool says of one source, empty where nothing is wrong."""
    key = key_of(entries, wanted)
    if key and key.exists():
        key.touch()
        return ""
    found = output_of("clang-tidy", "--quiet", "-p", build, entries[0]["file"])
    if found.returncode:
        return found.stdout + found.stderr
    if key:
        key.touch()
    return ""


def forget_old():
    before = time.time() - KEPT_DAYS * 24 * 3600
    for path in CACHE.iterdir():
        if path.stat().st_mtime < before:
            path.unlink(missing_ok=True)


def main(build):
    CACHE.mkdir(parents=True, exist_ok=True)
    forget_old()
    sources = collections.defaultdict(list)
    for entry in json.loads((pathlib.Path(build) / "compile_commands.json").read_text()):
        if entry["file"].startswith(f"{TOP}/src/") and entry["file"].endswith(".cpp"):
            sources[entry["file"]].append(entry)
    wanted = rules()
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        found = list(pool.map(lambda entries: complaints(entries, build, wanted), sources.values()))
    print("".join(found), end="")
    return 1 if any(found) or not sources else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
