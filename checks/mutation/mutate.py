#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""Changes the plug-in's sources in small ways, one at a time, and tells which changes no unit test notices.

Most mutants are in one build and chosen when a test runs (switchboard.py), so that each costs no compilation but only
the test functions that come by it, the most particular first, until one fails. The others are compiled, each in its
turn. A lock that is missing is looked for with the thread sanitizer, in the tests labelled "threads". What is found is
kept in out/mutants and not tried again while the source, or for survivors any test, is the same. Mutants that
checks/mutation/equivalent.txt explains are not tried. Ends non-zero when fewer than 95 of 100 are caught.
"""

import argparse
import concurrent.futures
import hashlib
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import xml.etree.ElementTree as xml
from collections import defaultdict
from pathlib import Path

from mutants import all_mutants
from switchboard import units_of, with_switches

CHECKOUT = Path(__file__).resolve().parents[2]
BUILD = CHECKOUT / f"build/{os.environ.get('TALVORA_SUITE', 'host')}-mutate"
COPIED = ("CMakeLists.txt", "cmake", "data", "src", "tests/unit", "tests/fuzz", "tests/sanitizers")
REQUIRED_PERCENT = 95
LIBRARY = "src/libtalvora-core.so"
KINDS = ("text", "number", "compare", "logic", "arithmetic", "boolean", "extreme", "order", "call", "lock", "return")

# Tests that look at a file first, where their names do not begin with the file's.
TESTS_OF = {
	"audio-capture": ["audio-capture-test", "talvora-plugin-test"],
	"caption-css": ["caption-css-test", "caption-manager-test"],
	"caption-source": ["caption-manager-test"],
	"caption-state": ["caption-manager-test"],
	"caption-style": ["caption-css-test", "caption-manager-test", "talvora-plugin-test"],
	"capture-converter": ["capture-converter-test", "bit-identity-test"],
	"client-thread": ["client-thread-test", "talvora-plugin-test"],
	"dubbed-outputs": ["dubbed-outputs-test", "talvora-plugin-test"],
	"dubbed-source": ["dubbed-source-test", "talvora-plugin-test"],
	"gain-ramp": ["gain-ramp-test", "bit-identity-test"],
	"account-section": ["plugin-dock-auth-test"],
	"audio-source-rows": ["plugin-dock-settings-test"],
	"caption-rows": ["plugin-dock-settings-test"],
	"dock-widgets": ["plugin-dock-settings-test", "plugin-dock-test", "plugin-dock-auth-test"],
	"email-sign-in": ["plugin-dock-auth-test"],
	"language-rows": ["plugin-dock-languages-test"],
	"language-table": ["plugin-dock-languages-test"],
	"level-rows": ["plugin-dock-settings-test"],
	"plugin-support": ["plugin-main-test"],
	"session-panel": ["plugin-dock-test"],
	"settings-section": ["plugin-dock-settings-test"],
	"sign-in-panel": ["plugin-dock-auth-test"],
	"sample-loops": ["bit-identity-test", "bit-identity-common-test", "capture-converter-test", "dubbed-source-test"],
	"speech-resampler": ["speech-queue-test", "bit-identity-test", "dubbed-source-test"],
	"tts-assembler": ["tts-assembler-test", "bit-identity-test"],
	"transcript-view": ["plugin-dock-test"],
	"usage-section": ["plugin-dock-test"],
	"wheel-guard": ["plugin-dock-test"],
	"ws-state": ["ws-client-test", "plugin-dock-test"],
}
# Reads the sources as text, which here is not the plug-in's.
READERS = {"locale-test"}
# Listens where the web sign-in is, of which there is one.
ALONE = {"plugin-dock-auth-test"}


def read_equivalents():
	"""Blocks of three lines: the file, the line before and after the change; what follows is the reason, for readers."""
	explained = set()
	for block in (CHECKOUT / "checks/mutation/equivalent.txt").read_text().split("\n\n"):
		lines = [line for line in block.splitlines() if not line.startswith("#")]
		if not lines:
			continue
		if len(lines) < 4 or not lines[1].startswith("-\t") or not lines[2].startswith("+\t"):
			sys.exit(f"equivalent.txt: this block is not a file, a line before, a line after and a reason:\n{block}")
		explained.add((lines[0], lines[1][2:], lines[2][2:]))
	return explained


def change_of(mutant):
	return mutant.file, mutant.before, mutant.after


def digest_of(*texts):
	return hashlib.sha256("\n".join(map(str, texts)).encode()).hexdigest()[:16]


def sample_of(mutants, count, seed):
	"""The same mutants for the same seed, whatever else the sources say meanwhile."""
	return sorted(mutants, key=lambda mutant: digest_of(seed, *change_of(mutant)))[:count]


def changed_lines(revision):
	"""(file, line) of every line of the sources that was not there in that revision."""
	git = ["git", "-c", f"safe.directory={CHECKOUT}", "-C", str(CHECKOUT), "diff", "-U0", revision, "--", "src"]
	lines, file = set(), None
	for line in subprocess.run(git, check=True, capture_output=True, text=True).stdout.splitlines():
		if line.startswith("+++ b/"):
			file = line[6:]
		elif hunk := re.match(r"@@ .* \+(\d+)(?:,(\d+))? @@", line):
			first, count = int(hunk[1]), int(hunk[2] or 1)
			lines |= {(file, number) for number in range(first, first + count)}
	return lines


class State:
	"""Verdicts by content: the source's for what was caught, that of all sources and tests for what was not."""

	def __init__(self, path, sources):
		self.path = path
		self.lock = threading.Lock()
		self.lines = [json.loads(line) for line in path.read_text().splitlines()] if path.exists() else []
		self.known = {line["key"]: line["by"] for line in self.lines}
		self.sources = sources
		files = sorted(CHECKOUT.glob("tests/unit/**/*"))
		self.tests = digest_of(*(file.read_text() for file in files if file.suffix in (".cpp", ".h", ".txt")))
		self.all = digest_of(self.tests, *(sources[name] for name in sorted(sources)))

	def key(self, mutant):
		return digest_of(self.sources[mutant.file], mutant.kind, mutant.start, mutant.replacement)

	def verdict(self, mutant):
		"""What caught it, "" for a survivor, None when it has not been tried."""
		caught = self.known.get(self.key(mutant))
		return caught if caught is not None else self.known.get(self.key(mutant) + self.all)

	def note(self, mutant, by):
		key = self.key(mutant) if by else self.key(mutant) + self.all
		with self.lock:
			self.known[key] = by
			self.path.parent.mkdir(parents=True, exist_ok=True)
			with self.path.open("a") as file:
				line = {"key": key, "by": by, "file": mutant.file, "line": mutant.line, "kind": mutant.kind,
						"before": mutant.before, "after": mutant.after}
				file.write(json.dumps(line) + "\n")


