#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""Writes docs/exactness.md: what the plug-in promises, and the test that asserts it at its literal value.

usage: exactness.py [--check]

Log lines, keys, texts and interfaces are read from the sources and looked up in the tests; where that does not find the
test, tests/claims.txt names it. There, too, is what cannot be read off the sources: the constants' values, which must be
those of the sources, and the behaviour at the edges. Ends non-zero when something has no test, when a test that is named
does not exist, or when it does not hold the literal. With --check nothing is written, and a table that is not up to date
is a failure, too.
"""

import re
import sys
from dataclasses import dataclass, field
from functools import cache
from pathlib import Path

CHECKOUT = Path(__file__).resolve().parents[1]
TABLE = CHECKOUT / "docs/exactness.md"
CLAIMS = CHECKOUT / "tests/claims.txt"
SHOWN_TESTS = 3
SHOWN_CHARACTERS = 160

STRING = r'"(?:\\.|[^"\\\n])*"'


def plain(text):
    """C++ text with neighbouring literals joined and characters written as themselves."""
    text = re.sub(rf"{STRING}(?:\s+(?:u8|u)?{STRING})+", lambda run: '"' + "".join(
        part[1:-1] for part in re.findall(STRING, run[0])) + '"', text)
    text = re.sub(r"\\xe2\\x80\\x94", "\u2014", text)
    return re.sub(r"\\u([0-9a-fA-F]{4})", lambda match: chr(int(match[1], 16)), text)


@dataclass
class Test:
    file: str
    name: str
    text: str
    # All that the file declares, its support's headers among it.
    declared: str = ""

    def __str__(self):
        return f"{self.file} `{self.name}`"


def closure(name, chunks, seen):
    """The text of a definition and of those in the same file that it uses."""
    if name in seen or name not in chunks:
        return ""
    seen.add(name)
    text = chunks[name]
    return text + "".join(closure(word, chunks, seen) for word in sorted(set(re.findall(r"\w+", text))))


def unit_tests(path):
    text = plain(path.read_text())
    headers = [path.parent / "support" / header for header in re.findall(r'#include "([\w-]+\.h)"', text)]
    declared = code(text) + "".join(code(header.read_text()) for header in headers if header.exists())
    chunks = {}
    for match in re.finditer(r"^\t\w[^\n;=({]*?(\w+)\([^\n]*\)(?: const)?(?:\n\t\{\n.*?^\t\}| \{ [^\n]* \}$)", text, re.M | re.S):
        chunks[match[1]] = match[0]
    head = r"^(?!using|namespace|class|#|//|QTEST|public|private)[A-Za-z][^\n;=({]*?(?:\w+::)?(\w+)"
    for match in re.finditer(head + r"\([^;{]*?\)(?: const)?\n\{\n.*?^\}", text, re.M | re.S):
        chunks[match[1]] = chunks.get(match[1], "") + match[0]
    for match in re.finditer(head + r"(?:\[\w*\])?(?: ?=|\{|\()[^\n]*(?:\n[\t ][^\n]*)*\n?\)*\}*;", text, re.M):
        if match[0] not in chunks.get(match[1], ""):
            chunks[match[1]] = chunks.get(match[1], "") + match[0]
    slots = "".join(re.findall(r"^private Q_SLOTS:\n(.*?)^(?:private|public|\})", text, re.M | re.S))
    names = set(re.findall(r"^\tvoid (\w+)\(\)", slots, re.M))
    for name in sorted(names - {"init", "cleanup", "initTestCase", "cleanupTestCase"}):
        if not name.endswith("_data"):
            seen = set()
            body = closure(name, chunks, seen) + closure(name + "_data", chunks, seen)
            yield Test(path.name.removesuffix(".cpp"), name, body, declared)


def obs_tests(path):
    text = plain(path.read_text())
    chunks = {match[1]: match[0] for match in re.finditer(r"^([A-Z_]\w*) = .*?(?=^[^\s\])}]|\Z)", text, re.M | re.S)}
    for match in re.finditer(r"^def (test_\w+)\(.*?(?=^\S|\Z)", text, re.M | re.S):
        chunks[match[1]] = match[0]
    for name in [name for name in chunks if name.startswith("test_")]:
        yield Test("obs/" + path.name.removesuffix(".py"), name, closure(name, chunks, set()))


def all_tests():
    tests = []
    for path in sorted((CHECKOUT / "tests/unit").glob("*-test.cpp")):
        tests += unit_tests(path)
    for path in sorted((CHECKOUT / "tests/obs").glob("*_test.py")):
        tests += obs_tests(path)
    return tests


@dataclass
class Row:
    claim: str
    tests: list
    note: str = ""


@dataclass
class Report:
    sections: dict = field(default_factory=dict)
    holes: list = field(default_factory=list)

    def add(self, section, claim, tests, note=""):
        self.sections.setdefault(section, []).append(Row(claim, tests, note))
        if not tests and not note:
            self.holes.append(f"{section}: {claim}")


def code(text):
    """A source without comments and includes. Of a page the texts between its tags are left."""
    def kept(part):
        if part["page"] is None:
            return part["text"] or ""
        return ", ".join(f'"{shown}"' for shown in re.findall(r">([^<>{}\n]+)<", part["page"]))

    dropped = r"""//[^\n]*|/\*.*?\*/|^#include[^\n]*|'\\?"'"""
    return re.sub(rf'R"\((?P<page>.*?)\)"|(?P<text>{STRING})|{dropped}', kept, text, flags=re.M | re.S)


