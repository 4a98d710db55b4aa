#!/usr/bin/env bash
# Installs into a temporary prefix, moves that, builds the examples against it with CMake and with pkg-config, and runs
# them on virtual cameras. examples.sh SOURCE BUILD CC CXX
set -euo pipefail
source=$1 build=$2
export CC=$3 CXX=$4
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
export XDG_CONFIG_HOME=$dir/config
quietly() { "$@" >"$dir/log" 2>&1 || { echo "FAILED: $*"; cat "$dir/log"; exit 1; }; }

quietly cmake --install "$build" --prefix "$dir/first"
mv "$dir/first" "$dir/prefix"
lib=$(dirname "$(find "$dir/prefix" -name libKOVCamera2.so)")
if grep -rlE "$build|$source|$dir" "$lib/cmake" "$lib/pkgconfig" "$dir/prefix/include"; then
    echo "FAILED: names a folder of this machine"
    exit 1
fi
export LD_LIBRARY_PATH=$lib PATH=$dir/prefix/bin:$PATH

cp -r "$source/examples" "$dir/pc"
quietly env PKG_CONFIG_PATH="$lib/pkgconfig" CFLAGS=-Werror CXXFLAGS=-Werror make -C "$dir/pc"
quietly cmake -S "$source/examples" -B "$dir/cm" -DCMAKE_PREFIX_PATH="$dir/prefix"
quietly cmake --build "$dir/cm"
quietly ctest --test-dir "$dir/cm" --output-on-failure

# Another version is refused, and so is a component that there is none of.
for wrong in "2 CONFIG" "1 CONFIG REQUIRED COMPONENTS nothing"; do
    mkdir -p "$dir/wrong"
    printf 'cmake_minimum_required(VERSION 3.16)\nproject(x C)\nfind_package(KOVCamera2 %s)\nif(NOT KOVCamera2_FOUND)\nmessage(FATAL_ERROR no)\nendif()\n' \
        "$wrong" >"$dir/wrong/CMakeLists.txt"
    ! cmake -S "$dir/wrong" -B "$dir/wrong/build" -DCMAKE_PREFIX_PATH="$dir/prefix" >/dev/null 2>&1 || { echo "FAILED: find_package($wrong) succeeds"; exit 1; }
done

# Taken in as a part of another project.
mkdir "$dir/within"
cat >"$dir/within/CMakeLists.txt" <<TXT
cmake_minimum_required(VERSION 3.25)
project(x C CXX)
include(FetchContent)
FetchContent_Declare(kovcamera2 SOURCE_DIR $source)
FetchContent_MakeAvailable(kovcamera2)
add_executable(list $source/examples/list.c)
target_link_libraries(list KOVCamera2::KOVCamera2 KOVCamera2::virtual)
if(TARGET kovcam OR TARGET test_core)
    message(FATAL_ERROR "more than the libraries")
endif()
TXT
quietly cmake -S "$dir/within" -B "$dir/within/build"

sim() { kovsim run --camera QuartzCol "$@"; }
cd "$dir"
kovsim run --camera QuartzCol,LapisMono_C -- cm/list | grep -q "1: VYR KOVLapisMono-Cool, 1936 x 1216 pixels of .* mono, cooled"
sim --scene flat:20000 -- cm/snap 0.05 snap.pgm
[ "$(head -c 20 snap.pgm | head -1)" = "P5 1936 1096 65535" ]
[ "$(stat -c %s snap.pgm)" -eq $((1936 * 1096 * 2 + 19)) ]
sim -- pc/video 20 | tee video.txt | grep -q "^20 frames.* 0 dropped"
sim --rate 4 -- pc/guide 3
sim --scene dark -- cm/dark dark.bmp | grep -q "dark.bmp is in use"
sim --vanish 10 -- pc/hotplug 40 | tee hotplug.txt
grep -q "40 of 40" hotplug.txt
echo "all well"
