#!/usr/bin/env python3
"""Runs all benchmarks of a build and prints one table; scripts/bench is the way to call it.

Rounds: each row is measured once in each round, its floor beside it and in changing order, so that
what the machine does meanwhile meets both. Each side of each case runs in a process of its own. A
figure is the median over the rounds; a ratio is the median of the rounds' ratios, and its spread the
distance between the largest and the smallest of them, in parts of that median. Instructions are
counted once, after the rounds: they are the same in each run.

Missing a limit is reported and is no failure of the run; a benchmark that cannot run is one.
"""

import argparse
import json
import os
import platform
import statistics
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import instructions  # noqa: E402
import limits  # noqa: E402
import rows  # noqa: E402

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
TIMEOUT_SECONDS = 300
# Load average above which other work counts as running.
QUIET_LOAD = 0.5


class Effort:
    """How long and how often."""

    def __init__(self, quick):
        self.rounds = 1 if quick else 5
        self.case_milliseconds = 20 if quick else 300
        self.benchmark_seconds = 0.001 if quick else 0.03
        self.counts_all = not quick

    def counts(self, row):
        return row.counted and (self.counts_all or row.counted_briefly)


class Runner:
    """Runs the programs of one build directory."""

    def __init__(self, build_dir, disk, effort):
        self.bin = os.path.join(os.path.abspath(build_dir), "bin")
        self.disk = disk
        self.memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else disk
        self.effort = effort
        self.broken = []

    def program(self, name):
        return os.path.join(self.bin, name)

    def output_of(self, command):
        """What it printed; None, and a remark, when it failed."""
        try:
            done = subprocess.run(command, capture_output=True, text=True, timeout=TIMEOUT_SECONDS)
        except subprocess.TimeoutExpired:
            self.broken.append(f"{' '.join(command)}: no end after {TIMEOUT_SECONDS} s")
            return None
        if done.returncode == 0:
            return done.stdout
        self.broken.append(f"{' '.join(command)}: ended with {done.returncode}: {done.stderr.strip()}")
        return None

    def case(self, row, side, placement):
        command = [self.program("process_bench"), row.case, side, "--ms", str(self.effort.case_milliseconds),
                   "--disk", self.disk, "--memory", self.memory]
        output = self.output_of(command + (["--pin"] if placement == rows.PINNED else []))
        return json.loads(output) if output else None

    def in_process(self, program):
        """The counters p50 and p99 of every benchmark of a program, by name."""
        output = self.output_of([self.program(program), "--benchmark_format=json",
                                 f"--benchmark_min_time={self.effort.benchmark_seconds}"])
        if not output:
            return {}
        found = {}
        for one in json.loads(output)["benchmarks"]:
            if one.get("error_occurred"):
                self.broken.append(f"{program}: {one['name']}: {one['error_message']}")
            else:
                found[one["name"]] = {"p50": one["p50"], "p99": one["p99"]}
        return found


# ---- Rounds ---------------------------------------------------------------------------------------


def measure(runner, say):
    """A list of rounds for each measured row: pairs of ours and floor, as the programs gave them."""
    measured = {}
    programs = sorted({row.program for row in rows.IN_PROCESS})
    for number in range(1, runner.effort.rounds + 1):
        say(f"round {number} of {runner.effort.rounds}")
        for program in programs:
            found = runner.in_process(program)
            for row in rows.IN_PROCESS:
                if row.program == program:
                    keep(measured, (row, None), found.get(row.ours), found.get(row.floor))
        for row in rows.PROCESSES:
            for placement in row.placements:
                keep(measured, (row, placement), *one_pair(runner, row, placement, number))
    return measured


def one_pair(runner, row, placement, number):
    """The side that goes first changes from round to round."""
    sides = ["ours", "floor"] if number % 2 else ["floor", "ours"]
    if not row.has_floor:
        sides = ["ours"]
    found = {side: runner.case(row, side, placement) for side in sides}
    return found["ours"], found.get("floor")


def keep(measured, key, ours, floor):
    if ours is not None:
        measured.setdefault(key, []).append((ours, floor))


