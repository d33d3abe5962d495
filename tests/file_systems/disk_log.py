"""What a disk was told, in order, and what is on it after a loss of power.

recording_disk.cpp writes the record. A disk keeps what was written before its last flush. Of what came
after that it keeps any part: sectors of 512 bytes are whole or not there, and are in no order.
"""

import collections
import struct

SECTOR = 512  # bytes
HEAD = struct.Struct("=cQI")

Entry = collections.namedtuple("Entry", "kind place data")  # "w", "f" or "m"


class Damaged(Exception):
    pass


def read(path):
    """All entries of a record."""
    entries = []
    with open(path, "rb") as file:
        while head := file.read(HEAD.size):
            if len(head) < HEAD.size:
                raise Damaged(f"{path}: ends in the middle of an entry's head")
            kind, place, length = HEAD.unpack(head)
            data = file.read(length)
            if len(data) < length:
                raise Damaged(f"{path}: ends in the middle of an entry")
            if kind not in (b"w", b"f", b"m"):
                raise Damaged(f"{path}: has an entry of kind {kind!r}")
            entries.append(Entry(kind.decode(), place, data))
    return entries


def last_flush(entries, cut):
    """Number of the entry behind the last flush before the cut; 0 when there was none."""
    for number in range(cut, 0, -1):
        if entries[number - 1].kind == "f":
            return number
    return 0


def said(entries, cut, what):
    """The last number that was said before the cut, for instance of "acknowledged"; 0: none was."""
    for entry in reversed(entries[:cut]):
        if entry.kind != "m":
            continue
        word, number = entry.data.decode().split()
        if word == what:
            return int(number)
    return 0


def apply(image, entries):
    """Writes of these entries, to a file that is open."""
    for entry in entries:
        if entry.kind == "w":
            image.seek(entry.place)
            image.write(entry.data)


def sectors(entry):
    """A write, sector by sector."""
    for start in range(0, len(entry.data), SECTOR):
        yield Entry("w", entry.place + start, entry.data[start:start + SECTOR])


def some_of(entries, random):
    """Of writes that no flush followed: what a disk may have kept, at random."""
    share = random.choice((0, 0.1, 0.5, 0.9, 1))
    whole = random.random() < 0.5  # writes, or their sectors, are kept or not
    kept = []
    for entry in entries:
        if entry.kind != "w":
            continue
        pieces = [entry] if whole else list(sectors(entry))
        kept += [piece for piece in pieces if random.random() < share]
    return kept


def cuts(entries, start, count, random):
    """Places of entries before which power is cut: around each flush, and at random, in order.

    With a count, as many of them at random. Around a flush: with all of it done, and with none."""
    flushes = [number for number, entry in enumerate(entries) if entry.kind == "f" and number >= start]
    places = {number + after for number in flushes for after in (0, 1)}
    others = max(len(entries) - start, 0)
    places |= {start + random.randrange(others) for _ in range(len(flushes))} if others else set()
    places = sorted(places)
    if count and count < len(places):
        places = sorted(random.sample(places, count))
    return places
