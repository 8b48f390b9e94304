#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""Reads all of the project's C++ with clang-format, clang-tidy, clazy and cppcheck.

usage: lint.py BUILD [FILE ...]

BUILD is a build folder with everything built. What a tool says is an error. A file that was clean is not read again by
clang-tidy and clazy until it, a header of the project that it includes, or a tool's configuration has changed.
"""

import hashlib
import json
import os
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

FOLDERS = ("src", "service", "lab/audio-tap", "lab/browser-source", "lab/virtual-camera", "tests")
# Not for Qt: libobs and the C library are called by the plug-in, too, and give containers that are not Qt's.
CLAZY = "level0,level1,no-non-pod-global-static,no-qproperty-without-notify"
# What a test copies, it copies once.
CLAZY_OF_TESTS = f"{CLAZY},no-detaching-temporary,no-range-loop-detach,no-use-static-qregularexpression"
TESTS = ("tests", "service/tests")


def project_files(suffixes):
    names = [str(path) for folder in FOLDERS for path in Path(folder).rglob("*")]
    return sorted(name for name in names if name.endswith(suffixes))


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


def version(tool):
    return subprocess.run([tool, "--version"], capture_output=True, text=True).stdout


class Lint:
    def __init__(self, build, wanted):
        self.build = Path(build)
        self.cache = self.build / "lint"
        self.cache.mkdir(exist_ok=True)
        here = os.getcwd() + "/"
        # Files are compiled once for every target that they are in: one of them is enough.
        self.commands = {}
        for command in json.loads((self.build / "compile_commands.json").read_text()):
            name = command["file"].removeprefix(here)
            if name.startswith(FOLDERS) and (not wanted or name in wanted):
                self.commands.setdefault(name, command)
        self.dependencies = dependencies(build)
        self.failed = []
        # What the compiler here has and clang does not.
        self.plain = [f"-p={self.build}"]

    def key(self, tool, settings, name):
        command = self.commands[name]
        sum_ = hashlib.sha256((tool + settings + command["command"]).encode())
        for used in [name, *sorted(self.dependencies.get(command["output"], []))]:
            sum_.update(Path(used).read_bytes() if Path(used).exists() else b"")
        return self.cache / sum_.hexdigest()

    def each(self, tool, settings, command_for):
        """Has the tool read what it has not found clean yet. command_for: gives what it is called with for a file."""
        started = time.monotonic()
        todo = {name: self.key(tool, settings, name) for name in sorted(self.commands)}
        todo = {name: key for name, key in todo.items() if not key.exists()}

        def read(name):
            done = subprocess.run([*command_for(name), *self.plain, name], capture_output=True, text=True)
            said = "\n".join(line for line in (done.stdout + done.stderr).splitlines()
                             if "warnings generated" not in line and "Suppressed" not in line
                             and "warnings treated as errors" not in line and "Use -header-filter" not in line)
            if done.returncode == 0 and "warning:" not in said and "error:" not in said:
                todo[name].touch()
                return
            self.failed.append(f"{tool} {name}")
            print(said, flush=True)

        with ThreadPoolExecutor(os.cpu_count()) as pool:
            list(pool.map(read, todo))
        print(f"{tool}: {len(todo)} of {len(self.commands)} files read in {time.monotonic() - started:.0f} s", flush=True)

    def once(self, tool, arguments):
        started = time.monotonic()
        if subprocess.run(arguments).returncode != 0:
            self.failed.append(tool)
        print(f"{tool}: {time.monotonic() - started:.0f} s", flush=True)


def main():
    lint = Lint(sys.argv[1], sys.argv[2:])
    files = sys.argv[2:] or project_files((".cpp", ".h"))
    lint.once("clang-format", ["clang-format", "--dry-run", "-Werror", *files])
    cppcheck = lint.cache / "cppcheck"
    cppcheck.mkdir(exist_ok=True)
    commands = lint.cache / "compile_commands.json"
    commands.write_text(json.dumps(list(lint.commands.values())))
    lint.once("cppcheck", ["cppcheck", f"--project={commands}", f"--cppcheck-build-dir={cppcheck}", "-j2", "--quiet", "--check-level=exhaustive",
                           "--std=c++20", "--library=qt", "--enable=warning,performance,portability", "--inline-suppr",
                           "--suppressions-list=tests/cppcheck.txt", "--error-exitcode=1",
                           # It stops reading a file at a macro that it does not know.
                           "-DOBS_DECLARE_MODULE()=", "-DOBS_MODULE_USE_DEFAULT_LOCALE(name,locale)=",
                           "--template={file}:{line}: {severity}: {message} [{id}]"])
    settings = [Path(folder, ".clang-tidy") for folder in (".", "tests", "service/tests")]
    lint.each("clang-tidy", version("clang-tidy") + "".join(path.read_text() for path in settings), lambda name: ["clang-tidy", "--quiet"])
    lint.each("clazy", version("clang") + CLAZY + CLAZY_OF_TESTS, lambda name: [
        "clazy-standalone", f"-checks={CLAZY_OF_TESTS if name.startswith(TESTS) else CLAZY}",
        "-header-filter=^(?!.*_autogen).*/(src|support|audio-tap|browser-source|virtual-camera)/.*"])
    for failure in lint.failed:
        print(f"FAILED: {failure}")
    sys.exit(1 if lint.failed else 0)


if __name__ == "__main__":
    main()
