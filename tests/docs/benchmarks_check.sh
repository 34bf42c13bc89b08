#!/bin/sh
# benchmarks_check.sh SOURCE-DIRECTORY
# docs/benchmarks.md is what bench/race makes of the stored results, and all pictures in it are there.
set -eu
cd "$1"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
python3 bench/race report --no-pictures --document "$work/benchmarks.md"
grep -q '^| ' "$work/benchmarks.md" || { echo "there are no tables in what was made" >&2; exit 1; }
diff -u docs/benchmarks.md "$work/benchmarks.md" >&2 || {
  echo "docs/benchmarks.md is not what the stored results say: make it anew by bench/race report" >&2
  exit 1
}
grep -oE 'pictures/[a-z-]+\.svg' docs/benchmarks.md | while read -r picture; do
  [ -s "docs/$picture" ] || { echo "docs/$picture is missing" >&2; exit 1; }
  grep -q '<desc>.' "docs/$picture" || { echo "docs/$picture does not say what it shows" >&2; exit 1; }
done
