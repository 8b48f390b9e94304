# SPDX-License-Identifier: GPL-2.0-or-later
"""Faults of OBS itself, known from runs without the module, told from what looks like them and is the module's doing.

OBS's list of what it has not got rid of does not say whose fault that is: a scene that it kept itself keeps the scene's
sources. What the module held at that moment does; `reference-count` in the lab writes it into OBS's log.
"""

import re

from lab.obs import obs_version

# Where none have been given, nothing has been counted.
_HELD = r"\[reference-count\] of [1-9]\d* references the module holds: (?P<held>.*)\n.*"
# A weak reference keeps no source, and data keep none either.
_KEEPS_SOURCES = re.compile(r"(?<!weak )source '|scene item '|uncounted function '")


def lost_sources(log):
	"""Says that OBS has kept sources beyond their collection by itself; None if it has not, or if the module held any then.

	OBS 32 does so now and then when the scene has been changed.
	"""
	found = re.search(f"{_HELD}Not all sources were cleared", log)
	if obs_version() < (32,) or not found or _KEEPS_SOURCES.search(found["held"]):
		return None
	return "OBS has kept sources of which the module held none"


def lost_memory(log):
	"""Says that OBS has lost three or four pieces of memory by itself; None if it has not, or if the module held anything then.

	OBS 32 does so now and then when the scene has been changed.
	"""
	if obs_version() < (32,) or not re.search(f"{_HELD}Number of memory leaks: [34]$", log, re.MULTILINE):
		return None
	return "OBS has lost memory while the module held nothing" if holds_nothing_at_end(log) else None


def holds_nothing_at_end(log):
	"""Whether the module had given back all that it had been given when OBS had ended."""
	found = re.search(f"{_HELD}Number of memory leaks: ", log)
	return bool(found and found["held"] == "nothing")
