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
take() {  # take SYSTEM NAME "OPTIONS OF KOVSIM" COMMAND [OPTIONS OF KOVCAM]
    local system=$1 name=$1-$2 sim=$3
    shift 3
    # shellcheck disable=SC2086
    if [ "$system" = native ]; then
        "$native/tools/kovsim" run $sim -- kovcam "$@" -o "$work/$name" >/dev/null
    else
        (cd "$work" && wine bin/kovsim.exe run $sim -- kovcam "$@" -o "$name" >/dev/null)
    fi
}
. tools/same-pictures.sh
same_pictures

say "paths in any script"
mkdir "$work/dunkel ä 暗"
cam() { (cd "$work" && wine bin/kovsim.exe run --camera GarnetCol --rate 20 -- kovcam "$@" >/dev/null); }
cam dark -e 20ms -o "dunkel ä 暗/dark.bmp"
cam snap -e 20ms -f raw8 --dark "dunkel ä 暗/dark.bmp" -o "dunkel ä 暗/bild"
[ -s "$work/dunkel ä 暗/dark.bmp" ] && [ -s "$work/dunkel ä 暗/bild.png" ]
echo "written and read"

say "a ZIP for users"
name=KOVCamera2-$(sed -n 's/^project(KOVCamera2 VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)-windows-x64
rm -rf "${build:?}/$name" "$build/$name.zip"
cmake --install "$build" --prefix "$build/$name" --strip >/dev/null
cp README.md CHANGELOG.md docs/windows.md "$build/$name"
# The licence of this project, and of each part of others that is linked in.
mkdir "$build/$name/licences"
cp LICENSE "$build/$name/licences/KOVCamera2.txt"
cat data/stars/README.md data/stars/LICENSE >"$build/$name/licences/stars.txt"
for package in libhwy-dev libcli11-dev libfmt-dev nlohmann-json3-dev libz-mingw-w64-dev gcc-mingw-w64-base mingw-w64-x86-64-dev; do
    cp "/usr/share/doc/$package/copyright" "$build/$name/licences/$package.txt"
done
(cd "$build" && cmake -E tar cf "$name.zip" --format=zip "$name")
# What is in it runs from where it was unpacked, and a program can be built with it.
mkdir "$work/zip"
(
    cd "$work/zip"
    cmake -E tar xf "$build/$name.zip"
    x86_64-w64-mingw32-gcc -I"$name/include" "$OLDPWD/examples/list.c" "$name/lib/libKOVCamera2.dll.a" -o "$name/bin/list.exe"
    wine "$name/bin/kovsim.exe" run --camera QuartzCol -- list.exe | grep "1936 x 1096"
    wine "$name/bin/kovsim.exe" run --camera QuartzCol -- kovcam snap -e 20ms -o zip >/dev/null
    [ -s zip.fits ]
)
echo "$build/$name.zip"
