"""Disks that lose, at a power cut, some of what they have confirmed and were not told to keep.

qemu writes down what the machine asks of a disk, in its order, in the form of the kernel's dm-log-writes: a block with the number
of entries and the size of a sector, then for each entry a block with its head, and its data.
"""

import struct

MAGIC = 0x6A736677736872
FLUSH, FUA, DISCARD = 1, 2, 4
BLOCK = 4096  # What a disk writes whole or not at all.


def entries(path):
    """Flags, offset, length and data of every entry; those that the end of qemu has cut off are none."""
    with open(path, "rb") as file:
        head = file.read(28)
        if len(head) < 28:
            return
        magic, _, _, sector = struct.unpack("<QQQL", head)
        if magic != MAGIC:
            return
        file.seek(sector)
        while True:
            head = file.read(sector)
            if len(head) < sector:
                return
            place, count, flags, _ = struct.unpack("<QQQQ", head[:32])
            if count == 0 and flags == 0:
                return
            data = b"" if flags & DISCARD else file.read(count * sector)
            if not flags & DISCARD and len(data) < count * sector:
                return
            yield flags, place * sector, count * sector, data


def replay(log, disk, chance):
    """Does to the disk what the log has, and loses of what came after the last flush a part; how many writes were lost."""
    written = list(entries(log))
    last = max((number for number, entry in enumerate(written) if entry[0] & FLUSH), default=-1)
    lost = 0
    with open(disk, "r+b") as file:
        for number, (flags, offset, length, data) in enumerate(written):
            if number <= last or flags & FUA or flags & DISCARD:
                _write(file, offset, data or bytes(length))
                continue
            kept = chance.choice(("all", "none", "some"))
            lost += kept != "all"
            for start in range(0, length if kept != "none" else 0, BLOCK):
                if kept == "all" or chance.random() < 0.5:
                    _write(file, offset + start, data[start:start + BLOCK])
    return lost


def _write(file, offset, data):
    if data:
        file.seek(offset)
        file.write(data)
