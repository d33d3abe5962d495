"""Shell sessions as pages show them, and a shell that goes through them.

A line that begins with "$ " is a command, continued while its lines end with a backslash; what
follows, up to the next command, is what it prints. "..." stands for any text within one line.

A program in the background prints when it gets to it, so a command that only reads a file (`cat`,
`grep`) is repeated until it shows what the page shows, or until the deadline.
"""

import os
import re
import selectors
import signal
import subprocess
import time
from typing import NamedTuple

DEADLINE = 30
MARK = "the-command-has-ended"


def _without_trailing_blanks(text):
    """Nobody sees them on a page."""
    return re.sub(r"[ \t]+$", "", text, flags=re.M)


class Step(NamedTuple):
    command: str
    expected: str
    line: int

    def is_shown_by(self, printed):
        pattern = re.escape(_without_trailing_blanks(self.expected)).replace(re.escape("..."), "[^\n]*")
        return re.fullmatch(pattern, _without_trailing_blanks(printed)) is not None


def steps(text, first_line=1):
    found, lines = [], text.splitlines()
    number = 0
    while number < len(lines):
        line_number = first_line + number
        if not lines[number].startswith("$ "):
            raise ValueError(f"line {line_number} belongs to no command: {lines[number]}")
        command = lines[number][2:]
        while command.endswith("\\") and number + 1 < len(lines):
            number += 1
            command += "\n" + lines[number]
        expected = []
        number += 1
        while number < len(lines) and not lines[number].startswith("$ "):
            expected.append(lines[number])
            number += 1
        found.append(Step(command, "\n".join(expected).rstrip("\n"), line_number))
    return found


class Shell:
    """A bash in a directory, and everything that it starts, until close(). The command in front of it
    may put it somewhere else, into another root for instance."""

    def __init__(self, directory, environment, command=()):
        self._process = subprocess.Popen(
            [*command, "bash", "--noprofile", "--norc"], cwd=directory, env=environment, stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
        self._unread = b""
        self._selector = selectors.DefaultSelector()
        self._selector.register(self._process.stdout, selectors.EVENT_READ)

    def close(self):
        """The shell waits for its jobs, so that none is left for others to clear away."""
        self._selector.close()
        try:
            self._process.communicate(b"kill -KILL $(jobs -p) 2>&-; wait; exit\n", timeout=DEADLINE)
        except (subprocess.TimeoutExpired, BrokenPipeError):
            # The shell leads a session of its own: its group is what it started, and nobody else.
            os.killpg(self._process.pid, signal.SIGKILL)
            self._process.communicate()

    def print_of(self, step):
        """What the command of the step prints."""
        end = time.monotonic() + DEADLINE
        printed = self.print_of_once(step.command)
        while re.fullmatch(r"(cat|grep)( [^;&|<>]+)", step.command) and not step.is_shown_by(printed):
            if time.monotonic() > end:
                break
            time.sleep(0.02)
            printed = self.print_of_once(step.command)
        return printed

    def print_of_once(self, command):
        """What the command prints, also one that only reads a file: nothing in particular is expected of it."""
        end = time.monotonic() + DEADLINE
        # The code is handed on, so that the next command may ask for it.
        script = f'{command}\ncode=$?; printf "\\n{MARK}\\n"; (exit $code)\n'
        self._process.stdin.write(script.encode())
        self._process.stdin.flush()
        return self._read_to(f"\n{MARK}\n".encode(), end).decode().rstrip("\n")

    def _read_to(self, mark, end):
        while mark not in self._unread:
            if not self._selector.select(max(0.0, end - time.monotonic())):
                raise TimeoutError(f"no end in sight after: {self._unread.decode()}")
            data = os.read(self._process.stdout.fileno(), 65536)
            if not data:
                raise EOFError(f"the shell ended after: {self._unread.decode()}")
            self._unread += data
        text, self._unread = self._unread.split(mark, 1)
        return text
