#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# README's recipes for one's own OBS, in a Debian that has README's packages and nothing else to build with. What they
# change there is thrown away.
set -euo pipefail
cd "$(dirname "$0")/../.."

case ${1:-trixie} in
-h | --help) echo "usage: tests/install/run.sh [trixie|forky]"; exit 0 ;;
esac
exec lab/enter.sh --throw-away "${1:-trixie}" -- python3 -B tests/install/recipes.py
