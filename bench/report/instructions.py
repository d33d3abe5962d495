"""How many instructions an operation takes, as callgrind counts them.

A benchmark program, told to run one of its benchmarks for as short as it can, calls each operation
through BatchTimes::countedOperation (bench/in_process/batch_times.h). Callgrind writes down each call
of that function with what it cost, everything below it included; the operation's instructions are the
sum of these costs through the number of calls. Other work on the machine does not change them.
"""

import concurrent.futures
import os
import re
import shutil
import tempfile

COUNTED = "BatchTimes::countedOperation<"
EVENT = "Ir"  # instructions read


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
