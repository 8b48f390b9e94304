#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# ./dev package: what is committed, as packages.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=lab/common.sh
. lab/common.sh

usage() {
	cat <<TXT
usage: ./dev package [--suite SUITE] [-- OUT]

Makes packages of the newest commit and has others look at them. They are left in OUT, by default out/packages/SUITE:

  talvora-obs_*.deb, talvora-local-service_*.deb   for the suite, with debug symbols beside them (-dbgsym)
  talvora-obs-VERSION-SUITE-*.tar.gz               for one user, with a script that installs it
  talvora-obs-VERSION.tar.gz                       the source
  flatpak/ arch/ fedora/                           recipes for other systems, which name the source

Who publishes them is said by variables of the environment: TALVORA_MAINTAINER ("Name <address>"), TALVORA_HOMEPAGE and
TALVORA_SUPPORT; for which service by TALVORA_SERVICE_HOST and TALVORA_SIGN_IN_URL. docs/packaging.md tells more.
TXT
}

case ${1:-} in '' | -h | --help) usage; exit 0 ;; esac
suite=$1
out=${2:-out/packages/$suite}
[ -z "$(git status --porcelain --untracked-files=no)" ] || say "What is not committed is left out."

version=$(sed -nE 's/^set\(TALVORA_VERSION "(.*)"\)$/\1/p' cmake/identity.cmake)
rm -rf "$out"
mkdir -p "$out"
git archive --format=tar --prefix="talvora-obs-$version/" HEAD | gzip -9n >"$out/talvora-obs-$version.tar.gz"

variables=(TALVORA_MAINTAINER TALVORA_HOMEPAGE TALVORA_SUPPORT TALVORA_SERVICE_HOST TALVORA_SIGN_IN_URL)
said=()
for name in "${variables[@]}"; do
	[ -z "${!name:-}" ] || said+=("$name=${!name}")
done
lab/root.sh "$suite" --workshop >/dev/null
lab/enter.sh "$suite" "${said[@]}" -- nice packaging/package.sh "$suite" "$out/talvora-obs-$version.tar.gz" "$out" >"$out/build.log" 2>&1 || {
	tail -n 30 "$out/build.log" >&2
	die "The packages could not be made: $out/build.log has all of it."
}
lab/enter.sh "$suite" "${said[@]}" -- packaging/judge.sh "$out" || die "The packages are in $out, but see above what is said of them."
say "The packages are in $out."
