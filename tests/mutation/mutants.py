# SPDX-License-Identifier: GPL-2.0-or-later
"""The list of mutants: every small change to the plug-in's sources that some test is expected to notice.

A mutant changes one thing in one file. The list is the same for the same sources: by file, then by place.
"""

import re
from dataclasses import dataclass
from pathlib import Path

TOKEN = re.compile(
    r"""
    (?P<skip> //[^\n]* | /\*.*?\*/ | ^[ \t]*\#[^\n]* | '(?:\\.|[^'\\\n])+' | \bstatic_assert\b[^;]*; | \balignas\([^)]*\) )
  | (?P<text> "(?:\\.|[^"\\\n])*" )
  | (?P<number> (?<![\w.])(?:0x[0-9a-fA-F]+|\d+\.\d*(?:[eE][-+]?\d+)?|\d+[eE][-+]?\d+|\d+)[a-zA-Z]* )
  | (?P<compare> [ ](?:<=|>=|<|>|==|!=)[ ] )
  | (?P<logic> [ ](?:&&|\|\|)[ ] )
  | (?P<arithmetic> [ ][-+*/%][ ] )
  | (?P<boolean> \b(?:true|false)\b )
  | (?P<extreme> \bstd::(?:min|max)\b )
    """,
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)

SWAPS = {
    " < ": " <= ", " <= ": " < ", " > ": " >= ", " >= ": " > ", " == ": " != ", " != ": " == ",
    " && ": " || ", " || ": " && ",
    " + ": " - ", " - ": " + ", " * ": " / ", " / ": " * ", " % ": " / ",
    "true": "false", "false": "true",
    "std::min": "std::max", "std::max": "std::min",
}

# A whole statement on one line that calls something: not a declaration, a return or the head of a block.
CALL = re.compile(r"^(?P<indent>\t+)(?!return\b|const\b|delete\b|static_assert\b)(?P<receiver>(?:[\w.:\[\]()]|->)*?)(?P<callee>\w+)\(.*\);$")
# What such a call does is the same before and after its neighbour: it sets a property, makes or breaks a connection,
# ends a timer, or fills one of several buffers.
PLAIN = re.compile(r"set[A-Z]\w*|(?:dis)?connect|signal_handler_\w+|obs_data_set_\w+|stop|deleteLater|discardTimer|removeMargins"
                   r"|memcpy|copy_n|resize|replace")


@dataclass(frozen=True)
class Mutant:
    file: str
    line: int
    kind: str
    before: str
    after: str
    source: str

    def __str__(self):
        return f"{self.file}:{self.line} ({self.kind})\n-\t{self.before}\n+\t{self.after}"


def other_number(number):
    """Another value of the same type: one more for a whole number, half as much again for a broken one."""
    digits, suffix = re.fullmatch(r"(0x[0-9a-fA-F]+|[\d.]+(?:[eE][-+]?\d+)?)([a-zA-Z]*)", number).groups()
    if digits.startswith("0x"):
        return hex(int(digits, 16) + 1) + suffix
    if digits.isdigit():
        return str(int(digits) + 1) + suffix
    value = float(digits)
    return repr(value * 1.5 if value else 0.5) + suffix


def other_token(kind, token):
    if kind == "text":
        return token[:-1] + '~"'
    if kind == "number":
        return other_number(token)
    return SWAPS[token]


def shown(text, start, end):
    """The lines that hold text[start:end], as one."""
    first = text.rfind("\n", 0, start) + 1
    last = text.find("\n", end)
    return " ".join(line.strip() for line in text[first:last].splitlines())


def token_mutants(name, text):
    for match in TOKEN.finditer(text):
        kind = match.lastgroup
        if kind == "skip":
            continue
        token = match.group()
        changed = other_token(kind, token)
        source = text[: match.start()] + changed + text[match.end() :]
        line = text.count("\n", 0, match.start()) + 1
        yield Mutant(name, line, kind, shown(text, match.start(), match.end()),
                     shown(source, match.start(), match.start() + len(changed)), source)


def order_mutants(name, text):
    """Two statements that follow each other, the other way round."""
    lines = text.split("\n")
    for i in range(len(lines) - 1):
        first, second = CALL.match(lines[i]), CALL.match(lines[i + 1])
        if not first or not second or first["indent"] != second["indent"] or lines[i] == lines[i + 1]:
            continue
        # Filling one layout and then another comes to the same.
        layouts = first["callee"].startswith("add") and second["callee"].startswith("add")
        if layouts and first["receiver"] != second["receiver"]:
            continue
        if PLAIN.fullmatch(first["callee"]) or PLAIN.fullmatch(second["callee"]):
            continue
        swapped = lines[:i] + [lines[i + 1], lines[i]] + lines[i + 2 :]
        yield Mutant(name, i + 1, "order", f"{lines[i].strip()} {lines[i + 1].strip()}",
                     f"{lines[i + 1].strip()} {lines[i].strip()}", "\n".join(swapped))


def all_mutants(root):
    mutants = []
    for path in sorted(Path(root, "src").glob("*")):
        if path.suffix not in (".cpp", ".h"):
            continue
        text = path.read_text()
        name = f"src/{path.name}"
        found = list(token_mutants(name, text)) + list(order_mutants(name, text))
        mutants += sorted(found, key=lambda mutant: (mutant.line, mutant.kind))
    return mutants
