"""Runs on the booted tree: tries what it is told on the command line, and prints what came of it.

The arguments are attempts, each in Python with what stands below as its names. The answer is one
JSON object: attempt, and "done" or the name of the error.
"""

import ctypes
import errno
import json
import mmap
import os
import pathlib
import pwd
import socket
import sys
import threading

libc = ctypes.CDLL(None, use_errno=True)
CLONE_NEWUTS, LOCK_NOW = 0x04000000, 1


def write(folder):
    place = pathlib.Path(folder) / "probe"
    place.write_text("probe")
    place.unlink()


def move(folder, into):
    place = pathlib.Path(folder) / "probe"
    place.write_text("probe")
    try:
        os.rename(place, pathlib.Path(into) / "moved")
        os.unlink(pathlib.Path(into) / "moved")
    finally:
        place.unlink(missing_ok=True)


def leave(make, name="/tmp/probe-name"):
    """What makes a name, which is removed again."""
    make(name)
    os.unlink(name)


def make_setuid():
    pathlib.Path("/tmp/probe-setuid").touch()
    try:
        os.chmod("/tmp/probe-setuid", 0o4755)
    finally:
        os.unlink("/tmp/probe-setuid")


def map_writable_code():
    mmap.mmap(-1, 4096, prot=mmap.PROT_READ | mmap.PROT_WRITE | mmap.PROT_EXEC)


def start_thread():
    thread = threading.Thread(target=lambda: None)
    thread.start()
    thread.join()


def as_wxd(attempt):
    user = pwd.getpwnam("wxd")
    groups = os.getgroups()
    os.setgroups([])
    os.setegid(user.pw_gid)
    os.seteuid(user.pw_uid)
    try:
        attempt()
    finally:
        os.seteuid(0)
        os.setegid(0)
        os.setgroups(groups)


def call(name, *arguments):
    if getattr(libc, name)(*arguments) < 0:
        raise OSError(ctypes.get_errno(), name)


def outcome(attempt):
    try:
        eval(attempt)  # the test's own words
    except OSError as error:
        return errno.errorcode[error.errno]
    return "done"


if __name__ == "__main__":
    print(json.dumps({attempt: outcome(attempt) for attempt in sys.argv[1:]}), flush=True)