def count_instructions(runner, say):
    """By (program, benchmark): a floor that several rows share is counted once."""
    say("instructions")
    counted = [row for row in rows.IN_PROCESS if runner.effort.counts(row)]
    wanted = {(row.program, benchmark) for row in counted for benchmark in (row.ours, row.floor)}
    return instructions.count(runner, sorted(wanted))


def count_together(runner, say):
    """limits.Figures by the name of the row."""
    say("instructions of all processes together")
    counts = instructions.count_together(
        runner, [instructions.Together(row.case, side) for row in rows.COUNTED for side in ("ours", "floor")])
    pairs = {row.name: [counts.get((row.case, side)) for side in ("ours", "floor")] for row in rows.COUNTED}
    return {name: limits.Figures(*pair) for name, pair in pairs.items() if None not in pair}


# ---- From rounds to rows --------------------------------------------------------------------------


def middle(figures):
    figures = [figure for figure in figures if figure is not None]
    return statistics.median(figures) if figures else None


def spread(figures):
    """0.1: the largest is a tenth of the middle above the smallest. None of less than two."""
    if len(figures) < 2 or not statistics.median(figures):
        return None
    return (max(figures) - min(figures)) / statistics.median(figures)


def ratios(pairs, figure):
    return [ours[figure] / floor[figure] for ours, floor in pairs if floor and floor.get(figure)]


def finished_row(name, unit, placement, pairs, limit, compared="p50"):
    applies = limit is not None and limit.placement in (None, placement)
    of_rounds = ratios(pairs, compared)
    row = {
        "name": name if placement is None else f"{name}_{placement}",
        "placement": placement,
        "unit": unit,
        "p50": middle([ours["p50"] for ours, _ in pairs]),
        # 0 where there is none: a rate and a size are one figure.
        "p99": middle([ours.get("p99") or None for ours, _ in pairs]),
        "floor_p50": middle([floor["p50"] for _, floor in pairs if floor]),
        "floor_p99": middle([floor.get("p99") or None for _, floor in pairs if floor]),
        "ratio": middle(of_rounds),
        "ratio_of": compared,
        "spread": spread(of_rounds or [ours["p50"] for ours, _ in pairs]),
        "limit": limit.value if applies else None,
        "limit_text": limit.text(unit) if applies else None,
        "rounds": len(pairs),
        "samples": sum(ours.get("samples", 0) for ours, _ in pairs) or None,
        "switches": switches_of([ours for ours, _ in pairs]),
        "floor_switches": switches_of([floor for _, floor in pairs if floor]),
        "instructions": None,
        "floor_instructions": None,
    }
    row["kept"] = limit.is_kept(row) if applies else None
    return row


def switches_of(runs):
    return middle([run["switches"] for run in runs if run.get("switches", -1) >= 0])


def switches_row(row, placement, pairs):
    def as_figure(run):
        return {"p50": run["switches"]} if run else None

    counted = [(as_figure(ours), as_figure(floor)) for ours, floor in pairs]
    return finished_row(row.case + "_switches", "switches", placement, counted, row.switches)


def in_process_row(row, pairs, counts):
    finished = finished_row(row.name, row.unit, None, pairs, row.limit)
    if row.counted:
        finished["instructions"] = counts.get((row.program, row.ours))
        finished["floor_instructions"] = counts.get((row.program, row.floor))
    return finished


def counted_row(name, figures):
    """A row of the table that has instructions alone; its ratio is that of the instructions."""
    row = finished_row(name + "_instructions", "instructions", None, [], None)
    row.update(instructions=figures.instructions, floor_instructions=figures.floor,
               ratio=figures.instructions / figures.floor)
    return row


def table_rows(measured, counts):
    finished = []
    for (row, placement), pairs in measured.items():
        if isinstance(row, rows.InProcessRow):
            finished.append(in_process_row(row, pairs, counts))
            continue
        finished.append(finished_row(row.case, row.unit, placement, pairs, row.limit, row.compared))
        if row.switches:
            finished.append(switches_row(row, placement, pairs))
    return finished


# ---- The table ------------------------------------------------------------------------------------

HEADINGS = ("operation", "unit", "p50", "p99", "floor p50", "ratio", "spread", "limit", "", "switches",
            "of floor", "instructions", "of floor")
