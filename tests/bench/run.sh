#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# Builds the benchmarks as a release is built and runs them all; rewrites the table in docs/performance.md.
# usage: tests/bench/run.sh SUITE [OPTION ...]   (options of tests/bench/run.py)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
suite=$1
shift
build=build/$suite-bench
lab/root.sh "$suite" --workshop >/dev/null
lab/enter.sh "$suite" -- cmake -S . -B "$build" -G Ninja --log-level=NOTICE -DCMAKE_BUILD_TYPE=Release \
	-DTALVORA_BUILD_TESTS=ON -DTALVORA_BUILD_BENCHMARKS=ON -DTALVORA_BUILD_SERVICE=ON -DTALVORA_BUILD_LAB=ON
lab/enter.sh "$suite" -- cmake --build "$build" \
	--target talvora-bench talvora-stopwatch talvora-obs talvora-local-service talvora-lab-browser
lab/enter.sh "$suite" "TALVORA_BUILD=/talvora/$build" -- env PYTHONPATH=. python3 -B tests/bench/run.py "$@"
