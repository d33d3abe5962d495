"""What the drivers of scripts/soak and scripts/history share: programs that answer in lines, and the service
and processes that are mistreated.
"""

import os
import queue
import random
import signal
import subprocess
import threading
import time

PATIENCE = 120  # seconds until a program that does not answer has failed


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

    def line(self):
        try:
            line = self.lines.get(timeout=PATIENCE)
        except queue.Empty:
            raise Failed(f"{self.name} does not answer") from None
        if line is None:
            raise Failed(f"{self.name} ended with {self.process.wait()}")
        return line

    def answer(self):
        """The numbers of the last line, and the lines before it."""
        told = []
        while True:
            line = self.line()
            if line.startswith("done"):
                return [int(word) for word in line.split()[1:]], told
            told.append(line)

    def ask(self, line):
        self.tell(line)
        return self.answer()

    def signal(self, number):
        self.process.send_signal(number)

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.process.stdin.close()


class Mistreated:
    """A service and its workers, and what can be done to them. Who derives from it says how a worker is
    started (start_worker) and what definitions there are (definitions)."""

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
        self.kills = self.redefinitions = self.cuts = self.stops = self.restarts = 0
        self.working = 0.0  # seconds

    def start_worker(self, number, life):
        raise NotImplementedError

    def definitions(self):
        raise NotImplementedError

    def path(self, name):
        return os.path.join(self.directory, name)

    def note(self, text):
        line = f"{time.monotonic() - self.started:8.3f} {text}"
        print(line, file=self.log, flush=True)
        if self.options.verbose:
            print(line, flush=True)

    def last_notes(self, lines):
        self.log.flush()
        with open(self.path("log"), encoding="utf-8") as log:
            return "".join(log.readlines()[-lines:])

    # --- The service ---

    def output(self, *command):
        return subprocess.run(command, stdout=subprocess.PIPE, stderr=self.log, text=True, check=True,
                              timeout=PATIENCE).stdout

    def define(self):
        os.makedirs(self.path("definitions.d"), exist_ok=True)
        with open(self.path("definitions.d/all.toml"), "w", encoding="utf-8") as file:
            file.write(self.definitions())

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

    def start_workers(self):
        self.workers = [self.start_worker(number, 0) for number in range(self.options.workers)]
        for worker in self.workers:
            worker.answer()

    def tell_all(self, line):
        for worker in self.workers:
            worker.tell(line)
        return [worker.answer() for worker in self.workers]

    def restart_worker(self):
        """A process that knows nothing, in the middle of everything."""
        number = self.random.randrange(len(self.workers))
        if self.workers[number] in self.stopped:
            return
        self.before_kill(self.workers[number])
        self.workers[number].kill()
        self.restarts += 1
        self.note(f"{self.workers[number].name} killed")
        self.workers[number] = self.start_worker(number, self.restarts)
        self.note(f"{self.workers[number].name} restarted")
        self.workers[number].answer()
        self.workers[number].ask("work")

    def before_kill(self, worker):
        pass

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

    def continue_all(self):
        self.continue_due(float("inf"))

    def cut_one(self):
        worker = self.random.choice(self.workers)
        if worker in self.stopped:
            return
        (cut,), _ = worker.ask("cut " + self.random.choice(("one", "all")))
        self.cuts += cut
        self.note(f"{worker.name}: cut {cut} connections")

    def end(self):
        for worker in self.workers:
            worker.kill()
        if self.service:
            self.service.kill()
        self.log.close()
