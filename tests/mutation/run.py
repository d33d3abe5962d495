#!/usr/bin/env python3
"""Plants small bugs, one at a time, and tells which ones no test notices; scripts/mutate is the way to
call it.

Each worker has a worktree of HEAD with a build of its own (trees.py). A mutant is written there, the
program that tests its folder is built and run (suite.py), and, when that notices nothing, one program
after the other of those that the mutant is in, those first which notice most for their time. The first
failure that is seen a second time ends it.

What comes out is kept below build/mutate, mutant by mutant, under what HEAD holds beside tests and pages,
seed and count.
"""

import argparse
import contextlib
import difflib
import hashlib
import json
import os
import pickle
import queue
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import drawing  # noqa: E402
import ledger  # noqa: E402
import mutations  # noqa: E402
import suite  # noqa: E402
import trees  # noqa: E402

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
HERE = "tests/mutation/"
LEDGER = HERE + "survivors.toml"
MOST_PERCENT = 3

# A program of the mutant's folder that takes longer than this waits for its turn among the others.
LONG_SECONDS = 12

NOTICED, SURVIVED, UNBUILT, UNCHANGED, KNOWN = "noticed", "survived", "not compiled", "unchanged", "equivalent"


class Tally:
    """How often each test noticed something, over all runs: what to ask first."""

    def __init__(self, path):
        self.path = path
        self.counts = {}
        self.lock = threading.Lock()
        if os.path.exists(path):
            with open(path, encoding="utf-8") as file:
                self.counts = json.load(file)

    def note(self, folder, name, noticed):
        with self.lock:
            asked = self.counts.setdefault(folder, {}).setdefault(name, [0, 0])
            asked[0] += 1
            asked[1] += noticed
            write_json(self.path, self.counts)

    def score(self, folder, test):
        asked, noticed = self.counts.get(folder, {}).get(test.name, (0, 0))
        return (noticed + 1) / (asked + 2) / (test.expected() + 1)


def write_json(path, content):
    with open(path + ".new", "w", encoding="utf-8") as file:
        json.dump(content, file, indent=1)
    os.replace(path + ".new", path)


class State:
    """The outcome of each place, kept in a file as soon as it is known."""

    def __init__(self, path, tests, resume):
        """What survived other tests than these is asked again; what was noticed stays noticed."""
        self.path = path
        self.tests = tests
        self.places = {}
        self.lock = threading.Lock()
        if resume and os.path.exists(path):
            with open(path, encoding="utf-8") as file:
                kept = json.load(file).items()
            self.places = {int(number): outcome for number, outcome in kept
                           if outcome is None or outcome["verdict"] != SURVIVED or outcome["tests"] == tests}

    def keep(self, number, outcome):
        with self.lock:
            self.places[number] = outcome and {**outcome, "tests": self.tests}
            write_json(self.path, self.places)


class Trials:
    """The tests, and what is known of each from its trial; kept in a file for as long as HEAD holds the same."""

    def __init__(self, path, tree):
        self.path = path
        self.lock = threading.Lock()
        if os.path.exists(path):
            with open(path, "rb") as file:
                self.tests = pickle.load(file)
        else:
            self.tests = suite.discover(tree.build, tree.path)
        self.locks = {test.name: threading.Lock() for test in self.tests}

    def keep(self):
        with self.lock:
            with open(self.path + ".new", "wb") as file:
                pickle.dump(self.tests, file)
            os.replace(self.path + ".new", self.path)


