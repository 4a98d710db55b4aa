#!/usr/bin/env bash
# Builds the Debian packages of this tree and tries them. package.sh OUT VERSION [--no-try]
#
# Tried are: lintian; in a clean chroot the installation of all, the tests of packaging/debian/tests, the upgrade to a
# newer number, and the purge, after which no file is left.
set -euo pipefail
cd "$(dirname "$0")/.."
mkdir -p "$1"
out=$(realpath "$1")
version=$2
say() { printf '\033[1m==> %s\033[0m\n' "$*"; }

tree=$out/kovcamera2-$version
rm -rf "$tree" "$out"/*.deb
mkdir -p "$tree"
git ls-files -z --cached --others --exclude-standard | xargs -0 cp --parents -t "$tree"
cp -r packaging/debian "$tree/debian"
cat >"$tree/debian/changelog" <<TXT
kovcamera2 ($version) unstable; urgency=medium

  * Version $version. CHANGELOG.md tells what is new.

 -- KOVCamera2 developers <developers@kovcamera2.example>  $(git log -1 --format=%cD)
TXT
say "building the packages"
(cd "$tree" && DEB_BUILD_OPTIONS=parallel=${JOBS:-$(nproc)} dpkg-buildpackage -us -uc -b >"$out/build.log" 2>&1) || { tail -40 "$out/build.log"; exit 1; }
ls "$out"/*.deb
say "lintian"
lintian --allow-root --fail-on error,warning --tag-display-limit 0 "$out"/*.changes
[ "${3:-}" = --no-try ] && exit 0

say "a clean system"
root=$out/root
rm -rf --one-file-system "$root"
mmdebstrap --quiet --variant=apt --skip=output/mknod bookworm "$root" >"$out/mmdebstrap.log" 2>&1 || { tail "$out/mmdebstrap.log"; exit 1; }
within() { chroot "$root" env DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"; }
quietly() { "$@" >"$out/try.log" 2>&1 || { tail -40 "$out/try.log"; exit 1; }; }
packages=$(sed -n 's/^Package: //p' packaging/debian/control)
mkdir "$root/debs" "$root/debs/new"
cp "$out"/*.deb "$root/debs"
rm -f "$root"/debs/*dbgsym*
# The same packages by a newer number.
for deb in "$root"/debs/*.deb; do
    dpkg-deb -R "$deb" "$out/repack"
    sed -i "s/^Version: .*/&+new/; s/(= ${version//./\\.})/(= $version+new)/g" "$out/repack/DEBIAN/control"
    dpkg-deb -b "$out/repack" "$root/debs/new/$(basename "$deb")" >/dev/null
    rm -rf "$out/repack"
done
list() { (cd "$root" && find etc lib usr/bin usr/include usr/lib usr/share var/lib/dpkg/info -not -path '*/__pycache__*' | sort); }

say "installing"
quietly within apt-get update
quietly within sh -c "apt-get install -y --no-install-recommends /debs/*.deb"
say "upgrading"
quietly within sh -c "apt-get install -y --no-install-recommends /debs/new/*.deb"
for p in $packages; do [ "$(within dpkg-query -W -f '${Version}' "$p")" = "$version+new" ] || { echo "$p was not upgraded"; exit 1; }; done
say "testing"
quietly within apt-get install -y --no-install-recommends build-essential cmake pkg-config libpng-dev
[ -e "$root/dev/null" ] || mknod -m 666 "$root/dev/null" c 1 3
mkdir -p "$root/dev/shm"
mount -t proc proc "$root/proc"  # programs look there for their own place
trap 'umount "$root/proc"' EXIT
for t in $(sed -n 's/^Tests: //p' packaging/debian/tests/control); do
    cp "packaging/debian/tests/$t" "$root/tmp/test"
    within sh -c "mkdir -p /tmp/$t && AUTOPKGTEST_TMP=/tmp/$t /tmp/test" >"$out/test-$t.log" 2>&1 || { echo "FAILED: $t"; tail -20 "$out/test-$t.log"; exit 1; }
    echo "$t: passed"
done
say "purging"
quietly within apt-get purge -y $packages
left=$(list | grep -iE 'kov' || true)
[ -z "$left" ] || { echo "left behind: $left"; exit 1; }
umount "$root/proc"
trap - EXIT
rm -rf --one-file-system "$root"
say "all well: $out"