def sources(pattern="*"):
    return {path.name: plain(code(path.read_text())) for path in sorted((CHECKOUT / "src").glob(pattern))
            if re.search(r"\.(cpp|h)(\.in)?$", path.name)}


@cache
def homes(name):
    """The tests of a source: those named after it, else those named after what it is a part of."""
    files = [path.stem.removesuffix("-test") for path in (CHECKOUT / "tests/unit").glob("*-test.cpp")]
    stem = name.split(".")[0]
    return [file for file in files if f"{file}-".startswith(f"{stem}-")] or [
        file for file in files if f"{stem}-".startswith(f"{file}-")]


def own(test, name):
    return test.file.removesuffix("-test") in homes(name)


def log_lines(report, tests):
    seen = set()
    for text in sources().values():
        for level, line in re.findall(rf"talvora_log\((\w+),\s*({STRING})", text):
            if (level, line) in seen:
                continue
            seen.add((level, line))
            report.add("Log lines", f"{level.removeprefix('LOG_').lower()}: `{line[1:-1]}`",
                       [test for test in tests if says(test.text, line[1:-1])])


def says(text, line):
    """Whether a test holds this log line whole. Its values and its first word may be put in from outside the literal."""
    value = r'(?:[^"\n]|" \+\s[^"\n]*?\s\+\s+")*?'
    parts = re.split(r"%[-.\d]*[lz]?[a-z]", line)
    # Where a line ends with a value, the test may leave the literal before it.
    end = '' if not parts[-1] else r'["/]'
    if re.search(r'(?:["/]|\] )' + value.join(map(re.escape, parts)) + end, text):
        return True
    word, colon, rest = line.partition(": ")
    return bool(colon) and f'{word}: "' in text and says(text.replace(f'{word}: "', ""), rest)


def quoted(word):
    return re.compile(r'\\?["\']' + re.escape(word) + r'\\?["\']')


def keys(report, tests, section, file, prefixes, left):
    for word in [text for name, text in left if name == file and re.fullmatch(r"[A-Za-z_]\w*", text)]:
        del left[file, word]
        found = [test for test in tests if test.file.startswith(prefixes) and quoted(word).search(test.text)]
        report.add(section, f"`{word}`", found)


def locale_keys(report, tests, left):
    for key in re.findall(r"^([\w.]+)=", (CHECKOUT / "data/locale/en-US.ini").read_text(), re.M):
        report.add("Keys of the texts in the user's language", f"`{key}`",
                   [test for test in tests if quoted(key).search(test.text)])
        for place in [place for place in left if place[1] == key]:
            del left[place]


def texts(report, tests, left):
    for name, text in left:
        report.add("Texts", f'`"{shortened(text)}"` ({name})',
                   [test for test in tests if own(test, name) and shows(test.text, text)])


def shows(text, literal):
    """Whether a test holds this text whole. Where it begins or ends with a value or a space, the test's may go on."""
    if not re.search(r"[^\W\d_]{2}", literal):
        return quoted(literal).search(text)
    before = "" if re.match(r" |<|%\d", literal) else r"""["'>]"""
    after = "" if re.search(r"[ >]$|%\d+$", literal) else r"""["'<]"""
    return contains(text, literal, before, after)


def contains(text, literal, before=r"(?<!\w)", after=r"(?!\w)"):
    return re.search(before + r'[^"\n]*?'.join(map(re.escape, re.split(r"%\d+", literal))) + after, text)