class Worker:
    """Plants mutants in one tree."""

    def __init__(self, tree, trials, sources, known, tally, stopped, say, near):
        self.tree = tree
        self.near = near
        self.trials = trials
        self.tests = trials.tests
        self.sources = sources
        self.known = known
        self.tally = tally
        self.say = say
        self.code_without = {}
        self.refused_without = {}
        self.scratch = tempfile.mkdtemp(prefix="mu-")
        os.chmod(self.scratch, 0o755)  # some tests do a part of their work as another user
        self.runner = suite.Runner(tree, self.scratch, stopped)

    def close(self):
        shutil.rmtree(self.scratch, ignore_errors=True)

    def work_on(self, place):
        """The outcome of the first candidate that counts; None when the place has none."""
        passed_over = []
        for mutation in place.candidates:
            began = time.monotonic()
            outcome = self._plant(place, mutation)
            outcome["seconds"] = round(time.monotonic() - began, 1)
            if outcome["verdict"] in (NOTICED, SURVIVED):
                outcome["passed over"] = passed_over
                return outcome
            passed_over.append(outcome)
            self.say(f"  passed over: {outcome['at']} {outcome['kind']}: {outcome['verdict']}")
        return None

    def _plant(self, place, mutation):
        source = self.sources[mutation.path]
        function, line, becomes = mutations.describe(source, mutation)
        outcome = {"folder": place.folder, "kind": mutation.kind, "file": mutation.path, "function": function,
                   "line": line, "becomes": becomes, "at": f"{mutation.path}:{source.line_of(mutation.start)}",
                   "diff": diff_of(source, mutation), "asked": []}
        entry = self.known.entry_of(mutation.path, function, line, becomes)
        if entry and entry.verdict == ledger.EQUIVALENT:
            return {**outcome, "verdict": KNOWN}
        self.say(outcome["diff"])
        self.tree.write(mutation.path, mutations.apply_to(source.text, mutation))
        try:
            return {**outcome, **self._ask(place.folder, mutation.path, outcome["asked"])}
        finally:
            self.tree.write(mutation.path, source.text)

    def _ask(self, folder, path, asked):
        first, others = self._order(folder, path)
        verdict = self._ask_each(folder, path, first, asked)
        if verdict:
            return verdict
        if path.endswith(".cpp"):
            if self._is_unchanged(path):
                return {"verdict": UNCHANGED}
            if self._is_refused(path):
                return {"verdict": UNBUILT}
        if self.near:
            return {"verdict": SURVIVED}
        affected = [t for t in others if any(self.tree.is_affected(target, path) for target in t.targets())]
        return self._ask_each(folder, path, affected, asked) or {"verdict": SURVIVED}

    def _order(self, folder, path):
        """The tests of the mutant's own folder, then all others; each by what they notice for their time."""
        own = "tests/" + os.path.dirname(path).removesuffix("/internal")
        near = "tests/" + drawing.FOLDERS[folder]
        ranked = sorted(self.tests, key=lambda t: self.tally.score(folder, t), reverse=True)
        of_own = [t for t in ranked if t.folder == own]
        quickest = min((t.expected() for t in of_own), default=0)
        first = [t for t in of_own if self.near or t.expected() <= max(quickest, LONG_SECONDS)]
        others = [t for t in ranked if t not in first]
        others.sort(key=lambda t: not (t.folder + "/").startswith(near + "/") or t.expected() >= LONG_SECONDS)
        return first, others

    def _ask_each(self, folder, path, tests, asked):
        for test in tests:
            if not self._is_usable(test, path):
                continue
            built, output = self.tree.has_built(test.targets())
            if not built:
                self.say(output[-3000:])
                return {"verdict": UNBUILT}
            began = time.monotonic()
            by = self._failure_of(test, asked)
            self.tally.note(folder, test.name, by is not None)
            asked.append(f"{test.name} ({time.monotonic() - began:.1f} s)")
            self.say("  " + asked[-1] + (f": noticed: {by}" if by is not None else ""))
            if by is not None:
                return {"verdict": NOTICED, "by": f"{test.name} {by}".strip()}
        return None

    def _is_usable(self, test, path):
        """Whether it succeeds without a bug. Tried when it is first needed, with the source as it was."""
        with self.trials.locks[test.name]:
            if test.usable is not None:
                return test.usable
            self.say(f"  trial of {test.name}")
            with self._without_mutant(path):
                built, output = self.tree.has_built(test.targets())
                if not built:
                    raise trees.CannotPrepare(output[-4000:])
                test.usable = suite.try_out(self.runner, test)
        for case in test.left_out if test.usable else [""]:
            note(f"not asked, for it fails without a bug: {test.name} {case}")
        self.trials.keep()
        return test.usable

    @contextlib.contextmanager
    def _without_mutant(self, path):
        with open(os.path.join(self.tree.path, path), encoding="utf-8") as file:
            mutant = file.read()
        self.tree.write(path, self.sources[path].text)
        try:
            yield
        finally:
            self.tree.write(path, mutant)

    def _failure_of(self, test, asked):
        """The case that failed, and failed again; None when nothing did."""
        result = self.runner.run(test)
        if result.failed is None:
            return None
        self.say(result.tail)
        what = result.failed + (" (no end)" if result.was_stuck else "")
        if result.failed and self.runner.run_case(test, result.failed).failed is not None:
            return what
        if self.runner.run(test).failed is not None:
            return what
        asked.append(f"{test.name} failed once: {what}")
        return None

    def _is_unchanged(self, path):
        """Whether the optimizer makes the same of the source with the mutant and without."""
        planted = os.stat(os.path.join(self.tree.path, path))
        code = self.tree.object_code(path)
        if path not in self.code_without:
            with self._without_mutant(path):
                self.code_without[path] = self.tree.object_code(path)
            # Nothing was built meanwhile, so that nothing has to be built again.
            os.utime(os.path.join(self.tree.path, path), ns=(planted.st_atime_ns, planted.st_mtime_ns))
        return code is not None and code == self.code_without[path]


    def _is_refused(self, path):
        """Whether Clang has an objection to the mutant that it has not to the source without it."""
        if not self.tree.is_refused(path):
            return False
        if path not in self.refused_without:
            with self._without_mutant(path):
                self.refused_without[path] = self.tree.is_refused(path)
        return not self.refused_without[path]


