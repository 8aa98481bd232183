#!/bin/sh
# The shared library exports exactly the functions the public headers mark
# OSTREL_API: nothing internal, nothing missing, each under one of the
# version nodes given as the third argument (separated by spaces).
set -eu
lib=$1
incdir=$2
nodes=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
# Declared: the identifier before the first "(" of each OSTREL_API declaration,
# with comments and preprocessor lines removed first.
cat "$incdir"/*.h | perl -0777 -ne '
  s{/\*.*?\*/}{}gs; s{//[^\n]*}{}g; s{^[ \t]*#[^\n]*}{}gm;
  while (/\bOSTREL_API\b([^;{]*?)\(/g) { my $d = $1; print "$1\n" if $d =~ /([A-Za-z_]\w*)\s*$/ }
' | sort -u >"$tmp/declared"
# Every function carries the version node of the library (NAME@@NODE); the
# node itself is listed as an absolute symbol.
nm -D --defined-only "$lib" | awk '$2 != "A" {print $NF}' >"$tmp/versioned"
if grep -Ev "@@($(echo "$nodes" | sed 's/ /|/g'))\$" "$tmp/versioned"; then
  echo "exported without one of the version nodes $nodes (above)"
  exit 1
fi
sed 's/@@.*//' "$tmp/versioned" | sort -u >"$tmp/exported"
if ! diff -u "$tmp/declared" "$tmp/exported"; then
  echo "exported symbols differ from the public headers (- declared only, + exported only)"
  exit 1
fi
echo "$(wc -l <"$tmp/exported") exported functions, all declared in the public headers"
