#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""Looks whether includes between the folders of the sources run in one direction: from what decides to what it is made of.

usage: includes.py

What a folder may include is in the table below; each may include its own files and those that stand in no folder.
"""

import re
import sys
from pathlib import Path

# The name "main" stands for the files beside the folders that start the program.
PLUGIN = {
	"main": {"dock", "core", "audio", "captions", "obs"},
	"dock": {"core", "sign-in", "settings", "client/ws-state.h", "obs"},
	"core": {"audio", "captions", "client", "settings", "obs"},
	"captions": {"obs"},
	"audio": {"client", "settings", "obs", "loops"},
	"client": {"settings", "loops"},
	"settings": set(), "sign-in": set(), "obs": set(), "loops": set(),
}
SERVICE = {
	"main": {"session", "engines", "sign-in", "base"},
	"session": {"engines", "sign-in", "base"},
	"engines": {"base"},
	"sign-in": {"base"},
	"base": set(),
}


def against(root, allowed):
	"""The includes that go another way than the table allows, one line each."""
	for path in sorted(path for path in Path(root).rglob("*") if path.suffix in (".cpp", ".h")):
		folder = path.relative_to(root).parts[0] if path.parent != Path(root) else "main"
		if folder not in allowed:
			yield f"{path}: the folder is not in the table of {Path(__file__).name}"
			continue
		for number, line in enumerate(path.read_text().splitlines(), 1):
			include = re.match(r'#include "(([\w-]+)/[^"]+)"', line)
			if include and include[2] != folder and not {include[1], include[2]} & allowed[folder]:
				yield f"{path}:{number}: {folder} must not include {include[1]}"


def main():
	found = [*against("src", PLUGIN), *against("service/src", SERVICE)]
	print("\n".join(found) or "The includes run in one direction.")
	sys.exit(1 if found else 0)


if __name__ == "__main__":
	main()
