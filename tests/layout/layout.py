"""Rules of the tree that no compiler checks: what may depend on what, that every test is run, and
how files are named.

Each check takes a Tree and returns a list of problems, one line each, empty when all is well.
layout_test.py runs them on this tree, and each on a made-up tree that breaks its rule.
"""

import json
import os
import re
import subprocess

# What each folder may depend on. docs/architecture.md shows the same table to people.
FOLDERS = {
    "base": (),
    "appconfig/core": ("base",),
    "appconfig/cache": ("base", "appconfig/core"),
    "appconfig/wire": ("appconfig/core", "platform/schema"),
    "appconfig/registry": ("base", "appconfig/core"),
    "appconfig/service": (
        "base",
        "appconfig/core",
        "appconfig/wire",
        "appconfig/registry",
        "platform/schema",
        "platform/messaging",
    ),
    "appconfig/manager": ("base", "appconfig/core", "appconfig/cache", "appconfig/service"),
    "platform/schema": ("base", "appconfig/core"),
    "platform/messaging": ("base", "platform/schema"),
    "configsrv/log": ("base",),
    "configsrv/toml": ("base",),
    "configsrv/definitions": ("base", "appconfig/core", "configsrv/toml"),
    "configsrv/access": ("base", "appconfig/core", "configsrv/toml"),
    "configsrv/in_force": ("base", "configsrv/access", "configsrv/definitions", "configsrv/toml"),
    "configsrv/store": ("base", "appconfig/core"),
    "configsrv/model": ("base", "appconfig/core", "configsrv/definitions", "configsrv/store"),
    "configsrv/subscriptions": ("base", "appconfig/core", "platform/messaging"),
    "configsrv/monitor": (
        "base",
        "appconfig/core",
        "appconfig/wire",
        "platform/schema",
        "platform/messaging",
        "configsrv/model",
    ),
    "configsrv/changes": (
        "base",
        "appconfig/core",
        "appconfig/wire",
        "platform/schema",
        "platform/messaging",
        "configsrv/log",
        "configsrv/model",
        "configsrv/store",
        "configsrv/subscriptions",
    ),
    "configsrv/audit": ("base", "appconfig/core", "configsrv/changes", "configsrv/log", "configsrv/model"),
    "configsrv/providers": (
        "base",
        "appconfig/core",
        "platform/messaging",
        "configsrv/log",
        "configsrv/subscriptions",
    ),
    "configsrv/service": (
        "base",
        "appconfig/core",
        "appconfig/wire",
        "platform/schema",
        "platform/messaging",
        "configsrv/access",
        "configsrv/audit",
        "configsrv/changes",
        "configsrv/definitions",
        "configsrv/in_force",
        "configsrv/log",
        "configsrv/model",
        "configsrv/monitor",
        "configsrv/providers",
        "configsrv/store",
        "configsrv/subscriptions",
    ),
    "configsrv/configsrvd": ("base", "platform/messaging", "configsrv/log", "configsrv/service"),
    "tools/appcfg": (
        "base",
        "appconfig/core",
        "appconfig/cache",
        "appconfig/wire",
        "appconfig/registry",
        "appconfig/service",
        "appconfig/manager",
        "platform/schema",
        "platform/messaging",
    ),
    "examples": (
        "appconfig/core",
        "appconfig/cache",
        "appconfig/registry",
        "appconfig/service",
        "appconfig/manager",
        "platform/messaging",
    ),
}

# The two places where a lower folder has to name a higher one. Each is one file (and its header),
# and a target of its own, so that the rest of its folder is linked without what it brings along.
EXCEPTIONS = {
    # The functions that applications register handlers with find the link by way of the facade.
    "appconfig/registry": ("registration", ("appconfig/service", "appconfig/manager")),
    # A notice that came in is stored in the facade's cache.
    "appconfig/service": ("dispatch", ("appconfig/manager",)),
}

# Of these folders only these headers.
HEADERS_ONLY = {
    ("platform/schema", "appconfig/core"): ("error.h",),
    # An endpoint repeats its registrations after a restart of the service, so it has to know which
    # messages are registrations and which of them are the same, and how long each message may be; it
    # looks into no other message.
    ("platform/messaging", "platform/schema"): (
        "message_bounds.h",
        "message_ids.h",
        "registration_key.h",
    ),
    # A device with a message layer of its own implements the first two; the library needs no more.
    ("appconfig/service", "platform/messaging"): ("msg.h", "pb_utils.h", "registration_refusals.h"),
    ("examples", "platform/messaging"): ("endpoint.h", "pb_utils.h"),
}

