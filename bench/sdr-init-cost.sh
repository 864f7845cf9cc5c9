#!/bin/bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# What reading a repository of some 3,000 records into the sensor store costs beside a bare sd-bus loop of the same calls: all instructions
# in user space, the listener's included (callgrind), and the resident memory that 3,000 more records take.
# Usage: sdr-init-cost.sh BDBUS_SIM SDR_INIT
set -euo pipefail
sim=$1
init=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

run() { # MODE EXTRA_RECORDS [COMMAND...]
    local mode=$1
    echo "{\"state\": {\"sdr\": {\"extra_records\": $2}}}" >"$work/scenario"
    shift 2
    "$sim" run --scenario "$work/scenario" -- "$@" "$init" "$mode" 2>"$work/log" || { cat "$work/log" >&2; exit 1; }
}

instructions() { # MODE
    run "$1" 3000 valgrind --tool=callgrind --callgrind-out-file=/dev/null >"$work/out"
    sed -n 's/.*Collected : //p' "$work/log"
}

bare=$(instructions bare)
library=$(instructions library)
small=$(run library 0)
large=$(run library 3000)
awk -v bare="$bare" -v library="$library" -v small="$small" -v large="$large" 'BEGIN {
    printf "instructions of the whole process: bare loop %d, library %d: %+.2f %%\n", bare, library, (library / bare - 1) * 100
    printf "memory of a record: %.0f bytes\n", (large - small) / 3000
    exit library > bare * 1.05 || large - small > 256 * 3000
}'
