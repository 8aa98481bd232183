#!/usr/bin/env bash
# Static and dynamic analysis of Ostrel:
#   tidy      clang-tidy with the checked-in .clang-tidy over src/ and support/
#   cppcheck  cppcheck over the same sources, with the build's own flags
#   valgrind  every unit test (one process per test) under valgrind memcheck
#
#   bash scripts/analyze.sh                 # all three
#   bash scripts/analyze.sh tidy cppcheck   # a selection
#
# Each step lists its findings per file and the script fails if any step found
# anything. Environment: OSTREL_ANALYZE_BUILD_DIR (default build-analysis) is
# the build the compile commands and test executables come from; a plain build
# directory can be shared, its configuration is only extended.
# OSTREL_JOBS (default: nproc, at most 2).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

steps=${*:-"tidy cppcheck valgrind"}
dir=${OSTREL_ANALYZE_BUILD_DIR:-"$root/build-analysis"}
jobs=${OSTREL_JOBS:-$(nproc)}
((jobs > 2)) && jobs=2

bash scripts/setup.sh clang-tidy cppcheck valgrind

cmake -S "$root" -B "$dir" -G Ninja -DOSTREL_WERROR=ON -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
out="$dir/analysis"
mkdir -p "$out"
sources=(src/*.cpp support/*.cpp)
failed=()
timings=()

# Prints "<count> <file>" for each file named in "<file>:<line>:..." lines on stdin.
per_file() { sed -nE 's|^([^:]+):[0-9]+:.*|\1|p' | sed "s|^$root/||" | sort | uniq -c | sort -rn; }

step_tidy() {
  # clang-tidy reads the sources' compile flags from the build's compile
  # commands and .clang-tidy from the source tree; WarningsAsErrors makes any
  # finding an error line.
  printf '%s\n' "${sources[@]}" |
    xargs -P "$jobs" -n 1 clang-tidy -p "$dir" --quiet >"$out/clang-tidy.txt" 2>"$out/clang-tidy.stderr" || true
  local findings
  findings=$(grep -E '^[^ ]+:[0-9]+:[0-9]+: (warning|error): ' "$out/clang-tidy.txt" || true)
  if [ -n "$findings" ]; then
    echo "clang-tidy: $(wc -l <<<"$findings") findings in ${#sources[@]} sources, per file:"
    per_file <<<"$findings"
    echo "$findings" | sed "s|^$root/||"
    return 1
  fi
  # A source clang-tidy could not parse shows up as a compiler error on stderr.
  if grep -q 'error' "$out/clang-tidy.stderr"; then
    cat "$out/clang-tidy.stderr"
    return 1
  fi
  echo "clang-tidy: ${#sources[@]} sources, no findings"
}

step_cppcheck() {
  # Suppressed: useStlAlgorithm suggests <algorithm> calls for the plain loops
  # over fixed C tables that the library uses on purpose; constParameter asks
  # for const on parameters of exported C functions, whose signatures are
  # fixed by the interface.
  # The file filters match paths as cppcheck prints them, which are relative
  # when the compile commands are named by a relative path.
  local status=0 project
  project=$(realpath --relative-to="$root" "$dir/compile_commands.json")
  cppcheck --project="$project" --file-filter='src/*' --file-filter='support/*' \
    -j "$jobs" -q --enable=warning,style,performance,portability --inline-suppr --error-exitcode=1 \
    --suppress=missingIncludeSystem --suppress=useStlAlgorithm --suppress=constParameter \
    --template='{file}:{line}: {severity}: {message} [{id}]' >"$out/cppcheck.stdout" 2>"$out/cppcheck.txt" ||
    status=$?
  if [ -s "$out/cppcheck.txt" ]; then
    echo "cppcheck: $(wc -l <"$out/cppcheck.txt") findings, per file:"
    per_file <"$out/cppcheck.txt"
    cat "$out/cppcheck.txt"
    return 1
  fi
  if [ "$status" != 0 ]; then
    echo "cppcheck failed with status $status:"
    cat "$out/cppcheck.stdout"
    return 1
  fi
  echo "cppcheck: ${#sources[@]} sources, no findings"
}

step_valgrind() {
  cmake --build "$dir" -j "$jobs" || return 1
  # ctest's memory check reads its settings from DartConfiguration.tcl.
  # --soname-synonyms=somalloc=nouserintercepts: tests that interpose malloc
  # and calloc in the test executable keep their own, which forward to the C
  # library's allocator that memcheck tracks. Leaks count as errors when
  # definite or indirect; still-reachable blocks (state kept for the life of
  # the process) do not.
  local supp=""
  [ -f "$root/tests/valgrind.supp" ] && supp="$root/tests/valgrind.supp"
  cat >"$dir/DartConfiguration.tcl" <<EOF
SourceDirectory: $root
BuildDirectory: $dir
MemoryCheckType: Valgrind
MemoryCheckCommand: $(command -v valgrind)
MemoryCheckCommandOptions: --tool=memcheck --leak-check=full --show-leak-kinds=definite,indirect,possible --errors-for-leak-kinds=definite,indirect --error-exitcode=97 --track-origins=yes --num-callers=40 --soname-synonyms=somalloc=nouserintercepts
MemoryCheckSuppressionFile: $supp
TimeOut: 600
EOF
  # The script tests run host tools (nm, cmake, the C compiler), not the library.
  local status=0
  (cd "$dir" && ctest -T memcheck -j "$jobs" --timeout 600 -E '^(exported_symbols|install_and_consume|cpp_descriptor_literals)$') \
    >"$out/memcheck.txt" 2>&1 || status=$?
  local defects
  defects=$(grep -E 'Defects: [1-9]' "$out/memcheck.txt" || true)
  if [ "$status" != 0 ] || [ -n "$defects" ]; then
    sed -n '/tests passed/,$p' "$out/memcheck.txt"
    for log in "$dir"/Testing/Temporary/MemoryChecker.*.log; do
      grep -qE 'ERROR SUMMARY: [1-9]|definitely lost: [1-9]|indirectly lost: [1-9]' "$log" || continue
      echo "--- $log"
      grep -E '^==[0-9]+== ' "$log" | head -n 80
    done
    return 1
  fi
  grep -E 'tests passed' "$out/memcheck.txt" | sed 's/^/valgrind memcheck: /'
}

for s in $steps; do
  case $s in
  tidy | cppcheck | valgrind) ;;
  *) echo "unknown analysis step $s (tidy, cppcheck, valgrind)" >&2; exit 2 ;;
  esac
  echo "--- analysis: $s"
  t0=$(date +%s)
  status=0
  "step_$s" || status=$?
  dt=$(($(date +%s) - t0))
  timings+=("$s: ${dt}s")
  [ "$status" = 0 ] || failed+=("$s")
done
echo "analysis timings: ${timings[*]}"
if ((${#failed[@]})); then
  echo "analysis: findings from ${failed[*]}"
  exit 1
fi
echo "analysis: no findings"
