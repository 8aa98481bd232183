#!/usr/bin/env bash
# Builds Ostrel and runs the whole test suite in every configuration CI uses:
#   plain (-Werror), ThreadSanitizer, libFuzzer runs (clang, bounded time),
#   AArch64 and big-endian s390x cross builds with the suite under qemu-user,
#   analysis (clang-tidy, cppcheck, valgrind memcheck over the plain build),
#   Debian packages (built, contents checked, lintian, consumer against them),
#   and AddressSanitizer + UndefinedBehaviorSanitizer last.
# Any failure or sanitizer finding stops the run with a non-zero status.
# Environment: OSTREL_FUZZ_SECONDS (default 60) bounds each fuzz target's run;
# OSTREL_STAGES (default "plain tsan fuzz aarch64 s390x analysis packages asan") picks stages.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh

stages=${OSTREL_STAGES:-"plain tsan fuzz aarch64 s390x analysis packages asan"}
fuzz_seconds=${OSTREL_FUZZ_SECONDS:-60}
jobs=$(nproc)
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
timings=()
last_summary=""

stage_start() { echo; echo "===== stage: $1 ====="; t0=$(date +%s); }
stage_end() { local dt=$(($(date +%s) - t0)); timings+=("$1: ${dt}s"); echo "===== stage $1 passed in ${dt}s ====="; }

build_and_test() { # name, cmake args...
  local name=$1; shift
  local dir="$root/build-ci-$name"
  cmake -S "$root" -B "$dir" -G Ninja -DOSTREL_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  ctest --test-dir "$dir" -j "$jobs" --output-on-failure --timeout 600 | tee "$dir/ctest.out"
  last_summary=$(grep -E '^[0-9]+% tests passed' "$dir/ctest.out" | tail -n 1)
}

for s in $stages; do
  case $s in
  plain)
    stage_start plain
    build_and_test plain
    stage_end plain ;;
  tsan)
    stage_start tsan
    build_and_test tsan -DOSTREL_SANITIZE=thread
    stage_end tsan ;;
  fuzz)
    if ls fuzz/fuzz_*.cpp >/dev/null 2>&1; then
      stage_start fuzz
      dir="$root/build-ci-fuzz"
      CC=clang CXX=clang++ cmake -S "$root" -B "$dir" -G Ninja -DOSTREL_WERROR=ON -DOSTREL_BUILD_FUZZ=ON \
        -DOSTREL_BUILD_TESTS=OFF -DOSTREL_BUILD_EXAMPLES=OFF -DOSTREL_SANITIZE="address;undefined" >/dev/null
      cmake --build "$dir" -j "$jobs"
      for src in fuzz/fuzz_*.cpp; do
        name=$(basename "$src" .cpp)
        corpus="fuzz/corpus/${name#fuzz_}"
        work=$(mktemp -d)
        [ -d "$corpus" ] && cp -r "$corpus"/. "$work"/
        echo "--- $name: ${fuzz_seconds}s"
        log="$dir/$name.out"
        set +e
        (cd "$dir" && ZURN_LOG_LEVEL=OFF "./fuzz/$name" -max_total_time="$fuzz_seconds" -print_final_stats=1 \
          -artifact_prefix="$dir/" "$work" >"$log" 2>&1)
        status=$?
        set -e
        grep -E 'stat::number_of_executed_units|stat::new_units_added|stat::peak_rss_mb' "$log" || true
        [ "$status" = 0 ] || tail -n 40 "$log"
        rm -rf "$work"
        if ls "$dir"/crash-* "$dir"/leak-* "$dir"/timeout-* "$dir"/oom-* >/dev/null 2>&1; then
          echo "fuzz: $name found a failing input:"; ls "$dir"/crash-* "$dir"/leak-* "$dir"/timeout-* "$dir"/oom-* 2>/dev/null
          exit 1
        fi
        [ "$status" = 0 ] || { echo "fuzz: $name exited with $status"; exit 1; }
      done
      stage_end fuzz
    fi ;;
  aarch64 | s390x)
    # Release cross build (library, support library, examples, tests); the
    # suite runs under qemu-user, on s390x with the host byte order big-endian.
    stage_start "$s"
    OSTREL_CROSS_BUILD_DIR="$root/build-ci-$s" bash scripts/cross.sh "$s"
    last_summary=$(grep -E '^[0-9]+% tests passed' "$root/build-ci-$s/ctest.out" | tail -n 1)
    stage_end "$s" ;;
  analysis)
    # Shares the plain build: only compile commands are added to it.
    stage_start analysis
    OSTREL_ANALYZE_BUILD_DIR="$root/build-ci-plain" bash scripts/analyze.sh
    last_summary=$(grep -E '^[0-9]+% tests passed' "$root/build-ci-plain/analysis/memcheck.txt" | tail -n 1)
    stage_end analysis ;;
  packages)
    # Debian packages built, their contents checked, lintian, and the consumer
    # built against the unpacked packages.
    stage_start packages
    OSTREL_PACKAGES_DIR="$root/build-ci-packages" bash scripts/packages.sh
    stage_end packages ;;
  asan)
    stage_start asan
    build_and_test asan -DOSTREL_SANITIZE="address;undefined"
    stage_end asan ;;
  *) echo "unknown stage $s"; exit 2 ;;
  esac
done
echo
echo "stage timings: ${timings[*]}"
# End with ctest's verdict on the last suite that ran.
[ -z "${last_summary:-}" ] || echo "$last_summary"
