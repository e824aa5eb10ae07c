"""A disk as power cuts leave it, and the file system on it as the next start finds it.

What the disk holds at a cut is kept in memory, since recovery writes to the disk: before each mount the
disk is compared with that and given back what differs.
"""

import contextlib
import ctypes
import mmap
import os
import subprocess

PIECE = 256 << 10  # bytes that are compared at a time
MIB = 1 << 20
DETACH = 2  # MNT_DETACH
LIBC = ctypes.CDLL(None, use_errno=True)


def _called(result, what):
    if result != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error), what)


@contextlib.contextmanager
def mounted(disk, folder, kind):
    """A disk with a file system of that kind, at a folder, with the options that nobody has to name."""
    _called(LIBC.mount(*(os.fsencode(word) for word in (disk, folder, kind)), 0, None), f"mount {disk}")
    try:
        yield
    except BaseException:
        LIBC.umount2(os.fsencode(folder), DETACH)
        raise
    _called(LIBC.umount2(os.fsencode(folder), 0), f"unmount {folder}")


# By kind: how large, and how it is made. Each is about as small as it can be.
SIZES = {"ext4": 16 * MIB, "f2fs": 64 * MIB}


def make_file_system(disk, kind):
    size = SIZES[kind]
    command = {
        # Blocks as on a disk of any usual size; nothing is left to be initialised in the background.
        "ext4": ["mkfs.ext4", "-q", "-F", "-b", "4096", "-E", "lazy_itable_init=0", disk, f"{size // 1024}k"],
        "f2fs": ["mkfs.f2fs", "-q", "-f", disk, str(size // 512)],
    }[kind]
    subprocess.run(command, check=True)


class Image:
    """What a disk holds, and what of it was written since the last flush."""

    def __init__(self, disk, size):
        self.size = size
        self.bytes = mmap.mmap(-1, size)
        with direct(disk) as file:
            for place in range(0, size, PIECE):
                os.preadv(file, [memoryview(self.bytes)[place : place + PIECE]], place)
        self._unsafe = []  # what was written and not flushed: each entry, and what was there before

    def take(self, entry):
        """Follows the log by one entry."""
        if entry.flushes:
            self._unsafe.clear()
        if entry.data:
            end = entry.place + len(entry.data)
            self._unsafe.append((entry, self.bytes[entry.place : end]))
            self._put(entry.place, entry.data)

    @property
    def unsafe(self):
        """What may be on the disk or not as long as nothing is flushed."""
        return [entry for entry, _ in self._unsafe if not entry.forced]

    @contextlib.contextmanager
    def without(self, lost):
        """The disk for which it was too early for some of that."""
        self._take_back()
        for entry, _ in self._unsafe:
            if entry not in lost:
                self._put(entry.place, entry.data)
        yield
        self._take_back()
        for entry, _ in self._unsafe:
            self._put(entry.place, entry.data)

    def _take_back(self):
        for entry, before in reversed(self._unsafe):
            self._put(entry.place, before)

    def _put(self, place, data):
        self.bytes[place : place + len(data)] = data

    def put_on(self, disk):
        """Writes to the disk what differs there."""
        found = mmap.mmap(-1, PIECE)
        # Most of the time of a cut goes here, so nothing is copied only to be compared.
        wanted, there = (ctypes.addressof(ctypes.c_char.from_buffer(memory)) for memory in (self.bytes, found))
        with direct(disk) as file, memoryview(self.bytes) as view:
            for place in range(0, self.size, PIECE):
                os.preadv(file, [found], place)
                if LIBC.memcmp(*map(ctypes.c_void_p, (wanted + place, there)), ctypes.c_size_t(PIECE)) != 0:
                    os.pwritev(file, [view[place : place + PIECE]], place)


@contextlib.contextmanager
def direct(disk):
    """A disk opened past the cache, in which file systems leave things of their own."""
    file = os.open(disk, os.O_RDWR | os.O_DIRECT)
    try:
        yield file
    finally:
        os.close(file)
