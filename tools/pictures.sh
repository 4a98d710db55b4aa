#!/usr/bin/env bash
# Makes the pictures of docs/pictures anew, all from virtual cameras. pictures.sh BUILD_FOLDER [PICTURE...]
set -euo pipefail
cd "$(dirname "$0")/.."
bin=$(realpath "$1")/tools
shift
all=(sky families hotpixels cooler autoexposure photon-transfer cooler-step delivery serve)
[ $# -gt 0 ] && all=("$@")
out=$PWD/docs/pictures
mkdir -p "$out"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
export XDG_CONFIG_HOME=$tmp/config

# cam CAMERA[ --OPTION...] KOVCAM_ARGUMENTS...
cam() {
    local camera
    read -ra camera <<<"$1"
    shift
    "$bin/kovsim" run --camera "${camera[@]}" -- kovcam "$@"
}

# Orion's sword and belt.
sky() {
    cam "QuartzCol --scene sky:84.0,-3.3,50 --hot 0 --noise 0.3" snap -e 4s -g 60 -o "$tmp/sky" --no-fits
    "$bin/kovsheet" "$out/sky.png" --dark --tile 880x498 "$tmp/sky.png=QuartzCol, 4 s, gain 60: in Orion, 50 mm"
}

# One camera of each family, the same sky through the same lens: the fields show the sizes of the sensors.
families() {
    local m sheet=()
    for m in AgateCol BerylCol CobaltCol DuniteMono EbonyCol FlintCol GarnetCol HaliteCol IoliteMono JasperCol KyaniteCol LapisCol \
        MarbleCol NephriteCol OnyxCol PyriteCol QuartzCol; do
        cam "$m --hot 0 --noise 0.3" snap -e 300ms --no-fits -o "$tmp/$m"
        sheet+=("$tmp/$m.png=$m")
    done
    "$bin/kovsheet" "$out/families.png" --dark --stars --columns 5 --tile 220x165 "${sheet[@]}"
}

# The same corner of one camera: as it comes, less a dark frame, and repaired by its table.
hotpixels() {
    local hot="QuartzMono --hot 6000 --ambient 30 --seed 5 --flash $tmp/flash" e="-e 1900ms -g 150 --brightness 60"
    cam "$hot --scene dark" dark $e -o "$tmp/dark.bmp"
    cam "$hot" snap $e -f raw8 --no-fits -o "$tmp/hot0"
    cam "$hot" snap $e -f raw8 --no-fits -o "$tmp/hot1" --dark "$tmp/dark.bmp"
    cam "$hot" hotpixels save "$tmp/dark.bmp"
    cam "$hot" snap $e -f raw8 --no-fits -o "$tmp/hot2"
    "$bin/kovsheet" "$out/hotpixels.png" --dark --tile 380x380 --crop 190x190+800+400 "$tmp/hot0.png=as it comes" \
        "$tmp/hot1.png=dark frame subtracted" "$tmp/hot2.png=repaired by the table"
}

cooler() {
    cam "MarbleMono_C --rate 20" cool --to -10 --for 10m --plot "$out/cooler.png"
}

autoexposure() {
    local m sheet=()
    for m in GarnetCol QuartzCol KyaniteMono; do
        cam "$m --scene flat:30000" autoexposure -e 500us -g 0 -r 1024x768 --plot "$tmp/auto-$m.png"
        sheet+=("$tmp/auto-$m.png=")
    done
    "$bin/kovsheet" "$out/autoexposure.png" --columns 1 --tile 1200x700 "${sheet[@]}"
}

# The worked examples of docs/python.md.
example() { PYTHONPATH=${bin%/tools}/bindings/python /usr/bin/python3 "bindings/python/examples/$1.py" "$out/$2.png"; }
photon-transfer() { example photon_transfer photon-transfer; }
cooler-step() { example cooler_step cooler-step; }

# From the bench's own output.
delivery() {
    "${bin%/tools}/bench/kovbench" --isa "${KOV_BENCH_ISA:-avx2}" --benchmark_filter='^GetImage.*4656' --tsv "$tmp/bench.tsv" >"$tmp/bench.txt"
    /usr/bin/python3 bench/ratios.py "$tmp/bench.tsv" "$out/delivery.png"
}

# By the test of the page in Chromium.
serve() {
    local shot
    mkdir "$tmp/shots"
    KOV_TOOLS=$bin KOV_SCREENSHOTS=$tmp/shots /usr/bin/python3 tests/serve/page_test.py
    cp "$tmp/shots/page.png" "$out/serve.png"
    for shot in slider zoom zoom4 region exposure recording cooler unplugged browsers phone night; do
        cp "$tmp/shots/$shot.png" "$out/serve-$shot.png"
    done
}

for picture in "${all[@]}"; do
    printf '\033[1m==> %s\033[0m\n' "$picture"
    "$picture"
    ls -la "$out/$picture.png"
done