# Libraries from outside: how their headers start, and who may include them.
OUTSIDE = {
    "google/protobuf/": (
        "appconfig/wire",
        "appconfig/service",
        "platform/schema",
        "platform/messaging",
        "configsrv/changes",
        "configsrv/monitor",
        "configsrv/service",
        "tools/appcfg",
    ),
    "sqlite3.h": ("configsrv/store",),
    "toml++/": ("configsrv/toml", "tools/appcfg"),
    "CLI/": ("tools/appcfg", "configsrv/configsrvd"),
    "nlohmann/": ("tools/appcfg",),
    "gtest/": (),
    "gmock/": (),
    "benchmark/": (),
}

# The libraries' CMake targets, by the same names.
OUTSIDE_TARGETS = {
    "protobuf::": "google/protobuf/",
    "SQLite::": "sqlite3.h",
    "tomlplusplus::": "toml++/",
    "CLI11::": "CLI/",
    "nlohmann_json::": "nlohmann/",
    "GTest::": "gtest/",
    "benchmark::": "benchmark/",
}

# Folders whose files may depend on everything, and on which nothing else may.
FREE = ("tests", "bench", "fuzz")

SOURCE_SUFFIXES = (".h", ".cpp")

# Inputs of fuzz programs: bytes, some of which happen to look like text.
BYTES = "fuzz/corpus/"


class Tree:
    """The project's files below one root; paths are relative to it, with forward slashes."""

    def __init__(self, root):
        self.root = root
        self.files = sorted(_git_files(root) or _walked_files(root))
        self._texts = {}

    def text(self, path):
        if path not in self._texts:
            with open(os.path.join(self.root, path), encoding="utf-8", errors="replace") as file:
                self._texts[path] = file.read()
        return self._texts[path]

    def with_suffix(self, *suffixes):
        return [path for path in self.files if path.endswith(suffixes)]

    def sources_of(self, folder):
        return [p for p in self.with_suffix(*SOURCE_SUFFIXES) if p.startswith(folder + "/")]


def _git_files(root):
    """Tracked files and those about to be; nothing outside a git checkout."""
    command = ["git", "-C", root, "ls-files", "-z", "--cached", "--others", "--exclude-standard"]
    try:
        listed = subprocess.run(command, capture_output=True, check=True, text=True).stdout
    except (OSError, subprocess.CalledProcessError):
        return []
    return [p for p in listed.split("\0") if p and os.path.isfile(os.path.join(root, p))]


def _walked_files(root):
    """What an unpacked archive of the sources holds."""
    found = []
    for directory, subdirectories, names in os.walk(root):
        subdirectories[:] = [d for d in subdirectories if d not in (".git", "build")]
        found += [os.path.relpath(os.path.join(directory, n), root).replace(os.sep, "/") for n in names]
    return found


# ---- CMake's side: which target holds which files, and what it links -----------------------------


class Target:
    def __init__(self, name, folder):
        self.name = name
        self.folder = folder
        self.files = set()
        self.links = set()


FOLDER_KEYWORDS = ("SOURCES", "HEADERS", "INTERNAL", "USES", "USES_PRIVATELY")
LINK_KEYWORDS = ("PUBLIC", "PRIVATE", "INTERFACE")


def targets(tree):
    """All targets that the tree's CMakeLists.txt files define, by name."""
    found = {}
    lists = [p for p in tree.files if os.path.basename(p) == "CMakeLists.txt"]
    for path in lists:
        _read_definitions(tree, path, found)
    for path in lists:
        _read_link_lists(tree, path, found)
    return found


def _commands(tree, path, *names):
    text = re.sub(r"#[^\n]*", "", tree.text(path))
    for match in re.finditer(r"\b(%s)\s*\(([^()]*)\)" % "|".join(names), text):
        words = match.group(2).split()
        if words:
            yield match.group(1), words


def _read_definitions(tree, path, found):
    folder = os.path.dirname(path)
    for command, words in _commands(tree, path, "appconfig_folder", "add_library", "add_executable"):
        if words[0].startswith("$"):
            continue
        target = found.setdefault(words[0], Target(words[0], folder))
        keyword = "SOURCES"
        for word in words[1:]:
            if command == "appconfig_folder" and word in FOLDER_KEYWORDS:
                keyword = word
            elif keyword in ("USES", "USES_PRIVATELY"):
                target.links.add(word)
            elif word.endswith(SOURCE_SUFFIXES):
                target.files.add(os.path.normpath(os.path.join(folder, word)))


