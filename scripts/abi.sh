#!/usr/bin/env bash
# The ABI of the two shared libraries against the baseline under abi/
# (libabigail; Debian package abigail-tools).
#   bash scripts/abi.sh check  BUILD_DIR   compare the built libraries with the baseline:
#                                          a removed or changed function or public record
#                                          layout fails with abidiff's report; added
#                                          functions pass
#   bash scripts/abi.sh update BUILD_DIR   rewrite the baseline from the built libraries
#                                          (for an intended change; see the README)
# BUILD_DIR is an uninstrumented native build with debug information
# (the default RelWithDebInfo configuration).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
mode=${1:?check or update}
build=${2:?build directory}
for lib in libOstrel.so.1 libZurn_general.so; do
  baseline="$root/abi/$lib.abi"
  case $mode in
  update)
    # The exported functions and the types they reach; no paths, locations
    # or architecture, so the baseline reads the same from any build tree.
    abidw --no-corpus-path --no-comp-dir-path \
      --no-show-locs --no-architecture --type-id-style hash --out-file "$baseline" "$build/$lib"
    echo "abi: wrote $baseline" ;;
  check)
    set +e
    report=$(abidiff --no-added-syms --no-architecture "$baseline" "$build/$lib" 2>&1)
    status=$?
    set -e
    # abidiff's status is a bit field: 1 tool error, 2 usage error, 4 an ABI
    # change, 8 an incompatible one. Added functions are not counted
    # (--no-added-syms), so any change left is one a user built against the
    # baseline could notice.
    if [ "$status" -ne 0 ]; then
      echo "abi: $lib differs from $baseline (abidiff status $status):"
      echo "$report"
      exit 1
    fi
    echo "abi: $lib matches its baseline" ;;
  *) echo "usage: $0 check|update BUILD_DIR" >&2; exit 2 ;;
  esac
done
