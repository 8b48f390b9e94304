#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# What can be told in seconds, without building: the form of the code, mistakes in scripts, and the newest commits' words.
# Runs where the program is built: ./dev check calls it.
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

failed=0
verdict() {
	if [ "$1" = 0 ]; then
		echo "$2: nothing wrong"
	else
		echo "FAILED: $2"
		failed=1
	fi
}

# What is written by hand here and has one of the endings.
written() {
	find .ci checks cmake lab packaging service src tests -type f -regextype posix-extended -regex ".*\.($1)" -print0
}

written 'cpp|h' | xargs -0 clang-format --dry-run -Werror
verdict $? clang-format

{ printf '%s\0' dev .ci/run; written sh; } | xargs -0 shellcheck --external-sources
verdict $? shellcheck

written py | xargs -0 pyflakes3
verdict $? pyflakes

reuse lint --lines
verdict $? licences

python3 -B checks/includes.py
verdict $? includes

# A text that is new in English may be translated later, so this is a note here; ./dev nightly wants them all.
python3 -B checks/locales.py || failed=1

# A subject fits into a list of commits, and no message tells of folders that only its author's machine has. Commits from
# before this file, which was lab/check.sh then, are not looked at: the rule came with it.
git=(git -c 'safe.directory=*')
first=$("${git[@]}" log --diff-filter=A --format=%H -- lab/check.sh | tail -n 1)
[ -n "$first" ] || echo "The commits cannot be read: they are looked for in the checkout's own history."
long=$("${git[@]}" log --format='%h %s' "$first.." | awk 'length($0) - length($1) - 1 > 72')
[ -z "$long" ] || printf 'Subjects of more than 72 characters:\n%s\n' "$long"
paths=$("${git[@]}" log --format='%h %B' "$first.." | grep -E '(^|[^[:alnum:]_./~-])/(home|root|tmp|work|mnt|media|Users)/[[:alnum:]_.]')
[ -z "$paths" ] || printf 'Lines of messages that name a path of a machine:\n%s\n' "$paths"
[ -n "$first" ] && [ -z "$long$paths" ]
verdict $? commits
exit $failed
