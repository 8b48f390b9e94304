#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""Changes the plug-in's sources in small ways, one at a time, and tells which changes no unit test notices.

usage: mutate.py [N] [--seed SEED] [--jobs JOBS] [--file NAME] [--list]

Each job works on a copy of the checkout under build/SUITE-mutate, where the plug-in's core is one shared library: a
mutant costs the compilation of what it touches (by clang, which reads precompiled headers quickest), one link and the
tests that notice it soonest. The other tests are built when there is a mutant that these did not notice. Mutants that
tests/mutation/equivalent.txt explains are not tried. Ends non-zero when fewer than 95 of 100 are caught.
"""

import argparse
import hashlib
import os
import queue
import re
import shutil
import subprocess
import sys
import threading
import time
from pathlib import Path

from mutants import all_mutants

CHECKOUT = Path(__file__).resolve().parents[2]
COPIED = ("CMakeLists.txt", "cmake", "data", "src", "tests/unit", "tests/fuzz", "tests/sanitizers")
REQUIRED_PERCENT = 95

# Tests that look at a file first, where their names do not begin with the file's.
TESTS_OF = {
    "caption-css": ["caption-css-test", "caption-manager-test"],
    "caption-state": ["caption-manager-test"],
    "caption-style": ["caption-css-test", "caption-manager-test", "talvora-plugin-test"],
    "capture-converter": ["capture-converter-test", "exactness-test"],
    "dubbed-source": ["dubbed-source-test", "talvora-plugin-test"],
    "plugin-dock-widgets": ["plugin-dock-settings-test", "plugin-dock-test", "plugin-dock-auth-test"],
    "plugin-dock-auth": ["plugin-dock-auth-test", "plugin-dock-test"],
    "plugin-dock-languages": ["plugin-dock-languages-test", "plugin-dock-test"],
    "plugin-dock-settings": ["plugin-dock-settings-test", "plugin-dock-test"],
    "plugin-dock": ["plugin-dock-test", "plugin-dock-auth-test", "plugin-dock-settings-test", "plugin-dock-layout-test"],
    "plugin-support": ["plugin-main-test"],
    "gain-ramp": ["gain-ramp-test", "exactness-test"],
    "sample-loops": ["exactness-test", "exactness-common-test", "capture-converter-test", "dubbed-source-test"],
    "settings-file": ["settings-file-test", "talvora-plugin-test"],
    "settings": ["settings-test", "talvora-plugin-test"],
    "sign-in-page": ["sign-in-page-test", "oauth-listener-test"],
    "speech-resampler": ["speech-queue-test", "exactness-test", "dubbed-source-test"],
    "talvora-plugin-capture": ["talvora-plugin-test"],
    "talvora-plugin-outputs": ["talvora-plugin-test"],
    "tts-assembler": ["tts-assembler-test", "exactness-test"],
    "ws-client": ["ws-client-test", "ws-client-messages-test", "ws-client-uplink-test", "ws-client-speech-test"],
    "ws-state": ["ws-client-test", "plugin-dock-test"],
}


def read_equivalents():
    """Blocks of three lines: the file, the line before and after the change; what follows is the reason, for readers."""
    explained = set()
    for block in (CHECKOUT / "tests/mutation/equivalent.txt").read_text().split("\n\n"):
        lines = [line for line in block.splitlines() if not line.startswith("#")]
        if not lines:
            continue
        if len(lines) < 4 or not lines[1].startswith("-\t") or not lines[2].startswith("+\t"):
            sys.exit(f"equivalent.txt: this block is not a file, a line before, a line after and a reason:\n{block}")
        explained.add((lines[0], lines[1][2:], lines[2][2:]))
    return explained


def sample_of(mutants, count, seed):
    """The same mutants for the same seed, whatever else the sources say meanwhile."""
    def place(mutant):
        return hashlib.sha256("\n".join((str(seed), *change_of(mutant))).encode()).digest()

    return sorted(mutants, key=place)[:count]


def change_of(mutant):
    return mutant.file, mutant.before, mutant.after


class Worker(threading.Thread):
    def __init__(self, number, jobs, files, report):
        super().__init__(daemon=True)
        self.tree = CHECKOUT / f"build/{os.environ.get('TALVORA_SUITE', 'host')}-mutate/{number}"
        self.build = self.tree / "build"
        self.jobs = jobs
        self.files = files
        self.report = report
        self.seconds = {}
        self.error = None

    def prepare(self):
        for name in COPIED:
            copy_changed(CHECKOUT / name, self.tree / name)
        subprocess.run(["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "--log-level=WARNING",
                        "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DCMAKE_CXX_COMPILER=clang++",
                        # A changed library is a matter for those that load it, not for the linker.
                        "-DBUILD_SHARED_LIBS=ON", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON",
                        # Not every program calls what of the library wants OBS's front-end.
                        "-DCMAKE_EXE_LINKER_FLAGS=-Wl,--allow-shlib-undefined",
                        "-DTALVORA_BUILD_TESTS=ON", "-DTALVORA_PRECOMPILE=ON"], check=True, stdout=subprocess.DEVNULL)
        self.display = Display()
        targets = subprocess.run(["ninja", "-C", self.build, "-t", "targets", "all"], capture_output=True, text=True).stdout
        self.tests = re.findall(r"^tests/unit/([\w-]+-test): CXX_EXECUTABLE", targets, re.MULTILINE)
        self.measure({test for file in self.files for test in self.first_tests(file)})

    def make(self, *targets):
        done = subprocess.run(["ninja", "-C", self.build, *targets], capture_output=True, text=True)
        self.output = done.stdout
        return done.returncode == 0

    def passes(self, test, seconds):
        home = self.tree / "home"
        shutil.rmtree(home, ignore_errors=True)
        home.mkdir()
        environment = os.environ | {"QT_QPA_PLATFORM": "offscreen", "DISPLAY": self.display.name, "HOME": str(home)}
        try:
            done = subprocess.run([self.build / "tests/unit" / test], cwd=home, env=environment, timeout=seconds,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        except subprocess.TimeoutExpired:
            return False
        self.output = done.stdout.decode(errors="replace")
        return done.returncode == 0

    def measure(self, tests):
        """Every test must pass while nothing is changed; how long each takes bounds it later."""
        missing = sorted(set(tests) - set(self.seconds))
        if not self.make("src/libtalvora-core.so", *missing):
            sys.exit(f"The tests do not build:\n{self.output[-3000:]}")
        for test in missing:
            started = time.monotonic()
            if not self.passes(test, 300) and not self.passes(test, 300):
                sys.exit(f"{test} fails without any change:\n{self.output[-3000:]}")
            self.seconds[test] = time.monotonic() - started

    def first_tests(self, file):
        stem = Path(file).stem
        return TESTS_OF.get(stem) or [test for test in self.tests if test.startswith(stem)]

    def notices(self, tests):
        """The first of the tests that fails, "the compiler", or None."""
        if not self.make("src/libtalvora-core.so", *tests):
            return "the compiler"
        return next((test for test in tests if not self.passes(test, 30 + 5 * self.seconds[test])), None)

    def verdict_of(self, mutant):
        path = self.tree / mutant.file
        original = path.read_text()
        first = self.first_tests(mutant.file)
        try:
            path.write_text(mutant.source)
            killer = self.notices(first)
            if killer:
                return killer
            if len(self.seconds) < len(self.tests):
                path.write_text(original)
                self.measure(self.tests)
                path.write_text(mutant.source)
            return self.notices([test for test in sorted(self.tests, key=self.seconds.get) if test not in first])
        finally:
            path.write_text(original)

    def run(self):
        try:
            self.prepare()
            while True:
                mutant = self.jobs.get_nowait()
                self.report(mutant, self.verdict_of(mutant))
        except queue.Empty:
            pass
        except (Exception, SystemExit) as error:
            self.error = error


def drain(waiting):
    try:
        while True:
            waiting.get_nowait()
    except queue.Empty:
        pass


class Display:
    """A display of its own, as the tests have under ctest."""

    def __init__(self):
        end, other = os.pipe()
        self.server = subprocess.Popen(["Xvfb", "-displayfd", str(other), "-screen", "0", "640x480x24", "-noreset",
                                        "-nolisten", "tcp"], pass_fds=[other], stderr=subprocess.DEVNULL)
        os.close(other)
        self.name = ":" + os.read(end, 16).decode().strip()


def copy_changed(source, target):
    """Copies a file or a folder; what is already the same keeps its time, so that it is not built again."""
    if source.is_dir():
        target.mkdir(parents=True, exist_ok=True)
        names = {path.name for path in source.iterdir()}
        for path in target.iterdir():
            if path.name not in names:
                shutil.rmtree(path) if path.is_dir() else path.unlink()
        for path in source.iterdir():
            copy_changed(path, target / path.name)
    elif not target.exists() or target.read_bytes() != source.read_bytes():
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(source, target)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("count", nargs="?", type=int, default=220, help="how many mutants (default 220)")
    parser.add_argument("--seed", type=int, default=1, help="which of them (default 1)")
    parser.add_argument("--jobs", type=int, default=2, help="how many at the same time (default 2)")
    parser.add_argument("--file", help="only those of this file, for example src/settings.cpp")
    parser.add_argument("--minutes", type=float, help="begin no further one after so many minutes")
    parser.add_argument("--list", action="store_true", help="print the mutants and stop")
    options = parser.parse_args()

    mutants = all_mutants(CHECKOUT)
    explained = read_equivalents()
    for entry in explained - {change_of(mutant) for mutant in mutants}:
        sys.exit("equivalent.txt explains a mutant that there is not any more:\n%s\n-\t%s\n+\t%s" % entry)
    mutants = [mutant for mutant in mutants if change_of(mutant) not in explained]
    if options.file:
        mutants = [mutant for mutant in mutants if mutant.file == options.file]
    sample = sample_of(mutants, options.count, options.seed)
    if options.list:
        print("\n\n".join(map(str, sample)))
        return

    waiting = queue.SimpleQueue()
    for mutant in sample:
        waiting.put(mutant)
    started = time.monotonic()
    lock = threading.Lock()
    caught, by_compiler, survivors = 0, 0, []

    def report(mutant, killer):
        nonlocal caught, by_compiler
        with lock:
            if killer:
                caught += 1
                by_compiler += killer == "the compiler"
                verdict = f"caught by {killer}"
            else:
                survivors.append(mutant)
                verdict = "SURVIVED"
            tried = caught + len(survivors)
            print(f"{tried}/{len(sample)} after {time.monotonic() - started:.0f} s: {verdict}\n{mutant}", flush=True)
            if options.minutes and time.monotonic() - started > options.minutes * 60:
                drain(waiting)

    files = {mutant.file for mutant in sample}
    workers = [Worker(number, waiting, files, report) for number in range(min(options.jobs, len(sample)))]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    errors = [worker.error for worker in workers if worker.error]
    if errors:
        sys.exit(f"Could not go on: {errors[0]}")

    counted = caught + len(survivors)
    percent = 100 * caught / counted
    for mutant in survivors:
        print(f"\nSURVIVED: {mutant}")
    print(f"\n{caught} of {counted} mutants caught ({percent:.1f} %, {by_compiler} of them by the compiler) in "
          f"{time.monotonic() - started:.0f} s; there are {len(mutants)}, and {len(explained)} equivalent ones; seed {options.seed}.")
    if percent < REQUIRED_PERCENT:
        sys.exit(f"At least {REQUIRED_PERCENT} % are wanted.")


if __name__ == "__main__":
    main()