def methods(kind, body, section):
    """The public member functions of a class's body, without constructors and what overrides."""
    found = []
    for line in body.splitlines():
        if re.match(r"(public|private|protected|Q_SIGNALS)", line):
            section = line
        elif re.match(r"(?:public|Q_SIGNALS)", section):
            match = re.match(r"\t(?!friend|return|explicit|std::mem|Q_)[^=(\t]*?(~?\b\w+)\(", line)
            if match and "= delete" not in line and "override" not in line and match[1].lstrip("~") != kind:
                found.append(match[1])
    return dict.fromkeys(found)


@cache
def objects(kind, declared):
    """A pattern of what a test calls its objects of a class: by a name, as a function gives them, or made on the spot."""
    names = re.findall(rf"\b{kind}\b(?: const)?>*\s*[*&]*\s*(?:const )?(\w+)", declared)
    names += re.findall(rf"\bauto\b[\s*&]*(\w+) = [^;]*?\b{kind}\b", declared)
    named = rf"\b(?:{'|'.join(sorted(set(names)))})(?:\(\)|\[[^]]*\])?|" if names else ""
    return rf"(?:{named}\b{kind}(?:::instance\(\)|\([^()]*\)|{{[^{{}}]*}}))"


def uses(kind, method, test):
    """Whether a test calls or connects to this member of an object of this class."""
    return method in test.text and re.search(
        rf"(?:{objects(kind, test.declared)}(?:\.|->)|\b{kind}::){method}\b", test.text)


def interfaces(report, tests):
    said = [row for rows in report.sections.values() for row in rows]

    def add(name, function, used):
        found = [test for test in tests if used(test)] or [
            test for row in said if f"`{function}`" in row.claim for test in row.tests]
        report.add("Interfaces", f"`{function}`", sorted(found, key=lambda test: not own(test, name)))

    for name, text in sources("*.h").items():
        for kind, body in re.findall(r"^(?:class|struct) (\w+)[^\n;]*\{\n(.*?)^\};", text, re.M | re.S):
            section = "private" if f"class {kind}" in text else "public"
            for method in methods(kind, body, section):
                add(name, f"{kind}::{method}", lambda test: uses(kind, method, test))
        space = "".join(re.findall(r"^namespace (\w+)", text, re.M)[:1])
        for function in re.findall(r"^(?!using|static_assert|Q_|#)[\w][^\n=({]*?(\w+)\(", text, re.M):
            full = f"{space}::{function}" if space else function
            add(name, full, lambda test: re.search(rf"(?<![\w.>:]){full}\(", test.text))


CONSTANT = re.compile(r"^(?:\t?(?:static |inline )*constexpr|\t(?:static |inline )+const|(?:static |inline )*const) "
                      r'[^=\n({]*?(\w+)(?:\[\w*\])?(?: = (?!\[)|(?={)|(?=\(["\d-]))'
                      rf'((?:{STRING}|[^;"])*);', re.M)


def constants():
    """Every constant of the sources: file and name to value."""
    return {(name, match[1]): re.sub(rf"({STRING})|\s+", lambda part: part[1] or " ", match[2])
            for name, text in sources().items() for match in CONSTANT.finditer(text)}


def literals():
    """Every other text of the sources but the log lines: file and text."""
    found = {}
    for name, text in sources().items():
        text = CONSTANT.sub("", text)
        text = re.sub(rf"static_assert\(.*?\);|talvora_log\(\w+,\s*{STRING}", "", text, flags=re.S)
        found |= {(name, literal[1:-1]): True for literal in re.findall(STRING, text)
                  if not re.fullmatch(r'"(%\d+)?"', literal)}
    return found


def holds(text, literal):
    """Whether the literal stands there by itself: 2 is not in 1024."""
    before = r"(?<![\w.])" if literal[0].isdigit() else r"(?<!\w)" if literal[0].isalpha() else ""
    after = r"(?!\d|\.\d)" if literal[-1].isdigit() else r"(?!\w)" if literal[-1].isalpha() else ""
    return re.search(before + re.escape(literal) + after, text)


FILE = r"[\w-]+\.(?:cpp|h)(?:\.in)?"


