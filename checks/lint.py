#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""Reads the project's C++ with clang-tidy, clazy and cppcheck.

usage: lint.py BUILD [--minutes M] [FILE ...]

BUILD is a build folder with everything built. What a tool says is an error. A file that was clean is not read again until
it, a header of the project that it includes, or a tool or its configuration has changed; this is remembered beside the
compiler's cache, so that it outlives the checkout. What changed last is read first. With --minutes no further file is
begun after so long: how many are left is said, and they are not an error.
"""

import argparse
import hashlib
import json
import os
import re
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

FOLDERS = ("src/", "service/", "lab/", "tests/")
# Not for Qt: libobs and the C library are called by the plug-in, too, and give containers that are not Qt's.
CLAZY = "level0,level1,no-non-pod-global-static,no-qproperty-without-notify"
# What a test copies, it copies once.
CLAZY_OF_TESTS = f"{CLAZY},no-detaching-temporary,no-range-loop-detach,no-use-static-qregularexpression"
TESTS = ("tests/", "service/tests/")
CPPCHECK = ["cppcheck", "--quiet", "--check-level=exhaustive", "--std=c++20", "--library=qt",
	"--enable=warning,performance,portability", "--inline-suppr", "--suppressions-list=checks/cppcheck.txt",
	"--error-exitcode=1",
	# It stops reading a file at a macro that it does not know.
	"-DOBS_DECLARE_MODULE()=", "-DOBS_MODULE_USE_DEFAULT_LOCALE(name,locale)=", "-DOBS_MODULE_AUTHOR(name)=",
	"--template={file}:{line}: {severity}: {message} [{id}]"]
SETTINGS = (".clang-tidy", "tests/.clang-tidy", "service/tests/.clang-tidy", "checks/cppcheck.txt")
# What a tool says beside its findings.
CHATTER = ("warnings generated", "Suppressed", "warnings treated as errors", "Use -header-filter")
CACHE = Path(os.environ.get("XDG_CACHE_HOME", Path.home() / ".cache")) / "talvora-lint"
KEPT_DAYS = 60


def dependencies(build):
	"""What each object was made of, as far as it is the project's."""
	here, found, current = os.getcwd() + "/", {}, None
	for line in subprocess.run(["ninja", "-C", build, "-t", "deps"], capture_output=True, text=True).stdout.splitlines():
		if line.startswith("    "):
			name = os.path.normpath(os.path.join(build, line.strip())) if not line.strip().startswith("/") else line.strip()
			if name.startswith(here) and current is not None:
				current.append(name[len(here):])
		elif ": #deps" in line:
			current = found.setdefault(line.split(": #deps")[0], [])
	return found


def newest_first():
	"""Places of files in the order of their last change: what is not committed, then commit by commit."""
	git = ["git", "-c", "safe.directory=*", "-c", "core.quotePath=off"]
	names = []
	for command in (["diff", "--name-only", "HEAD"], ["ls-files", "--others", "--exclude-standard"],
		["log", "--name-only", "--format="]):
		names += subprocess.run([*git, *command], capture_output=True, text=True).stdout.splitlines()
	return {name: place for place, name in reversed(list(enumerate(names)))}


def without_precompiled(command):
	"""The same command without precompiled headers: they are the compiler's own, and would hide a missing include."""
	plain = re.sub(r" -include \S*cmake_pch\S*", "", command["command"])
	return command | {"command": re.sub(r" (-Winvalid-pch|-fpch-\S+)", "", plain)}