def _read_link_lists(tree, path, found):
    for _, words in _commands(tree, path, "target_link_libraries"):
        if words[0] in found:
            found[words[0]].links.update(w for w in words[1:] if w not in LINK_KEYWORDS)
    for _, words in _commands(tree, path, "target_sources"):
        if words[0] in found:
            folder = os.path.dirname(path)
            found[words[0]].files.update(
                os.path.normpath(os.path.join(folder, w)) for w in words[1:] if w.endswith(SOURCE_SUFFIXES)
            )


# ---- (a) what depends on what ---------------------------------------------------------------------


def row_of(path):
    """The row of FOLDERS that a path belongs to, or None."""
    rows = [row for row in FOLDERS if path == row or path.startswith(row + "/")]
    return max(rows, key=len, default=None)


def is_free(path):
    return path.split("/")[0] in FREE


def _is_exception(row, path):
    return row in EXCEPTIONS and os.path.splitext(path)[0] == f"{row}/{EXCEPTIONS[row][0]}"


def _is_exceptional(target):
    row = row_of(target.folder)
    return row in EXCEPTIONS and bool(target.files) and all(_is_exception(row, p) for p in target.files)


def _allowed_rows(row, only_exception):
    extra = EXCEPTIONS[row][1] if only_exception else ()
    return set(FOLDERS[row]) | {row} | set(extra)


def link_problems(tree):
    """No target links what its folder may not depend on."""
    known = targets(tree)
    problems = []
    for target in known.values():
        row = row_of(target.folder)
        if row is None:
            continue
        allowed = _allowed_rows(row, _is_exceptional(target))
        for link in sorted(target.links):
            if link in known:
                problems += _own_link_problems(target, known[link], row, allowed)
            else:
                problems += _outside_link_problems(target, link)
    return problems


def _own_link_problems(target, linked, row, allowed):
    if row_of(linked.folder) in allowed or linked.folder == "appconfig" and row in ("tools/appcfg", "examples"):
        return []
    if row_of(linked.folder) is None and not is_free(linked.folder):
        return []  # the flags, and other targets without code
    return [f"{target.folder}: {target.name} may not link {linked.name} of {linked.folder}"]


def _may_use_outside(path, library):
    return any(path == user or path.startswith(user + "/") for user in OUTSIDE[library])


def _outside_link_problems(target, link):
    for prefix, library in OUTSIDE_TARGETS.items():
        if link.startswith(prefix) and not _may_use_outside(target.folder, library):
            return [f"{target.folder}: {target.name} may not link {link}"]
    return []


