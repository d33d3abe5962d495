"""Runs applications against the service while both are mistreated, and looks for stale caches.

Several processes (soak_worker) read and write through the library. Meanwhile the service is killed
and started again, now and then with other defaults; connections are cut; processes are stopped and
continued, or killed and started again. Every few seconds the writers pause, and one second later at the latest each cache of each
process has to hold what the service says, every handler has to know the last change of what it was
registered for, and each acknowledged write has to be there.

Ends with the line "soak: N stale, N lost, N out of order, N backwards, N kills, N changes". Exit codes: 0 all is
well; 1 something is stale, lost, out of order or went backwards, or a program failed; 2 usage; 3 there were too few
changes for the run to mean anything.
"""

import argparse
import os
import queue
import random
import signal
import subprocess
import sys
import tempfile
import threading
import time

PATIENCE = 120  # seconds until a program that does not answer has failed
COUNTS = ("reads", "changes", "refused", "unanswered", "told", "asked", "out of order", "backwards")


class Failed(Exception):
    pass


class Program:
    """A program of the run that answers in lines; the last line of an answer starts with "done"."""

    def __init__(self, name, command, log):
        self.name = name
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=log, text=True)
        self.lines = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\n"))
        self.lines.put(None)

    def tell(self, line):
        try:
            self.process.stdin.write(line + "\n")
            self.process.stdin.flush()
        except OSError as error:
            raise Failed(f"{self.name} is gone: {error}") from error

    def answer(self):
        """The numbers of the last line, and the lines before it."""
        told = []
        while True:
            try:
                line = self.lines.get(timeout=PATIENCE)
            except queue.Empty:
                raise Failed(f"{self.name} does not answer") from None
            if line is None:
                raise Failed(f"{self.name} ended with {self.process.wait()}")
            if line.startswith("done"):
                return [int(word) for word in line.split()[1:]], told
            told.append(line)

    def line(self):
        line = self.lines.get(timeout=PATIENCE)
        if line is None:
            raise Failed(f"{self.name} ended with {self.process.wait()}")
        return line

    def signal(self, number):
        self.process.send_signal(number)

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.process.stdin.close()


