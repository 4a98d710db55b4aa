#!/usr/bin/env bash
# Drives kovcam through virtual cameras and looks at exit codes, output and files. kovcam.sh FOLDER_OF_THE_TOOLS
set -uo pipefail
bin=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"
export XDG_CONFIG_HOME=$dir/config
failures=0

fail() { echo "FAILED: $*"; failures=$((failures + 1)); }
# cam CAMERA ARGS...: kovcam with that virtual camera; output in out and err
cam() {
    local model=$1
    shift
    "$bin/kovsim" run --camera "$model" ${SIM:-} -- kovcam "$@" >out 2>err
}
# expect CODE WHAT COMMAND...
expect() {
    local want=$1 what=$2 got
    shift 2
    "$@"
    got=$?
    [ "$got" -eq "$want" ] || { fail "$what: exit code $got, expected $want"; cat out err; }
}
says() { grep -qE -- "$2" "$1" || { fail "'$2' is not in $1:"; cat "$1"; }; }
# key FILE NAME: the value of a FITS keyword, blanks and quotes removed
key() { fold -w 80 "$1" | LC_ALL=C sed -n "/^END  /q; p" | grep -a "^$(printf '%-8s=' "$2")" | sed "s/^........=//; s|/.*||; s/[' ]//g" | head -1; }
has_key() { [ "$(key "$1" "$2")" = "$3" ] || fail "$1: $2 is '$(key "$1" "$2")', expected '$3'"; }

# --- several cameras, and what is told of them
expect 0 "list" cam QuartzCol,LapisMono_C list --json
for item in '"name": "VYR KOVQuartzCol"' '"width": 1936' '"bayer": "RGGB"' '"name": "VYR KOVLapisMono-Cool"' '"cooled": true'; do
    says out "$item"
done
expect 2 "two cameras and no choice" cam QuartzCol,LapisMono_C info
says err 'more than one camera'
expect 0 "camera by a part of its name" cam QuartzCol,LapisMono_C -c Lapis info
says out '1936 x 1216'

# --- a picture: size, keywords, and the cell order after a flip and a region
expect 0 "snap" cam QuartzCol snap -o a -e 20ms -g 100 --flip 1 --region 640x480+16+8 --tiff --ra 05:35:17.3 --dec -5:23:28 \
    --keyword FOCUSPOS=12 --json
for item in '"a.fits"' '"a.tif"' '"a.png"' '"width": 640' '"height": 480' '"type": "raw16"' '"value": 100'; do says out "$item"; done
[ "$(head -c 6 a.fits)" = SIMPLE ] || fail "a.fits is no FITS file"
[ $(($(stat -c %s a.fits) % 2880)) -eq 0 ] || fail "a.fits is no whole number of blocks"
[ "$(stat -c %s a.fits)" -ge $((640 * 480 * 2 + 2880)) ] || fail "a.fits is too small"
has_key a.fits NAXIS1 640
has_key a.fits NAXIS2 480
has_key a.fits BZERO 32768
has_key a.fits EXPTIME 0.020000
has_key a.fits GAIN 100
has_key a.fits XBINNING 1
has_key a.fits XPIXSZ 3.750
has_key a.fits BAYERPAT GRBG
has_key a.fits FLIPSTAT Mirror
has_key a.fits XORGSUBF 16
has_key a.fits RA 83.822083
has_key a.fits OBJCTDEC -052328.00
has_key a.fits FOCUSPOS 12
cmp -s -n 4 a.tif <(printf 'II*\0') || fail "a.tif is no TIFF file"
has_key a.fits INSTRUME VYRKOVQuartzCol
[[ $(key a.fits DATE-OBS) =~ ^20..-..-..T..:..:..\....$ ]] || fail "DATE-OBS: '$(key a.fits DATE-OBS)'"
cmp -s -n 8 a.png <(printf '\x89PNG\r\n\x1a\n') || fail "a.png is no PNG file"
expect 0 "binned snap, in force what was set before" cam LapisMono snap -o b -e 20ms -b 2 --flip 2 --no-png
has_key b.fits XPIXSZ 11.720
has_key b.fits NAXIS1 968
expect 0 "what is in force is told" cam LapisMono snap -o b -e 20ms --no-png
says err 'not at its default: .*flip 2 \(0\)'
has_key b.fits FLIPSTAT Flip
expect 0 "defaults, and one kind of file by its ending" cam LapisMono snap -o b.fits -e 20ms --defaults
has_key b.fits FLIPSTAT None
[ ! -e b.png ] || fail "b.png was not asked for"
SIM="--scene flat:90000" expect 0 "saturation at 16 bits" cam QuartzMono snap -o c -e 1s -g 400 --no-png
says err 'every pixel is saturated'

