"""What is wrong with the form of a comment: lines that a formatter joined or broke, labels without a
colon, words written twice; sources that do not say what they are, and sources that grew too long.

  comments.py [FILE...]    checks these files, or all that git knows; prints one line for each problem

Each check takes a path and the text of the file, and returns its problems as (line number, what).
comments_test.py plants each sort of damage. scripts/lint runs this on the tree.

How a comment is taken apart: a block is a run of lines that hold nothing but a comment, with the same
indentation. Empty lines, list items, labels ("Threads:  any.") and a change of indentation part it into
paragraphs. Lines that stand further in than the text around them are examples or tables, and lines
between "clang-format off" and "clang-format on" are what their author wants as they stand: in neither
is looked for broken lines.
"""

import os
import re
import subprocess
import sys
from typing import NamedTuple

WIDEST = 106  # columns of a comment: some past the code's 100, for whoever lays out a table by hand
LONGEST_SOURCE = 500
LONG_ENOUGH_FOR_AN_OPENING = 60
SHORTEST_OPENING = 60  # characters: shorter, it only repeats the file's name

SLASHES = (".h", ".cpp", ".proto")
HASHES = (".cmake", ".sh", "CMakeLists.txt")

# Whose sources say what they are, and how long they may be.
OPENING_FOLDERS = ("appconfig/", "platform/", "configsrv/", "tools/", "bench/", "fuzz/", "examples/", "tests/support/")
PRODUCT_FOLDERS = ("appconfig/", "platform/", "configsrv/", "tools/")

# Of a release that is out: never changed again. And bytes that look like text.
NOT_OURS = ("tests/abi/v", "fuzz/corpus/")

# Words that may follow themselves: "so that that one", "what had had to wait".
MAY_REPEAT = {"that", "had", "is", "long"}


class Line(NamedTuple):
    number: int
    column: int  # of the text, in the file
    indent: int  # of the text, behind the comment's mark
    text: str

    @property
    def end(self):
        return self.column + len(self.text)


# ---- Blocks and paragraphs -------------------------------------------------------------------------


def mark_of(path, text):
    """What a comment begins with in this file; None when it is none of those that are checked."""
    if path.endswith(SLASHES):
        return "//"
    if path.endswith(HASHES) or re.match(r"#!.*\b(ba|da)?sh\b", text):
        return "#"
    return None


def blocks(path, text):
    """Runs of lines with nothing but a comment, indented alike."""
    mark = mark_of(path, text)
    found, current, at = [], [], None
    if mark is None:
        return found
    pattern = re.compile(rf"^(\s*){re.escape(mark)}(?: (.*))?$")
    for number, line in enumerate(text.splitlines(), 1):
        match = pattern.match(line)
        if current and (match is None or len(match.group(1)) != at):
            found.append(current)
            current = []
        if match is not None:
            at = len(match.group(1))
            rest = (match.group(2) or "").rstrip()
            indent = len(rest) - len(rest.lstrip())
            current.append(Line(number, at + len(mark) + 1 + indent, indent, rest.lstrip()))
    if current:
        found.append(current)
    return found


def without_marked(block):
    """The block's lines; those from "clang-format off" to "clang-format on" are empty ones."""
    kept, off = [], False
    for line in block:
        if line.text == "clang-format off":
            off = True
        kept.append(line._replace(text="") if off or line.text == "clang-format on" else line)
        if line.text == "clang-format on":
            off = False
    return kept


ITEM = re.compile(r"^([-*]|\d+\.|\([a-z]\)) +(?=\S)")
LABEL = re.compile(r"^[A-Z][\w-]*(?: [\w-]+){0,3}: {1,}(?=\S)")
BARE_LABEL = re.compile(r"^([A-Z][\w-]*(?: [a-z][\w-]*){0,3}) {2,}(?=\S)")
HEADING = re.compile(r"^(-{3,}|={3,})")


