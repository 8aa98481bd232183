#!/usr/bin/env bash
# The project's main job: builds Ostrel and runs the example program, which
# prints what each library call answered.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh"
dir="$root/build-run"
cmake -S "$root" -B "$dir" -G Ninja -DOSTREL_BUILD_TESTS=OFF >/dev/null
cmake --build "$dir" -j "$(nproc)" >/dev/null
logdir=$(mktemp -d)
echo "== ostrel-list-demo (log lines go to $logdir/ostrel.log)"
ZURN_LOG_DIR="$logdir" ZURN_LOG_LEVEL=INFO "$dir/examples/ostrel-list-demo"
echo "== the library's log of that run:"
cat "$logdir/ostrel.log"
