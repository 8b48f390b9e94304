#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# The packages of a suite: made twice with the same bytes, installed and upgraded and purged in a Debian that has an OBS and
# nothing to build with. What they change there is thrown away.
set -euo pipefail
cd "$(dirname "$0")/../.."

case ${1:-trixie} in
-h | --help) echo "usage: tests/install/packages.sh [trixie|forky]"; exit 0 ;;
esac
suite=${1:-trixie}
out=out/packages/$suite
export TALVORA_MAINTAINER='A Packager <packager@example.org>' TALVORA_HOMEPAGE=https://example.org/talvora
export TALVORA_SUPPORT=https://example.org/help

packaging/make.sh "$suite" "$out"

# In another folder, and with nothing taken from the first.
rm -rf "$out-again" "$out-old"
mkdir -p "$out-again" "$out-old"
said=("TALVORA_MAINTAINER=$TALVORA_MAINTAINER" "TALVORA_HOMEPAGE=$TALVORA_HOMEPAGE" "TALVORA_SUPPORT=$TALVORA_SUPPORT")
archive=$(echo "$out"/talvora-obs-?.?.?.tar.gz)
lab/enter.sh "$suite" "${said[@]}" CCACHE_DISABLE=1 TALVORA_PACKAGE_FOLDER=/tmp/elsewhere -- packaging/package.sh "$suite" "$archive" "$out-again" >"$out-again/build.log" 2>&1
for file in "$out"/*.deb "$out"/*.tar.gz "$out"/*/*; do
	cmp "$file" "$out-again/${file#"$out/"}"
done
echo "Two builds give the same bytes."

# The same sources as the version before.
old=$(mktemp -d)
trap 'rm -rf "$old"' EXIT
tar -C "$old" -xf "$archive"
mv "$old"/talvora-obs-* "$old/talvora-obs-1.0.5"
sed -i 's/^set(TALVORA_VERSION .*/set(TALVORA_VERSION "1.0.5")/' "$old/talvora-obs-1.0.5/cmake/identity.cmake"
tar -C "$old" -czf "$out-old/talvora-obs-1.0.5.tar.gz" talvora-obs-1.0.5
lab/enter.sh "$suite" "${said[@]}" -- packaging/package.sh "$suite" "$out-old/talvora-obs-1.0.5.tar.gz" "$out-old" >"$out-old/build.log" 2>&1

exec lab/enter.sh --throw-away "$suite" -- python3 -B tests/install/packages.py "$out-old" "$out"
