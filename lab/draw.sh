#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# Draws the pictures of docs/ that have a text source: docs/images/NAME.dot as NAME.svg beside it.
# Runs where the program is built: ./dev draw calls it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

for source in docs/images/*.dot; do
	# Without the comments: they name the version that drew it.
	dot -Tsvg "$source" | sed '/^<!--/,/-->$/d' >"${source%.dot}.svg"
	echo "${source%.dot}.svg"
done
