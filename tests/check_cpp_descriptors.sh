#!/bin/sh
# Compiles cpp_descriptor_cases.cpp as C++20 once per case: case 0 (matching
# descriptors) must compile, and each mismatching case must fail on the
# descriptor check itself, not on anything else.
set -u
cxx=$1
src=$2
shift 2
out=$(mktemp)
trap 'rm -f "$out"' EXIT
if ! "$cxx" -std=c++20 -fsyntax-only "$@" -DCASE=0 "$src" >"$out" 2>&1; then
  cat "$out"; echo "matching descriptors did not compile"; exit 1
fi
for n in 1 2 3 4 5 6; do
  if "$cxx" -std=c++20 -fsyntax-only "$@" -DCASE=$n "$src" >"$out" 2>&1; then
    echo "case $n compiled although its descriptor does not match"; exit 1
  fi
  if ! grep -q descriptor_does_not_match_the_arguments "$out"; then
    cat "$out"; echo "case $n failed for another reason"; exit 1
  fi
done
echo "matching descriptors compile; 6 mismatches are refused at compile time"