# --- video: head, frames and time stamps
expect 0 "video" cam QuartzCol video -o v -n 5 --no-png -r 320x240 -e 5ms --json
says out '"frames": 5'
[ "$(head -c 14 v.ser)" = LUCAM-RECORDER ] || fail "v.ser is no SER file"
[ "$(stat -c %s v.ser)" -eq $((178 + 5 * 320 * 240 + 5 * 8)) ] || fail "v.ser has $(stat -c %s v.ser) bytes"
[ "$(od -An -tu4 -j38 -N4 v.ser | tr -d ' ')" = 5 ] || fail "v.ser counts another number of frames"

# --- controls are kept from run to run
expect 0 "set" cam QuartzCol set gain 123
expect 0 "get" cam QuartzCol get gain
says out '^123$'
expect 0 "set clamps" cam QuartzCol set gain 99999
says out "limits changed 99999 to"
expect 0 "set as JSON" cam QuartzCol set gain 77 --json
says out '"kept": true'
: >file
XDG_CONFIG_HOME=$dir/file expect 4 "a value that cannot be kept" cam QuartzCol set gain 78
says err 'could not be kept'

# --- for somebody who is to help
expect 0 "report" cam QuartzCol doctor --report report.txt
for item in '== findings ==' 'gain  ' 'test frame of 100 ms: .*mean' 'debug .*vendor|debug .*usb: '; do says report.txt "$item"; done
[ -e report.txt.log.part ] && fail "the report left its log"
expect 0 "the log on request" cam QuartzCol -vv get gain
says err 'debug .*usb: '
expect 0 "why the bandwidth changes" cam QuartzCol -v set bandwidth 61
says err 'info .*camera: bandwidth from [0-9]+ to 61: set by the host'

# --- mistakes
expect 2 "unknown command" cam QuartzCol snp
says err 'Did you mean snap'
expect 2 "control that can only be read" cam QuartzCol set temperature 5
expect 2 "number with a tail" cam QuartzCol set gain 12x
expect 2 "exposure without a unit" cam QuartzCol snap -e 1
says err 'write 1s, 1ms or 1us'
expect 2 "bin that is not listed" cam QuartzCol snap -b 2
says err 'it bins by 1$'
expect 2 "unknown control" cam QuartzCol get nonsense
says err 'Controls are: gain'
expect 2 "bad exposure" cam QuartzCol snap -e 10lightyears
expect 2 "format that a mono camera lacks" cam QuartzMono snap -f rgb24
says err 'does not deliver'
expect 1 "region beyond the sensor" cam QuartzCol snap -r 4000x4000
expect 1 "folder that is not there" cam QuartzCol snap -o nowhere/x -e 1ms
says err 'cannot write nowhere/x.fits'
expect 3 "unknown camera" cam QuartzCol -c Foo info
expect 2 "no cooler" cam QuartzCol cool --to 0
says err 'no cooler'
KOVSIM="Nothing" LD_PRELOAD=$(dirname "$bin")/virtual/libkovsim.so "$bin/kovcam" snap >out 2>err
[ $? -eq 3 ] || fail "no camera: another exit code than 3"
says err 'no camera found'
"$bin/kovsim" run --camera QuarzCol -- true >out 2>err
[ $? -eq 2 ] || fail "unknown model: another exit code than 2"
says err "no model 'QuarzCol'. Near it: QuartzCol"
[ "$("$bin/kovsim" models | grep -c USB)" -eq 45 ] || fail "not 44 models and a head"

# --- Ctrl-C in a long exposure: promptly, with the exposure stopped and no file left
"$bin/kovsim" run --camera QuartzCol -- kovcam snap -o never -e 100s >out 2>err &
pid=$!
sleep 2
kill -INT $pid
start=$SECONDS
wait $pid
[ $? -eq 130 ] || fail "Ctrl-C: another exit code than 130"
[ $((SECONDS - start)) -le 6 ] || fail "Ctrl-C took $((SECONDS - start)) s"
says err 'interrupted; the exposure was stopped'
[ -e never.fits ] && fail "an interrupted exposure left a file"
# A disk that fills up: the older file stays, nothing half is left.
cp a.fits full.fits
(ulimit -f 100 && trap '' XFSZ && SIM= cam QuartzCol snap -o full -e 20ms --no-png)
[ $? -eq 1 ] || fail "full disk: another exit code than 1"
cmp -s a.fits full.fits || fail "a failed write has touched the older file"
compgen -G '*.part' && fail "a failed write left its temporary file"