class Soak:
    def __init__(self, options, directory):
        self.options = options
        self.random = random.Random(options.seed)
        self.directory = directory
        self.log = open(os.path.join(directory, "log"), "w", encoding="utf-8")
        self.started = time.monotonic()
        self.generation = 0
        self.service = None
        self.workers = []
        self.stopped = {}  # worker: when it is continued
        self.kills = self.redefinitions = self.cuts = self.stops = self.restarts = self.looks = 0
        self.ended = dict.fromkeys(COUNTS, 0)  # of workers that were restarted
        self.working = 0.0  # seconds
        self.stale = self.lost = 0

    def path(self, name):
        return os.path.join(self.directory, name)

    def note(self, text):
        line = f"{time.monotonic() - self.started:8.3f} {text}"
        print(line, file=self.log, flush=True)
        if self.options.verbose:
            print(line, flush=True)

    # --- The service ---

    def worker_output(self, *arguments):
        command = [self.options.worker, *arguments, "--variables", str(self.options.variables)]
        return subprocess.run(command, stdout=subprocess.PIPE, stderr=self.log, text=True,
                              check=True, timeout=PATIENCE).stdout

    def define(self):
        os.makedirs(self.path("definitions.d"), exist_ok=True)
        with open(self.path("definitions.d/soak.toml"), "w", encoding="utf-8") as file:
            file.write(self.worker_output("definitions", "--generation", str(self.generation)))

    def start_service(self):
        self.service = Program("configsrvd", [
            self.options.configsrvd, "--definitions", self.path("definitions.d"),
            "--store", self.path("store"), "--runtime-dir", self.path("run"),
            "--provider-deadline", "500", "--log-level", "error"], self.log)
        ready = self.service.line()
        if not ready.startswith("ready"):
            raise Failed(f"the service said: {ready}")
        self.note("service up")

    def kill_service(self, redefined):
        self.service.kill()
        self.kills += 1
        self.note("service killed")
        if redefined:
            self.generation += 1
            self.redefinitions += 1
            self.define()
            self.note(f"defaults of generation {self.generation}")
        time.sleep(self.random.choice((0, 0, 0.01, 0.1, 0.4)))
        self.start_service()

    # --- The workers ---

    def start_worker(self, number, life):
        o = self.options
        return Program(f"w{number}", [
            o.worker, "work", "--runtime-dir", self.path("run"), "--number", str(number),
            "--life", str(life), "--workers", str(o.workers), "--variables", str(o.variables),
            "--seed", str(o.seed), "--readers", str(o.readers), "--writers", str(o.writers),
            "--provides", "1" if number < o.providers else "0"], self.log)

    def start_workers(self):
        self.workers = [self.start_worker(number, 0) for number in range(self.options.workers)]
        for worker in self.workers:
            worker.answer()

    def restart_worker(self):
        """A process that knows nothing, in the middle of everything."""
        number = self.random.randrange(len(self.workers))
        if self.workers[number] in self.stopped:
            return
        self.add_counts(self.workers[number], self.ended)
        self.workers[number].kill()
        self.restarts += 1
        self.workers[number] = self.start_worker(number, self.restarts)
        self.note(f"{self.workers[number].name} restarted")
        self.workers[number].answer()
        self.workers[number].tell("work")
        self.workers[number].answer()

    def tell_all(self, line):
        for worker in self.workers:
            worker.tell(line)
        return [worker.answer() for worker in self.workers]

    def stop_one(self):
        worker = self.random.choice(self.workers)
        if worker in self.stopped:
            return
        worker.signal(signal.SIGSTOP)
        self.stops += 1
        self.stopped[worker] = time.monotonic() + self.random.choice((0.02, 0.1, 0.5, 1.5))
        self.note(f"{worker.name} stopped")

    def continue_due(self, now):
        for worker in [w for w, until in self.stopped.items() if until <= now]:
            del self.stopped[worker]
            worker.signal(signal.SIGCONT)
            self.note(f"{worker.name} continued")

    def cut_one(self):
        worker = self.random.choice(self.workers)
        if worker in self.stopped:
            return
        which = self.random.choice(("one", "all"))
        worker.tell(f"cut {which}")
        (cut,), _ = worker.answer()
        self.cuts += cut
        self.note(f"{worker.name}: cut {cut} connections")

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
        self.continue_due(float("inf"))

    def look(self):
        """Pauses; what is cached when the time is up is compared with what the service says."""
        self.tell_all("pause")
        self.note("paused")
        time.sleep(self.options.settle)
        self.tell_all("look")
        self.looks += 1
        answers = self.compare()
        self.stale += sum(numbers[0] for numbers, _ in answers)
        self.lost += sum(numbers[1] for numbers, _ in answers)
        if self.stale + self.lost == 0:
            return
        for _, told in answers:
            print("\n".join(told))
        self.tell_late_from_never()

    def compare(self):
        truth = self.worker_output("truth", "--runtime-dir", self.path("run"))
        with open(self.path("truth"), "w", encoding="utf-8") as file:
            file.write(truth)
        return self.tell_all("compare " + self.path("truth"))

    def tell_late_from_never(self):
        time.sleep(5)
        self.tell_all("look")
        still = sum(sum(numbers) for numbers, _ in self.compare())
        print(f"soak: five seconds later {still} of them are still so; what happened last:")
        with open(self.path("log"), encoding="utf-8") as log:
            print("".join(log.readlines()[-60:]), end="")

    @staticmethod
    def add_counts(worker, counts):
        worker.tell("counts")
        numbers, _ = worker.answer()
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

    def end(self):
        for worker in self.workers:
            worker.kill()
        if self.service:
            self.service.kill()
        self.log.close()


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
    add("--settle", type=float, default=1, help="seconds until all has to be equal: %(default)s")
    add("--min-rate", type=float, default=100,
        help="changes a second below which a run does not count: %(default)s")
    add("--verbose", action="store_true", help="tells what happens when")
    options = parser.parse_args()
    if options.seed is None:
        options.seed = random.SystemRandom().randrange(1 << 30)
    return options


def tell_summary(soak, counts):
    seconds = max(soak.working, 0.001)
    print(f"{soak.working:.0f} s of work, {soak.looks} comparisons, each {soak.options.settle:g} s after it")
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
            soak.log.flush()
            with open(soak.path("log"), encoding="utf-8") as log:
                print("".join(log.readlines()[-200:]), file=sys.stderr)
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
