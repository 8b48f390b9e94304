# SPDX-License-Identifier: GPL-2.0-or-later
"""Runs all benchmarks and rewrites the table in docs/performance.md.

usage: run.py [--rows WORD] [--keep]   --rows: only rows whose name has the word. --keep: leave the document as it is.
"""

import argparse
import datetime
import json
import os
import platform
import re
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent))

from lab.paths import BUILD, CHECKOUT, SUITE

import live
import micro
import service

DOCUMENT = CHECKOUT / "docs" / "performance.md"
BEGIN, END = "<!-- measured: rewritten by ./dev bench -->", "<!-- end of what was measured -->"
HEADINGS = ("Row", "Work", "Time", "Peer", "Its time", "Ratio", "To reach", "Reached")


def machine():
	"""The machine in a few words."""
	cpu = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text(encoding="utf-8"))
	system = re.search(r'PRETTY_NAME="(.*)"', Path("/etc/os-release").read_text(encoding="utf-8"))
	compiler = subprocess.run(["c++", "-dumpfullversion"], capture_output=True, text=True, check=True).stdout.strip()
	obs = subprocess.run(["obs", "--version"], capture_output=True, text=True, check=True).stdout.strip()
	return (f"{cpu.group(1) if cpu else platform.processor()}, {os.cpu_count()} cores, {platform.machine()}; {system.group(1)}, "
		f"gcc {compiler}, {obs}; other work took {busy_share():.0%} of the machine before the start")


def busy_share():
	"""How much of the machine is in use, over one second."""
	def sample():
		fields = [int(one) for one in Path("/proc/stat").read_text(encoding="utf-8").splitlines()[0].split()[1:]]
		return sum(fields), fields[3] + fields[4]
	before = sample()
	time.sleep(1)
	after = sample()
	return 1 - (after[1] - before[1]) / (after[0] - before[0])


def as_table(rows):
	cells = [HEADINGS, *[row.cells() for row in rows]]
	lines = [f"| {' | '.join(one)} |" for one in cells]
	lines.insert(1, "|" + "---|" * len(HEADINGS))
	return "\n".join(lines)


def as_text(rows):
	cells = [HEADINGS, *[row.cells() for row in rows]]
	widths = [max(len(one[i]) for one in cells) for i in range(len(HEADINGS))]
	return "\n".join("  ".join(text.ljust(width) for text, width in zip(one, widths)).rstrip() for one in cells)


def rewrite(rows, header):
	text = DOCUMENT.read_text(encoding="utf-8")
	before, rest = text.split(BEGIN)
	after = rest.split(END)[1]
	DOCUMENT.write_text(f"{before}{BEGIN}\n\n{header}\n\n{as_table(rows)}\n\n{END}{after}", encoding="utf-8")


def main():
	options = argparse.ArgumentParser(description=__doc__.splitlines()[0])
	options.add_argument("--rows", default="", help="only the rows whose name has this word")
	options.add_argument("--keep", action="store_true", help="leave docs/performance.md as it is")
	chosen = options.parse_args()

	header = f"{datetime.date.today().isoformat()}, {machine()}."
	out = CHECKOUT / "out" / "bench" / SUITE
	out.mkdir(parents=True, exist_ok=True)
	rows = []
	for measure in (micro.rows, live.rows, service.rows):
		rows += measure(BUILD, out, chosen.rows)
	print(header)
	print(as_text(rows))
	with (out / "history").open("a", encoding="utf-8") as history:
		history.writelines(f"{json.dumps([datetime.date.today().isoformat(), *row.cells()])}\n" for row in rows)
	(out / "table.json").write_text(json.dumps([row.cells() for row in rows], indent=1), encoding="utf-8")
	if not chosen.keep and not chosen.rows:
		rewrite(rows, header)


if __name__ == "__main__":
	main()
