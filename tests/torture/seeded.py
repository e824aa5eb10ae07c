"""Builds with one fault each, mostly of the daemon.

The tree is copied to build/torture/source, the fault is put there, and the daemon is built as it
ships, but for the optimisation as a whole. What comes of it is kept under build/torture/seeded for as
long as the sources stay the same.
"""

import contextlib
import functools
import hashlib
import pathlib
import shutil
import subprocess

TOP = pathlib.Path(__file__).resolve().parents[2]
SPACE = TOP / "build/torture"
COPY = SPACE / "source"
KEPT = SPACE / "seeded"


def binary_with(fault, preset, program):
    """The path of a program of that preset's build folder, with this fault."""
    text = "\0".join((sources_digest(), preset, program, fault.file, fault.old, fault.new))
    kept = KEPT / hashlib.sha256(text.encode()).hexdigest()[:16] / pathlib.Path(program).name
    if not kept.exists():
        refresh_copy()
        with seeded(fault):
            build(preset, pathlib.Path(program).name)
        kept.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(COPY / "build" / preset / program, kept.parent / "new")
        (kept.parent / "new").rename(kept)
    return kept


@functools.cache
def listed():
    """What the build reads, as paths relative to the tree."""
    names = subprocess.run(
        ["git", "-c", f"safe.directory={TOP}", "ls-files", "--cached", "--others",
         "--exclude-standard"], cwd=TOP, check=True, capture_output=True, text=True,
    ).stdout.splitlines()  # fmt: skip
    return [name for name in names if (TOP / name).is_file()]


@functools.cache
def sources_digest():
    digest = hashlib.sha256()
    for name in listed():
        if name.startswith(("src/", "cmake/", "CMake", "tests/fuzz/")):
            digest.update(name.encode() + b"\0" + (TOP / name).read_bytes())
    return digest.hexdigest()


@functools.cache
def refresh_copy():
    for name in listed():
        put(COPY / name, (TOP / name).read_bytes())
    for path in (COPY / "src").rglob("*"):
        if path.is_file() and str(path.relative_to(COPY)) not in listed():
            path.unlink()


def put(path, content):
    """Writes a file unless it says that already, so that only what differs is built again."""
    if not path.exists() or path.read_bytes() != content:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)


@contextlib.contextmanager
def seeded(fault):
    path = COPY / fault.file
    whole = path.read_text()
    found = whole.count(fault.old)
    # A mistake here, not the daemon's.
    if found != 1:
        raise LookupError(f"{fault.file} has {found} places for '{fault.what}'")
    path.write_text(whole.replace(fault.old, fault.new))
    try:
        yield
    finally:
        path.write_text(whole)


def build(preset, target):
    for command in (
        # Optimised as a whole, the daemon takes a minute to link, and breaks in the same way.
        ["cmake", "--preset", preset, "-DWEXD_TESTS=OFF", "-DCMAKE_EXE_LINKER_FLAGS=-fno-lto"],
        ["cmake", "--build", "--preset", preset, "--target", target],
    ):
        done = subprocess.run(
            command, cwd=COPY, capture_output=True, text=True, check=False
        )
        if done.returncode != 0:
            raise RuntimeError(f"{' '.join(command)}: {done.stdout[-4000:]}{done.stderr}")
