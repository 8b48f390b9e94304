#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""Looks for texts that translations lack; OBS shows the English ones in their place.

usage: locales.py [--complete]

Ends with a note, or, with --complete, non-zero when any is missing. Everything else that can be wrong with a
translation is looked for by the unit test locale-test.
"""

import re
import sys
from pathlib import Path

FOLDER = Path("data/locale")


def keys(path):
	"""The keys of a locale file, in their order."""
	return re.findall(r'^([^#=\s]+)="', path.read_text(encoding="utf-8"), re.MULTILINE)


def missing(folder):
	"""For each key of en-US.ini that translations lack, in its order: the names of those translations."""
	translations = {path.stem: set(keys(path)) for path in sorted(folder.glob("*.ini")) if path.stem != "en-US"}
	lacking = {key: [name for name, has in translations.items() if key not in has]
		   for key in keys(folder / "en-US.ini")}
	return {key: names for key, names in lacking.items() if names}


def main():
	found = missing(FOLDER)
	for key, names in found.items():
		print(f"{key} is missing in {' '.join(names)}")
	print("Translations lack no text." if not found else f"Translations lack {sum(map(len, found.values()))} texts.")
	sys.exit(1 if found and "--complete" in sys.argv[1:] else 0)


if __name__ == "__main__":
	main()