def diff_of(source, mutation):
    before, after = source.text.splitlines(), mutations.apply_to(source.text, mutation).splitlines()
    lines = difflib.unified_diff(before, after, mutation.path, mutation.path, lineterm="", n=1)
    return "\n".join(list(lines)[2:])


# ---- A run --------------------------------------------------------------------------------------------


def git(*arguments):
    return subprocess.run(["git", "-C", ROOT, *arguments], capture_output=True, check=True, text=True).stdout


def key_of_head(*left_out):
    """What HEAD holds, but for files whose paths start so."""
    rows = git("ls-tree", "-r", "HEAD").splitlines()
    kept = [row for row in rows if not row.split("\t")[1].startswith(left_out)]
    return hashlib.sha256("\n".join(kept).encode()).hexdigest()[:12]


class Run:
    def __init__(self, options):
        self.options = options
        self.where = os.path.join(ROOT, "build", "mutate")
        os.makedirs(self.where, exist_ok=True)
        self.known = ledger.read(os.path.join(ROOT, LEDGER))
        self.lock = threading.Lock()
        self.stopped = threading.Event()

    def prepare(self):
        """The trees, with nothing built: each program is when it is first asked."""
        commit = git("rev-parse", "HEAD").strip()
        made = [trees.Tree(ROOT, number) for number in range(1, self.options.jobs + 1)]
        for tree in made:
            tree.prepare(commit)
        return made

    def draw(self, root):
        listed = {folder: drawing.sources_of(root, folder) for folder in drawing.FOLDERS}
        self.sources = {s.path: s for sources in listed.values() for s in sources}
        places = drawing.draw(listed, self.options.count, self.options.seed)
        return [p for p in places if self.options.only in (None, p.folder)
                and (not self.options.one or p.number in self.options.one)]

    def plant_all(self, made, places):
        keeps = not self.options.one
        state = State(self._path_of_state(), key_of_head(LEDGER), self.options.resume and keeps)
        for number, outcome in list(state.places.items()):
            if self._is_known(outcome):
                del state.places[number]  # found out since
        waiting = queue.SimpleQueue()
        for place in places:
            if place.number not in state.places:
                waiting.put(place)
        trials = Trials(os.path.join(self.where, f"trials-{key_of_head(HERE)}.pickle"), made[0])
        tally = Tally(os.path.join(self.where, "tally.json"))

        def work(tree):
            worker = Worker(tree, trials, self.sources, self.known, tally, self.stopped, self._say,
                            self.options.near)
            try:
                while not self.stopped.is_set():
                    place = waiting.get_nowait()
                    outcome = worker.work_on(place)
                    if keeps:
                        state.keep(place.number, outcome)
                    else:
                        state.places[place.number] = outcome
                    self._tell(place, outcome)
            except (queue.Empty, suite.Stopped):
                pass
            finally:
                worker.close()

        self._in_threads([lambda tree=tree: work(tree) for tree in made])
        return [state.places[p.number] for p in places if state.places.get(p.number)]

    def _path_of_state(self):
        """Tests that come, and what is written of a survivor, do not change what was noticed."""
        options = self.options
        near = "-near" if options.near else ""
        return os.path.join(self.where, f"state-{key_of_head('tests/', 'docs/')}-{options.seed}-{options.count}{near}.json")

    def _in_threads(self, works):
        failures = []

        def guarded(work):
            try:
                work()
            except BaseException as error:  # told by the thread that waits
                failures.append(error)
                self.stopped.set()

        threads = [threading.Thread(target=guarded, args=(work,)) for work in works]
        for thread in threads:
            thread.start()
        try:
            for thread in threads:
                while thread.is_alive():
                    thread.join(0.2)
        except KeyboardInterrupt:
            note("stops; --resume goes on")
            self.stopped.set()
            for thread in threads:
                thread.join()
            raise
        if failures:
            raise failures[0]

    def _is_known(self, outcome):
        entry = outcome and self._entry_of(outcome)
        return bool(entry) and entry.verdict == ledger.EQUIVALENT

    def _entry_of(self, outcome):
        return self.known.entry_of(outcome["file"], outcome["function"], outcome["line"], outcome["becomes"])

    def _say(self, text):
        if self.options.one and len(self.options.one) == 1:
            print(text, flush=True)

    def _tell(self, place, outcome):
        with self.lock:
            if outcome is None:
                print(f"{place.number:4} {place.folder}: none of the candidates counts", flush=True)
                return
            end = f"noticed by {outcome['by']}" if outcome["verdict"] == NOTICED else self._survival(outcome)
            print(f"{place.number:4} {place.folder:9} {outcome['kind']:9} {outcome['at']}: {end} "
                  f"({outcome['seconds']:.0f} s)", flush=True)

    def _survival(self, outcome):
        return "survived, as explained" if self._entry_of(outcome) else "SURVIVED"

    # ---- What is printed in the end ----

    def report(self, outcomes):
        survivors = [o for o in outcomes if o["verdict"] == SURVIVED]
        for outcome in survivors:
            self._report_survivor(outcome)
        self._report_passed_over(outcomes)
        self._report_stale_entries()
        for folder in drawing.FOLDERS:
            of_folder = [o for o in outcomes if o["folder"] == folder]
            if of_folder:
                survived = sum(o["verdict"] == SURVIVED for o in of_folder)
                print(f"{folder:9} {len(of_folder):4} planted {survived:4} survived")
        print(f"mutate: {len(outcomes)} planted, {len(survivors)} survived", flush=True)
        return 0 if outcomes and len(survivors) * 100 <= MOST_PERCENT * len(outcomes) else 1

    def _report_survivor(self, outcome):
        entry = self._entry_of(outcome)
        print(f"\n{'explained' if entry else 'SURVIVED'} {outcome['at']} {outcome['kind']}")
        print(outcome["diff"])
        print("asked: " + ", ".join(outcome["asked"]))
        if entry:
            print("reason: " + entry.reason)
        else:
            print(f"for {LEDGER}, with a verdict and a reason:")
            print(ledger.as_text(outcome["file"], outcome["function"], outcome["line"], outcome["becomes"]))

    def _report_passed_over(self, outcomes):
        counts = {}
        for outcome in outcomes:
            for other in outcome["passed over"]:
                counts[other["verdict"]] = counts.get(other["verdict"], 0) + 1
                if other["verdict"] == KNOWN:
                    print(f"equivalent, as the ledger says: {other['at']} {other['kind']}: {other['becomes']}")
        print("passed over: " + (", ".join(f"{n} {what}" for what, n in sorted(counts.items())) or "none"))

    def _report_stale_entries(self):
        for entry in self.known.entries:
            source = self.sources.get(entry.file)
            if source is None or not any(mutations.describe(source, m) == entry[1:4] for m in mutations.all_of(source)):
                print(f"{LEDGER}: no mutant any more: {entry.file}: {entry.line}")


