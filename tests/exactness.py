#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""Writes docs/exactness.md: what the plug-in promises, and the test that asserts it at its literal value.

usage: exactness.py [--check]

Log lines, keys, texts and interfaces are read from the sources and looked up in the tests. What cannot be read off the
sources, the constants' values and the behaviour at the edges, is written down in tests/claims.txt. Ends non-zero when
something has no test, when a test that is named does not exist, or when it does not hold the literal. With --check
nothing is written, and a table that is not up to date is a failure, too.
"""

import re
import sys
from dataclasses import dataclass, field
from pathlib import Path

CHECKOUT = Path(__file__).resolve().parents[1]
TABLE = CHECKOUT / "docs/exactness.md"
CLAIMS = CHECKOUT / "tests/claims.txt"
SHOWN_TESTS = 3

STRING = r'"(?:\\.|[^"\\\n])*"'


def plain(text):
    """C++ text with neighbouring literals joined and characters written as themselves."""
    text = re.sub(rf"{STRING}(?:\s+(?:u8|u)?{STRING})+", lambda run: '"' + "".join(
        part[1:-1] for part in re.findall(STRING, run[0])) + '"', text)
    return re.sub(r"\\u([0-9a-fA-F]{4})", lambda match: chr(int(match[1], 16)), text)


@dataclass
class Test:
    file: str
    name: str
    text: str

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
    chunks = {}
    for match in re.finditer(r"^\t\w[^\n;=({]*?(\w+)\([^\n]*\)(?: const)?(?:\n\t\{\n.*?^\t\}| \{ [^\n]* \}$)", text, re.M | re.S):
        chunks[match[1]] = match[0]
    head = r"^(?!using|namespace|class|#|//|QTEST|public|private)[A-Za-z][^\n;=({]*?(?:\w+::)?(\w+)"
    for match in re.finditer(head + r"\([^;{]*?\)(?: const)?\n\{\n.*?^\}", text, re.M | re.S):
        chunks[match[1]] = chunks.get(match[1], "") + match[0]
    for match in re.finditer(head + r"(?:\[\w*\])?(?: ?=|\{|\()[^\n]*(?:\n[\t ][^\n]*)*\n?\)*\}*;", text, re.M):
        chunks.setdefault(match[1], match[0])
    slots = set(re.findall(r"^\t?void (?:\w+::)?(\w+)\(\)$", text, re.M)) - {"init", "cleanup", "initTestCase", "cleanupTestCase"}
    for name in sorted(slots):
        if not name.endswith("_data"):
            seen = set()
            body = closure(name, chunks, seen) + closure(name + "_data", chunks, seen)
            yield Test(path.name.removesuffix(".cpp"), name, body)


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


def sources(pattern="*"):
    return {path.name: plain(path.read_text()) for path in sorted((CHECKOUT / "src").glob(pattern))
            if path.suffix in (".cpp", ".h")}


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


def keys(report, tests, section, text, prefixes):
    for word in dict.fromkeys(re.findall(r'"([A-Za-z_]\w*)"', text)):
        found = [test for test in tests if test.file.startswith(prefixes) and quoted(word).search(test.text)]
        report.add(section, f"`{word}`", found)


def locale_keys(report, tests):
    for key in re.findall(r"^([\w.]+)=", (CHECKOUT / "data/locale/en-US.ini").read_text(), re.M):
        report.add("Texts for the user", f"`{key}`", [test for test in tests if quoted(key).search(test.text)])


def interfaces(report, tests):
    said = [row for rows in report.sections.values() for row in rows]
    for name, text in sources("*.h").items():
        for kind, body in re.findall(r"^(?:class|struct) (\w+)[^\n;]*\{\n(.*?)^\};", text, re.M | re.S):
            public = []
            section = "private" if f"class {kind}" in text else "public"
            for line in body.splitlines():
                if re.match(r"(public|private|protected|Q_SIGNALS)", line):
                    section = line
                elif re.match(r"(?:public|Q_SIGNALS)", section):
                    match = re.match(r"\t(?!friend|return|\*|/)[^=(\t]*?\b(~?\w+)\(", line)
                    if match and "= delete" not in line and "override" not in line and not line.startswith(("\tQ_", "\tstd::mem", "\texplicit")):
                        public.append(match[1])
            for method in dict.fromkeys(public):
                if method.lstrip("~") == kind:
                    continue
                used = re.compile(rf"(?:\.|->|::|\b){method}\b")
                found = [test for test in tests if used.search(test.text)]
                own = [test for test in found if Path(name).stem.startswith(test.file.removesuffix("-test"))]
                found = found or [test for row in said if f"`{kind}::{method}`" in row.claim for test in row.tests]
                report.add("Interfaces", f"`{kind}::{method}`", own + [test for test in found if test not in own])


def constants():
    """Every constant of the sources: file and name to value."""
    found = {}
    for name, text in sources().items():
        head = r"^\t?(?:static )?constexpr [^=\n(]*?(\w+)(?:\[\])? = "
        for constant, value in re.findall(head + rf'((?:{STRING}|[^;"])*);', text, re.M):
            found[name, constant] = re.sub(r"\s+", " ", value)
    return found


def holds(text, literal):
    """Whether the literal stands there by itself: 2 is not in 1024."""
    before = r"(?<![\w.])" if literal[0].isdigit() else r"(?<!\w)" if literal[0].isalpha() else ""
    after = r"(?!\d|\.\d)" if literal[-1].isdigit() else r"(?!\w)" if literal[-1].isalpha() else ""
    return re.search(before + re.escape(literal) + after, text)


def claims(report, tests):
    by_name = {(test.file, test.name): test for test in tests}
    room, claim, named, note = "", "", [], ""
    values = constants()

    def finish():
        nonlocal claim, named, note
        if claim:
            report.add(room, claim, named, note)
        claim, named, note = "", [], ""

    for number, line in enumerate(CLAIMS.read_text().splitlines(), 1):
        where = f"claims.txt:{number}"
        if line.startswith("# "):
            finish()
            room = line[2:]
        elif line.startswith("- "):
            finish()
            claim = line[2:]
            constant = re.fullmatch(r"([\w.-]+\.(?:cpp|h)) (\w+)(?: = (.*))?", claim)
            if constant:
                value = values.pop((constant[1], constant[2]), None)
                if value is None or value != constant[3] and not value.startswith('"'):
                    report.holes.append(f"{where}: {constant[1]} {constant[2]} is {value}, not {constant[3]}")
                claim = f"`{constant[2]}` = `{value}` ({constant[1]})"
        elif line.startswith("  none: "):
            note = line[8:]
        elif line.startswith("  "):
            match = re.fullmatch(r"  ([\w/-]+) (\w+): (.+)", line)
            test = by_name.get((match[1], match[2])) if match else None
            if not test:
                report.holes.append(f"{where}: no such test: {line.strip()}")
                continue
            named.append(test)
            for literal in match[3].split(" ¦ "):
                if not holds(test.text, plain(literal)):
                    report.holes.append(f"{where}: {test} does not hold {literal}")
        elif line and not line.startswith("//"):
            report.holes.append(f"{where}: not a room, a claim or a test: {line}")
    finish()
    for (file, name), value in values.items():
        text = re.match(STRING, value)
        if text:
            wanted = text[0][1:-1]
            report.add("Constants that are texts", f"`{name}` ({file})", [test for test in tests if wanted in test.text])
        else:
            report.holes.append(f"claims.txt: nothing is said of {file} {name} = {value}")


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
    claims(report, tests)
    log_lines(report, tests)
    keys(report, tests, "Messages of the service: types and members",
         "".join(text for name, text in sources().items() if name == "service-messages.cpp"),
         ("service-messages", "ws-client", "obs/"))
    keys(report, tests, "Settings file: members", sources()["settings.cpp"], ("settings", "talvora-plugin", "obs/"))
    locale_keys(report, tests)
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
