"""A disk whose writes are recorded, by the device mapper's target log-writes, on a second disk.

The log begins with a super block. Of its entries each takes one sector for itself, and more for what
was written. They stand in the order in which the disk can tell that they are safe: what was written
comes with the flush after it, in the order in which it was done; what was forced through (FUA) comes
at once, before what still waits for its flush. Numbers are little-endian.
"""

import contextlib
import dataclasses
import struct
import subprocess

NAME = "recorded"
RECORDED = "/dev/dm-0"  # the only device of the mapper's

MAGIC, VERSION = 0x6A736677736872, 1
SUPER = struct.Struct("<QQQL")  # magic, version, number of entries, bytes of a sector
HEAD = struct.Struct("<QQQQ")  # first sector, sectors, flags, bytes of a mark
FLUSH, FUA, DISCARD, MARK = 1, 2, 4, 8
# The mark that is set when recording ends in order.
END = "dm-log-writes-end"


@dataclasses.dataclass(frozen=True, eq=False)  # the same may be written twice
class Entry:
    """Something that reached the disk, or a mark that was set."""

    place: int  # in bytes
    data: bytes
    flags: int = 0
    mark: str | None = None

    @property
    def flushes(self):
        """Whether all that was written before is safe now."""
        return bool(self.flags & FLUSH)

    @property
    def forced(self):
        """Whether this itself is safe now."""
        return bool(self.flags & FUA)


def mapper(*arguments):
    # There is no device manager to wait for.
    subprocess.run(["/usr/sbin/dmsetup", "--noudevsync", *map(str, arguments)], check=True)


@contextlib.contextmanager
def recording(disk, log, size):
    """Has what is written to that many bytes of a disk recorded, for as long as this lasts; yields a function
    that sets a mark. The disk is RECORDED then."""
    mapper("create", NAME, "--table", f"0 {size // 512} log-writes {disk} {log}")
    try:
        yield lambda text: mapper("message", NAME, 0, "mark", text)
    finally:
        mapper("remove", NAME)


def entries(log):
    """What a log holds, from first to last. A log that is not whole, since its disk was too small, fails."""
    with open(log, "rb") as file:
        magic, version, count, sector = SUPER.unpack(file.read(SUPER.size))
        assert (magic, version) == (MAGIC, VERSION), "no log of writes"
        place = sector
        mark = None
        for _ in range(count):
            file.seek(place)
            first, sectors, flags, length = HEAD.unpack(file.read(HEAD.size))
            place += sector
            if flags & MARK:
                mark = file.read(length).decode()
                yield Entry(0, b"", flags, mark)
            elif flags & DISCARD:  # reads as zeros afterwards, though no disk has to have it so
                yield Entry(first * sector, bytes(sectors * sector), flags)
            else:
                file.seek(place)
                place += sectors * sector
                yield Entry(first * sector, file.read(sectors * sector), flags)
        assert mark == END, "the log ends before the recording"
