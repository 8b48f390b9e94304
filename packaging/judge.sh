#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# What other programs say of the packages in a folder: packaging/judge.sh OUT
set -uo pipefail
cd "$1" || exit 1
failed=0

tags=()
# A package for oneself need not name a maintainer.
[ -n "${TALVORA_MAINTAINER:-}" ] || tags=(--suppress-tags "no-maintainer-field,malformed-contact,bogus-mail-host-in-debian-changelog")
lintian --allow-root --fail-on error,warning "${tags[@]}" ./*.changes || failed=1
appstreamcli validate --no-net flatpak/*.metainfo.xml || failed=1
flatpak-builder --show-manifest flatpak/*.yaml >/dev/null || failed=1
bash -n arch/PKGBUILD || failed=1
exit $failed
