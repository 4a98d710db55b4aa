#!/usr/bin/env bash
# Manual and completion against --help: every option and command stands there, and none that there is not. manual.sh TOOLS
set -uo pipefail
bin=$1 source=$(dirname "$0")/../..
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0
fail() { echo "FAILED: $*"; failures=$((failures + 1)); }
"$source/docs/man/make.sh" "$bin" "$dir" || exit 1

options() { grep -oE '(^|[ ,(|"])-{1,2}[a-zA-Z][a-z0-9-]*' | grep -oE -- '-.*' | sort -u; }
commands() { sed '0,/^Subcommands:/d' | awk '/^  [a-z]/ { print $1 }'; }
# help PROGRAM [COMMAND...]: of the command and of those below it
help() {
    "$bin/$1" "${@:2}" --help
    local sub
    for sub in $("$bin/$1" "${@:2}" --help | grep -A99 '^Subcommands:' | commands); do help "$@" "$sub"; done
}
# heads HELP: the options that it explains
heads() { sed 's/{[^}]*}//g' "$1" | awk '/^  -/ { print $1 }' | tr , ' ' | options; }
# sections PAGE NAMES: their text goes to $dir/text
sections() {
    MANWIDTH=200 man --warnings --no-hyphenation -l "$1" 2>"$dir/warnings" | col -bx | awk -v names="$2" '/^[A-Z]/ { on = index(names, $1) } on' >"$dir/text"
    [ ! -s "$dir/warnings" ] || fail "$1: $(cat "$dir/warnings")"
}

for program in kovcam kovsim; do help $program; done >"$dir/everything"
for page in "$dir"/*.1; do
    name=$(basename "$page" .1)
    case $name in
    kovcam) "$bin/kovcam" --help >"$dir/help" ;;
    kovsim) help kovsim >"$dir/help" ;;
    indi_kov_ccd) continue ;;  # takes no options
    *) help kovcam "${name#kovcam-}" >"$dir/help" ;;
    esac
    sections "$page" "OPTIONS COMMANDS"
    grep -E '^ +-' "$dir/text" | options >"$dir/has"
    heads "$dir/help" | diff - "$dir/has" || fail "$name: --help and page explain other options"
    sections "$page" "DESCRIPTION EXAMPLES"
    grep -vE 'jq|usbip attach' "$dir/text" | options | grep -vxFf <(options <"$dir/everything") && fail "$name speaks of options that there are not"
done
for prose in "$source"/docs/man/kovcam-*.scd; do
    [ -e "$dir/$(basename "$prose" .scd).1" ] || fail "$prose is of no command"
done
sections "$dir/KOVCamera2.3" DESCRIPTION
for f in $(grep -oE 'KOV[A-Za-z0-9]+\(' "$source/include/KOVCamera2.h" | sort -u); do
    grep -qF "${f%(}" "$dir/text" || fail "KOVCamera2(3) lacks ${f%(}"
done

# completes LINE WORD...: bash offers all of the words at the end of the line
for program in kovcam kovsim; do source <("$bin/$program" completion bash); done
PATH=$bin:$PATH
completes() {
    local line=$1 word
    shift
    read -ra COMP_WORDS <<<"$line"
    [[ $line == *" " ]] && COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    "_${COMP_WORDS[0]}"
    for word in "$@"; do [[ " ${COMPREPLY[*]} " == *" $word "* ]] || fail "'$line' offers '${COMPREPLY[*]}', not $word"; done
}
completes "kovcam " list snap doctor
completes "kovcam -c Quartz hotpixels " save search
completes "kovcam snap --ex" --exposure
completes "kovcam snap --format r" raw8 raw16 rgb24
completes "kovcam set ga" gain gamma
completes "kovcam firmware --to " ram eeprom flash
completes "kovsim run --camera Quartz" QuartzCol QuartzMono
cd "$dir" && touch picture.bmp
completes "kovcam snap --dark pict" picture.bmp

# The same in a zsh that somebody sits at: Tab completes the line, ^X shows it.
if command -v zsh >/dev/null; then
    for program in kovcam kovsim; do "$bin/$program" completion zsh >"_$program"; done
    for row in "kovcam snap --expo:sure " "kovcam set bright:ness " "kovcam firmware --to ee:prom " "kovsim run --camera AgateC:ol"; do
        timeout 30 zsh -fc 'zmodload zsh/zpty; zpty z zsh -fi
            zpty -w z "fpath=($PWD \$fpath); autoload -Uz compinit; compinit -u -D; show() print -r \"[\$BUFFER]\"; zle -N show; bindkey ^X show"
            zpty -nw z "$1"$'"'\t\x18'"'; zpty -rm z seen "*\[$1$2*\]*"' - "${row%:*}" "${row#*:}" || fail "zsh does not complete '${row%:*}'"
    done
fi
[ "$failures" -eq 0 ] && echo "all well"
[ "$failures" -eq 0 ]
