"""Runs applications against the service while both are mistreated, and looks for stale caches.

Several processes (soak_worker) read and write through the library. Meanwhile the service is killed
and started again, now and then with other defaults; connections are cut; processes are stopped and
continued, or killed and started again. Every few seconds the writers pause. As soon as everything that was
under way is delivered, however long that takes, each cache of each process has to hold what the service
says, every handler has to know the last change of what it was registered for, and each acknowledged write has
to be there.

Ends with the line "soak: N stale, N lost, N out of order, N backwards, N kills, N changes". Exit codes: 0 all is
well; 1 something is stale, lost, out of order or went backwards, or a program failed; 2 usage; 3 there were too few
changes for the run to mean anything.
"""

import argparse
import os
import random
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from driven import Failed, Mistreated, Program  # noqa: E402 pylint: disable=wrong-import-position

COUNTS = ("reads", "changes", "refused", "unanswered", "told", "asked", "out of order", "backwards")


class Soak(Mistreated):
    def __init__(self, options, directory):
        super().__init__(options, directory)
        self.looks = self.late = 0
        self.slowest = 0.0
        self.ended = dict.fromkeys(COUNTS, 0)  # of workers that were restarted
        self.stale = self.lost = 0

    def worker_output(self, *arguments):
        return self.output(self.options.worker, *arguments, "--variables", str(self.options.variables))

    def definitions(self):
        return self.worker_output("definitions", "--generation", str(self.generation))

    def start_worker(self, number, life):
        o = self.options
        return Program(f"w{number}", [
            o.worker, "work", "--runtime-dir", self.path("run"), "--number", str(number),
            "--life", str(life), "--workers", str(o.workers), "--variables", str(o.variables),
            "--seed", str(o.seed), "--readers", str(o.readers), "--writers", str(o.writers),
            "--provides", "1" if number < o.providers else "0"], self.log)

    def before_kill(self, worker):
        self.add_counts(worker, self.ended)

    # --- The run ---

    def mistreat(self, until):
        while time.monotonic() < until:
            time.sleep(self.random.uniform(0.01, 0.15))
            self.continue_due(time.monotonic())
            what = self.random.random()
            if what < 0.1:
                self.kill_service(redefined=False)
            elif what < 0.15:
                self.kill_service(redefined=True)
            elif what < 0.43:
                self.cut_one()
            elif what < 0.58:
                self.stop_one()
            elif what < 0.65:
                self.restart_worker()
        self.continue_all()

    def all_do(self, line):
        if any(done != 1 for (done,), _ in self.tell_all(line)):
            raise Failed(f"a process did not {line}")

    def mark(self):
        """Changes the marker, and waits until every process was told of that."""
        _, (value,) = self.workers[0].ask("mark")
        self.all_do("await " + value)
        return value

    def deliver(self):
        """Until all that the service had to tell is delivered. Returns the mark that came last.

        A mark that is told over a connection which was there before comes behind all that was to be told.
        The first is there to find connections that were cut and not missed yet. What a
        provider is asked meanwhile it has cached, so that changes of what is provided have to end first.
        """
        self.all_do("connect")
        (flushed,), _ = self.workers[0].ask("flush")
        if not flushed:
            return None
        self.mark()
        self.all_do("connect")
        return self.mark()

    def look(self):
        """Pauses; what is cached when everything is delivered is compared with what the service says.

        What differs is looked at twice: a request of a process that was killed may wait in the service's socket
        until it has time, and make a provider cache what it then refuses.
        """
        self.tell_all("pause")
        self.note("paused")
        began = time.monotonic()
        different = 0
        while True:
            answers = self.compare()
            if answers is not None:
                self.stale = sum(numbers[0] for numbers, _ in answers)
                self.lost = sum(numbers[1] for numbers, _ in answers)
                if self.stale + self.lost == 0 or different > 0:
                    break
                different = self.stale + self.lost
            elif time.monotonic() > began + self.options.settle:
                raise Failed(f"{self.options.settle:g} s after everybody paused something is still being changed")
        self.looks += 1
        self.slowest = max(self.slowest, time.monotonic() - began)
        if self.stale + self.lost == 0:
            self.late += different
            return
        for _, told in answers:
            print("\n".join(told))
        print(f"soak: what happened last:\n{self.last_notes(60)}", end="")

    def compare(self):
        """What each worker finds different; None when something changed since everything was delivered."""
        mark = self.deliver()
        if mark is None:
            return None
        self.tell_all("look")
        first, *truth, revision = self.worker_output("truth", "--runtime-dir", self.path("run")).splitlines()
        if first != f"{mark} {revision}":
            return None
        with open(self.path("truth"), "w", encoding="utf-8") as file:
            file.write("\n".join(truth) + "\n")
        return self.tell_all("compare " + self.path("truth"))

    @staticmethod
    def add_counts(worker, counts):
        numbers, _ = worker.ask("counts")
        for name, number in zip(COUNTS, numbers):
            counts[name] += number

    def counts(self):
        counts = dict(self.ended)
        for worker in self.workers:
            self.add_counts(worker, counts)
        return counts

    def run(self):
        self.define()
        self.start_service()
        self.start_workers()
        self.look()  # what the handlers that come first know
        end = time.monotonic() + self.options.seconds
        while time.monotonic() < end and self.stale + self.lost == 0:
            began = time.monotonic()
            self.tell_all("work")
            self.mistreat(min(end, began + self.options.phase))
            self.working += time.monotonic() - began
            self.look()
            counts = self.counts()
            if counts["out of order"]:
                print("soak: handlers were told values out of order")
                break
            if counts["backwards"]:
                print("soak: a thread read a value older than one that was read or written before")
                break
        return self.counts()


