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
fresh() {  # without settings of an earlier run
    wineserver -k 2>/dev/null || true
    rm -rf "$WINEPREFIX"
    mkdir -p "$WINEPREFIX"
    wine wineboot -i >/dev/null 2>&1
}
fresh
work=$(mktemp -d)
trap 'rm -rf "$work"; wineserver -k 2>/dev/null || true' EXIT

say "testing under Wine"
ctest --test-dir "$build" --output-on-failure -j2 "$@"

say "the same pictures on both systems"
fresh  # the tests have saved settings
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
# Headers hold the time of day; the pixels must be the same to the bit. A busy machine can lose a frame, and noise differs from
# frame to frame: what differs is taken anew, three times at most.
same() {  # same FILE BYTES_FROM_THE_END BYTES "OPTIONS OF KOVSIM" COMMAND [OPTIONS OF KOVCAM]
    local file=$1 from_end=$2 bytes=$3 system
    shift 3
    for _ in 1 2 3; do
        take "${file%.*}" "$@"
        for system in linux windows; do
            # The rest is read too: a tail that nobody listens to any more would end the script.
            tail -c "$from_end" "$work/$system-$file" | { head -c "$bytes"; cat >/dev/null; } >"$work/$system.pixels"
        done
        [ "$(stat -c %s "$work/linux.pixels")" -eq "$bytes" ] || { echo "$file is shorter than $bytes bytes" >&2; exit 1; }
        if cmp "$work/linux.pixels" "$work/windows.pixels"; then
            echo "$file: $bytes bytes alike"
            return
        fi
    done
    echo "$file differs between the systems" >&2
    exit 1
}
blocks() { echo $((($1 + 2879) / 2880 * 2880)); }  # of a FITS file: the image is its last
same pattern.fits "$(blocks 614400)" 614400 "--camera QuartzCol --scene pattern --seed 7" snap -e 10ms -r 640x480 -f raw16
same sky.fits "$(blocks 614400)" 614400 "--camera LapisMono_C --scene sky --seed 7" snap -e 200ms -g 200 -r 640x480 -f raw16
# A SER file ends with the times of its two frames.
same colour.ser $((320 * 240 * 3 * 2 + 16)) $((320 * 240 * 3 * 2)) \
    "--camera GarnetCol --scene colour:9000,5000,3000 --seed 7 --noise 0" video -n 2 -e 20ms -r 320x240 -f rgb24

say "paths in any script"
mkdir "$work/dunkel ä 暗"
cam() { (cd "$work" && wine bin/kovsim.exe run --camera GarnetCol --rate 20 -- kovcam "$@" >/dev/null); }
cam dark -e 20ms -o "dunkel ä 暗/dark.bmp"
cam snap -e 20ms -f raw8 --dark "dunkel ä 暗/dark.bmp" -o "dunkel ä 暗/bild"
[ -s "$work/dunkel ä 暗/dark.bmp" ] && [ -s "$work/dunkel ä 暗/bild.png" ]
echo "written and read"
