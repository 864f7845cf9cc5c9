#!/bin/sh
# SPDX-License-Identifier: LGPL-2.1-or-later
# Compile wrong-width.cpp case by case: only the first may pass, and the others must fail for the reason that they are there for.
# Usage: wrong-width.sh SOURCE COMPILER [OPTION…]
set -u
source=$1
shift

compile() {
    "$@" -std=c++20 -fsyntax-only "-DCASE=$case" "$source" 2>&1
}

case=0
if ! said=$(compile "$@"); then
    echo "the sound case does not compile:" "$said"
    exit 1
fi
for case in 1 2 3 4 5 6 7; do
    if said=$(compile "$@"); then
        echo "case $case compiles"
        exit 1
    fi
    case $said in
    *"do not match the signature"* | *"does not match the property's type"*) ;;
    *)
        echo "case $case fails for another reason:" "$said"
        exit 1
        ;;
    esac
done
