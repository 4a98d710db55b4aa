#!/usr/bin/env bash
# tests/kernel/run.sh BUILD_DIR: boots a Debian kernel in an emulator and lets it have virtual cameras over USB/IP; guest.sh
# says what is tried there. Kernel, udev and usbip are Debian's packages, unpacked and not installed. Everything is kept in
# BUILD_DIR/kernel: packages, the guest's file system, its console.
set -euo pipefail
here=$(realpath "$(dirname "$0")") build=$(realpath "$1") work=$(realpath -m "$1/kernel")
mkdir -p "$work/packages"
cd "$work"

# package NAME: its file, fetched once
package() {
    local file
    file=$(find packages -name "$1_*.deb" -print -quit)
    if [ -z "$file" ]; then
        (cd packages && apt-get -qq -o APT::Sandbox::User=root download "$1") >&2
        file=$(find packages -name "$1_*.deb" -print -quit)
    fi
    echo "$file"
}
linux=$(apt-cache depends linux-image-amd64 | sed -n 's/ *Depends: \(linux-image-.*\)/\1/p')
[ -n "$linux" ] || { echo "no package linux-image-amd64 is known: apt-get update" >&2; exit 1; }
for p in "$linux" udev usbip; do
    [ -e "unpacked/$p" ] || { dpkg-deb -x "$(package "$p")" unpacking && mkdir -p unpacked && mv unpacking "unpacked/$p"; }
done
kernel=$(echo unpacked/"$linux"/boot/vmlinuz-*)
version=${kernel##*/vmlinuz-}

# --- the guest's file system
root=$work/root
rm -rf "$root"
mkdir -p "$root"/{bin,dev,etc,lib/udev/rules.d,lib64,proc,run,sys,tmp,usr/bin,usr/lib,var}
modules=lib/modules/$version
mkdir -p "$root/$modules/kernel"
for m in usb/common/usb-common usb/core/usbcore usb/mon/usbmon usb/usbip/usbip-core usb/usbip/vhci-hcd; do
    cp "unpacked/$linux/$modules/kernel/drivers/$m.ko" "$root/$modules/kernel/"
done
cp "unpacked/$linux/$modules"/modules.{order,builtin,builtin.modinfo} "$root/$modules/"
depmod -b "$root" "$version"

cp /bin/busybox "$root/bin/"
for tool in $(/bin/busybox --list); do [ -e "$root/bin/$tool" ] || ln -s busybox "$root/bin/$tool"; done
rm -f "$root"/bin/modprobe && ln -s busybox "$root/bin/modprobe"
cp unpacked/udev/bin/udevadm "$root/bin/"
cp unpacked/udev/lib/udev/rules.d/50-udev-default.rules "$root/lib/udev/rules.d/"
mkdir -p "$root/rule" && cp "$here/../../packaging/udev/70-kovcamera2.rules" "$root/rule/"
cp unpacked/usbip/usr/sbin/usbip "$build"/tools/{kovcam,kovsim} "$build/tests/kernel/kovprobe" "$root/usr/bin/"
cp "$build"/src/libKOVCamera2.so.? "$root/usr/lib/"
mkdir "$root/usr/lib/kovcamera2" && cp "$build/virtual/libkovsim.so" "$root/usr/lib/kovcamera2/"
# Each program's libraries, where the loader looks by itself.
cp /lib64/ld-linux-x86-64.so.2 "$root/lib64/"
for program in "$root"/bin/udevadm "$root"/usr/bin/*; do
    LD_LIBRARY_PATH=$root/usr/lib ldd "$program" | sed -n 's/.* => \(\/[^ ]*\) .*/\1/p'
done | sort -u | grep -v "^$root" | while read -r library; do cp -n "$library" "$root/usr/lib/"; done

install "${GUEST:-$here/guest.sh}" "$root/init"
printf '%s\n' root:x:0:0::/: 'in:x:1000:1000::/tmp:/bin/sh' 'out:x:1001:1001::/tmp:/bin/sh' >"$root/etc/passwd"
printf '%s\n' root:x:0: plugdev:x:46:in in:x:1000: out:x:1001: >"$root/etc/group"
(cd "$root" && find . | cpio -o -H newc -R 0:0 --quiet) >initramfs

# --- boot. The console ends with the guest's verdict.
start=$SECONDS
timeout 1200 qemu-system-x86_64 -accel tcg,thread=multi -cpu max -smp 2 -m 3072 -nographic -no-reboot -nic none \
    -kernel "$kernel" -initrd initramfs -append "console=ttyS0 panic=-1 quiet loglevel=4 rdinit=/init" </dev/null | sed -u 's/\r//g' | tee console
grep -q '^all well$' console || { echo "FAILED after $((SECONDS - start)) s, see $work/console" >&2; exit 1; }
echo "$((SECONDS - start)) s with Linux $version"
