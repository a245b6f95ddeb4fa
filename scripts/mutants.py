"""Finds the places in C and C++ sources where a small fault can be seeded.

A fault is one textual change at one place: a relational or logical operator
swapped, a condition negated, an integer constant changed, a call statement
or a break removed, a returned value swapped. Comments, string and character
literals and preprocessor lines are never touched. The sites of a file are
found on a masked copy of its text in which those are blanked out, so the
offsets of both texts agree.

    sites = find_sites(path, text)
    mutated = apply(text, sites[0])
"""

import re
from dataclasses import dataclass

SOURCE_SUFFIXES = (".c", ".cc", ".cpp", ".h", ".hpp")


@dataclass(frozen=True)
class Site:
    path: str
    start: int  # offset of the replaced text
    end: int
    replacement: str
    kind: str  # relational, logical, negation, constant, call, break, return
    line: int

    def describe(self, text):
        return f"{self.kind}: {text[self.start:self.end].strip()!r} -> {self.replacement.strip()!r}"


def mask(text):
    """The text with comments, literals and preprocessor lines blanked."""
    out = list(text)
    i, n = 0, len(text)
    line_start = True

    def blank(a, b):
        for k in range(a, b):
            if out[k] != "\n":
                out[k] = " "

    while i < n:
        c = text[i]
        if line_start and c == "#":
            # A directive runs to the end of the line, continued by backslashes.
            j = i
            while j < n and text[j] != "\n":
                j += 2 if text[j] == "\\" else 1
            blank(i, min(j, n))
            i = j
            continue
        if c == "\n":
            line_start = True
            i += 1
            continue
        if c in " \t":
            i += 1
            continue
        line_start = False
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            blank(i, j)
            i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            blank(i, j)
            i = j
        elif c == "R" and text.startswith('"', i + 1) and (i == 0 or not _ident(text[i - 1])):
            m = re.match(r'R"([^(\s]{0,16})\(', text[i:])
            if m is None:
                i += 1
                continue
            close = ")" + m.group(1) + '"'
            j = text.find(close, i + m.end())
            j = n if j < 0 else j + len(close)
            blank(i, j)
            i = j
        elif c in "\"'":
            if c == "'" and i > 0 and text[i - 1].isalnum():
                i += 1  # a digit separator, as in 1'000
                continue
            j = i + 1
            while j < n and text[j] != c and text[j] != "\n":
                j += 2 if text[j] == "\\" else 1
            blank(i, min(j + 1, n))
            i = j + 1
        else:
            i += 1
    return "".join(out)


def _ident(c):
    return c.isalnum() or c == "_"


def _match_paren(masked, open_at):
    depth = 0
    for k in range(open_at, len(masked)):
        if masked[k] == "(":
            depth += 1
        elif masked[k] == ")":
            depth -= 1
            if depth == 0:
                return k
    return -1


_RELATIONAL = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
_LOGICAL = {"&&": "||", "||": "&&"}
# Binary operators are written with a space on each side (clang-format), which
# tells them from template brackets, shifts, arrows and references.
_OPERATOR_RE = re.compile(r"(?<=\s)(<=|>=|==|!=|&&|\|\||<|>)(?=\s)")
_CONDITION_RE = re.compile(r"\b(if|while)\s*\(")
_INTEGER_RE = re.compile(r"(?<![\w.])(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)(?![\w.'])")
_CALL_RE = re.compile(r"(?m)^[ \t]*((?:[A-Za-z_]\w*(?:::|\.|->))*[A-Za-z_]\w*)\s*\(")
_JUMP_RE = re.compile(r"\b(break|continue)\s*;")
_RETURN_RE = re.compile(r"\breturn\s+(true|false|0|1|-1|nullptr)\s*;")
_KEYWORDS = {"if", "while", "for", "switch", "return", "sizeof", "static_assert", "catch",
             "alignof", "decltype", "defined", "case", "do", "else", "delete", "new"}


def find_sites(path, text):
    masked = mask(text)
    sites = []

    def add(start, end, replacement, kind):
        sites.append(Site(path, start, end, replacement, kind, text.count("\n", 0, start) + 1))

    for m in _OPERATOR_RE.finditer(masked):
        op = m.group(1)
        if op in _LOGICAL:
            add(m.start(), m.end(), _LOGICAL[op], "logical")
        else:
            add(m.start(), m.end(), _RELATIONAL[op], "relational")

    for m in _CONDITION_RE.finditer(masked):
        open_at = m.end() - 1
        close = _match_paren(masked, open_at)
        if close < 0 or not masked[open_at + 1:close].strip():
            continue
        inner = text[open_at + 1:close]
        if ";" in masked[open_at + 1:close]:
            continue  # an if with an initialiser
        add(open_at + 1, close, "!(" + inner + ")", "negation")

    for m in _INTEGER_RE.finditer(masked):
        digits = m.group(1)
        base = 16 if digits[:2].lower() == "0x" else (8 if len(digits) > 1 and digits[0] == "0" else 10)
        value = int(digits, base)
        changed = 1 if value == 0 else (0 if value == 1 else value + 1)
        shown = {16: hex(changed), 8: "0" + oct(changed)[2:], 10: str(changed)}[base]
        add(m.start(1), m.end(1), shown, "constant")

    for m in _CALL_RE.finditer(masked):
        name = m.group(1)
        if name.split("::")[-1] in _KEYWORDS or name in _KEYWORDS:
            continue
        open_at = m.end() - 1
        close = _match_paren(masked, open_at)
        if close < 0:
            continue
        rest = masked[close + 1:]
        semi = len(rest) - len(rest.lstrip(" \t"))
        if not rest[semi:].startswith(";"):
            continue  # a declaration, a definition or a longer expression
        start = m.start(1)
        # A statement of its own: what stands before it on earlier lines ends
        # a statement or opens/closes a block.
        before = masked[:start].rstrip()
        if before and before[-1] not in ";{}:":
            continue
        if before.endswith("::"):
            continue
        add(start, close + 1 + semi + 1, ";", "call")

    for m in _JUMP_RE.finditer(masked):
        add(m.start(), m.end(), ";", "break")

    swaps = {"true": "false", "false": "true", "0": "-1", "1": "0", "-1": "0",
             "nullptr": "nullptr"}
    for m in _RETURN_RE.finditer(masked):
        value = m.group(1)
        if value == "nullptr":
            continue
        add(m.start(1), m.end(1), swaps[value], "return")

    # A value changed by the return rule is not changed again as a constant.
    returns = {(s.start, s.end) for s in sites if s.kind == "return"}
    sites = [s for s in sites if not (s.kind == "constant" and any(
        a <= s.start and s.end <= b for a, b in returns))]
    sites.sort(key=lambda s: (s.start, s.kind))
    return sites


def apply(text, site):
    return text[:site.start] + site.replacement + text[site.end:]
