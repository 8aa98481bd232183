#!/usr/bin/env bash
# Builds and runs the benchmarks against their peers in one run each.
# Installs the peers' Debian packages first. Arguments are passed to every
# benchmark program (e.g. --benchmark_filter=...).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh" libbenchmark-dev libmsgpack-dev libtpl-dev libglib2.0-dev
dir="$root/build-bench"
cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DOSTREL_BUILD_BENCH=ON -DOSTREL_BUILD_TESTS=OFF >/dev/null
cmake --build "$dir" -j "$(nproc)" >/dev/null
for b in "$dir"/bench/bench_*; do
  [ -x "$b" ] || continue
  echo "== $(basename "$b")"
  ZURN_LOG_DIR=$(mktemp -d) "$b" "$@"
done
