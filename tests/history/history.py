"""Records what several processes do and are told while all of them, the service and its store are mistreated,
and has it proved that this can have happened at a service that keeps its promises.

Several processes (history_worker) write, reset, read and are told through the library, and each writes down
each operation with its times and revisions. Meanwhile the service is killed and started again, now and then
with other definitions, or stopped; its store is copied and a copy restored; connections are cut; processes are
stopped, or killed and started again. Every few seconds all of them pause until everything is delivered; then
each reads its cache and one reads what is true. In the end history_check reads all that was written down.

Ends with the line "history: N operations, N wrong, N kills, ...". Exit codes: 0 all is well; 1 the history is
refused, or a program failed; 2 usage; 3 there were too few operations for the run to mean anything.
"""

import argparse
import glob
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from driven import PATIENCE, Failed, Mistreated, Program  # noqa: E402 pylint: disable=wrong-import-position

COPIES_KEPT = 3


class Run(Mistreated):
    def __init__(self, options, directory):
        super().__init__(options, directory)
        os.makedirs(self.path("record"))
        self.journal = open(self.path("record/driver"), "w", encoding="utf-8")
        self.copies = []
        self.copied = self.restores = self.standstills = self.rests = 0
        self.slowest = 0.0

    # --- What is written down ---

    def write_down(self, *words):
        print(*words, file=self.journal, flush=True)

    def note(self, text):
        super().note(text)
        self.write_down("did", time.monotonic_ns(), text)

    # --- Service and workers ---

    def definitions(self):
        return self.output(self.options.worker, "definitions", "--variables", str(self.options.variables),
                           "--generation", str(self.generation))

    def start_worker(self, number, life):
        o = self.options
        return Program(f"w{number}x{life}", [
            o.worker, "work", "--runtime-dir", self.path("run"), "--number", str(number), "--life", str(life),
            "--journal", self.path(f"record/w{number}x{life}"), "--variables", str(o.variables),
            "--seed", str(o.seed), "--threads", str(o.threads), "--rest", str(self.pause_of_a_thread()),
            "--provides", "1" if number < o.providers else "0"], self.log)

    def pause_of_a_thread(self):
        """Microseconds between two operations, so that all together make no more than the rate."""
        return round(1e6 * self.options.workers * self.options.threads / self.options.rate)

    def stop_service(self):
        self.service.signal(signal.SIGSTOP)
        self.standstills += 1
        self.note("service stopped")
        time.sleep(self.random.choice((0.01, 0.1, 0.3)))
        self.service.signal(signal.SIGCONT)
        self.note("service continued")

    # --- The store ---

    def appcfg(self, *words):
        return self.output(self.options.appcfg, "--runtime-dir", self.path("run"), *words)

    def epoch(self):
        return int(self.output(self.options.worker, "epoch", "--runtime-dir", self.path("run")))

    def copy_store(self):
        number = self.copied
        self.copied += 1
        begin = time.monotonic_ns()
        told = self.appcfg("store", "copy", self.path(f"copy{number}"))
        revision = int(re.search(r": revision (\d+)", told)[1])
        self.write_down("copy", begin, time.monotonic_ns(), number, revision)
        self.note(f"store copied at revision {revision}")
        self.copies.append(number)
        if len(self.copies) > COPIES_KEPT:
            os.remove(self.path(f"copy{self.copies.pop(0)}"))

    def restore_store(self):
        if not self.copies:
            return
        number = self.random.choice(self.copies)
        before = self.epoch()
        begin = time.monotonic_ns()
        way = self.random.choice((self.restore_running, self.restore_at_start, self.restore_by_hand))
        way(self.path(f"copy{number}"))
        self.write_down("restore", begin, self.ended_at(before), number, self.last_epoch)
        self.restores += 1
        self.note(f"copy {number} restored, epoch {self.last_epoch}: {way.__name__}")

    def restore_running(self, copy):
        self.appcfg("store", "restore", copy)

    def restore_at_start(self, copy):
        self.service.kill()
        self.kills += 1
        self.output(self.options.appcfg, "store", "restore", "--store", self.path("store"), copy)
        self.start_service()

    def restore_by_hand(self, copy):
        self.service.kill()
        self.kills += 1
        for left in glob.glob(self.path("store*")):
            os.remove(left)
        shutil.copy(copy, self.path("store"))
        self.start_service()

    def ended_at(self, before):
        """When the service was seen in another epoch."""
        until = time.monotonic() + PATIENCE
        while time.monotonic() < until:
            self.last_epoch = self.epoch()
            if self.last_epoch != before:
                return time.monotonic_ns()
        raise Failed("the restored store began no epoch")

    # --- The run ---

    def mistreat(self, until):
        while time.monotonic() < until:
            time.sleep(self.random.uniform(0.01, 0.15))
            self.continue_due(time.monotonic())
            what = self.random.random()
            if what < 0.08:
                self.kill_service(redefined=False)
            elif what < 0.12:
                self.kill_service(redefined=True)
            elif what < 0.17:
                self.stop_service()
            elif what < 0.37:
                self.cut_one()
            elif what < 0.49:
                self.stop_one()
            elif what < 0.56:
                self.restart_worker()
            elif what < 0.61:
                self.copy_store()
            elif what < 0.66:
                self.restore_store()
        self.continue_all()

    def mark(self):
        """Writes a mark and waits until every process was told of it. Its epoch and revision."""
        state, (value,) = self.workers[0].ask("mark")
        if any(told != 1 for (told,), _ in self.tell_all("await " + value)):
            raise Failed(f"a handler was not told of the mark {value}")
        return state

    def connect(self):
        if any(connected != 1 for (connected,), _ in self.tell_all("connect")):
            raise Failed("a process does not find the service")

    def rest(self):
        """Pauses until everything is delivered, and has all look at what is true then.

        A mark that is told over a connection which was there before comes behind all that the service had to
        tell. The first mark is there to find connections that were cut and not missed yet, and before it
        changes that wait for a provider are brought to their end. When the next revision after the second mark is that of the third, nothing has changed in between: not
        slow any more, so what differs is wrong.
        """
        began = time.monotonic()
        self.tell_all("pause")
        self.note("paused")
        while not self.has_rested():
            if time.monotonic() > began + self.options.settle:
                raise Failed(f"{self.options.settle:g} s after everybody paused something is still being changed")
        self.rests += 1
        self.slowest = max(self.slowest, time.monotonic() - began)
        self.note("at rest")

    def has_rested(self):
        self.connect()
        (flushed,), _ = self.workers[0].ask("flush")
        self.mark()
        self.connect()
        begin = time.monotonic_ns()
        epoch, revision = self.mark()
        self.tell_all("look")
        (answered,), _ = self.random.choice(self.workers).ask("truth")
        after = self.mark()
        if not flushed or not answered or after != [epoch, revision + 1]:
            return False
        self.write_down("settled", begin, time.monotonic_ns())
        return True

    def run(self):
        self.define()
        self.start_service()
        self.start_workers()
        self.rest()
        self.copy_store()
        end = time.monotonic() + self.options.seconds
        while time.monotonic() < end:
            began = time.monotonic()
            self.tell_all("work")
            self.mistreat(min(end, began + self.options.phase))
            self.working += time.monotonic() - began
            self.rest()

    def check(self):
        """Number of operations, how many are wrong, operations checked in a second, and what was printed."""
        done = subprocess.run([self.options.checker, *sorted(glob.glob(self.path("record/*")))],
                              stdout=subprocess.PIPE, text=True, check=False)
        numbers = re.search(r"^(\d+) operations, (\d+) wrong, (\d+)/s$", done.stdout, re.M)
        if done.returncode not in (0, 1) or not numbers:
            raise Failed(f"history_check ended with {done.returncode}")
        return (*(int(number) for number in numbers.groups()), done.stdout)

    def end(self):
        super().end()
        self.journal.close()


