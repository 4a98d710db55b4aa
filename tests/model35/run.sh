#!/usr/bin/env bash
# run.sh FOLDER [OPTIONS OF CMAKE]: adds model 35 to a copy of the tree, as docs/adding-a-model.md tells, and runs the model suite over it.
set -euo pipefail
cd "$(dirname "$0")/../.."
mkdir -p "$1"
copy=$(realpath "$1")
shift
find "$copy" -mindepth 1 -maxdepth 1 ! -name build -exec rm -rf {} +
# The copied files keep their dates, so that a second run builds what has changed.
git ls-files -z --cached --others --exclude-standard | tar -c --null -T - | tar -x -C "$copy"
patch -s -p1 --fuzz=0 -d "$copy" <tests/model35/opal.patch
# What the patch leaves alone comes out of the compiler's cache, where there is one: the places are the same in the copy.
export CCACHE_BASEDIR=$copy CCACHE_NOHASHDIR=1
cmake -S "$copy" -B "$copy/build/release" -G Ninja -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
cmake --build "$copy/build/release" --target test_device
XDG_CONFIG_HOME=$(mktemp -d)
export XDG_CONFIG_HOME
trap 'rm -rf "$XDG_CONFIG_HOME"' EXIT
ctest --test-dir "$copy/build/release" --output-on-failure --no-tests=error -j2 -R Opal
