# SPDX-License-Identifier: GPL-2.0-or-later
# shellcheck shell=bash disable=SC2034
# What the lab's shell scripts share. Sourced, never run.

lab_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
checkout_dir=$(dirname "$lab_dir")
lab_cache=${TALVORA_LAB_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/talvora}

# One sentence that says what is wrong and what to do, then out.
die() {
	printf '%s\n' "$*" >&2
	exit 1
}

say() {
	printf '%s\n' "$*" >&2
}

check_suite() {
	case $1 in
	# The last has no OBS, only what a build with the oldest Qt and its unit tests need.
	trixie | forky | bookworm) ;;
	*) die "Unknown suite '$1': choose trixie (OBS 30.2.3) or forky (OBS 32.2.2)." ;;
	esac
}
