"""A C++ source as the rules of mutations.py see it: tokens, brackets, statements.

No compiler: a small reader that knows as much of the language as clang-format's form of it needs. Where
it is mistaken, what it proposes does not compile, and another mutation is drawn.

Comments and lines of the preprocessor are no tokens. Of the rest, three things are out of bounds for
every rule: static_assert, the parameters of templates, and statements that do no more than write a log.
"""

import bisect
import re
from collections import namedtuple

Token = namedtuple("Token", "kind text start end")
# A statement: its first token and the one past its last, and whether it is a plain one (an expression
# or a declaration up to its semicolon), a return, or anything else.
Statement = namedtuple("Statement", "first last kind")

PLAIN, RETURN, OTHER = "plain", "return", "other"

_TOKEN = re.compile(
    r"""
    (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<raw>(?:u8|[uUL])?R"(?P<mark>[^()\s\\]{0,16})\(.*?\)(?P=mark)")
  | (?P<string>(?:u8|[uUL])?"(?:\\.|[^"\\\n])*")
  | (?P<char>(?:u8|[uUL])?'(?:\\.|[^'\\\n])+')
  | (?P<number>\.?\d(?:[eEpP][+-]|'\w|[\w.])*)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<mark_of>\.\.\.|->\*|<<=|>>=|::|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|[^\s\w])
    """,
    re.X | re.S,
)
_DIRECTIVE = re.compile(r"[ \t]*#(?:[^\n\\]|\\.)*", re.S)
_OPENING = {"(": ")", "[": "]", "{": "}"}
_CLASS_WORDS = ("class", "struct", "union", "enum")
_JUMPS = ("break", "continue", "goto", "throw", "co_return")
_LOG = re.compile(r"^(log|log_)$")
_LOG_FUNCTIONS = ("fprintf", "perror", "syslog")


def tokens_of(text):
    found, at, line_begins = [], 0, True
    while at < len(text):
        if line_begins:
            directive = _DIRECTIVE.match(text, at)
            if directive:
                at = directive.end()
                continue
        if text[at].isspace():
            line_begins = line_begins or text[at] == "\n"
            at += 1
            continue
        match = _TOKEN.match(text, at)
        line_begins = False
        if match is None:
            at += 1
            continue
        kind = match.lastgroup if match.lastgroup != "mark" else "raw"
        if kind != "comment":
            kind = {"raw": "string", "mark_of": "punctuation"}.get(kind, kind)
            found.append(Token(kind, match.group(), match.start(), match.end()))
        at = match.end()
    return found