# --- what the camera keeps in its flash
SIM="--flash $dir/flash.bin --scene dark --hot 300"
expect 4 "no ID yet" cam QuartzMono id get
expect 0 "set ID" cam QuartzMono id set EAST
expect 0 "get ID" cam QuartzMono id get
says out '^EAST$'
expect 2 "ID of nine characters" cam QuartzMono id set 123456789
expect 0 "dark" cam QuartzMono dark -o dark.bmp -e 800ms -g 200 --json
says out '"frames": 1,'
[ "$(stat -c %s dark.bmp)" -eq $((1936 * 1096 + 1078)) ] || fail "dark.bmp has $(stat -c %s dark.bmp) bytes"
hot=$(grep -o '"standOut": [0-9]*' out | grep -o '[0-9]*')
[ "$hot" -gt 20 ] || fail "only $hot pixels stand out"
expect 0 "table of a dark frame" cam QuartzMono hotpixels save dark.bmp --json
expect 0 "table is kept" cam QuartzMono hotpixels status --json
says out "\"pixels\": $hot\$"
expect 0 "subtraction" cam QuartzMono snap -o s -e 800ms -g 200 -f raw8 --dark dark.bmp --no-png
expect 2 "subtraction from 16 bits" cam QuartzMono snap -o s -f raw16 --dark dark.bmp
expect 1 "missing dark frame" cam QuartzMono snap -o s -f raw8 --dark missing.bmp

# --- cameras for an operating system, over TCP: the list that its client asks for first
"$bin/kovsim" serve --camera QuartzCol,LapisMono_C --port 0 >served 2>refused &
server=$!
for i in {1..100}; do grep -q attach served && break; sleep 0.1; done
exec 3<>"/dev/tcp/127.0.0.1/$(sed -n 's/^kovsim.*://p' served)"
printf '\001\021\200\005\0\0\0\0' >&3
head -c 644 <&3 | LC_ALL=C tr -c '[:print:]' ' ' >out
says out '/2-1 .* 2-1 .*/2-2 .* 2-2 '
printf 'GET / HTTP/1.1\r\n' >&3
[ -z "$(cat <&3)" ] || fail "a client that speaks something else is answered"
says refused 'does not speak USB/IP'
expect 2 "a port in use" "$bin/kovsim" serve --port "$(sed -n 's/^kovsim.*://p' served)" 2>err
says err '--port'
kill $server

# --- the doctor, on a system made up: no rule, a slow link, another program, little memory
SIM=
mkdir -p sys/bus/usb/devices/1-2 dev/bus/usb/001 proc/77/fd sys/module/usbcore/parameters
(cd sys/bus/usb/devices/1-2 && echo 0e5a >idVendor && echo c11a >idProduct && echo 480 >speed && echo ' 2.10' >version &&
    echo 1 >busnum && echo 9 >devnum)
touch dev/bus/usb/001/009
ln -s /dev/bus/usb/001/009 proc/77/fd/5
echo capture >proc/77/comm
echo 16 >sys/module/usbcore/parameters/usbfs_memory_mb
"$bin/kovcam" doctor --root "$dir" >out 2>err
[ $? -eq 1 ] || fail "doctor with problems: another exit code than 1"
says out 'no udev rule'
says out 'USB 3 camera on a USB 2 link of 480'
says out 'held by capture \(process 77\)'
says out 'kill 77'
says out 'usbfs_memory_mb'
says out 'Pictures come'
echo 1 >sys/module/usbcore/parameters/usbfs_memory_mb
"$bin/kovcam" doctor --root "$dir" >out 2>err
says out 'PROBLEM.*usbfs memory: 1 MiB'
says out 'NO PICTURES COME'
says out 'sudo tee /sys/module/usbcore/parameters/usbfs_memory_mb'

[ "$failures" -eq 0 ] && echo "all well"
[ "$failures" -eq 0 ]
