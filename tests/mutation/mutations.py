"""The rules: which small bugs can be planted in a source. Each function yields those of one kind.

condition  one turned: == and !=, < and >=, > and <=, && and ||, a ! taken away, if (x) made if (!(x))
bound      one moved: < and <=, > and >=, + 1 and - 1, an integer one more or one less
call       a statement that is a call, left out
arguments  two neighbours of a call, swapped
order      two statements that follow each other, swapped
value      another one returned: true and false, {} for anything else

None of them knows types. What does not compile does not count, and another one is drawn.
"""

import re
from collections import namedtuple

import cpp_source
from cpp_source import PLAIN, RETURN

# Replaces [start, end) of the file's text.
Mutation = namedtuple("Mutation", "kind path start end new")

_TURNED = {"==": "!=", "!=": "==", "<": ">=", ">=": "<", ">": "<=", "<=": ">", "&&": "||", "||": "&&"}
_MOVED = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
_NOT_CALLED = ("if", "while", "for", "switch", "return", "sizeof", "catch", "decltype", "alignof", "noexcept",
               "static_assert", "constexpr", "alignas", "defined", "operator")
_INTEGER = re.compile(r"^(0[xX][0-9a-fA-F']+|[0-9][0-9']*)([uUlLzZ]*)$")


def all_of(source):
    """Every mutation of a source, in the order of the text."""
    found = []
    for kind, rule in RULES.items():
        for start, end, new in rule(source):
            if source.text[start:end] != new:
                found.append(Mutation(kind, source.path, start, end, new))
    return sorted(set(found), key=lambda m: (m.start, m.end, m.kind, m.new))


def apply_to(text, mutation):
    return text[:mutation.start] + mutation.new + text[mutation.end:]


def _indices(source):
    return [i for i in range(len(source.tokens)) if not source.is_out_of_bounds(i)]


def _is_operator(source, i):
    """Whether a mark joins two values: it then stands between blanks, as templates and references do not."""
    return (source.tokens[i].kind == "punctuation" and source.has_blank_before(i) and source.has_blank_after(i)
            and source.word(i - 1) != "operator" and source.word(i + 1) not in ("=", ")", ">"))


def conditions(source):
    for i in _indices(source):
        token = source.tokens[i]
        if token.text in _TURNED and _is_operator(source, i):
            yield token.start, token.end, _TURNED[token.text]
        elif token.text == "!" and not source.has_blank_after(i) and source.word(i - 1) != "operator":
            yield token.start, token.end, ""
        elif token.text == "if":
            yield from _negated(source, i)


def _negated(source, i):
    opening = i + 2 if source.word(i + 1) == "constexpr" else i + 1
    closing = source.partner.get(opening)
    if closing is None or closing >= len(source.tokens):
        return
    first, depth_free = opening + 1, []
    j = first
    while j < closing:
        depth_free.append(j)
        j = source.partner[j] + 1 if source.word(j) in ("(", "[", "{") else j + 1
    for j in depth_free:
        if source.word(j) == ";":
            first = j + 1
    if any(source.word(j) == "=" for j in depth_free if j >= first):
        return  # declares what it tests
    condition = source.span(first, closing)
    yield source.tokens[first].start, source.tokens[closing - 1].end, f"!({condition})"


def bounds(source):
    for i in _indices(source):
        token = source.tokens[i]
        if token.text in _MOVED and _is_operator(source, i):
            yield token.start, token.end, _MOVED[token.text]
        elif token.text in ("+", "-") and source.word(i + 1) == "1" and _is_operator(source, i):
            yield token.start, token.end, "-" if token.text == "+" else "+"
        elif token.kind == "number":
            yield from _other_integers(source, i)


def _other_integers(source, i):
    token = source.tokens[i]
    integer = _INTEGER.match(token.text)
    if integer is None or source.word(i - 1) == "=" and source.word(i - 2) in (")", "const", "noexcept"):
        return  # the last: a pure virtual function
    value = int(integer.group(1).replace("'", ""), 0 if "x" in token.text.lower() else 8 if _octal(token.text) else 10)
    yield token.start, token.end, f"({token.text} + 1)" if value > 1 else str(value + 1) + integer.group(2)
    if value > 0:
        yield token.start, token.end, f"({token.text} - 1)" if value > 1 else "0" + integer.group(2)


def _octal(text):
    return len(text) > 1 and text[0] == "0" and text[1] in "01234567'"


def calls(source):
    for statement in source.statements():
        if statement.kind == PLAIN and not source.is_out_of_bounds(statement.first) and _is_call(source, statement):
            yield source.tokens[statement.first].start, source.tokens[statement.last - 1].end, "{}"


