"""What disk_log.py makes of a record: which writes a disk has kept after a cut, and what was said."""

import os
import random
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import disk_log  # noqa: E402
from disk_log import Entry  # noqa: E402

FLUSH = Entry("f", 0, b"")


def write(place, data):
    return Entry("w", place, data)


def mark(text):
    return Entry("m", 0, text.encode())


class Scripted:
    """Stands in for random.Random: chooses the share, and whether writes stay whole, as it is told."""

    def __init__(self, share, whole):
        self.share = share
        self.answers = [0.0 if whole else 1.0]
        self.rest = random.Random(1)

    def choice(self, _):
        return self.share

    def random(self):
        return self.answers.pop() if self.answers else self.rest.random()


class ReadTest(unittest.TestCase):
    def recorded(self, data):
        with tempfile.NamedTemporaryFile() as file:
            file.write(data)
            file.flush()
            return disk_log.read(file.name)

    def test_entries_come_back_in_order(self):
        data = (disk_log.HEAD.pack(b"w", 4096, 3) + b"abc" + disk_log.HEAD.pack(b"f", 0, 0)
                + disk_log.HEAD.pack(b"m", 0, 6) + b"told 1")
        self.assertEqual(self.recorded(data), [write(4096, b"abc"), FLUSH, mark("told 1")])

    def test_a_record_that_ends_too_early_is_refused(self):
        data = disk_log.HEAD.pack(b"w", 4096, 3) + b"abc"
        for length in range(1, len(data)):
            with self.assertRaises(disk_log.Damaged, msg=length):
                self.recorded(data[:length])

    def test_an_entry_of_no_known_kind_is_refused(self):
        with self.assertRaises(disk_log.Damaged):
            self.recorded(disk_log.HEAD.pack(b"x", 0, 0))


class CutTest(unittest.TestCase):
    entries = [write(0, b"a"), FLUSH, mark("told 1"), write(1, b"b"), FLUSH, mark("acknowledged 1"),
               mark("told 2"), write(2, b"c")]

    def test_what_counts_as_flushed_ends_with_the_last_flush_before_the_cut(self):
        flushed = [disk_log.last_flush(self.entries, cut) for cut in range(len(self.entries) + 1)]
        self.assertEqual(flushed, [0, 0, 2, 2, 2, 5, 5, 5, 5])

    def test_only_what_was_said_before_the_cut_counts(self):
        acknowledged = [disk_log.said(self.entries, cut, "acknowledged") for cut in (2, 5, 6, 8)]
        told = [disk_log.said(self.entries, cut, "told") for cut in (2, 3, 6, 8)]
        self.assertEqual(acknowledged, [0, 0, 1, 1])
        self.assertEqual(told, [0, 1, 1, 2])

    def test_every_flush_is_cut_before_and_after(self):
        places = disk_log.cuts(self.entries, 0, 0, random.Random(1))
        self.assertLessEqual({1, 2, 4, 5}, set(places))
        self.assertEqual(places, sorted(set(places)))

    def test_nothing_is_cut_before_the_start(self):
        places = disk_log.cuts(self.entries, 3, 0, random.Random(1))
        self.assertLessEqual({4, 5}, set(places))
        self.assertGreaterEqual(min(places), 3)

    def test_so_many_cuts_as_were_asked_for(self):
        self.assertEqual(len(disk_log.cuts(self.entries, 0, 2, random.Random(1))), 2)


class KeptTest(unittest.TestCase):
    entries = [mark("told 1"), write(0, b"a" * 1024), write(512, b"b" * 512)]

    def image(self, entries):
        with tempfile.TemporaryFile() as file:
            disk_log.apply(file, entries)
            file.seek(0)
            return file.read()

    def test_all_or_nothing_of_what_was_not_flushed_may_be_there(self):
        everything = disk_log.some_of(self.entries, Scripted(1.1, whole=True))
        self.assertEqual(everything, self.entries[1:])
        self.assertEqual(disk_log.some_of(self.entries, Scripted(0, whole=True)), [])

    def test_a_write_may_be_there_in_part_by_sectors(self):
        seen = set()
        for seed in range(200):
            kept = disk_log.some_of(self.entries[:2], random.Random(seed))
            seen.add(tuple((entry.place, len(entry.data)) for entry in kept))
        self.assertLessEqual({(), ((0, 1024),), ((0, 512),), ((512, 512),), ((0, 512), (512, 512))}, seen)

    def test_a_later_write_lies_over_an_earlier_one(self):
        self.assertEqual(self.image(self.entries), b"a" * 512 + b"b" * 512)


if __name__ == "__main__":
    unittest.main()