class Tree:
	"""A copy of the checkout whose core is a shared library, and its build."""

	def __init__(self, name, *options):
		self.root = BUILD / name
		self.build = self.root / "build"
		self.options = options

	def prepare(self, sources):
		"""Copies everything, with these texts for the sources."""
		for name in COPIED:
			copy_changed(CHECKOUT / name, self.root / name, {self.root / file: text for file, text in sources.items()})
		subprocess.run(["cmake", "-S", self.root, "-B", self.build, "-G", "Ninja", "--log-level=ERROR",
			# A changed library is a matter for those that load it, not for the linker.
			"-DBUILD_SHARED_LIBS=ON", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON",
			# Not every program calls what of the library wants OBS's front-end.
			"-DCMAKE_EXE_LINKER_FLAGS=-Wl,--allow-shlib-undefined",
			"-DTALVORA_BUILD_TESTS=ON", "-DTALVORA_PRECOMPILE=ON", *self.options],
			check=True, stdout=subprocess.DEVNULL)
		targets = subprocess.run(["ninja", "-C", self.build, "-t", "targets", "all"], capture_output=True, text=True).stdout
		self.tests = sorted(set(re.findall(r"^tests/unit/([\w-]+-test): CXX_EXECUTABLE", targets, re.MULTILINE)) - READERS)

	def labelled(self, label):
		shown = subprocess.run(["ctest", "--test-dir", self.build, "-L", label, "--show-only=json-v1"],
			check=True, capture_output=True, text=True).stdout
		return [test["name"] for test in json.loads(shown)["tests"] if test["name"] in self.tests]

	def make(self, *targets):
		"""What the build said when it failed, else nothing."""
		done = subprocess.run(["ninja", "-C", self.build, "-k", "0", *targets], capture_output=True, text=True)
		return done.stdout if done.returncode else ""

	def write(self, file, text):
		(self.root / file).write_text(text)


