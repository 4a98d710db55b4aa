#!/usr/bin/env bash
# Names in src/ that begin with a letter for a type, as bCount or m_pFill, but for those of known.txt: prints them, and fails if there are any.
set -euo pipefail
cd "$(dirname "$0")"
typed='([mgst]_)?(a|ab|ap|b|c|d|dw|f|h|i|l|ll|n|p|pdw|pp|psz|pw|s|sz|u|ul|w)[A-Z][A-Za-z0-9_]+'
found=$(grep -rohwE "$typed" ../../src --include='*.h' --include='*.cpp' | LC_ALL=C sort -u | grep -vxFf known.txt || true)
[ -z "$found" ] || { echo "names that tell a type (tools/names/known.txt has those that must):" $found >&2; exit 1; }
