#!/bin/sh
# Doxygen's MAN_LINKS writes a one-line page (".so man3/PAGE.3") for every
# documented name, struct fields included. Only names declared at file scope
# of a header (functions, macros, types) keep theirs: a field name such as
# "address" or "arg" has no place in man3.
set -eu
dir=$1
for f in "$dir"/*.3; do
  target=$(sed -n '1s/^\.so man3\/\(.*\)\.3$/\1/p' "$f")
  [ -n "$target" ] || continue
  case $target in
  *.h | *.hpp) ;;
  *) rm -f "$f" ;;
  esac
done