def _is_call(source, statement):
    """Names joined by :: . -> with a pair of parentheses at the end, and no two names side by side."""
    i, last = statement.first, statement.last - 1  # the semicolon
    if source.word(last) != ";" or source.word(last - 1) != ")" or source.word(i) in ("static_cast", "using", "delete"):
        return False
    if source.word(i) in ("*", "::"):
        i += 1
    after_name = False
    while i < last:
        text = source.word(i)
        if text in ("(", "["):
            if not after_name:
                return text == "(" and i == statement.first and source.word(source.partner[i] + 1) in (".", "->", "(")
            i = source.partner[i] + 1
            continue
        if text == "<" and not source.has_blank_before(i):
            closing = source.closing_angle(i)
            if closing is None:
                return False
            i = closing + 1
            continue
        is_name = source.tokens[i].kind == "word"
        if is_name == after_name and is_name or not is_name and text not in ("::", ".", "->"):
            return False
        after_name = is_name
        i += 1
    return after_name


def arguments(source):
    for i in _indices(source):
        if source.word(i) != "(" or i == 0 or not source.in_block(i):
            continue
        before = source.tokens[i - 1]
        if before.kind != "word" and before.text != ">" or before.text in _NOT_CALLED:
            continue
        parts = _parts(source, i)
        for (a, b), (c, d) in zip(parts, parts[1:]):
            left, right = source.span(a, b), source.span(c, d)
            between = source.text[source.tokens[b - 1].end:source.tokens[c].start]
            yield source.tokens[a].start, source.tokens[d - 1].end, right + between + left


def _parts(source, opening):
    """The arguments between parentheses, each as its first token and the one past its last."""
    parts, first, i = [], opening + 1, opening + 1
    closing = source.partner.get(opening, opening)
    while i < closing:
        text = source.word(i)
        if text in ("(", "[", "{"):
            i = source.partner[i] + 1
            continue
        if text == "<" and not source.has_blank_before(i) and source.closing_angle(i) is not None:
            i = source.closing_angle(i) + 1
            continue
        if text == ",":
            parts.append((first, i))
            first = i + 1
        i += 1
    parts.append((first, closing))
    return [p for p in parts if p[0] < p[1]]


def orders(source):
    """Of two, one has to do something: two declarations can only fail to compile or mean the same."""
    for sequence in source.sequences:
        for one, two in zip(sequence, sequence[1:]):
            if one.last != two.first or PLAIN != one.kind or PLAIN != two.kind:
                continue
            if source.is_out_of_bounds(one.first) or source.is_out_of_bounds(two.first):
                continue
            if not (_acts(source, one) or _acts(source, two)) or _are_apart(source, one, two):
                continue
            start, end = source.tokens[one.first].start, source.tokens[two.last - 1].end
            between = source.text[source.tokens[one.last - 1].end:source.tokens[two.first].start]
            yield start, end, source.span(two.first, two.last) + between + source.span(one.first, one.last)


def _acts(source, statement):
    """Whether it is an expression: a call, an assignment, ++ or --."""
    if _is_call(source, statement):
        return True
    words = [source.word(i) for i in range(statement.first, statement.last)]
    if words[0] in ("++", "--") or words[-2:-1] in (["++"], ["--"]):
        return True
    i = statement.first + (1 if words[0] == "*" else 0)
    after_name = False
    while i < statement.last:
        text, kind = source.word(i), source.tokens[i].kind
        if after_name and (text == "=" or len(text) > 1 and text[-1] == "=" and text not in ("==", "!=", "<=", ">=")):
            return True
        if text in ("(", "[") and after_name:
            i = source.partner[i] + 1
            continue
        if kind == "word" and after_name or kind != "word" and text not in ("::", ".", "->"):
            return False
        after_name = kind == "word"
        i += 1
    return False


def _are_apart(source, one, two):
    """Whether both only assign, and neither names what the other assigns: then their order means nothing."""
    for statement, other in ((one, two), (two, one)):
        words = [source.word(i) for i in range(statement.first, statement.last)]
        if "(" in words or words.count("=") != 1 or not _acts(source, statement):
            return False
        assigned = source.span(statement.first, statement.first + words.index("="))
        if re.search(r"(?<![\w.>])" + re.escape(assigned) + r"(?!\w)", source.span(other.first, other.last)):
            return False
    return True


def values(source):
    for statement in source.statements():
        if statement.kind != RETURN or source.is_out_of_bounds(statement.first):
            continue
        first, last = statement.first + 1, statement.last - 1
        if first >= last:
            continue
        value = source.span(first, last)
        new = {"true": "false", "false": "true"}.get(value, "{}")
        if value not in ("nullptr", "0", "std::nullopt"):
            yield source.tokens[first].start, source.tokens[last - 1].end, new


RULES = {"condition": conditions, "bound": bounds, "call": calls, "arguments": arguments, "order": orders,
         "value": values}


def describe(source, mutation):
    """The function and the lines that a mutation changes, before and after, each with single blanks."""
    first, last = source.lines_around(mutation.start, mutation.end)
    before = source.text[first:last]
    after = source.text[first:mutation.start] + mutation.new + source.text[mutation.end:last]
    return source.function_around(mutation.start), normalised(before), normalised(after)


def normalised(text):
    """One blank for each run of them, and no comments."""
    words, at = [], 0
    for token in cpp_source.tokens_of(text):
        if words and text[at:token.start] != "":
            words.append(" ")
        words.append(token.text)
        at = token.end
    return "".join(words)
