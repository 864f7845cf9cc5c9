#!/bin/bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# What an upload costs beside a bare sd-bus loop that sends the same blocks: instructions in user space for each block (callgrind,
# the slope between two lengths, so that starting up does not count), and peak memory beyond the image.
# Usage: upload-cost.sh BDBUS_SIM UPLOAD
# shellcheck source=bench/lib.sh
source "$(dirname "$0")/lib.sh"
upload=$2

upload_instructions() { # MODE BLOCKS
    "$upload" make "$work/image" "$2"
    instructions "$upload" "$1" "$work/image"
}

per_block() { # MODE
    echo $((($(upload_instructions "$1" 3000) - $(upload_instructions "$1" 1000)) / 2000))
}

bare=$(per_block bare)
agent=$(per_block agent)
"$upload" make "$work/image" 20000
read -r size growth < <("$sim" run -- "$upload" agent "$work/image")
awk -v bare="$bare" -v agent="$agent" -v size="$size" -v growth="$growth" 'BEGIN {
    printf "instructions a block: bare loop %d, agent %d: %+.2f %%\n", bare, agent, (agent / bare - 1) * 100
    printf "peak memory beyond an image of %.1f MiB: %.2f MiB\n", size / 1048576, (growth - size) / 1048576
    exit agent > bare * 1.03 || growth > size + 1048576
}'
