#!/usr/bin/env bash
# Compares the library's interface with the record of the last release and stops on what breaks programs; additions are no
# fault. abi.sh LIBRARY HEADERS [--record]
set -euo pipefail
cd "$(dirname "$0")/abi"
library=$1 headers=$2
# The C++ classes are exported for this project's own tools and promise nothing.
only=(--suppressions classes.suppr --headers-dir "$headers")
if [ "${3:-}" = --record ]; then
    abidw "${only[@]}" --exported-interfaces-only --drop-private-types --no-corpus-path --no-comp-dir-path --no-show-locs "$library" |
        sed "s| path='[^']*/src/| path='src/|" >libKOVCamera2.abi
    echo "recorded: $PWD/libKOVCamera2.abi"
else
    abidiff --suppressions classes.suppr --headers-dir2 "$headers" --exported-interfaces-only --drop-private-types --no-added-syms libKOVCamera2.abi "$library"
    echo "the interface is that of the last release"
fi
