#!/usr/bin/env bash
# Builds the Debian packages (libostrel1, libostrel-dev, ostrel-tools) from
# the tracked sources with dpkg-buildpackage, checks what each contains, runs
# lintian (any error fails), then builds and runs the consumer test against
# the unpacked libostrel1 and libostrel-dev only.
# Environment: OSTREL_PACKAGES_DIR (default build-packages) receives the .deb files.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh build-essential debhelper dpkg-dev lintian
out=${OSTREL_PACKAGES_DIR:-$root/build-packages}
rm -rf "$out"
mkdir -p "$out/src"
# dpkg-buildpackage writes the packages beside the source tree: build a copy.
git ls-files | grep -v '^fuzz/corpus/' | tar -cf - -T - | tar -xf - -C "$out/src"
(cd "$out/src" && dpkg-buildpackage -b -us -uc >"$out/build.log" 2>&1) || {
  tail -n 60 "$out/build.log"
  exit 1
}
version=$(dpkg-parsechangelog -l debian/changelog -S Version)
arch=$(dpkg --print-architecture)
multiarch=$(dpkg-architecture -q DEB_HOST_MULTIARCH)
deb() { echo "$out/${1}_${version}_${arch}.deb"; }

# Contents: every file a package must ship, and no file in the wrong one.
fail=0
for p in libostrel1 libostrel-dev ostrel-tools; do
  dpkg -c "$(deb "$p")" | awk '{print $6}' | sed 's|^\./|/|' >"$out/$p.files"
done
expect() { # package, path (a regular expression) that must be in it
  if ! grep -qx "$2" "$out/$1.files"; then
    echo "packages: $1 lacks $2"; fail=1
  fi
}
lib=/usr/lib/$multiarch
expect libostrel1 "$lib/libOstrel.so.1"
expect libostrel1 "$lib/libOstrel.so.1.[0-9.]*"
expect libostrel1 "$lib/libZurn_general.so"
expect libostrel-dev "$lib/libOstrel.so"
expect libostrel-dev "$lib/pkgconfig/ostrel.pc"
expect libostrel-dev "$lib/cmake/Ostrel/OstrelConfig.cmake"
for h in include/*.h include/*.hpp support/include/zurn_general.h; do
  [ -e "$h" ] && expect libostrel-dev "/usr/include/$(basename "$h")"
done
# A man page in section 3 for every exported function.
nfn=0
for so in "$out/src/obj-$multiarch/libOstrel.so.1" "$out/src/obj-$multiarch/libZurn_general.so"; do
  for fn in $(nm -D --defined-only "$so" | awk '$2 == "T" {sub(/@.*/, "", $3); print $3}'); do
    expect libostrel-dev "/usr/share/man/man3/$fn.3.gz"
    nfn=$((nfn + 1))
  done
done
for t in ostrel-kvd ostrel-kv ostrel-pktdump; do
  expect ostrel-tools "/usr/bin/$t"
  expect ostrel-tools "/usr/share/man/man1/$t.1.gz"
done
if grep -q -e '^/usr/include/' -e '/libOstrel\.so$' "$out/libostrel1.files"; then
  echo "packages: libostrel1 ships development files"; fail=1
fi
[ "$fail" = 0 ] || exit 1
for p in libostrel1 libostrel-dev ostrel-tools; do
  echo "packages: $p: $(grep -vc '/$' "$out/$p.files") files, depends: $(dpkg-deb -f "$(deb "$p")" Depends)"
done
echo "packages: $nfn exported functions, each with its man page"

# lintian: errors fail the stage, warnings are shown.
lintian --fail-on error --tag-display-limit 0 "$out"/ostrel_"${version}"_"${arch}".changes || {
  echo "packages: lintian reports errors"
  exit 1
}

# The consumer test against the unpacked runtime and development packages.
unpacked="$out/unpacked"
mkdir -p "$unpacked"
for p in libostrel1 libostrel-dev; do dpkg -x "$(deb "$p")" "$unpacked"; done
sh tests/check_install.sh --prefix "$unpacked/usr" tests/consumer
