#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# Runs the unit tests of a build that counts, and says what of the plug-in they reach.
set -euo pipefail

build=$1 out=$2
shift 2
find "$build" -name '*.gcda' -delete
# bit-identity-common-test does the same as bit-identity-test, with the objects of no other test.
ctest --test-dir "$build" --parallel 4 --output-on-failure --no-tests=error --exclude-regex bit-identity-common "$@"
mkdir -p "$out"
# Branches that only throw belong to what the compiler puts in for the standard library, not to a line of ours.
gcovr --root . --filter 'src/' --object-directory "$build" --exclude-throw-branches --exclude-unreachable-branches \
	--gcov-ignore-parse-errors=negative_hits.warn_once_per_file \
	--html-details "$out/index.html" --json-summary "$out/summary.json" --txt "$out/lines.txt" --print-summary \
	--fail-under-line 98 --fail-under-branch 85 "$build" && verdict=0 || verdict=$?
cat "$out/lines.txt"
exit "$verdict"
