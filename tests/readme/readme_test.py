"""The program in README.md, beside a real service with the gateway's definitions.

Usage: readme_test.py SOURCE_DIR PROGRAM_DIR
"""

import os
import subprocess
import sys
import tempfile
import time
import unittest

SOURCE_DIR, PROGRAM_DIR = (os.path.abspath(argument) for argument in sys.argv[1:3])
DEADLINE = 30


def program(name):
    return os.path.join(PROGRAM_DIR, name)


class ReadmeProgramTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.runtime_dir = os.path.join(directory.name, "run")
        self.store = os.path.join(directory.name, "store")
        os.mkdir(self.runtime_dir)
        self.environment = {**os.environ, "APPCONFIG_RUNTIME_DIR": self.runtime_dir}

    def run_program(self, name, *arguments):
        return subprocess.run([program(name), *arguments], env=self.environment, capture_output=True,
                              text=True, timeout=DEADLINE, check=False)

    def start_service(self):
        service = subprocess.Popen(
            [program("configsrvd"), "--definitions", os.path.join(SOURCE_DIR, "examples/gateway/definitions.d"),
             "--store", self.store, "--runtime-dir", self.runtime_dir],
            env=self.environment, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        self.addCleanup(self.stop, service)
        end = time.monotonic() + DEADLINE
        while self.run_program("appcfg", "status").returncode != 0:
            self.assertIsNone(service.poll(), "the service ended")
            self.assertLess(time.monotonic(), end, "the service does not answer")
            time.sleep(0.02)

    @staticmethod
    def stop(service):
        service.terminate()
        service.communicate(timeout=DEADLINE)

    def test_it_writes_and_reads_back(self):
        self.start_service()
        done = self.run_program("readme_program")
        self.assertEqual(("logging.level is debug\n", "", 0), (done.stdout, done.stderr, done.returncode))

    def test_it_ends_with_the_reason_the_page_tells_when_there_is_no_service(self):
        reason = "logging.level: the service does not answer"
        done = self.run_program("readme_program")
        self.assertEqual((reason + "\n", 1), (done.stdout, done.returncode))
        with open(os.path.join(SOURCE_DIR, "README.md"), encoding="utf-8") as page:
            self.assertIn(f"`{reason}`", page.read())


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
