# SPDX-License-Identifier: GPL-2.0-or-later
"""Puts many mutants of a source into one text, each behind a switch that is looked at when the code runs.

Compiling is what a mutant costs most. `3` becomes `(mutantIs(7) ? (4) : (3))`, a statement is left out by
`if (!mutantIs(8))`: one build holds them all, and one environment variable chooses. What must be known to the compiler
(a size, a case, a template's argument) cannot be chosen like this; the compiler says so, and that mutant is built by
itself.
"""

import re
from dataclasses import dataclass, field

STRING = r'"(?:\\.|[^"\\\n])*"'
RAW = r'R"\((?:.|\n)*?\)"'
LITERAL = rf"(?:\b(?:u8|u|U|L))?(?:{RAW}|{STRING})(?:_\w+)?"
UNIT = re.compile(
	rf"""
    (?P<skip> //[^\n]* | /\*.*?\*/ | ^[ \t]*\#[^\n]* | '(?:\\.|[^'\\\n])+' | \bstatic_assert\b[^;]*; | \bcase\b[^:]*: )
  | (?P<log> \btalvora_log\((?:[^;"]|{STRING})*\); )
  | (?P<text> QStringLiteral\(\s*(?:{LITERAL}\s*)+\) | {LITERAL}(?:\s+{LITERAL})* )
  | (?P<number> (?<![\w.])(?:0x[0-9a-fA-F]+|\d+\.\d*(?:[eE][-+]?\d+)?|\d+[eE][-+]?\d+|\d+)[a-zA-Z]* )
  | (?P<boolean> \b(?:true|false)\b )
    """,
	re.VERBOSE | re.DOTALL | re.MULTILINE,
)
HEAD = re.compile(r"\b(?:if|while) \(")
RETURNED = re.compile(r"\breturn (?=[^;{]*;)")
ASSIGNED = re.compile(r" [-+]?= (?=[^;{=]*;)")


@dataclass
class Unit:
	"""A piece of the source that is there once for each of its mutants, or a statement that may be left out."""

	start: int
	end: int
	kind: str
	mutants: list = field(default_factory=list)

	def opening(self, text, ids):
		if self.kind == "left out":
			return f"if (!mutantIs({ids[self.mutants[0]]})) "
		others = "".join(self.choice(text, mutant, ids[mutant]) for mutant in self.mutants)
		return "{ " + others + "{ " if self.kind == "statement" else f"({others}("

	def choice(self, text, mutant, number):
		# On the lines of the original, so that what the compiler says of a line is easily found.
		other = mutant.replacement + text[mutant.end : self.end]
		other = text[self.start : mutant.start] + other
		if self.kind == "statement":
			return f"if (mutantIs({number})) {{ {other} }} else "
		return f"mutantIs({number}) ? ({other}) : "

	def closing(self):
		return {"left out": "", "statement": " } }"}.get(self.kind, "))")


def closed(text, start):
	"""Where the parenthesis at `start` is closed."""
	depth = 0
	for match in re.compile(rf"{STRING}|'(?:\\.|[^'\\\n])+'|[()]").finditer(text, start):
		depth += {"(": 1, ")": -1}.get(match.group(), 0)
		if depth == 0:
			return match.start()
	return start


def units_of(text, mutants):
	"""Units that are nested or apart; each mutant is in one of them or in none."""
	tokens = [Unit(match.start(), match.end(), "statement" if match.lastgroup == "log" else "expression")
		for match in UNIT.finditer(text) if match.lastgroup != "skip"]
	wider = [Unit(match.end(), closed(text, match.end() - 1), "expression") for match in HEAD.finditer(text)]
	for pattern in (RETURNED, ASSIGNED):
		wider += [Unit(match.end(), text.index(";", match.end()), "expression") for match in pattern.finditer(text)]
	units, swaps_end = [], 0
	for mutant in mutants:
		if mutant.kind in ("call", "return"):
			start = mutant.start + len(text[mutant.start : mutant.end]) - len(text[mutant.start : mutant.end].lstrip())
			units.append(Unit(start, mutant.end, "left out", [mutant]))
		elif mutant.kind == "order":
			# Two swaps that share a statement would cross each other.
			if mutant.start >= swaps_end:
				units.append(Unit(mutant.start, mutant.end, "statement", [mutant]))
				swaps_end = mutant.end
		elif mutant.kind in ("text", "number", "boolean", "compare", "logic", "arithmetic"):
			kinds = tokens if mutant.kind in ("text", "number", "boolean") else wider
			inside = [unit for unit in kinds if unit.start <= mutant.start and mutant.end <= unit.end]
			# What is in a log line is chosen with the whole statement, which takes its text apart.
			inside = [unit for unit in tokens if unit.kind == "statement" and unit.start <= mutant.start < unit.end] or inside
			if inside:
				min(inside, key=lambda unit: unit.end - unit.start).mutants.append(mutant)
	units += [unit for unit in tokens + wider if unit.mutants]
	taken = []
	for unit in sorted(units, key=lambda unit: (unit.start, -unit.end)):
		if all(other.end <= unit.start or unit.end <= other.end for other in taken):
			taken.append(unit)
	return taken


def with_switches(text, units, ids):
	"""The source with these units, and for each of its lines the units that are on it."""
	edits = []
	for depth, unit in enumerate(units):
		edits.append((unit.start, 1, depth, unit.opening(text, ids), unit))
		edits.append((unit.end, 0, -depth, unit.closing(), unit))
	pieces, done, line, first, on_lines = [], 0, 1, {}, {}
	for place, opens, _, piece, unit in sorted(edits, key=lambda edit: edit[:3]):
		pieces += [text[done:place], piece]
		line += text.count("\n", done, place)
		if opens:
			first[id(unit)] = line
		line += piece.count("\n")
		done = place
		if not opens:
			for number in range(first[id(unit)], line + 1):
				on_lines.setdefault(number, []).append(unit)
	return "".join(pieces) + text[done:], on_lines
