# SPDX-License-Identifier: GPL-2.0-or-later
"""What OBS and Qt complain about in a run, beside what they complain about without the module."""

import re
from collections import Counter

# OBS repeats its log on the console, with levels. Qt's messages are in its log as its own; those that come before it has one,
# Qt prints itself, and that in this way.
QT_MESSAGE_PATTERN = "qt %{type}: %{message}"
_COMPLAINT = re.compile(r"^(?:qt )?(?:warning|critical|fatal|error): (.+)$", re.MULTILINE)

# A source without anything behind it, as every dub is: the module gives it its sound from outside.
_NOTHING_BEHIND = re.compile(r"Failed to create source '(.+)'!")

# What OBS says by itself, but not in every run, so that a few runs without the module may lack it.
_HARMLESS = [
	# Nobody can be reached from the lab, and OBS may end before it has noticed.
	r"Remote update of URL \".*\" failed",
	# OBS 32 says so in studio mode, of its own copies of scenes.
	r"Attempted to add Scene without specifying a canvas! Using default canvas instead\.",
	# OBS looks for this signal at every recording, and lossless ones do not have it.
	r"signal_handler_connect: signal 'file_changed' not found",
]


# OBS's mixer waits longer and longer for a source that is behind, and names it each time. A media source that begins on a busy
# machine may be behind by as much as OBS waits; a dub must never be the one.
_WAITED_FOR_LONG = r"Max audio buffering reached!"
_WAITED_FOR_A_DUB = re.compile(r"milliseconds of audio buffering, .* \(source: Talvora Dub")


def complaints(console):
	"""The messages of warning or a higher level on OBS's console, in their order."""
	return [match[1] for match in _COMPLAINT.finditer(console)]


def _normalised(line):
	"""A message without what is different in every run: addresses, numbers and temporary files."""
	return re.sub(r"\d+", "0", re.sub(r"\b0x[0-9a-f]+\b", "0", re.sub(r"/tmp/\S+", "/tmp/", line)))


def usual(runs):
	"""How often each message comes in runs without the module, of which these are the consoles: as often as in the worst."""
	counts = Counter()
	for console in runs:
		counts |= Counter(_normalised(line) for line in complaints(console))
	return counts


def _take(pattern, lines):
	"""Takes the lines that match out of a list, and returns them."""
	taken = [line for line in lines if re.search(pattern, line)]
	lines[:] = [line for line in lines if line not in taken]
	return taken


def _is_as_often(taken, count):
	return len(taken) in count if isinstance(count, range) else len(taken) == count


def faults(console, usual_counts, expected, dubs):
	"""What there is to say against a run's complaints; nothing when they are as they should be.

	usual_counts: what OBS complains about by itself, from usual(). expected: patterns of other messages, each with how often it
	has to be there, a number or a range. dubs: the names of dubs that OBS has made, as often as it has made them.
	"""
	lines = complaints(console)
	found = []
	for pattern, count in expected.items():
		taken = _take(pattern, lines)
		if not _is_as_often(taken, count):
			found.append(f"{len(taken)} lines and not {count} match {pattern!r}{': ' if taken else ''}{'; '.join(taken)}")
	for pattern in _HARMLESS if _WAITED_FOR_A_DUB.search(console) else [*_HARMLESS, _WAITED_FOR_LONG]:
		_take(pattern, lines)
	made, seen = Counter(dubs), Counter()
	for line in lines:
		seen[_normalised(line)] += 1
		empty = _NOTHING_BEHIND.fullmatch(line)
		if empty and made[empty[1]] > 0:
			made[empty[1]] -= 1
		elif seen[_normalised(line)] > usual_counts[_normalised(line)]:
			found.append(line)
	return found
