"""Which mutants are planted: by rule and seed, from all sources of the five folders.

A run has `count` places. Each folder gets as many as it has of all lines of code, each kind of bug an
equal part of its folder's. A place has a row of candidates, in an order that the seed decides: the first
is planted, and the next one instead of each that does not compile or is known to change nothing. The end
of a row is of any kind, for kinds of which few compile. No candidate is in two rows, so that what becomes
of one place does not depend on any other.

A candidate's place in the order comes from the seed and from its own function and line, and from nothing
around it: when a file changes, what is drawn from the others stays nearly the same, and with it what is
known of it.
"""

import hashlib
import os
import random
import subprocess
from collections import namedtuple

import mutations
from cpp_source import Source

FOLDERS = {
    "library": "appconfig",
    "messaging": "platform/messaging",
    "store": "configsrv/store",
    "changes": "configsrv/changes",
    "access": "configsrv/access",
}

Place = namedtuple("Place", "number folder candidates")


def sources_of(root, folder):
    command = ["git", "-C", root, "ls-files", "-z", "--", FOLDERS[folder]]
    listed = subprocess.run(command, capture_output=True, check=True, text=True).stdout
    found = []
    for path in sorted(p for p in listed.split("\0") if p.endswith((".h", ".cpp"))):
        with open(os.path.join(root, path), encoding="utf-8") as file:
            found.append(Source(path, file.read()))
    return found


def shares(count, sizes):
    """`count` in whole parts, in the proportion of the sizes, and one at least for each."""
    parts = {name: 1 for name in sizes} if count >= len(sizes) else {name: 0 for name in sizes}
    total = sum(sizes.values())
    while sum(parts.values()) < count:
        parts[max(sizes, key=lambda name: count * sizes[name] / total - parts[name])] += 1
    return parts


def draw(sources, count, seed):
    """The places of a run; `sources` are lists of Source by folder."""
    sizes = {folder: sum(s.code_lines() for s in listed) for folder, listed in sources.items()}
    drawn = []
    for folder, part in shares(count, sizes).items():
        drawn += _draw_from(folder, sources[folder], part, seed)
    return [Place(number, *row) for number, row in enumerate(drawn, 1)]


def _rank(seed, source, mutation):
    name = (str(seed), mutation.kind, mutation.path, *mutations.describe(source, mutation))
    return hashlib.sha256("\0".join(name).encode()).digest()


def _draw_from(folder, listed, count, seed):
    ranked = sorted(((_rank(seed, source, mutation), mutation) for source in listed
                     for mutation in mutations.all_of(source)), key=lambda pair: pair[0])
    by_kind = {kind: [] for kind in mutations.RULES}
    reserve = []
    for rank, mutation in ranked:
        # One in five, by another digit than those that decide the order.
        (reserve if rank[-1] % 5 == 0 else by_kind[mutation.kind]).append(mutation)
    kinds = [kind for kind in by_kind if by_kind[kind]]
    random.Random(f"{seed} {folder}").shuffle(kinds)
    drawn = []
    for i in range(count if kinds else 0):
        kind, turn = kinds[i % len(kinds)], i // len(kinds)
        places_of_kind = len(range(i % len(kinds), count, len(kinds)))
        candidates = by_kind[kind][turn::places_of_kind] + reserve[i::count]
        if candidates:
            drawn.append((folder, candidates))
    return drawn
