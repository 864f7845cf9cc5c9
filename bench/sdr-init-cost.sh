#!/bin/bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# What reading a repository of some 3,000 records into the sensor store costs beside a bare sd-bus loop of the same calls: all instructions
# in user space, the listener's included (callgrind), and the resident memory that 3,000 more records take.
# Usage: sdr-init-cost.sh BDBUS_SIM SDR_INIT
# shellcheck source=bench/lib.sh
source "$(dirname "$0")/lib.sh"
init=$2

extra_records() { # COUNT
    echo "{\"state\": {\"sdr\": {\"extra_records\": $1}}}" >"$work/scenario"
}
simulated+=(--scenario "$work/scenario")

extra_records 3000
bare=$(instructions "$init" bare)
library=$(instructions "$init" library)
large=$("${simulated[@]}" -- "$init" library)
extra_records 0
small=$("${simulated[@]}" -- "$init" library)
awk -v bare="$bare" -v library="$library" -v small="$small" -v large="$large" 'BEGIN {
    printf "instructions of the whole process: bare loop %d, library %d: %+.2f %%\n", bare, library, (library / bare - 1) * 100
    printf "memory of a record: %.0f bytes\n", (large - small) / 3000
    exit library > bare * 1.05 || large - small > 256 * 3000
}'
