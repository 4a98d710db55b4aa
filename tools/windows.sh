#!/usr/bin/env bash
# Builds for Windows, runs the tests under Wine and takes the same pictures on both systems.
#   windows.sh [OPTIONS OF CTEST]     needs the packages that './dev windows' installs, and build/release of this system
set -euo pipefail
cd "$(dirname "$0")/.."
build=${KOV_WINDOWS_BUILD:-build/windows}
native=${KOV_NATIVE_BUILD:-build/release}
say() { printf '\033[1m==> %s\033[0m\n' "$*"; }

say "building for Windows"
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
mkdir -p "$build"
cmake -S . -B "$build" -G Ninja --toolchain "$PWD/cmake/mingw-toolchain.cmake" -DCMAKE_BUILD_TYPE=Release "${launcher[@]}" \
    >"$build/configure.log" 2>&1 || { cat "$build/configure.log"; exit 1; }
cmake --build "$build"
build=$(realpath "$build")
native=$(realpath "$native")

# A Windows of its own: no window, no download of parts that nothing here uses.
export WINEPREFIX=$build/wine WINEDEBUG=-all WINEDLLOVERRIDES="mscoree=;mshtml="
unset DISPLAY
export LC_ALL=C.UTF-8  # names of files, to Wine
mkdir -p "$WINEPREFIX"
wine wineboot -i >/dev/null 2>&1
work=$(mktemp -d)
trap 'rm -rf "$work"; wineserver -k 2>/dev/null || true' EXIT

say "testing under Wine"
ctest --test-dir "$build" --output-on-failure -j2 "$@"

say "the same pictures on both systems"
# The Windows programs as they would be installed: in one folder.
mkdir -p "$work/bin"
cp "$build/src/KOVCamera2.dll" "$build/virtual/kovsim.dll" "$build/tools/kovcam.exe" "$build/tools/kovsim.exe" "$work/bin"
export XDG_CONFIG_HOME=$work
take() {  # take NAME "OPTIONS OF KOVSIM" COMMAND [OPTIONS OF KOVCAM]
    local name=$1 sim=$2
    shift 2
    # shellcheck disable=SC2086
    "$native/tools/kovsim" run $sim -- kovcam "$@" -o "$work/linux-$name" >/dev/null
    # shellcheck disable=SC2086
    (cd "$work" && wine bin/kovsim.exe run $sim -- kovcam "$@" -o "windows-$name" >/dev/null)
}
same() {  # same FILE_SUFFIX SKIP_BYTES LENGTH
    cmp <(tail -c "+$(($2 + 1))" "$work/linux-$1" | head -c "$3") <(tail -c "+$(($2 + 1))" "$work/windows-$1" | head -c "$3") ||
        { echo "$1 differs between the systems" >&2; exit 1; }
    echo "$1: $3 bytes alike"
}
# Headers hold the time of day; the pixels must be the same to the bit.
pixels() {  # pixels FILE BYTES: of a FITS file, at the start of its last blocks
    local padded=$((($2 + 2879) / 2880 * 2880))
    tail -c "$padded" "$work/linux-$1" >"$work/linux-$1.pixels"
    tail -c "$padded" "$work/windows-$1" >"$work/windows-$1.pixels"
    same "$1.pixels" 0 "$2"
}
take pattern "--camera QuartzCol --scene pattern --seed 7" snap -e 10ms -r 640x480 -f raw16
pixels pattern.fits $((640 * 480 * 2))
take sky "--camera LapisMono_C --scene sky --seed 7" snap -e 200ms -g 200 -r 640x480 -f raw16
pixels sky.fits $((640 * 480 * 2))
take colour "--camera GarnetCol --scene colour:9000,5000,3000 --seed 7 --noise 0" video -n 2 -e 20ms -r 320x240 -f rgb24
same colour.ser 178 $((320 * 240 * 3 * 2))

say "paths in any script"
mkdir "$work/dunkel ä 暗"
cam() { (cd "$work" && wine bin/kovsim.exe run --camera GarnetCol --rate 20 -- kovcam "$@" >/dev/null); }
cam dark -e 20ms -o "dunkel ä 暗/dark.bmp"
cam snap -e 20ms -f raw8 --dark "dunkel ä 暗/dark.bmp" -o "dunkel ä 暗/bild"
[ -s "$work/dunkel ä 暗/dark.bmp" ] && [ -s "$work/dunkel ä 暗/bild.png" ]
echo "written and read"
