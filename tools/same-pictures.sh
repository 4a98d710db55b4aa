# shellcheck shell=bash
# Pictures of two systems, compared to the bit. For scripts that define, before they call same_pictures or same:
#   $work    folder for the files
#   take SYSTEM NAME "OPTIONS OF KOVSIM" COMMAND [OPTIONS OF KOVCAM]
#            takes a picture on SYSTEM, which is native or other, into $work/SYSTEM-NAME.*

# same FILE BYTES_FROM_THE_END BYTES "OPTIONS OF KOVSIM" COMMAND [OPTIONS OF KOVCAM]
# Headers hold the time of day; the pixels must be the same to the bit. A busy machine can lose a frame, and noise differs from
# frame to frame: what differs is taken anew, three times at most.
same() {
    local file=$1 from_end=$2 bytes=$3 system
    shift 3
    for _ in 1 2 3; do
        for system in native other; do
            take "$system" "${file%.*}" "$@"
            # The rest is read too: a tail that nobody listens to any more would end the script.
            tail -c "$from_end" "$work/$system-$file" | { head -c "$bytes"; cat >/dev/null; } >"$work/$system.pixels"
        done
        [ "$(stat -c %s "$work/native.pixels")" -eq "$bytes" ] || { echo "$file is shorter than $bytes bytes" >&2; exit 1; }
        if cmp "$work/native.pixels" "$work/other.pixels"; then
            echo "$file: $bytes bytes alike"
            return
        fi
    done
    echo "$file differs between the systems" >&2
    exit 1
}
blocks() { echo $((($1 + 2879) / 2880 * 2880)); }  # of a FITS file: the image is its last

same_pictures() {
    same pattern.fits "$(blocks 614400)" 614400 "--camera QuartzCol --scene pattern --seed 7" snap -e 8ms -g 0 -r 640x480 -f raw16
    same sky.fits "$(blocks 614400)" 614400 "--camera LapisMono_C --scene sky --seed 7" snap -e 200ms -g 200 -r 640x480 -f raw16
    # A SER file ends with the times of its two frames.
    same colour.ser $((320 * 240 * 3 * 2 + 16)) $((320 * 240 * 3 * 2)) \
        "--camera GarnetCol --scene colour:9000,5000,3000 --seed 7 --noise 0" video -n 2 -e 20ms -r 320x240 -f rgb24
}
