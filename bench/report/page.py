#!/usr/bin/env python3
"""Puts the figures of a run into docs/performance.md, behind its heading "As measured".

    scripts/bench --json figures.json && bench/report/page.py figures.json
"""

import json
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import run  # noqa: E402

PAGE = os.path.join(run.ROOT, "docs", "performance.md")
HEADING = "## As measured\n"


def line(cells):
    return "| " + " | ".join(cells) + " |\n"


def table(rows):
    alignment = ["---" if column in run.TO_THE_LEFT else "---:" for column in range(len(run.HEADINGS))]
    return line(run.HEADINGS) + line(alignment) + "".join(line(run.cells(row, True)) for row in rows)


def circumstances(figures):
    machine, versions = figures["machine"], figures["versions"]
    text = (f"{machine['cpu']}, {machine['cpus']} CPUs, {machine['memory']}; Linux {machine['kernel']}; store on "
            f"{machine['disk_file_system']}, or in memory on {machine['memory_file_system']}. "
            f"{versions['compiler']}, SQLite {versions['sqlite']}, {versions['protobuf']}. "
            f"appconfig {versions['appconfig']}, {figures['repetitions']} rounds. "
            f"Load average {figures['load_before']} before and {figures['load_after']} after.\n")
    if figures["load_before"] > run.QUIET_LOAD:
        text += ("\n**Other work was running on this machine meanwhile**, so these figures are to be taken again on a "
                 "quiet one. Ratios with a small spread say something even so; p99, and rows with a large "
                 "spread, do not.\n")
    return text


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        figures = json.load(file)
    with open(PAGE, encoding="utf-8") as file:
        before = file.read().split(HEADING)[0]
    with open(PAGE, "w", encoding="utf-8") as file:
        file.write(before + HEADING + "\n" + circumstances(figures) + "\n" + table(figures["rows"]))


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main()