class Source:
    def __init__(self, path, text):
        self.path = path
        self.text = text
        self.tokens = tokens_of(text)
        self.partner = self._partners()
        self.blocks = [i for i, t in enumerate(self.tokens) if t.text == "{" and self._is_block(i)]
        self.sequences = []  # lists of statements that follow each other
        for block in self.blocks:
            self._read_sequence(block + 1, self.partner[block])
        self._bounds = self._out_of_bounds()
        self._line_starts = [0] + [m.end() for m in re.finditer("\n", text)]

    def word(self, index):
        return self.tokens[index].text if 0 <= index < len(self.tokens) else ""

    def span(self, first, last):
        """The text from the first token up to the one before `last`."""
        return self.text[self.tokens[first].start:self.tokens[last - 1].end]

    def line_of(self, offset):
        return bisect.bisect_right(self._line_starts, offset)

    def lines_around(self, start, end):
        """The offsets of whole lines that hold [start, end)."""
        first = self.text.rfind("\n", 0, start) + 1
        last = self.text.find("\n", end)
        return first, len(self.text) if last < 0 else last

    def code_lines(self):
        """How many lines hold code."""
        return len({self.line_of(token.start) for token in self.tokens})

    def is_out_of_bounds(self, index):
        return any(first <= index < last for first, last in self._bounds)

    def statements(self):
        return [statement for sequence in self.sequences for statement in sequence]

    def in_block(self, index):
        return any(block < index < self.partner[block] for block in self.blocks)

    def function_around(self, offset):
        """The name of the function that holds the offset, as it is written there; or ""."""
        outer = [b for b in self.blocks
                 if self.tokens[b].start < offset < self.tokens[self.partner[b]].end]
        return self._function_name(outer[0]) if outer else ""

    def closing_angle(self, index):
        """The partner of a template's '<', as clang-format writes it: without a blank before; or None."""
        depth, i = 0, index
        while i < min(index + 200, len(self.tokens)):
            text = self.word(i)
            if text in _OPENING:
                i = self.partner[i]
            elif text == "<":
                depth += 1
            elif text in (">", ">>"):
                depth -= len(text)
                if depth <= 0:
                    return i if depth == 0 else None
            elif text in (";", "||") or text == "&&" and self.word(i + 1) not in (">", ","):
                return None
            i += 1
        return None

    def has_blank_before(self, index):
        start = self.tokens[index].start
        return start > 0 and self.text[start - 1].isspace()

    def has_blank_after(self, index):
        end = self.tokens[index].end
        return end < len(self.text) and self.text[end].isspace()

    # ---- Brackets, and which braces hold statements ----

    def _partners(self):
        partner, opened = {}, []
        for i, token in enumerate(self.tokens):
            if token.kind != "punctuation":
                continue
            if token.text in _OPENING:
                opened.append(i)
            elif token.text in _OPENING.values() and opened:
                other = opened.pop()
                partner[other], partner[i] = i, other
        for unclosed in opened:
            partner[unclosed] = len(self.tokens)
        return partner

    def _head(self, brace):
        """The first token of what stands before a brace since the last statement or brace."""
        i = brace
        while i > 0:
            before = self.word(i - 1)
            if before in (";", "{") or before == "}" and not self._ends_initializer(i - 1):
                return i
            if before == ":" and self.word(i - 2) in ("public", "private", "protected"):
                return i
            if before in (")", "]") or before == "}":
                i = self.partner.get(i - 1, i - 1)
            else:
                i -= 1
        return 0

    def _ends_initializer(self, closing):
        """Whether this brace closes one that follows a member's name in a list of initializers."""
        opening = self.partner.get(closing)
        return opening is not None and self.word(closing + 1) in ("{", ",") and opening > 0 and (
            self.tokens[opening - 1].kind == "word" and self.word(opening - 1).endswith("_"))

    def _is_block(self, brace):
        before = self.word(brace - 1)
        head = self._head(brace)
        if self._opens_class_or_namespace(head, brace):
            return False
        if before in (")", "else", "do", "try", "const", "noexcept", "override", "final", "mutable", ";"):
            return True
        if before.startswith("APPCONFIG_"):  # what is said of a function's locks
            return True
        if before == "]":
            return self.word(self.partner[brace - 1] - 1) in ("(", ",", "=", "return", "{", ";", "&&", "||")
        if before in ("{", "}"):
            outer = self._brace_around(brace)
            return outer is not None and self._is_block(outer) or before == "}" and self._ends_initializer(brace - 1)
        if before == ":":
            return True
        return self._has_trailing_return_type(head, brace)

    def _brace_around(self, index):
        depth = index - 1
        while depth >= 0:
            text = self.word(depth)
            if text == "{":
                return depth
            depth = self.partner[depth] - 1 if text in ("}", ")", "]") and depth in self.partner else depth - 1
        return None

    def _opens_class_or_namespace(self, head, brace):
        i = head
        while self.word(i) == "template" and self.word(i + 1) == "<":
            closing = self.closing_angle(i + 1)
            if closing is None:
                return False
            i = closing + 1
        while self.word(i) in ("inline", "typedef", "static", "constexpr", "extern"):
            i += 1
        if self.word(i) == "namespace" or self.tokens[i].kind == "string":
            return True
        if self.word(i) not in _CLASS_WORDS:
            return False
        return not any(self.word(j) in ("=", "(") for j in range(i, brace))

    def _has_trailing_return_type(self, head, brace):
        for i in range(brace - 1, head, -1):
            if self.word(i) == "->":
                return self.word(i - 1) in (")", "mutable", "const", "noexcept")
            if self.word(i) in ("=", "(", ",", "return", ";"):
                return False
        return False

    def _function_name(self, block):
        for i in range(self._head(block), block):
            if self.word(i) == "(" and i > 0:
                first = i - 1
                while first >= 2 and self.word(first - 1) in ("::", "~", "operator"):
                    first -= 2 if self.word(first - 1) == "::" else 1
                return self.span(first, i)
        return ""

    # ---- Statements ----

    def _read_sequence(self, first, last):
        sequence, i = [], first
        while i < last:
            i = self._read_statement(i, last, sequence)
        self.sequences.append(sequence)

    def _read_statement(self, i, last, sequence):
        """Reads one; what it holds without braces becomes a sequence of its own. Returns what follows."""
        text = self.word(i)
        if text == "{":
            end = self.partner[i] + 1
            sequence.append(Statement(i, end, OTHER))
            return end
        if text in ("if", "while", "for", "switch"):
            return self._read_controlled(i, last, sequence)
        if text == "do":
            end = self._read_part(i + 1, last)
            return self._read_to_semicolon(i, end, last, sequence, OTHER)
        if text in ("case", "default"):
            while i < last and self.word(i) != ":":
                i += 1
            return i + 1
        kind = RETURN if text == "return" else OTHER if text in _JUMPS else PLAIN
        return self._read_to_semicolon(i, i, last, sequence, kind)

    def _read_controlled(self, i, last, sequence):
        opening = i + 1
        while opening < last and self.word(opening) != "(":
            opening += 1
        end = self._read_part(self.partner.get(opening, last) + 1, last)
        while self.word(i) == "if" and self.word(end) == "else" and end < last:
            end = self._read_part(end + 1, last)
        sequence.append(Statement(i, end, OTHER))
        return end

    def _read_part(self, i, last):
        if i >= last or self.word(i) == "{":
            return self.partner[i] + 1 if i < last else last
        alone = []
        end = self._read_statement(i, last, alone)
        self.sequences.append(alone)
        return end

    def _read_to_semicolon(self, first, i, last, sequence, kind):
        while i < last and self.word(i) != ";":
            i = self.partner[i] + 1 if self.word(i) in _OPENING else i + 1
        if first < min(i + 1, last):
            sequence.append(Statement(first, min(i + 1, last), kind))
        return i + 1

    # ---- What no rule touches ----

    def _out_of_bounds(self):
        bounds = []
        for i, token in enumerate(self.tokens):
            if token.text == "static_assert" and i + 1 in self.partner:
                bounds.append((i, self.partner[i + 1] + 1))
            elif token.text == "template" and self.word(i + 1) == "<":
                closing = self.closing_angle(i + 1)
                bounds.append((i, (closing or i + 1) + 1))
        bounds += [(s.first, s.last) for s in self.statements() if self._only_logs(s)]
        return bounds

    def _only_logs(self, statement):
        if statement.kind != PLAIN:
            return False
        for i in range(statement.first, statement.last):
            if self.word(i) == "(":
                return self.word(i - 1) in _LOG_FUNCTIONS or bool(_LOG.match(self.word(i - 1)))
            if _LOG.match(self.word(i)) and self.word(i + 1) in (".", "->"):
                return True
            if self.tokens[i].kind != "word" and self.word(i) not in ("::", ".", "->"):
                return False
        return False