class Unfit(Exception):
	"""A test that fails without any change."""


class Runner:
	"""Runs tests of a tree, several at the same time."""

	def __init__(self, tree, display, environment):
		self.tree = tree
		self.environment = os.environ | {"QT_QPA_PLATFORM": "offscreen", "DISPLAY": display} | environment
		self.alone = defaultdict(threading.Lock)
		self.seconds = {}

	def failing(self, test, functions=(), limit=600.0, **environment):
		"""The first function of the test that fails, "it" for another end than a failing function, or None."""
		lock = self.alone[test] if test in ALONE else threading.Lock()
		with lock, tempfile.TemporaryDirectory() as home:
			process = subprocess.Popen([self.tree.build / "tests/unit" / test, *functions], cwd=home,
				env=self.environment | environment | {"HOME": home}, text=True, errors="replace",
				stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
			timer = threading.Timer(limit, end_group, [process])
			timer.start()
			try:
				said = []
				for line in process.stdout:
					said.append(line)
					if failed := re.match(r"FAIL!  : \w+::(\w+)\(", line):
						end_group(process)
						self.said = "".join(said)
						return failed[1]
				self.said = "".join(said)
				return "it" if process.wait() else None
			finally:
				timer.cancel()
				end_group(process)
				process.wait()
				process.stdout.close()

	def measure(self, test, **environment):
		"""Runs a test that must pass, and notes how long it and its functions take."""
		with tempfile.TemporaryDirectory() as folder:
			arguments = ("-o", f"{folder}/times.xml,junitxml", "-o", "-,txt")
			for _ in range(3):
				started = time.monotonic()
				if not self.failing(test, arguments, **environment):
					break
			else:
				raise Unfit(f"{test} fails without any change:\n{self.said[-3000:]}")
			self.seconds[test] = time.monotonic() - started
			for case in xml.parse(f"{folder}/times.xml").iter("testcase"):
				name = case.get("name").split("(")[0]
				key = test, name
				self.seconds[key] = self.seconds.get(key, 0) + float(case.get("time", 0))

	def limit(self, test, functions=()):
		known = [self.seconds.get((test, function), 0) for function in functions] or [self.seconds.get(test, 60)]
		return 30 + 5 * sum(known)


def end_group(process):
	try:
		os.killpg(process.pid, signal.SIGKILL)
	except ProcessLookupError:
		pass


def copy_changed(source, target, texts):
	"""Copies a file or a folder; what is already the same keeps its time, so that it is not built again."""
	if source.is_dir():
		target.mkdir(parents=True, exist_ok=True)
		names = {path.name for path in source.iterdir()} | {path.name for path in texts if path.parent == target}
		for path in target.iterdir():
			if path.name not in names:
				shutil.rmtree(path) if path.is_dir() else path.unlink()
		for path in source.iterdir():
			copy_changed(path, target / path.name, texts)
		for path in texts:
			if path.parent == target and not (source / path.name).exists():
				write_changed(path, texts[path].encode())
	else:
		target.parent.mkdir(parents=True, exist_ok=True)
		write_changed(target, texts[target].encode() if target in texts else source.read_bytes())


def write_changed(target, content):
	if not target.exists() or target.read_bytes() != content:
		target.write_bytes(content)


class Switchboard:
	"""The build with most of the mutants in it, and who comes by each."""

	def __init__(self, sources, mutants, display):
		self.sources = sources
		self.units = {name: units_of(text, [mutant for mutant in mutants if mutant.file == name])
			for name, text in sources.items()}
		self.ids = {mutant: number for number, mutant in enumerate(mutants)}
		self.tree = Tree("all", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DCMAKE_CXX_COMPILER=clang++",
			f"-DCMAKE_CXX_FLAGS=-include {BUILD}/all/src/mutation-switch.h -Werror=vla-extension -ferror-limit=0")
		self.runner = Runner(self.tree, display, {})
		self.texts = {f"src/mutation-{name}": (CHECKOUT / "checks/mutation" / name).read_text().replace('"switch.h"', '"mutation-switch.h"')
			for name in ("switch.h", "switch.cpp")}
		self.texts["src/CMakeLists.txt"] = ((CHECKOUT / "src/CMakeLists.txt").read_text() +
			"target_sources(talvora-core PRIVATE mutation-switch.cpp)\n")
		self.functions = defaultdict(lambda: defaultdict(set))
		self.reach = defaultdict(int)

	def build(self):
		"""What the compiler must know cannot be switched: it is taken out until everything compiles."""
		remembered = CHECKOUT / "out/mutants/compiled.json"
		alone = set(json.loads(remembered.read_text())) if remembered.exists() else set()
		for name, units in self.units.items():
			self.units[name] = [unit for unit in units if self.mark(name, unit) not in alone]
		while True:
			made = {name: with_switches(text, self.units[name], self.ids) for name, text in self.sources.items()}
			self.tree.prepare({name: text for name, (text, _) in made.items()} | self.texts)
			said = self.tree.make(LIBRARY) or self.tree.make(*self.tree.tests)
			if not said:
				break
			found = set(re.findall(r"(src/[\w./-]+):(\d+):\d+: (?:fatal )?(?:error|note):", said))
			bad = [(name, unit) for name, line in found if name in made for unit in made[name][1].get(int(line), [])]
			bad = [entry for entry in bad if entry[1].kind != "left out"] or bad
			if not bad:
				sys.exit(f"This does not build:\n{said[-6000:]}")
			for name, unit in bad:
				alone.add(self.mark(name, unit))
				self.units[name] = [other for other in self.units[name] if other is not unit]
			remembered.parent.mkdir(parents=True, exist_ok=True)
			remembered.write_text(json.dumps(sorted(alone)))
		self.made = {name: text for name, (text, _) in made.items()}
		self.switched = {mutant for units in self.units.values() for unit in units for mutant in unit.mutants}

	def mark(self, name, unit):
		return digest_of(self.sources[name], unit.start, unit.end, unit.kind)

	def look(self, jobs):
		"""Which functions come by which mutants; kept for the same sources and tests."""
		kept = CHECKOUT / "out/mutants" / f"reach-{digest_of(*self.made.values(), *(file.read_text() for file in sorted(CHECKOUT.glob('tests/unit/**/*.cpp'))))}.json"
		if kept.exists():
			found = json.loads(kept.read_text())
		else:
			with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
				found = dict(zip(self.tree.tests, pool.map(self.reached_by, self.tree.tests)))
			found = {"reached": found, "seconds": [[key, value] for key, value in self.runner.seconds.items()]}
			for old in kept.parent.glob("reach-*.json"):
				old.unlink()
			kept.write_text(json.dumps(found))
		self.runner.seconds = {tuple(key) if isinstance(key, list) else key: value for key, value in found["seconds"]}
		for test, lines in found["reached"].items():
			for mutant, function in lines:
				self.functions[mutant][test].add(function)
				self.reach[test, function] += 1
		by_file = {mutant: number for mutant, number in self.ids.items()}
		self.by_file = defaultdict(lambda: defaultdict(set))
		for mutant, number in by_file.items():
			for test, functions in self.functions.get(number, {}).items():
				self.by_file[mutant.file][test] |= functions

	def reached_by(self, test):
		with tempfile.TemporaryDirectory() as folder:
			path = Path(folder, "reached")
			try:
				self.runner.measure(test, TALVORA_MUTANTS_REACHED=str(path))
			except Unfit as error:
				print(f"Left out: {error}", flush=True)
				return []
			lines = path.read_text().splitlines() if path.exists() else []
		return [(int(number), function) for number, function in map(str.split, lines)]

	def tests_for(self, mutant, reached):
		"""[(test, its functions or none for all)]: those of the file's own tests first, then the quickest."""
		stem = Path(mutant.file).stem
		own = TESTS_OF.get(stem) or [test for test in self.tree.tests if test.startswith(stem)]
		chosen = []
		for test, functions in reached.items():
			whole = functions & {"-", "initTestCase", "cleanupTestCase"}
			named = () if whole else tuple(sorted(functions, key=lambda function: self.reach[test, function]))
			seconds = sum(self.runner.seconds.get((test, function), 0) for function in named)
			chosen.append((test not in own, own.index(test) if test in own else 0,
				seconds if named else self.runner.seconds[test], test, named))
		return [(test, named) for _, _, _, test, named in sorted(chosen)]

	def price(self, mutant):
		"""How long the quickest look at this mutant takes, in seconds: the cheap ones come first."""
		tests = self.tests_for(mutant, self.functions.get(self.ids[mutant], {}))
		return min((sum(self.runner.seconds.get((test, name), 0) for name in names[:3]) if names else self.runner.seconds[test]
			for test, names in tests[:1]), default=0)

	def killer(self, mutant, reached, **environment):
		tests = self.tests_for(mutant, reached)
		# What is worked out once and kept may be noticed by others than the one that worked it out.
		for test, functions in tests + [(test, ()) for test, functions in tests if functions]:
			failed = self.runner.failing(test, functions, self.runner.limit(test, functions), **environment)
			# On a busy machine a test may fail by itself.
			if failed and failed != "it" and not self.runner.failing(test, [failed], self.runner.limit(test), **environment):
				failed = self.runner.failing(test, functions, self.runner.limit(test, functions), **environment)
			if failed:
				return test if failed == "it" else f"{test} {failed}"
		return ""

	def try_switched(self, mutant):
		number = self.ids[mutant]
		return self.killer(mutant, self.functions.get(number, {}), TALVORA_MUTANT=str(number))

	def try_compiled(self, mutant):
		"""In the same tree, with this one file as it would be. One at a time."""
		reached = self.by_file.get(mutant.file) or {test: {"-"} for test in self.tree.tests}
		self.tree.write(mutant.file, mutant.applied(self.sources[mutant.file]))
		try:
			# A header is part of the tests, too.
			if self.tree.make(LIBRARY, *(reached if mutant.file.endswith(".h") else ())):
				return "the compiler"
			return self.killer(mutant, reached)
		finally:
			self.tree.write(mutant.file, self.made[mutant.file])


class Threads:
	"""Locks that are missing are noticed by the thread sanitizer or not at all."""

	def __init__(self, sources, display):
		self.sources = sources
		self.tree = Tree("threads", "-DCMAKE_BUILD_TYPE=Debug", "-DTALVORA_SANITIZE=thread", "-DCMAKE_CXX_FLAGS_DEBUG=")
		self.runner = Runner(self.tree, display, {"TSAN_OPTIONS": "ignore_noninstrumented_modules=1:halt_on_error=1"})
		self.tests = None

	def attempt(self, mutant):
		if self.tests is None:
			self.tree.prepare(self.sources)
			self.tests = self.tree.labelled("^threads$")
			said = self.tree.make(LIBRARY, *self.tests)
			if said:
				sys.exit(f"This does not build:\n{said[-3000:]}")
			for test in self.tests:
				self.runner.measure(test)
			self.tests.sort(key=self.runner.seconds.get)
		self.tree.write(mutant.file, mutant.applied(self.sources[mutant.file]))
		try:
			if self.tree.make(LIBRARY):
				return "the compiler"
			for test in self.tests:
				failed = self.runner.failing(test, (), self.runner.limit(test))
				if failed:
					return f"{test}, with the thread sanitizer"
			return ""
		finally:
			self.tree.write(mutant.file, self.sources[mutant.file])


class Display:
	"""A display of its own, as the tests have under ctest."""

	def __init__(self):
		end, other = os.pipe()
		self.server = subprocess.Popen(["Xvfb", "-displayfd", str(other), "-screen", "0", "640x480x24", "-noreset",
			"-nolisten", "tcp"], pass_fds=[other], stderr=subprocess.DEVNULL)
		os.close(other)
		self.name = ":" + os.read(end, 16).decode().strip()


def chosen_mutants(options):
	mutants = all_mutants(CHECKOUT)
	explained = read_equivalents()
	for entry in explained - {change_of(mutant) for mutant in mutants}:
		sys.exit("equivalent.txt explains a mutant that there is not any more:\n%s\n-\t%s\n+\t%s" % entry)
	wanted = [mutant for mutant in mutants if change_of(mutant) not in explained]
	if options.file:
		wanted = [mutant for mutant in wanted if mutant.file == options.file]
	if options.kinds:
		wanted = [mutant for mutant in wanted if mutant.kind in options.kinds]
	if options.changed:
		lines = changed_lines(options.changed)
		wanted = [mutant for mutant in wanted if (mutant.file, mutant.line) in lines]
	if options.count is not None:
		wanted = sample_of(wanted, options.count, options.seed)
	return mutants, wanted, len(explained)


def kinds(text):
	found = text.split(",")
	if not set(found) <= set(KINDS):
		raise argparse.ArgumentTypeError(f"kinds are {', '.join(KINDS)}")
	return found


def main():
	parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
	parser.add_argument("count", nargs="?", type=int, help="how many mutants (all that are wanted, unless given)")
	parser.add_argument("--seed", type=int, default=1, help="which of them (default 1)")
	parser.add_argument("--jobs", type=int, default=2, help="how many at the same time (default 2)")
	parser.add_argument("--file", help="only those of this file, for example src/settings/settings.cpp")
	parser.add_argument("--kinds", type=kinds, help=f"only these, for example text,number; there are {', '.join(KINDS)}")
	parser.add_argument("--changed", metavar="REV", help="only those on lines that are new since this revision")
	parser.add_argument("--minutes", type=float, help="begin no further one so many minutes after the first")
	parser.add_argument("--again", action="store_true", help="try those again that are known already")
	parser.add_argument("--state", type=Path, default=CHECKOUT / "out/mutants/verdicts.jsonl", help="where verdicts are kept")
	parser.add_argument("--list", action="store_true", help="print the mutants and stop")
	options = parser.parse_args()

	mutants, wanted, equivalents = chosen_mutants(options)
	if options.list:
		print("\n\n".join(map(str, wanted)))
		return
	if not wanted:
		print("No mutants to try.")
		return
	sources = {str(path.relative_to(CHECKOUT)): path.read_text() for path in sorted(CHECKOUT.glob("src/**/*")) if path.suffix in (".cpp", ".h")}
	state = State(options.state, sources)
	todo = [mutant for mutant in wanted if options.again or state.verdict(mutant) is None]
	started = time.monotonic()
	ready = started
	told = 0

	def attempt(how, mutant):
		nonlocal told
		if options.minutes and time.monotonic() - ready > options.minutes * 60:
			return
		by = how(mutant)
		state.note(mutant, by)
		with state.lock:
			told += 1
			print(f"{told}/{len(todo)} after {time.monotonic() - started:.0f} s: {f'caught by {by}' if by else 'SURVIVED'}\n{mutant}",
				flush=True)

	if todo:
		display = Display()
		board, threads = Switchboard(sources, mutants, display.name), Threads(sources, display.name)
		if any(mutant.kind != "lock" for mutant in todo):
			board.build()
			print(f"{len(board.switched)} of {len(mutants)} mutants are in one build, after {time.monotonic() - started:.0f} s", flush=True)
			board.look(options.jobs)
			ready = time.monotonic()
			print(f"The tests have been looked at after {ready - started:.0f} s", flush=True)
			with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
				switched = sorted((each for each in todo if each in board.switched), key=board.price)
				list(pool.map(lambda mutant: attempt(board.try_switched, mutant), switched))
			for mutant in [each for each in todo if each.kind != "lock" and each not in board.switched]:
				attempt(board.try_compiled, mutant)
		for mutant in [each for each in todo if each.kind == "lock"]:
			attempt(threads.attempt, mutant)
		display.server.terminate()

	verdicts = {mutant: state.verdict(mutant) for mutant in wanted}
	tried = {mutant: by for mutant, by in verdicts.items() if by is not None}
	survivors = [mutant for mutant, by in tried.items() if not by]
	for mutant in survivors:
		print(f"\nSURVIVED: {mutant}")
	percent = 100 * (len(tried) - len(survivors)) / len(tried) if tried else 100
	by_compiler = sum(by == "the compiler" for by in tried.values())
	print(f"\n{len(tried) - len(survivors)} of {len(tried)} mutants caught ({percent:.1f} %, {by_compiler} of them by the compiler), "
		f"{len(todo)} tried anew in {time.monotonic() - started:.0f} s, {len(wanted) - len(tried)} left; "
		f"there are {len(mutants)}, and {equivalents} equivalent ones; seed {options.seed}.")
	if percent < REQUIRED_PERCENT:
		sys.exit(f"At least {REQUIRED_PERCENT} % are wanted.")


if __name__ == "__main__":
	main()
