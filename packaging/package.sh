#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# Makes the packages of a suite from a source archive. Runs where the program is built, with the lab's workshop: ./dev
# package calls it.
#
#   packaging/package.sh SUITE ARCHIVE OUT
#
# Who publishes them is said by the variables TALVORA_MAINTAINER, TALVORA_HOMEPAGE and TALVORA_SUPPORT, where the service is
# by TALVORA_SERVICE_HOST and TALVORA_SIGN_IN_URL. The same archive and variables give the same bytes.
set -euo pipefail
suite=$1 archive=$(realpath "$2") out=$(realpath "$3")

variables=()
for name in MAINTAINER HOMEPAGE SUPPORT SERVICE_HOST SIGN_IN_URL; do
	name=TALVORA_$name
	[ -z "${!name:-}" ] || variables+=("-D$name=${!name}")
done

# The same for each build, so that the compiler's cache knows the files again. No package shows in which folder it was built.
work=${TALVORA_PACKAGE_FOLDER:-/tmp/talvora-package}
sources=$work/sources
name=$(basename "$archive" .tar.gz)
rm -rf "$work"
trap 'rm -rf "$work"' EXIT
mkdir -p "$sources"
tar -C "$sources" --strip-components=1 -xf "$archive"
# The time of all files in the archive is that of the commit it was made from.
SOURCE_DATE_EPOCH=$(stat -c %Y "$sources/CMakeLists.txt")
export SOURCE_DATE_EPOCH LC_ALL=C.UTF-8 TZ=UTC
umask 022

fill() {
	cmake "$@" "${variables[@]}" -P "$sources/packaging/fill.cmake"
}

# An archive that tells nothing of when, where and by whom it was made: pack ARCHIVE FOLDER MEMBER
pack() {
	tar -C "$2" --sort=name --owner=0 --group=0 --numeric-owner --mtime="@$SOURCE_DATE_EPOCH" -cf - "$3" | gzip -9n >"$1"
}

debian_packages() {
	fill "-DOUT=$sources/debian" "-DSUITE=$suite" "-DDATE=$(date -R -d "@$SOURCE_DATE_EPOCH")"
	chmod +x "$sources/debian/rules"
	(cd "$sources" && dpkg-buildpackage --build=binary --no-sign)
	mv "$work"/*.deb "$work"/*.buildinfo "$work"/*.changes "$out/"
}

# The module that is in the package, for those who have no root.
user_archive() {
	local folder
	folder=$work/user/$name-$suite-$(uname -m)
	mkdir -p "$folder/talvora-obs/bin/64bit"
	cp "$sources"/debian/talvora-obs/usr/lib/*/obs-plugins/talvora-obs.so "$folder/talvora-obs/bin/64bit/"
	cp -r "$sources/debian/talvora-obs/usr/share/obs/obs-plugins/talvora-obs" "$folder/talvora-obs/data"
	cp "$sources/LICENSE" "$sources/packaging/user/install.sh" "$folder/"
	pack "$out/$(basename "$folder").tar.gz" "$work/user" "$(basename "$folder")"
}

# For other systems, beside the source archive that they name.
recipes() {
	[ "$archive" -ef "$out/$name.tar.gz" ] || cp "$archive" "$out/$name.tar.gz"
	fill "-DOUT=$out" "-DDAY=$(date -d "@$SOURCE_DATE_EPOCH" +%F)" "-DCHECKSUM=$(sha256sum <"$archive" | cut -d' ' -f1)"
}

mkdir -p "$out"
debian_packages
user_archive
recipes
