"""systemd's units: no complaints, little left open, and nothing shut that the service needs.

Usage: units_test.py UNIT_DIR PROGRAM_DIR
"""

import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

UNIT_DIR, PROGRAM_DIR = (os.path.abspath(argument) for argument in sys.argv[1:3])
UNITS = ("appconfig.service", "appconfig.socket")
DEADLINE = 60
DEFINITION = '[variable."room.target"]\ntype = "int"\ndefault = 20\n'


def program(name):
    return os.path.join(PROGRAM_DIR, name)


def run(*command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=DEADLINE,
                          check=False, **options)


def settings(unit, name):
    with open(os.path.join(UNIT_DIR, unit), encoding="utf-8") as file:
        return re.findall(rf"^{name}=(.*)$", file.read(), re.M)


def traced(directory):
    """The options of strace as it is allowed here, or nothing: not every container allows it."""
    if not shutil.which("strace"):
        return None
    attempt = run("strace", "-f", "-qq", "-o", os.path.join(directory, "attempt"), "true")
    return ("strace", "-f", "-qq", "-o") if attempt.returncode == 0 else None


@unittest.skipUnless(shutil.which("systemd-analyze"), "systemd-analyze is not installed")
class UnitTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = directory.name

    def path(self, name):
        return os.path.join(self.directory, name)

    def copy_units(self, change=lambda text: text):
        """The units with the program that was built here: the installed one need not be there."""
        for unit in UNITS:
            with open(os.path.join(UNIT_DIR, unit), encoding="utf-8") as file:
                text = re.sub(r"^ExecStart=\S+", "ExecStart=" + program("configsrvd"), file.read(), flags=re.M)
            with open(self.path(unit), "w", encoding="utf-8") as file:
                file.write(change(text))
        return [self.path(unit) for unit in UNITS]

    def verify(self, units):
        return run("systemd-analyze", "verify", "--man=no", *units)

    def test_systemd_has_no_complaints(self):
        done = self.verify(self.copy_units())
        self.assertEqual(("", 0), (done.stdout, done.returncode))

    def test_a_mistake_would_be_a_complaint(self):
        done = self.verify(self.copy_units(lambda text: text.replace("ProtectSystem=", "ProtectSystems=")))
        self.assertIn("ProtectSystems", done.stdout)

    def test_little_is_left_open(self):
        """Of 100, the less the better; what is left is said in the unit."""
        service = self.copy_units()[0]
        done = run("systemd-analyze", "security", "--offline=true", "--threshold=10", service)
        self.assertEqual(0, done.returncode, done.stdout)

    def test_the_command_line_is_one_that_the_service_takes(self):
        (command,) = settings("appconfig.service", "ExecStart")
        known = run(program("configsrvd"), "--help").stdout
        for option in re.findall(r"--[a-z-]+", command):
            self.assertIn(option + " ", known)

    def test_socket_and_service_mean_the_same_place(self):
        (listening,) = settings("appconfig.socket", "ListenStream")
        (command,) = settings("appconfig.service", "ExecStart")
        runtime_dir = re.search(r"--runtime-dir (\S+)", command).group(1)
        self.assertEqual(runtime_dir + "/ConfigSrvc", listening)
        self.assertEqual(["appconfig"], settings("appconfig.service", "RuntimeDirectory"))
        self.assertEqual("%t/appconfig", runtime_dir)
        # Else the directory would go with the service, and the socket with it.
        self.assertEqual(["yes"], settings("appconfig.service", "RuntimeDirectoryPreserve"))

    def allowed_calls(self):
        allowed = set()
        for line in settings("appconfig.service", "SystemCallFilter"):
            for group in line.lstrip("~").split():
                listed = run("systemd-analyze", "syscall-filter", group).stdout
                calls = self.calls_of(listed)
                allowed = allowed - calls if line.startswith("~") else allowed | calls
        return allowed

    def calls_of(self, listed):
        """The groups that a group is made of are named in its list as well."""
        calls = set()
        for word in re.findall(r"^ {4}(\S+)$", listed, re.M):
            calls |= self.calls_of(run("systemd-analyze", "syscall-filter", word).stdout) if word[0] == "@" else {word}
        return calls

    def trace(self):
        """What strace wrote of two lives of the service, each with reads, changes and an orderly end."""
        tracer = traced(self.directory)
        if tracer is None:
            self.skipTest("strace cannot be used here")
        os.mkdir(self.path("d"))
        with open(self.path("d/a.toml"), "w", encoding="utf-8") as file:
            file.write(DEFINITION)
        with open(self.path("roles.toml"), "w", encoding="utf-8") as file:
            file.write('[groups]\n0 = "factory"\n')
        environment = {**os.environ, "APPCONFIG_RUNTIME_DIR": self.path("run")}
        written = ""
        for life in range(2):
            service = subprocess.Popen(
                [*tracer, self.path("trace"), program("configsrvd"), "--definitions", self.path("d"), "--store",
                 self.path("store"), "--roles", self.path("roles.toml"), "--log-level", "debug"],
                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, env=environment, start_new_session=True)
            self.addCleanup(service.kill)
            self.assertIn("ready", service.stdout.readline())
            for words in (("set", "room.target", str(life)), ("list",), ("reset", "room.target"), ("clients",)):
                self.assertEqual(0, run(program("appcfg"), *words, env=environment).returncode)
            os.killpg(service.pid, signal.SIGTERM)
            service.communicate(timeout=DEADLINE)
            with open(self.path("trace"), encoding="utf-8", errors="replace") as file:
                written += file.read()
        self.assertIn("epoll_wait(", written)
        return written

    def test_what_the_service_does_is_allowed(self):
        trace = self.trace()
        with self.subTest("its system calls"):
            allowed = self.allowed_calls()
            self.assertIn("epoll_wait", allowed)
            self.assertNotIn("mount", allowed)
            used = set(re.findall(r"^\d+ +(\w+)\(", trace, re.M))
            # SQLite gives its log to the owner of its database when it runs as root, and only then; the
            # unit's user is another.
            self.assertEqual(set(), used - allowed - {"fchown"})
        with self.subTest("its sockets"):
            self.assertEqual(set(settings("appconfig.service", "RestrictAddressFamilies")),
                             set(re.findall(r"socket\((AF_\w+)", trace)))
        with self.subTest("its memory: never to write and to execute"):
            self.assertEqual(["yes"], settings("appconfig.service", "MemoryDenyWriteExecute"))
            self.assertEqual([], re.findall(r"PROT_WRITE\|PROT_EXEC", trace))
            self.assertEqual([], re.findall(r"mprotect\(.*PROT_EXEC", trace))
        with self.subTest("its files: it writes beside its store and its socket"):
            self.assertEqual(["strict"], settings("appconfig.service", "ProtectSystem"))
            for path in re.findall(r'open(?:at)?\(.*"([^"]+)", [^)]*O_(?:WRONLY|RDWR)', trace):
                self.assertTrue(path.startswith(self.directory) or path == "/dev/null", path)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
