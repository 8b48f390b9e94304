#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# What lasts too long for every change. ./dev nightly calls it.
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

usage() {
	cat <<TXT
usage: ./dev nightly [PART ...]

Runs the parts, or all of them one after the other. What each says is in out/nightly/PART.log, its figures beside that, and
a line with verdict and minutes in out/nightly/summary. A part that fails does not stop the others.

  PART         MINUTES  WHAT
  obs               60  all tests in both versions of OBS three times, none repeated: how often each passes, in obs/rates
  soak-trixie      145  OBS 30.2.3: half an hour in a session with two languages, with all of them and with a service that
                        fails at random, a suspended minute, fifty changes of scene collection, a hundred exits, every
                        language
  soak-forky       145  the same in OBS 32.2.2
  address           30  every unit test, the local service's too, with the sanitizers of addresses and undefined behaviour
  thread            30  the same with the sanitizer of threads
  mutants          100  of the lines that changed in the last week, then of all, chosen anew every night
  fuzz             120  ten minutes for each target, from what earlier nights have found
  lint              30  all of the code, of which nothing has changed since it was last found clean is not read again
  install-forky      4  README's recipes for one's own OBS, in forky; in trixie they are part of .ci/run
  locales            1  whether every text is translated into every language
  packages          20  packages of both suites: two builds with the same bytes; installed, upgraded and purged, with OBS started
  qt-6.4             8  a build with Debian 12's Qt 6.4 and gcc 12, the oldest that README promises, and its unit tests
  bench             30  every row beside its peer; a line for each row and night is added to bench/history

Minutes are those of two cores that do nothing else. In obs and mutants, where chance plays a part, the rates are the
result: only a run that could not be made fails.
TXT
}

parts=(obs soak-trixie soak-forky address thread mutants fuzz lint install-forky locales packages qt-6.4 bench)
out=out/nightly

# Both versions at once: a test mostly waits.
obs() {
	local run suite
	./dev build && ./dev build --suite forky || return
	rm -rf "$out/obs"
	mkdir -p "$out/obs"
	for run in 1 2 3; do
		for suite in trixie forky; do
			rm -f "out/tests/$suite/obs.xml"
			./dev test --suite "$suite" --only obs -- -p no:rerunfailures >"$out/obs/$suite-$run.log" 2>&1 &
		done
		wait
		for suite in trixie forky; do
			cp "out/tests/$suite/obs.xml" "$out/obs/$suite-$run.xml" || return
		done
	done
	./dev shell -- python3 -B lab/rates.py "$out"/obs/*.xml | tee "$out/obs/rates"
}

# The figures that the tests leave are kept, under the suite's name.
soak() {
	local suite=$1 code=0 file
	./dev soak --suite "$suite" || code=1
	mkdir -p "$out/soak-$suite"
	for file in out/tests/"$suite"/*/figures.json; do
		[ ! -e "$file" ] || cp "$file" "$out/soak-$suite/$(basename "$(dirname "$file")").json"
	done
	return $code
}

# A day's number as the seed: another choice every night, which can be had again. Fewer caught than wanted is a result.
mutants() {
	local seed before
	seed=$(date +%Y%m%d)
	before=$(git rev-list -1 --before='1 week ago' HEAD)
	[ -z "$before" ] || ./dev mutate -- --changed "$before" --minutes 40
	./dev mutate -- 200 --seed "$seed" --minutes 40
	mkdir -p "$out/mutants"
	cp "$out/mutants.log" "$out/mutants/$seed"
	grep -q 'mutants caught' "$out/mutants.log"
}

bench() {
	./dev bench -- --keep || return
	mkdir -p "$out/bench"
	cp out/bench/trixie/history "$out/bench/"
}

run_part() {
	case $1 in
	obs) obs ;;
	mutants) mutants ;;
	bench) bench ;;
	soak-*) soak "${1#soak-}" ;;
	address) ./dev test --sanitize address,undefined ;;
	thread) ./dev test --sanitize thread ;;
	fuzz) ./dev fuzz all 600 ;;
	lint) ./dev lint ;;
	packages) tests/install/packages.sh trixie && tests/install/packages.sh forky ;;
	qt-6.4) ./dev test --suite bookworm --only unit ;;
	install-forky) tests/install/run.sh forky ;;
	locales) ./dev shell -- python3 -B checks/locales.py --complete ;;
	esac
}

case ${1:-} in -h | --help) usage; exit 0 ;; esac
[ $# -gt 0 ] || set -- "${parts[@]}"
for part in "$@"; do
	case " ${parts[*]} " in
	*" $part "*) ;;
	*) echo "Unknown part '$part': './dev nightly --help' lists what there is." >&2; exit 1 ;;
	esac
done
mkdir -p "$out"
failed=0
for part in "$@"; do
	started=$SECONDS verdict=passed
	run_part "$part" 2>&1 | tee "$out/$part.log" || { verdict=FAILED; failed=1; }
	printf '%s %-11s %s after %d minutes\n' "$(date '+%F %R')" "$part" $verdict $(((SECONDS - started) / 60)) | tee -a "$out/summary"
done
exit $failed
