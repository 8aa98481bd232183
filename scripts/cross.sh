#!/usr/bin/env bash
# Cross-builds Ostrel for another Linux architecture with Debian's cross
# compiler and runs the whole test suite under qemu user-mode emulation.
#
#   bash scripts/cross.sh aarch64    # 64-bit Arm, little-endian
#   bash scripts/cross.sh s390x      # IBM Z, big-endian
#
# Installs what is missing (cross compiler, qemu-user, GoogleTest sources),
# fetches the target's builds of the libraries the tests link (zlib) from the
# Debian archive into a cache without touching the system's package set,
# configures with cmake/toolchains/<arch>-linux-gnu.cmake, builds, checks that
# the binaries really are for the target and runs ctest, including an exchange
# between the target's key-value service and client and native ones built
# here (tests/kv.cmake). Extra arguments go to
# cmake's configure step (e.g. -DOSTREL_BUILD_EXAMPLES=OFF).
# Environment: OSTREL_CROSS_BUILD_DIR (default build-cross-<arch>),
# OSTREL_CROSS_CACHE (default /var/cache/ostrel-cross as root, else
# ~/.cache/ostrel-cross) for the fetched target libraries,
# OSTREL_CROSS_BUILD_TYPE (default Release), OSTREL_JOBS (default: nproc, at most 2).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

arch=${1:-}
case $arch in
aarch64) machine="AArch64"; order="little endian"; arch_deb=arm64 ;;
s390x) machine="IBM S/390"; order="big endian"; arch_deb=s390x ;;
*) echo "usage: $0 aarch64|s390x [cmake args...]" >&2; exit 2 ;;
esac
shift
triple="$arch-linux-gnu"
toolchain="$root/cmake/toolchains/$triple.cmake"
dir=${OSTREL_CROSS_BUILD_DIR:-"$root/build-cross-$arch"}
build_type=${OSTREL_CROSS_BUILD_TYPE:-Release}
jobs=${OSTREL_JOBS:-$(nproc)}
((jobs > 2)) && jobs=2

bash scripts/setup.sh "g++-$triple" qemu-user googletest

# Target libraries: fetched with a private apt state that knows only the
# target architecture, so the system's own package lists and dpkg database
# stay as they are, and unpacked (no dependency resolution, no maintainer
# scripts) into a root that the toolchain file adds to its search roots.
target_debs=(zlib1g zlib1g-dev)
if [ "$(id -u)" -eq 0 ]; then cache_default=/var/cache/ostrel-cross; else cache_default="$HOME/.cache/ostrel-cross"; fi
cache=${OSTREL_CROSS_CACHE:-$cache_default}/$arch
deps_root="$cache/root"
if [ "$(cat "$cache/fetched" 2>/dev/null)" != "${target_debs[*]}" ]; then
  rm -rf "$cache"
  mkdir -p "$cache/lists/partial" "$cache/apt/archives/partial" "$cache/debs" "$deps_root"
  apt_opts=(-o "APT::Architecture=$arch_deb" -o "APT::Architectures=$arch_deb" -o "Dir::State::Lists=$cache/lists"
    -o "Dir::Cache=$cache/apt" -o "APT::Sandbox::User=root")
  apt-get "${apt_opts[@]}" update -qq
  (cd "$cache/debs" && apt-get "${apt_opts[@]}" download -qq "${target_debs[@]}")
  for deb in "$cache"/debs/*.deb; do dpkg-deb -x "$deb" "$deps_root"; done
  rm -rf "$cache/lists" "$cache/apt" "$cache/debs"
  echo "${target_debs[*]}" >"$cache/fetched"
fi

# Native builds of the key-value service and client, for the test in which
# they talk to the target's (tests/kv.cmake).
peer_args=()
if [ -f examples/ostrel_kvd.cpp ] && [ -f examples/ostrel_kv.cpp ]; then
  native="$dir-native-peer"
  cmake -S "$root" -B "$native" -G Ninja -DCMAKE_BUILD_TYPE="$build_type" -DOSTREL_BUILD_TESTS=OFF >/dev/null
  cmake --build "$native" -j "$jobs" --target ostrel-kvd ostrel-kv
  peer_args=(-DOSTREL_NATIVE_PEER_DIR="$native")
fi

cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" "${peer_args[@]}" \
  -DOSTREL_CROSS_DEPS_ROOT="$deps_root" -DCMAKE_BUILD_TYPE="$build_type" -DOSTREL_WERROR=ON "$@" >/dev/null
cmake --build "$dir" -j "$jobs"

# A toolchain mix-up would otherwise show up only as a suspiciously easy pass.
lib=$(readlink -f "$dir/libOstrel.so.1")
header=$(readelf -h "$lib")
grep -q "Machine: *$machine" <<<"$header" && grep -q "$order" <<<"$header" || {
  echo "cross: $lib is not a $machine $order object:" >&2
  echo "$header" >&2
  exit 1
}
echo "cross: libOstrel.so.1 is $machine, $order; tests run under $(qemu-$arch --version | head -n 1)"

# A program under qemu-user cannot start another target program directly (the
# kernel does not know the format): tests that run one (an example, a second
# service instance) start it through this command, split at spaces, when set.
export OSTREL_TARGET_EMULATOR="$(command -v "qemu-$arch") -L /usr/$triple"
ctest --test-dir "$dir" -j "$jobs" --output-on-failure --timeout 600 | tee "$dir/ctest.out"
