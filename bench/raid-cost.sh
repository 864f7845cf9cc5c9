#!/bin/bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# What a RAID query costs beside the same sd-bus calls written by hand, the connection of each call included: instructions in user space
# (callgrind, the slope between two numbers of calls, so that starting up does not count); and that calls leave nothing behind.
# Usage: raid-cost.sh BDBUS_SIM RAID
# shellcheck source=bench/lib.sh
source "$(dirname "$0")/lib.sh"
raid=$2

per_call() { # MODE QUERY
    echo $((($(instructions "$raid" "$1" "$2" 600) - $(instructions "$raid" "$1" "$2" 200)) / 400))
}

status=0
for query in list drives size; do
    bare=$(per_call bare "$query")
    library=$(per_call library "$query")
    awk -v query="$query" -v bare="$bare" -v library="$library" 'BEGIN {
        printf "instructions a query (%s): by hand %d, library %d: %+.2f %%\n", query, bare, library, (library / bare - 1) * 100
        exit library > bare * 1.03
    }' || status=1
done
read -r fds_before fds_after bytes_before bytes_after < <("$sim" run -- "$raid" growth 10000)
printf '30,000 queries: descriptors %d, then %d; resident memory %d KiB, then %d KiB\n' \
    "$fds_before" "$fds_after" "$((bytes_before / 1024))" "$((bytes_after / 1024))"
((fds_after == fds_before && bytes_after <= bytes_before + 65536)) || status=1
exit $status