class Lint:
	def __init__(self, build, wanted):
		CACHE.mkdir(parents=True, exist_ok=True)
		here = os.getcwd() + "/"
		# Files are compiled once for every target that they are in: one of them is enough.
		self.commands = {}
		for command in json.loads((Path(build) / "compile_commands.json").read_text()):
			name = command["file"].removeprefix(here)
			if name.startswith(FOLDERS) and (not wanted or name in wanted):
				self.commands.setdefault(name, without_precompiled(command))
		unknown = set(wanted) - set(self.commands)
		if unknown:
			sys.exit(f"Not compiled in {build}: {' '.join(sorted(unknown))}")
		self.dependencies = dependencies(build)
		self.failed = []
		versions = [subprocess.run([tool, "--version"], capture_output=True, text=True).stdout
			for tool in ("clang-tidy", "clang", "clazy-standalone", "cppcheck")]
		self.settings = "".join([*versions, *(Path(path).read_text() for path in SETTINGS), Path(__file__).read_text()])

	def parts(self, name):
		return [name, *sorted(self.dependencies.get(self.commands[name]["output"], []))]

	def key(self, name):
		"""The file that is there once this one, as it is now, has been found clean."""
		sum_ = hashlib.sha256((self.settings + self.commands[name]["command"]).encode())
		for used in self.parts(name):
			sum_.update(Path(used).read_bytes() if Path(used).exists() else b"")
		return CACHE / sum_.hexdigest()

	def tools(self, name, database):
		clazy = CLAZY_OF_TESTS if name.startswith(TESTS) else CLAZY
		yield ["clang-tidy", "--quiet", f"-p={database}", name]
		yield ["clazy-standalone", f"-checks={clazy}", f"-p={database}",
			"-header-filter=^(?!.*_autogen).*/(src|support|lab/[^/]+)/.*", name]
		yield [*CPPCHECK, f"--project={database}/compile_commands.json"]

	def read(self, name, key):
		clean = True
		with tempfile.TemporaryDirectory() as database:
			Path(database, "compile_commands.json").write_text(json.dumps([self.commands[name]]))
			for command in self.tools(name, database):
				done = subprocess.run(command, capture_output=True, text=True)
				said = "\n".join(line for line in (done.stdout + done.stderr).splitlines()
					if not any(word in line for word in CHATTER))
				if done.returncode != 0 or "warning:" in said or "error:" in said:
					clean = False
					self.failed.append(f"{command[0]} {name}")
					print(said, flush=True)
		if clean:
			key.touch()

	def read_together(self):
		"""What cppcheck alone sees: a mistake of which each half is in another file. It keeps what it knows of each file."""
		known = CACHE / "cppcheck"
		known.mkdir(exist_ok=True)
		with tempfile.TemporaryDirectory() as database:
			project = Path(database, "compile_commands.json")
			project.write_text(json.dumps(list(self.commands.values())))
			jobs = f"-j{os.cpu_count()}"
			if subprocess.run([*CPPCHECK, jobs, f"--cppcheck-build-dir={known}", f"--project={project}"]).returncode != 0:
				self.failed.append("cppcheck, all files together")

	def read_all(self, minutes):
		started = time.monotonic()
		age = newest_first()
		keys = {name: self.key(name) for name in self.commands}
		for key in keys.values():
			if key.exists():
				key.touch()
		todo = [name for name, key in keys.items() if not key.exists()]
		todo.sort(key=lambda name: (min(age.get(part, len(age)) for part in self.parts(name)), name))
		left = []

		def read(name):
			if minutes and time.monotonic() - started > 60 * minutes:
				left.append(name)
			else:
				self.read(name, keys[name])

		with ThreadPoolExecutor(os.cpu_count()) as pool:
			list(pool.map(read, todo))
		print(f"{len(todo) - len(left)} of {len(keys)} files read in {time.monotonic() - started:.0f} s, "
			f"{len(keys) - len(todo)} had not changed since they were found clean", flush=True)
		if left:
			print(f"{len(left)} files were not read for want of time: ./dev lint reads them", flush=True)


def forget_old():
	for path in CACHE.iterdir():
		if path.is_file() and time.time() - path.stat().st_mtime > KEPT_DAYS * 24 * 3600:
			path.unlink(missing_ok=True)


def main():
	parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
	parser.add_argument("build")
	parser.add_argument("--minutes", type=float, help="begin no further file after so many minutes")
	parser.add_argument("files", nargs="*")
	options = parser.parse_args()
	lint = Lint(options.build, options.files)
	lint.read_all(options.minutes)
	if not options.minutes and not options.files:
		lint.read_together()
	forget_old()
	for failure in lint.failed:
		print(f"FAILED: {failure}")
	sys.exit(1 if lint.failed else 0)


if __name__ == "__main__":
	main()
