#!/bin/sh
# Installs the build into a temporary prefix and builds a small C consumer
# and a small C++ consumer against it twice: through pkg-config and through
# find_package(Ostrel).
# With --prefix DIR the files are already there (e.g. unpacked packages).
#   check_install.sh BUILD_DIR CONSUMER_DIR | check_install.sh --prefix DIR CONSUMER_DIR
set -eu
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
if [ "$1" = --prefix ]; then
  prefix=$2
  consumer=$3
else
  prefix="$tmp/prefix"
  consumer=$2
  cmake --install "$1" --prefix "$prefix" >/dev/null
fi
libdir=$(dirname "$(find "$prefix" -name ostrel.pc -path '*/pkgconfig/*' | head -n1)")
libdir=$(dirname "$libdir")
# Unpacked packages have no run path of their own (an installed system finds
# them in its library directory): the programs below look there.
[ "$1" != --prefix ] || export LD_LIBRARY_PATH="$libdir"
test -L "$libdir/libOstrel.so"
test -e "$libdir/libOstrel.so.1"
test -e "$libdir/libZurn_general.so"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
cc -std=c99 -Wall -Wextra -Werror -o "$tmp/consumer_pc" "$consumer/consumer.c" \
  $(pkg-config --cflags --libs ostrel) -Wl,-rpath,"$libdir"
(cd "$tmp" && ZURN_LOG_DIR="$tmp" ./consumer_pc)
c++ -std=c++17 -Wall -Wextra -Werror -o "$tmp/consumer_cpp_pc" "$consumer/consumer_cpp.cpp" \
  $(pkg-config --cflags --libs ostrel) -Wl,-rpath,"$libdir"
(cd "$tmp" && ZURN_LOG_DIR="$tmp" ./consumer_cpp_pc)

cmake -S "$consumer" -B "$tmp/cm" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$tmp/cm" >/dev/null
(cd "$tmp" && ZURN_LOG_DIR="$tmp" "$tmp/cm/consumer")
(cd "$tmp" && ZURN_LOG_DIR="$tmp" "$tmp/cm/consumer_cpp")
echo "consumer built and ran through pkg-config and find_package"
