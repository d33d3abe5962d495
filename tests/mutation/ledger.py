"""survivors.toml: what is known of mutants that no test notices.

An entry names its mutant by the file, the function, and the changed lines before and after, each with
single blanks and without comments: it stays true while lines move.
"""

import tomllib
from collections import namedtuple

EQUIVALENT, KEPT = "equivalent", "kept"

Entry = namedtuple("Entry", "file function line becomes verdict reason")


class Ledger:
    def __init__(self, entries=()):
        self.entries = list(entries)
        self._by_mutant = {e[:4]: e for e in self.entries}

    def entry_of(self, file, function, line, becomes):
        return self._by_mutant.get((file, function, line, becomes))


def read(path):
    """Raises ValueError, with the entry, when one is not complete."""
    with open(path, "rb") as file:
        tables = tomllib.load(file).get("survivor", [])
    entries = []
    for table in tables:
        if set(table) != set(Entry._fields) or not all(table[name] for name in ("file", "line", "becomes", "reason")):
            raise ValueError(f"{path}: an entry needs {', '.join(Entry._fields)}: {table}")
        if table["verdict"] not in (EQUIVALENT, KEPT):
            raise ValueError(f"{path}: a verdict is '{EQUIVALENT}' or '{KEPT}': {table}")
        entries.append(Entry(**table))
    return Ledger(entries)


def as_text(file, function, line, becomes):
    """An entry to be completed by hand."""
    def quoted(text):
        return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'
    rows = (("file", file), ("function", function), ("line", line), ("becomes", becomes))
    return "[[survivor]]\n" + "".join(f"{name} = {quoted(value)}\n" for name, value in rows)
