#!/bin/busybox sh
# The first process of the guest, and all that it runs: virtual cameras over USB/IP at the loopback, in a kernel that takes
# them for real ones. A line "ok" or "FAILED" a check. The cameras' clock runs at a tenth, since the processor is emulated.
export PATH=/bin:/usr/bin HOME=/tmp
exec 2>&1
for fs in "proc /proc" "sysfs /sys" "devtmpfs /dev" "tmpfs /run" "tmpfs /tmp" "debugfs /sys/kernel/debug"; do
    mount -t "${fs% *}" none "${fs#* }"
done
chmod 1777 /tmp && mkdir -p /var/run /run/udev && cd /tmp
ip link set lo up

failures=0
ok() { echo "ok      $* ($(cut -d. -f1 /proc/uptime) s)"; }
failed() {
    echo "FAILED  $*"
    [ ! -s out ] || sed 's/^/        | /' out
    failures=$((failures + 1))
}
# expect CODE WHAT COMMAND...: its output is in out
expect() {
    want=$1 what=$2
    shift 2
    "$@" >out 2>&1
    code=$?
    [ $code -eq $want ] && ok "$what" || failed "$what: exit code $code, expected $want"
}
says() { grep -qE "$1" out || failed "no '$1' in the output"; }
# as USER COMMAND...: with settings of its own
as() {
    user=$1
    shift
    su "$user" -c "XDG_CONFIG_HOME=/tmp/config.$user $*"
}
await() {
    for _ in $(seq 100); do
        "$@" && return
        sleep 0.2
    done
    failed "waited in vain for: $*"
}

# --- cameras of the bus that usbip attaches to; what it tells is read in sysfs
sys=/sys/bus/usb/devices
present() { grep -lx "$1" $sys/*/idProduct >/dev/null 2>&1; }
absent() { ! present "$1"; }
device_of() { dirname "$(grep -lx "$1" $sys/*/idProduct)"; }
node_of() { printf '/dev/bus/usb/%03d/%03d' "$(cat "$(device_of "$1")/busnum")" "$(cat "$(device_of "$1")/devnum")"; }
attach() { # BUSID PRODUCT [PORT]
    usbip --tcp-port "${3:-3240}" attach -r 127.0.0.1 -b "$1" >out || failed "attach $1"
    await present "$2"
    udevadm settle
}
detach() { # PRODUCT: by the number of its port
    busid=$(basename "$(device_of "$1")")
    usbip detach -p "$(awk -v id="$busid" '$7 == id { sub(/^0+/, "", $2); print $2 + 0 }' /sys/devices/platform/vhci_hcd.0/status)" >out || failed "detach $busid"
    await absent "$1"
}
serve() { # PORT CAMERAS OPTIONS...
    port=$1 cameras=$2
    shift 2
    kovsim serve --port "$port" --camera "$cameras" "$@" >"served.$port" 2>&1 &
    await grep -q attach "served.$port"
}
QUARTZ=c11b DUNITE=c04a KYANITE=c0b2 SCENE="scene=pattern;noise=0;hot=0"

modprobe vhci-hcd && modprobe usbmon || failed "modules"
# One controller is enough: each brings two more hubs for everybody to look through.
for n in 1 2 3 4 5 6 7; do echo vhci_hcd.$n >/sys/bus/platform/drivers/vhci_hcd/unbind; done
ln -s /bin/udevadm /run/systemd-udevd && /run/systemd-udevd --daemon || failed "udevd"
serve 3240 QuartzMono,DuniteMono,KyaniteMono --scene pattern --noise 0 --hot 0 --rate 0.1

expect 0 "the list of cameras" usbip list -r 127.0.0.1
for id in 2-1 2-2 2-3; do says "^ *$id: .*0e5a:"; done

