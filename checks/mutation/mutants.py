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


# Looks like a call, but makes an object: "const" is in CALL, and "Type name(...);" is this.
DECLARATION = re.compile(r"^\t+[\w:<>*& ]+[\s*&]\w+\(")
# What may be left out: a call, a lock, and a return from within a block.
LOCK = re.compile(r"^\t+(?:const )?(?:std::(?:lock_guard|unique_lock|shared_lock|scoped_lock)|QMutexLocker|QReadLocker|QWriteLocker)\b.*;$")
RETURN = re.compile(r"^\t\t+return\b[^;]*;$")


@dataclass(frozen=True)
class Mutant:
	"""One change: text[start:end] of the file becomes `replacement`."""

	file: str
	line: int
	kind: str
	before: str
	after: str
	start: int
	end: int
	replacement: str

	def applied(self, text):
		return text[: self.start] + self.replacement + text[self.end :]

	def __str__(self):
		return f"{self.file}:{self.line} ({self.kind})\n-\t{self.before}\n+\t{self.after}"


def other_number(number):
	"""Another value of the same type: one more for a whole number, half as much again for a broken one."""
	digits, suffix = re.fullmatch(r"(0x[0-9a-fA-F]+|[\d.]+(?:[eE][-+]?\d+)?)([a-zA-Z]*)", number).groups()
	if digits.startswith("0x"):
		return hex(int(digits, 16) + 1) + suffix
	if re.fullmatch("0[0-7]+", digits):
		return f"0{int(digits, 8) + 1:o}{suffix}"
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
		changed = other_token(kind, match.group())
		source = text[: match.start()] + changed + text[match.end() :]
		line = text.count("\n", 0, match.start()) + 1
		yield Mutant(name, line, kind, shown(text, match.start(), match.end()),
			shown(source, match.start(), match.start() + len(changed)), match.start(), match.end(), changed)


def lines_with_places(text):
	place = 0
	for number, line in enumerate(text.split("\n"), 1):
		yield number, place, line
		place += len(line) + 1


def order_mutants(name, text):
	"""Two statements that follow each other, the other way round."""
	lines = list(lines_with_places(text))
	for (number, start, one), (_, _, two) in zip(lines, lines[1:]):
		first, second = CALL.match(one), CALL.match(two)
		if not first or not second or first["indent"] != second["indent"] or one == two:
			continue
		# Filling one layout and then another comes to the same.
		layouts = first["callee"].startswith("add") and second["callee"].startswith("add")
		if layouts and first["receiver"] != second["receiver"]:
			continue
		if PLAIN.fullmatch(first["callee"]) or PLAIN.fullmatch(second["callee"]):
			continue
		yield Mutant(name, number, "order", f"{one.strip()} {two.strip()}", f"{two.strip()} {one.strip()}",
			start, start + len(one) + 1 + len(two), f"{two}\n{one}")


def ends_early(lines, number):
	"""Whether the statement on this line is in a block that is entered only sometimes, so that the function goes on."""
	indent = lines[number - 1][2].index("return")
	for _, _, line in reversed(lines[: number - 1]):
		depth = len(line) - len(line.lstrip("\t"))
		if line and depth < indent:
			return re.match(r"\t+(?:if|else|\} else|for|while|case)\b", line) is not None
	return False


def left_out(name, text):
	"""A statement on one line that is not there any more."""
	lines = list(lines_with_places(text))
	for number, start, line in lines:
		if LOCK.match(line):
			kind = "lock"
		elif CALL.match(line) and not DECLARATION.match(line):
			kind = "call"
		elif RETURN.match(line) and ends_early(lines, number):
			kind = "return"
		else:
			continue
		yield Mutant(name, number, kind, line.strip(), ";", start, start + len(line), ";")


def all_mutants(root):
	mutants = []
	for path in sorted(Path(root, "src").rglob("*")):
		if path.suffix not in (".cpp", ".h"):
			continue
		text = path.read_text()
		name = str(path.relative_to(root))
		found = [*token_mutants(name, text), *order_mutants(name, text), *left_out(name, text)]
		mutants += sorted(found, key=lambda mutant: (mutant.line, mutant.kind))
	return mutants