def parse_options():
    parser = argparse.ArgumentParser(prog="scripts/history", description=__doc__.split("\n\n", maxsplit=1)[0])
    for program in ("worker", "checker", "configsrvd", "appcfg"):
        parser.add_argument("--" + program, required=True, help=argparse.SUPPRESS)
    add = parser.add_argument
    add("--seconds", type=float, required=True, help="how long to work, the pauses aside")
    add("--seed", type=int, help="what happens when; without it another each time")
    add("--variables", type=int, default=48, help="%(default)s")
    add("--workers", type=int, default=4, help="processes: %(default)s")
    add("--providers", type=int, default=2, help="of them answer questions: %(default)s")
    add("--threads", type=int, default=3, help="of each process: %(default)s")
    add("--rate", type=float, default=2000, help="operations a second at most, notices aside: %(default)s")
    add("--phase", type=float, default=2, help="seconds between two pauses: %(default)s")
    add("--settle", type=float, default=60, help="seconds in which a pause has to come to rest: %(default)s")
    add("--min-rate", type=float, default=200, help="operations a second below which a run does not count: %(default)s")
    add("--keep", help="directory to keep the record in")
    add("--verbose", action="store_true", help="tells what happens when")
    options = parser.parse_args()
    if options.seed is None:
        options.seed = random.SystemRandom().randrange(1 << 30)
    return options


def keep(run, directory):
    shutil.copytree(run.path("record"), directory, dirs_exist_ok=True)
    print(f"history: the record is in {directory}")


def record(run):
    """Whether the run came to its end."""
    try:
        run.run()
        return True
    except (Failed, subprocess.SubprocessError) as error:
        print(f"history: {error}", file=sys.stderr)
        print(run.last_notes(60), end="", file=sys.stderr)
        return False
    finally:
        run.end()


def tell(run, operations, wrong, rate):
    print(f"{run.working:.0f} s of work, {run.rests} pauses, the longest {run.slowest:.1f} s until everything was "
          f"delivered; {rate} operations/s checked")
    print(f"{run.kills} kills of the service, {run.redefinitions} of them with other definitions; "
          f"{run.standstills} stops of it; {run.cuts} connections cut by the driver; {run.stops} stops of a process")
    print(f"history: {operations} operations, {wrong} wrong, {run.kills + run.restarts} kills, "
          f"{run.restores} restores, seed {run.options.seed}")


def main():
    options = parse_options()
    print(f"history: seed {options.seed}", flush=True)
    with tempfile.TemporaryDirectory(prefix="appconfig-history.") as directory:
        run = Run(options, directory)
        complete = record(run)
        if options.keep:
            keep(run, options.keep)
        try:
            operations, wrong, rate, told = run.check()
        except Failed as error:
            print(f"history: {error}", file=sys.stderr)
            return 1
    if wrong:
        print(f"history: refused; seed {options.seed}; the shortest history that shows it:")
        print("".join(told.splitlines(keepends=True)[:-1]), end="")
    tell(run, operations, wrong, rate)
    if wrong or not complete:
        return 1
    if operations < options.min_rate * run.working:
        print(f"history: fewer than {options.min_rate:g} operations a second: this run does not count")
        return 3
    return 0


if __name__ == "__main__":
    sys.exit(main())
