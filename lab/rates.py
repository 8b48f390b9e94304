# SPDX-License-Identifier: GPL-2.0-or-later
"""How often each test in a real OBS passed, of the runs whose results are given.

usage: rates.py RESULTS.xml ...   Results are JUnit's, named SUITE-N.xml. Prints a table, the least reliable test first.
"""

import sys
import xml.etree.ElementTree as ElementTree
from collections import defaultdict
from pathlib import Path


def outcomes(path):
	"""Name of each test of a run, and whether it passed; not those that were skipped."""
	for case in ElementTree.parse(path).iter("testcase"):
		kinds = {child.tag for child in case}
		if "skipped" not in kinds:
			yield f"{case.get('classname').split('.')[-1]}::{case.get('name')}", not kinds & {"failure", "error"}


def main():
	passed, run = defaultdict(int), defaultdict(int)
	for path in map(Path, sys.argv[1:]):
		for test, good in outcomes(path):
			key = path.stem.rsplit("-", 1)[0], test
			run[key] += 1
			passed[key] += good
	if not run:
		sys.exit("No test has run.")
	for suite, test in sorted(run, key=lambda key: (passed[key] / run[key], key)):
		print(f"{passed[suite, test]}/{run[suite, test]}  {suite}  {test}")
	print(f"{sum(passed.values())} of {sum(run.values())} runs of {len(run)} tests passed")


if __name__ == "__main__":
	main()
