#!/bin/sh
# Every exported function of the two libraries has documentation of its own
# in the reference manual (a brief or detailed description in Doxygen's XML)
# and a man page in section 3.
set -eu
docs=$1
shift
missing=0
for lib in "$@"; do
  for fn in $(nm -D --defined-only "$lib" | awk '$2 == "T" {sub(/@.*/, "", $3); print $3}'); do
    if ! perl -0777 -e '
        my ($fn, @files) = @ARGV; local $/;
        for my $f (@files) {
          open my $h, "<", $f or next; my $x = <$h>;
          while ($x =~ m{<memberdef kind="function".*?</memberdef>}gs) {
            my $m = $&;
            next unless $m =~ m{<name>\Q$fn\E</name>};
            exit 0 if $m =~ m{<(briefdescription|detaileddescription)>\s*<para>}s;
          }
        }
        exit 1' "$fn" "$docs"/xml/*_8h.xml; then
      echo "undocumented: $fn"; missing=$((missing + 1))
    elif [ ! -e "$docs/man/man3/$fn.3" ]; then
      echo "no man page: $fn"; missing=$((missing + 1))
    fi
  done
done
[ "$missing" -eq 0 ] || { echo "$missing exported functions without documentation"; exit 1; }
echo "every exported function is documented and has a man page"
