# SPDX-License-Identifier: GPL-2.0-or-later
"""One line of the table."""

from dataclasses import dataclass


def duration(seconds):
	"""In the unit that suits it, three digits."""
	for unit, size in (("s", 1), ("ms", 1e-3), ("µs", 1e-6)):
		if seconds >= size:
			return f"{seconds / size:.3g} {unit}"
	return f"{seconds * 1e9:.3g} ns"


@dataclass
class Row:
	"""What was measured beside its peer. Empty texts where there is nothing to say."""

	name: str
	work: str
	ours: str
	peer: str
	theirs: str
	ratio: str
	goal: str
	reached: bool | None

	def cells(self):
		verdict = {True: "yes", False: "no", None: ""}[self.reached]
		return (self.name, self.work, self.ours, self.peer, self.theirs, self.ratio, self.goal, verdict)
