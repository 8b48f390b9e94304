#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# Runs a command inside the lab's root filesystem, with the checkout at /talvora.
set -euo pipefail
# shellcheck source=lab/common.sh
. "$(dirname "$0")/common.sh"

usage() {
	cat <<TXT
usage: lab/enter.sh [--throw-away] SUITE [NAME=VALUE ...] -- COMMAND [ARGUMENT ...]

The command starts in /talvora (the checkout) with a clean environment plus the
given variables, a network of its own that has nothing but the loopback
interface, and a private /tmp. All that it started ends with it. When DISPLAY is
among the variables, that display can be used inside.

  --throw-away  what the command changes in the root filesystem is kept in memory and gone with it; the checkout is
                itself in both cases
TXT
}

# Runs as the first process of the new namespaces: mounts, then the command. Stays there, because the first process is
# deaf to signals it has no handler for, and an interrupt is meant to end the command.
inside() {
	local root=$1
	shift
	trap 'exit 130' INT
	trap 'exit 143' TERM HUP
	mount --make-rprivate /
	if [ -n "$LAB_THROW_AWAY" ]; then
		mount -t tmpfs tmpfs "$root/mnt"
		mkdir "$root/mnt/changes" "$root/mnt/work"
		mount -t overlay -o "lowerdir=$root,upperdir=$root/mnt/changes,workdir=$root/mnt/work" overlay "$root"
	else
		mount --bind "$root" "$root"
	fi
	mount -t proc proc "$root/proc"
	mount --rbind /sys "$root/sys"
	mount --rbind /dev "$root/dev"
	mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
	mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
	mount -t tmpfs -o mode=755 tmpfs "$root/run"
	mount --bind "$checkout_dir" "$root/talvora"
	# What outlives the checkout: the compiler's results, and what the readers of the code have found clean.
	local kept
	for kept in ccache talvora-lint; do
		mkdir -p "$lab_cache/$kept" "$root/root/.cache/$kept"
		mount --bind "$lab_cache/$kept" "$root/root/.cache/$kept"
	done
	# Only with a display to use: a display server started inside would leave its socket in the machine's folder.
	if [ -n "${LAB_DISPLAY:-}" ] && [ -d /tmp/.X11-unix ]; then
		mkdir "$root/tmp/.X11-unix"
		mount --bind /tmp/.X11-unix "$root/tmp/.X11-unix"
	fi
	if [ -n "${LAB_XAUTHORITY:-}" ]; then
		install -m 600 "$LAB_XAUTHORITY" "$root/run/xauthority"
	fi
	# With the tools of the root filesystem: the machine may have none.
	PATH=/usr/sbin:/usr/bin:/sbin:/bin chroot "$root" ip link set lo up
	chroot "$root" /usr/bin/env -i -C /talvora "$@"
	exit
}

if [ "${1:-}" = --inside ]; then
	shift
	inside "$@"
fi

export LAB_THROW_AWAY=''
case ${1:-} in
'' | -h | --help) usage; exit 0 ;;
--throw-away) LAB_THROW_AWAY=1; shift ;;
esac
suite=${1:-}
shift
check_suite "$suite"

variables=(
	# What precompiled headers are made of is told by their content, not by what the compiler thinks of times and macros.
	"CCACHE_SLOPPINESS=pch_defines,time_macros"
	HOME=/root LANG=C.UTF-8 TERM="${TERM:-dumb}" TALVORA_LAB=1 TALVORA_SUITE="$suite"
	PATH=/usr/lib/ccache:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
)
export LAB_XAUTHORITY='' LAB_DISPLAY=''
while [ $# -gt 0 ] && [ "$1" != -- ]; do
	variables+=("$1")
	case $1 in
	DISPLAY=*)
		LAB_DISPLAY=${1#DISPLAY=}
		if [ -r "${XAUTHORITY:-$HOME/.Xauthority}" ]; then
			LAB_XAUTHORITY=${XAUTHORITY:-$HOME/.Xauthority}
			variables+=(XAUTHORITY=/run/xauthority)
		fi
		;;
	esac
	shift
done
if [ "${1:-}" != -- ] || [ $# -lt 2 ]; then
	usage >&2
	exit 2
fi
shift

root=$("$lab_dir/root.sh" "$suite")
[ "$(id -u)" = 0 ] || die "Entering the lab's root filesystem needs root: run this with sudo."
namespaces=(--mount --pid --uts --net)
# Pictures reach a display by shared memory, which both must see: OBS's preview stays black otherwise.
[ -n "$LAB_DISPLAY" ] || namespaces+=(--ipc)
exec unshare "${namespaces[@]}" --fork --kill-child -- "$0" --inside "$root" "${variables[@]}" "$@"
