"""scripts/demo: the whole story, the story cut short, and the story with a step that fails.

Usage: demo_test.py SOURCE_DIR BUILD_DIR
"""

import glob
import os
import signal
import stat
import subprocess
import sys
import tempfile
import time
import unittest

SOURCE_DIR, BUILD_DIR = (os.path.abspath(argument) for argument in sys.argv[1:3])
DEADLINE = 120
LAST_LINE = "All of it happened. Nothing is left running."


def processes_with(text):
    """Processes that have the text in their environment: all that the demo started inherit its TMPDIR."""
    found = []
    for path in glob.glob("/proc/[0-9]*/environ"):
        try:
            with open(path, "rb") as file:
                if text.encode() in file.read():
                    found.append(int(path.split("/")[2]))
        except OSError:
            pass  # it ended in the meantime, or is not ours to look at
    return found


class DemoTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.tmp = directory.name

    def start(self, build_dir=BUILD_DIR):
        demo = subprocess.Popen(
            [os.path.join(SOURCE_DIR, "scripts/demo"), "--build-dir", build_dir],
            env={**os.environ, "TMPDIR": self.tmp}, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, start_new_session=True)
        self.addCleanup(self.end_all, demo)
        return demo

    def end_all(self, demo):
        if demo.poll() is None:
            demo.kill()
        for pid in processes_with(self.tmp):
            os.kill(pid, signal.SIGKILL)
        demo.stdout.close()
        demo.wait(timeout=DEADLINE)

    def read_until(self, demo, text):
        told = ""
        for line in demo.stdout:
            told += line
            if text in line:
                return told
        self.fail(f"the demo ended without telling '{text}':\n{told}")

    def expect_nothing_left(self):
        end = time.monotonic() + DEADLINE
        while processes_with(self.tmp):
            self.assertLess(time.monotonic(), end, "something is left running")
            time.sleep(0.02)
        self.assertEqual([], os.listdir(self.tmp))

    def test_the_whole_story_happens(self):
        demo = self.start()
        told, _ = demo.communicate(timeout=DEADLINE)
        self.assertEqual(0, demo.returncode, told)
        self.assertEqual(LAST_LINE, told.splitlines()[-1])
        self.expect_nothing_left()

    def test_it_leaves_nothing_behind_when_it_is_ended_midway(self):
        for sign in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with self.subTest(sign):
                demo = self.start()
                told = self.read_until(demo, "told: logging.level = debug")
                self.assertTrue(processes_with(self.tmp), "nothing was running: " + told)
                demo.send_signal(sign)
                rest, _ = demo.communicate(timeout=DEADLINE)
                self.assertNotEqual(0, demo.returncode, told + rest)
                self.assertNotIn(LAST_LINE, rest)
                self.expect_nothing_left()

    def test_it_fails_when_a_step_does_not_happen(self):
        # The same programs, save that the command line says of every write that it worked.
        crippled = os.path.join(self.tmp, "build")
        os.makedirs(os.path.join(crippled, "bin"))
        for name in ("configsrvd", "gateway-app", "gateway-network"):
            os.symlink(os.path.join(BUILD_DIR, "bin", name), os.path.join(crippled, "bin", name))
        appcfg = os.path.join(crippled, "bin", "appcfg")
        with open(appcfg, "w", encoding="utf-8") as file:
            file.write(f'#!/bin/sh\n[ "$1" = set ] || exec "{BUILD_DIR}/bin/appcfg" "$@"\n')
        os.chmod(appcfg, os.stat(appcfg).st_mode | stat.S_IXUSR)
        demo = self.start(crippled)
        told, _ = demo.communicate(timeout=DEADLINE)
        self.assertEqual(1, demo.returncode, told)
        self.assertIn("demo: FAILED in step 3", told)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
