#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# Builds the fuzz targets and lets one of them, or all in turn, look for findings. Runs where the program is built:
# ./dev fuzz calls it. What is worth keeping goes into the corpus in build/, a finding into out/.
set -euo pipefail
cd "$(dirname "$0")/../.."

usage() {
	echo "usage: ./dev fuzz TARGET|all SECONDS   (targets: $(targets | paste -sd ' '))"
}

targets() {
	local folder
	for folder in tests/fuzz/corpus/*/; do
		basename "$folder"
	done
}

build() {
	# Optimised less than a release, so that a finding can be read.
	cmake -S . -B "$build" -G Ninja --log-level=NOTICE -DTALVORA_BUILD_TESTS=ON -DTALVORA_BUILD_SERVICE=ON -DTALVORA_FUZZ=ON \
		-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang -DCMAKE_BUILD_TYPE=None \
		-DCMAKE_CXX_FLAGS="-O1 -g1 -fno-omit-frame-pointer -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all"
	nice cmake --build "$build" --target fuzz-targets
}

# The fuzzer ends with an error when it has a finding.
fuzz() {
	local name=$1 seconds=$2 found=$build/corpus/$1 options=()
	mkdir -p "$found" "$out/$name"
	[ ! -f "tests/fuzz/$name.dict" ] || options+=("-dict=tests/fuzz/$name.dict")
	printf '%s: %s s\n' "$name" "$seconds"
	nice "$build/tests/fuzz/fuzz-$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=20000 -len_control=200 \
		-print_final_stats=1 -artifact_prefix="$out/$name/" "${options[@]}" "$found" "tests/fuzz/corpus/$name" \
		>"$out/$name/log" 2>&1 || {
		tail -n 60 "$out/$name/log"
		printf '%s: a finding, in %s\n' "$name" "$out/$name"
		return 1
	}
	grep -E '^stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb)' "$out/$name/log" | sed "s/^/$name: /"
}

target=${1:-} seconds=${2:-}
if ! [[ $seconds =~ ^[1-9][0-9]*$ ]] || { [ "$target" != all ] && [ ! -d "tests/fuzz/corpus/${target:-none}" ]; }; then
	usage >&2
	exit 2
fi
build=build/fuzz-${TALVORA_SUITE:-host}
out=out/fuzz/${TALVORA_SUITE:-host}
export ASAN_OPTIONS=detect_leaks=1:allow_addr2line=1:${ASAN_OPTIONS:-} UBSAN_OPTIONS=print_stacktrace=1
build
failed=''
for name in $([ "$target" = all ] && targets || echo "$target"); do
	fuzz "$name" "$seconds" || failed+=" $name"
done
[ -z "$failed" ] || { echo "Findings in:$failed" >&2; exit 1; }