class Claims:
    """Reads tests/claims.txt. What it says of constants and texts of the sources is taken out of `values` and `left`."""

    def __init__(self, report, tests, values, left):
        self.report, self.values, self.left = report, values, left
        self.tests = {(test.file, test.name): test for test in tests}
        self.room, self.claim, self.named, self.note, self.strings = "", "", [], "", []

    def hole(self, text):
        self.report.holes.append(f"claims.txt:{self.number}: {text}")

    def read(self):
        for self.number, line in enumerate(CLAIMS.read_text().splitlines(), 1):
            if line.startswith("# "):
                self.finish()
                self.room = line[2:]
            elif line.startswith("- "):
                self.finish()
                self.begin(line[2:])
            elif line.startswith("  none: "):
                self.note = line[8:]
            elif line.startswith("  "):
                self.name_test(line.strip())
            elif line and not line.startswith("//"):
                self.hole(f"not a room, a claim or a test: {line}")
        self.finish()

    def begin(self, claim):
        self.claim = claim
        if match := re.fullmatch(rf"({FILE}) (\w+)(?: = (.*))?", claim):
            file, name, said = match.groups()
            value = self.values.pop((file, name), "")
            self.strings = [] if said else re.findall(STRING, value)
            if said != value and not self.strings:
                self.hole(f"{file} {name} is {value or 'not there'}, not {said}")
            self.claim = f"`{name}` = `{shortened(value)}` ({file})"
        elif match := re.fullmatch(rf"({FILE})((?: {STRING})+)", claim):
            for text in re.findall(STRING, match[2]):
                if not self.left.pop((match[1], text[1:-1]), None):
                    self.hole(f"{match[1]} has no text {text}")
            self.claim = f"`{match[2].strip()}` ({match[1]})"

    def name_test(self, line):
        match = re.fullmatch(r"([\w/-]+) (\w+): (.+)", line)
        test = self.tests.get((match[1], match[2])) if match else None
        if not test:
            self.hole(f"no such test: {line}")
            return
        self.named.append(test)
        for literal in match[3].split(" ¦ "):
            if not holds(test.text, plain(literal)):
                self.hole(f"{test} does not hold {literal}")

    def finish(self):
        if self.claim:
            self.report.add(self.room, self.claim, self.named, self.note)
        for string in self.strings:
            if not self.note and not any(contains(test.text, string[1:-1]) for test in self.named):
                self.hole(f"above this line: no test of it holds {string}")
        self.claim, self.named, self.note, self.strings = "", [], "", []


def unclaimed(report, values, left):
    """A constant that is a text is looked up as one; of any other something must be said."""
    for (file, name), value in values.items():
        if re.fullmatch(rf"\(?{STRING}\)?", value):
            left[file, value.strip("()")[1:-1]] = True
        else:
            report.holes.append(f"claims.txt: nothing is said of {file} {name} = {value}")


def unread(report):
    """Constants in a form that is not read would be missing without a word."""
    for file, text in sources().items():
        for line in re.findall(r"^.*(?<!if )\bconstexpr\b.*$", CONSTANT.sub("", text), re.M):
            report.holes.append(f"{file}: not read: {line.strip()}")


def shortened(text):
    return text if len(text) <= SHOWN_CHARACTERS else text[:SHOWN_CHARACTERS - 1] + "…"


def cell(text):
    return text.replace("|", "\\|")


def table(report, tests):
    rows = sum(len(section) for section in report.sections.values())
    lines = ["# What is promised, and the test that asserts it", "",
             f"Written by `./dev table` from the sources, the tests and `tests/claims.txt`: {rows} rows, {len(tests)} tests. "
             "It fails when a row has no test, or when the test does not hold the literal. Where a row has more than "
             f"{SHOWN_TESTS} tests, the first are shown.", ""]
    for section, section_rows in report.sections.items():
        lines += [f"## {section}", "", "| What | Asserted by |", "|---|---|"]
        for row in section_rows:
            shown = ", ".join(str(test) for test in row.tests[:SHOWN_TESTS])
            more = len(row.tests) - SHOWN_TESTS
            lines.append(f"| {cell(row.claim)} | {shown or 'not by a test: ' + row.note}{f', {more} more' if more > 0 else ''} |")
        lines.append("")
    return "\n".join(lines)


def main():
    tests = all_tests()
    report = Report()
    values, left = constants(), literals()
    Claims(report, tests, values, left).read()
    unclaimed(report, values, left)
    unread(report)
    log_lines(report, tests)
    keys(report, tests, "Messages of the service: types and members", "service-messages.cpp",
         ("service-messages", "ws-client", "obs/"), left)
    keys(report, tests, "Settings file: members", "settings.cpp", ("settings", "talvora-plugin", "obs/"), left)
    locale_keys(report, tests, left)
    texts(report, tests, left)
    interfaces(report, tests)

    written = table(report, tests)
    if "--check" not in sys.argv:
        TABLE.write_text(written)
    elif not TABLE.exists() or TABLE.read_text() != written:
        report.holes.append("docs/exactness.md is not up to date: run ./dev table")
    for hole in report.holes:
        print(hole, file=sys.stderr)
    print(f"{sum(len(rows) for rows in report.sections.values())} rows, {len(tests)} tests, {len(report.holes)} holes")
    sys.exit(1 if report.holes else 0)


if __name__ == "__main__":
    main()