# --- the rule, with one camera and two users
attach 2-1 $QUARTZ
expect 1 "without the rule, the doctor tells a user of the group so" as in kovcam doctor
says 'no udev rule'
cp /rule/*.rules /lib/udev/rules.d/ && udevadm control --reload && udevadm trigger --action=change --subsystem-match=usb && udevadm settle
[ "$(stat -c '%a %G' "$(node_of $QUARTZ)")" = "660 plugdev" ] && ok "rights of the node" || failed "rights: $(ls -l "$(node_of $QUARTZ)")"
expect 0 "with the rule the user takes a picture" as in kovcam snap -e 5ms -g 0 -f raw8 -r 320x240 -o /tmp/snap
as out kovcam snap -e 5ms -o /tmp/other >out 2>&1 && failed "a user outside the group takes a picture" || ok "a user outside the group does not"
says 'kovcam doctor'
as out kovcam doctor >out 2>&1
says 'plugdev'

# --- the vendor requests of the same calls, here and on the virtual bus
bus=$(cat "$(device_of $QUARTZ)/busnum")
cat "/sys/kernel/debug/usb/usbmon/${bus}u" >usbmon &
monitor=$!
expect 0 "calls on USB" env XDG_CONFIG_HOME=/tmp/config.usb kovprobe calls
sleep 1
kill $monitor
# Repeated polls of the flash that is being erased are one: how many it takes is a matter of time.
awk '$3 == "S" && $4 ~ /^C/ && $5 == "s" && ($6 == "40" || $6 == "c0") {
         line = $6 " " $7 " " $8 " " $9 " " $10
         if ($12 == "=") { line = line " "; for (i = 13; i <= NF; ++i) line = line $i }
         print line }' usbmon | awk '$0 != last || $2 != "c4" { print } { last = $0 }' >requests.usb
XDG_CONFIG_HOME=/tmp/config.bus kovprobe calls "QuartzMono;$SCENE" | awk '$0 != last || $2 != "c4" { print } { last = $0 }' >requests.bus
diff requests.bus requests.usb >out && [ "$(wc -l <requests.usb)" -gt 300 ] && ok "$(wc -l <requests.usb) vendor requests, the same as on the virtual bus" ||
    failed "vendor requests: $(wc -l <requests.bus) on the virtual bus, $(wc -l <requests.usb) on USB"

# --- three families, two speeds. Cameras are counted by bus and port: USB 2 comes first.
attach 2-2 $DUNITE
attach 2-3 $KYANITE
expect 0 "three cameras" as in kovcam list
says '^0 .*Dunite'
says '^1 .*Quartz'
says '^2 .*Kyanite'
for camera in "0 Dunite" "1 Quartz" "2 Kyanite"; do
    expect 0 "${camera#* }: video, every pixel as the scene" as in kovprobe frames "${camera% *}" 320x240 raw8 20
    tail -1 out
    expect 0 "${camera#* }: snaps of 16 bits, every pixel" as in kovprobe frames "${camera% *}" 320x240 raw16 2 snap
    expect 0 "${camera#* }: kovcam video" as in kovcam -c "${camera% *}" video -n 5 -e 5ms -r 320x240 -f raw8 -o "/tmp/${camera#* }"
done

# --- each tells its firmware's version to who asks beside the library, as to who asks the library
for id in 0 1 2; do
    expect 0 "the firmware of camera $id" as in kovprobe firmware $id
    version=$(as in kovcam --json -c $id firmware | sed -n 's/.*"firmware": *\([0-9]*\).*/\1/p')
    says "^${version:-none}\$"
done

# --- two programs
as in kovprobe frames 1 320x240 raw8 20 /tmp/enough >first &
first=$!
await grep -q started first
as in kovcam -c Quartz snap -e 5ms -r 320x240 -o /tmp/second >out 2>&1 && failed "a second program takes the camera away" || ok "a second program is refused"
says 'another program'
touch enough
wait $first && grep -q ' 0 dropped' first && ok "the first one loses no frame: $(tail -1 first)" || { cp first out; failed "the first program"; }

# --- suspended while nobody has it open
device=$(device_of $DUNITE)
echo 0 >"$device/power/autosuspend_delay_ms"; echo auto >"$device/power/control"
await grep -q suspended "$device/power/runtime_status"
expect 0 "after a suspend the camera works on" as in kovprobe frames 0 320x240 raw8 5

# --- pulled out and plugged in again while it streams
rm enough
as in kovprobe frames 2 320x240 raw8 20 /tmp/enough >first &
first=$!
await grep -q started first
detach $KYANITE
expect 0 "two cameras remain" as in kovcam list
grep -q Kyanite out && failed "one that was pulled out is listed"
attach 2-3 $KYANITE
sleep 10 && touch enough
wait $first && grep -q 'opened 2 times' first && ok "its program closes and opens it, and the video goes on: $(tail -1 first)" || { cp first out; failed "video over an unplug"; }

# --- a frame that is larger than the system's USB memory; the limit is lowered, for the emulated processor's sake
for camera in $QUARTZ $DUNITE $KYANITE; do detach $camera; done
serve 3241 QuartzMono --scene dark --noise 0 --hot 5000
attach 2-1 $QUARTZ 3241
rm -rf /tmp/config.in
limit=/sys/module/usbcore/parameters/usbfs_memory_mb
[ "$(cat $limit)" = 16 ] && echo 2 >$limit || failed "the system's limit is $(cat $limit)"
large="-g 0 -e 900ms -f raw16 -r 1936x600 --no-png"
# shellcheck disable=SC2086
large_snap() { # again when the processor was too slow for the camera
    as in kovcam snap $large -o /tmp/usb || as in kovcam snap $large -o /tmp/usb || as in kovcam snap $large -o /tmp/usb
}
expect 0 "a frame of 2.2 MiB with $(cat $limit) MiB of USB memory" large_snap
# shellcheck disable=SC2086
expect 0 "the same on the virtual bus" kovsim run --camera QuartzMono --scene dark --noise 0 --hot 5000 --rate 0.2 -- kovcam snap $large -o /tmp/bus
data=$(((1936 * 600 * 2 + 2879) / 2880 * 2880))
[ -e usb.fits ] && [ "$(tail -c $data usb.fits | md5sum)" = "$(tail -c $data bus.fits | md5sum)" ] && ok "both are equal" || failed "they differ"
echo 16 >$limit
detach $QUARTZ

# --- a camera in even light keeps its promises
serve 3242 QuartzMono --scene flat:60000
attach 2-1 $QUARTZ 3242
# The other groups want frames at a rate that an emulated processor does not compute.
for check in controls errors; do
    expect 0 "kovcam comply: $check" as in kovcam comply --check $check
    grep -q '^[1-9][0-9]* passed' out || failed "nothing was checked"
done

[ $failures -eq 0 ] && echo "all well" || { echo "$failures failed"; dmesg | tail -30; cat served.*; }
poweroff -f
