#!/usr/bin/env bash
# Builds for 64-bit ARM, runs tests under qemu and takes the same pictures on both systems.
#   arm64.sh [OPTIONS OF CTEST]     needs the packages that './dev arm64' installs, and build/release of this system
set -euo pipefail
cd "$(dirname "$0")/.."
build=${KOV_ARM64_BUILD:-build/arm64}
native=$(realpath "${KOV_NATIVE_BUILD:-build/release}")
mkdir -p "$build"
build=$(realpath "$build")
sysroot=${KOV_SYSROOT:-$build/sysroot}
say() { printf '\033[1m==> %s\033[0m\n' "$*"; }

# A folder of its own: a second architecture among the packages of the machine would stand in the way of some of the first.
if [ ! -e "$sysroot/complete" ]; then
    say "libraries of arm64"
    rm -rf "$sysroot"
    libraries=libc6-dev,libstdc++6,libusb-1.0-0-dev,libsqlite3-dev,libhwy-dev,libpng-dev,libcfitsio-dev,libtiff-dev,libcairo2-dev
    libraries+=,libjpeg-dev,libcpp-httplib-dev,libfmt-dev,libcli11-dev,nlohmann-json3-dev,libgtest-dev
    mmdebstrap --quiet --architectures=arm64 --variant=extract --include="$libraries" \
        "$(. /etc/os-release; echo "$VERSION_CODENAME")" "$sysroot"
    touch "$sysroot/complete"
fi

say "building for arm64"
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
cmake -S . -B "$build" -G Ninja --toolchain "$PWD/cmake/arm64-toolchain.cmake" -DKOV_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=Release \
    "${launcher[@]}" >"$build/configure.log" 2>&1 || { cat "$build/configure.log"; exit 1; }
cmake --build "$build"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export XDG_CONFIG_HOME=$work/config
say "testing under qemu"
ctest --test-dir "$build" --output-on-failure -j2 "$@"

say "the same pictures on both systems"
take() {  # take SYSTEM NAME "OPTIONS OF KOVSIM" COMMAND [OPTIONS OF KOVCAM]
    local system=$1 name=$1-$2 sim=$3
    shift 3
    rm -rf "$XDG_CONFIG_HOME"
    # shellcheck disable=SC2086
    if [ "$system" = native ]; then
        "$native/tools/kovsim" run $sim -- kovcam "$@" -o "$work/$name" >/dev/null
    else
        # kovsim would start kovcam without the emulator: what it puts into the environment, then.
        sim=${sim#--camera }
        sim=$(sed 's/ --\([a-z]*\) /;\1=/g' <<<"$sim")
        KOVSIM=$sim qemu-aarch64 -L "$sysroot" -E "LD_PRELOAD=$build/virtual/libkovsim.so" \
            "$build/tools/kovcam" "$@" -o "$work/$name" >/dev/null
    fi
}
. tools/same-pictures.sh
same_pictures
# What the vector kernels of both have to agree on: demosaic with a balance, luminance, bins, flips.
garnet="--camera GarnetCol --scene pattern --seed 7 --noise 0"
same rgb.fits "$(blocks 921600)" 921600 "$garnet" snap -e 8ms -g 0 -r 640x480 -f rgb24 --wb-r 70 --wb-b 40
same y8.fits "$(blocks 307200)" 307200 "$garnet" snap -e 8ms -g 0 -r 640x480 -f y8 --flip 3
same bin.fits "$(blocks 76800)" 76800 "$garnet" snap -e 2ms -g 0 -r 320x240 -b 2 -f raw8
