#!/usr/bin/env bash
# Makes the manual: synopsis, options and commands from the programs' own tables, the prose from the files here. What stands
# in one before its first heading is the description. make.sh FOLDER_OF_THE_PROGRAMS OUT
set -euo pipefail
bin=$(realpath "$1")
mkdir -p "$2"
out=$(realpath "$2")
cd "$(dirname "$0")"

# page NAME PROGRAM [COMMAND]
page() {
    local prose=$1.scd
    [ -e "$prose" ] || prose=/dev/null
    "$bin/$2" manual ${3:+"$3"} | awk -v prose="$prose" '
        function copy(after,  line, seen) {
            while ((getline line < prose) > 0) {
                if (line ~ /^# /) seen = 1
                if (seen == after) print line
            }
            close(prose)
        }
        /^@DESCRIPTION@$/ { copy(0); next }
        /^@MORE@$/ { copy(1); next }
        { print }' | cat -s | scdoc >"$out/$1.1"
}
page kovcam kovcam
page kovsim kovsim
for command in $("$bin/kovcam" --help | sed '1,/^Subcommands:/d' | awk '/^  [a-z]/ { print $1 }'); do
    page "kovcam-$command" kovcam "$command"
done
scdoc <indi_kov_ccd.1.scd >"$out/indi_kov_ccd.1"
scdoc <KOVCamera2.3.scd >"$out/KOVCamera2.3"