def note(text):
    print("mutate: " + text, file=sys.stderr, flush=True)


def list_places(places, sources):
    for place in places:
        mutation = place.candidates[0]
        source = sources[mutation.path]
        _, line, becomes = mutations.describe(source, mutation)
        print(f"{place.number:4} {place.folder:9} {mutation.kind:9} {mutation.path}:{source.line_of(mutation.start)}")
        print(f"       - {line}\n       + {becomes}")


def options_of(arguments):
    parser = argparse.ArgumentParser(
        prog="scripts/mutate", formatter_class=argparse.RawDescriptionHelpFormatter,
        description="Plants small bugs in a copy of HEAD, one at a time, and tells which ones no test notices.",
        epilog=f"""\
planted   counts the mutants that compile and that change something. One that does not compile, of which
          the optimizer makes the same code, or that {LEDGER} calls equivalent does
          not count: another one is drawn in its place. Clang's warnings, those of locks too, count as
          not compiling, for nobody could commit it.
survived  counts those that no test noticed, explained in the ledger or not. A test notices by failing,
          crashing, or not coming to an end, twice in a row.

What is not committed is not tried. Exit code: 0 when at most {MOST_PERCENT} in 100 survived, 1 when more did, 2 when
nothing could be tried.""")
    parser.add_argument("--count", type=int, default=200, help="how many mutants (200)")
    parser.add_argument("--seed", type=int, default=1, help="which ones (1)")
    parser.add_argument("--only", choices=list(drawing.FOLDERS), help="of these only those of one folder")
    parser.add_argument("--near", action="store_true", help="ask the tests of the bug's own folder alone: a first look")
    parser.add_argument("--one", type=int, nargs="+", metavar="N",
                        help="only those with these numbers; of a single one, tell all about it")
    parser.add_argument("--list", action="store_true", help="print the first choice of each number, and try nothing")
    parser.add_argument("--resume", action="store_true", help="go on with a run of these options that was interrupted, or after tests were "
                        "written: those that survived are asked again")
    parser.add_argument("--jobs", type=int, default=2, help="how many at a time, each in a worktree of its own (2)")
    return parser.parse_args(arguments)


def main(arguments):
    options = options_of(arguments)
    options.jobs = min(options.jobs, len(options.one or range(options.count)))
    run = Run(options)
    if options.list:
        list_places(run.draw(ROOT), run.sources)
        return 0
    began = time.monotonic()
    made = run.prepare()
    places = run.draw(made[0].path)
    note(f"ready after {time.monotonic() - began:.0f} s; {len(places)} mutants")
    outcomes = run.plant_all(made, places)
    note(f"took {time.monotonic() - began:.0f} s")
    return run.report(outcomes)


def interrupt(*_):
    raise KeyboardInterrupt


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, interrupt)
    try:
        sys.exit(main(sys.argv[1:]))
    except (trees.CannotPrepare, ValueError) as problem:
        note(str(problem))
        sys.exit(2)
    except KeyboardInterrupt:
        sys.exit(130)
