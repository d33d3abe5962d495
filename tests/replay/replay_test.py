"""Whether a device in one process lives well, and lives the same life again with the same seed.

Usage: replay_test.py DIRECTORY_OF_PROGRAMS
"""

import os
import re
import subprocess
import sys
import unittest

PROGRAM = os.path.join(sys.argv[1], "replay_device")
LIFE = ("--days", "2", "--pause", "300")


def live(seed, *arguments):
    return subprocess.run([PROGRAM, "--seed", str(seed), *LIFE, *arguments], text=True, capture_output=True,
                          timeout=100, check=False)


def digest_of(done):
    return re.search(r"digest ([0-9a-f]{16})$", done.stdout).group(1)


class ReplayTest(unittest.TestCase):
    def test_whatever_happens_nothing_is_lost_and_nothing_goes_back(self):
        lives = [live(seed) for seed in (1, 2)]
        for done in lives:
            self.assertEqual((0, ""), (done.returncode, done.stderr), done.stdout)
            for what in ("writes accepted", "kills", "stops", "power cuts", "rests"):
                self.assertRegex(done.stdout, f" [1-9][0-9]* {what}")
        self.assertNotEqual(digest_of(lives[0]), digest_of(lives[1]))
        self.assertEqual(lives[0].stdout, live(1).stdout)

    def test_a_disk_that_forgets_what_it_synced_is_noticed(self):
        done = live(1, "--lying-disk")
        self.assertEqual(1, done.returncode, done.stdout)
        self.assertRegex(done.stdout, "^seed 1: at [0-9]+ s: fresh read: ")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