TO_THE_LEFT = {0, 1, 7, 8}


def short(figure):
    if figure is None:
        return "-"
    if abs(figure) >= 1000:
        return f"{figure:,.0f}"
    return f"{figure:.3g}" if abs(figure) < 100 else f"{figure:.0f}"


def cells(row, judge):
    kept = {True: "kept", False: "MISSED", None: ""}[row["kept"] if judge else None]
    ratio = "-" if row["ratio"] is None else f"{row['ratio']:.2f}"
    if row["ratio_of"] != "p50" and row["ratio"] is not None:
        ratio += f" ({row['ratio_of']})"
    part = "-" if row["spread"] is None else f"{100 * row['spread']:.0f} %"
    return (row["name"], row["unit"], short(row["p50"]), short(row["p99"]), short(row["floor_p50"]), ratio,
            part, row["limit_text"] or "-", kept, short(row["switches"]), short(row["floor_switches"]),
            short(row["instructions"]), short(row["floor_instructions"]))


def print_table(finished, judge):
    lines = [HEADINGS] + [cells(row, judge) for row in finished]
    widths = [max(len(line[column]) for line in lines) for column in range(len(HEADINGS))]
    for line in lines:
        print("  ".join(
            cell.ljust(width) if column in TO_THE_LEFT else cell.rjust(width)
            for column, (cell, width) in enumerate(zip(line, widths))).rstrip())


def print_missed(finished):
    missed = [row for row in finished if row["kept"] is False]
    kept = sum(row["kept"] is True for row in finished)
    print(f"\n{kept} limits kept, {len(missed)} missed{':' if missed else '.'}")
    for row in missed:
        ratio = row["limit_text"].endswith(" x")
        figure = f"{row['ratio']:.2f}" if ratio else short(row["p50"])
        print(f"  {row['name']}: {figure}, limit {row['limit_text']}")


# ---- The machine ----------------------------------------------------------------------------------


def first_line(command):
    try:
        return subprocess.run(command, capture_output=True, text=True).stdout.strip().splitlines()[0]
    except (OSError, IndexError):
        return None


def field_of(path, name):
    with open(path, encoding="utf-8") as file:
        for line in file:
            if line.startswith(name):
                return line.split(":", 1)[1].strip()
    return None


def file_system_of(directory):
    return first_line(["stat", "-f", "-c", "%T", directory])


def machine(runner):
    return {
        "cpu": field_of("/proc/cpuinfo", "model name") or platform.machine(),
        "cpus": len(os.sched_getaffinity(0)),
        "memory": field_of("/proc/meminfo", "MemTotal"),
        "kernel": platform.release(),
        "disk_file_system": file_system_of(runner.disk),
        "memory_file_system": file_system_of(runner.memory),
    }


def versions():
    with open(os.path.join(ROOT, "VERSION"), encoding="utf-8") as file:
        version = file.readline().strip()
    return {
        "appconfig": version,
        "commit": first_line(["git", "-C", ROOT, "describe", "--always", "--dirty", "--abbrev=12"]),
        "compiler": first_line(["c++", "--version"]),
        "protobuf": first_line(["protoc", "--version"]),
        "sqlite": first_line(["pkg-config", "--modversion", "sqlite3"]),
        "benchmark": first_line(["pkg-config", "--modversion", "benchmark"]),
        "valgrind": first_line(["valgrind", "--version"]),
    }


def load():
    return round(os.getloadavg()[0], 2)


# ---- The commands ---------------------------------------------------------------------------------


def read_page():
    with open(limits.PAGE, encoding="utf-8") as file:
        return file.read()


def check_instructions(runner, must_count):
    """Counts, and holds what was counted against what stands in docs/performance.md."""
    reason = instructions.why_not()
    if reason:
        print(f"bench: no instructions were counted: {reason}", file=sys.stderr)
        return 1 if must_count else 0
    verdicts = limits.judge_all(count_together(runner, to_standard_error), limits.written_down(read_page()))
    count_instructions(runner, to_standard_error)  # of one process: that they can be; they have no limits
    for verdict in verdicts:
        print(verdict.text + ("" if verdict.passed else "  PAST IT"))
    for remark in [remark for verdict in verdicts for remark in verdict.remarks] + runner.broken:
        print(f"bench: {remark}", file=sys.stderr)
    return 0 if all(verdict.passed for verdict in verdicts) and not runner.broken else 1