def hang(line):
    """The indentation of the lines that go on with an item or a label; that of the line otherwise."""
    at = 0
    for pattern in (LABEL, BARE_LABEL, ITEM):
        match = pattern.match(line.text[at:])
        if match:
            at += match.end()
    return line.indent + at


def goes_on(paragraph, line):
    """Whether the line is of the paragraph, by its place and how it begins."""
    first = paragraph[0]
    if ITEM.match(line.text) or HEADING.match(line.text) or HEADING.match(first.text):
        return False
    # A label in its column begins its own paragraph; "Not so: ..." in a text goes on with it.
    if BARE_LABEL.match(line.text) or re.match(LABEL.pattern.replace("{1,}", "{2,}"), line.text):
        return False
    if len(paragraph) > 1:
        return line.indent == paragraph[1].indent
    # "ForkLock: a lock ..." may be a label or just begin a text.
    begins_text = LABEL.match(first.text) and ":  " not in first.text
    return line.indent == hang(first) or begins_text and line.indent == first.indent


def paragraphs(block):
    found = []
    for line in without_marked(block):
        if not line.text:
            found.append([])
        elif found and found[-1] and goes_on(found[-1], line):
            found[-1].append(line)
        else:
            found.append([line])
    return [paragraph for paragraph in found if paragraph]


def is_verbatim(paragraph, block):
    """Examples and tables stand further in than the text around them."""
    first = paragraph[0]
    if first.indent < 2 or hang(first) != first.indent:
        return False
    hangs = {hang(line) for line, after in zip(block, block[1:])
             if line.text and after.indent == hang(line) != line.indent}
    return first.indent not in hangs


# ---- Damage ----------------------------------------------------------------------------------------


def first_word(text):
    return text.split()[0]


def ends_sentence(text):
    return re.search(r"[.:;!?][)\"'`]*$", text) is not None


def broken_lines(path, text):
    """A line that ends early although the sentence goes on, and a word or two alone on a line."""
    problems = []
    for block in blocks(path, text):
        texts = [p for p in paragraphs(block) if not is_verbatim(p, block)]
        widest = max((line.end for paragraph in texts for line in paragraph), default=0)
        # Nobody fills lines to the last column, and a narrow block may be meant so.
        room = max(min(widest, 100), 78) - 4
        for paragraph in texts:
            for at in range(len(paragraph) - 1):
                problems += _break_after(paragraph, at, room)
    return problems


def _break_after(paragraph, at, room):
    line, following = paragraph[at], paragraph[at + 1]
    fits = line.end + 1 + len(first_word(following.text))
    if fits > room:
        return []
    goes_on_below = following.text[0].islower()
    if goes_on_below and not ends_sentence(line.text):
        return [(line.number, f"the line ends early, \"{first_word(following.text)}\" would have fitted")]
    alone = len(line.text.split()) <= 3 and at > 0 and paragraph[at - 1].end > room - 10
    if alone:
        return [(line.number, "a short line alone in the middle of a paragraph")]
    return []


def wide_lines(path, text):
    problems = []
    for block in blocks(path, text):
        for line in block:
            if line.end > WIDEST and "://" not in line.text and mark_of(path, text) == "//":
                problems.append((line.number, f"a comment's line of more than {WIDEST} columns"))
    return problems


KNOWN_LABELS = "Threads?|Owns|Errors|Shape|Limits?|Absence|Cost|Order|Rules|Faults|Failures|Example|Names|Buffer|Bytes"


def joined_lines(path, text):
    """A label in the middle of a line; columns in the middle of a text."""
    problems = []
    for block in blocks(path, text):
        for paragraph in paragraphs(block):
            if is_verbatim(paragraph, block):
                continue
            for line in paragraph:
                body = LABEL.sub("", BARE_LABEL.sub("", ITEM.sub("", line.text)))
                prose = re.sub(r"`[^`]*`|\"[^\"]*\"", "x", body)
                # "Errors: none." closes a sentence's paragraph; behind a label it is a line of its own.
                labelled = hang(paragraph[0]) != paragraph[0].indent
                if re.search(rf"\S +({KNOWN_LABELS})(:? {{2,}}{'|: ' if labelled else ''})\S", prose):
                    problems.append((line.number, "a label in the middle of a line: two lines joined"))
                elif re.search(r"\S {2,}\S", prose) and not re.search(r"\S {2,}(//|#|->|<-)", prose):
                    problems.append((line.number, "columns in the middle of a text: two lines joined, "
                                     "or a table to be set further in"))
    return problems


