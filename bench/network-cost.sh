#!/bin/bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# What the discovery of 10,000 nodes costs beside a bare call with a bare parse in two passes: instructions in user space (callgrind,
# the slope between two numbers of calls, so that starting up does not count). And what 10,000 calls leave behind.
# Usage: network-cost.sh BDBUS_SIM NETWORK
# shellcheck source=bench/lib.sh
source "$(dirname "$0")/lib.sh"
network=$2
echo '{"state": {"network": {"extra_nodes": 9996}}}' >"$work/many.json" # and the four that are always there

simulated+=(--scenario "$work/many.json")

per_call() { # MODE
    echo $((($(instructions "$network" "$1" 12) - $(instructions "$network" "$1" 2)) / 10))
}

bare=$(per_call bare)
library=$(per_call library)
read -r _ _ _ fds_before kib_before fds_after kib_after < <("$sim" run -- "$network" library 10000)
awk -v bare="$bare" -v library="$library" -v fds="$((fds_after - fds_before))" -v kib="$((kib_after - kib_before))" 'BEGIN {
    printf "instructions for 10,000 nodes: bare %d, library %d: %+.2f %%\n", bare, library, (library / bare - 1) * 100
    printf "growth from 1,000 to 10,000 calls: %d descriptors, %d KiB\n", fds, kib
    exit library > bare * 1.1 || fds != 0 || kib > 64
}'
