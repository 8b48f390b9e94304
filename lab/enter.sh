#!/usr/bin/env bash
# Runs a command inside the lab's root filesystem, with the checkout at /talvora.
set -euo pipefail
. "$(dirname "$0")/common.sh"

usage() {
	cat <<TXT
usage: lab/enter.sh SUITE [NAME=VALUE ...] -- COMMAND [ARGUMENT ...]

The command starts in /talvora (the checkout) with a clean environment plus the
given variables, a network of its own that has nothing but the loopback
interface, and a private /tmp. All that it started ends with it. When DISPLAY is
among the variables, that display can be used inside.
TXT
}

# Runs inside the new namespaces: mounts, then the command.
inside() {
	local root=$1
	shift
	mount --make-rprivate /
	mount --bind "$root" "$root"
	mount -t proc proc "$root/proc"
	mount --rbind /sys "$root/sys"
	mount --rbind /dev "$root/dev"
	mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
	mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
	mount -t tmpfs -o mode=755 tmpfs "$root/run"
	mount --bind "$checkout_dir" "$root/talvora"
	mkdir -p "$lab_cache/ccache" "$root/root/.cache/ccache"
	mount --bind "$lab_cache/ccache" "$root/root/.cache/ccache"
	if [ -d /tmp/.X11-unix ]; then
		mkdir "$root/tmp/.X11-unix"
		mount --bind /tmp/.X11-unix "$root/tmp/.X11-unix"
	fi
	if [ -n "${LAB_XAUTHORITY:-}" ]; then
		install -m 600 "$LAB_XAUTHORITY" "$root/run/xauthority"
	fi
	ip link set lo up
	exec chroot "$root" /usr/bin/env -i -C /talvora "$@"
}

if [ "${1:-}" = --inside ]; then
	shift
	inside "$@"
fi

case ${1:-} in
'' | -h | --help) usage; exit 0 ;;
esac
suite=$1
shift
check_suite "$suite"

variables=(
	HOME=/root LANG=C.UTF-8 TERM="${TERM:-dumb}" TALVORA_LAB=1 TALVORA_SUITE="$suite"
	PATH=/usr/lib/ccache:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
)
export LAB_XAUTHORITY=
while [ $# -gt 0 ] && [ "$1" != -- ]; do
	variables+=("$1")
	case $1 in
	DISPLAY=*)
		if [ -r "${XAUTHORITY:-$HOME/.Xauthority}" ]; then
			LAB_XAUTHORITY=${XAUTHORITY:-$HOME/.Xauthority}
			variables+=(XAUTHORITY=/run/xauthority)
		fi
		;;
	esac
	shift
done
[ "${1:-}" = -- ] && [ $# -ge 2 ] || { usage >&2; exit 2; }
shift

root=$("$lab_dir/root.sh" "$suite")
[ "$(id -u)" = 0 ] || die "Entering the lab's root filesystem needs root: run this with sudo."
exec unshare --mount --pid --fork --kill-child --uts --ipc --net -- "$0" --inside "$root" "${variables[@]}" "$@"