def joined_examples(path, text):
    """A line of an example that holds the end of one statement and the beginning of another."""
    problems = []
    for block in blocks(path, text):
        for paragraph in paragraphs(block):
            for line in paragraph if is_verbatim(paragraph, block) else ():
                code = re.sub(r"//.*|for \([^)]*\)", "", line.text)
                if re.search(r"\)\); (if|for|return|[a-z]\w*\()|; +(if|while) \(", code):
                    problems.append((line.number, "two lines of an example joined"))
    return problems


def bare_labels(path, text):
    """Labels of a header's comments carry a colon."""
    problems = []
    if not path.endswith(".h"):
        return problems
    for block in blocks(path, text):
        lines = without_marked(block)
        for at, line in enumerate(lines):
            match = BARE_LABEL.match(line.text)
            if match and line.indent == 0:
                problems.append((line.number, f"the label \"{match.group(1)}\" has no colon"))
                continue
            # A long label leaves a single blank before its text; the next line shows that it is one.
            word = re.match(r"^[A-Z][\w-]*(?= \S)", line.text)
            if word and at + 1 < len(lines) and line.indent == 0 and lines[at + 1].text \
                    and lines[at + 1].indent == word.end() + 1 and word.end() > 3:
                problems.append((line.number, f"the label \"{word.group(0)}\" has no colon"))
    return problems


def doubled_words(path, text):
    problems = []
    for block in blocks(path, text):
        for paragraph in paragraphs(block):
            if is_verbatim(paragraph, block):
                continue
            before, number = None, 0
            for line in paragraph:
                for word in re.findall(r"\S+", line.text):
                    if before is not None and word.rstrip(".,;:") == before and before.lower() not in MAY_REPEAT:
                        problems.append((line.number, f"\"{before}\" is there twice"))
                    before = word if re.fullmatch(r"[A-Za-z]+", word) else None
    return problems


# ---- Sources ---------------------------------------------------------------------------------------


def missing_openings(path, text):
    """A source that is longer than a screen opens with what it is for."""
    if not path.endswith(".cpp") or not path.startswith(OPENING_FOLDERS):
        return []
    if text.count("\n") <= LONG_ENOUGH_FOR_AN_OPENING:
        return []
    found = blocks(path, text)
    if not found or found[0][0].number != 1:
        return [(1, "opens with no comment of what it is for and how it works inside")]
    if len(" ".join(line.text for line in found[0])) < SHORTEST_OPENING:
        return [(1, "its opening comment says too little: what it is for and how it works inside")]
    return []


def long_sources(path, text):
    lines = text.count("\n")
    if not path.endswith(".cpp") or not path.startswith(PRODUCT_FOLDERS):
        return []
    return [(1, f"has {lines} lines, more than {LONGEST_SOURCE}")] if lines > LONGEST_SOURCE else []


CHECKS = (broken_lines, joined_lines, joined_examples, wide_lines, bare_labels, doubled_words, missing_openings,
          long_sources)


def problems_of(path, text):
    found = []
    for check in CHECKS:
        found += check(path, text)
    return [f"{path}:{number}: {what}" for number, what in sorted(found)]


def project_files():
    listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                            capture_output=True, check=True, text=True).stdout
    return [path for path in listed.split("\0") if path]


def main(arguments):
    problems = []
    for path in arguments or project_files():
        if path.startswith(NOT_OURS) or not os.path.isfile(path):
            continue
        with open(path, encoding="utf-8", errors="replace") as file:
            problems += problems_of(path, file.read())
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
