#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-or-later
# Installs the plug-in for the user who runs this, or removes it: install.sh [--remove]
set -eu
here=$(cd "$(dirname "$0")" && pwd)
module=talvora-obs/bin/64bit/talvora-obs.so
folder=${XDG_CONFIG_HOME:-$HOME/.config}/obs-studio/plugins

die() {
	printf '%s\n' "$*" >&2
	exit 1
}

# The package of a library, by how the system names its own.
package_of() {
	[ ! -r /etc/os-release ] || . /etc/os-release
	case "$1 ${ID:-} ${ID_LIKE:-}" in
	libQt6WebSockets*debian* | libQt6WebSockets*ubuntu*) echo "sudo apt install libqt6websockets6" ;;
	libQt6WebSockets*fedora*) echo "sudo dnf install qt6-qtwebsockets" ;;
	libQt6WebSockets*arch*) echo "sudo pacman -S qt6-websockets" ;;
	libQt6WebSockets*suse*) echo "sudo zypper install libQt6WebSockets6" ;;
	libobs*debian* | libobs*ubuntu*) echo "sudo apt install obs-studio" ;;
	libobs*fedora*) echo "sudo dnf install obs-studio" ;;
	libobs*arch*) echo "sudo pacman -S obs-studio" ;;
	*) echo "install the package of your system that has $1" ;;
	esac
}

case ${1:-} in
'') ;;
--remove)
	rm -rf "$folder/talvora-obs"
	echo "Removed $folder/talvora-obs. Settings, if there are any, are in ~/.config/talvora-obs."
	exit 0
	;;
*) die "usage: install.sh [--remove]" ;;
esac

[ "$(id -u)" != 0 ] || die "Run this as the user who runs OBS, not as root: it installs for one user."
if ! command -v obs >/dev/null; then
	[ ! -d "$HOME/.var/app/com.obsproject.Studio" ] ||
		die "Your OBS is a Flatpak, which does not look into $folder and has libraries of its own: this build is not for it."
	die "There is no 'obs' on this machine: install OBS Studio 30 or newer first."
fi

# What the dynamic linker does not find: libraries, or newer versions of them than there are.
linked=$(ldd "$here/$module" 2>&1) || die "This build is not for this machine: $linked"
missing=$(printf '%s\n' "$linked" | sed -nE 's/^[[:space:]]*([^ ]+) => not found$/\1/p')
if [ -n "$missing" ]; then
	for library in $missing; do
		printf '%s is missing: %s\n' "$library" "$(package_of "$library")" >&2
	done
	die "Nothing was installed. Run this again when they are there."
fi
newer=$(printf '%s\n' "$linked" | sed -nE "s/.*: version \`([^']+)' not found.*/\\1/p" | sort -u | tr '\n' ' ')
[ -z "$newer" ] ||
	die "This build needs newer libraries than this system has ($newer): take a build for your system, or build the plug-in yourself."

mkdir -p "$folder"
rm -rf "$folder/talvora-obs.part"
cp -R "$here/talvora-obs" "$folder/talvora-obs.part"
rm -rf "$folder/talvora-obs"
mv "$folder/talvora-obs.part" "$folder/talvora-obs"
echo "Installed into $folder/talvora-obs. Start OBS, and open the dock under Docks → Talvora."
