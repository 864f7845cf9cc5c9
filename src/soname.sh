#!/bin/sh
# SPDX-License-Identifier: LGPL-2.1-or-later
# soname.sh READELF COMPILER ARGUMENT...: the name by which a library is loaded that the arguments link, needed or not.
set -eu
readelf=$1
shift
program=$(mktemp)
trap 'rm -f "$program"' EXIT
"$@" -shared -nostdlib -o "$program" -x c /dev/null
"$readelf" -d "$program" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | grep .