def parse_options():
    parser = argparse.ArgumentParser(prog="scripts/soak", description=__doc__.split("\n\n")[0])
    parser.add_argument("--worker", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--configsrvd", required=True, help=argparse.SUPPRESS)
    add = parser.add_argument
    add("--seconds", type=float, required=True, help="how long to work, the comparing aside")
    add("--seed", type=int, help="what happens when; without it another each time")
    add("--variables", type=int, default=3000, help="%(default)s")
    add("--workers", type=int, default=5, help="processes: %(default)s")
    add("--providers", type=int, default=2, help="of them answer questions: %(default)s")
    add("--readers", type=int, default=3, help="threads of each that read: %(default)s")
    add("--writers", type=int, default=3, help="threads of each that write: %(default)s")
    add("--phase", type=float, default=5, help="seconds between two comparisons: %(default)s")
    add("--settle", type=float, default=60, help="seconds in which a pause has to come to rest: %(default)s")
    add("--min-rate", type=float, default=100,
        help="changes a second below which a run does not count: %(default)s")
    add("--verbose", action="store_true", help="tells what happens when")
    options = parser.parse_args()
    if options.seed is None:
        options.seed = random.SystemRandom().randrange(1 << 30)
    return options


def tell_summary(soak, counts):
    seconds = max(soak.working, 0.001)
    print(f"{soak.working:.0f} s of work, {soak.looks} comparisons, everything delivered within {soak.slowest:.1f} s; "
          f"{soak.late} values differed once and not again")
    print(f"{counts['changes'] / seconds:.0f} changes/s, {counts['reads'] / seconds:.0f} reads/s, "
          f"{counts['told'] / seconds:.0f} calls of handlers/s, {counts['asked'] / seconds:.0f} "
          f"questions/s, {counts['refused']} writes refused, {counts['unanswered']} unanswered")
    print(f"{soak.kills} kills of the service, {soak.redefinitions} of them with other defaults; "
          f"{soak.cuts} connections cut by the driver; {soak.stops} stops and {soak.restarts} restarts of a "
          "process")


def main():
    options = parse_options()
    print(f"soak: seed {options.seed}", flush=True)
    with tempfile.TemporaryDirectory(prefix="appconfig-soak.") as directory:
        soak = Soak(options, directory)
        try:
            counts = soak.run()
        except (Failed, subprocess.SubprocessError) as error:
            print(f"soak: {error}", file=sys.stderr)
            print(soak.last_notes(200), file=sys.stderr)
            return 1
        finally:
            soak.end()
    tell_summary(soak, counts)
    rate = counts["changes"] / max(soak.working, 0.001)
    wrong = soak.stale + soak.lost + counts["out of order"] + counts["backwards"]
    if not wrong and rate < options.min_rate:
        print(f"soak: {rate:.0f} changes a second are fewer than {options.min_rate:.0f}: this run "
              "does not count")
    print(f"soak: {soak.stale} stale, {soak.lost} lost, {counts['out of order']} out of order, "
          f"{counts['backwards']} backwards, {soak.kills} kills, {counts['changes']} changes")
    if wrong:
        return 1
    return 3 if rate < options.min_rate else 0


if __name__ == "__main__":
    sys.exit(main())
