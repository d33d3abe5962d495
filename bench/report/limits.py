"""What operations may take: a little above what stands in docs/performance.md.

Instructions are the same from run to run and nearly so from machine to machine, so a change that makes an
operation longer shows here when no clock would show it. The table is what scripts/bench --write writes.
"""

import os
import re
from typing import NamedTuple

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PAGE = os.path.join(ROOT, "docs", "performance.md")
MARGIN = 0.03
HEADINGS = ("operation, all processes", "instructions", "floor", "ratio", "limit")


class Figures(NamedTuple):
    instructions: float
    floor: float


def limit(written):
    return written.instructions * (1 + MARGIN)


# ---- The table ------------------------------------------------------------------------------------


def _line(cells):
    return "| " + " | ".join(cells) + " |\n"


def table(counted):
    """Of Figures by name."""
    lines = _line(HEADINGS) + _line(["---"] + ["---:"] * (len(HEADINGS) - 1))
    for name, figures in counted.items():
        lines += _line([name, f"{figures.instructions:,.0f}", f"{figures.floor:,.0f}",
                        f"{figures.instructions / figures.floor:.1f}", f"{limit(figures):,.0f}"])
    return lines


_TABLE = re.compile(re.escape(_line(HEADINGS)) + r"(?:\|.*\n)*")


def written_down(page):
    """Figures by name, as the page has them; empty when it has no such table."""
    found = _TABLE.search(page)
    rows = re.findall(r"^\| (\w+) \| ([\d,]+) \| ([\d,]+) \|", found[0], re.M) if found else []
    return {name: Figures(*(float(figure.replace(",", "")) for figure in figures)) for name, *figures in rows}


def with_table(page, counted):
    """The page with these figures; None when it has no table to take the place of."""
    page, count = _TABLE.subn(lambda _: table(counted), page)
    return page if count == 1 else None


# ---- The check ------------------------------------------------------------------------------------


class Verdict(NamedTuple):
    name: str
    text: str
    passed: bool
    remarks: list


def judge(name, figures, written):
    if written is None:
        return Verdict(name, f"{name}: {figures.instructions:,.0f} instructions, never written down", False,
                       [f"{name} is not in docs/performance.md: scripts/bench --write adds it"])
    text = (f"{name}: {figures.instructions:,.0f} instructions, limit {limit(written):,.0f} "
            f"(floor {figures.floor:,.0f})")
    return Verdict(name, text, figures.instructions <= limit(written), _remarks(name, figures, written))


def _remarks(name, figures, written):
    remarks = []
    change = figures.instructions / written.instructions - 1
    if change > MARGIN:
        remarks.append(f"{name} takes {change:.1%} more than was written down, and {MARGIN:.0%} are allowed. Find "
                       "what it does more; where that is worth it, scripts/bench --write writes the new figure down, "
                       "and the commit says why")
    if change < -MARGIN:
        remarks.append(f"{name} takes {-change:.1%} less than was written down: scripts/bench --write holds later "
                       "changes to it")
    if abs(figures.floor / written.floor - 1) > MARGIN:
        remarks.append(f"{name}: its floor took {written.floor:,.0f} when it was written down and takes "
                       f"{figures.floor:,.0f} now, so compiler or libraries may have changed, and not this system")
    return remarks


def judge_all(counted, written):
    """A verdict on each operation; one that was written down and is not counted any more has failed."""
    verdicts = [judge(name, figures, written.get(name)) for name, figures in counted.items()]
    return verdicts + [Verdict(name, f"{name}: not counted", False, [f"{name} was not counted"])
                       for name in written if name not in counted]
