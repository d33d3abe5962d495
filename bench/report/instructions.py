"""How many instructions an operation takes, as callgrind counts them.

In one process: a benchmark program, told to run one of its benchmarks for as short as it can, calls each operation
through BatchTimes::countedOperation (bench/in_process/batch_times.h). Callgrind writes down each call
of that function with what it cost, everything below it included; the operation's instructions are the
sum of these costs through the number of calls. Other work on the machine does not change them.

Of several processes together: process_bench is told how many operations to make, and each process that
it starts, the service among them, writes down what it took from its start to its end. That is done for
many operations and for few, and the difference through the number of operations between is what one
takes: starting, connecting and ending are in both.
"""

import concurrent.futures
import os
import platform
import re
import shutil
import tempfile
from typing import NamedTuple

COUNTED = "BatchTimes::countedOperation<"
EVENT = "Ir"  # instructions read


FEW, MANY = 500, 2500  # operations; process_bench knows as many variables to register for

# Nothing of the caller's environment reaches what is counted, and the C library is told to do without
# what processors differ in: it takes its functions for memory and strings by what it finds.
_WITHOUT = ("AVX2", "AVX", "ERMS", "FSRM", "BMI1", "BMI2", "SSSE3", "SSE4_1", "SSE4_2", "Fast_Unaligned_Copy",
            "Fast_Unaligned_Load", "Fast_Rep_String", "AVX_Fast_Unaligned_Load")
_TUNABLES = ("glibc.cpu.hwcaps=" + ",".join("-" + name for name in _WITHOUT),
             # What was freed is kept for the next of its size, without end. Otherwise the allocator's search
             # depends on how the heap was filled at the start, where threads meet: 1 % of a durable write.
             "glibc.malloc.tcache_count=65535")
ENVIRONMENT = ("PATH=/usr/bin:/bin", "LC_ALL=C", "LD_BIND_NOW=1", "GLIBC_TUNABLES=" + ":".join(_TUNABLES))

# Where the figures that are written down are from.
MACHINE, LIBRARY = "x86_64", "glibc 2.36"


class Together(NamedTuple):
    """One side of a case of process_bench."""

    case: str
    side: str


class Unreadable(Exception):
    """Callgrind's file does not say what was asked for; the text says why."""


def per_call(lines, function=COUNTED):
    """Instructions of one call of the functions whose names hold this text, from callgrind's lines.

    A call is written down below its caller as

        fn=caller
        cfn=function
        calls=63 0
        0 67676

    which are 63 calls that cost 67,676 instructions. A call from one such function to another is part
    of the outer one's cost.
    """
    calls = cost = 0
    caller = called = ""
    lines = iter(lines)
    for line in lines:
        key, _, rest = line.strip().partition("=")
        if key == "fn":
            caller = rest
        elif key == "cfn":
            called = rest
        elif key == "calls":
            paid = next(lines, "")
            if function in called and function not in caller:
                calls += int(rest.split()[0])
                cost += _cost(paid)
        elif line.startswith("events:") and line.split()[1:2] != [EVENT]:
            raise Unreadable(f"its first event is not {EVENT}: {line.strip()}")
    if not calls:
        raise Unreadable(f"it has no call of {function.rstrip('<')}: was the function inlined or renamed, "
                         "or the program's symbols stripped?")
    return cost / calls


def _cost(line):
    """Of the line behind calls=: a position, then a cost for each event."""
    found = re.fullmatch(r"(\S+) (\d+)( \d+)*", line.strip())
    if not found:
        raise Unreadable(f"behind calls= there is no cost: '{line.strip()}'")
    return int(found[2])


def total(lines):
    """All instructions of a process, from callgrind's lines."""
    totals = [line.split() for line in lines if line.startswith("totals:")]
    if len(totals) != 1 or len(totals[0]) != 2 or not totals[0][1].isdigit():
        raise Unreadable("it has no line with one total: did the process end by itself?")
    return int(totals[0][1])


def command(program, benchmark, out_file):
    # A shortest time of 0 is one batch, in each run the same operations of the same variables.
    return ["valgrind", "-q", "--tool=callgrind", "--compress-strings=no", "--compress-pos=no",
            f"--callgrind-out-file={out_file}", program, f"--benchmark_filter=^{re.escape(benchmark)}$",
            "--benchmark_min_time=0"]


def count(runner, wanted):
    """Instructions by (program, benchmark); what could not be counted is absent, with a remark."""
    if not shutil.which("valgrind"):
        runner.broken.append("no instructions were counted: valgrind is missing; scripts/install-deps installs it")
        return {}
    # One for each CPU: they do not disturb each other's counts.
    with tempfile.TemporaryDirectory(prefix="callgrind-") as directory, \
            concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        out_files = {key: os.path.join(directory, f"{number}.out") for number, key in enumerate(wanted)}
        counts = pool.map(lambda key: _count_one(runner, *key, out_files[key]), wanted)
        return {key: counted for key, counted in zip(wanted, counts) if counted is not None}


def _count_one(runner, program, benchmark, out_file):
    if runner.output_of(command(runner.program(program), benchmark, out_file)) is None:
        return None
    try:
        with open(out_file, encoding="utf-8", errors="replace") as file:
            return per_call(file)
    except (OSError, Unreadable) as error:
        runner.broken.append(f"{program}: {benchmark}: callgrind's file: {error}")
        return None


# ---- Several processes together ------------------------------------------------------------------


def why_not():
    """Why this machine cannot count what was written down; None when it can."""
    if platform.machine() != MACHINE:
        return f"this machine is {platform.machine()}, and the figures are those of {MACHINE}"
    library = os.confstr("CS_GNU_LIBC_VERSION") if "CS_GNU_LIBC_VERSION" in os.confstr_names else None
    if library != LIBRARY:
        return f"the C library is {library}, and the figures are those of Debian 12's, {LIBRARY}"
    if not shutil.which("valgrind"):
        return "valgrind is missing; scripts/install-deps installs it"
    return None


def command_together(program, one, operations, memory, out_dir):
    return ["env", "-i", *ENVIRONMENT, "valgrind", "-q", "--tool=callgrind", "--trace-children=yes",
            f"--callgrind-out-file={out_dir}/%p.out", program, one.case, one.side,
            "--operations", str(operations), "--memory", memory]


def count_together(runner, wanted):
    """Instructions of one operation, by Together; what could not be counted is absent, with a remark."""
    runs = [(one, operations) for one in wanted for operations in (MANY, FEW)]
    with concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        totals = dict(zip(runs, pool.map(lambda run: _count_run(runner, *run), runs)))
    counted = {}
    for one in wanted:
        many, few = totals[(one, MANY)], totals[(one, FEW)]
        if many is not None and few is not None:
            counted[one] = (many - few) / (MANY - FEW)
    return counted


def _count_run(runner, one, operations):
    """Of all processes of a run."""
    with tempfile.TemporaryDirectory(prefix="callgrind-") as out_dir:
        program = runner.program("process_bench")
        if runner.output_of(command_together(program, one, operations, runner.memory, out_dir)) is None:
            return None
        try:
            return sum(_total_of(os.path.join(out_dir, name)) for name in sorted(os.listdir(out_dir)))
        except (OSError, Unreadable) as error:
            runner.broken.append(f"{one.case} {one.side}: callgrind's file: {error}")
            return None


def _total_of(path):
    with open(path, encoding="utf-8", errors="replace") as file:
        return total(file)
