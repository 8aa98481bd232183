#!/bin/sh
# Every region of examples/tour.c between "/* tour: NAME */" and "/* tour end */"
# must stand in the README verbatim (with its common indentation removed), and
# every tour region the README names must exist, so the README's samples are
# always code that the suite compiles and runs.
set -eu
readme=$1
tour=$2
exec perl -e '
  my ($readme, $tour) = @ARGV;
  local $/; open my $r, "<", $readme or die; my $doc = <$r>;
  open my $t, "<", $tour or die; my $src = <$t>;
  my ($n, $bad) = (0, 0);
  while ($src =~ m{^[ \t]*/\* tour: ([\w-]+) \*/\n(.*?)^[ \t]*/\* tour end \*/}gms) {
    my ($name, $body) = ($1, $2);
    my @lines = split /\n/, $body;
    my ($ind) = sort { $a <=> $b } map { /^( *)\S/ ? length($1) : () } @lines;
    s/^ {$ind}// for @lines;
    my $block = join("\n", @lines) . "\n";
    $n++;
    if (index($doc, $block) < 0) { print "README lacks the tour sample \"$name\" as written in $tour\n"; $bad++ }
  }
  die "no tour regions found in $tour\n" if $n == 0;
  exit($bad ? 1 : 0) if $bad;
  print "$n tour samples found verbatim in the README\n";
' "$readme" "$tour"