def write_instructions(runner):
    reason = instructions.why_not()
    counted = {} if reason else count_together(runner, to_standard_error)
    page = limits.with_table(read_page(), counted) if len(counted) == len(rows.COUNTED) else None
    if page is None:
        problems = [reason] if reason else runner.broken or [f"{limits.PAGE} has no table to take the place of"]
        print("bench: nothing was written: " + "; ".join(problems), file=sys.stderr)
        return 1
    with open(limits.PAGE, "w", encoding="utf-8") as file:
        file.write(page)
    print(limits.table(counted), end="")
    return 0


def check_lists(runner, listed):
    """Whether the driver, the list that ctest runs and the table have the same cases."""
    output = runner.output_of([runner.program("process_bench"), "--list"])
    program = {line.split()[0]: line.endswith(" floor") for line in (output or "").splitlines()}
    table = {row.case: row.has_floor for row in rows.PROCESSES} | {row.case: True for row in rows.COUNTED}
    problems = list(runner.broken)
    if program != table:
        differing = sorted(dict(program.items() ^ table.items()))
        problems.append(f"not the same in process_bench --list and rows.py: {', '.join(differing)}")
    if set(program) != set(listed):
        problems.append(f"not run by ctest, or no case: {', '.join(sorted(set(program) ^ set(listed)))}")
    for problem in problems:
        print(problem, file=sys.stderr)
    return 1 if problems else 0


def to_standard_error(text):
    print(text, file=sys.stderr, flush=True)


def counted_rows(runner, quick):
    """Not in a brief run: it shows what scripts/bench --check does not."""
    reason = "this is a brief run" if quick else instructions.why_not()
    if reason:
        to_standard_error(f"instructions of all processes together were not counted: {reason}")
        return []
    return [counted_row(name, figures) for name, figures in count_together(runner, to_standard_error).items()]


def report(runner, arguments):
    before = load()
    measured = measure(runner, to_standard_error)
    after = load()
    finished = table_rows(measured, count_instructions(runner, to_standard_error))
    finished += counted_rows(runner, arguments.quick)
    print_table(finished, not arguments.quick)
    if arguments.quick:
        print("\nOne brief round: this shows that everything runs. The figures mean nothing.")
    else:
        print_missed(finished)
    if before > QUIET_LOAD and not arguments.quick:
        print(f"\nThe load average was {before} before the first round: other work was running, and the"
              "\nfigures say little. Measure again on a quiet machine.")
    if arguments.json:
        with open(arguments.json, "w", encoding="utf-8") as file:
            json.dump({"machine": machine(runner), "versions": versions(),
                       "repetitions": runner.effort.rounds, "quick": arguments.quick,
                       "load_before": before, "load_after": after, "rows": finished}, file, indent=2)
            file.write("\n")
    for problem in runner.broken:
        print(f"bench: {problem}", file=sys.stderr)
    return 1 if runner.broken else 0


def main():
    parser = argparse.ArgumentParser(prog="scripts/bench", description="Measures, beside floors.")
    parser.add_argument("--build-dir", required=True, help="directory of a build")
    parser.add_argument("--quick", action="store_true", help="everything once, briefly")
    parser.add_argument("--json", metavar="FILE", help="writes the figures there too")
    parser.add_argument("--check", action="store_true", help="counts instructions alone, and holds their limits")
    parser.add_argument("--must-count", action="store_true", help="with --check: fails where nothing can be counted")
    parser.add_argument("--write", action="store_true", help="counts, and writes what the limits are made of")
    parser.add_argument("--compare-lists", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("case", nargs="*", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="bench-", dir=arguments.build_dir) as disk:
        runner = Runner(arguments.build_dir, disk, Effort(arguments.quick or arguments.check))
        if arguments.compare_lists:
            return check_lists(runner, arguments.case)
        if arguments.check:
            return check_instructions(runner, arguments.must_count)
        if arguments.write:
            return write_instructions(runner)
        return report(runner, arguments)


if __name__ == "__main__":
    sys.exit(main())
