#!/usr/bin/env bash
# fuzz/run.sh [SECONDS] [NAME...]: fuzzes every parser of outside bytes, or the named ones, that many seconds each. RUNS=N ends each
# after N runs, whichever comes first. Each begins with the files of fuzz/seeds/NAME and takes words of fuzz/NAME.dict.
# FuzzRegisterTables is a script, since CMake reads those.
# What was found interesting is kept in fuzz/corpus/NAME, an input that fails in build/fuzz/NAME-crash-*: mend it, and put the
# input into fuzz/seeds/NAME, which the test suite runs.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
[ $# -gt 0 ] && shift
[[ $seconds =~ ^[0-9]+$ ]] || { echo "fuzz/run.sh: '$seconds' is no number of seconds" >&2; exit 2; }

build=build/fuzz
sanitizers=address,undefined
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
mkdir -p $build
# The library with its branches counted; only the programs below bring the fuzzer's main. One instruction set of the
# pixel kernels is enough: no parser is among them.
cmake -S . -B $build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
    "${launcher[@]}" -DKOV_SANITIZE=fuzzer-no-link,$sanitizers -DCMAKE_CXX_FLAGS="-w -DHWY_COMPILE_ONLY_STATIC" \
    -DKOV_BUILD_TOOLS=OFF -DKOV_BUILD_TESTS=OFF -DKOV_BUILD_BENCH=OFF >$build/configure.log 2>&1 ||
    { cat $build/configure.log; exit 1; }
cmake --build $build --target kovcore kovvirtual -- --quiet

names=("$@")
if [ ${#names[@]} -eq 0 ]; then
    for source in fuzz/Fuzz*.cpp; do
        names+=("$(basename "$source" .cpp)")
    done
    names+=(FuzzRegisterTables)
fi
read -ra libs <<<"$(pkg-config --libs libusb-1.0 sqlite3 libhwy libpng fmt)"
failed=()
echo "$(date -u +%F) $(git rev-parse --short HEAD 2>/dev/null || true)"
printf '%-20s %12s %10s %10s  %s\n' parser runs runs/s branches result
for name in "${names[@]}"; do
    if [ "$name" = FuzzRegisterTables ]; then
        start=$(date +%s)
        result=clean
        cmake -DSECONDS="$seconds" -DRUNS="${RUNS:-1000000000}" -DSEED="$start" -P fuzz/FuzzRegisterTables.cmake >"$build/$name.log" 2>&1 || result=FAILED
        runs=$(sed -n 's/^-- \([0-9]*\) tables.*/\1/p' "$build/$name.log")
        printf '%-20s %12s %10s %10s  %s\n' "$name" "${runs:--}" "$((${runs:-0} / ($(date +%s) - start + 1)))" - $result
        [ $result = clean ] || { tail -n 25 "$build/$name.log"; failed+=("$name"); }
        continue
    fi
    more=()
    case $name in
    FuzzHttp) more=(tools/kovcam/serve/Http.cpp tools/common/Text.cpp -Itools) ;;
    FuzzAlpaca) more=(tools/kovcam/serve/{Http,Parameters}.cpp tools/common/Text.cpp -Itools) ;;
    esac
    clang++ -std=c++20 -g -O1 -w -fsanitize=fuzzer,$sanitizers -fno-sanitize-recover=undefined -Iinclude -Isrc -I. \
        "fuzz/$name.cpp" "${more[@]}" -o "$build/$name" $build/virtual/libkovvirtual.a $build/src/libkovcore.a "${libs[@]}" -lpthread -ldl
    mkdir -p "fuzz/corpus/$name"
    # To weigh the inputs by the rarity of what they reach takes a quarter of the fastest ones' time.
    options=("fuzz/corpus/$name" -entropic=0)
    [ -d "fuzz/seeds/$name" ] && options+=("fuzz/seeds/$name")
    [ -f "fuzz/$name.dict" ] && options+=("-dict=fuzz/$name.dict")
    [ "$name" = FuzzAlpaca ] && options+=(-max_len=1024)  # a longer form has only more of the same, and takes longer
    # Open cameras keep threads and memory from run to run, which would be looked through after each.
    [ "$name" = FuzzCameraAnswers ] && options+=(-detect_leaks=0)
    [ -n "${RUNS:-}" ] && options+=("-runs=$RUNS")
    # A hang counts as a failure too.
    result=clean
    "$build/$name" "${options[@]}" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
        -artifact_prefix="$build/$name-" -print_final_stats=1 >"$build/$name.log" 2>&1 || result=FAILED
    runs=$(awk '/stat::number_of_executed_units/ { print $2 }' "$build/$name.log")
    rate=$(awk '/stat::average_exec_per_sec/ { print $2 }' "$build/$name.log")
    branches=$(grep -o 'cov: [0-9]*' "$build/$name.log" | tail -n 1 | cut -d' ' -f2)
    printf '%-20s %12s %10s %10s  %s\n' "$name" "${runs:--}" "${rate:--}" "${branches:--}" "$result"
    if [ $result = FAILED ]; then
        tail -n 25 "$build/$name.log"
        failed+=("$name")
    fi
done
[ ${#failed[@]} -eq 0 ] || { echo "failed: ${failed[*]}" >&2; exit 1; }
