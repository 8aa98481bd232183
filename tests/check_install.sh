#!/bin/sh
# Installs the build into a temporary prefix and builds a small C consumer
# against it twice: through pkg-config and through find_package(Ostrel).
set -eu
build=$1
consumer=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
libdir=$(ls -d "$tmp"/prefix/lib*/pkgconfig | head -n1 | xargs dirname)
test -L "$libdir/libOstrel.so"
test -e "$libdir/libOstrel.so.1"
test -e "$libdir/libZurn_general.so"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
cc -std=c99 -Wall -Wextra -Werror -o "$tmp/consumer_pc" "$consumer/consumer.c" \
  $(pkg-config --cflags --libs ostrel) -Wl,-rpath,"$libdir"
(cd "$tmp" && ZURN_LOG_DIR="$tmp" ./consumer_pc)

cmake -S "$consumer" -B "$tmp/cm" -G Ninja -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
cmake --build "$tmp/cm" >/dev/null
(cd "$tmp" && ZURN_LOG_DIR="$tmp" "$tmp/cm/consumer")
echo "consumer built and ran through pkg-config and find_package"