def include_problems(tree):
    """No file includes what its folder may not, nor what its target does not link."""
    known = targets(tree)
    existing = set(tree.files)
    problems = []
    for path in tree.with_suffix(*SOURCE_SUFFIXES):
        if row_of(path) is None and not is_free(path):
            problems.append(f"{path}: its folder is in no row of the table of folders")
            continue
        for form, name in re.findall(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', tree.text(path), re.M):
            if form == "<":
                problems += _angle_problems(tree, path, name)
            elif name not in existing and not name.endswith(".pb.h"):
                problems.append(f'{path}: "{name}" is no file of the tree, named from its root')
            elif not is_free(path):
                problems += _quoted_problems(known, path, name)
    return problems


def _angle_problems(tree, path, name):
    if is_free(path):
        return []
    if name in tree.files:
        return [f"{path}: <{name}> is the project's own and goes in quotes"]
    for prefix in OUTSIDE:
        if name.startswith(prefix) and not _may_use_outside(path, prefix):
            return [f"{path}: may not include <{name}>"]
    if path == "appconfig/core/fork_lock.cpp" and name == "pthread.h":
        return []  # forks are no part of the standard library
    if path.startswith("appconfig/core/") and ("/" in name or "." in name or name in ("thread", "fstream")):
        return [f"{path}: core includes the standard library alone, and does no I/O: <{name}>"]
    return []


def _quoted_problems(known, path, name):
    row, included = row_of(path), row_of(name)
    if included is None or included not in _allowed_rows(row, _is_exception(row, path)):
        return [f"{path}: {row} may not include {name}"]
    if included == row:
        return []
    only = HEADERS_ONLY.get((row, included))
    if only and os.path.basename(name) not in only:
        return [f"{path}: of {included}, {row} may include only {', '.join(only)}, not {name}"]
    return _unlinked_problems(known, path, name)


def _unlinked_problems(known, path, name):
    folder, needed = os.path.dirname(path), os.path.dirname(name)
    folder, needed = (f[: -len("/internal")] if f.endswith("/internal") else f for f in (folder, needed))
    if folder == needed:
        return []
    owners = [t for t in known.values() if path in t.files] or [
        t for t in known.values() if t.folder == folder
    ]
    for owner in owners:
        linked = {known[link].folder for link in owner.links if link in known}
        if needed not in linked and "appconfig" not in linked:
            return [f"{path}: includes {name}, but {owner.name} does not link {needed}"]
    return []


def cycle_problems(tree):
    """No folder depends on itself by way of others, the two exceptions left aside."""
    known = {n: t for n, t in targets(tree).items() if not _is_exceptional(t)}
    done, problems = set(), []

    def visit(name, path):
        if name in path:
            problems.append("link lists form a ring: " + " -> ".join(path[path.index(name):] + [name]))
        elif name not in done:
            for link in sorted(known[name].links & known.keys()):
                visit(link, path + [name])
            done.add(name)

    for name in sorted(known):
        visit(name, [])
    return problems


def orphan_problems(tree):
    """Every source is in a target, or nobody builds it; so is every header that others may include,
    or nobody checks that it compiles alone. What lies in internal/ need not be listed."""
    known = targets(tree)
    listed = set().union(*(t.files for t in known.values())) if known else set()
    folders = {t.folder for t in known.values() if any(f.endswith(".h") for f in t.files)}
    problems = []
    for path in tree.with_suffix(*SOURCE_SUFFIXES):
        if path in listed or not row_of(path):
            continue
        if path.endswith(".cpp") or os.path.dirname(path) in folders:
            problems.append(f"{path}: in no target of its folder's CMakeLists.txt")
    return problems


def application_header_problems(tree):
    """What applications include brings no generated header and no message library with it."""
    entry = ["appconfig/manager/app_cfg_manager.h", "appconfig/registry/registration.h",
             "platform/messaging/endpoint.h"]
    queue = [(path, path) for path in entry if path in tree.files]
    seen, problems = set(), []
    while queue:
        path, way = queue.pop()
        if path in seen:
            continue
        seen.add(path)
        for name in re.findall(r'^\s*#\s*include\s*[<"]([^>"]+)[>"]', tree.text(path), re.M):
            if name.endswith(".pb.h") or name.startswith("google/protobuf/"):
                problems.append(f"{way}: brings {name} into applications")
            elif name in tree.files:
                queue.append((name, f"{way} -> {name}"))
    return problems


def document_problems(tree, document="docs/architecture.md"):
    """The table that people read says what is checked here."""
    written = {}
    for line in tree.text(document).splitlines():
        cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
        names = re.findall(r"`([^`]+)`", cells[0])
        if len(cells) == 3 and len(names) == 1 and names[0].rstrip("/") in FOLDERS:
            written[names[0].rstrip("/")] = set(re.findall(r"`([^`]+)`", cells[2].split(";")[0]))
    problems = []
    for folder, allowed in FOLDERS.items():
        if folder not in written:
            problems.append(f"{document}: has no row for {folder}")
        elif written[folder] != set(allowed):
            problems.append(f"{document}: row {folder} says {sorted(written[folder])}, not {sorted(allowed)}")
    return problems


# ---- (b) every test is run -------------------------------------------------------------------------


def unrun_test_problems(tree, compile_commands, ctest_listing):
    """Every *_test.cpp and *_fuzz.cpp is compiled into a program that ctest runs, every *_test.py is
    run by it."""
    programs = {}
    for entry in compile_commands:
        target = re.search(r" -o \S*CMakeFiles/([^/\s]+)\.dir/", entry["command"])
        if target:
            programs.setdefault(os.path.realpath(entry["file"]), set()).add(target.group(1))
    run = set()
    for test in ctest_listing.get("tests", []):
        # A program that is not built yet has one test in its place.
        run.add(re.sub(r"_NOT_BUILT$", "", test["name"]))
        run.update(os.path.basename(word) for word in test.get("command", []))
    problems = []
    for path in tree.with_suffix("_test.cpp", "_test.py", "_fuzz.cpp"):
        if path.endswith("_fuzz.cpp") != path.startswith("fuzz/"):
            problems.append(f"{path}: fuzz programs live in fuzz/, and nothing else does")
        elif not path.startswith(("tests/", "fuzz/")):
            problems.append(f"{path}: tests live below tests/")
        elif path.endswith(".py") and os.path.basename(path) not in run:
            problems.append(f"{path}: ctest does not run it")
        elif path.endswith(".cpp"):
            built_into = programs.get(os.path.realpath(os.path.join(tree.root, path)), set())
            if not built_into:
                problems.append(f"{path}: in no CMake target")
            elif not built_into & run:
                problems.append(f"{path}: built into {', '.join(sorted(built_into))}, which ctest does not run")
    return problems


def read_build(build_dir):
    """The two inputs of unrun_test_problems, from a configured build directory."""
    with open(os.path.join(build_dir, "compile_commands.json"), encoding="utf-8") as file:
        compile_commands = json.load(file)
    listing = subprocess.run(
        ["ctest", "--test-dir", build_dir, "--show-only=json-v1"], capture_output=True, check=True, text=True
    ).stdout
    return compile_commands, json.loads(listing)


# ---- (c) names, (d) text ---------------------------------------------------------------------------


def naming_problems(tree):
    problems = []
    for path in tree.with_suffix(".h", ".cpp", ".py", ".proto"):
        for part in path.split("/")[:-1] + [path.split("/")[-1].rsplit(".", 1)[0]]:
            if not re.fullmatch(r"\.?[a-z0-9]+(_[a-z0-9]+)*", part):
                problems.append(f"{path}: {part} is not lower_snake")
    return problems


def pragma_problems(tree):
    return [
        f"{path}: has no #pragma once"
        for path in tree.with_suffix(".h")
        if not re.search(r"^#pragma once$", tree.text(path), re.M)
    ]


# Text that points at something that a reader of this tree does not have. The letters in brackets
# keep the patterns from finding themselves.
OUTWARD_TEXT = (
    (re.compile(r"(?<![\w.})-])/(home|root|Users|tmp|wor[k]|far[m])/[\w.]"), "a path of one machine"),
    (re.compile(r"\b(the spe[c]\b|spe[c]\.md\b|specificatio[n] (says|part|requires))", re.I),
     "a document that is not in the tree"),
    (re.compile(r"\bPart[s]? [1-9]\.[1-9]\b", re.I), "a numbered section of no document here"),
)


def text_problems(tree):
    problems = []
    for path in tree.files:
        if path.startswith(BYTES) or "\0" in tree.text(path):
            continue
        for number, line in enumerate(tree.text(path).splitlines(), 1):
            for pattern, what in OUTWARD_TEXT:
                match = pattern.search(line)
                # A template for mkdtemp is a path of every machine.
                if match and "XXXXXX" not in line:
                    problems.append(f"{path}:{number}: {what}: {match.group(0)}")
    return problems


def _anchors(tree, path, target):
    """What the headings of the page that a link leads to are called in links."""
    page = os.path.normpath(os.path.join(os.path.dirname(path), target)) if target else path
    if page not in tree.files:
        return []
    text = re.sub(r"^```.*?^```", "", tree.text(page), flags=re.M | re.S)
    headings = re.findall(r"^#+ (.*)$", text, re.M)
    return [re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings]


def dead_link_problems(tree):
    """A page's links into the tree lead somewhere, and to a heading that is there."""
    problems = []
    for path in tree.with_suffix(".md"):
        prose = re.sub(r"^```.*?^```|`[^`\n]*`", "", tree.text(path), flags=re.M | re.S)
        for link in re.findall(r"\]\(([^)\s]+)\)", prose):
            target, _, anchor = link.partition("#")
            if anchor and "://" not in link and anchor not in _anchors(tree, path, target):
                problems.append(f"{path}: {link} leads to no heading")
            if target and "://" not in target and not target.startswith("mailto:"):
                leads_to = os.path.join(tree.root, os.path.dirname(path), target)
                if not os.path.exists(leads_to):
                    problems.append(f"{path}: {link} leads nowhere")
    return problems


def unlisted_decision_problems(tree, folder="docs/decisions"):
    """The index of decisions names every page."""
    index = f"{folder}/README.md"
    return [
        f"{index}: does not list {os.path.basename(path)}"
        for path in tree.with_suffix(".md")
        if os.path.dirname(path) == folder and path != index and f"({os.path.basename(path)})" not in tree.text(index)
    ]
