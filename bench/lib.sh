# SPDX-License-Identifier: LGPL-2.1-or-later
# shellcheck shell=bash
# What the cost scripts share: a folder of their own, and the count of a program's instructions in user space beside a simulated
# controller.
set -euo pipefail
sim=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
simulated=("$sim" run) # and what a script adds, such as a scenario

# instructions COMMAND...: all threads' together.
instructions()
{
    "${simulated[@]}" -- valgrind --tool=callgrind --callgrind-out-file=/dev/null "$@" 2>"$work/log" >"$work/out" ||
        { cat "$work/log" >&2; exit 1; }
    sed -n 's/.*Collected : //p' "$work/log"
}
